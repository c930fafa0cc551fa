#include "DriverState.h"

#include "../base/BaseLib.h"
#include "../base/Globals.h"

BiosImageInterfaceProtocol *mBiosImageInterface = nullptr;
BiosImageInterfaceProtocol *mBiosImageInterface2 = nullptr;
PlatformFlashServiceProtocol *mPlatformFlashService = nullptr;
PlatformConfigProtocol *mPlatformConfig = nullptr;
BootBlockHandlerProtocol *mBootBlockHandler = nullptr;
EFI_HANDLE mImageHandle = nullptr;
EFI_BOOT_MODE mBootMode = 0;
UINT32 mFlashBase = 0;
UINT8 *mUpdateStatusBlock = nullptr;
UINT8 mDxeSignCheck = 0;
UINT8 mUpdateHobsRequired = 0;
UINT8 BootBlockUpdateEnabled = 0;
UINT8 mStageUpdateToDisk = 0;
FlashInfo mFlashInfo = {};
UINT8 *mVerifiedImage = nullptr;
UINTN mVerifiedImageSize = 0;

#if defined(BIOS_HOST_BUILD)
void ResetDriverStateForTest() {
  mBiosImageInterface = nullptr;
  mBiosImageInterface2 = nullptr;
  mPlatformFlashService = nullptr;
  mPlatformConfig = nullptr;
  mBootBlockHandler = nullptr;
  mImageHandle = nullptr;
  mBootMode = 0;
  mFlashBase = 0;
  mUpdateStatusBlock = nullptr;
  mDxeSignCheck = 0;
  mUpdateHobsRequired = 0;
  BootBlockUpdateEnabled = 0;
  mStageUpdateToDisk = 0;
  ZeroMem(&mFlashInfo, sizeof(mFlashInfo));
  if (mVerifiedImage != nullptr && gBS != nullptr) {
    gBS->FreePool(mVerifiedImage);
  }
  mVerifiedImage = nullptr;
  mVerifiedImageSize = 0;
}
#endif
