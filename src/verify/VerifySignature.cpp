// BiosVerifySignature: decides whether a new image may be flashed and, once it is accepted,
// prepares what the write, read-back and completion services rely on (the private copy of
// the image, the region table, the preserved variables, the security settings).
#include "VerifySignature.h"

#include "../base/BaseLib.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/Hob.h"
#include "../base/Pool.h"
#include "../driver/BiosImageInterface.h"
#include "../driver/Config.h"
#include "../driver/DriverState.h"
#include "../driver/HookPoints.h"
#include "../driver/Trace.h"
#include "../flash/FlashState.h"
#include "../flash/VariableStore.h"
#include "SecuritySettings.h"
#include "SettingsServices.h"
#include "UpdateRegionTable.h"
#include "UpdateStaging.h"

namespace {

bool RegionTracked() { return (mPlatformConfig->Flags & kPlatformConfigAlternativeFlag) != 0; }

bool ResumingRegionTrackedUpdate() { return RegionTracked() && GetFirstGuidHob(&gUpdateResumeHobGuid) != nullptr; }

// The update image is the platform's whole image (EC part, lower flash part, mapped part);
// a caller's size that differs cannot be trusted to describe its buffer, so nothing is read.
bool IsPlatformImageSize(UINT64 ImageSize) {
  FlashInfo Info = {};
  if (mPlatformFlashService == nullptr || mPlatformFlashService->GetFlashInfo(&Info) != EFI_SUCCESS) {
    return false;
  }
  return ImageSize == static_cast<UINT64>(Info.EcSize) + Info.LowerFlashSize + Info.MappedFlashSize;
}

// Checks the detached signature with the excluded area blanked, then puts the caller's
// bytes back: the caller's image is unchanged when this returns.
EFI_STATUS VerifyDetachedSignature(ImageSignatureVerifyProtocol *Verifier, UINT8 *Image, UINT64 ImageSize,
                                   const VOID *Signature, UINT64 SignatureSize, UINT8 *Excluded) {
  const UINTN ExcludedSize = gConfig.SignatureExcludedSize;
  PoolBuffer Saved = PoolBuffer::Allocate(ExcludedSize);
  if (!Saved) {
    return EFI_OUT_OF_RESOURCES;
  }
  CopyMem(Saved.Data(), Excluded, ExcludedSize);
  SetMem(Excluded, ExcludedSize, 0xFF);
  EFI_STATUS Status = Verifier->Verify(Image, ImageSize, Signature, SignatureSize, kVerifyKeySelectorPrimary);
  if (EfiError(Status)) {
    Status = Verifier->Verify(Image, ImageSize, Signature, SignatureSize, kVerifyKeySelectorFallback);
  }
  CopyMem(Excluded, Saved.Data(), ExcludedSize);
  return Status;
}

// The data that must survive the flash: the preserved variables in a recovery or HFT
// update, and in HFT the security settings (unless a region-tracked update is resuming).
void PreserveDataAcrossUpdate(const UINT8 *Image, UINT64 ImageSize) {
  if (mUpdateMode != UpdateModeRecovery && mUpdateMode != UpdateModeHft) {
    return;
  }
  BackupVariableStore(Image, ImageSize);
  if (mUpdateMode != UpdateModeHft || ResumingRegionTrackedUpdate()) {
    return;
  }
  if (EfiError(SaveSecuritySettings(&mSecuritySettingsCopy))) {
    TRACE("    Error : save security settings to memory.");
  }
  if (EfiError(WriteSecuritySettings(mSecuritySettingsCopy))) {
    TRACE("    Error : Write security settings to ROM");
  }
}

// Region sources that point into the caller's image are moved to the same bytes of the
// private copy, so that the writes never depend on the caller keeping its buffer.
void RebaseRegionSources(const UINT8 *Image, UINT64 ImageSize, const UINT8 *Copy) {
  const UINT64 Start = reinterpret_cast<UINT64>(Image);
  for (UpdateRegion &Region : mUpdateRegionTable) {
    if (Region.Source >= Start && Region.Source - Start < ImageSize) {
      Region.Source = reinterpret_cast<UINT64>(Copy) + (Region.Source - Start);
    }
  }
}

// Keeps a private copy of the accepted image. An earlier copy is released once the new
// one is in place, so a tool that verifies more than once does not leak.
EFI_STATUS KeepVerifiedImage(const UINT8 *Image, UINT64 ImageSize) {
  PoolBuffer Copy = PoolBuffer::AllocateZeroed(static_cast<UINTN>(ImageSize));
  if (!Copy) {
    return EFI_OUT_OF_RESOURCES;
  }
  CopyMem(Copy.Data(), Image, static_cast<UINTN>(ImageSize));
  if (mVerifiedImage != nullptr) {
    gBS->FreePool(mVerifiedImage);
  }
  mVerifiedImageSize = static_cast<UINTN>(ImageSize);
  mVerifiedImage = Copy.Release();
  if (RegionTracked()) {
    RebaseRegionSources(Image, ImageSize, mVerifiedImage);
  }
  return EFI_SUCCESS;
}

}  // namespace

