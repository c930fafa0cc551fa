// The variable store: both header forms, the record bound, the backup of the preserved
// variables and their restore, and where an image puts the backup area.
#include "../../src/flash/VariableStore.h"

#include "../../src/driver/Config.h"
#include "../../tools/lib/DefaultImageLayout.h"
#include "../../tools/lib/FlashMapBuilder.h"
#include "../../tools/lib/VariableStoreBuilder.h"
#include "FlashFixture.h"

namespace {

using namespace DefaultImageLayout;

std::vector<uint8_t> StoreHeaderBytes(bool Vss, uint8_t Format, uint8_t State, const EFI_GUID &Kind) {
  if (Vss) {
    VariableStoreHeaderVss Header = {kVariableStoreSignature, 0x2FFB8, Format, State, {}};
    return std::vector<uint8_t>(reinterpret_cast<uint8_t *>(&Header), reinterpret_cast<uint8_t *>(&Header + 1));
  }
  VariableStoreHeaderGuid Header = {Kind, 0x2FFB8, Format, State, {}};
  return std::vector<uint8_t>(reinterpret_cast<uint8_t *>(&Header), reinterpret_cast<uint8_t *>(&Header + 1));
}

std::vector<uint8_t> Erased(size_t Length, size_t Dirty = SIZE_MAX) {
  std::vector<uint8_t> Bytes(Length, 0xFF);
  if (Dirty < Length) {
    Bytes[Dirty] = 0x00;
  }
  return Bytes;
}

TEST(VariableStoreHeader, StatusOfBothFormsAndTheirErasedShapes) {
  const EFI_GUID Other = gPlatformVariableGuid;
  struct {
    const char *Name;
    bool Vss;
    std::vector<uint8_t> Header;
    UINT32 Expected;
  } Cases[] = {
      {"$VSS formatted healthy", true, StoreHeaderBytes(true, 0x5A, 0xFE, Other), VariableStoreValid},
      {"$VSS formatted, state erased", true, StoreHeaderBytes(true, 0x5A, 0xFF, Other), VariableStoreInvalid},
      {"$VSS not formatted", true, StoreHeaderBytes(true, 0xFF, 0xFE, Other), VariableStoreInvalid},
      {"$VSS form erased", true, Erased(16), VariableStoreRaw},
      {"$VSS form erased but the state", true, Erased(16, 9), VariableStoreInvalid},
      {"GUID form, authenticated kind", false, StoreHeaderBytes(false, 0x5A, 0xFE, gEfiAuthenticatedVariableGuid),
       VariableStoreValid},
      {"GUID form, unknown kind", false, StoreHeaderBytes(false, 0x5A, 0xFE, Other), VariableStoreInvalid},
      {"GUID form, state erased", false, StoreHeaderBytes(false, 0x5A, 0xFF, gEfiVariableGuid),
       VariableStoreInvalid},
      {"GUID form erased", false, Erased(28), VariableStoreRaw},
      {"GUID form erased but the GUID's last word", false, Erased(28, 15), VariableStoreInvalid},
  };
  for (const auto &Case : Cases) {
    gConfig.VssSignatureFormat = Case.Vss;
    EXPECT_EQ(GetVariableStoreStatus(Case.Header.data()), Case.Expected) << Case.Name;
  }
  ResetConfigForTest();
}

TEST(VariableRecordWalk, BoundCountsTheStoreHeaderAndTheWalkStaysInsideItsStore) {
  struct {
    const char *Name;
    bool Vss;
    UINT32 NameSize, DataSize;
    size_t StoreSize;  // bytes from the record to the store end
    bool Bounded, InStore;
  } Cases[] = {
      {"$VSS form at the bound", true, 0x10, 0x10FE0, 0x20000, true, true},
      {"$VSS form one byte over", true, 0x10, 0x10FE1, 0x20000, false, false},
      {"GUID form at its bound", false, 0x10, 0x10FD4, 0x20000, true, true},
      {"sizes that wrap 32 bits", true, 0xFFFFFFFF, 0x20, 0x20000, false, false},
      {"data ends at the store end", true, 0x10, 0x20, 60 + 0x30, true, true},
      {"data crosses the store end", true, 0x10, 0x21, 60 + 0x30, true, false},
  };
  for (const auto &Case : Cases) {
    gConfig.VssSignatureFormat = Case.Vss;
    std::vector<uint8_t> Store(0x20000, 0xFF);
    AuthenticatedVariableHeader Header = {};
    Header.StartId = 0x55AA;
    Header.NameSize = Case.NameSize;
    Header.DataSize = Case.DataSize;
    std::memcpy(Store.data(), &Header, sizeof(Header));
    const UINT8 *Record = Store.data();
    EXPECT_EQ(IsVariableRecordBounded(Record), Case.Bounded) << Case.Name;
    EXPECT_EQ(GetNextVariable(Record), Case.Bounded ? Record + 60 + Case.NameSize + Case.DataSize : nullptr)
        << Case.Name;
    EXPECT_EQ(IsVariableRecordInStore(Record, Record + Case.StoreSize), Case.InStore) << Case.Name;
  }
  ResetConfigForTest();
}

class VariableStoreBackup : public FlashFixture {
public:
  EmuPlatform &Emu() { return *Platform; }
  UINT8 *FlashAt(UINT32 Address) { return Platform->Flash.Bytes() + (Address - Platform->FlashBaseAddress); }
  std::span<const uint8_t> Area(UINT32 Address, UINT32 Size) { return {FlashAt(Address), Size}; }
  ParsedStore Parse(UINT32 Address, UINT32 Size) {
    return ParseVariableStore(Area(Address, Size), gConfig.VssSignatureFormat ? StoreHeaderForm::Vss
                                                                              : StoreHeaderForm::Guid);
  }
  void Put(UINT32 Address, const std::vector<uint8_t> &Bytes) { std::memcpy(FlashAt(Address), Bytes.data(), Bytes.size()); }

