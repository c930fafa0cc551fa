// A whole update on the host, the way the update application drives it inside firmware:
// the driver starts in a simulated boot over an emulated platform holding the installed
// image, then query, verification, every block, the read-back and its comparison. The
// platform outlives the boot, so the flash it leaves can be inspected, saved or booted again.
// Used by the scenario tests, the benchmark and the bios-update command.
#pragma once
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <memory>
#include <optional>
#include <vector>

#include "../../emu/EmuPlatform.h"
#include "../../sim/SimHobList.h"
#include "../../sim/SimUefi.h"
#include "../../src/driver/BiosImageInterface.h"
#include "../../src/flash/FlashRecords.h"

// What the earlier boot phase leaves behind, and how the platform is configured.
struct BootScenario {
  EFI_BOOT_MODE BootMode = BOOT_WITH_FULL_CONFIGURATION;
  bool RegionTracked = true;     // bit 6 of the configuration block's flags
  bool PeiSignCheck = true;      // the detached signature is enforced
  bool FullRecovery = false;     // a recovery boot rewrites every region
  std::optional<uint8_t> Resume;  // the resume HOB's byte of an interrupted update
  std::vector<uint8_t> CmosImage;  // the CmosToRom image the earlier phase hands over, if any
  bool CompletionPoolBuffer = false;  // the platform holds the pool buffer completion frees
  // Non-volatile variables an earlier boot left (a next boot carries them over).
  std::map<std::pair<std::u16string, std::string>, SimVariable> Variables;
};

// The reference platform holding Installed as its flash, with the build's signing keys.
// nullptr when Installed does not fit the platform's layout.
std::unique_ptr<EmuPlatform> MakeInstalledPlatform(const std::vector<uint8_t> &Installed,
                                                   const EmuLayout &Layout = kDefaultEmuLayout);

// One boot of the driver over Platform: the simulated UEFI environment with the scenario's
// HOBs and PCDs, the platform's protocols, the driver's entry. Ending the boot resets the
// driver's state and gives its memory back; the platform keeps its flash and CMOS.
class SimulatedBoot {
public:
  SimulatedBoot(EmuPlatform &Platform, const BootScenario &Scenario);
  ~SimulatedBoot();
  SimulatedBoot(const SimulatedBoot &) = delete;
  SimulatedBoot &operator=(const SimulatedBoot &) = delete;

  EFI_STATUS StartDriver();
  // The first installation reports 4 KiB blocks, the second the platform's own.
  BiosImageInterfaceProtocol *Table(bool Second) const;

  // The CmosToRom image HOB's data as the driver left it (empty without that HOB).
  std::vector<uint8_t> CmosImage();

  SimUefi Sim;
  SimHobList Hobs;

private:
  EmuPlatform &Platform_;
  size_t CmosImageOffset_ = 0, CmosImageSize_ = 0;
};

// One call into the driver as it returned: its start, then each service.
struct ServiceCall {
  const char *Service;       // "Start", "BiosQueryImage", "BiosVerifySignature", "BiosWriteImage", ...
  uint32_t Block;            // BiosWriteImage: the block number (else 0)
  uint64_t ImageOffset;      // BiosWriteImage: the block's image offset (else 0)
  EFI_STATUS Status;
};

struct UpdateOptions {
  BootScenario Boot;
  bool SecondTable = false;
  // Told before each block is written: block number, block count, image offset.
  std::function<void(uint32_t, uint32_t, uint64_t)> Progress;
  std::optional<uint8_t> CompletionStatus;  // reported with SetFlashCompletionStatus at the end
  // Told after every call into the driver; false ends the update there, as a machine that
  // lost its power would (the calls not made keep EFI_NOT_STARTED). A power cut ends it too.
  std::function<bool(const ServiceCall &)> AfterCall;
  // Told before each service call: "query", "verify", "write", "read", "completion".
  std::function<void(const char *)> Stage;
};

struct UpdateReport {
  EFI_STATUS Start = EFI_NOT_STARTED, Query = EFI_NOT_STARTED, Verify = EFI_NOT_STARTED;
  EFI_STATUS Write = EFI_NOT_STARTED;  // the first failing block's status, else EFI_SUCCESS
  EFI_STATUS Read = EFI_NOT_STARTED;
  EFI_STATUS Completion = EFI_NOT_STARTED;
  uint32_t Blocks = 0, BlockSize = 0, BlocksFailed = 0;
  std::vector<SkipRegion> SkipRegions;  // what the query protected
  bool ReadBackEqual = false;
  EmuFlashChip::Counters Chip = {};
  EmuFlashChip::Timing Time = {};
  std::chrono::nanoseconds HostTime{0};  // the driver's time in the services, on this machine
  // What the boot leaves that the platform does not keep: its variables (non-volatile ones
  // included) and whether the completion marker protocol was installed.
  std::map<std::pair<std::u16string, std::string>, SimVariable> Variables;
  bool CompletionMarker = false;
  std::vector<EFI_STATUS> BlockStatuses;  // each block written, in order
  bool Stopped = false;                   // AfterCall ended the update early
  bool Completed() const;
};

// Runs query, verification, every block in order and the read-back in one boot. The chip's
// counters are those of this update alone, however far it got.
UpdateReport RunUpdate(EmuPlatform &Platform, const std::vector<uint8_t> &Image,
                       const std::vector<uint8_t> &Signature, const UpdateOptions &Options = {});
