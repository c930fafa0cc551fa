#include "UpdateRunner.h"

#include <algorithm>
#include <cstring>

#include "../../emu/host/EmuHostMemory.h"
#include "../../sim/SimDriverState.h"
#include "../../src/base/Globals.h"
#include "../../src/base/Guids.h"
#include "../../src/driver/Config.h"
#include "../../src/driver/DriverState.h"
#include "../../src/driver/Entry.h"
#include "../../src/driver/FlashMap.h"
#include "../../src/driver/FlashMapFormat.h"
#include "ImageBuilder.h"
#include "TestSigningKeys.h"

std::unique_ptr<EmuPlatform> MakeInstalledPlatform(const std::vector<uint8_t> &Installed, const EmuLayout &Layout) {
  auto Platform = std::make_unique<EmuPlatform>();
  std::string Error;
  if (!Platform->Initialize(EmuHostMemory(), Layout) || !InstallTestSignatureKeys(*Platform, Error) ||
      !LoadImage(*Platform, Installed)) {
    return nullptr;
  }
  Platform->Flash.ResetStats();
  return Platform;
}

SimulatedBoot::SimulatedBoot(EmuPlatform &Platform, const BootScenario &Scenario)
    : Hobs(Scenario.BootMode), Platform_(Platform) {
  ResetAllDriverState();
  gEmuPlatform = &Platform;
  Platform.ClearCalls();
  Platform.ClearTraces();
  Platform.UpdateLogStore.ClearRecords();
  if (Scenario.RegionTracked) {
    Platform.Config->Flags |= kPlatformConfigAlternativeFlag;
  } else {
    Platform.Config->Flags &= static_cast<UINT8>(~kPlatformConfigAlternativeFlag);
  }
  Sim.SetPcd(gPlatformPcdTokenSpaceGuid, kBootBlockUpdateEnabledToken, Platform.PcdBootBlockUpdateEnabled);
  Sim.SetPcd(gAmdPcdTokenSpaceGuid, kAmdLibrarySettingToken, Platform.PcdAmdLibrarySetting);
  Sim.SetPcd(gFlashMapTokenSpaceGuid, kFlashMapAddressToken, Platform.PcdFlashMapAddress);
  Sim.SetPcd(gFlashMapTokenSpaceGuid, kFlashMapSizeToken, Platform.PcdFlashMapSize);

  Hobs.AddGuidHob(gUpdateAllowedHobGuid, nullptr, 0);
  Hobs.AddGuidHob(gUpdateAuthorizedHobGuid, nullptr, 0);
  if (Platform.PcdBootBlockUpdateEnabled) {
    Hobs.AddGuidHob(gBootBlockUpdateHobGuid, nullptr, 0);
  }
  if (Scenario.PeiSignCheck) {
    Hobs.AddGuidHob(gPeiSignCheckHobGuid, nullptr, 0);
  }
  if (Scenario.FullRecovery) {
    Hobs.AddGuidHob(gFullRecoveryHobGuid, nullptr, 0);
  }
  // The earlier boot phase hands the flash map over, so that the driver's lookups do not
  // depend on the map in flash, which the update itself rewrites.
  if (const UINT8 *Map = Platform.MappedFlash(Platform.PcdFlashMapAddress, sizeof(FlashMapHeader))) {
    UINT32 TotalSize = 0;
    memcpy(&TotalSize, Map + offsetof(FlashMapHeader, TotalSize), sizeof(TotalSize));
    if (Platform.MappedFlash(Platform.PcdFlashMapAddress, TotalSize) != nullptr) {
      Hobs.AddGuidHob(gFlashMapHobGuid, Map, TotalSize);
    }
  }
  if (!Scenario.CmosImage.empty()) {
    CmosImageOffset_ = Hobs.AddGuidHob(gCmosToRomImageHobGuid, Scenario.CmosImage.data(), Scenario.CmosImage.size());
    CmosImageSize_ = Scenario.CmosImage.size();
  }
  if (Scenario.Resume) {
    const UINT8 Byte = *Scenario.Resume;
    Hobs.AddGuidHob(gUpdateResumeHobGuid, &Byte, 1);
  }
  for (const auto &[Key, Variable] : Scenario.Variables) {
    if ((Variable.Attributes & EFI_VARIABLE_NON_VOLATILE) != 0) {
      Sim.Variables()[Key] = Variable;
    }
  }
  Sim.InstallConfigurationTable(gEfiHobListGuid, Hobs.Finish());
  Sim.InstallPcdProtocol();
  EmuInstallOptions Install;
  Install.CompletionPoolBuffer = Scenario.CompletionPoolBuffer;
  EmuInstallProtocols(Platform, Sim.BootServices(), Install);
}

SimulatedBoot::~SimulatedBoot() {
  ResetAllDriverState();
  gEmuPlatform = nullptr;
}

EFI_STATUS SimulatedBoot::StartDriver() {
  const EFI_STATUS Status = _ModuleEntryPoint(Sim.ImageHandle(), Sim.SystemTable());
  Sim.AdoptLiveAllocations();  // the service tables live for the firmware's life
  return Status;
}

std::vector<uint8_t> SimulatedBoot::CmosImage() {
  const uint8_t *Data = Hobs.Data() + CmosImageOffset_;
  return std::vector<uint8_t>(Data, Data + CmosImageSize_);
}

