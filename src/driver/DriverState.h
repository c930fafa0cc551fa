// Module-wide state shared by the services. Everything starts zeroed, lives for the
// life of the firmware and is touched only on the boot-services thread.
#pragma once
#include "../base/PlatformProtocols.h"
#include "BiosImageInterface.h"

extern BiosImageInterfaceProtocol *mBiosImageInterface;
extern BiosImageInterfaceProtocol *mBiosImageInterface2;
extern PlatformFlashServiceProtocol *mPlatformFlashService;
extern PlatformConfigProtocol *mPlatformConfig;
extern BootBlockHandlerProtocol *mBootBlockHandler;
extern EFI_HANDLE mImageHandle;
extern EFI_BOOT_MODE mBootMode;
extern UINT32 mFlashBase;
extern UINT8 *mUpdateStatusBlock;
extern UINT8 mDxeSignCheck;
extern UINT8 mUpdateHobsRequired;
extern UINT8 BootBlockUpdateEnabled;
extern UINT8 mStageUpdateToDisk;
extern FlashInfo mFlashInfo;
extern UINT8 *mVerifiedImage;
extern UINTN mVerifiedImageSize;

HOST_ONLY(void ResetDriverStateForTest();)
