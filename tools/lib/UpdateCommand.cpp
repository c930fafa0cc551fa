#include "UpdateCommand.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "../../src/driver/FlashMapFormat.h"
#include "DefaultImageLayout.h"
#include "NextBoot.h"
#include "TestSigningKeys.h"
#include "ToolSupport.h"
#include "UpdateSummary.h"

namespace {

// Whether Bytes carries a "QFDM" flash map on one of the steps where maps are looked for.
bool HasFlashMap(const std::vector<uint8_t> &Bytes) {
  for (size_t Offset = 0; Offset <= Bytes.size() && sizeof(UINT32) <= Bytes.size() - Offset;
       Offset += kFlashMapScanStep) {
    UINT32 Signature = 0;
    std::memcpy(&Signature, Bytes.data() + Offset, sizeof(Signature));
    if (Signature == kFlashMapSignature) {
      return true;
    }
  }
  return false;
}

// Sizes are checked before anything is read, so that a wrong file is refused at once.
bool SizeChecked(const std::string &What, const std::string &Path, uint64_t ExpectedSize, std::string &Error) {
  std::error_code Failure;
  const uint64_t Size = Path.empty() ? 0 : std::filesystem::file_size(Path, Failure);
  if (Path.empty()) {
    Error = "no " + What + " file given";
  } else if (Failure) {
    Error = "cannot read the " + What + " file " + Path;
  } else if (Size != ExpectedSize) {
    Error = "the " + What + " file " + Path + " has " + std::to_string(Size) + " bytes, not " +
            std::to_string(ExpectedSize) + (What == "signature" ? " (an RSA-2048 signature)" : " (the platform's flash size)");
  }
  return Error.empty();
}

bool ReadChecked(const std::string &What, const std::string &Path, bool Image, std::vector<uint8_t> &Bytes,
                 std::string &Error) {
  if (!ReadWholeFile(Path, Bytes)) {
    Error = "cannot read the " + What + " file " + Path;
  } else if (Image && !HasFlashMap(Bytes)) {
    Error = "the " + What + " file " + Path + " is not a BIOS image: it has no \"QFDM\" flash map";
  }
  return Error.empty();
}

}  // namespace

bool LoadUpdateInputs(const UpdateRequest &Request, UpdateInputs &Inputs, std::string &Error) {
  const EmuLayout &Layout = kDefaultEmuLayout;
  const uint64_t ImageSize = static_cast<uint64_t>(Layout.EcSize) + Layout.LowerFlashSize + Layout.MappedFlashSize;
  return SizeChecked("flash", Request.FlashPath, ImageSize, Error) &&
         SizeChecked("image", Request.ImagePath, ImageSize, Error) &&
         SizeChecked("signature", Request.SignaturePath, DefaultImageLayout::kSignatureLength, Error) &&
         ReadChecked("flash", Request.FlashPath, true, Inputs.Flash, Error) &&
         ReadChecked("image", Request.ImagePath, true, Inputs.Image, Error) &&
         ReadChecked("signature", Request.SignaturePath, false, Inputs.Signature, Error);
}

bool UpdateOutcome::Completed() const {
  return Report.Completed() && Report.Completion == EFI_SUCCESS && !Report.Stopped && Timeline.PowerCut() == nullptr;
}

UpdateOutcome RunBiosUpdate(const UpdateRequest &Request, const UpdateInputs &Inputs,
                            const std::function<void(const TimelineCall &, uint32_t Blocks)> &Progress) {
  UpdateOutcome Outcome;
  std::unique_ptr<EmuPlatform> Platform = MakeInstalledPlatform(Inputs.Flash);
  if (Platform == nullptr) {
    Outcome.SetupError = "cannot set up the emulated platform: are the build's test keys in " +
                         TestSigningKeyPath(TestSigningKey::Selector1) + "?";
    return Outcome;
  }
  TimelineRecorder Recorder(*Platform);
  UpdateOptions Options;
  Options.Boot.BootMode = Request.Recovery ? BOOT_IN_RECOVERY_MODE : BOOT_WITH_FULL_CONFIGURATION;
  Options.Boot.RegionTracked = !Request.Untracked;
  Options.Boot.PeiSignCheck = Request.PeiSignCheck;
  Options.CompletionStatus = 0;
  uint32_t Blocks = 0;  // the query's block count, told before each block
  Options.Progress = [&](uint32_t, uint32_t Count, uint64_t) { Blocks = Count; };
  // Each call goes into the timeline; a block's call also into the progress display.
  const auto RecordInto = [&Progress, &Blocks](TimelineRecorder &Into) {
    return [&Progress, &Blocks, &Into](const ServiceCall &Call) {
      const bool Continue = Into.Record(Call);
      if (Progress && Into.Timeline().Calls.back().Service == "BiosWriteImage") {
        Progress(Into.Timeline().Calls.back(), Blocks);
      }
      return Continue;
    };
  };
  Options.AfterCall = RecordInto(Recorder);
  if (Request.PowerCutAt) {
    Platform->Flash.CutPowerAtOperation(*Request.PowerCutAt);
  }
  Outcome.Report = RunUpdate(*Platform, Inputs.Image, Inputs.Signature, Options);
  Outcome.Timeline = Recorder.Timeline();

  if (Request.Resume && Platform->Flash.PowerLost()) {
    Outcome.Interruption = UpdateResultLine(Outcome) + "; ";
    const NextBootPlan Plan = PlanNextBoot(*Platform, Outcome.Report.Variables, Options.Boot);
    if (Plan.Copy == BootCopy::None) {
      Outcome.Interruption += "the platform does not start again";
    } else {
      char Resume[32] = "";
      if (Plan.Scenario.Resume) {
        std::snprintf(Resume, sizeof(Resume), ", resume HOB 0x%02X", *Plan.Scenario.Resume);
      }
      Outcome.Interruption += std::string("the next boot runs the ") + BootCopyName(Plan.Copy) + " copies" + Resume;
      Platform->Flash.ClearFaults();
      TimelineRecorder Resumed(*Platform);
      Options.Boot = Plan.Scenario;
      Options.AfterCall = RecordInto(Resumed);
      Outcome.Report = RunUpdate(*Platform, Inputs.Image, Inputs.Signature, Options);
      Outcome.Timeline = Resumed.Timeline();
    }
  }

  const EmuLayout &Layout = Platform->Layout;
  Outcome.FlashAfter.assign(Platform->EcStore, Platform->EcStore + Layout.EcSize);
  Outcome.FlashAfter.insert(Outcome.FlashAfter.end(), Platform->Flash.Bytes(),
                            Platform->Flash.Bytes() + Platform->Flash.Size());
  return Outcome;
}
