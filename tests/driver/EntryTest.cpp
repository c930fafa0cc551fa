// Driver start-up: the library order, every row of the entry's failure table, the two
// service tables and the update-tool probe.
#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "../../src/base/BaseLib.h"
#include "../../src/base/Guids.h"
#include "../../src/driver/Config.h"
#include "../../src/driver/DriverState.h"
#include "../../src/driver/DynamicPcd.h"
#include "../../src/driver/Entry.h"
#include "../../src/driver/LibraryList.h"
#include "../../src/driver/PointerRegistration.h"
#include "../support/PlatformFixture.h"

void ResetEdkLibrariesForTest();

namespace {

// The start-up and shut-down orders other drivers and the libraries rely on, written out.
const std::vector<std::string> kConstructorOrder = {
    "UefiBootServicesTableLib", "DevicePathLib", "UefiRuntimeServicesTableLib", "EmptyLibrary", "HobLib",
    "DebugPrintErrorLevelLib", "SmbusLib", "TscTimerLib", "S3BootScriptLib", "AmdS3SaveLib", "AmdCfgPcdBufLib",
    "AmdHeapConfigLib", "AmdBaseLib", "CallbackHub", "PointerRegistration", "FlashMap", "VariableStorePointers",
    "DxeServicesTableLib", "PlatformPointerRegistration", "CmosToRomRestore", "SmmServicesTableLib",
    "SecuritySettingsLib", "CriticalDataAuthVarLib"};
const std::vector<std::string> kDestructorOrder = {
    "CriticalDataAuthVarLib", "SecuritySettingsLib", "EmptyLibrary", "PlatformPointerRegistration",
    "VariableStorePointers", "FlashMap", "PointerRegistration", "AmdS3SaveLib", "S3BootScriptLib",
    "DebugPrintErrorLevelLib"};

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

  // The last library's name seen again after the constructors: the destructor list ran.
  size_t DestructorRuns() const {
    return std::count(Steps.begin() + std::min<size_t>(Steps.size(), kLibraryConstructorCount), Steps.end(),
                      "CriticalDataAuthVarLib");
  }
  size_t Installed(const EFI_GUID &Guid) const { return Sim.HandlesWith(Guid).size(); }

  std::vector<std::string> Steps;
};

TEST_F(DriverEntry, StartsLibrariesInOrderAndInstallsBothTablesOnDistinctHandles) {
  Platform->ExtendedCmos[0xF8] = 0xFE;  // the update-tool probe wants 0xFF
  EXPECT_EQ(StartDriver(), EFI_SUCCESS);
  EXPECT_EQ(Steps, kConstructorOrder) << "and no destructor after a successful start";
  auto First = Sim.HandlesWith(gBiosImageInterfaceProtocolGuid);
  auto Second = Sim.HandlesWith(gBiosImageInterfaceProtocol2Guid);
  ASSERT_EQ(First.size() + Second.size(), 2u);
  EXPECT_TRUE(First[0] != Second[0] && First[0] != Sim.ImageHandle());
  EXPECT_EQ(Sim.InterfaceOn(First[0], gBiosImageInterfaceProtocolGuid), mBiosImageInterface);
  EXPECT_EQ(Sim.InterfaceOn(Second[0], gBiosImageInterfaceProtocol2Guid), mBiosImageInterface2);
  EXPECT_EQ(memcmp(mBiosImageInterface, mBiosImageInterface2, sizeof(BiosImageInterfaceProtocol)), 0);
  EXPECT_EQ(mStageUpdateToDisk, 0);
  EXPECT_EQ(Sim.LoadedImage()->Unload, nullptr) << "no unload handler with the shipped count";
}

struct Scenario {
  SimUefi &Sim;
  EmuInstallOptions &Install;
  bool &PublishHobList;
  std::function<void(size_t)> FailAllocationAfter;  // counted from the entry on
};

struct FailureRow {
  const char *Name;
  std::function<void(Scenario)> Arrange;
  EFI_STATUS Expected;
  bool FirstInstalled, SecondInstalled;
  size_t Destructors;  // runs of the destructor list
  std::vector<std::string> Traces;  // checked when not empty
  std::function<void()> Check = [] {};  // what else the row leaves behind
};

void PrintTo(const FailureRow &Case, std::ostream *Out) { *Out << Case.Name; }

