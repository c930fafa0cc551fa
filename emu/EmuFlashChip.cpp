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
    return Outcome::CutPower;
  }
  return Outcome::Fail;
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
    if (Next == Outcome::Fail) {
      return EFI_DEVICE_ERROR;
    }
    SetMem(Bytes_ + static_cast<UINTN>(Sector) * kSectorSize, kSectorSize, 0xFF);
    Stats_.SectorErases++;
    Time_.EraseNanoseconds += kSectorEraseNanoseconds;
    if (Next == Outcome::CutPower) {
      return EFI_DEVICE_ERROR;  // the erase got through; nothing after it does
    }
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
  if (Next == Outcome::Fail) {
    return EFI_DEVICE_ERROR;
  }
  UINT32 Done = Next == Outcome::CutPower ? Length / 2 : Length;
  const UINT8 *Source = static_cast<const UINT8 *>(Buffer);
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
  return Next == Outcome::CutPower ? EFI_DEVICE_ERROR : EFI_SUCCESS;
}

VOID EmuFlashChip::Load(UINT32 Offset, const VOID *Buffer, UINT32 Length) {
  if (InRange(Offset, Length)) {
    CopyMem(Bytes_ + Offset, Buffer, Length);
  }
}
