// An SPI NOR flash chip: a byte array with 4 KiB erase sectors. Erase sets a sector to
// 0xFF; program can only clear bits, and programming over bytes that are not erased is
// counted as a fault (the stored value is the AND, as on real parts). Every operation is
// counted so that tests and benches can assert how much an update really touched.
#pragma once
#include "../src/base/Uefi.h"

class EmuFlashChip {
public:
  static constexpr UINT32 kSectorSize = 0x1000;

  // The chip's bytes are provided by the caller; the chip starts erased.
  void Attach(UINT8 *Storage, UINT32 Size);
  UINT8 *Bytes() const { return Bytes_; }
  UINT32 Size() const { return Size_; }

  // Offsets are chip offsets; a range outside the chip fails with EFI_INVALID_PARAMETER.
  EFI_STATUS Read(UINT32 Offset, VOID *Buffer, UINT32 Length);
  EFI_STATUS EraseSectors(UINT32 Offset, UINT32 Length);  // every sector the range touches
  EFI_STATUS Program(UINT32 Offset, const VOID *Buffer, UINT32 Length);
  // Fills the chip without counting (building a scenario's initial contents).
  VOID Load(UINT32 Offset, const VOID *Buffer, UINT32 Length);

  struct Counters {
    UINT64 Reads;
    UINT64 BytesRead;
    UINT64 SectorErases;
    UINT64 Programs;
    UINT64 BytesProgrammed;
    UINT64 ProgramFaults;  // programs that tried to set a bit to 1
  };
  const Counters &Stats() const { return Stats_; }
  void ResetStats() { Stats_ = {}; }

private:
  bool InRange(UINT32 Offset, UINT32 Length) const { return Offset <= Size_ && Length <= Size_ - Offset; }

  UINT8 *Bytes_ = nullptr;
  UINT32 Size_ = 0;
  Counters Stats_ = {};
};
