// The update application used inside OVMF: it loads the emulated platform and the driver
// from its own volume, checks both service tables, and runs the scenario the volume names
// (a whole update, a tampered image, staging, or an update interrupted by a power cut and
// resumed on the next boot). One result line ends the run; the machine then shuts down.
#include "../../src/base/Globals.h"
#include "../../src/base/Guids.h"
#include "../../src/base/ScopeGuard.h"
#include "../common/ConsolePrint.h"
#include "../common/FirmwareGlobals.h"
#include "../common/ResumeState.h"
#include "../common/RunScenario.h"
#include "../common/VolumeFiles.h"
#include "DriverLoading.h"
#include "Interruption.h"
#include "WholeUpdate.h"

namespace {

BOOLEAN ReadScenario(EFI_FILE_HANDLE Root, RunScenario &Scenario) {
  PoolBuffer Text;
  EFI_STATUS Status = ReadWholeFile(Root, RUN_SCENARIO_PATH, Text);
  if (Status == EFI_NOT_FOUND || Status == EFI_END_OF_FILE) {
    return TRUE;  // the default scenario
  }
  UINTN BadLine = 0;
  return !EfiError(Status) && ParseRunScenario(Text.As<CHAR8>(), Text.Size(), Scenario, BadLine);
}

void DescribeScenario(const RunScenario &Scenario, BOOLEAN Resuming) {
  ConsolePrint("scenario: %a mode, %a layout, %a image%a%a\r\n", Scenario.Recovery ? "recovery" : "normal",
               Scenario.RegionTracked ? "region-tracked" : "untracked", Scenario.Tampered ? "tampered" : "signed",
               Scenario.Staging ? ", staging on disk (CMOS 0xF8 = 0xFF)" : "",
               Resuming ? ", resuming an interrupted update" : Scenario.PowerCutAt != 0 ? ", power cut armed" : "");
}

// The power failed part way: what the next boot needs goes to the volume, and the machine
// resets (QEMU ends; the runner boots it again). Returns only when the state was not saved.
void SaveAndReset(EFI_FILE_HANDLE Root, const EmuPlatform &Platform, const RunScenario &Scenario,
                  const UpdateSummary &Summary) {
  const EFI_STATUS Status = SaveInterruptedState(Root, Platform);
  ConsolePrint("BiosUpdateApp: power cut at flash operation %ld, block %d; state saved for the next boot: %lx\r\n",
               Scenario.PowerCutAt, Summary.BlocksAttempted - 1, Status);
  if (!EfiError(Status)) {
    ConsolePrint("BiosUpdateApp: resetting\r\n");
    Root->Flush(Root);
    gRT->ResetSystem(EfiResetCold, EFI_SUCCESS, 0, nullptr);
  }
}

// A resumed region-tracked update starts at the region of the progress code the state kept.
BOOLEAN CheckResumedRegion(const PoolBuffer &State, const UpdateSummary &Summary) {
  // The emulation driver started only from a state of the right size.
  const UINT32 Kept = State.Size() == sizeof(ResumeStateFile) ? State.As<ResumeStateFile>()->ProgressCode : 0;
  const BOOLEAN Resumed = ResumedAtKeptRegion(Summary, Kept);
  ConsolePrint("  resumed at       progress code %x after the kept %x: %a\r\n",
               Summary.ProgressCodeCount != 0 ? Summary.ProgressCodes[0] : 0, Kept,
               Resumed ? "the kept region" : "NOT the kept region");
  return Resumed;
}

// Loads both drivers, then runs the scenario; TRUE for a pass.
BOOLEAN RunScenarioOn(EFI_HANDLE ImageHandle, EFI_FILE_HANDLE Root) {
  RunScenario Scenario;
  if (!ReadScenario(Root, Scenario)) {
    ConsolePrint("BiosUpdateApp: the scenario file is not understood\r\n");
    return FALSE;
  }
  PoolBuffer State;
  const BOOLEAN Resuming = !EfiError(ReadWholeFile(Root, RUN_RESUME_STATE_PATH, State));
  DescribeScenario(Scenario, Resuming);
  if (Resuming) {
    Scenario.PowerCutAt = 0;  // the power holds on the boot that resumes
  }
  if (Scenario.Staging) {
    ConnectAllControllers();  // the tools disk is on USB, which the boot path left alone
  }
  EFI_STATUS Status = LoadDriver(ImageHandle, Root, "\\EFI\\BOOT\\EmuPlatformDxe.efi");
  ConsolePrint("EmuPlatformDxe: %lx\r\n", Status);
  if (EfiError(Status)) {
    return FALSE;
  }
  Status = LoadDriver(ImageHandle, Root, "\\EFI\\BOOT\\BiosImageInterfaceDxe.efi");
  ConsolePrint("BiosImageInterfaceDxe: %lx\r\n", Status);
  EmuPlatform *Platform = LocateEmuPlatform();
  BiosImageInterfaceProtocol *Services = LocateServices(gBiosImageInterfaceProtocolGuid);
  if (EfiError(Status) || Platform == nullptr) {
    return FALSE;
  }
  BiosImageInterfaceProtocol *Second = LocateServices(gBiosImageInterfaceProtocol2Guid);
  const BOOLEAN Tables = ReportServiceTable("BiosImageInterfaceProtocol", Services) &&
                         ReportServiceTable("BiosImageInterfaceProtocol2", Second);
  PoolBuffer Image, Signature, Installed;
  if (EfiError(ReadWholeFile(Root, Scenario.Tampered ? "\\bad.bin" : "\\new.bin", Image)) ||
      EfiError(ReadWholeFile(Root, "\\new.sig", Signature)) ||
      EfiError(ReadWholeFile(Root, RUN_INSTALLED_IMAGE_PATH, Installed))) {
    ConsolePrint("BiosUpdateApp: the images or the signature are missing on the volume\r\n");
    return FALSE;
  }
  UpdateSummary Summary;
  const UpdateImages Images = {Image.Data(),     Image.Size(),
                               Signature.Data(), Signature.Size(),
                               Scenario.Recovery ? nullptr : Installed.Data(), Installed.Size()};
  RunWholeUpdate(Services, *Platform, Scenario, Images, Summary);
  if (Scenario.Staging) {
    // A staged update resets the machine from inside the verification; coming back is a failure.
    ConsolePrint("BiosUpdateApp: staging returned %lx instead of resetting\r\n", Summary.Verify);
    return FALSE;
  }
  PrintSummary(Summary);
  if (Summary.Interrupted) {
    SaveAndReset(Root, *Platform, Scenario, Summary);
    return FALSE;  // only when the state could not be saved
  }
  if (Scenario.PowerCutAt != 0) {
    ConsolePrint("BiosUpdateApp: the power cut at operation %ld never came\r\n", Scenario.PowerCutAt);
    return FALSE;
  }
  const BOOLEAN Resumed = !Resuming || !Scenario.RegionTracked || CheckResumedRegion(State, Summary);
  return Tables && Resumed && UpdatePassed(Scenario, Summary);
}

}  // namespace

extern "C" EFI_STATUS efi_main(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  AdoptFirmwareTables(ImageHandle, SystemTable);
  ConsolePrint("\r\nBiosUpdateApp: starting\r\n");

  BOOLEAN Passed = FALSE;
  if (EFI_FILE_HANDLE Root = OpenImageVolume(ImageHandle)) {
    Passed = RunScenarioOn(ImageHandle, Root);
    Root->Close(Root);
  } else {
    ConsolePrint("BiosUpdateApp: the boot volume cannot be opened\r\n");
  }
  ConsolePrint("BIOS-IMAGE-INTERFACE-RESULT: %a\r\n", Passed ? "PASS" : "FAIL");
  gRT->ResetSystem(EfiResetShutdown, EFI_SUCCESS, 0, nullptr);
  return EFI_SUCCESS;
}
