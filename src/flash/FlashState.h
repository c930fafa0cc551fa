// Module state of the image services (query, read, write, variable store). Everything
// starts zeroed, lives for the life of the firmware and is touched only on the
// boot-services thread.
#pragma once
#include "../base/Uefi.h"
#include <array>

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

// The update regions of a region-tracked update, in this order. Build-time defaults of
// Address and Size; every field is rewritten when an image is accepted.
enum UpdateRegionIndex : UINT32 {
  RegionIbb1R = 0,
  RegionIbb2R = 1,
  RegionIbb3R = 2,
  RegionIbb4R = 3,
  RegionIbb1 = 4,
  RegionIbb2 = 5,
  RegionIbb3 = 6,
  RegionIbb4 = 7,
  RegionObb = 8,
  RegionObb2 = 9,
  RegionObb3 = 10,
};
constexpr UINTN kUpdateRegionCount = 11;
using UpdateRegionTable = std::array<UpdateRegion, kUpdateRegionCount>;
inline constexpr UpdateRegionTable kUpdateRegionDefaults = {{
    {0, 0x178000, 0, 0, 0},           // IBB1R
    {0, 0x380000, 0, 0, 0},           // IBB2R
    {0, 0, 0, 0, 0},                  // IBB3R
    {0, 0x80000, 0, 0, 0},            // IBB4R
    {0xFFA88000, 0x178000, 0, 0, 0},  // IBB1
    {0xFFC00000, 0x380000, 0, 0, 0},  // IBB2
    {0, 0, 0, 0, 0},                  // IBB3
    {0xFF240000, 0x80000, 0, 0, 0},   // IBB4
    {0xFF000000, 0x240000, 0, 0, 0},  // OBB
    {0xFF2C0000, 0x7C8000, 0, 0, 0},  // OBB2
    {0xFFF80000, 0x80000, 0, 0, 0},   // OBB3
}};
extern UpdateRegionTable mUpdateRegionTable;

HOST_ONLY(void ResetFlashStateForTest();)
