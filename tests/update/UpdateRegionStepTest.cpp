// The steps of a region-tracked update as its writes enter each region: what each entry
// writes, the phase of the progress code, pieces that enter no region, the failures that end
// a step, and the EC firmware without a flash-map region.
#include <string>
#include <vector>

#include "../../src/driver/FlashMap.h"
#include "../../src/flash/ImageQuery.h"
#include "../../src/update/RegionActions.h"
#include "../../src/update/UpdateProgress.h"
#include "../../src/update/UpdateRegionStep.h"
#include "../../tools/lib/FlashMapBuilder.h"
#include "../flash/FlashFixture.h"

namespace {

using namespace EmuFlashLayout;
constexpr UINT32 kBlockUnits = 2;  // 8 KiB flash blocks

// Region i starts at image offset 0x100000 + i x 64 KiB, at progress unit 5 + 8i (block 2 + 4i).
UINT32 RegionStart(UINT32 Index) { return 0x100000 + Index * 0x10000; }
UINT16 RegionBlock(UINT32 Index) { return static_cast<UINT16>((5 + 8 * Index) / kBlockUnits); }

class UpdateRegionStepTest : public FlashFixture {
protected:
  void SetUp() override {
    // As on the platform, the map in use is the PEI phase's copy, not the flash copy that
    // IBB1 invalidates.
    const std::vector<uint8_t> Map = DefaultFlashMap().Build();
    Hobs.AddGuidHob(gFlashMapHobGuid, Map.data(), Map.size());
    Start();
    for (UINT32 Index = 0; Index < kUpdateRegionCount; Index++) {
      mUpdateRegionTable[Index].Address = kMappedBase + RegionStart(Index);
      mUpdateRegionTable[Index].StartBlock = 5 + 8 * Index;
    }
    UseImage({});
  }
  void TearDown() override { mVerifiedImage = nullptr; }

  // The accepted image: the flash's image with the given 4 KiB blocks changed.
  void UseImage(std::vector<UINT32> ChangedBlocks) {
    Image = DefaultImage();
    for (UINT32 Address : ChangedBlocks) {
      Image[Address - kMappedBase + 0x800] ^= 0x5A;
    }
    mVerifiedImage = Image.data();
    mVerifiedImageSize = Image.size();
  }
  std::vector<UINT32> ProgressCodes() const {
    std::vector<UINT32> Codes;
    for (UINTN Index = 0; Index < Platform->UpdateLogStore.Count; Index++) {
      if (Platform->UpdateLogStore.Records[Index].Type == kUpdateLogRecordProgressCode) {
        Codes.push_back(*reinterpret_cast<const UINT32 *>(Platform->UpdateLogStore.Records[Index].Data));
      }
    }
    return Codes;
  }
  std::vector<std::pair<UINT64, UINT64>> FlashWrites() const {  // type, address
    std::vector<std::pair<UINT64, UINT64>> Writes;
    for (const EmuCall &Call : CallsNamed("WriteFlash")) {
      Writes.emplace_back(Call.Arguments[0], Call.Arguments[1]);
    }
    return Writes;
  }
  bool FlashHoldsImage(UINT32 Address, UINT32 Length) const {
    return memcmp(Platform->MappedFlash(Address, Length), &Image[Address - kMappedBase], Length) == 0;
  }
  void Clear() {
    Platform->ClearCalls();
    Platform->ClearTraces();
    Platform->UpdateLogStore.ClearRecords();
  }

