#include "FlashState.h"

#include "../base/BaseLib.h"

UINT32 mUpdateMode = UpdateModeNormal;
UINT8 mHftValue = 0;
BOOLEAN mEcUpdateDeferred = FALSE;
BOOLEAN mFlashWritten = FALSE;
BOOLEAN mLowerFlashWritable = FALSE;
SavedSkipRegions mSavedSkipRegions = {};
UINT8 mBiosId[kBiosIdLength] = {};
UINT32 mFirstUpdateRegion = 0;
BOOLEAN mRecoveryBootUpdate = FALSE;
BOOLEAN mResumeUpdate = FALSE;
BOOLEAN mResumeUpdateB = FALSE;
BOOLEAN mSkipIbb4Write = FALSE;

UpdateRegionTable mUpdateRegionTable = kUpdateRegionDefaults;

#if defined(BIOS_HOST_BUILD)
void ResetFlashStateForTest() {
  mUpdateMode = UpdateModeNormal;
  mHftValue = 0;
  mEcUpdateDeferred = FALSE;
  mFlashWritten = FALSE;
  mLowerFlashWritable = FALSE;
  ZeroMem(&mSavedSkipRegions, sizeof(mSavedSkipRegions));
  ZeroMem(mBiosId, sizeof(mBiosId));
  mFirstUpdateRegion = 0;
  mRecoveryBootUpdate = FALSE;
  mResumeUpdate = FALSE;
  mResumeUpdateB = FALSE;
  mSkipIbb4Write = FALSE;
  mUpdateRegionTable = kUpdateRegionDefaults;
}
#endif
