// The block write: skip regions, blocks onto update regions, the partial-update gate, the lower
// flash part, block 0, and the refusals only this layer makes (the rest are HostileInput's).
#include <algorithm>
#include <utility>
#include <vector>

#include "../../src/driver/CallbackHub.h"
#include "../../src/driver/Config.h"
#include "../../src/flash/ImageWrite.h"
#include "../../src/flash/VariableStore.h"
#include "../../src/base/Globals.h"
#include "FlashFixture.h"

// Found by the matchers through the record's own (global) namespace.
bool operator==(const FlashWriteRange &A, const FlashWriteRange &B) {
  return A.Start == B.Start && A.Source == B.Source && A.Length == B.Length;
}

namespace {

using Ranges = std::vector<FlashWriteRange>;
using Writes = std::vector<std::pair<UINT64, UINT64>>;  // flash address, length

Ranges ToVector(const WriteRangeList &List) { return Ranges(List.Entries, List.Entries + List.Count); }

struct SplitRow {
  const char *Case;
  Ranges Before;
  std::vector<SkipRegion> Skip;
  Ranges After;
  BOOLEAN CoveredSole;
  EFI_STATUS Status;
};

TEST(BlockWriteSplit, CutsEverySkipRegionOutAsTheTableSays) {
  const FlashWriteRange Block = {0x10000, 0, 0x10000};
  const Ranges Eleven(11, FlashWriteRange{0x10000, 0, 0x10000});
  const SplitRow Rows[] = {
      {"covers the block", {Block}, {{0x10000, 16}}, {{0x10000, 0, 0}}, TRUE, EFI_SUCCESS},
      {"covers its head", {Block}, {{0xF000, 2}}, {{0x10000, 0, 0}, {0x11000, 0, 0xF000}}, FALSE, EFI_SUCCESS},
      {"starts at its end", {Block}, {{0x20000, 1}}, {Block}, FALSE, EFI_SUCCESS},
      {"inside it", {Block}, {{0x14000, 2}}, {{0x10000, 0, 0x4000}, {0x16000, 0, 0xA000}}, FALSE, EFI_SUCCESS},
      {"covers its tail", {Block}, {{0x1C000, 8}}, {{0x10000, 0, 0xC000}}, FALSE, EFI_SUCCESS},
      {"end wrapping at 2^32 inside the block", {Block}, {{0x14000, 0xFFFFF}},
       {{0x10000, 0, 0x4000}, {0x13000, 0, 0xD000}}, FALSE, EFI_SUCCESS},
      {"a tail beyond eleven ranges", Eleven, {{0x14000, 1}}, {}, FALSE, EFI_BUFFER_TOO_SMALL},
  };
  for (const SplitRow &Row : Rows) {
    WriteRangeList List = {};
    std::copy(Row.Before.begin(), Row.Before.end(), List.Entries);
    List.Count = static_cast<UINT32>(Row.Before.size());
    BOOLEAN CoveredSole = 7;
    EXPECT_EQ(SplitAroundSkipRegions(Row.Skip.data(), static_cast<UINT32>(Row.Skip.size()), List, &CoveredSole),
              Row.Status)
        << Row.Case;
    if (Row.Status == EFI_SUCCESS) {
      EXPECT_EQ(ToVector(List), Row.After) << Row.Case;
      EXPECT_EQ(CoveredSole, Row.CoveredSole) << Row.Case;
    }
  }
}

class BlockWrite : public FlashFixture {
protected:
  // A changed copy differs in every byte, so that every planned range reaches the chip.
  void StartWithImage(bool Changed = true) {
    StartWithCopy(Changed ? 0x5A : 0x00);
    mFlashInfo.BlockSize = 0x1000;
    Record.BlockSize = 0x1000;
    Record.BlockCount = static_cast<UINT16>(mVerifiedImageSize / 0x1000);
  }

  // Regions 0, 1, 7, 8 and 9 of a small region-tracked table (the others stay empty).
  void UseTestRegions() {
    Platform->Config->Flags |= kPlatformConfigAlternativeFlag;
    mUpdateRegionTable = {};
    mUpdateRegionTable[RegionIbb1R] = {0xFF100000, 0x10000, 0, 0x20, 0x10};
    mUpdateRegionTable[RegionIbb2R] = {0xFF200000, 0x4000, 0, 0x10, 4};
    mUpdateRegionTable[RegionIbb4] = {0xFF300000, 0x4000, 0, 0x30, 4};
    mUpdateRegionTable[RegionObb] = {0xFF400000, 0x11000, 0, 0x100, 0x11};
    mUpdateRegionTable[RegionObb2] = {0xFF500000, 0x4000, 0, 0x111, 4};
  }

