// BiosQueryImage: the reference scenario through both tables byte for byte, each gate, the
// boot-block marker, the update modes with their skip regions, the calls that follow a query.
#include <string>
#include <vector>

#include "../../src/base/PiFirmwareVolume.h"
#include "../../src/driver/Config.h"
#include "FlashFixture.h"

namespace {

using EmuFlashLayout::kBiosIdAreaAddress;
using EmuFlashLayout::kBootBlockFvAddress;
using Regions = std::vector<std::pair<UINT32, UINT32>>;

constexpr UINT8 kUnwritten = 0xCC;

std::vector<UINT8> RecordBytes(const BiosImageQueryRecord &Record) {
  const auto *Bytes = reinterpret_cast<const UINT8 *>(&Record);
  return std::vector<UINT8>(Bytes, Bytes + sizeof(Record));
}

void AppendLe(std::vector<UINT8> &Bytes, UINT64 Value, int Width) {
  for (int Index = 0; Index < Width; Index++) {
    Bytes.push_back(static_cast<UINT8>(Value >> (8 * Index)));
  }
}

Regions ReportedRegions(const BiosImageQueryRecord &Record) {
  Regions Found;
  for (UINT8 Index = 0; Index < Record.SkipRegionCount && Index < kMaxSkipRegions; Index++) {
    Found.emplace_back(Record.SkipRegions[Index].Start, Record.SkipRegions[Index].Pages);
  }
  return Found;
}

class ImageQuery : public FlashFixture {
protected:
  // Starts the driver and queries through the first table; every query fills a record with
  // kUnwritten first, so that untouched fields show.
  BiosImageQueryRecord StartAndQuery(EFI_STATUS Expected = EFI_SUCCESS) {
    Start();
    return QueryAgain(mBiosImageInterface, Expected);
  }
  BiosImageQueryRecord QueryAgain(BiosImageInterfaceProtocol *Table, EFI_STATUS Expected = EFI_SUCCESS) {
    BiosImageQueryRecord Record;
    memset(&Record, kUnwritten, sizeof(Record));
    EXPECT_EQ(Query(Table, Record), Expected);
    return Record;
  }
  void PutFlash(UINT64 Address, const void *Data, UINT32 Length) {
    Platform->Flash.Load(static_cast<UINT32>(Address - Platform->FlashBaseAddress), Data, Length);
  }
  void PutHft(UINT8 Value) { Sim.SetVariable(u"HFT", gPlatformVariableGuid, 7, &Value, 1); }
  void SetSkipLists(std::vector<PlatformSkipRange> Normal, std::vector<PlatformSkipRange> Always) {
    Platform->FlashPlatform.SetNormalSkipRegions(Normal.data(), static_cast<UINT8>(Normal.size()));
    Platform->FlashPlatform.SetAlwaysSkipRegions(Always.data(), static_cast<UINT8>(Always.size()));
  }
  static std::vector<PlatformSkipRange> Ranges(UINT32 First, size_t Count, bool Terminated) {
    std::vector<PlatformSkipRange> List;
    for (size_t Index = 0; Index < Count; Index++) {
      List.push_back({First + static_cast<UINT32>(Index) * 0x10000, 0x1000});
    }
    if (Terminated) {
      List.push_back(kSkipListTerminator);
    }
    return List;
  }
  size_t Calls(const char *Name) const { return Platform->CountCalls(Name); }
  const SimVariable *Hca() const { return Sim.FindVariable(u"HCA", gPlatformVariableGuid); }
  const SimVariable *Hft() const { return Sim.FindVariable(u"HFT", gPlatformVariableGuid); }
};


TEST_F(ImageQuery, DefaultImageThroughBothTablesByteForByte) {
  EnableTraces(true);
  BiosImageQueryRecord First = StartAndQuery();

  std::vector<UINT8> Expected = {'Z', 'Q', '4', '2', 'A', kUnwritten, kUnwritten, kUnwritten};
  AppendLe(Expected, 0x1000, 4);  // BlockSize
  AppendLe(Expected, 0x1000, 2);  // BlockCount: 64 KiB x 256 in 4 KiB blocks
  Expected.push_back(0x01);       // DeviceAttribute
  Expected.push_back(3);          // CMOS journal, variable store, variable-store backup
  for (const auto &[Start, Pages] : Regions{{0x0E6000, 0x2}, {0x14A000, 0x30}, {0x17C000, 0x32}}) {
    AppendLe(Expected, Start, 4);
    AppendLe(Expected, Pages, 4);
  }
  Expected.resize(sizeof(BiosImageQueryRecord), 0);
  EXPECT_EQ(RecordBytes(First), Expected);

  ASSERT_NE(Hca(), nullptr);
  EXPECT_EQ(Hca()->Attributes, 7u);
  EXPECT_EQ(Hca()->Data, std::vector<uint8_t>{2});

  EXPECT_EQ(CallNames(), (std::vector<std::string>{"BootBlockHandleMarker", "SetFlashAccessType", "ReadFlash",
                                                    "GetNormalSkipRegions", "GetAlwaysSkipRegions", "GetFlashInfo",
                                                    "QueryNotify", "IsLowerFlashWritable", "PostQuery"}));
  EXPECT_EQ(CallsNamed("ReadFlash")[0].Arguments[0], 1u) << "the BIOS ID is read with access type 1";
  EXPECT_EQ(Traces(), std::vector<std::string>{"  BiosImageInterfaceProtocol->BiosQueryImage Entry"});

  // The second table reports the platform's own geometry, fetched anew.
  Expected[8] = 0x00, Expected[9] = 0x00, Expected[10] = 0x01, Expected[11] = 0x00;  // BlockSize 0x10000
  Expected[12] = 0x00, Expected[13] = 0x01;                                          // BlockCount 256
  EXPECT_EQ(RecordBytes(QueryAgain(mBiosImageInterface2)), Expected);
}


struct GateCase {
  const char *Name;
  bool AllowedHob, BootBlockHob, AuthorizedHob, BootBlockFeature, HobsRequired;
  EFI_STATUS Expected;
};

class ImageQueryGate : public ImageQuery, public ::testing::WithParamInterface<GateCase> {};

TEST_P(ImageQueryGate, ReturnsItsStatusBeforeTheBiosIdIsRead) {
  const GateCase &Case = GetParam();
  UpdateAllowedHob = Case.AllowedHob;
  BootBlockUpdateHob = Case.BootBlockHob;
  UpdateAuthorizedHob = Case.AuthorizedHob;
  Sim.SetPcd(gPlatformPcdTokenSpaceGuid, kBootBlockUpdateEnabledToken, Case.BootBlockFeature ? 1 : 0);
  gConfig.UpdateHobsRequired = Case.HobsRequired ? TRUE : FALSE;
  StartAndQuery(Case.Expected);
  EXPECT_EQ(Calls("ReadFlash"), Case.Expected == EFI_SUCCESS ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Hobs, ImageQueryGate,
    ::testing::Values(GateCase{"UpdateAllowedHobMissing", false, true, true, true, true, EFI_NOT_FOUND},
                      GateCase{"BootBlockHobMissingWhileTheFeatureIsOn", true, false, true, true, true,
                               EFI_SECURITY_VIOLATION},
                      GateCase{"BootBlockHobPresentWhileTheFeatureIsOff", true, true, true, false, true,
                               EFI_SECURITY_VIOLATION},
                      GateCase{"UpdateAuthorizedHobMissing", true, true, false, true, true, EFI_SECURITY_VIOLATION},
                      GateCase{"NeitherPermissionHobWhenNotRequired", false, true, false, true, false, EFI_SUCCESS},
                      GateCase{"NoBootBlockHobWhileTheFeatureIsOff", true, false, true, false, true, EFI_SUCCESS}),
    [](const auto &Info) { return std::string(Info.param.Name); });


TEST_F(ImageQuery, BootBlockMarkerHandlerRunsOnlyForAnUnmarkedVolume) {
  const EFI_GUID NoFileSystem = {};
  const struct {
    const char *Name;
    std::string HeadBytes;       // written over the volume's first bytes
    const EFI_GUID *FileSystem;  // replaces the file-system GUID when set
    bool ClearSignature;
    size_t HandlerCalls;
  } kRows[] = {
      {"unmarked volume", "", nullptr, false, 1},
      {"before-OK marker", std::string("ZQ BB BFR OK", 13), nullptr, false, 0},
      {"fail marker", std::string("ZQ BB FAIL", 11), nullptr, false, 0},
      {"fail marker followed by another byte", "ZQ BB FAILX", nullptr, false, 1},
      {"FFS3 GUID without the signature", "", &gEfiFirmwareFileSystem3Guid, true, 1},
      {"no volume", "", &NoFileSystem, true, 0},
  };
  Start();
  for (const auto &Row : kRows) {
    ASSERT_TRUE(LoadImage(*Platform, DefaultImage()));
    PutFlash(kBootBlockFvAddress, Row.HeadBytes.data(), static_cast<UINT32>(Row.HeadBytes.size()));
    if (Row.FileSystem != nullptr) {
      PutFlash(kBootBlockFvAddress + offsetof(EFI_FIRMWARE_VOLUME_HEADER, FileSystemGuid), Row.FileSystem,
               sizeof(EFI_GUID));
    }
    if (Row.ClearSignature) {
      const UINT32 None = 0;
      PutFlash(kBootBlockFvAddress + offsetof(EFI_FIRMWARE_VOLUME_HEADER, Signature), &None, sizeof(None));
    }
    Platform->ClearCalls();
    QueryAgain(mBiosImageInterface);
    EXPECT_EQ(Calls("BootBlockHandleMarker"), Row.HandlerCalls) << Row.Name;
  }
}

// Which record wins is the search's own table; here an ID erased where the image put it stops
// the query before the geometry and the HCA variable.
TEST_F(ImageQuery, AnErasedBiosIdStopsTheQuery) {
  const UINT32 Erased = 0xFFFFFFFF;
  PutFlash(kBiosIdAreaAddress + 0xF830, &Erased, sizeof(Erased));
  EXPECT_EQ(StartAndQuery(EFI_NOT_FOUND).BiosId[0], kUnwritten);
  EXPECT_EQ(Calls("GetFlashInfo"), 0u);
  EXPECT_EQ(Hca(), nullptr);
}


// Terminated lists count their terminators: five and five pass with the eight real ranges,
// six and five fail though only nine are real.
TEST_F(ImageQuery, TerminatedListsCountTheirTerminatorsAgainstTheLimitOfTen) {
  SetSkipLists(Ranges(0x100000, 4, true), Ranges(0x800000, 4, true));
  EXPECT_EQ(StartAndQuery().SkipRegionCount, 8u);

  SetSkipLists(Ranges(0x100000, 5, true), Ranges(0x800000, 4, true));
  EnableTraces(true);
  EXPECT_EQ(QueryAgain(mBiosImageInterface, EFI_NOT_FOUND).SkipRegionCount, kUnwritten);
  EXPECT_EQ(Traces().back(), "  SkipProtectRegion is 11, greater than 10.");
}

TEST_F(ImageQuery, LengthsBecomeWholePagesAndEqualStartsFollowTheExchangeSort) {
  SetSkipLists({{0x3000, 0x1000}, {0x5000, 0x3000}, {0x1000, 0x1FFF}}, {{0x5000, 0x2000}});
  // Collected as always-list first: {5000,2} {3000,1} {5000,3} {1000,1}; the exchange sort
  // swaps only on a greater start, which moves the two 0x5000 entries past each other.
  EXPECT_EQ(ReportedRegions(StartAndQuery()), (Regions{{0x1000, 1}, {0x3000, 1}, {0x5000, 3}, {0x5000, 2}}));
  // Alone, two equal starts keep the order they were collected in: the always-list's first.
  SetSkipLists({{0x5000, 0x3000}}, {{0x5000, 0x2000}});
  EXPECT_EQ(ReportedRegions(QueryAgain(mBiosImageInterface)), (Regions{{0x5000, 2}, {0x5000, 3}}));
}

TEST_F(ImageQuery, HftVariableSelectsTheHftModeOnceAndDropsTheNormalList) {
  PutHft(0x5A);
  BiosImageQueryRecord Record = StartAndQuery();
  EXPECT_EQ(mHftValue, 0x5A);
  EXPECT_EQ(Hft(), nullptr) << "consumed";
  EXPECT_EQ(ReportedRegions(Record), (Regions{{0x0E6000, 2}, {0x17C000, 0x32}}));
}

TEST_F(ImageQuery, RecoveryBootDropsTheNormalListAndStartsAtObb) {
  PutHft(1);
  Hobs.Handoff()->BootMode = BOOT_IN_RECOVERY_MODE;
  SetSkipLists(Ranges(0x100000, 9, false), {{0x200000, 0x4000}});
  BiosImageQueryRecord Record = StartAndQuery();
  EXPECT_EQ(mUpdateMode, static_cast<UINT32>(UpdateModeRecovery));
  EXPECT_EQ(ReportedRegions(Record), (Regions{{0x200000, 4}}));
  EXPECT_TRUE(mRecoveryBootUpdate);
  EXPECT_EQ(mFirstUpdateRegion, 8u);
  EXPECT_NE(Hft(), nullptr) << "HFT is not read in a recovery boot";
  EXPECT_EQ(Calls("PostQuery"), 0u) << "no post-query call in a recovery boot";
}

TEST_F(ImageQuery, FullRecoveryHobStartsARecoveryUpdateAtTheFirstRegion) {
  Hobs.Handoff()->BootMode = BOOT_IN_RECOVERY_MODE;
  FullRecoveryHob = true;
  StartAndQuery();
  EXPECT_EQ(mFirstUpdateRegion, 0u);
}

// The capability bits select the notification and the post-query call; with the boot-block
// HOB there, either EC state word defers the EC update.
TEST_F(ImageQuery, CapabilityBitsAndEcStateWordsDecideWhatFollowsAQuery) {
  Platform->FlashPlatform.LowerFlashWritable = 1;
  Start();
  const struct {
    UINT8 Capabilities;
    UINT32 EcImageSize, EcImageOffset;
    size_t Notify, PostQuery;
    bool EcDeferred;
  } kRows[] = {{0x00, 0x20000, 0, 0, 0, true}, {0x01, 0, 0x100, 1, 0, true}, {0x08, 0, 0, 0, 1, false},
               {0x09, 0, 0, 1, 1, false}};
  for (const auto &Row : kRows) {
    Platform->FlashService->FlashCapabilities = Row.Capabilities;
    Platform->Config->EcImageSize = Row.EcImageSize;
    Platform->Config->EcImageOffset = Row.EcImageOffset;
    Platform->ClearCalls();
    QueryAgain(mBiosImageInterface);
    EXPECT_EQ(Calls("QueryNotify"), Row.Notify) << int(Row.Capabilities);
    EXPECT_EQ(Calls("PostQuery"), Row.PostQuery) << int(Row.Capabilities);
    EXPECT_EQ(mEcUpdateDeferred, Row.EcDeferred) << int(Row.Capabilities);
  }
  EXPECT_TRUE(mLowerFlashWritable) << "the lower-flash permission is asked whatever the capabilities";
}

}  // namespace
