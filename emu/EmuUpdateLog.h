// The platform's update log (gUpdateLogProtocolGuid) as the emulation keeps it: every record
// in order with its first bytes, and the last progress code in non-volatile state, which a
// later boot of the same platform hands over as the resume HOB.
#pragma once
#include "../src/base/Uefi.h"

struct EmuUpdateLogRecord {
  static constexpr UINTN kDataCapacity = 128;
  UINT32 Type;
  UINT64 Length;       // as written; Data keeps the first kDataCapacity bytes
  UINT8 Data[kDataCapacity];
};

struct EmuUpdateLog {
  static constexpr UINTN kCapacity = 256;
  static constexpr UINT32 kTypeProgressCode = 33;  // u32 progress code
  static constexpr UINT32 kProgressCleared = 0xFE;  // the code of a completed update

  // Volatile: the records of this boot.
  EmuUpdateLogRecord Records[kCapacity] = {};
  UINTN Count = 0;
  UINTN Dropped = 0;
  EFI_STATUS Answer = EFI_SUCCESS;  // what WriteRecord returns; an error keeps nothing

  // Non-volatile: the last progress code written, kept across boots.
  BOOLEAN ProgressCodeKept = FALSE;
  UINT32 ProgressCode = 0;

  // WriteRecord's behaviour: EFI_INVALID_PARAMETER for data missing, else Answer.
  EFI_STATUS Write(UINT32 Type, UINT64 Length, const VOID *Data);
  void ClearRecords() { Count = Dropped = 0; }
  // The resume HOB's data byte for the kept code; FALSE when there is nothing to resume
  // (no code written, or the update completed).
  BOOLEAN ResumeHobByte(UINT8 &Byte) const;
};