EFI_STATUS EFIAPI BiosVerifySignature(BiosImageInterfaceProtocol *This, VOID *Image, UINTN ImageSize,
                                      VOID *Signature, UINT64 SignatureSize) {
  (void)This;
  TRACE("  BiosImageInterfaceProtocol->BiosVerifySignature Entry");
  // The excluded area is blanked in the caller's buffer: it must lie wholly inside it.
  const UINT64 ExcludedOffset =
      static_cast<UINT64>(static_cast<UINT32>(gConfig.SignatureExcludedBase - gConfig.PcdFlashBase)) +
      gConfig.ImageFlashOffset;
  if (Image == nullptr || Signature == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  if (!IsPlatformImageSize(ImageSize) || ExcludedOffset > ImageSize ||
      gConfig.SignatureExcludedSize > ImageSize - ExcludedOffset) {
    return EFI_BAD_BUFFER_SIZE;
  }
  UINT8 *Bytes = static_cast<UINT8 *>(Image);

  EFI_STATUS Status = mPlatformConfig->CheckImage(Image, ImageSize);
  if (EfiError(Status)) {
    return Status;
  }
  const UINT8 DxeSignCheckFlag = mDxeSignCheck != 0 ? 1 : 0;
  const UINT8 PeiSignCheckFlag = GetFirstGuidHob(&gPeiSignCheckHobGuid) != nullptr ? 1 : 0;
  ImageSignatureVerifyProtocol *Verifier = nullptr;
  Status = gBS->LocateProtocol(const_cast<EFI_GUID *>(&gImageSignatureVerifyProtocolGuid), nullptr,
                               reinterpret_cast<VOID **>(&Verifier));
  if (EfiError(Status)) {
    return Status;
  }
  const EFI_STATUS SignatureStatus =
      VerifyDetachedSignature(Verifier, Bytes, ImageSize, Signature, SignatureSize, Bytes + ExcludedOffset);
  TRACE("    PeiSignCheckFlag = %x, DxeSignCheckFlag = %x, VerifySignature Status = %x", PeiSignCheckFlag,
        DxeSignCheckFlag, static_cast<UINT32>(SignatureStatus));
  if (PeiSignCheckFlag == 1) {
    if (DxeSignCheckFlag == 0) {
      return EFI_SECURITY_VIOLATION;
    }
    if (EfiError(SignatureStatus)) {
      return SignatureStatus;
    }
  }

  if (RegionTracked()) {
    Status = BuildUpdateRegionTable(Bytes, ImageSize);
    if (EfiError(Status)) {
      return Status;
    }
  }
  if (EfiError(CheckFvSignature(Verifier, Bytes, ImageSize))) {
    return EFI_SECURITY_VIOLATION;
  }
  if (BootBlockUpdateEnabled) {
    Status = CheckFlashMapSignature(Verifier, Bytes, ImageSize);
    if (EfiError(Status)) {
      return Status;
    }
  }

  mPlatformFlashService->SetUpdateInProgress(1);
  mPlatformFlashService->SetFlashAccessType(0);
  if (mPlatformConfig->UpdateResetHandler != 0) {
    // The table's CRC is left as it was: the firmware does not check it again.
    gRT->ResetSystem = reinterpret_cast<EFI_RESET_SYSTEM>(mPlatformConfig->UpdateResetHandler);
    mPlatformConfig->NotifyUpdatePhase(0, 0);
  }
  if (mUpdateStatusBlock != nullptr) {
    mUpdateStatusBlock[kUpdateStatusAcceptedOffset] = 1;
  }
  if (mStageUpdateToDisk) {
    return StageUpdateFiles(Image, ImageSize, Signature, SignatureSize);
  }

  Status = KeepVerifiedImage(Bytes, ImageSize);
  if (EfiError(Status)) {
    return Status;
  }
  UINT32 Verdict = 0;
  EFI_STATUS Result = SignalImageAcceptHook(&Verdict);
  if (!EfiError(Result) && Verdict == kHookAnswerTaken) {
    Result = EFI_SECURITY_VIOLATION;
  }
  if (!EfiError(Result)) {
    PreserveDataAcrossUpdate(Bytes, ImageSize);
  }
  if ((mPlatformFlashService->VerifyFlags & kDigestProtectionBit) != 0 && mUpdateMode == UpdateModeNormal &&
      IsVersionFamilyChange(Bytes, ImageSize)) {
    Result = EraseAuthVarDigests();
    if (EfiError(Result)) {
      TRACE("    Error : Erase AuthVar hash failure.");
    }
  }
  return Result;
}