  EFI_STATUS Write(UINT16 Block, UINT64 Offset) {
    BiosWriteRequest Request = {};
    Request.BlockNumber = Request.BlockNumberEx = Block;
    Request.ImageOffset = Offset;
    return mBiosImageInterface->BiosWriteImage(mBiosImageInterface, &Record, &Request);
  }

  // The image writes (type 0); the region steps' directory copies use type 1.
  Writes FlashWrites() const {
    Writes Found;
    for (const EmuCall &Call : CallsNamed("WriteFlash")) {
      if (Call.Arguments[0] == 0) {
        Found.emplace_back(Call.Arguments[1], Call.Arguments[3]);
      }
    }
    return Found;
  }

  BiosImageQueryRecord Record = {};
};

struct MapRow {
  const char *Case;
  UINT16 Block;
  UINT32 Length;
  BOOLEAN SkipIbb4;
  EFI_STATUS Status;
  Ranges Expected;
};

TEST_F(BlockWrite, MapsBlocksOntoUpdateRegionsByTheirUnitRules) {
  StartWithImage();
  UseTestRegions();
  mUpdateRegionTable[RegionObb].Source = 0x1234000;
  const MapRow Rows[] = {
      {"8 KiB units once past region 0's start", 0x20, 0x1000, FALSE, EFI_SUCCESS, {{0x100000, 0, 0x2000}}},
      {"4 KiB units before region 0's start", 0x10, 0x1000, FALSE, EFI_SUCCESS, {{0x200000, 0, 0x1000}}},
      {"a last 4 KiB taken along", 0x12, 0x1000, FALSE, EFI_SUCCESS, {{0x202000, 0, 0x2000}}},
      {"IBB4 not written, still reported", 0x30, 0x1000, TRUE, EFI_SUCCESS, {{0x300000, 0, 0}}},
      {"OBB counts 4 KiB units; its 4 KiB tail goes along", 0x10, 0x10000, FALSE, EFI_SUCCESS,
       {{0x400000, 0x1234000, 0x11000}}},
      {"a block across two regions", 0x11, 0x10000, FALSE, EFI_SUCCESS,
       {{0x410000, 0x1244000, 0x1000}, {0x500000, 0, 0x4000}}},
      {"outside every region", 0x200, 0x1000, FALSE, EFI_NOT_FOUND, {}},
  };
  for (const MapRow &Row : Rows) {
    mSkipIbb4Write = Row.SkipIbb4;
    WriteRangeList List = {};
    EXPECT_EQ(MapBlockToUpdateRegions(Row.Block, Row.Length, List), Row.Status) << Row.Case;
    EXPECT_EQ(ToVector(List), Row.Expected) << Row.Case;
  }
}

TEST_F(BlockWrite, PartialUpdatesWriteOnlyFromTheirFirstRegion) {
  StartWithImage();
  UseTestRegions();
  BOOLEAN *Partial[] = {&mResumeUpdate, &mResumeUpdateB, &mRecoveryBootUpdate};
  mFirstUpdateRegion = RegionObb;
  for (UINT16 Index = 0; Index < 3; Index++) {
    *Partial[Index] = TRUE;
    Platform->ClearCalls();
    EXPECT_EQ(Write(0x27, 0), EFI_SUCCESS);
    EXPECT_TRUE(FlashWrites().empty()) << "before OBB's first block";
    EXPECT_EQ(Write(0x100 + Index, 0), EFI_SUCCESS);
    EXPECT_EQ(FlashWrites(), (Writes{{0xFF400000 + Index * 0x1000u, 0x1000}}));
    *Partial[Index] = FALSE;
  }
  mResumeUpdate = TRUE;
  mFlashInfo.BlockSize = 0x10000;  // the gate counts in flash blocks: OBB starts at block 0x10
  Platform->ClearCalls();
  EXPECT_EQ(Write(0x27, 0), EFI_SUCCESS);
  EXPECT_EQ(FlashWrites(), (Writes{{0xFF10E000, 0x2000}}));
}

struct LowerRow {
  const char *Case;
  UINT64 Offset;
  BOOLEAN Writable;
  Writes Expected;
};

TEST_F(BlockWrite, WritesTheLowerFlashPartOnlyWhenAllowed) {
  UseLayout({0x0, 0x100000, 0x01000000, 0x20000});
  StartWithImage();
  Record.BlockSize = 0x10000;
  const LowerRow Rows[] = {
      {"wholly below, not writable", 0x80000, FALSE, {}},
      {"wholly below: written directly and again as a piece", 0x80000, TRUE,
       {{0xFEF80000, 0x10000}, {0xFEF80000, 0x10000}}},
      {"straddling: lower part, then the rest", 0xF8000, TRUE, {{0xFEFF8000, 0x8000}, {0xFF000000, 0x8000}}},
      {"straddling, not writable: whole extent", 0xF8000, FALSE, {{0xFEFF8000, 0x10000}}},
      {"at the boundary: an empty lower write, then the block", 0x100000, TRUE, {{0xFF000000, 0x10000}}},
  };
  for (const LowerRow &Row : Rows) {
    mLowerFlashWritable = Row.Writable;
    Platform->ClearCalls();
    Platform->Flash.Load(static_cast<UINT32>(Row.Offset), Platform->Flash.Bytes() + 0x400000, 0x10000);
    EXPECT_EQ(Write(1, Row.Offset), EFI_SUCCESS) << Row.Case;
    EXPECT_EQ(FlashWrites(), Row.Expected) << Row.Case;
  }
}

TEST_F(BlockWrite, BlockZeroRestoresTheStoreUnprotectsAMovedBackupAndSignalsTheStart) {
  StartWithImage(false);
  ASSERT_EQ(BackupVariableStore(mVerifiedImage, mVerifiedImageSize), EFI_SUCCESS) << "a backup to restore from";
  Platform->ClearCalls();
  Record.SkipRegionCount = 1;
  Record.SkipRegions[0] = {gConfig.VariableBackupBase + 0x1000000, 0x32};  // as an image offset
  auto Restores = [&] {
    return std::ranges::count(FlashWrites(), Writes::value_type{gConfig.VariableStoreBase, gConfig.VariableStoreSize});
  };

  EXPECT_EQ(Write(0, 0), EFI_SUCCESS);
  EXPECT_EQ(Restores(), 0) << "a normal update keeps the live store";
  EXPECT_NE(HookFind(&gBiosWriteStartHookGuid), nullptr) << "the write-start hook was signalled";

  mUpdateMode = UpdateModeRecovery;
  EXPECT_EQ(Write(0, 0), EFI_SUCCESS);
  EXPECT_EQ(Restores(), 1);
  EXPECT_EQ(static_cast<UINT32>(Record.SkipRegions[0].Pages), 0x32u) << "the image keeps the backup where it is";

  mUpdateMode = UpdateModeHft;
  UINT8 *End = mVerifiedImage + mVerifiedImageSize;
  const char Signature[] = "QFDM";
  for (UINT8 *Found = mVerifiedImage; (Found = std::search(Found, End, Signature, Signature + 4)) != End;) {
    *Found++ = 'X';
  }
  EXPECT_EQ(Write(0, 0), EFI_SUCCESS);
  EXPECT_EQ(Restores(), 2);
  EXPECT_EQ(static_cast<UINT32>(Record.SkipRegions[0].Pages), 0u) << "no flash map: the backup area is written from the image";
  EXPECT_EQ(static_cast<UINT32>(mSavedSkipRegions.Regions[0].Pages), 0u);
}

TEST_F(BlockWrite, RefusesCallsItCannotServeBeforeWritingAnything) {
  StartWithImage();
  UseTestRegions();
  mFlashInfo.BlockSize = 0;
  EXPECT_EQ(Write(0x20, 0), EFI_BAD_BUFFER_SIZE) << "flash blocks below 4 KiB";
  mFlashInfo.BlockSize = 0x1000;

  // A 256 KiB block over OBB and OBB2 (two ranges): nine skip regions inside it fill the
  // eleven ranges, a tenth would need a twelfth.
  mUpdateRegionTable[RegionObb] = {0xFF400000, 0x20000, 0, 0x100, 0x20};
  mUpdateRegionTable[RegionObb2] = {0xFF420000, 0x20000, 0, 0x120, 0x20};
  Record.BlockSize = 0x40000;
  for (UINT32 Index = 0; Index < 10; Index++) {
    Record.SkipRegions[Index] = {0x401000 + Index * 0x2000, 1};
  }
  Record.SkipRegionCount = 10;
  EXPECT_EQ(Write(4, 0), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ(Platform->Flash.Stats().SectorErases + Platform->Flash.Stats().Programs, 0u) << "range list overflow";
  Record.SkipRegionCount = 9;
  EXPECT_EQ(Write(4, 0), EFI_SUCCESS);
  EXPECT_EQ(FlashWrites().size(), 11u);
}

}  // namespace
