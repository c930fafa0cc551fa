// The block write's range planning: a block becomes a short list of image ranges (mapped
// onto the update regions of a region-tracked update, then cut around the protected skip
// regions) before anything reaches a device.
#pragma once
#include "../base/Uefi.h"
#include "FlashRecords.h"

// One range per update region, plus the pieces the skip regions cut off.
constexpr UINT32 kMaxWriteRanges = 11;

struct WriteRangeList {
  FlashWriteRange Entries[kMaxWriteRanges];
  UINT32 Count;
};

// Blocks of a region-tracked update are counted in progress units of the update region
// table, not in image offsets; these are the block lengths the unit arithmetic handles.
constexpr UINT32 kMinTrackedBlockSize = 0x1000;
constexpr UINT32 kMaxTrackedBlockSize = 0x100000;

// Replaces List by the ranges block Block (BlockLength bytes, counted in 4 KiB units) covers
// in mUpdateRegionTable, at most one per region, in table order. Regions 0..7 advance in
// 8 KiB steps once the block is past the first region's start; a region tail shorter than
// 8 KiB is taken along; with mSkipIbb4Write, IBB4's range is kept with length 0.
// EFI_SUCCESS when a range was produced, EFI_NOT_FOUND when none, EFI_BUFFER_TOO_SMALL when
// the table yields more ranges than the list holds.
EFI_STATUS MapBlockToUpdateRegions(UINT16 Block, UINT32 BlockLength, WriteRangeList &List);

// Cuts each of the first RegionCount skip regions out of List (32-bit unsigned arithmetic):
// a covered range becomes empty in place, a partly covered one is shortened and its tail
// appended. *CoveredSole is set when a region covered the only range of the list.
// EFI_BUFFER_TOO_SMALL, with List in an unspecified state, when a tail would not fit.
EFI_STATUS SplitAroundSkipRegions(const SkipRegion *Regions, UINT32 RegionCount, WriteRangeList &List,
                                  BOOLEAN *CoveredSole);
