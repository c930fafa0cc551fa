// Driver start-up: the library order, every row of the entry's failure table, the two
// service tables and the update-tool probe.
#include <string>
#include <vector>

#include "../../src/base/Guids.h"
#include "../../src/driver/Config.h"
#include "../../src/driver/DriverState.h"
#include "../../src/driver/Entry.h"
#include "../../src/driver/LibraryList.h"
#include "../support/PlatformFixture.h"

namespace {

std::vector<std::string> *gSteps = nullptr;
void RecordStep(const char *Name) { gSteps->push_back(Name); }

class DriverEntry : public PlatformFixture {
protected:
  DriverEntry() {
    gSteps = &Steps;
    gLibraryStepObserver = RecordStep;
  }
  ~DriverEntry() override {
    gLibraryStepObserver = nullptr;
    gSteps = nullptr;
  }

  size_t DestructorRuns() const {
    size_t Count = 0;
    for (size_t Index = 0; Index < Steps.size(); Index++) {
      Count += Steps[Index] == "CriticalDataAuthVarLib" && Index >= kLibraryConstructorCount ? 1 : 0;
    }
    return Count;
  }

  void ExpectNothingInstalled() {
    EXPECT_TRUE(Sim.HandlesWith(gBiosImageInterfaceProtocolGuid).empty());
    EXPECT_TRUE(Sim.HandlesWith(gBiosImageInterfaceProtocol2Guid).empty());
  }

