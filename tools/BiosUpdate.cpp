// bios-update: the whole update the firmware application performs, on this machine: the
// driver in a simulated boot over the emulated platform whose flash holds the --flash file,
// then query, verification, every block with its progress, read-back with a comparison and
// SetFlashCompletionStatus(0). The flash file ends holding what the chip holds.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/lib/ToolSupport.h"
#include "tools/lib/UpdateCommand.h"
#include "tools/lib/UpdateSummary.h"
#include "tools/lib/UpdateTimeline.h"

namespace {

constexpr const char *kUsage =
    "usage: bios-update --flash FILE --image FILE --signature FILE [--out FILE] [--mode normal|recovery]\n"
    "                   [--layout tracked|untracked] [--no-pei-check] [--power-cut N [--resume]] [--json] [--svg FILE]\n"
    "  Updates the flash file FILE (the installed 16 MiB image) with the signed image and its\n"
    "  detached signature, through the driver's services on the emulated platform. The flash\n"
    "  file is rewritten with what the chip holds at the end (or --out FILE is written instead).\n"
    "  --mode recovery      the update runs in a recovery boot\n"
    "  --layout untracked   the platform does not track update regions (bit 6 of its flags clear)\n"
    "  --no-pei-check       the earlier boot phase leaves no signature-check HOB\n"
    "  --power-cut N        the power fails at the Nth flash erase or program\n"
    "  --resume             then the platform boots again (primary or recovery copies, resume\n"
    "                       HOB from the update log) and the update runs again to its end\n"
    "  --json               the summary as one JSON object on standard output\n"
    "  --svg FILE           the update's timeline (regions, erases, programs, debug codes) as SVG\n"
    "  Progress goes to standard error. Exit status 0 when the update completed, 1 when it was\n"
    "  refused or did not complete (the summary says why), 2 on bad usage or bad input files.\n";

int Fail(const std::string &Message) {
  std::fprintf(stderr, "bios-update: %s\n", Message.c_str());
  return 2;
}

// A bar redrawn in place on a terminal; elsewhere a line per region and per tenth of the blocks.
class ProgressDisplay {
public:
  void operator()(const TimelineCall &Call, uint32_t Blocks) {
    if (Blocks == 0) {
      return;
    }
    const unsigned Percent = static_cast<unsigned>((Call.Block + 1ull) * 100 / Blocks);
    const std::string Region = Call.Region.empty() ? "-" : Call.Region;
    if (Percent == Percent_ && Region == Region_) {
      return;
    }
    const bool NewLine = Region != Region_ || Percent / 10 != Percent_ / 10;
    Percent_ = Percent;
    Region_ = Region;
    if (Terminal_) {
      char Bar[41];
      const unsigned Filled = Percent * 40 / 100;
      std::memset(Bar, '#', Filled);
      std::memset(Bar + Filled, '.', 40 - Filled);
      Bar[40] = '\0';
      std::fprintf(stderr, "\r[%s] %3u%%  block %u/%u  %-6s", Bar, Percent, Call.Block + 1, Blocks, Region.c_str());
      std::fflush(stderr);
      Drawn_ = true;
    } else if (NewLine) {
      std::fprintf(stderr, "block %u/%u %u%% region %s\n", Call.Block + 1, Blocks, Percent, Region.c_str());
    }
  }
  ~ProgressDisplay() {
    if (Drawn_) {
      std::fputc('\n', stderr);
    }
  }

private:
  bool Terminal_ = isatty(STDERR_FILENO) != 0;
  bool Drawn_ = false;
  unsigned Percent_ = ~0u;
  std::string Region_;
};

}  // namespace

int main(int argc, char **argv) {
  UpdateRequest Request;
  bool Json = false;
  std::string SvgPath;
  for (int Index = 1; Index < argc; Index++) {
    const std::string Option = argv[Index];
    if (Option == "--help" || Option == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (Option == "--json") {
      Json = true;
      continue;
    } else if (Option == "--no-pei-check") {
      Request.PeiSignCheck = false;
      continue;
    } else if (Option == "--resume") {
      Request.Resume = true;
      continue;
    }
    if (Index + 1 >= argc) {
      return Fail(Option.rfind("--", 0) == 0 ? Option + " needs a value" : "unexpected argument " + Option + "\n" + kUsage);
    }
    const std::string Value = argv[++Index];
    if (Option == "--flash") {
      Request.FlashPath = Value;
    } else if (Option == "--image") {
      Request.ImagePath = Value;
    } else if (Option == "--signature") {
      Request.SignaturePath = Value;
    } else if (Option == "--out") {
      Request.OutputPath = Value;
    } else if (Option == "--svg") {
      SvgPath = Value;
    } else if (Option == "--mode" && (Value == "normal" || Value == "recovery")) {
      Request.Recovery = Value == "recovery";
    } else if (Option == "--layout" && (Value == "tracked" || Value == "untracked")) {
      Request.Untracked = Value == "untracked";
    } else if (Option == "--power-cut") {
      char *End = nullptr;
      const unsigned long long N = std::strtoull(Value.c_str(), &End, 10);
      if (Value.empty() || *End != '\0' || N == 0) {
        return Fail("--power-cut takes an operation number from 1 on");
      }
      Request.PowerCutAt = N;
    } else {
      return Fail("bad argument " + Option + " " + Value + "\n" + kUsage);
    }
  }
  if (Request.Resume && !Request.PowerCutAt) {
    return Fail("--resume follows a --power-cut");
  }
  if (Request.FlashPath.empty() || Request.ImagePath.empty() || Request.SignaturePath.empty()) {
    return Fail(std::string("--flash, --image and --signature are required\n") + kUsage);
  }

  UpdateInputs Inputs;
  std::string Error;
  if (!LoadUpdateInputs(Request, Inputs, Error)) {
    return Fail(Error);
  }
  UpdateOutcome Outcome;
  {
    ProgressDisplay Progress;
    Outcome = RunBiosUpdate(Request, Inputs, std::ref(Progress));
  }
  if (!Outcome.SetupError.empty()) {
    return Fail(Outcome.SetupError);
  }

  const std::string Output = Request.OutputPath.empty() ? Request.FlashPath : Request.OutputPath;
  if ((!Request.OutputPath.empty() || Outcome.FlashAfter != Inputs.Flash) && !WriteWholeFile(Output, Outcome.FlashAfter)) {
    return Fail("cannot write the flash file " + Output);
  }
  if (!SvgPath.empty()) {
    const std::string Svg = TimelineSvg(Outcome.Timeline);
    if (!WriteWholeFile(SvgPath, std::vector<uint8_t>(Svg.begin(), Svg.end()))) {
      return Fail("cannot write the timeline " + SvgPath);
    }
  }
  std::fputs((Json ? UpdateSummaryJson(Request, Inputs, Outcome) : UpdateSummaryText(Request, Inputs, Outcome)).c_str(),
             stdout);
  return Outcome.Completed() ? 0 : 1;
}
