// Staging an accepted image on disk: which volumes and folders receive the image and its
// signature, the retries, the tool flavour from SMBIOS, the failures, the mark and the reset.
#include <cstring>
#include <functional>
#include <optional>

#include "../../emu/host/EmuHostMemory.h"
#include "../../sim/SimFileSystem.h"
#include "../../sim/SimSmbios.h"
#include "../../src/base/Guids.h"
#include "../../src/driver/DriverState.h"
#include "../../src/flash/FlashState.h"
#include "../../src/platform/Cmos.h"
#include "../../src/verify/UpdateStaging.h"
#include "../support/PlatformFixture.h"

namespace {

using Bytes = std::vector<uint8_t>;
const std::u16string kZqTool = u"\\BIOSUpdate\\ZqBiosMgmt.efi";
const std::u16string kAltTool = u"\\BIOSUpdate\\BiosMgmt.efi";

EFI_STATUS EFIAPI RecordStagedUpdateNotify() {
  gEmuPlatform->Record("StagedUpdateNotify");
  return EFI_SUCCESS;
}
StagedUpdateNotifyProtocol gNotify = {RecordStagedUpdateNotify};

class UpdateStaging;
struct StagingRow {
  const char *Name;
  std::function<void(UpdateStaging &)> Arrange;
  std::optional<EFI_STATUS> Expected;  // nullopt: staged, the boot ends at the reset port
};
void PrintTo(const StagingRow &Row, std::ostream *Out) { *Out << Row.Name; }

class UpdateStaging : public PlatformFixture, public ::testing::WithParamInterface<StagingRow> {
public:
  using PlatformFixture::Sim;

  void SetUp() override {
    ASSERT_EQ(StartDriver(), EFI_SUCCESS);
    std::memcpy(mBiosId, "ZQ42A", kBiosIdLength);
    // A valid CmosToRom mirror named by its variable: the staged-update mark is written only beside one.
    auto *Mirror = static_cast<UINT8 *>(EmuHostAllocateBelow4G(CmosToRomImage::kSize));
    std::memset(Mirror, 0, CmosToRomImage::kSize);
    const UINT16 Checksum = CmosImageChecksum(Mirror, 1);
    std::memcpy(Mirror + CmosToRomImage::kBank1ChecksumOffset, &Checksum, sizeof(Checksum));
    const auto Address = static_cast<UINT32>(reinterpret_cast<UINTN>(Mirror));
    Sim.SetVariable(u"Q42CmosToRom", gPlatformVariableGuid, EFI_VARIABLE_BOOTSERVICE_ACCESS, &Address, 4);
    Platform->OnReset = [](EmuPlatform *) { throw SimResetRequested{EfiResetCold, EFI_SUCCESS}; };
    Platform->ClearCalls();
  }

  void AddSmbios(UINT64 Characteristics) {
    Smbios = std::make_unique<SimSmbios>(Sim);
    Smbios->AddBiosInformation(Characteristics);
  }
  SimVolume &AddVolume(bool Removable, bool SystemPartition, const std::u16string &Label) {
    Volumes.push_back(std::make_unique<SimVolume>(Sim, SimVolumeOptions{Removable, SystemPartition, Label}));
    return *Volumes.back();
  }
  SimVolume &AddToolsVolume(std::initializer_list<std::u16string> Folders, const std::u16string &Tool = kZqTool) {
    SimVolume &Volume = AddVolume(true, false, u"ZQ_TOOLS");
    for (const std::u16string &Folder : Folders) {
      Volume.AddFile(Folder + Tool, {0x4D, 0x5A});
    }
    return Volume;
  }

  std::optional<EFI_STATUS> Stage() {
    std::optional<EFI_STATUS> Result;
    try {
      Result = StageUpdateFiles(Image.data(), Image.size(), Signature.data(), Signature.size());
    } catch (const SimResetRequested &) {
    }
    for (const auto &Volume : Volumes) {
      EXPECT_EQ(Volume->OpenHandles(), 0u) << "every file handle is closed";
    }
    return Result;
  }

