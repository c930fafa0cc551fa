#include "BaseLib.h"

VOID *CopyMem(VOID *Destination, const VOID *Source, UINTN Length) {
  if (Length != 0 && Destination != Source) {
    __builtin_memmove(Destination, Source, Length);
  }
  return Destination;
}

VOID *SetMem(VOID *Buffer, UINTN Length, UINT8 Value) {
  if (Length != 0) {
    __builtin_memset(Buffer, Value, Length);
  }
  return Buffer;
}

VOID *ZeroMem(VOID *Buffer, UINTN Length) { return SetMem(Buffer, Length, 0); }

INTN CompareMem(const VOID *First, const VOID *Second, UINTN Length) {
  const UINT8 *Left = static_cast<const UINT8 *>(First);
  const UINT8 *Right = static_cast<const UINT8 *>(Second);
  for (UINTN Index = 0; Index < Length; Index++) {
    if (Left[Index] != Right[Index]) {
      return static_cast<INTN>(Left[Index]) - static_cast<INTN>(Right[Index]);
    }
  }
  return 0;
}

BOOLEAN CompareGuid(const EFI_GUID *First, const EFI_GUID *Second) {
  return CompareMem(First, Second, sizeof(EFI_GUID)) == 0;
}

BOOLEAN IsZeroBuffer(const VOID *Buffer, UINTN Length) {
  const UINT8 *Bytes = static_cast<const UINT8 *>(Buffer);
  for (UINTN Index = 0; Index < Length; Index++) {
    if (Bytes[Index] != 0) {
      return FALSE;
    }
  }
  return TRUE;
}

UINTN AsciiStrLen(const CHAR8 *String) {
  UINTN Length = 0;
  while (String[Length] != 0) {
    Length++;
  }
  return Length;
}

UINTN StrLen(const CHAR16 *String) {
  UINTN Length = 0;
  while (String[Length] != 0) {
    Length++;
  }
  return Length;
}

INTN StrCmp(const CHAR16 *First, const CHAR16 *Second) {
  while (*First != 0 && *First == *Second) {
    First++;
    Second++;
  }
  return static_cast<INTN>(*First) - static_cast<INTN>(*Second);
}

INTN AsciiStrCmp(const CHAR8 *First, const CHAR8 *Second) {
  while (*First != 0 && *First == *Second) {
    First++;
    Second++;
  }
  return static_cast<INTN>(*First) - static_cast<INTN>(*Second);
}

UINT16 ReadUnaligned16(const VOID *Address) {
  UINT16 Value;
  __builtin_memcpy(&Value, Address, sizeof(Value));
  return Value;
}

UINT32 ReadUnaligned32(const VOID *Address) {
  UINT32 Value;
  __builtin_memcpy(&Value, Address, sizeof(Value));
  return Value;
}

UINT64 ReadUnaligned64(const VOID *Address) {
  UINT64 Value;
  __builtin_memcpy(&Value, Address, sizeof(Value));
  return Value;
}

VOID WriteUnaligned16(VOID *Address, UINT16 Value) { __builtin_memcpy(Address, &Value, sizeof(Value)); }
VOID WriteUnaligned32(VOID *Address, UINT32 Value) { __builtin_memcpy(Address, &Value, sizeof(Value)); }
VOID WriteUnaligned64(VOID *Address, UINT64 Value) { __builtin_memcpy(Address, &Value, sizeof(Value)); }
