#include "EmuUpdateLog.h"

#include "../src/base/BaseLib.h"

EFI_STATUS EmuUpdateLog::Write(UINT32 Type, UINT64 Length, const VOID *Data) {
  if (Data == nullptr && Length != 0) {
    return EFI_INVALID_PARAMETER;
  }
  if (EFI_ERROR(Answer)) {
    return Answer;
  }
  if (Count == kCapacity) {
    Dropped++;
  } else {
    EmuUpdateLogRecord &Record = Records[Count++];
    Record.Type = Type;
    Record.Length = Length;
    UINT64 Kept = Length < EmuUpdateLogRecord::kDataCapacity ? Length : EmuUpdateLogRecord::kDataCapacity;
    ZeroMem(Record.Data, sizeof(Record.Data));
    CopyMem(Record.Data, Data, static_cast<UINTN>(Kept));
  }
  if (Type == kTypeProgressCode && Length == sizeof(UINT32)) {
    ProgressCode = ReadUnaligned32(Data);
    ProgressCodeKept = TRUE;
  }
  return EFI_SUCCESS;
}

BOOLEAN EmuUpdateLog::ResumeHobByte(UINT8 &Byte) const {
  if (!ProgressCodeKept || ProgressCode == kProgressCleared) {
    return FALSE;
  }
  Byte = static_cast<UINT8>(ProgressCode);
  return TRUE;
}