const FailureRow kFailureRows[] = {
    {"RevisionTooOld", [](Scenario) { gConfig.MinimumSystemTableRevision = 0xFFFFFFFF; }, EFI_INCOMPATIBLE_VERSION,
     false, false, 0, {}, [] { EXPECT_TRUE(gSteps->empty()) << "checked before anything else"; }},
    {"Disabled", [](Scenario) { gConfig.PcdBiosImageInterfaceEnable = FALSE; }, EFI_NOT_STARTED, false, false, 1, {},
     [] { EXPECT_EQ(mPlatformConfig, nullptr) << "nothing is located"; }},
    {"NoHobList", [](Scenario S) { S.PublishHobList = false; }, EFI_NOT_FOUND, false, false, 1, {}},
    {"NoPlatformConfig", [](Scenario S) { S.Install.PlatformConfig = FALSE; }, EFI_NOT_FOUND, false, false, 1, {}},
    {"NoFlashDevice", [](Scenario S) { S.Install.FlashDevice = FALSE; }, EFI_NOT_FOUND, false, false, 1, {}},
    {"NoFlashService", [](Scenario S) { S.Install.FlashService = FALSE; }, EFI_NOT_FOUND, false, false, 1, {},
     [] { EXPECT_EQ(mRuntimeFlashService, nullptr) << "no platform pointers to register"; }},
    {"NoBootBlockHandler", [](Scenario S) { S.Install.BootBlockHandler = FALSE; }, EFI_NOT_FOUND, false, false, 1, {}},
    {"NoBootBlockHandlerNeededWhileTheFeatureIsOff",
     [](Scenario S) { S.Install.BootBlockHandler = FALSE, S.Sim.SetPcd(gPlatformPcdTokenSpaceGuid, 0x0A04, 0); },
     EFI_SUCCESS, true, true, 0, {}, [] { EXPECT_EQ(BootBlockUpdateEnabled + (mBootBlockHandler != nullptr), 0); }},
    {"ZeroFlashBase", [](Scenario) { gConfig.PcdFlashBase = 0; }, EFI_OUT_OF_RESOURCES, false, false, 1,
     {"  mFlashBase = 0", "  FlashBase not found"},
     [] { EXPECT_NE(mPlatformFlashService, nullptr) << "the located protocols stay recorded"; }},
    // One pool allocation before the first table: the TSC frequency table.
    {"FirstTableAllocation", [](Scenario S) { S.FailAllocationAfter(2); }, EFI_OUT_OF_RESOURCES, false, false, 1, {}},
    {"SecondTableAllocation", [](Scenario S) { S.FailAllocationAfter(3); }, EFI_OUT_OF_RESOURCES, true, false, 1, {}},
    {"FirstInstallationIsNotReported",
     [](Scenario S) { S.Sim.FailNextInstall(gBiosImageInterfaceProtocolGuid, EFI_OUT_OF_RESOURCES); }, EFI_SUCCESS,
     false, true, 0, {}, [] { EXPECT_EQ(mBiosImageInterface, nullptr); }},
    {"SecondInstallation",
     [](Scenario S) { S.Sim.FailNextInstall(gBiosImageInterfaceProtocol2Guid, EFI_ACCESS_DENIED); },
     EFI_ACCESS_DENIED, true, false, 1, {},
     [] { EXPECT_NE(mBiosImageInterface2, nullptr) << "keeps the freed table's address, never used"; }},
};

class DriverEntryFailure : public DriverEntry, public ::testing::WithParamInterface<FailureRow> {};

TEST_P(DriverEntryFailure, ReturnsItsStatusAndStopsTheLibrariesItStarted) {
  const FailureRow &Row = GetParam();
  Row.Arrange(Scenario{Sim, Install, PublishHobList, [this](size_t Count) {
                         PrepareBoot();
                         Sim.FailAllocationAfter(Count);
                       }});
  EnableTraces(true);
  EXPECT_EQ(StartDriver(), Row.Expected);
  EXPECT_EQ(Installed(gBiosImageInterfaceProtocolGuid), Row.FirstInstalled ? 1u : 0u);
  EXPECT_EQ(Installed(gBiosImageInterfaceProtocol2Guid), Row.SecondInstalled ? 1u : 0u);
  EXPECT_EQ(DestructorRuns(), Row.Destructors);
  if (Row.Destructors != 0) {
    ASSERT_GE(Steps.size(), kDestructorOrder.size());
    EXPECT_EQ(std::vector<std::string>(Steps.end() - kDestructorOrder.size(), Steps.end()), kDestructorOrder);
    EXPECT_EQ(Sim.OpenEvents(), 0u) << "the debug-mask library closed its event";
  }
  if (!Row.Traces.empty()) {
    EXPECT_EQ(Traces(), Row.Traces);
  }
  EXPECT_EQ(Sim.LeakedAllocations(), 0u) << "a table that was not installed was freed";
  Row.Check();
}

