#include "RomAccess.h"

#include "../base/BaseLib.h"
#include "../base/Hardware.h"
#include "Soc.h"

namespace {

constexpr UINT64 kFlashOffsetLimit = 0x04000000ull;

bool RangeInside(UINT64 Start, UINT64 Length, UINT64 Base, UINT64 Size) {
  return Start >= Base && Start - Base <= Size && Length <= Size - (Start - Base);
}

// One naturally aligned 64-bit load of the window (the flash controller answers only these).
UINT64 LoadWindowWord(const UINT8 *Word) {
  if ((reinterpret_cast<UINTN>(Word) & 7) == 0) {
    return *reinterpret_cast<const volatile UINT64 *>(Word);
  }
  UINT64 Value;  // an emulated window whose storage is not aligned like the address
  __builtin_memcpy(&Value, Word, sizeof(Value));
  return Value;
}

}  // namespace

BOOLEAN ReadRomByOffset(UINT32 Offset, VOID *Buffer, UINT32 Length) {
  if (Buffer == nullptr || Length == 0) {
    return FALSE;
  }
  UINT64 WindowBase = kNarrowRomWindowBase;
  UINT64 WindowSize = kNarrowRomWindowSize;
  UINT64 Start = Offset & (kNarrowRomWindowSize - 1);
  if (ReadsOffsetsThroughWideWindow(IdentifyProcessor())) {
    WindowBase = kWideRomWindowBase;
    WindowSize = kWideRomWindowSize;
    Start = Offset;
  }
  if (Start >= WindowSize || Length > WindowSize || Length > WindowSize - Start) {
    return FALSE;
  }

  UINT64 FirstWord = Start & ~7ull;
  UINT64 LastWord = (Start + Length - 1) & ~7ull;
  const UINT8 *Window = Hw::FlashPointer(WindowBase + FirstWord, LastWord + 8 - FirstWord);
  if (Window == nullptr) {
    return FALSE;
  }
  UINT8 *Out = static_cast<UINT8 *>(Buffer);
  UINT64 End = Start + Length;
  for (UINT64 Word = FirstWord; Word <= LastWord; Word += 8) {
    UINT64 Value = LoadWindowWord(Window + (Word - FirstWord));
    UINT8 Bytes[8];
    __builtin_memcpy(Bytes, &Value, sizeof(Bytes));
    UINT64 From = Word < Start ? Start - Word : 0;
    UINT64 To = End - Word < 8 ? End - Word : 8;
    CopyMem(Out, Bytes + From, static_cast<UINTN>(To - From));
    Out += To - From;
  }
  return TRUE;
}

BOOLEAN ReadRom(UINT64 Location, VOID *Buffer, UINT32 Length) {
  if (Location < kFlashOffsetLimit) {
    return ReadRomByOffset(static_cast<UINT32>(Location), Buffer, Length);
  }
  bool Mapped = RangeInside(Location, Length, kNarrowRomWindowBase, kNarrowRomWindowSize) ||
                (MapsWideWindowLocations(IdentifyProcessor()) &&
                 RangeInside(Location, Length, kWideRomWindowBase, kWideRomWindowSize));
  if (!Mapped) {
    return FALSE;
  }
  if (Length == 0) {
    return TRUE;
  }
  const UINT8 *Source = Hw::FlashPointer(Location, Length);
  if (Source == nullptr || Buffer == nullptr) {
    return FALSE;
  }
  if (Source != Buffer) {
    CopyMem(Buffer, Source, Length);
  }
  return TRUE;
}

BOOLEAN ReadDirectory(UINT64 Location, VOID *Buffer) {
  ZeroMem(Buffer, kDirectoryBufferSize);
  return ReadRom(Location, Buffer, kDirectoryBufferSize);
}
