#include "StartingState.h"

#include "../../src/base/BaseLib.h"
#include "../../src/base/Globals.h"
#include "../../src/base/ScopeGuard.h"
#include "../common/ConsolePrint.h"
#include "../common/ResumeState.h"
#include "../common/VolumeFiles.h"

namespace {

// The image fills the chip (and the EC store, which the reference layout keeps apart).
EFI_STATUS LoadChip(EmuPlatform &Platform, const PoolBuffer &Image) {
  const EmuLayout &Layout = Platform.Layout;
  const UINT64 FlashBytes = static_cast<UINT64>(Layout.LowerFlashSize) + Layout.MappedFlashSize;
  if (Image.Size() != Layout.EcSize + FlashBytes || Platform.Flash.Size() != FlashBytes ||
      Platform.EcStoreSize < Layout.EcSize) {
    return EFI_BAD_BUFFER_SIZE;
  }
  CopyMem(Platform.EcStore, Image.Data(), Layout.EcSize);
  Platform.Flash.Load(0, Image.Data() + Layout.EcSize, static_cast<UINT32>(FlashBytes));
  return EFI_SUCCESS;
}

// The state an interrupted run saved: progress code and both CMOS banks.
EFI_STATUS LoadResumeState(EmuPlatform &Platform, const PoolBuffer &State) {
  if (State.Size() != sizeof(ResumeStateFile) ||
      CompareMem(State.Data(), kResumeStateMagic, sizeof(kResumeStateMagic)) != 0) {
    return EFI_VOLUME_CORRUPTED;
  }
  const auto *Saved = State.As<ResumeStateFile>();
  Platform.UpdateLogStore.ProgressCodeKept = Saved->ProgressCodeKept != 0;
  Platform.UpdateLogStore.ProgressCode = Saved->ProgressCode;
  CopyMem(Platform.Cmos, Saved->Cmos, sizeof(Platform.Cmos));
  CopyMem(Platform.ExtendedCmos, Saved->ExtendedCmos, sizeof(Platform.ExtendedCmos));
  return EFI_SUCCESS;
}

}  // namespace

EFI_STATUS LoadStartingState(EmuPlatform &Platform, RunScenario &Scenario) {
  EFI_FILE_HANDLE Root = FindVolumeHolding(RUN_SCENARIO_PATH);
  if (Root == nullptr) {
    return EFI_SUCCESS;
  }
  ScopeGuard CloseRoot([Root] { Root->Close(Root); });
  PoolBuffer Text;
  EFI_STATUS Status = ReadWholeFile(Root, RUN_SCENARIO_PATH, Text);
  UINTN BadLine = 0;
  if (Status != EFI_END_OF_FILE) {
    if (EfiError(Status)) {
      return Status;
    }
    if (!ParseRunScenario(Text.As<CHAR8>(), Text.Size(), Scenario, BadLine)) {
      ConsolePrint("EmuPlatformDxe: scenario line %d not understood\r\n", BadLine);
      return EFI_INVALID_PARAMETER;
    }
  }

  PoolBuffer State;
  const bool Resuming = !EfiError(ReadWholeFile(Root, RUN_RESUME_STATE_PATH, State));
  PoolBuffer Image;
  Status = ReadWholeFile(Root, Resuming ? RUN_RESUME_FLASH_PATH : RUN_INSTALLED_IMAGE_PATH, Image);
  if (!EfiError(Status)) {
    Status = LoadChip(Platform, Image);
  }
  if (!EfiError(Status) && Resuming) {
    Status = LoadResumeState(Platform, State);
  }
  if (EfiError(Status)) {
    ConsolePrint("EmuPlatformDxe: starting flash not loaded: %lx\r\n", Status);
    return Status;
  }
  if (!Resuming) {
    for (UINTN Index = 0; Index < Scenario.ExtendedCmosCount; Index++) {
      Platform.ExtendedCmos[Scenario.ExtendedCmos[Index].Index] = Scenario.ExtendedCmos[Index].Value;
    }
  }
  if (Scenario.RegionTracked) {
    Platform.Config->Flags |= kPlatformConfigAlternativeFlag;
  } else {
    Platform.Config->Flags &= static_cast<UINT8>(~kPlatformConfigAlternativeFlag);
  }
  Platform.Flash.ResetStats();
  ConsolePrint(Resuming ? "EmuPlatformDxe: chip holds the interrupted run's flash (%d bytes), resume state loaded\r\n"
               : "EmuPlatformDxe: chip holds the installed image (%d bytes)\r\n",
      Platform.Flash.Size());
  return EFI_SUCCESS;
}