INSTANTIATE_TEST_SUITE_P(EachRow, DriverEntryFailure, ::testing::ValuesIn(kFailureRows),
                         [](const auto &Info) { return std::string(Info.param.Name); });

// The firmware unloads the image after a failed entry: what it keeps (the TSC frequency
// table) must not point into the image.
TEST_F(DriverEntry, TscTableOutlivesAFailedEntryAndTheSettingsLibraryWaitsAtLevel7) {
  Install.FlashService = FALSE;
  EXPECT_EQ(StartDriver(), EFI_NOT_FOUND);
  const VOID *Table = nullptr;
  for (UINTN Index = 0; Index < Sim.SystemTable()->NumberOfTableEntries; Index++) {
    if (CompareGuid(&Sim.SystemTable()->ConfigurationTable[Index].VendorGuid, &gEfiTscFrequencyGuid)) {
      Table = Sim.SystemTable()->ConfigurationTable[Index].VendorTable;
    }
  }
  ASSERT_NE(Table, nullptr) << "measured and published";
  EXPECT_EQ(PoolTypes.at(Table), EfiBootServicesData) << "pool, not the image's data";
  const UINT64 Frequency = ReadUnaligned64(Table);
  EXPECT_NE(Frequency, 0u);
  ResetEdkLibrariesForTest();  // the image's own data is gone
  EXPECT_EQ(ReadUnaligned64(Table), Frequency);
  std::vector<EFI_TPL> Levels;
  for (const auto &[Event, Tpl] : EventTpls) {
    Levels.push_back(Tpl);
  }
  std::sort(Levels.begin(), Levels.end());
  EXPECT_EQ(Levels, (std::vector<EFI_TPL>{7, TPL_NOTIFY})) << "settings notification, debug-mask exit event";
}

// A dynamic PCD read without the PCD protocol is FALSE; the debug mask comes from "EFIDebug".
TEST_F(DriverEntry, PcdWithoutItsProtocolIsFalseAndTheDebugMaskComesFromEfiDebug) {
  UefiBootServicesTableLibConstructor(Sim.ImageHandle(), Sim.SystemTable());
  EXPECT_EQ(PcdGetBool(&gPlatformPcdTokenSpaceGuid, 0x0A04), FALSE) << "no PCD protocol yet";
  ResetDynamicPcdForTest();
  const UINT32 Mask = 0x80000042;
  Sim.SetVariable(u"EFIDebug", gEfiGenericVariableGuid, 7, &Mask, sizeof(Mask));
  ASSERT_EQ(StartDriver(), EFI_SUCCESS);
  EXPECT_EQ(BootBlockUpdateEnabled, TRUE);
  struct DebugMask {
    INT64 Revision;
    EFI_STATUS(EFIAPI *Get)(DebugMask *This, UINTN *Mask);
  };
  auto *Protocol = static_cast<DebugMask *>(Sim.InterfaceOn(Sim.ImageHandle(), gEfiDebugMaskProtocolGuid));
  ASSERT_NE(Protocol, nullptr);
  UINTN Current = 0;
  EXPECT_EQ(Protocol->Get(Protocol, &Current), EFI_SUCCESS);
  EXPECT_EQ(Current, Mask);
}

TEST_F(DriverEntry, UpdateToolProbeReadsExtendedCmosF8) {
  Platform->ExtendedCmos[0xF8] = 0xFF;
  EXPECT_EQ(StartDriver(), EFI_SUCCESS);
  EXPECT_EQ(mStageUpdateToDisk, 1);
}

TEST_F(DriverEntry, AnUnloadCountInstallsTheHandlerThatStopsTheLibraries) {
  gConfig.UnloadImageCount = 1;
  EXPECT_EQ(StartDriver(), EFI_SUCCESS);
  ASSERT_EQ(Sim.LoadedImage()->Unload, &BiosImageInterfaceUnload);
  EXPECT_EQ(Sim.LoadedImage()->Unload(Sim.ImageHandle()), EFI_SUCCESS);
  EXPECT_EQ(DestructorRuns(), 1u);
  EXPECT_EQ(Sim.OpenEvents(), 0u) << "the debug-mask library closed its exit-boot-services event";
}

}  // namespace
