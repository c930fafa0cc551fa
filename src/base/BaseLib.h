// Memory, GUID and string helpers with the EDK II meanings
// (CompareGuid is TRUE when the two GUIDs are equal).
#pragma once
#include "Uefi.h"

VOID *CopyMem(VOID *Destination, const VOID *Source, UINTN Length);
VOID *SetMem(VOID *Buffer, UINTN Length, UINT8 Value);
VOID *ZeroMem(VOID *Buffer, UINTN Length);
INTN CompareMem(const VOID *First, const VOID *Second, UINTN Length);
BOOLEAN CompareGuid(const EFI_GUID *First, const EFI_GUID *Second);
BOOLEAN IsZeroBuffer(const VOID *Buffer, UINTN Length);

UINTN AsciiStrLen(const CHAR8 *String);
UINTN StrLen(const CHAR16 *String);
INTN StrCmp(const CHAR16 *First, const CHAR16 *Second);
INTN AsciiStrCmp(const CHAR8 *First, const CHAR8 *Second);

// Little-endian loads and stores that never assume alignment.
UINT16 ReadUnaligned16(const VOID *Address);
UINT32 ReadUnaligned32(const VOID *Address);
UINT64 ReadUnaligned64(const VOID *Address);
VOID WriteUnaligned16(VOID *Address, UINT16 Value);
VOID WriteUnaligned32(VOID *Address, UINT32 Value);
VOID WriteUnaligned64(VOID *Address, UINT64 Value);
