#include "Interruption.h"

#include "../../src/base/BaseLib.h"
#include "../common/ResumeState.h"
#include "../common/RunScenario.h"
#include "../common/VolumeFiles.h"

EFI_STATUS SaveInterruptedState(EFI_FILE_HANDLE Root, const EmuPlatform &Platform) {
  ResumeStateFile State = {};
  CopyMem(State.Magic, kResumeStateMagic, sizeof(State.Magic));
  State.ProgressCodeKept = Platform.UpdateLogStore.ProgressCodeKept ? 1 : 0;
  State.ProgressCode = Platform.UpdateLogStore.ProgressCode;
  CopyMem(State.Cmos, Platform.Cmos, sizeof(State.Cmos));
  CopyMem(State.ExtendedCmos, Platform.ExtendedCmos, sizeof(State.ExtendedCmos));
  EFI_STATUS Status = MakeDirectory(Root, RUN_RESUME_DIRECTORY);
  if (!EfiError(Status)) {
    Status = WriteWholeFile(Root, RUN_RESUME_FLASH_PATH, Platform.Flash.Bytes(), Platform.Flash.Size());
  }
  // The state goes last: the next boot resumes only from a complete save.
  if (!EfiError(Status)) {
    Status = WriteWholeFile(Root, RUN_RESUME_STATE_PATH, &State, sizeof(State));
  }
  return Status;
}
