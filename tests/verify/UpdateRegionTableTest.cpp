// The update region table built from an accepted image: every field from the emulated
// layout (with and without EC and lower parts), the layout error, the resume HOB handed over
// from the update log of an earlier boot, the five progress-range texts through both
// geometries and their failures, and the PSP region comparison with its masked entries.
#include <cstring>
#include <string>
#include <vector>

#include "../../src/verify/UpdateRegionTable.h"
#include "../../tools/lib/PspImageBuilder.h"
#include "../flash/FlashFixture.h"

namespace {

class UpdateRegions : public FlashFixture {
protected:
  // Starts the driver and queries through the first table (4 KiB blocks) or the second (the
  // platform's 64 KiB blocks), so that mFlashInfo holds that geometry.
  void StartAndQuery(bool PlatformBlocks = false) {
    Start();
    BiosImageQueryRecord Record;
    ASSERT_EQ(Query(PlatformBlocks ? mBiosImageInterface2 : mBiosImageInterface, Record), EFI_SUCCESS);
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
  size_t LogFailureTraces() const {
    size_t Count = 0;
    for (const std::string &Line : Traces()) {
      Count += Line == "    Error : Record log failure." ? 1 : 0;
    }
    return Count;
  }

  std::vector<uint8_t> Image = DefaultImage();
};

// ---- The table ------------------------------------------------------------------------------

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
      EXPECT_EQ(R.Address, E.Address) << Index;
      EXPECT_EQ(R.Size, E.Size) << Index;
      EXPECT_EQ(R.Source, reinterpret_cast<UINT64>(Image.data()) + MappedPart + E.SourceOffset) << Index;
      EXPECT_EQ(R.StartBlock, MappedPart / 4096 + E.StartBlock) << Index;
      EXPECT_EQ(R.Pages, E.Pages) << Index;
    }
    for (UINTN Index : {4, 5, 7, 8, 9, 10}) {
      EXPECT_EQ(mUpdateRegionTable[Index].Address, kUpdateRegionDefaults[Index].Address) << Index;
      EXPECT_EQ(mUpdateRegionTable[Index].Size, kUpdateRegionDefaults[Index].Size) << Index;
    }
    EXPECT_TRUE(mSkipIbb4Write) << "the flash holds the same PSP region";
    EXPECT_EQ(ProgressTexts().size(), 5u);
  }
}

TEST_F(UpdateRegions, LayoutErrorIsReturnedBeforeAnythingIsTouched) {
  const UINT8 Resume = 0xB3;
  Hobs.AddGuidHob(gUpdateResumeHobGuid, &Resume, 1);
  StartAndQuery();
  EXPECT_EQ(BuildUpdateRegionTable(Image.data(), 0xF00000), EFI_BAD_BUFFER_SIZE) << "too short for OBB3";
  EXPECT_EQ(std::memcmp(mUpdateRegionTable.data(), kUpdateRegionDefaults.data(), sizeof(mUpdateRegionTable)), 0);
  EXPECT_FALSE(mSkipIbb4Write);
  EXPECT_FALSE(mResumeUpdateB);
  EXPECT_EQ(Platform->UpdateLogStore.Count, 0u);

  UINT64 Out[12];
  std::memset(Out, 0xA5, sizeof(Out));
  EXPECT_EQ(Platform->Config->GetUpdateLayout(Image.data(), 0x4B8000, &Out[0], &Out[1], &Out[2], &Out[3], &Out[4],
                                              &Out[5], &Out[6], &Out[7], &Out[8], &Out[9], &Out[10], &Out[11]),
            EFI_BAD_BUFFER_SIZE)
      << "IBB2R does not fit";
  for (UINT64 Value : Out) {
    EXPECT_EQ(Value, 0xA5A5A5A5A5A5A5A5ull) << "no output written";
  }
}

// ---- Resume information from the log of an earlier boot ----------------------------------

struct ResumeCase {
  UINT32 CodeLogged;
  UINT32 FirstRegion;
  BOOLEAN Resume, ResumeB;
};
class UpdateRegionsResume : public UpdateRegions, public ::testing::WithParamInterface<ResumeCase> {};

TEST_P(UpdateRegionsResume, TheKeptProgressCodeChoosesRegionAndPhase) {
  const ResumeCase &Case = GetParam();
  Platform->UpdateLog->WriteRecord(Platform->UpdateLog, EmuUpdateLog::kTypeProgressCode, 4, &Case.CodeLogged);
  Sim.SimulateReboot();
  UINT8 Byte = 0;
  if (Platform->UpdateLogStore.ResumeHobByte(Byte)) {
    Hobs.AddGuidHob(gUpdateResumeHobGuid, &Byte, 1);
  }
  StartAndQuery();
  ASSERT_EQ(Build(), EFI_SUCCESS);
  EXPECT_EQ(mFirstUpdateRegion, Case.FirstRegion);
  EXPECT_EQ(mResumeUpdate, Case.Resume);
  EXPECT_EQ(mResumeUpdateB, Case.ResumeB);
}

