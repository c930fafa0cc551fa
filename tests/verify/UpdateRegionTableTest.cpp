// The update region table built from an accepted image: every field, the resume HOB, the
// progress-range texts, and the PSP region comparison with its masked entries.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "../../src/verify/UpdateRegionTable.h"
#include "../../tools/lib/PspImageBuilder.h"
#include "../flash/FlashFixture.h"

namespace {

class UpdateRegions : public FlashFixture {
protected:
  // Progress units count 4 KiB blocks after a query through the first table, 64 KiB ones
  // through the second.
  void StartAndQuery() {
    Start();
    QueryThrough(mBiosImageInterface);
  }
  void QueryThrough(BiosImageInterfaceProtocol *Table) {
    BiosImageQueryRecord Record;
    ASSERT_EQ(Query(Table, Record), EFI_SUCCESS);
    Platform->UpdateLogStore.ClearRecords();
  }
  EFI_STATUS Build() { return BuildUpdateRegionTable(Image.data(), Image.size()); }
  std::vector<std::string> ProgressTexts() const {
    std::vector<std::string> Texts;
    const EmuUpdateLog &Log = Platform->UpdateLogStore;
    for (UINTN Index = 0; Index < Log.Count; Index++) {
      EXPECT_EQ(Log.Records[Index].Type, kUpdateLogRecordProgressRange);
      Texts.emplace_back(reinterpret_cast<const char *>(Log.Records[Index].Data), Log.Records[Index].Length);
    }
    return Texts;
  }

