#include "CompletionStatus.h"

#include "../base/BaseLib.h"
#include "../base/ByteView.h"
#include "../base/Char16.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/Hardware.h"
#include "../base/Pool.h"
#include "../driver/BiosImageInterface.h"
#include "../driver/Config.h"
#include "../driver/DriverState.h"
#include "../driver/HookPoints.h"
#include "../driver/Trace.h"
#include "../flash/FlashRecords.h"
#include "../flash/FlashState.h"
#include "../flash/VariableStore.h"
#include "../platform/Cmos.h"
#include "CriticalDataAuthVar.h"
#include "UpdateProgress.h"

namespace {

constexpr UINT8 kFlashAccessImage = 0;
constexpr UINTN kCompletionStallMicroseconds = 5000;
constexpr UINT32 kNvBsRt = EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS;
constexpr UINT32 kBsRt = EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS;

// Completion publishes one-byte variables; their statuses are not examined.
VOID SetByteVariable(const CHAR16 *Name, UINT32 Attributes, UINT8 Value) {
  gRT->SetVariable(const_cast<CHAR16 *>(Name), const_cast<EFI_GUID *>(&gPlatformVariableGuid), Attributes,
                   sizeof(Value), &Value);
}

// The platform leaves a pool buffer behind a location named in its data block; the update
// is over, so it goes back to the pool and the location forgets it.
VOID FreePlatformPoolBuffer() {
  const FlashServiceData *Data = mPlatformFlashService->PlatformData;
  if (Data == nullptr) {
    return;
  }
  VOID **Location = Data->PoolBufferLocation;
  if (Location != nullptr && *Location != nullptr) {
    gBS->FreePool(*Location);
    *Location = nullptr;
  }
}

// What CMOS 0xF9 holds after the update: the platform's value for status 13 (with HFT
// written back in HFT mode), else a 5 that survives every status but 3, else 0.
UINT8 NextUpdateState(UINT8 Status) {
  const UINT8 Current = ReadCmosToRom(kCmosUpdateStateIndex);
  if (mUpdateStatusBlock != nullptr && Status == kCompletionStatusPlatform) {
    if (mUpdateMode == UpdateModeHft) {
      SetByteVariable("HFT"_u16, kNvBsRt, mHftValue);
    }
    return mUpdateStatusBlock[kUpdateStatusBlockCmosValue];
  }
  return Current == kUpdateStatePreserved && Status != kCompletionStatusClearState ? kUpdateStatePreserved : 0;
}

VOID SendFlashCompleteMessage() {
  VOID *Buffer = nullptr;
  UINTN Size = 0;  // the platform's buffer always takes the message
  mPlatformConfig->GetMessageBuffer(&Buffer, &Size);
  if (Buffer == nullptr) {
    return;
  }
  FlashCompleteMessage Message = {{'$', 'F', 'I', 'N', 'I', 'S', 'H', 'I'}, sizeof(FlashCompleteMessage), 1};
  CopyMem(Buffer, &Message, sizeof(Message));
  mPlatformConfig->SendMessage(Buffer);
}

// Status 0: the tool's completion (only when something was written), the marker protocol
// on the driver's image handle (a repeated call finds it there and goes on), and the
// platform-wide completion variable.
VOID PublishFlashComplete() {
  if (mFlashWritten) {
    SetByteVariable("Q42UpdateToolComplete"_u16, kBsRt, 1);
    SendFlashCompleteMessage();
  }
  EFI_HANDLE Handle = mImageHandle;
  gBS->InstallProtocolInterface(&Handle, const_cast<EFI_GUID *>(&gFlashCompleteProtocolGuid), EFI_NATIVE_INTERFACE,
                                nullptr);
  SetByteVariable("Q42FlashCompleteAll"_u16, kNvBsRt, 0);
}

BOOLEAN RegionTracked() { return (mPlatformConfig->Flags & kPlatformConfigAlternativeFlag) != 0; }

}  // namespace

EFI_STATUS EraseVariableBackup() {
  const ByteView Backup(Hw::FlashPointer(gConfig.VariableBackupBase, gConfig.VariableBackupSize),
                        gConfig.VariableBackupSize);
  if (!IsNvStoreVolume(Backup, nullptr)) {
    return EFI_NOT_FOUND;
  }
  PoolBuffer Erased = PoolBuffer::Allocate(gConfig.VariableBackupSize);
  if (!Erased) {
    return EFI_OUT_OF_RESOURCES;
  }
  SetMem(Erased.Data(), Erased.Size(), 0xFF);
  const EFI_STATUS Status =
      mPlatformFlashService->WriteFlash(kFlashAccessImage, gConfig.VariableBackupBase, Erased.Data(), gConfig.VariableBackupSize);
  return EFI_ERROR(Status) ? Status : EFI_SUCCESS;
}

EFI_STATUS EFIAPI SetFlashCompletionStatus(BiosImageInterfaceProtocol *This, UINT8 Status) {
  (void)This;
  TRACE("  BiosImageInterfaceProtocol->SetFlashCompletionStatus Entry [%x]", Status);
  gBS->Stall(kCompletionStallMicroseconds);
  FreePlatformPoolBuffer();
  WriteCmosToRom(kCmosCompletionStatusIndex, Status);

  // The preserved variables go back into the live store and their backup is given up; the
  // critical variables' digest follows the restored store. Every result is ignored.
  const BOOLEAN BackupValid = IsBackupStoreValid() == EFI_SUCCESS;
  if (mUpdateMode == UpdateModeRecovery || mUpdateMode == UpdateModeHft || BackupValid) {
    RestoreVariableStore();
    EraseVariableBackup();
    Q42CriticalDataAuthVar();
  }

  const BOOLEAN KeepsUpdate = Status == kCompletionStatusKeepUpdate || Status == kCompletionStatusPlatform;
  if (!KeepsUpdate) {
    mPlatformFlashService->SetUpdateInProgress(0);
  }
  WriteCmosToRom(kCmosUpdateStateIndex, NextUpdateState(Status));

  UINT8 Completed = 0;  // the platform may write it; it is not read back
  mPlatformFlashService->CompletionNotify(&Completed);

  const BOOLEAN RecoveryBoot = mBootMode == BOOT_IN_RECOVERY_MODE;
  WriteCmosToRom(kCmosRecoveryMarkerIndex, 0);
  if (RecoveryBoot && Status == kCompletionStatusSuccess) {
    WriteCmosToRom(kCmosRecoveryMarkerIndex, kRecoveryCompletedMarker);
  }
  if (BackupValid && !RecoveryBoot) {
    SetByteVariable("Q42DefaultSecurityByUefiFlashAll"_u16, kNvBsRt, mHftValue);
  }
  if (Status == kCompletionStatusSuccess) {
    PublishFlashComplete();
  }
  SignalFlashCompleteHook();
  if (RegionTracked() && !KeepsUpdate) {
    Q42ClearUpdateProgress();
  }
  return mPlatformConfig->NotifyUpdatePhase(kUpdatePhaseCompleted, 0);
}
