#include "ImageQuery.h"

#include "../base/BaseLib.h"
#include "../base/ByteView.h"
#include "../base/Char16.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/Hardware.h"
#include "../base/Hob.h"
#include "../base/PiFirmwareVolume.h"
#include "../base/Pool.h"
#include "../driver/BiosImageInterface.h"
#include "../driver/Config.h"
#include "../driver/DriverState.h"
#include "../driver/Trace.h"
#include "BiosIdRecord.h"
#include "FlashState.h"

namespace {

// Markers the platform writes over the start of the boot-block volume, each with its NUL.
constexpr CHAR8 kBootBlockMarkerOk[] = "ZQ BB BFR OK";
constexpr CHAR8 kBootBlockMarkerFail[] = "ZQ BB FAIL";
static_assert(sizeof(kBootBlockMarkerOk) == 13 && sizeof(kBootBlockMarkerFail) == 11);
constexpr UINTN kVolumeProbeLength = offsetof(EFI_FIRMWARE_VOLUME_HEADER, Signature) + sizeof(UINT32);

// In a region-tracked update whose primary PSP directory is invalidated, the BIOS ID is
// read from the end of the recovery copy of IBB1, which starts at RecoveryBiosIdBase.
constexpr UINT32 kRecoveryIbb1Size = 0x178000;

constexpr UINT8 kFlashAccessBiosId = 1;
constexpr UINT8 kFlashCapabilityQueryNotify = 0x01;
constexpr UINT8 kFlashCapabilityPostQuery = 0x08;
constexpr UINT32 kNvBsRt = EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS;
constexpr UINT8 kHcaQueried = 2;
constexpr UINT32 kFirstRegionFullRecovery = 0;  // IBB1R: everything is rewritten
constexpr UINT32 kFirstRegionObb = 8;           // OBB: the boot block is left alone

bool HasGuidHob(const EFI_GUID &Guid) { return GetFirstGuidHob(&Guid) != nullptr; }

template <typename T> bool LocateProtocol(const EFI_GUID &Guid, T *&Interface) {
  Interface = nullptr;
  return gBS->LocateProtocol(const_cast<EFI_GUID *>(&Guid), nullptr, reinterpret_cast<VOID **>(&Interface)) ==
             EFI_SUCCESS &&
         Interface != nullptr;
}

bool IsFirmwareVolume(const ByteView &Header) {
  UINT32 Signature = 0;
  return Header.Equals(offsetof(EFI_FIRMWARE_VOLUME_HEADER, FileSystemGuid), &gEfiFirmwareFileSystem2Guid,
                       sizeof(EFI_GUID)) ||
         Header.Equals(offsetof(EFI_FIRMWARE_VOLUME_HEADER, FileSystemGuid), &gEfiFirmwareFileSystem3Guid,
                       sizeof(EFI_GUID)) ||
         (Header.Read32(offsetof(EFI_FIRMWARE_VOLUME_HEADER, Signature), Signature) && Signature == kFvSignature);
}

// A boot-block volume that carries neither platform marker is handed to the boot-block handler.
void CheckBootBlockMarker() {
  if (!BootBlockUpdateEnabled) {
    return;
  }
  const UINT32 Address = mPlatformConfig->BootBlockFvAddress;
  ByteView Header(Hw::FlashPointer(Address, kVolumeProbeLength), kVolumeProbeLength);
  if (!IsFirmwareVolume(Header) || Header.Equals(0, kBootBlockMarkerOk, sizeof(kBootBlockMarkerOk)) ||
      Header.Equals(0, kBootBlockMarkerFail, sizeof(kBootBlockMarkerFail))) {
    return;
  }
  if (mBootBlockHandler != nullptr) {
    mBootBlockHandler->HandleBootBlockMarker();
  }
}

// The HOBs the earlier boot phase leaves when it allows an update.
EFI_STATUS CheckUpdateGates() {
  if (mUpdateHobsRequired && !HasGuidHob(gUpdateAllowedHobGuid)) {
    return EFI_NOT_FOUND;
  }
  const bool BootBlockHob = HasGuidHob(gBootBlockUpdateHobGuid);
  if (BootBlockHob) {
    mEcUpdateDeferred = mPlatformConfig->EcImageOffset != 0 || mPlatformConfig->EcImageSize != 0;
  }
  if (BootBlockHob != (BootBlockUpdateEnabled != 0)) {
    return EFI_SECURITY_VIOLATION;
  }
  if (mUpdateHobsRequired && !HasGuidHob(gUpdateAuthorizedHobGuid)) {
    return EFI_SECURITY_VIOLATION;
  }
  return EFI_SUCCESS;
}

EFI_STATUS ReadBiosId(BiosImageQueryRecord &Record) {
  const UINT32 Size = mPlatformConfig->BiosIdAreaSize;
  UINT32 Address = mPlatformConfig->BiosIdAreaAddress;
  if ((mPlatformConfig->Flags & kPlatformConfigAlternativeFlag) != 0 && IsPspDirectoryInvalidated()) {
    Address = gConfig.RecoveryBiosIdBase - Size + kRecoveryIbb1Size;
  }
  if (Size == 0) {
    return EFI_NOT_FOUND;
  }
  // Zeroed, so that a read the platform fails leaves no stale record to find.
  PoolBuffer Area = PoolBuffer::AllocateZeroed(Size);
  if (!Area) {
    return EFI_OUT_OF_RESOURCES;
  }
  mPlatformFlashService->SetFlashAccessType(kFlashAccessBiosId);
  mPlatformFlashService->ReadFlash(kFlashAccessBiosId, Area.Data(), Address, Size);
  if (!FindBiosId(ByteView(Area.Data(), Area.Size()), mBiosId)) {
    return EFI_NOT_FOUND;
  }
  CopyMem(Record.BiosId, mBiosId, kBiosIdLength);
  return EFI_SUCCESS;
}

// A platform list may count a closing {0xFFFFFFFF, 0xFFFFFFFF} entry.
void DropTerminator(const PlatformSkipRange *List, UINT8 &Count) {
  if (Count > 0 && List[Count - 1].Start == 0xFFFFFFFF && List[Count - 1].Length == 0xFFFFFFFF) {
    Count--;
  }
}

// The always-kept regions first, then (normal updates only) the normally kept ones.
UINT8 CollectSkipRegions(UINT32 Mode, const PlatformSkipRange *NormalList, UINT8 NormalCount,
                         const PlatformSkipRange *AlwaysList, UINT8 AlwaysCount,
                         SkipRegion (&Regions)[kMaxSkipRegions]) {
  UINTN Wanted = AlwaysCount;
  if (Mode == UpdateModeNormal) {
    Wanted += NormalCount;
  }
  if (Wanted > kMaxSkipRegions) {
    Wanted = kMaxSkipRegions;
  }
  UINT8 Count = 0;
  auto Take = [&](const PlatformSkipRange *List, UINT8 ListCount) {
    for (UINT8 Index = 0; Index < ListCount && Count < Wanted; Index++) {
      Regions[Count++] = {List[Index].Start, List[Index].Length / kSkipRegionPageSize};
    }
  };
  Take(AlwaysList, AlwaysCount);
  if (Mode == UpdateModeNormal) {
    Take(NormalList, NormalCount);
  }
  return Count;
}

// Ascending by start; equal starts keep their order.
void SortSkipRegions(SkipRegion *Regions, UINT8 Count) {
  for (UINT8 First = 0; First + 1 < Count; First++) {
    for (UINT8 Second = First + 1; Second < Count; Second++) {
      if (Regions[First].Start > Regions[Second].Start) {
        SkipRegion Swap = Regions[First];
        Regions[First] = Regions[Second];
        Regions[Second] = Swap;
      }
    }
  }
}

// The platform drivers that follow a query: its notification, the lower-flash permission
// and the post-query call.
void NotifyPlatformOfQuery() {
  const UINT8 Capabilities = mPlatformFlashService->FlashCapabilities;
  if ((Capabilities & kFlashCapabilityQueryNotify) != 0) {
    QueryNotifyProtocol *Notify;
    if (LocateProtocol(gQueryNotifyProtocolGuid, Notify)) {
      Notify->QueryNotify();
    }
  }
  LowerFlashAccessProtocol *LowerFlash;
  if (LocateProtocol(gLowerFlashAccessProtocolGuid, LowerFlash)) {
    mLowerFlashWritable = LowerFlash->IsLowerFlashWritable();
  }
  if ((Capabilities & kFlashCapabilityPostQuery) != 0 && mBootMode != BOOT_IN_RECOVERY_MODE) {
    PostQueryProtocol *PostQuery;
    if (LocateProtocol(gPostQueryProtocolGuid, PostQuery)) {
      PostQuery->PostQuery();
    }
  }
}

}  // namespace

