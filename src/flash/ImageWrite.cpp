// BiosWriteImage: one block of the accepted image per call. The whole list of ranges is
// planned (and checked against the image) before the first device is touched, so that a
// refused call writes nothing; the block's pieces are then reported to the region steps
// and written in list order.
#include "ImageWrite.h"

#include "../base/BaseLib.h"
#include "../driver/BiosImageInterface.h"
#include "../driver/Config.h"
#include "../driver/DriverState.h"
#include "../driver/HookPoints.h"
#include "../update/UpdateRegionStep.h"
#include "FlashAccess.h"
#include "FlashState.h"
#include "VariableStore.h"

namespace {

constexpr UINT32 kUnitSize = 0x1000;
constexpr UINT32 kDoubleUnitSize = 0x2000;
// The first update regions (boot blocks and their recovery copies) count 8 KiB units.
constexpr UINT32 kDoubleUnitRegions = RegionObb;
// The backup area's image offset in the skip list is its flash address less the mapped base.
constexpr UINT32 kBackupAreaSkipBias = 0x1000000;

bool RegionTracked() { return mPlatformConfig != nullptr && (mPlatformConfig->Flags & kPlatformConfigAlternativeFlag) != 0; }

bool InRange(UINT32 Value, UINT32 Low, UINT32 High) { return Value >= Low && Value <= High; }

UINT32 SkipRegionCount(const BiosImageQueryRecord &Record) {
  return Record.SkipRegionCount < kMaxSkipRegions ? Record.SkipRegionCount : static_cast<UINT32>(kMaxSkipRegions);
}

void SaveSkipRegions(const BiosImageQueryRecord *Record) {
  if (Record == nullptr) {
    return;
  }
  mSavedSkipRegions.Count = static_cast<UINT8>(SkipRegionCount(*Record));
  CopyMem(mSavedSkipRegions.Regions, Record->SkipRegions, sizeof(mSavedSkipRegions.Regions));
}

// A range may only be written from the accepted image: its image offsets and, with an
// explicit source, the bytes it is written from must lie inside it.
bool IsInsideImage(const FlashWriteRange &Range) {
  const UINT64 Size = mVerifiedImageSize;
  if (static_cast<UINT64>(Range.Start) + Range.Length > Size) {
    return false;
  }
  if (Range.Source == 0) {
    return true;
  }
  const UINT64 Image = reinterpret_cast<UINTN>(mVerifiedImage);
  return Range.Source >= Image && Range.Source - Image <= Size && Range.Length <= Size - (Range.Source - Image);
}

// Block 0 of a recovery or HFT update: an image that does not put the variable-store backup
// where the running firmware keeps it gets the backup area written from the image.
void UnprotectMovedBackupArea(BiosImageQueryRecord &Record) {
  const INT64 Product = static_cast<INT32>(static_cast<UINT32>(Record.BlockCount) * Record.BlockSize);
  UINT64 CheckedSize = static_cast<UINT64>(Product);
  if (CheckedSize > mVerifiedImageSize) {
    CheckedSize = mVerifiedImageSize;  // never look past the accepted copy
  }
  if (CheckBackupAreaMapping(mVerifiedImage, CheckedSize) == EFI_SUCCESS) {
    return;
  }
  const UINT32 BackupStart = gConfig.VariableBackupBase + kBackupAreaSkipBias;
  for (SkipRegion &Region : Record.SkipRegions) {
    if (Region.Start == BackupStart) {
      Region.Pages = 0;
    }
  }
}

struct LowerFlashWrite {
  bool Wanted = false;
  UINT32 Length = 0;
  UINT64 ImageOffset = 0;
};

struct WritePlan {
  LowerFlashWrite Lower;
  bool StopAfterLower = false;  // nothing beyond the lower-flash write (status EFI_SUCCESS)
  bool ResetStatus = false;     // the block was region-mapped or its sole range was skipped
  WriteRangeList List = {};
};

// Steps that decide what the call writes, without touching any device.
EFI_STATUS PlanBlockWrite(const BiosImageQueryRecord &Record, UINT16 Block, UINT64 Offset, WritePlan &Plan) {
  const UINT64 Length = Record.BlockSize;
  const UINT64 Boundary = mFlashInfo.LowerFlashSize;
  FlashWriteRange &First = Plan.List.Entries[0];
  First = {static_cast<UINT32>(Offset), 0, Record.BlockSize};
  Plan.List.Count = 1;

  if (Offset < Boundary && Offset + Length <= Boundary) {
    if (!mLowerFlashWritable) {
      Plan.StopAfterLower = true;
      return EFI_SUCCESS;
    }
    if (Length != 0) {
      Plan.Lower = {true, Record.BlockSize, Offset};
    }
  } else if (Offset <= Boundary && Boundary < Offset + Length && mLowerFlashWritable) {
    Plan.Lower = {true, static_cast<UINT32>(Boundary - Offset), Offset};
    First = {static_cast<UINT32>(Boundary), 0, static_cast<UINT32>(Offset + Length - Boundary)};
  }

  if (RegionTracked()) {
    Plan.ResetStatus = true;
    if (mResumeUpdate || mResumeUpdateB || mRecoveryBootUpdate) {
      const UINT32 FirstRegion = mFirstUpdateRegion < kUpdateRegionCount ? mFirstUpdateRegion : kUpdateRegionCount - 1;
      if (Block < mUpdateRegionTable[FirstRegion].StartBlock / (mFlashInfo.BlockSize / kUnitSize)) {
        Plan.StopAfterLower = true;
        return EFI_SUCCESS;
      }
    }
    EFI_STATUS Status = MapBlockToUpdateRegions(Block, Record.BlockSize, Plan.List);
    if (Status == EFI_NOT_FOUND) {
      Plan.StopAfterLower = true;
      return EFI_SUCCESS;
    }
    if (Status != EFI_SUCCESS) {
      return Status;
    }
  }

  BOOLEAN CoveredSole = FALSE;
  EFI_STATUS Status = SplitAroundSkipRegions(Record.SkipRegions, SkipRegionCount(Record), Plan.List, &CoveredSole);
  if (Status != EFI_SUCCESS) {
    return Status;
  }
  if (CoveredSole) {
    Plan.ResetStatus = true;
  }
  for (UINT32 Index = 0; Index < Plan.List.Count; Index++) {
    const FlashWriteRange &Range = Plan.List.Entries[Index];
    if (Range.Length != 0 && !IsInsideImage(Range)) {
      return EFI_INVALID_PARAMETER;
    }
  }
  return EFI_SUCCESS;
}

EFI_STATUS CheckWriteCall(const BiosImageQueryRecord &Record, UINT64 Offset) {
  if (mVerifiedImage == nullptr) {
    return EFI_NOT_READY;
  }
  if (RegionTracked() && (!InRange(Record.BlockSize, kMinTrackedBlockSize, kMaxTrackedBlockSize) ||
                          !InRange(mFlashInfo.BlockSize, kMinTrackedBlockSize, kMaxTrackedBlockSize))) {
    return EFI_BAD_BUFFER_SIZE;
  }
  if (Offset > mVerifiedImageSize || Record.BlockSize > mVerifiedImageSize - Offset) {
    return EFI_INVALID_PARAMETER;
  }
  return EFI_SUCCESS;
}

EFI_STATUS WriteBlock(BiosImageInterfaceProtocol *This, BiosImageQueryRecord &Record,
                      const BiosWriteRequest &Request) {
  const UINT16 Block = This == mBiosImageInterface2 ? Request.BlockNumberEx : Request.BlockNumber;
  const UINT64 Offset = Request.ImageOffset;
  EFI_STATUS Status = CheckWriteCall(Record, Offset);
  if (Status != EFI_SUCCESS) {
    return Status;
  }
  const bool StartOfUpdate = Block == 0;
  const bool RestoreStore = StartOfUpdate && (mUpdateMode == UpdateModeRecovery || mUpdateMode == UpdateModeHft);
  if (RestoreStore) {
    UnprotectMovedBackupArea(Record);
  }
  WritePlan Plan;
  Status = PlanBlockWrite(Record, Block, Offset, Plan);
  if (Status != EFI_SUCCESS) {
    return Status;
  }

  if (RestoreStore) {
    RestoreVariableStore();
  }
  if (StartOfUpdate) {
    SignalWriteStartHook();
  }
  Status = EFI_SUCCESS;
  if (Plan.Lower.Wanted) {
    Status = WriteImageRange(Plan.Lower.Length, Plan.Lower.ImageOffset, 0);
  }
  if (Plan.StopAfterLower) {
    return Plan.ResetStatus ? EFI_SUCCESS : Status;
  }
  if (Plan.ResetStatus) {
    Status = EFI_SUCCESS;
  }
  const bool Tracked = RegionTracked();
  const UINT32 UnitsPerBlock = mFlashInfo.BlockSize / kUnitSize;
  for (UINT32 Index = 0; Index < Plan.List.Count; Index++) {
    const FlashWriteRange &Range = Plan.List.Entries[Index];
    if (Tracked) {
      UpdateRegionStep(Range.Start, Block, UnitsPerBlock);
    }
    if (Range.Length != 0) {
      Status = WriteImageRange(Range.Length, Range.Start, Range.Source);
    }
  }
  return Status;
}

}  // namespace

