// The read-back after hostile block writes: the skip regions a caller's record left behind
// (overlapping, wrapping at 2^32, past the image, counts above 10), the IBB4 entry of the
// region table, the variable store's place and the geometry, over an accepted image of a
// size the input picks. Every overlay must stay inside the accepted copy and the result;
// the devices' reads must fill exactly the result's parts.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "src/base/Globals.h"
#include "src/driver/BiosImageInterface.h"
#include "src/driver/Config.h"
#include "src/driver/DriverState.h"
#include "src/flash/FlashRecords.h"
#include "src/flash/FlashState.h"
#include "tests/fuzz/FuzzBootServices.h"

namespace {

constexpr UINT32 kMaxPart = 0x8000;   // each part of the geometry, so that an input stays cheap

EFI_STATUS EFIAPI FillFlash(UINT8, VOID *Buffer, UINT32, UINT32 Length) {
  std::memset(Buffer, 0xA5, Length);  // ASan traps a length past the buffer
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI FillEc(VOID *Buffer, UINT32, UINT32 Length) {
  std::memset(Buffer, 0x5A, Length);
  return EFI_SUCCESS;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  static EFI_BOOT_SERVICES BootServices = FuzzBootServices();
  static PlatformFlashServiceProtocol Service = {};
  static PlatformConfigProtocol Config = {};
  static BiosImageInterfaceProtocol Tables[2] = {};
  gBS = &BootServices;
  Service.ReadFlash = FillFlash;
  Service.ReadEc = FillEc;
  mPlatformFlashService = &Service;
  mPlatformConfig = &Config;
  mBiosImageInterface = &Tables[0];
  mBiosImageInterface2 = &Tables[1];
  mFlashBase = 0xFF000000;

  FuzzInput In{Data, Size};
  const UINT8 Switches = In.Take<UINT8>();
  Config.Flags = (Switches & 1) != 0 ? kPlatformConfigAlternativeFlag : 0;
  mEcUpdateDeferred = (Switches & 2) != 0;
  mFlashInfo = {};
  mFlashInfo.EcSize = In.Take<UINT32>() % kMaxPart;
  mFlashInfo.LowerFlashSize = In.Take<UINT32>() % kMaxPart;
  mFlashInfo.MappedFlashSize = In.Take<UINT32>() % kMaxPart;
  gConfig.VariableStoreBase = In.Take<UINT32>();
  gConfig.VariableStoreSize = In.Take<UINT32>();

  // The accepted copy: the geometry's size, or any other the input asks for.
  const UINT32 Whole = mFlashInfo.EcSize + mFlashInfo.LowerFlashSize + mFlashInfo.MappedFlashSize;
  const UINT32 ImageSize = (Switches & 4) != 0 ? In.Take<UINT32>() % (3 * kMaxPart) : Whole;
  auto *Image = static_cast<UINT8 *>(std::malloc(ImageSize == 0 ? 1 : ImageSize));
  std::memset(Image, 0x3C, ImageSize);
  mVerifiedImage = Image;
  mVerifiedImageSize = ImageSize;

  UpdateRegion &Ibb4 = mUpdateRegionTable[RegionIbb4];
  Ibb4.Address = 0xFF000000ull + In.Take<UINT32>();
  Ibb4.Size = In.Take<UINT32>();
  const UINT32 SourceOffset = In.Take<UINT32>();
  Ibb4.Source = (Switches & 8) != 0 ? reinterpret_cast<UINTN>(Image) + SourceOffset : SourceOffset;

  // The skip regions reach the driver the way a caller leaves them: with a refused write.
  BiosImageQueryRecord Record = In.Take<BiosImageQueryRecord>();
  BiosWriteImage(&Tables[0], &Record, nullptr);

  VOID *Result = nullptr;
  BiosReadImage(&Tables[0], 0, &Result);
  if (Result != nullptr) {
    std::free(Result);
  }
  mVerifiedImage = nullptr;
  mVerifiedImageSize = 0;
  std::free(Image);
  return 0;
}