  bool ResetPortWritten() const {
    const EmuPortAccess &Last = Platform->PortLog[Platform->PortLogCount - 1];
    return Platform->ResetCount == 1 && Last.Port == 0xCF9 && Last.Write && Last.Value == 0x0E;
  }

  Bytes Image = Bytes(3000, 0xA5);
  Bytes Signature = Bytes(256, 0x5A);
  std::unique_ptr<SimSmbios> Smbios;
  std::vector<std::unique_ptr<SimVolume>> Volumes;
};

TEST_F(UpdateStaging, ToolsVolumeGetsBothFilesInEachToolFolderThenTheBootEndsAtTheResetPort) {
  AddSmbios(0);
  SimVolume &Tools = AddToolsVolume({u"ZQ", u"QUILLOR-TANDEMS", u"EFI\\ZQ"});
  Tools.AddDirectory(u"EFI\\ZQ\\BIOS\\New");
  Tools.AddFile(u"ZQ\\BIOS\\New\\ZQ42A.bin", Bytes(5000, 0x11));  // stale and longer
  SimVolume &Fixed = AddVolume(false, false, u"DATA");            // no class: written only where BIOS\New is
  Fixed.AddDirectory(u"ZQ\\BIOS\\New");

  EXPECT_EQ(Stage(), std::nullopt);

  EXPECT_EQ(Tools.Files(), (std::map<std::u16string, Bytes>{
                               {u"EFI\\ZQ" + kZqTool, {0x4D, 0x5A}},
                               {u"QUILLOR-TANDEMS\\BIOS\\New\\ZQ42A.bin", Image},
                               {u"QUILLOR-TANDEMS\\BIOS\\New\\ZQ42A.sig", Signature},
                               {u"QUILLOR-TANDEMS" + kZqTool, {0x4D, 0x5A}},
                               {u"ZQ\\BIOS\\New\\ZQ42A.bin", Image},
                               {u"ZQ\\BIOS\\New\\ZQ42A.sig", Signature},
                               {u"ZQ" + kZqTool, {0x4D, 0x5A}},
                           }));
  EXPECT_EQ(Fixed.Files().size(), 2u);
  EXPECT_EQ(Platform->ExtendedCmos[kStagedUpdateCmosIndex], 1);
  EXPECT_TRUE(ResetPortWritten());
  EXPECT_EQ(CallNames(), (std::vector<std::string>{"FlashDeviceWrite", "FlashServiceMember51C"}));
}

TEST_F(UpdateStaging, SystemPartitionGetsFilesInEfiZqOnlyAndThePlatformIsNotified) {
  AddSmbios(0);
  EFI_HANDLE Handle = nullptr;
  Sim.Install(&Handle, gStagedUpdateNotifyProtocolGuid, &gNotify);
  SimVolume &Usb = AddVolume(true, true, u"USB STICK");  // removable, another label, marked
  Usb.AddFile(u"EFI\\ZQ" + kZqTool, {1});
  Usb.AddFile(u"ZQ" + kZqTool, {1});  // not a candidate on this volume

  EXPECT_EQ(Stage(), std::nullopt);

  EXPECT_EQ(Usb.Directories(), (std::vector<std::u16string>{u"EFI", u"EFI\\ZQ", u"EFI\\ZQ\\BIOS", u"EFI\\ZQ\\BIOSUpdate",
                                                            u"EFI\\ZQ\\BIOS\\New", u"ZQ", u"ZQ\\BIOSUpdate"}));
  EXPECT_EQ(Usb.Files()[u"EFI\\ZQ\\BIOS\\New\\ZQ42A.bin"], Image);
  EXPECT_EQ(Usb.Files()[u"EFI\\ZQ\\BIOS\\New\\ZQ42A.sig"], Signature);
  EXPECT_EQ(CallNames(), (std::vector<std::string>{"FlashDeviceWrite", "StagedUpdateNotify", "FlashServiceMember51C"}))
      << "the CMOS mark (its journal record), the notification, the platform member, then the reset";
  EXPECT_TRUE(ResetPortWritten());
}

TEST_P(UpdateStaging, Outcome) {
  const StagingRow &Row = GetParam();
  Row.Arrange(*this);
  std::optional<EFI_STATUS> Result = Stage();
  EXPECT_EQ(Result, Row.Expected);
  EXPECT_EQ(Platform->ResetCount, Row.Expected.has_value() ? 0u : 1u);
  EXPECT_EQ(Platform->ExtendedCmos[kStagedUpdateCmosIndex], Row.Expected.has_value() ? 0 : 1);
}

std::function<void(UpdateStaging &)> ToolWith(UINT64 Characteristics, std::u16string Tool) {
  return [=](UpdateStaging &Test) {
    Test.AddSmbios(Characteristics);
    Test.AddToolsVolume({u"ZQ"}, Tool);
  };
}
std::function<void(UpdateStaging &)> ToolOn(bool Removable, bool Marked, std::u16string Label, std::u16string Path) {
  return [=](UpdateStaging &Test) {
    Test.AddSmbios(0);
    Test.AddVolume(Removable, Marked, Label).AddFile(Path + kZqTool, {1});
  };
}
std::function<void(UpdateStaging &)> Plain(std::function<void(UpdateStaging &, SimVolume &)> Then) {
  return [=](UpdateStaging &Test) {
    Test.AddSmbios(0);
    Then(Test, Test.AddToolsVolume({u"ZQ"}));
  };
}

const StagingRow kRows[] = {
    {"Bit54AlonePicksBiosMgmt", ToolWith(1ull << 54, kAltTool), std::nullopt},
    {"Bits53And54PickZqBiosMgmt", ToolWith(3ull << 53, kZqTool), std::nullopt},
    {"RemovableOtherLabelUnmarkedIsPassedOver", ToolOn(true, false, u"ZQ_TOOL", u"ZQ"), EFI_NO_MEDIA},
    {"FixedDiskLabelledZqToolsIsNoToolsVolume", ToolOn(false, false, u"ZQ_TOOLS", u"ZQ"), EFI_NO_MEDIA},
    {"ToolsVolumeNeverSearchesEfiZq", ToolOn(true, false, u"ZQ_TOOLS", u"EFI\\ZQ"), EFI_NO_MEDIA},
    {"UnreadableVolumesArePassedOver",
     Plain([](UpdateStaging &, SimVolume &Volume) { Volume.FailOpenVolume(EFI_DEVICE_ERROR); }), EFI_NO_MEDIA},
    {"DirectoryCreatedOnTheFourthAttempt",
     Plain([](UpdateStaging &, SimVolume &Volume) { Volume.FailCreate(u"ZQ\\BIOS", EFI_WRITE_PROTECTED, 3); }),
     std::nullopt},
    {"DirectoryFailingFourTimesEndsWithItsStatus",
     Plain([](UpdateStaging &, SimVolume &Volume) { Volume.FailCreate(u"ZQ\\BIOS\\New", EFI_WRITE_PROTECTED, 4); }),
     EFI_WRITE_PROTECTED},
    {"FourShortReadBacksLeaveTheVolumeUnstaged",
     Plain([](UpdateStaging &, SimVolume &Volume) { Volume.ReadShort(u"ZQ\\BIOS\\New\\ZQ42A.sig", 1, 4); }),
     EFI_ACCESS_DENIED},
    {"LastCandidateDecidesTheVolume",
     [](UpdateStaging &Test) {
       Test.AddSmbios(0);
       Test.AddToolsVolume({u"ZQ", u"QUILLOR-TANDEMS"}).ReadShort(u"QUILLOR-TANDEMS\\BIOS\\New\\ZQ42A.bin", 2);
     },
     EFI_ACCESS_DENIED},
    {"NoSmbios", [](UpdateStaging &Test) { Test.AddToolsVolume({u"ZQ"}); }, EFI_NOT_READY},
    {"SmbiosWalkFails", Plain([](UpdateStaging &Test, SimVolume &) { Test.Smbios->FailGetNext(EFI_NOT_FOUND); }),
     EFI_UNSUPPORTED},
    {"NoBlockDevices", [](UpdateStaging &Test) { Test.AddSmbios(0); }, EFI_UNSUPPORTED},
};

INSTANTIATE_TEST_SUITE_P(Rows, UpdateStaging, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<StagingRow> &Info) { return std::string(Info.param.Name); });

}  // namespace
