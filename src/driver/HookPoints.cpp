#include "HookPoints.h"

#include "../base/Guids.h"
#include "CallbackHub.h"
#include "Config.h"
#include "DriverState.h"

namespace {
EFI_STATUS SignalImageHook(BOOLEAN Enabled, const EFI_GUID &HookGuid, UINT32 *Verdict) {
  if (Verdict != nullptr) {
    *Verdict = 0;
  }
  if (!Enabled) {
    return EFI_SUCCESS;
  }
  ImageHookRecord Record = MakeImageHookRecord();
  EFI_STATUS Status = HookSignal(&HookGuid, &Record);
  if (Verdict != nullptr) {
    *Verdict = Record.Verdict;
  }
  return Status;
}
}  // namespace

ImageHookRecord MakeImageHookRecord() {
  return ImageHookRecord{sizeof(ImageHookRecord), 0, reinterpret_cast<UINT64>(mVerifiedImage), mVerifiedImageSize};
}

EFI_STATUS SignalImageAcceptHook(UINT32 *Verdict) {
  return SignalImageHook(gConfig.ImageAcceptHookEnabled, gImageAcceptHookGuid, Verdict);
}

EFI_STATUS SignalWriteStartHook() {
  return SignalImageHook(gConfig.WriteStartHookEnabled, gBiosWriteStartHookGuid, nullptr);
}

EFI_STATUS SignalIbbUpdateHook() { return SignalImageHook(gConfig.IbbUpdateHookEnabled, gIbbUpdateHookGuid, nullptr); }

EFI_STATUS SignalFlashCompleteHook() {
  return SignalImageHook(gConfig.FlashCompleteHookEnabled, gFlashCompleteHookGuid, nullptr);
}

EFI_STATUS SignalDebugCodeHook(UINT32 Code, UINT32 *Handled) {
  if (Handled != nullptr) {
    *Handled = 0;
  }
  if (!gConfig.DebugCodeHookEnabled) {
    return EFI_SUCCESS;
  }
  DebugCodeHookRecord Record = {sizeof(DebugCodeHookRecord), 0, Code};
  EFI_STATUS Status = HookSignal(&gDebugCodeHookGuid, &Record);
  if (Handled != nullptr) {
    *Handled = Record.Handled;
  }
  return Status;
}