  // Names of the records that must survive, in store order, with their states.
  static std::vector<std::string> Listing(const ParsedStore &Store) {
    std::vector<std::string> Names;
    for (const ParsedVariable &Variable : Store.Variables) {
      Names.push_back(VariableNameText(Variable.Record.Name) + (Variable.Record.State == 0x3E ? "~" : ""));
    }
    return Names;
  }
  const std::vector<std::string> kSelected = {"PK", "KEK", "db", "dbx", "CurrentPolicy", "OemHardwareConfig",
                                              "BluetoothPairingInfo~", "BluetoothPairingInfo",
                                              "Q42VtHasBeenEnable", "VsmLocalKey2"};
};

struct BackupRefusal {
  const char *Name;
  bool ResumeHob, RegionTracked;
  void (*Bend)(VariableStoreBackup &Test);
  EFI_STATUS Expected;
  size_t Writes;
};

class VariableStoreBackupRefusal : public VariableStoreBackup, public ::testing::WithParamInterface<BackupRefusal> {};

TEST_P(VariableStoreBackupRefusal, CarriesItsStatusAndWritesNothing) {
  const BackupRefusal &Case = GetParam();
  Platform->Config->Flags = Case.RegionTracked ? kPlatformConfigAlternativeFlag : 0;
  if (Case.ResumeHob) {
    Hobs.AddGuidHob(gUpdateResumeHobGuid, nullptr, 0);
  }
  Start();
  if (Case.Bend != nullptr) {
    Case.Bend(*this);
  }
  const auto Backup = Area(kVariableBackupAddress, kVariableBackupSize);
  const std::vector<uint8_t> Before(Backup.begin(), Backup.end());
  EXPECT_EQ(BackupVariableStore(DefaultImage().data(), DefaultImage().size()), Case.Expected);
  EXPECT_EQ(CallsNamed("WriteFlash").size(), Case.Writes);
  if (Case.Writes == 0) {
    EXPECT_TRUE(std::ranges::equal(Backup, Before));
  }
}

using BackupTest = VariableStoreBackup;
INSTANTIATE_TEST_SUITE_P(
    Cases, VariableStoreBackupRefusal,
    ::testing::Values(
        BackupRefusal{"ResumedRegionTrackedUpdate", true, true, nullptr, EFI_ALREADY_STARTED, 0},
        BackupRefusal{"ResumeHobAloneDoesNotStopIt", true, false, nullptr, EFI_SUCCESS, 1},
        BackupRefusal{"ErasedStoreInAnIntactBackupVolume", false, false,
                      [](BackupTest &T) { T.Put(kVariableBackupAddress, ErasedStoreVolume(0x32000)); }, EFI_ALREADY_STARTED,
                      0},
        BackupRefusal{"ImageMapsTheBackupElsewhere", false, false,
                      [](BackupTest &) { gConfig.VariableBackupBase += 0x1000; }, EFI_NO_MAPPING, 0},
        BackupRefusal{"LiveStoreHeaderInvalid", false, false,
                      [](BackupTest &T) { T.FlashAt(kVariableStoreAddress + 0x48 + 9)[0] = 0xFF; }, EFI_NOT_FOUND, 0},
        BackupRefusal{"SelectionLargerThanTheBackupArea", false, false,
                      [](BackupTest &) { gConfig.VariableBackupSize = 0x2000; }, EFI_OUT_OF_RESOURCES, 0},
        BackupRefusal{"WriteFails", false, false, [](BackupTest &T) { T.Emu().Flash.FailOperation(1); },
                      EFI_ACCESS_DENIED, 1}),
    [](const auto &Info) { return std::string(Info.param.Name); });

class VariableStoreBothForms : public VariableStoreBackup, public ::testing::WithParamInterface<bool> {};

// Restore needs both volumes and writes nothing without them.
TEST_P(VariableStoreBothForms, BackupHoldsExactlyTheSelectionAndRestorePutsItBehindTheLiveHeaders) {
  DefaultImageOptions Options;
  Options.VssStoreHeader = GetParam();
  const std::vector<uint8_t> Image = BuildDefaultImage(Options).Bytes();
  ASSERT_TRUE(LoadImage(*Platform, Image));
  gConfig.VssSignatureFormat = GetParam();
  Start();
  EXPECT_EQ(RestoreVariableStore(), EFI_NOT_FOUND) << "erased backup area";
  ASSERT_EQ(BackupVariableStore(Image.data(), Image.size()), EFI_SUCCESS);
  const ParsedStore Backup = Parse(kVariableBackupAddress, kVariableBackupSize);

  // The update writes the new image's store, whose own headers stay after the restore.
  VariableStoreBuilder Fresh(kVariableStoreSize, GetParam() ? StoreHeaderForm::Vss : StoreHeaderForm::Guid);
  Fresh.StoreHeader()[GetParam() ? 4 : 16] = 0x42;  // its own size field
  Fresh.Add(PlainVariable(u"Setup", gPlatformSetupLayoutGuid, {1, 2, 3}));
  Put(kVariableStoreAddress, Fresh.Bytes());
  ASSERT_EQ(RestoreVariableStore(), EFI_SUCCESS);
  const ParsedStore Restored = Parse(kVariableStoreAddress, kVariableStoreSize);
  EXPECT_EQ(Listing(Restored), kSelected);
  EXPECT_TRUE(std::equal(Fresh.Bytes().begin(), Fresh.Bytes().begin() + Fresh.HeadersLength(),
                         FlashAt(kVariableStoreAddress)));
  EXPECT_EQ(Restored.Variables.back().Record.Data, Backup.Variables.back().Record.Data);

  FlashAt(kVariableStoreAddress + 0x48)[0] ^= 0xFF;  // the live store's header broken
  Platform->ClearCalls();
  EXPECT_EQ(RestoreVariableStore(), EFI_NOT_FOUND);
  EXPECT_TRUE(CallsNamed("WriteFlash").empty());
}

INSTANTIATE_TEST_SUITE_P(HeaderForms, VariableStoreBothForms, ::testing::Values(true, false),
                         [](const auto &Info) { return Info.param ? "Vss" : "Guid"; });

// With the power-loss remedies a cut at any operation of the backup's write (its seal's too) leaves
// the whole backup or one that does not count and is taken again; a changed byte voids a sealed one.
TEST_F(VariableStoreBackup, WithTheRemediesOnlyASealedBackupCounts) {
  Start();
  gConfig.PowerLossRemedies = TRUE;
  const std::vector<uint8_t> &Image = DefaultImage();
  const auto Backup = [&] { return Area(kVariableBackupAddress, kVariableBackupSize); };
  const std::vector<uint8_t> Erased(Backup().begin(), Backup().end());
  Platform->Flash.ClearFaults();
  ASSERT_EQ(BackupVariableStore(Image.data(), Image.size()), EFI_SUCCESS);
  const UINT64 Operations = Platform->Flash.OperationsCounted();
  const std::vector<uint8_t> Sealed(Backup().begin(), Backup().end());
  EXPECT_EQ(IsBackupStoreValid(), EFI_SUCCESS);
  for (UINT64 Cut = 1; Cut <= Operations; Cut++) {
    Put(kVariableBackupAddress, Erased);
    Platform->Flash.CutPowerAtOperation(Cut);
    BackupVariableStore(Image.data(), Image.size());
    Platform->Flash.RestorePower();
    // A cut in the seal's sector after the seal's own page leaves a whole backup.
    const bool Counts = IsBackupStoreValid() == EFI_SUCCESS;
    EXPECT_TRUE(!Counts || std::ranges::equal(Backup(), Sealed)) << "cut at operation " << Cut;
    EXPECT_EQ(BackupVariableStore(Image.data(), Image.size()), Counts ? EFI_ALREADY_STARTED : EFI_SUCCESS)
        << "cut at operation " << Cut;
    EXPECT_TRUE(std::ranges::equal(Backup(), Sealed)) << "cut at operation " << Cut;
  }
  FlashAt(kVariableBackupAddress + 0x1000)[0] ^= 1;
  EXPECT_EQ(IsBackupStoreValid(), EFI_NOT_FOUND);
}



struct MapRecord {
  size_t At;
  UINT32 First, Last, Stride;
  std::vector<std::pair<EFI_GUID, UINT64>> Entries;  // placed from First, Stride apart
};

// Exactly sized (capacity too), so that a read past the image is caught.
std::vector<uint8_t> MappingImage(size_t Size, const std::vector<MapRecord> &Records) {
  std::vector<uint8_t> Image(Size, 0xFF);
  for (const MapRecord &Record : Records) {
    const UINT32 Header[4] = {kFlashMapSignature, Record.Last, Record.First, Record.Stride};
    std::memcpy(Image.data() + Record.At, Header, std::min<size_t>(sizeof(Header), Size - Record.At));
    for (size_t Index = 0; Index < Record.Entries.size(); Index++) {
      uint8_t *Entry = Image.data() + Record.At + Record.First + Index * Record.Stride;
      std::memcpy(Entry, &Record.Entries[Index].first, sizeof(EFI_GUID));
      std::memcpy(Entry + 32, &Record.Entries[Index].second, 8);
    }
  }
  return Image;
}

TEST(BackupAreaMapping, RecordAndEntryChoiceAndMalformedRecords) {
  ResetAllDriverState();
  mFlashBase = 0xFF000000;
  const UINT64 Right = 0x17C000, Wrong = 0x180000;
  const EFI_GUID Backup = gVariableStoreBackupAreaGuid, Other = gEcFirmwareRegionGuid;
  auto Plain = [&](size_t At, UINT64 Offset) { return MapRecord{At, 28, 80, 52, {{Other, Right}, {Backup, Offset}}}; };
  struct {
    const char *Name;
    std::vector<uint8_t> Image;
    EFI_STATUS Expected;
  } Cases[] = {
      {"lower record wins", MappingImage(0x4000, {Plain(0x1000, Right), Plain(0x2000, Wrong)}), EFI_SUCCESS},
      {"later entry wins", MappingImage(0x4000, {{0x1000, 28, 80, 52, {{Backup, Right}, {Backup, Wrong}}}}),
       EFI_NO_MAPPING},
      {"no backup entry", MappingImage(0x4000, {{0x1000, 28, 80, 52, {{Other, Right}}}}), EFI_NOT_FOUND},
      {"stride 0", MappingImage(0x4000, {{0x1000, 28, 80, 0, {{Backup, Right}}}}), EFI_NOT_FOUND},
      {"record off the probed steps", MappingImage(0x4000, {Plain(0x1800, Right)}), EFI_NOT_FOUND},
      {"probes count from the end", MappingImage(0x4010, {Plain(0x1010, Right)}), EFI_SUCCESS},
  };
  for (const auto &Case : Cases) {
    EXPECT_EQ(CheckBackupAreaMapping(Case.Image.data(), Case.Image.size()), Case.Expected) << Case.Name;
  }
}

}  // namespace