  std::vector<std::string> Steps;
};

TEST_F(DriverEntry, StartsLibrariesInOrderAndInstallsBothTablesOnDistinctHandles) {
  EXPECT_EQ(StartDriver(), EFI_SUCCESS);

  ASSERT_EQ(Steps.size(), kLibraryConstructorCount) << "no destructor runs after a successful start";
  for (size_t Index = 0; Index < kLibraryConstructorCount; Index++) {
    EXPECT_EQ(Steps[Index], kLibraryConstructors[Index].Name);
  }
  EXPECT_EQ(Steps[13], "CallbackHub");
  EXPECT_EQ(Steps[19], "CmosToRomRestore");
  EXPECT_EQ(Steps[22], "CriticalDataAuthVarLib");

  auto First = Sim.HandlesWith(gBiosImageInterfaceProtocolGuid);
  auto Second = Sim.HandlesWith(gBiosImageInterfaceProtocol2Guid);
  ASSERT_EQ(First.size(), 1u);
  ASSERT_EQ(Second.size(), 1u);
  EXPECT_NE(First[0], Second[0]);
  EXPECT_NE(First[0], Sim.ImageHandle());
  auto *Table1 = static_cast<BiosImageInterfaceProtocol *>(Sim.InterfaceOn(First[0], gBiosImageInterfaceProtocolGuid));
  auto *Table2 = static_cast<BiosImageInterfaceProtocol *>(Sim.InterfaceOn(Second[0], gBiosImageInterfaceProtocol2Guid));
  EXPECT_EQ(Table1, mBiosImageInterface);
  EXPECT_EQ(Table2, mBiosImageInterface2);
  EXPECT_NE(Table1, Table2);
  EXPECT_EQ(memcmp(Table1, Table2, sizeof(BiosImageInterfaceProtocol)), 0) << "identical slot contents";

  EXPECT_EQ(mFlashBase, 0xFF000000u);
  EXPECT_EQ(mPlatformConfig, Platform->Config);
  EXPECT_EQ(mPlatformFlashService, Platform->FlashService);
  PlatformFlashDeviceProtocol *Filled = Platform->Config->FlashDevice;  // packed field: copy before comparing
  EXPECT_EQ(Filled, Platform->FlashDevice) << "entry fills the empty FlashDevice field";
  EXPECT_EQ(mBootBlockHandler, Platform->BootBlockHandler);
  EXPECT_EQ(mUpdateStatusBlock, Platform->UpdateStatusBlock);
  EXPECT_EQ(mImageHandle, Sim.ImageHandle());
  EXPECT_EQ(mDxeSignCheck, 1);
  EXPECT_EQ(mUpdateHobsRequired, 1);
  EXPECT_EQ(BootBlockUpdateEnabled, 1);
  EXPECT_EQ(mStageUpdateToDisk, 0);
}

TEST_F(DriverEntry, BootModeComesFromTheHandoffHob) {
  Hobs.Handoff()->BootMode = BOOT_ON_FLASH_UPDATE;
  EXPECT_EQ(StartDriver(), EFI_SUCCESS);
  EXPECT_EQ(mBootMode, static_cast<EFI_BOOT_MODE>(BOOT_ON_FLASH_UPDATE));
}

TEST_F(DriverEntry, DisabledBuildInstallsNothingAndRunsDestructors) {
  gConfig.PcdBiosImageInterfaceEnable = FALSE;
  EXPECT_EQ(StartDriver(), EFI_NOT_STARTED);
  ExpectNothingInstalled();
  EXPECT_EQ(mPlatformConfig, nullptr) << "nothing is located";
  EXPECT_EQ(DestructorRuns(), 1u);
  EXPECT_EQ(Steps.back(), "DebugPrintErrorLevelLib");
  EXPECT_EQ(Sim.OpenEvents(), 0u) << "the debug-mask library closed its event";
}

TEST_F(DriverEntry, MissingHobListIsNotFound) {
  PublishHobList = false;
  EXPECT_EQ(StartDriver(), EFI_NOT_FOUND);
  ExpectNothingInstalled();
  EXPECT_EQ(DestructorRuns(), 1u);
}

struct MissingProtocolCase {
  const char *Name;
  BOOLEAN EmuInstallOptions::*Field;
};

class DriverEntryMissingProtocol : public DriverEntry, public ::testing::WithParamInterface<MissingProtocolCase> {};

TEST_P(DriverEntryMissingProtocol, ReturnsTheLocateStatusAndInstallsNothing) {
  Install.*(GetParam().Field) = FALSE;
  EXPECT_EQ(StartDriver(), EFI_NOT_FOUND);
  ExpectNothingInstalled();
  EXPECT_EQ(DestructorRuns(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    EachRequiredProtocol, DriverEntryMissingProtocol,
    ::testing::Values(MissingProtocolCase{"PlatformConfig", &EmuInstallOptions::PlatformConfig},
                      MissingProtocolCase{"FlashDevice", &EmuInstallOptions::FlashDevice},
                      MissingProtocolCase{"FlashService", &EmuInstallOptions::FlashService},
                      MissingProtocolCase{"BootBlockHandler", &EmuInstallOptions::BootBlockHandler}),
    [](const auto &Info) { return std::string(Info.param.Name); });

TEST_F(DriverEntry, FlashDeviceAlreadyInTheConfigBlockIsNotLocated) {
  Install.FlashDevice = FALSE;
  Platform->Config->FlashDevice = Platform->FlashDevice;
  EXPECT_EQ(StartDriver(), EFI_SUCCESS);
}

TEST_F(DriverEntry, BootBlockHandlerIsNotNeededWhenTheFeatureIsOff) {
  Sim.SetPcd(gPlatformPcdTokenSpaceGuid, 0x0A04, 0);
  Install.BootBlockHandler = FALSE;
  EXPECT_EQ(StartDriver(), EFI_SUCCESS);
  EXPECT_EQ(BootBlockUpdateEnabled, 0);
  EXPECT_EQ(mBootBlockHandler, nullptr);
}

TEST_F(DriverEntry, ZeroFlashBaseIsOutOfResourcesAfterTheProtocolsAreLocated) {
  gConfig.PcdFlashBase = 0;
  EnableTraces(true);
  EXPECT_EQ(StartDriver(), EFI_OUT_OF_RESOURCES);
  ExpectNothingInstalled();
  EXPECT_EQ(mPlatformFlashService, Platform->FlashService) << "protocols stay recorded";
  EXPECT_EQ(Traces(), (std::vector<std::string>{"  mFlashBase = 0", "  FlashBase not found"}));
  EXPECT_EQ(DestructorRuns(), 1u);
}

TEST_F(DriverEntry, FirstTableAllocationFailureIsOutOfResources) {
  PrepareBoot();
  // Pool allocations before the first table: none in the libraries of this build.
  Sim.FailAllocationAfter(1);
  EXPECT_EQ(StartDriver(), EFI_OUT_OF_RESOURCES);
  ExpectNothingInstalled();
}

TEST_F(DriverEntry, SecondTableAllocationFailureKeepsTheFirstInstalled) {
  PrepareBoot();
  Sim.FailAllocationAfter(2);
  EXPECT_EQ(StartDriver(), EFI_OUT_OF_RESOURCES);
  EXPECT_EQ(Sim.HandlesWith(gBiosImageInterfaceProtocolGuid).size(), 1u);
  EXPECT_TRUE(Sim.HandlesWith(gBiosImageInterfaceProtocol2Guid).empty());
  EXPECT_EQ(DestructorRuns(), 1u);
}

TEST_F(DriverEntry, FirstInstallationFailureIsNotReported) {
  Sim.FailNextInstall(gBiosImageInterfaceProtocolGuid, EFI_OUT_OF_RESOURCES);
  EXPECT_EQ(StartDriver(), EFI_SUCCESS);
  EXPECT_EQ(mBiosImageInterface, nullptr);
  EXPECT_TRUE(Sim.HandlesWith(gBiosImageInterfaceProtocolGuid).empty());
  EXPECT_EQ(Sim.HandlesWith(gBiosImageInterfaceProtocol2Guid).size(), 1u);
  EXPECT_EQ(Sim.LeakedAllocations(), 0u) << "the first table was freed";
}

TEST_F(DriverEntry, SecondInstallationFailureIsReturned) {
  Sim.FailNextInstall(gBiosImageInterfaceProtocol2Guid, EFI_ACCESS_DENIED);
  EXPECT_EQ(StartDriver(), EFI_ACCESS_DENIED);
  EXPECT_EQ(Sim.HandlesWith(gBiosImageInterfaceProtocolGuid).size(), 1u);
  EXPECT_TRUE(Sim.HandlesWith(gBiosImageInterfaceProtocol2Guid).empty());
  EXPECT_EQ(DestructorRuns(), 1u);
}

TEST_F(DriverEntry, UpdateToolProbeReadsExtendedCmosF8ThroughThePlatformPorts) {
  Platform->ExtendedCmos[0xF8] = 0xFF;
  EXPECT_EQ(StartDriver(), EFI_SUCCESS);
  EXPECT_EQ(mStageUpdateToDisk, 1);

  // The probe wrote index 0xF8 to the platform's index port, then read its data port.
  bool Probed = false;
  for (UINTN Index = 0; Index + 1 < Platform->PortLogCount; Index++) {
    const EmuPortAccess &Write = Platform->PortLog[Index];
    const EmuPortAccess &Read = Platform->PortLog[Index + 1];
    Probed = Probed || (Write.Port == 0x72 && Write.Write && Write.Value == 0xF8 && Read.Port == 0x73 && !Read.Write);
  }
  EXPECT_TRUE(Probed);
}

TEST_F(DriverEntry, ProbeLeavesTheFlagAloneForAnyOtherValue) {
  Platform->ExtendedCmos[0xF8] = 0xFE;
  EXPECT_EQ(StartDriver(), EFI_SUCCESS);
  EXPECT_EQ(mStageUpdateToDisk, 0);
}

}  // namespace

namespace {

class DriverEntryModuleConstants : public DriverEntry {};

TEST_F(DriverEntryModuleConstants, RevisionCheckFiresOnlyWhenConfigured) {
  gConfig.MinimumSystemTableRevision = 0xFFFFFFFF;
  EXPECT_EQ(StartDriver(), EFI_INCOMPATIBLE_VERSION);
  EXPECT_TRUE(Steps.empty()) << "nothing else is done";
}

TEST_F(DriverEntryModuleConstants, NoUnloadHandlerIsInstalledWithTheShippedCount) {
  EXPECT_EQ(StartDriver(), EFI_SUCCESS);
  EXPECT_EQ(Sim.LoadedImage()->Unload, nullptr);
}

TEST_F(DriverEntryModuleConstants, AnUnloadCountInstallsTheHandlerThatStopsTheLibraries) {
  gConfig.UnloadImageCount = 1;
  EXPECT_EQ(StartDriver(), EFI_SUCCESS);
  ASSERT_EQ(Sim.LoadedImage()->Unload, &BiosImageInterfaceUnload);
  EXPECT_EQ(Sim.OpenEvents(), 1u) << "the debug-mask library's exit-boot-services event";
  EXPECT_EQ(Sim.LoadedImage()->Unload(Sim.ImageHandle()), EFI_SUCCESS);
  EXPECT_EQ(DestructorRuns(), 1u);
  EXPECT_EQ(Sim.OpenEvents(), 0u);
  EXPECT_EQ(Sim.InterfaceOn(Sim.ImageHandle(), gEfiDebugMaskProtocolGuid), nullptr);
}

}  // namespace