EFI_STATUS MapBlockToUpdateRegions(UINT16 Block, UINT32 BlockLength, WriteRangeList &List) {
  const UINT32 Units = BlockLength / kUnitSize;
  const UINT32 FirstUnit = static_cast<UINT32>(Block) * Units;
  EFI_STATUS Result = EFI_NOT_FOUND;
  List = {};
  for (UINT32 Index = 0; Index < kUpdateRegionCount; Index++) {
    const UpdateRegion &Region = mUpdateRegionTable[Index];
    const bool Double = Index < kDoubleUnitRegions && FirstUnit >= mUpdateRegionTable[0].StartBlock;
    const UINT32 Factor = Double ? 2 : 1;
    const UINT32 Step = Double ? kDoubleUnitSize : kUnitSize;
    const UINT64 Low = Region.StartBlock;
    const UINT64 High = Low + Region.Pages / Factor;
    const UINT32 RegionBytes = static_cast<UINT32>(Region.Pages) * kUnitSize;
    const UINT32 Base = static_cast<UINT32>(Region.Address) - mFlashBase + mFlashInfo.LowerFlashSize;
    const UINT32 End = RegionBytes + Base;

    for (UINT32 Unit = 0; Unit < Units;) {
      const UINT32 Current = FirstUnit + Unit;
      if (Current < Low || Current >= High) {
        Unit++;
        continue;
      }
      const UINT32 Relative = (Current - static_cast<UINT32>(Low)) * Factor * kUnitSize;
      FlashWriteRange Range = {Base + Relative, Region.Source == 0 ? 0 : Region.Source + Relative, 0};
      for (;;) {
        Range.Length += Step;
        if (Range.Start + Range.Length >= End) {
          Range.Length = End - Range.Start;
          break;
        }
        if (++Unit >= Units) {
          break;
        }
      }
      const UINT32 Remaining = RegionBytes - Relative;
      if (InRange(Remaining - Range.Length, 1, kDoubleUnitSize - 1)) {
        Range.Length = Remaining;  // a tail shorter than one double unit goes with this range
      }
      if (mSkipIbb4Write && Index == RegionIbb4) {
        Range.Length = 0;
      }
      if (List.Count == kMaxWriteRanges) {
        return EFI_BUFFER_TOO_SMALL;
      }
      List.Entries[List.Count++] = Range;
      Result = EFI_SUCCESS;
      Unit++;
    }
  }
  return Result;
}