INSTANTIATE_TEST_SUITE_P(Codes, UpdateRegionsResume,
                         ::testing::Values(ResumeCase{0xB3, 3, FALSE, TRUE}, ResumeCase{0x0C, 8, TRUE, FALSE},
                                           ResumeCase{0xC5, 5, TRUE, FALSE}, ResumeCase{0x0F, 8, TRUE, FALSE},
                                           ResumeCase{0xB9, 8, FALSE, TRUE}, ResumeCase{0xFE, 0, FALSE, FALSE}));

// ---- Progress ranges ------------------------------------------------------------------------

TEST_F(UpdateRegions, ProgressRangesInGroupOrderThroughBothGeometries) {
  const std::vector<std::string> Small = {
      "IBBR(TopSwap):Percentage(0%-4%)/Block(1-189)", "PSPR(TopSwap):Percentage(4%-17%)/Block(189-701)",
      "IBB:Percentage(17%-21%)/Block(701-889)", "PSP:Percentage(21%-34%)/Block(889-1401)",
      "OBB:Percentage(34%-100%)/Block(1401-4096)"};
  const std::vector<std::string> Large = {
      "IBBR(TopSwap):Percentage(0%-4%)/Block(1-12)", "PSPR(TopSwap):Percentage(4%-17%)/Block(12-44)",
      "IBB:Percentage(17%-21%)/Block(44-56)", "PSP:Percentage(21%-34%)/Block(56-88)",
      "OBB:Percentage(34%-100%)/Block(88-256)"};
  StartAndQuery();
  ASSERT_EQ(Build(), EFI_SUCCESS);
  EXPECT_EQ(ProgressTexts(), Small);
  Platform->UpdateLogStore.ClearRecords();
  BiosImageQueryRecord Record;
  ASSERT_EQ(Query(mBiosImageInterface2, Record), EFI_SUCCESS);
  ASSERT_EQ(Build(), EFI_SUCCESS);
  EXPECT_EQ(ProgressTexts(), Large);
}

struct LogFailureCase {
  const char *Name;
  UINT32 BlockSize;  // 0: as queried
  INT32 BlockCount;  // -1: as queried
  EFI_STATUS LogAnswer;
  bool LogInstalled;
  EFI_STATUS Expected;
};
class UpdateRegionsLogFailure : public UpdateRegions, public ::testing::WithParamInterface<LogFailureCase> {};