  std::vector<uint8_t> Image = DefaultImage();
};

struct Expected {
  UINT64 Address, Size, SourceOffset, StartBlock, Pages;
};
// The reference layout: sources as offsets into the mapped part, progress units from its start.
constexpr Expected kReferenceTable[kUpdateRegionCount] = {
    {0xFF2C0000, 0x178000, 0x2C0000, 0, 376},     {0xFF4B8000, 0x380000, 0x4B8000, 188, 896},
    {0xFF4B8000, 0, 0x4B8000, 636, 0},            {0xFF438000, 0x80000, 0x438000, 636, 128},
    {0xFFA88000, 0x178000, 0xA88000, 700, 376},   {0xFFC00000, 0x380000, 0xC00000, 888, 896},
    {0xFF000000, 0, 0, 1336, 0},                  {0xFF240000, 0x80000, 0x240000, 1336, 128},
    {0xFF000000, 0x240000, 0, 1400, 576},         {0xFF2C0000, 0x7C8000, 0x2C0000, 1976, 1992},
    {0xFFF80000, 0x80000, 0xF80000, 3968, 128},
};

TEST_F(UpdateRegions, ReferenceLayoutReproducesTheDocumentedTableWithAndWithoutEcAndLowerParts) {
  for (const EmuLayout &Layout : {kDefaultEmuLayout, EmuLayout{0x10000, 0x100000, 0x1000000, 0x20000}}) {
    SCOPED_TRACE(Layout.EcSize);
    if (Layout.EcSize != 0) {
      UseLayout(Layout);
      Image = ImageFor(Layout);
    }
    StartAndQuery();
    ASSERT_EQ(Build(), EFI_SUCCESS);
    const UINT64 MappedPart = Layout.EcSize + Layout.LowerFlashSize;
    for (UINTN Index = 0; Index < kUpdateRegionCount; Index++) {
      const Expected &E = kReferenceTable[Index];
      const UpdateRegion &R = mUpdateRegionTable[Index];
      EXPECT_EQ((std::vector<UINT64>{R.Address, R.Size, R.Source, R.StartBlock, R.Pages}),
                (std::vector<UINT64>{E.Address, E.Size, reinterpret_cast<UINT64>(Image.data()) + MappedPart + E.SourceOffset,
                                     MappedPart / 4096 + E.StartBlock, E.Pages}))
          << Index;
    }
  }
}

TEST_F(UpdateRegions, LayoutErrorIsReturnedBeforeAnythingIsTouched) {
  const UINT8 Resume = 0xB3;
  Hobs.AddGuidHob(gUpdateResumeHobGuid, &Resume, 1);
  StartAndQuery();
  EXPECT_EQ(BuildUpdateRegionTable(Image.data(), 0xF00000), EFI_BAD_BUFFER_SIZE) << "too short for OBB3";
  EXPECT_EQ(std::memcmp(mUpdateRegionTable.data(), kUpdateRegionDefaults.data(), sizeof(mUpdateRegionTable)), 0);
  EXPECT_FALSE(mSkipIbb4Write || mResumeUpdateB);
  EXPECT_EQ(Platform->UpdateLogStore.Count, 0u);
}

struct ResumeCase {
  UINT8 Code;
  UINT32 FirstRegion;
  BOOLEAN Resume, ResumeB;
};
class UpdateRegionsResume : public UpdateRegions, public ::testing::WithParamInterface<ResumeCase> {};

TEST_P(UpdateRegionsResume, TheResumeByteChoosesRegionAndPhase) {
  const ResumeCase &Case = GetParam();
  Hobs.AddGuidHob(gUpdateResumeHobGuid, &Case.Code, 1);
  StartAndQuery();
  ASSERT_EQ(Build(), EFI_SUCCESS);
  EXPECT_EQ(mFirstUpdateRegion, Case.FirstRegion);
  EXPECT_EQ(mResumeUpdate, Case.Resume);
  EXPECT_EQ(mResumeUpdateB, Case.ResumeB);
}

INSTANTIATE_TEST_SUITE_P(Codes, UpdateRegionsResume,
                         ::testing::Values(ResumeCase{0xB3, 3, FALSE, TRUE}, ResumeCase{0x0C, 8, TRUE, FALSE},
                                           ResumeCase{0xC5, 5, TRUE, FALSE}));

TEST_F(UpdateRegions, ProgressRangesThroughBothGeometriesAndTheirFailuresLeaveTheTableBuilt) {
  const std::vector<std::string> Small = {
      "IBBR(TopSwap):Percentage(0%-4%)/Block(1-189)", "PSPR(TopSwap):Percentage(4%-17%)/Block(189-701)",
      "IBB:Percentage(17%-21%)/Block(701-889)", "PSP:Percentage(21%-34%)/Block(889-1401)",
      "OBB:Percentage(34%-100%)/Block(1401-4096)"};
  StartAndQuery();
  ASSERT_EQ(Build(), EFI_SUCCESS);
  EXPECT_EQ(ProgressTexts(), Small);
  QueryThrough(mBiosImageInterface2);
  ASSERT_EQ(Build(), EFI_SUCCESS);
  EXPECT_EQ(ProgressTexts()[1], "PSPR(TopSwap):Percentage(4%-17%)/Block(12-44)") << "in 64 KiB blocks";

  struct {
    UINT32 BlockSize;
    UINT16 BlockCount;
    EFI_STATUS LogAnswer, Expected;
  } const Rows[] = {{0x800, 256, EFI_SUCCESS, EFI_BAD_BUFFER_SIZE},
                    {0x10000, 0, EFI_SUCCESS, EFI_BAD_BUFFER_SIZE},
                    {0x10000, 256, EFI_DEVICE_ERROR, EFI_DEVICE_ERROR}};
  for (const auto &Row : Rows) {
    mFlashInfo.BlockSize = Row.BlockSize, mFlashInfo.BlockCount = Row.BlockCount;
    Platform->UpdateLogStore.Answer = Row.LogAnswer;
    Platform->UpdateLogStore.ClearRecords();
    EXPECT_EQ(Build(), EFI_SUCCESS) << Row.BlockSize;
    EXPECT_EQ(Platform->UpdateLogStore.Count, 0u);
    EXPECT_EQ(WriteProgressRange(0, 0, reinterpret_cast<const CHAR8 *>("IBBR(TopSwap)")), Row.Expected);
  }
}

using namespace PspImage;
constexpr UINT32 kTree = 0xF80000, kData = kTree + 0x10000;  // the tree's copy-A data follows it
enum ItemAt : UINT32 { kApcb = kData, kBackup0 = kData + 0x2000, kBackup8 = kData + 0x3000, kApob = kData + 0x4000 };

TEST_F(UpdateRegions, OnlyTheVolatileEntriesOfTheInstalledTreeAreIgnored) {
  PspTreeOptions Options;
  Options.Items = {{kTypeApcb, 0, 0x2000, 0}, {kTypeApcbBackup, 0, 0x1000, 0}, {kTypeApcbBackup, 8, 0x1000, 0},
                   {kTypeApob, 0, 0x1000, 0x0A200000}};
  const PspTree Tree = BuildPspTree(Options);
  ASSERT_EQ(Tree.Find(kTypeApob)->DataOffset, static_cast<UINT32>(kApob)) << "the items lie where this test says";
  Tree.Builder.PlaceInto(*Platform);
  StartAndQuery();
  struct {
    const char *Name;
    UINT32 Start, Length;  // flash offsets of the region compared
    INT64 Changed;         // flash offset of the byte the image changes (-1: none)
    bool ApobKept;         // the image holds the flash's APOB bytes instead of leaving them erased
    bool Unchanged;
  } const Rows[] = {
      {"SameButTheErasedApob", kTree, 0x40000, -1, false, true},
      {"ApcbData", kTree, 0x40000, kApcb + 0x1234, false, true},
      {"BackupChecksum", kTree, 0x40000, kBackup0 + 16, false, true},
      {"BackupHeaderOtherByte", kTree, 0x40000, kBackup0 + 17, false, false},
      {"ApobKeptInImage", kTree, 0x40000, -1, true, false},
      {"DirectoryByte", kTree, 0x40000, kTree + 20, false, false},
      {"ApcbCutByTheRegionEndIsNotMasked", kTree, kApcb + 0x1000 - kTree, kApcb + 0x10, false, false},
      {"ApcbStartingBeforeTheRegionIsNotMasked", kApcb + 0x1000, 0x8000, kApcb + 0x1800, false, false},
      {"BackupInsideThatRegionStillMasked", kApcb + 0x1000, 0x8000, kBackup0 + 12, false, true}};
  for (const auto &Row : Rows) {
    const UINT8 *Flash = Platform->Flash.Bytes();
    std::vector<uint8_t> Copy(Flash + Row.Start, Flash + Row.Start + Row.Length);
    if (!Row.ApobKept && kApob >= Row.Start && kApob + 0x1000 <= Row.Start + Row.Length) {
      std::memset(&Copy[kApob - Row.Start], 0xFF, 0x1000);  // as a built image leaves it
    }
    if (Row.Changed >= 0) {
      Copy[Row.Changed - Row.Start] ^= 0x80;
    }
    EXPECT_EQ(IsPspRegionUnchanged(kMappedBase + Row.Start, reinterpret_cast<UINT64>(Copy.data()), Row.Length),
              Row.Unchanged)
        << Row.Name;
  }
}

TEST_F(UpdateRegions, PspComparisonCornersAndTheSkipFlagPerMode) {
  StartAndQuery();
  const UINT64 Ibb4 = 0xFF240000, Source = reinterpret_cast<UINT64>(Image.data()) + 0x240000;
  EXPECT_FALSE(IsPspRegionUnchanged(0x1000, Source, 0x1000)) << "not in the mapped flash";
  Sim.FailAllocationAfter(2);
  EXPECT_FALSE(IsPspRegionUnchanged(Ibb4, Source, 0x80000)) << "no memory for the image's copy";
  EXPECT_TRUE(IsPspRegionUnchanged(Ibb4, Source, 0x80000));

  struct {
    UINT32 Mode;
    bool ImageChanged, Before, After;
  } const Rows[] = {{UpdateModeNormal, false, false, true}, {UpdateModeRecovery, false, false, false},
                    {UpdateModeNormal, true, false, false}, {UpdateModeNormal, true, true, true}};
  for (const auto &Row : Rows) {
    std::vector<uint8_t> Changed = Image;
    Changed[0x240000 + 0x7FFFF] ^= Row.ImageChanged ? 0x01 : 0x00;
    mUpdateMode = Row.Mode;
    mSkipIbb4Write = Row.Before;
    ASSERT_EQ(BuildUpdateRegionTable(Changed.data(), Changed.size()), EFI_SUCCESS);
    EXPECT_EQ(mSkipIbb4Write, Row.After) << Row.Mode << Row.ImageChanged << Row.Before;
  }
}

}  // namespace
