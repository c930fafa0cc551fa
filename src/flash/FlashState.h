// Module state of the image services (query, read, write, variable store). Everything
// starts zeroed, lives for the life of the firmware and is touched only on the
// boot-services thread.
#pragma once
#include "../base/Uefi.h"
#include "FlashRecords.h"

extern UINT32 mUpdateMode;             // an UpdateMode, fixed by every query
extern UINT8 mHftValue;                // the byte the HFT variable held
extern BOOLEAN mEcUpdateDeferred;      // the EC part is neither read back nor written
extern BOOLEAN mFlashWritten;          // some range was written or found already equal
extern BOOLEAN mLowerFlashWritable;    // ranges below the lower-flash boundary may be written
extern SavedSkipRegions mSavedSkipRegions;
extern UINT8 mBiosId[kBiosIdLength];
extern UINT32 mFirstUpdateRegion;      // index into the update region table where a partial update starts
extern BOOLEAN mRecoveryBootUpdate;
extern BOOLEAN mResumeUpdate;
extern BOOLEAN mResumeUpdateB;
extern BOOLEAN mSkipIbb4Write;

HOST_ONLY(void ResetFlashStateForTest();)