  std::vector<UINT8> Image;
};

// The debug codes and the primary signature's absence from IBB1 to OBB are the whole-update
// scenario's part; here, what each region entry writes.
TEST_F(UpdateRegionStepTest, EachRegionEntryTakesItsActionsInRegionOrder) {
  UseImage({kEfsAddress, kPspL1DirectoryAddress});  // the backup directory stays equal
  for (UINT32 Index = 0; Index < kUpdateRegionCount; Index++) {
    Clear();
    EXPECT_EQ(UpdateRegionStep(RegionStart(Index), RegionBlock(Index), kBlockUnits), EFI_SUCCESS);
    EXPECT_EQ(ProgressCodes(), std::vector<UINT32>{Index}) << Index;
    std::vector<std::pair<UINT64, UINT64>> Writes;
    if (Index == RegionIbb1) {
      Writes = {{1, kEfsAddress}, {1, kPspL1DirectoryAddress}, {0, Platform->PcdFlashMapAddress}};
      EXPECT_TRUE(FlashHoldsImage(kEfsAddress, kEfsSize));
      EXPECT_EQ(*Platform->MappedFlash(Platform->PcdFlashMapAddress, 1), 0xFF) << "no \"QFDM\" in the copy";
    }
    if (Index == RegionObb) {
      Writes = {{1, kPspL1DirectoryAddress}};
      EXPECT_TRUE(FlashHoldsImage(kPspL1DirectoryAddress, kPspL1DirectorySize));
      ASSERT_EQ(CallsNamed("WriteEc").size(), 1u);
      EXPECT_EQ(memcmp(Platform->EcStore, Platform->MappedFlash(kEcFirmwareAddress, kEcFirmwareSize), kEcFirmwareSize), 0);
    }
    EXPECT_EQ(FlashWrites(), Writes) << Index;
  }
}

TEST_F(UpdateRegionStepTest, PhaseOfTheProgressCodeForTheSamePiece) {
  struct Row {
    std::vector<UINT8> Parameter;  // Q42BiosUpdateParameter; empty: absent
    BOOLEAN Recovery, ResumeB;
    UINT32 Code;
  } Rows[] = {{{2}, FALSE, FALSE, 0xB5}, {{3}, FALSE, FALSE, 0x05},
              {{2, 0}, FALSE, FALSE, 0x05},  // longer than one byte: not read
              {{}, FALSE, TRUE, 0xB5},       {{2}, TRUE, FALSE, 0xC5}};
  for (const Row &R : Rows) {
    Sim.Variables().clear();
    if (!R.Parameter.empty()) {
      Sim.SetVariable(u"Q42BiosUpdateParameter", gPlatformVariableGuid, 7, R.Parameter.data(), R.Parameter.size());
    }
    mRecoveryBootUpdate = R.Recovery;
    mResumeUpdateB = R.ResumeB;
    Clear();
    UpdateRegionStep(RegionStart(RegionIbb2), RegionBlock(RegionIbb2), kBlockUnits);
    EXPECT_EQ(ProgressCodes(), std::vector<UINT32>{R.Code}) << R.Code;
  }
}

TEST_F(UpdateRegionStepTest, OnlyThePieceWithTheRegionsAddressAndBlockEntersIt) {
  struct Row {
    const char *Name;
    UINT32 Start, Block, Units, LowerFlashSize;
    std::vector<UINT32> Codes;
  } Rows[] = {
      {"unit 5 in 8 KiB blocks is block 2", RegionStart(0), 2, 2, 0, {0x00}},
      {"the lower flash part moves the address", RegionStart(0) + 0x40000, 2, 2, 0x40000, {0x00}},
      {"IBB1's address, the next block", RegionStart(4), RegionBlock(4) + 1u, 2, 0, {}},
      {"IBB1's block, 4 KiB further", RegionStart(4) + 0x1000, RegionBlock(4), 2, 0, {}},
      {"blocks below 4 KiB", RegionStart(0), 5, 0, 0, {}},
  };
  for (const Row &R : Rows) {
    mFlashInfo.LowerFlashSize = R.LowerFlashSize;
    Clear();
    EXPECT_EQ(UpdateRegionStep(R.Start, static_cast<UINT16>(R.Block), R.Units), EFI_SUCCESS) << R.Name;
    EXPECT_EQ(ProgressCodes(), R.Codes) << R.Name;
  }
}

TEST_F(UpdateRegionStepTest, FailedCopiesEndTheStepAndAFailedEcUpdateDoesNot) {
  struct Row {
    const char *Name;
    UINT32 Region, Changed, EcImageSize;
    std::string Trace;
    bool Recorded;
  } Rows[] = {
      {"backup directory", RegionIbb1, kPspL1BackupDirectoryAddress, kEcFirmwareSize, "  Update Backup PSPL1 fail!!", false},
      {"embedded firmware structure", RegionIbb1, kEfsAddress, kEcFirmwareSize, "  Update RomSig fail!!", false},
      {"primary directory", RegionObb, kPspL1DirectoryAddress, kEcFirmwareSize, "  Update PSPL1 fail!!", false},
      {"EC image larger than its region", RegionObb, 0, kEcFirmwareSize + 1, "  UpdateEc fail!!", true},
  };
  EnableTraces(true);
  for (const Row &R : Rows) {
    UseImage(R.Changed != 0 ? std::vector<UINT32>{R.Changed} : std::vector<UINT32>{});
    Platform->Config->EcImageSize = R.EcImageSize;
    Platform->Flash.FailOperation(1);
    Clear();
    const EFI_STATUS Status = UpdateRegionStep(RegionStart(R.Region), RegionBlock(R.Region), kBlockUnits);
    Platform->Flash.ClearFaults();
    EXPECT_EQ(Status == EFI_SUCCESS, R.Recorded) << R.Name;
    EXPECT_EQ(Traces(), std::vector<std::string>{R.Trace}) << R.Name;
    EXPECT_EQ(ProgressCodes().size(), R.Recorded ? 1u : 0u) << R.Name;
    EXPECT_FALSE(IsPspDirectoryInvalidated()) << R.Name;
  }
}

// The EC image is taken from its flash-map region (see the OBB entry above); without one,
// only an empty image passes, with the offset the platform gives.
TEST_F(UpdateRegionStepTest, WithoutAnEcRegionOnlyAnEmptyEcImageIsWritten) {
  const std::vector<uint8_t> MapWithoutEc = FlashMapBuilder(kMappedBase)
      .Add({gVariableStoreBackupAreaGuid, gVariableStoreBackupAreaGuid, 0x17C000, 0x32000, 0}).Build();
  UseFlashMapForTest(MapWithoutEc.data(), MapWithoutEc.size());
  Platform->Config->EcImageOffset = 0x10;
  Platform->Config->EcImageSize = 1;
  Clear();
  EXPECT_EQ(UpdateEc(), EFI_BAD_BUFFER_SIZE);
  Platform->Config->EcImageSize = 0;
  EXPECT_EQ(UpdateEc(), EFI_SUCCESS);
  const std::vector<EmuCall> Calls = CallsNamed("WriteEc");
  ASSERT_EQ(Calls.size(), 1u);
  EXPECT_EQ(std::vector<UINT64>(Calls[0].Arguments, Calls[0].Arguments + 3), (std::vector<UINT64>{0, 0, 0x10}))
      << "buffer, length, offset";
}

}  // namespace
