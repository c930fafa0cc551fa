// Hostile block writes: arbitrary query records (overlapping skip regions, regions wrapping
// at 2^32, counts above 10), requests, geometry and update region tables, with and without
// the region-tracked layout, against a 1 MiB accepted image. The flash service stub traps
// on any device write outside the image's flash range; ASan traps on any other stray access.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "src/driver/Config.h"
#include "src/driver/DriverState.h"
#include "src/flash/FlashRecords.h"
#include "src/flash/FlashState.h"
#include "tests/fuzz/FuzzBootServices.h"

namespace {

constexpr UINT32 kImageSize = 0x100000;
constexpr UINT32 kFlashBase = 0xFFF00000;
UINT64 gFlashLow = 0;
UINT64 gFlashHigh = 0;

// Image writes (type 0) come from the accepted image; the region steps' marker writes
// (type 1) from their own buffers. Both stay inside the flash.
EFI_STATUS EFIAPI TrapWriteFlash(UINT8 Type, UINT32 Address, const VOID *Buffer, UINT32 Length) {
  const UINT8 *Data = static_cast<const UINT8 *>(Buffer);
  if (Address < gFlashLow || static_cast<UINT64>(Address) + Length > gFlashHigh ||
      (Type == 0 && (Data < mVerifiedImage || Data + Length > mVerifiedImage + mVerifiedImageSize))) {
    std::abort();
  }
  return EFI_SUCCESS;
}

// The region steps read the markers back; the flash reads as erased.
EFI_STATUS EFIAPI ErasedReadFlash(UINT8, VOID *Buffer, UINT32, UINT32 Length) {
  std::memset(Buffer, 0xFF, Length);
  return EFI_SUCCESS;
}

// Entering OBB updates the EC firmware, which this platform does not have (size 0).
EFI_STATUS EFIAPI TrapWriteEc(const VOID *, UINT32 Length, UINT32) {
  if (Length != 0) {
    std::abort();
  }
  return EFI_SUCCESS;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  static UINT8 *Image = static_cast<UINT8 *>(std::calloc(1, kImageSize));
  static PlatformFlashServiceProtocol Service = {};
  static PlatformConfigProtocol Config = {};
  static BiosImageInterfaceProtocol Tables[2] = {};
  static EFI_BOOT_SERVICES BootServices = FuzzBootServices();  // the region steps look for the update log
  gBS = &BootServices;
  Service.ReadFlash = ErasedReadFlash;
  Service.WriteFlash = TrapWriteFlash;
  Service.WriteEc = TrapWriteEc;
  mPlatformFlashService = &Service;
  mPlatformConfig = &Config;
  mBiosImageInterface = &Tables[0];
  mBiosImageInterface2 = &Tables[1];
  gConfig.WriteStartHookEnabled = FALSE;
  mVerifiedImage = Image;
  mVerifiedImageSize = kImageSize;
  mFlashBase = kFlashBase;
  mUpdateMode = UpdateModeNormal;

  FuzzInput In{Data, Size};
  const UINT8 Switches = In.Take<UINT8>();
  Config.Flags = (Switches & 1) != 0 ? kPlatformConfigAlternativeFlag : 0;
  mLowerFlashWritable = (Switches & 2) != 0;
  mSkipIbb4Write = (Switches & 4) != 0;
  mResumeUpdate = (Switches & 8) != 0;
  mRecoveryBootUpdate = (Switches & 16) != 0;
  mFirstUpdateRegion = In.Take<UINT8>();
  const UINT32 Lower = (Switches & 32) != 0 ? 0x10000 : 0;
  mFlashInfo = {};
  mFlashInfo.LowerFlashSize = Lower;
  mFlashInfo.MappedFlashSize = kImageSize - Lower;
  mFlashInfo.BlockSize = In.Take<UINT32>();
  gFlashLow = static_cast<UINT64>(kFlashBase) - Lower;
  gFlashHigh = static_cast<UINT64>(kFlashBase) + kImageSize - Lower;

  for (UpdateRegion &Region : mUpdateRegionTable) {
    const UINT8 Kind = In.Take<UINT8>();
    Region.Address = (Kind & 1) != 0 ? In.Take<UINT32>() : kFlashBase + (In.Take<UINT32>() & 0xFFFFF);
    Region.Pages = In.Take<UINT16>();
    Region.Size = Region.Pages * 4096;
    Region.StartBlock = In.Take<UINT16>();
    const UINT32 SourceOffset = In.Take<UINT32>();
    Region.Source = (Kind & 6) == 0   ? 0
                    : (Kind & 6) == 2 ? reinterpret_cast<UINTN>(Image) + (SourceOffset & 0xFFFFF)
                                      : static_cast<UINT64>(SourceOffset) << (Kind >> 3);
  }
  BiosImageQueryRecord Record = In.Take<BiosImageQueryRecord>();
  const UINT8 Calls = In.Take<UINT8>() % 4 + 1;
  for (UINT8 Call = 0; Call < Calls; Call++) {
    BiosWriteRequest Request = In.Take<BiosWriteRequest>();
    BiosImageInterfaceProtocol *This = &Tables[Request.BlockNumber & 1];
    BiosWriteImage(This, &Record, &Request);
    if (mSavedSkipRegions.Count > kMaxSkipRegions) {
      std::abort();
    }
  }
  mVerifiedImage = nullptr;
  return 0;
}