EFI_STATUS SplitAroundSkipRegions(const SkipRegion *Regions, UINT32 RegionCount, WriteRangeList &List,
                                  BOOLEAN *CoveredSole) {
  *CoveredSole = FALSE;
  for (UINT32 RegionIndex = 0; RegionIndex < RegionCount; RegionIndex++) {
    const SkipRegion &Region = Regions[RegionIndex];
    if (Region.Pages == 0) {
      continue;
    }
    const UINT32 SkipStart = Region.Start;
    const UINT32 SkipEnd = SkipStart + Region.Pages * kUnitSize;
    for (UINT32 Index = 0; Index != List.Count; Index++) {
      FlashWriteRange &Range = List.Entries[Index];
      if (Range.Length == 0) {
        continue;
      }
      const UINT32 RangeStart = Range.Start;
      const UINT32 RangeEnd = RangeStart + Range.Length;
      bool Shortened = false;
      bool TailRemains = false;
      if (SkipStart <= RangeStart) {
        if (SkipEnd >= RangeEnd) {
          Range.Length = 0;
          if (List.Count == 1) {
            *CoveredSole = TRUE;
          }
          continue;
        }
        if (SkipEnd <= RangeStart) {
          continue;
        }
        Range.Length = 0;  // the region covers the range's head
        Shortened = TailRemains = true;
      } else {
        if (SkipStart >= RangeEnd) {
          continue;
        }
        Range.Length = SkipStart - RangeStart;
        Shortened = true;
        TailRemains = SkipEnd < RangeEnd;
      }
      if (TailRemains) {
        if (List.Count == kMaxWriteRanges) {
          return EFI_BUFFER_TOO_SMALL;
        }
        const UINT64 TailSource = Range.Source == 0 ? 0 : Range.Source + static_cast<UINT32>(SkipEnd - RangeStart);
        List.Entries[List.Count++] = {SkipEnd, TailSource, RangeEnd - SkipEnd};
      }
      if (Shortened) {
        break;  // a region changes at most one range partially
      }
    }
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI BiosWriteImage(BiosImageInterfaceProtocol *This, VOID *QueryRecord, VOID *WriteRequest) {
  auto *Record = static_cast<BiosImageQueryRecord *>(QueryRecord);
  EFI_STATUS Status = EFI_INVALID_PARAMETER;
  if (Record != nullptr && WriteRequest != nullptr) {
    Status = WriteBlock(This, *Record, *static_cast<const BiosWriteRequest *>(WriteRequest));
  }
  SaveSkipRegions(Record);
  return Status;
}