BiosImageInterfaceProtocol *SimulatedBoot::Table(bool Second) const {
  return Second ? mBiosImageInterface2 : mBiosImageInterface;
}

bool UpdateReport::Completed() const {
  return Start == EFI_SUCCESS && Query == EFI_SUCCESS && Verify == EFI_SUCCESS && Write == EFI_SUCCESS &&
         Read == EFI_SUCCESS && ReadBackEqual;
}

namespace {

// The calls of one update in one boot; Report gets each status as it comes.
void RunServices(EmuPlatform &Platform, SimulatedBoot &Boot, const std::vector<uint8_t> &Image,
                 const std::vector<uint8_t> &Signature, const UpdateOptions &Options, UpdateReport &Report) {
  // False when the update ends after this call: the caller says so, or the power failed (the
  // application calls nothing after the service it was in).
  const auto Continue = [&](const char *Service, EFI_STATUS Status, uint32_t Block = 0, uint64_t Offset = 0) {
    Report.Stopped = Options.AfterCall && !Options.AfterCall(ServiceCall{Service, Block, Offset, Status});
    return !Report.Stopped && !Platform.Flash.PowerLost();
  };
  const auto Stage = [&Options](const char *Name) {
    if (Options.Stage) {
      Options.Stage(Name);
    }
  };
  Report.Start = Boot.StartDriver();
  BiosImageInterfaceProtocol *Table = Boot.Table(Options.SecondTable);
  if (!Continue("Start", Report.Start) || Report.Start != EFI_SUCCESS || Table == nullptr) {
    return;
  }
  using Clock = std::chrono::steady_clock;
  const auto Timed = [&Report](auto &&Call) {
    const auto Begin = Clock::now();
    const EFI_STATUS Status = Call();
    Report.HostTime += Clock::now() - Begin;
    return Status;
  };

  BiosImageQueryRecord Record = {};
  Stage("query");
  Report.Query = Timed([&] { return Table->BiosQueryImage(Table, &Record, 0, 0); });
  if (!Continue("BiosQueryImage", Report.Query) || Report.Query != EFI_SUCCESS) {
    return;
  }
  std::vector<uint8_t> Copy = Image;  // the service blanks part of it while it checks
  std::vector<uint8_t> SignatureCopy = Signature;
  Stage("verify");
  Report.Verify = Timed([&] {
    return Table->BiosVerifySignature(Table, Copy.data(), Copy.size(), SignatureCopy.data(), SignatureCopy.size());
  });
  if (!Continue("BiosVerifySignature", Report.Verify) || Report.Verify != EFI_SUCCESS) {
    return;
  }
  Report.SkipRegions.assign(Record.SkipRegions, Record.SkipRegions + std::min<size_t>(Record.SkipRegionCount, kMaxSkipRegions));
  Report.BlockSize = Record.BlockSize;
  Report.Blocks = Record.BlockCount;
  Report.Write = EFI_SUCCESS;
  Stage("write");
  for (uint32_t Block = 0; Block < Report.Blocks; Block++) {
    BiosWriteRequest Request = {};
    Request.BlockNumber = static_cast<UINT16>(Block);
    Request.BlockNumberEx = static_cast<UINT16>(Block);
    Request.ImageOffset = static_cast<UINT64>(Block) * Record.BlockSize;
    if (Options.Progress) {
      Options.Progress(Block, Report.Blocks, Request.ImageOffset);
    }
    const EFI_STATUS Status = Timed([&] { return Table->BiosWriteImage(Table, &Record, &Request); });
    Report.BlockStatuses.push_back(Status);
    if (Status != EFI_SUCCESS) {
      Report.BlocksFailed++;
      Report.Write = Report.Write == EFI_SUCCESS ? Status : Report.Write;
    }
    if (!Continue("BiosWriteImage", Status, Block, Request.ImageOffset)) {
      return;
    }
  }
  VOID *ReadBack = nullptr;
  Stage("read");
  Report.Read = Timed([&] { return Table->BiosReadImage(Table, 0, &ReadBack); });
  if (ReadBack != nullptr) {
    Report.ReadBackEqual = std::equal(Image.begin(), Image.end(), static_cast<const uint8_t *>(ReadBack));
    gBS->FreePool(ReadBack);
  }
  if (!Continue("BiosReadImage", Report.Read)) {
    return;
  }
  if (Options.CompletionStatus) {
    Stage("completion");
    Report.Completion = Timed([&] { return Table->SetFlashCompletionStatus(Table, *Options.CompletionStatus); });
    Continue("SetFlashCompletionStatus", Report.Completion);
  }
}

}  // namespace

UpdateReport RunUpdate(EmuPlatform &Platform, const std::vector<uint8_t> &Image, const std::vector<uint8_t> &Signature,
                       const UpdateOptions &Options) {
  UpdateReport Report;
  Platform.Flash.ResetStats();
  BootScenario Scenario = Options.Boot;
  Scenario.CompletionPoolBuffer = Options.CompletionStatus.has_value();
  {
    SimulatedBoot Boot(Platform, Scenario);
    RunServices(Platform, Boot, Image, Signature, Options, Report);
    // What the boot leaves, also when the update stops early (a power cut, a refusal).
    Report.Variables = Boot.Sim.Variables();
    Report.CompletionMarker = !Boot.Sim.HandlesWith(gFlashCompleteProtocolGuid).empty();
  }
  Report.Chip = Platform.Flash.Stats();
  Report.Time = Platform.Flash.Time();
  return Report;
}
