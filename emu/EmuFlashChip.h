// An SPI NOR flash chip: a byte array with 4 KiB erase sectors. Erase sets a sector to
// 0xFF; program can only clear bits, and programming over bytes that are not erased is
// counted as a fault (the stored value is the AND, as on real parts). Every operation is
// counted so that tests and benches can assert how much an update really touched.
//
// Timing model: the physical time of every operation is accumulated, with the typical
// figures of a 16 MiB (128 Mbit) SPI NOR part, Winbond W25Q128JV datasheet, AC table:
//   4 KiB sector erase  tSE = 45 ms typical (400 ms maximum)
//   page program        tPP = 0.7 ms typical per 256-byte page (3 ms maximum); a program
//                       touching part of a page costs a whole page program
//   read                Fast Read at 133 MHz on one data line: 8 clocks per byte = 60 ns
//
// Fault injection counts erases (one per sector) and programs (one per call) from the
// moment it is armed: "fail operation N" makes the Nth of them return EFI_DEVICE_ERROR
// without touching the array; "cut power at operation N" leaves the Nth operation half done
// the way a NOR part leaves it, and from then on every operation (reads too, and reads
// through the mapped window) fails until power is restored:
//   - an erase cut: every byte of the sector keeps its old value with a random subset of its
//     bits set to 1 (the erase pulse got part of the way);
//   - a program cut: the pages before a random page of the program are programmed, that page
//     has a random subset of its intended zero bits cleared, the pages after it are untouched.
// The randomness comes from a small generator seeded from the cut seed and N, so a cut is
// reproducible from (seed, N) whatever ran before it.
#pragma once
#include "../src/base/Uefi.h"

class EmuFlashChip {
public:
  static constexpr UINT32 kSectorSize = 0x1000;
  static constexpr UINT32 kPageSize = 0x100;
  static constexpr UINT64 kSectorEraseNanoseconds = 45000000;  // tSE typical
  static constexpr UINT64 kPageProgramNanoseconds = 700000;    // tPP typical
  static constexpr UINT64 kReadNanosecondsPerByte = 60;        // 8 clocks at 133 MHz

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
  // Clears the counters and the accumulated time.
  void ResetStats() {
    Stats_ = {};
    Time_ = {};
  }

  // Physical time of everything done since the last ResetStats, in nanoseconds.
  struct Timing {
    UINT64 EraseNanoseconds;
    UINT64 ProgramNanoseconds;
    UINT64 ReadNanoseconds;
    UINT64 Total() const { return EraseNanoseconds + ProgramNanoseconds + ReadNanoseconds; }
  };
  const Timing &Time() const { return Time_; }

  // ---- Fault injection (N = 1 is the next erase or program) --------------------------------
  void FailOperation(UINT64 N) { ArmFault(FaultKind::FailOperation, N); }
  void CutPowerAtOperation(UINT64 N) { ArmFault(FaultKind::CutPower, N); }
  // The seed of the indeterminate bits a cut leaves; kept across Attach and RestorePower.
  void SetCutSeed(UINT64 Seed) { CutSeed_ = Seed; }
  UINT64 CutSeed() const { return CutSeed_; }
  void ClearFaults() { ArmFault(FaultKind::None, 0); }
  BOOLEAN PowerLost() const { return PowerLost_; }
  // The next boot: the array keeps what the cut left, operations work again.
  void RestorePower() {
    PowerLost_ = FALSE;
    ClearFaults();
  }
  // Told of every erase (one call per sector) and program as it is counted, with its number
  // since the fault was armed: a power-cut campaign maps operation numbers to flash places.
  using OperationObserver = void (*)(VOID *Context, UINT64 N, BOOLEAN Erase, UINT32 Offset, UINT32 Length);
  void Observe(OperationObserver Observer, VOID *Context) {
    Observer_ = Observer;
    ObserverContext_ = Context;
  }
  // Erases and programs attempted since the fault was armed (or since Attach).
  UINT64 OperationsCounted() const { return OperationsCounted_; }

private:
  enum class FaultKind { None, FailOperation, CutPower };
  enum class Outcome { Proceed, Fail, CutPower };

  bool InRange(UINT32 Offset, UINT32 Length) const { return Offset <= Size_ && Length <= Size_ - Offset; }
  void ArmFault(FaultKind Kind, UINT64 N) {
    Fault_ = Kind;
    FaultAt_ = N;
    OperationsCounted_ = 0;
  }
  // Counts one erase or program and tells what becomes of it.
  Outcome NextOperation();
  static UINT64 PagesTouched(UINT32 Offset, UINT32 Length);
  // splitmix64: freestanding, one word of state, good enough for bit patterns.
  UINT64 NextRandom();
  void CutErase(UINT8 *Sector);
  // Programs what the cut lets through; returns the bytes that were (at least partly) programmed.
  UINT32 CutProgram(UINT32 Offset, const UINT8 *Source, UINT32 Length);

  UINT8 *Bytes_ = nullptr;
  UINT32 Size_ = 0;
  Counters Stats_ = {};
  Timing Time_ = {};
  FaultKind Fault_ = FaultKind::None;
  UINT64 FaultAt_ = 0;
  UINT64 OperationsCounted_ = 0;
  BOOLEAN PowerLost_ = FALSE;
  UINT64 CutSeed_ = 1;
  OperationObserver Observer_ = nullptr;
  VOID *ObserverContext_ = nullptr;
  UINT64 RandomState_ = 0;
};
