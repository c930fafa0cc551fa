#include "EmuFlashChip.h"

#include "../src/base/BaseLib.h"

void EmuFlashChip::Attach(UINT8 *Storage, UINT32 Size) {
  Bytes_ = Storage;
  Size_ = Size;
  SetMem(Bytes_, Size_, 0xFF);
  Stats_ = {};
  Time_ = {};
  PowerLost_ = FALSE;
  ClearFaults();
}

EmuFlashChip::Outcome EmuFlashChip::NextOperation() {
  OperationsCounted_++;
  if (Fault_ == FaultKind::None || OperationsCounted_ != FaultAt_) {
    return Outcome::Proceed;
  }
  FaultKind Kind = Fault_;
  Fault_ = FaultKind::None;
  if (Kind == FaultKind::CutPower) {
    PowerLost_ = TRUE;
    RandomState_ = CutSeed_ ^ (FaultAt_ * 0x9E3779B97F4A7C15ull);
    return Outcome::CutPower;
  }
  return Outcome::Fail;
}

UINT64 EmuFlashChip::NextRandom() {
  UINT64 Z = (RandomState_ += 0x9E3779B97F4A7C15ull);
  Z = (Z ^ (Z >> 30)) * 0xBF58476D1CE4E5B9ull;
  Z = (Z ^ (Z >> 27)) * 0x94D049BB133111EBull;
  return Z ^ (Z >> 31);
}

void EmuFlashChip::CutErase(UINT8 *Sector) {
  for (UINT32 Index = 0; Index < kSectorSize; Index += 8) {
    UINT64 Bits = NextRandom();
    for (UINT32 Byte = 0; Byte < 8; Byte++) {
      Sector[Index + Byte] |= static_cast<UINT8>(Bits >> (8 * Byte));
    }
  }
}

UINT32 EmuFlashChip::CutProgram(UINT32 Offset, const UINT8 *Source, UINT32 Length) {
  if (Length == 0) {
    return 0;
  }
  // The page in progress, counted from the program's first (possibly partial) page.
  const UINT64 Pages = PagesTouched(Offset, Length);
  const UINT64 PageInProgress = NextRandom() % Pages;
  const UINT32 FirstPageEnd = kPageSize - Offset % kPageSize;
  UINT32 CutStart = PageInProgress == 0 ? 0 : static_cast<UINT32>(FirstPageEnd + (PageInProgress - 1) * kPageSize);
  UINT32 CutEnd = PageInProgress == 0 ? FirstPageEnd : CutStart + kPageSize;
  CutEnd = CutEnd < Length ? CutEnd : Length;
  for (UINT32 Index = 0; Index < CutStart; Index++) {
    Bytes_[Offset + Index] &= Source[Index];
  }
  for (UINT32 Index = CutStart; Index < CutEnd; Index++) {
    const UINT8 Cleared = static_cast<UINT8>(NextRandom()) & static_cast<UINT8>(~Source[Index]);
    Bytes_[Offset + Index] &= static_cast<UINT8>(~Cleared);
  }
  return CutEnd;
}

UINT64 EmuFlashChip::PagesTouched(UINT32 Offset, UINT32 Length) {
  if (Length == 0) {
    return 0;
  }
  UINT64 First = Offset / kPageSize;
  UINT64 Last = (static_cast<UINT64>(Offset) + Length - 1) / kPageSize;
  return Last - First + 1;
}

EFI_STATUS EmuFlashChip::Read(UINT32 Offset, VOID *Buffer, UINT32 Length) {
  if (PowerLost_) {
    return EFI_DEVICE_ERROR;
  }
  if (!InRange(Offset, Length) || (Buffer == nullptr && Length != 0)) {
    return EFI_INVALID_PARAMETER;
  }
  CopyMem(Buffer, Bytes_ + Offset, Length);
  Stats_.Reads++;
  Stats_.BytesRead += Length;
  Time_.ReadNanoseconds += Length * kReadNanosecondsPerByte;
  return EFI_SUCCESS;
}

EFI_STATUS EmuFlashChip::EraseSectors(UINT32 Offset, UINT32 Length) {
  if (PowerLost_) {
    return EFI_DEVICE_ERROR;
  }
  if (!InRange(Offset, Length)) {
    return EFI_INVALID_PARAMETER;
  }
  if (Length == 0) {
    return EFI_SUCCESS;
  }
  UINT32 First = Offset / kSectorSize;
  UINT32 Last = static_cast<UINT32>((static_cast<UINT64>(Offset) + Length - 1) / kSectorSize);
  for (UINT32 Sector = First; Sector <= Last; Sector++) {
    Outcome Next = NextOperation();
    if (Observer_ != nullptr) {
      Observer_(ObserverContext_, OperationsCounted_, TRUE, Sector * kSectorSize, kSectorSize);
    }
    if (Next == Outcome::Fail) {
      return EFI_DEVICE_ERROR;
    }
    UINT8 *Bytes = Bytes_ + static_cast<UINTN>(Sector) * kSectorSize;
    Stats_.SectorErases++;
    Time_.EraseNanoseconds += kSectorEraseNanoseconds;
    if (Next == Outcome::CutPower) {
      CutErase(Bytes);
      return EFI_DEVICE_ERROR;  // nothing after the cut gets through
    }
    SetMem(Bytes, kSectorSize, 0xFF);
  }
  return EFI_SUCCESS;
}

EFI_STATUS EmuFlashChip::Program(UINT32 Offset, const VOID *Buffer, UINT32 Length) {
  if (PowerLost_) {
    return EFI_DEVICE_ERROR;
  }
  if (!InRange(Offset, Length) || (Buffer == nullptr && Length != 0)) {
    return EFI_INVALID_PARAMETER;
  }
  Outcome Next = NextOperation();
  if (Observer_ != nullptr) {
    Observer_(ObserverContext_, OperationsCounted_, FALSE, Offset, Length);
  }
  if (Next == Outcome::Fail) {
    return EFI_DEVICE_ERROR;
  }
  const UINT8 *Source = static_cast<const UINT8 *>(Buffer);
  if (Next == Outcome::CutPower) {
    const UINT32 Reached = CutProgram(Offset, Source, Length);
    Stats_.Programs++;
    Stats_.BytesProgrammed += Reached;
    Time_.ProgramNanoseconds += PagesTouched(Offset, Reached) * kPageProgramNanoseconds;
    return EFI_DEVICE_ERROR;
  }
  const UINT32 Done = Length;
  bool Fault = false;
  for (UINT32 Index = 0; Index < Done; Index++) {
    UINT8 &Cell = Bytes_[Offset + Index];
    if ((Source[Index] & ~Cell) != 0) {
      Fault = true;
    }
    Cell &= Source[Index];
  }
  Stats_.Programs++;
  Stats_.BytesProgrammed += Done;
  Time_.ProgramNanoseconds += PagesTouched(Offset, Done) * kPageProgramNanoseconds;
  if (Fault) {
    Stats_.ProgramFaults++;
  }
  return EFI_SUCCESS;
}

VOID EmuFlashChip::Load(UINT32 Offset, const VOID *Buffer, UINT32 Length) {
  if (InRange(Offset, Length)) {
    CopyMem(Bytes_ + Offset, Buffer, Length);
  }
}
