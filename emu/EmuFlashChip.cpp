#include "EmuFlashChip.h"

#include "../src/base/BaseLib.h"

void EmuFlashChip::Attach(UINT8 *Storage, UINT32 Size) {
  Bytes_ = Storage;
  Size_ = Size;
  SetMem(Bytes_, Size_, 0xFF);
  Stats_ = {};
}

EFI_STATUS EmuFlashChip::Read(UINT32 Offset, VOID *Buffer, UINT32 Length) {
  if (!InRange(Offset, Length) || (Buffer == nullptr && Length != 0)) {
    return EFI_INVALID_PARAMETER;
  }
  CopyMem(Buffer, Bytes_ + Offset, Length);
  Stats_.Reads++;
  Stats_.BytesRead += Length;
  return EFI_SUCCESS;
}

EFI_STATUS EmuFlashChip::EraseSectors(UINT32 Offset, UINT32 Length) {
  if (!InRange(Offset, Length)) {
    return EFI_INVALID_PARAMETER;
  }
  if (Length == 0) {
    return EFI_SUCCESS;
  }
  UINT32 First = Offset / kSectorSize;
  UINT32 Last = (Offset + Length - 1) / kSectorSize;
  for (UINT32 Sector = First; Sector <= Last; Sector++) {
    SetMem(Bytes_ + static_cast<UINTN>(Sector) * kSectorSize, kSectorSize, 0xFF);
    Stats_.SectorErases++;
  }
  return EFI_SUCCESS;
}

EFI_STATUS EmuFlashChip::Program(UINT32 Offset, const VOID *Buffer, UINT32 Length) {
  if (!InRange(Offset, Length) || (Buffer == nullptr && Length != 0)) {
    return EFI_INVALID_PARAMETER;
  }
  const UINT8 *Source = static_cast<const UINT8 *>(Buffer);
  bool Fault = false;
  for (UINT32 Index = 0; Index < Length; Index++) {
    UINT8 &Cell = Bytes_[Offset + Index];
    if ((Source[Index] & ~Cell) != 0) {
      Fault = true;
    }
    Cell &= Source[Index];
  }
  Stats_.Programs++;
  Stats_.BytesProgrammed += Length;
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