TEST_P(UpdateRegionsLogFailure, EachRecordFailsAloneAndIsTracedWhileTheTableStands) {
  const LogFailureCase &Case = GetParam();
  Install.UpdateLog = Case.LogInstalled;
  EnableTraces(true);
  StartAndQuery();
  mFlashInfo.BlockSize = Case.BlockSize != 0 ? Case.BlockSize : mFlashInfo.BlockSize;
  mFlashInfo.BlockCount = Case.BlockCount >= 0 ? static_cast<UINT16>(Case.BlockCount) : mFlashInfo.BlockCount;
  Platform->UpdateLogStore.Answer = Case.LogAnswer;
  Platform->ClearTraces();

  EXPECT_EQ(Build(), EFI_SUCCESS);
  EXPECT_EQ(mUpdateRegionTable[RegionObb3].StartBlock, 3968u);
  EXPECT_EQ(LogFailureTraces(), 5u);
  EXPECT_EQ(Platform->UpdateLogStore.Count, 0u);
  EXPECT_EQ(WriteProgressRange(RegionIbb1R, RegionIbb1R, reinterpret_cast<const CHAR8 *>("IBBR(TopSwap)")), Case.Expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, UpdateRegionsLogFailure,
    ::testing::Values(LogFailureCase{"BlockBelow4K", 0x800, -1, EFI_SUCCESS, true, EFI_BAD_BUFFER_SIZE},
                      LogFailureCase{"BlockOf2GiB", 0x80000000u, -1, EFI_SUCCESS, true, EFI_BAD_BUFFER_SIZE},
                      LogFailureCase{"NoBlocks", 0, 0, EFI_SUCCESS, true, EFI_BAD_BUFFER_SIZE},
                      LogFailureCase{"LogRefuses", 0, -1, EFI_DEVICE_ERROR, true, EFI_DEVICE_ERROR},
                      LogFailureCase{"NoLog", 0, -1, EFI_SUCCESS, false, EFI_NOT_FOUND}),
    [](const auto &Info) { return std::string(Info.param.Name); });

// ---- The PSP region comparison ----------------------------------------------------------------

using namespace PspImage;
constexpr UINT32 kTree = 0xF80000, kData = kTree + 0x10000;  // the tree's copy-A data follows it
enum ItemAt : UINT32 { kApcb = kData, kBackup0 = kData + 0x2000, kBackup8 = kData + 0x3000, kApob = kData + 0x4000 };

struct CompareCase {
  const char *Name;
  UINT32 Start, Length;  // flash offsets of the region compared
  INT64 Changed;         // flash offset of the byte the image changes (-1: none)
  bool ApobKept;         // the image holds the flash's APOB bytes instead of leaving them erased
  bool Unchanged;
};
class UpdateRegionsPsp : public UpdateRegions, public ::testing::WithParamInterface<CompareCase> {};

TEST_P(UpdateRegionsPsp, OnlyTheVolatileEntriesOfTheInstalledTreeAreIgnored) {
  const CompareCase &Case = GetParam();
  PspTreeOptions Options;
  Options.Items = {{kTypeApcb, 0, 0x2000, 0}, {kTypeApcbBackup, 0, 0x1000, 0}, {kTypeApcbBackup, 8, 0x1000, 0},
                   {kTypeApob, 0, 0x1000, 0x0A200000}};
  const PspTree Tree = BuildPspTree(Options);
  ASSERT_EQ(Tree.Find(kTypeApob)->DataOffset, static_cast<UINT32>(kApob)) << "the items lie where this test says";
  Tree.Builder.PlaceInto(*Platform);
  StartAndQuery();
  const UINT8 *Flash = Platform->Flash.Bytes();
  std::vector<uint8_t> Copy(Flash + Case.Start, Flash + Case.Start + Case.Length);
  if (!Case.ApobKept && kApob >= Case.Start && kApob + 0x1000 <= Case.Start + Case.Length) {
    std::memset(&Copy[kApob - Case.Start], 0xFF, 0x1000);  // as a built image leaves it
  }
  if (Case.Changed >= 0) {
    Copy[Case.Changed - Case.Start] ^= 0x80;
  }
  EXPECT_EQ(IsPspRegionUnchanged(kMappedBase + Case.Start, reinterpret_cast<UINT64>(Copy.data()), Case.Length),
            Case.Unchanged);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, UpdateRegionsPsp,
    ::testing::Values(
        CompareCase{"SameButTheErasedApob", kTree, 0x40000, -1, false, true},
        CompareCase{"ApcbData", kTree, 0x40000, kApcb + 0x1234, false, true},
        CompareCase{"BackupInstanceWord", kTree, 0x40000, kBackup0 + 15, false, true},
        CompareCase{"BackupChecksum", kTree, 0x40000, kBackup0 + 16, false, true},
        CompareCase{"SecondBackupInstance", kTree, 0x40000, kBackup8 + 12, false, true},
        CompareCase{"BackupHeaderOtherByte", kTree, 0x40000, kBackup0 + 17, false, false},
        CompareCase{"BackupBody", kTree, 0x40000, kBackup8 + 0x100, false, false},
        CompareCase{"ApobKeptInImage", kTree, 0x40000, -1, true, false},
        CompareCase{"ApobWrittenInImage", kTree, 0x40000, kApob + 5, false, false},
        CompareCase{"DirectoryByte", kTree, 0x40000, kTree + 20, false, false},
        CompareCase{"ApcbCutByTheRegionEndIsNotMasked", kTree, kApcb + 0x1000 - kTree, kApcb + 0x10, false, false},
        CompareCase{"ApcbStartingBeforeTheRegionIsNotMasked", kApcb + 0x1000, 0x8000, kApcb + 0x1800, false, false},
        CompareCase{"BackupInsideThatRegionStillMasked", kApcb + 0x1000, 0x8000, kBackup0 + 12, false, true}),
    [](const auto &Info) { return std::string(Info.param.Name); });

TEST_F(UpdateRegions, PspComparisonCornersAndTheSkipFlagPerMode) {
  StartAndQuery();
  const UINT64 Ibb4 = 0xFF240000, Source = reinterpret_cast<UINT64>(Image.data()) + 0x240000;
  EXPECT_TRUE(IsPspRegionUnchanged(Ibb4, Source + 1, 0)) << "nothing to compare";
  EXPECT_TRUE(IsPspRegionUnchanged(Ibb4, Ibb4, 0x80000)) << "the flash itself";
  EXPECT_FALSE(IsPspRegionUnchanged(0x1000, Source, 0x1000)) << "not in the mapped flash";
  for (unsigned Failing : {1u, 2u}) {
    Sim.FailAllocationAfter(Failing);
    EXPECT_FALSE(IsPspRegionUnchanged(Ibb4, Source, 0x80000)) << "allocation " << Failing << " fails";
  }
  EXPECT_TRUE(IsPspRegionUnchanged(Ibb4, Source, 0x80000));

  struct {
    UINT32 Mode;
    bool ImageChanged, Before, After;
  } const Rows[] = {{UpdateModeNormal, false, false, true}, {UpdateModeRecovery, false, false, false},
                    {UpdateModeHft, false, false, false},   {UpdateModeNormal, true, false, false},
                    {UpdateModeNormal, true, true, true}};
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