UINT32 DetectUpdateMode() {
  if (mBootMode == BOOT_IN_RECOVERY_MODE) {
    return UpdateModeRecovery;
  }
  UINT8 Value = 0;
  UINTN Size = sizeof(Value);
  if (gRT->GetVariable(const_cast<CHAR16 *>("HFT"_u16), const_cast<EFI_GUID *>(&gPlatformVariableGuid), nullptr,
                       &Size, &Value) != EFI_SUCCESS) {
    return UpdateModeNormal;
  }
  mHftValue = Value;
  gRT->SetVariable(const_cast<CHAR16 *>("HFT"_u16), const_cast<EFI_GUID *>(&gPlatformVariableGuid), kNvBsRt, 0,
                   nullptr);
  return UpdateModeHft;
}

EFI_STATUS EFIAPI BiosQueryImage(BiosImageInterfaceProtocol *This, VOID *QueryRecord, UINT64 Unused2,
                                 UINT64 Unused3) {
  (void)Unused2;
  (void)Unused3;
  TRACE("  BiosImageInterfaceProtocol->BiosQueryImage Entry");
  if (QueryRecord == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  auto &Record = *static_cast<BiosImageQueryRecord *>(QueryRecord);

  CheckBootBlockMarker();
  EFI_STATUS Status = CheckUpdateGates();
  if (Status != EFI_SUCCESS) {
    return Status;
  }
  Status = ReadBiosId(Record);
  if (Status != EFI_SUCCESS) {
    return Status;
  }
  UINT8 Queried = kHcaQueried;
  gRT->SetVariable(const_cast<CHAR16 *>("HCA"_u16), const_cast<EFI_GUID *>(&gPlatformVariableGuid), kNvBsRt,
                   sizeof(Queried), &Queried);

  PlatformSkipRange *NormalList = nullptr;
  PlatformSkipRange *AlwaysList = nullptr;
  UINT8 NormalCount = 0;
  UINT8 AlwaysCount = 0;
  mPlatformFlashService->GetNormalSkipRegions(&NormalList, &NormalCount);
  mPlatformFlashService->GetAlwaysSkipRegions(&AlwaysList, &AlwaysCount);
  mPlatformFlashService->GetFlashInfo(&mFlashInfo);

  // Through the first installation the tool works in 4 KiB blocks; every later reader of
  // mFlashInfo sees them too.
  if (This == mBiosImageInterface) {
    const UINT64 ImageBytes = static_cast<UINT64>(mFlashInfo.BlockSize) * mFlashInfo.BlockCount;
    mFlashInfo.BlockCount = static_cast<UINT16>(ImageBytes / kSkipRegionPageSize);
    mFlashInfo.BlockSize = kSkipRegionPageSize;
  }

  // Counted before the terminators are dropped, as the platform reports them.
  const UINT32 ListedRegions = static_cast<UINT32>(NormalCount) + AlwaysCount;
  if (ListedRegions > kMaxSkipRegions) {
    TRACE("  SkipProtectRegion is %d, greater than 10.", ListedRegions);
    return EFI_NOT_FOUND;
  }
  if (NormalList == nullptr) {
    NormalCount = 0;
  }
  if (AlwaysList == nullptr) {
    AlwaysCount = 0;
  }
  DropTerminator(NormalList, NormalCount);
  DropTerminator(AlwaysList, AlwaysCount);

  Record.BlockSize = mFlashInfo.BlockSize;
  Record.BlockCount = mFlashInfo.BlockCount;
  Record.DeviceAttribute = mFlashInfo.DeviceAttribute;
  ZeroMem(Record.SkipRegions, sizeof(Record.SkipRegions));

  mUpdateMode = DetectUpdateMode();
  if (mUpdateMode == UpdateModeRecovery) {
    mRecoveryBootUpdate = TRUE;
    mFirstUpdateRegion = HasGuidHob(gFullRecoveryHobGuid) ? kFirstRegionFullRecovery : kFirstRegionObb;
  }
  SkipRegion Regions[kMaxSkipRegions] = {};
  const UINT8 Count = CollectSkipRegions(mUpdateMode, NormalList, NormalCount, AlwaysList, AlwaysCount, Regions);
  SortSkipRegions(Regions, Count);
  CopyMem(Record.SkipRegions, Regions, sizeof(SkipRegion) * Count);
  Record.SkipRegionCount = Count;

  NotifyPlatformOfQuery();
  return EFI_SUCCESS;
}
