#include "UpdateRegionStep.h"

#include "../base/Char16.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../driver/DriverState.h"
#include "../driver/HookPoints.h"
#include "../driver/Trace.h"
#include "../flash/FlashState.h"
#include "../platform/DebugCode.h"
#include "RegionActions.h"
#include "UpdateProgress.h"

namespace {

// Q42BiosUpdateParameter's value that selects phase B for the progress codes.
constexpr UINT8 kUpdateParameterPhaseB = 2;

// Debug codes of the regions that have one.
constexpr UINT32 kDebugCodeIbb1REntered = 0xF0;
constexpr UINT32 kDebugCodeIbb2REntered = 0xE0;
constexpr UINT32 kDebugCodeIbb1Entered = 0xF1;
constexpr UINT32 kDebugCodeIbb2Entered = 0xE1;
constexpr UINT32 kDebugCodeObbEntered = 0xF2;

UINT8 ReadUpdateParameter() {
  UINT8 Parameter = 0;
  UINTN Size = sizeof(Parameter);
  if (gRT == nullptr ||
      EFI_ERROR(gRT->GetVariable(const_cast<CHAR16 *>("Q42BiosUpdateParameter"_u16),
                                 const_cast<EFI_GUID *>(&gPlatformVariableGuid), nullptr, &Size, &Parameter))) {
    return 0;
  }
  return Parameter;
}

// Whether the piece at image offset Start, written by block Block, is the one with which the
// write enters Region. A zero unit count (blocks below 4 KiB) enters no region.
BOOLEAN EntersRegion(const UpdateRegion &Region, UINT32 Start, UINT16 Block, UINT32 UnitsPerBlock) {
  if (UnitsPerBlock == 0) {
    return FALSE;
  }
  const UINT64 Address = static_cast<UINT64>(mFlashBase) - mFlashInfo.LowerFlashSize + Start;
  return Address == Region.Address && Block == Region.StartBlock / UnitsPerBlock;
}

// IBB1: the backup directory and the EFS from the new image, then the primary directory's
// signature and the flash-map copy go invalid until OBB is reached.
EFI_STATUS EnterIbb1() {
  EFI_STATUS Status = UpdatePspL1(mVerifiedImage, mVerifiedImageSize, TRUE);
  if (EFI_ERROR(Status)) {
    TRACE("  Update Backup PSPL1 fail!!");
    return Status;
  }
  Status = UpdateRomSig(mVerifiedImage, mVerifiedImageSize);
  if (EFI_ERROR(Status)) {
    TRACE("  Update RomSig fail!!");
    return Status;
  }
  SetPspDirectorySignature(TRUE);
  InvalidateFlashMapCopy();
  SignalIbbUpdateHook();
  OutputDebugCode(kDebugCodeIbb1Entered);
  return EFI_SUCCESS;
}

// OBB: the primary directory from the new image with its signature back, and the EC firmware.
EFI_STATUS EnterObb() {
  EFI_STATUS Status = UpdatePspL1(mVerifiedImage, mVerifiedImageSize, FALSE);
  if (EFI_ERROR(Status)) {
    TRACE("  Update PSPL1 fail!!");
    return Status;
  }
  SetPspDirectorySignature(FALSE);
  if (EFI_ERROR(UpdateEc())) {
    TRACE("  UpdateEc fail!!");
  }
  OutputDebugCode(kDebugCodeObbEntered);
  return EFI_SUCCESS;
}

EFI_STATUS TakeRegionActions(UINT32 Index) {
  switch (Index) {
  case RegionIbb1R:
    OutputDebugCode(kDebugCodeIbb1REntered);
    return EFI_SUCCESS;
  case RegionIbb2R:
    OutputDebugCode(kDebugCodeIbb2REntered);
    return EFI_SUCCESS;
  case RegionIbb1:
    return EnterIbb1();
  case RegionIbb2:
    OutputDebugCode(kDebugCodeIbb2Entered);
    return EFI_SUCCESS;
  case RegionObb:
    return EnterObb();
  default:
    return EFI_SUCCESS;
  }
}

// Recovery boots win over the update parameter.
UINT32 ProgressPhase(UINT8 Parameter) {
  if (mRecoveryBootUpdate) {
    return kUpdatePhaseRecovery;
  }
  if (Parameter == kUpdateParameterPhaseB || mResumeUpdateB) {
    return kUpdatePhaseB;
  }
  return kUpdatePhaseNormal;
}

}  // namespace

EFI_STATUS UpdateRegionStep(UINT32 Start, UINT16 Block, UINT32 UnitsPerBlock) {
  const UINT8 Parameter = ReadUpdateParameter();
  for (UINT32 Index = 0; Index < kUpdateRegionCount; Index++) {
    if (!EntersRegion(mUpdateRegionTable[Index], Start, Block, UnitsPerBlock)) {
      continue;
    }
    // A failed copy of a directory or of the EFS ends the step without a record.
    EFI_STATUS Status = TakeRegionActions(Index);
    if (EFI_ERROR(Status)) {
      return Status;
    }
    if (EFI_ERROR(SetUpdateProgress(ProgressPhase(Parameter) + Index))) {
      TRACE("  SetUpdateProgress fail!!");
    }
  }
  return EFI_SUCCESS;
}
