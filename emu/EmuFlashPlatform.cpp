// Members of the flash service that describe the flash (geometry, protected regions) and the
// query's helper protocols. Each records its call before it answers.
#include "EmuFlashPlatform.h"

#include "../src/base/BaseLib.h"
#include "EmuPlatform.h"
#include "EmuMembers.h"

using namespace emu_members;

namespace {

// Flash capability bits of the reference platform: bit 0 asks for the query notification,
// bit 3 for the post-query call outside recovery boots.
constexpr UINT8 kReferenceFlashCapabilities = 0x09;

EFI_STATUS EFIAPI GetNormalSkipRegions(PlatformSkipRange **List, UINT8 *Count) {
  P().Record("GetNormalSkipRegions", Ptr(List), Ptr(Count));
  *List = P().FlashPlatform.NormalSkip;
  *Count = P().FlashPlatform.NormalSkipCount;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI GetAlwaysSkipRegions(PlatformSkipRange **List, UINT8 *Count) {
  P().Record("GetAlwaysSkipRegions", Ptr(List), Ptr(Count));
  *List = P().FlashPlatform.AlwaysSkip;
  *Count = P().FlashPlatform.AlwaysSkipCount;
  return EFI_SUCCESS;
}

// The geometry covers the whole image; the reference platform (no EC part, no lower part,
// 16 MiB mapped) reports 64 KiB x 256.
EFI_STATUS EFIAPI GetFlashInfo(FlashInfo *Info) {
  P().Record("GetFlashInfo", Ptr(Info));
  const EmuLayout &Layout = P().Layout;
  const EmuFlashPlatform &Flash = P().FlashPlatform;
  UINT64 ImageSize = static_cast<UINT64>(Layout.EcSize) + Layout.LowerFlashSize + Layout.MappedFlashSize;
  ZeroMem(Info, sizeof(*Info));
  Info->BlockSize = Flash.BlockSize;
  Info->BlockCount = static_cast<UINT16>(Flash.BlockSize == 0 ? 0 : ImageSize / Flash.BlockSize);
  Info->DeviceAttribute = Flash.DeviceAttribute;
  Info->EcSize = Layout.EcSize;
  Info->MappedFlashSize = Layout.MappedFlashSize;
  Info->LowerFlashSize = Layout.LowerFlashSize;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI QueryNotify() {
  P().Record("QueryNotify");
  return EFI_SUCCESS;
}

UINT8 EFIAPI IsLowerFlashWritable() {
  P().Record("IsLowerFlashWritable");
  return P().FlashPlatform.LowerFlashWritable;
}

EFI_STATUS EFIAPI PostQuery() {
  P().Record("PostQuery");
  return EFI_SUCCESS;
}

void CopyList(PlatformSkipRange *Target, UINT8 &TargetCount, const PlatformSkipRange *List, UINT8 Count) {
  UINT8 Kept = Count < EmuFlashPlatform::kSkipListCapacity ? Count : EmuFlashPlatform::kSkipListCapacity;
  ZeroMem(Target, sizeof(PlatformSkipRange) * EmuFlashPlatform::kSkipListCapacity);
  CopyMem(Target, List, sizeof(PlatformSkipRange) * Kept);
  TargetCount = Kept;
}

}  // namespace

void EmuFlashPlatform::SetNormalSkipRegions(const PlatformSkipRange *List, UINT8 Count) {
  CopyList(NormalSkip, NormalSkipCount, List, Count);
}

void EmuFlashPlatform::SetAlwaysSkipRegions(const PlatformSkipRange *List, UINT8 Count) {
  CopyList(AlwaysSkip, AlwaysSkipCount, List, Count);
}

void EmuFillFlashPlatform(EmuPlatform &Platform) {
  using namespace EmuFlashLayout;
  EmuFlashPlatform &Flash = Platform.FlashPlatform;
  // Image offset of a mapped flash address: the EC and lower parts come first.
  UINT32 Head = Platform.Layout.EcSize + Platform.Layout.LowerFlashSize;
  auto ImageOffset = [Head](UINT32 Address) { return Address - kMappedBase + Head; };

  // Every update keeps the CMOS mirror journal and the variable-store backup area; a
  // normal update also keeps the live variable store. Both lists end with a terminator.
  const PlatformSkipRange Always[] = {{ImageOffset(kCmosJournalAddress), kCmosJournalSize},
                                      {ImageOffset(kVariableBackupAddress), kVariableBackupSize},
                                      kSkipListTerminator};
  const PlatformSkipRange Normal[] = {{ImageOffset(kVariableStoreAddress), kVariableStoreSize}, kSkipListTerminator};
  Flash.SetAlwaysSkipRegions(Always, sizeof(Always) / sizeof(Always[0]));
  Flash.SetNormalSkipRegions(Normal, sizeof(Normal) / sizeof(Normal[0]));

  Flash.QueryNotify.QueryNotify = QueryNotify;
  Flash.LowerFlashAccess.IsLowerFlashWritable = IsLowerFlashWritable;
  Flash.PostQuery.PostQuery = PostQuery;

  PlatformFlashServiceProtocol &Service = *Platform.FlashService;
  Service.FlashCapabilities = kReferenceFlashCapabilities;
  Service.GetNormalSkipRegions = GetNormalSkipRegions;
  Service.GetAlwaysSkipRegions = GetAlwaysSkipRegions;
  Service.GetFlashInfo = GetFlashInfo;

  PlatformConfigProtocol &Config = *Platform.Config;
  Config.BootBlockFvAddress = kBootBlockFvAddress;
  Config.BiosIdAreaAddress = kBiosIdAreaAddress;
  Config.BiosIdAreaSize = kBiosIdAreaSize;
  Config.EcImageOffset = 0;  // the EC firmware region of the image, whole, at the store's start
  Config.EcImageSize = kEcFirmwareSize;
  Config.Flags = 0;  // plain layout; tests set kPlatformConfigAlternativeFlag for the region-tracked one
}
