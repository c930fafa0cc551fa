#include "UpdateSummary.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>

#include "EfiStatusName.h"
#include "ToolSupport.h"

namespace {

// The calls into the driver in their order, with the report's status of each.
struct ServiceStatus {
  const char *Key;      // the JSON key and the text label
  const char *Service;  // the name the timeline records
  EFI_STATUS UpdateReport::*Status;
};
constexpr ServiceStatus kServices[] = {
    {"start", "Start", &UpdateReport::Start},
    {"query", "BiosQueryImage", &UpdateReport::Query},
    {"verify", "BiosVerifySignature", &UpdateReport::Verify},
    {"read", "BiosReadImage", &UpdateReport::Read},
    {"completion", "SetFlashCompletionStatus", &UpdateReport::Completion},
};

bool Called(const UpdateOutcome &Outcome, const char *Service) {
  for (const TimelineCall &Call : Outcome.Timeline.Calls) {
    if (Call.Service == Service) {
      return true;
    }
  }
  return false;
}

void StatusFields(JsonWriter &Json, EFI_STATUS Status) {
  Json.Key("status").Number(Status).Key("name").String(EfiStatusName(Status));
}

std::string Printf(const char *Format, ...) __attribute__((format(printf, 1, 2)));
std::string Printf(const char *Format, ...) {
  char Text[512];
  va_list Arguments;
  va_start(Arguments, Format);
  std::vsnprintf(Text, sizeof(Text), Format, Arguments);
  va_end(Arguments);
  return Text;
}

std::string Seconds(uint64_t Nanoseconds) { return Printf("%.3f s", Nanoseconds / 1e9); }

std::string ScenarioText(const UpdateRequest &Request) {
  return std::string(Request.Recovery ? "recovery" : "normal") + " mode, " +
         (Request.Untracked ? "untracked" : "region-tracked") + " layout, " +
         (Request.PeiSignCheck ? "PEI signature check" : "no PEI signature check");
}

}  // namespace

BlockTally TallyBlocks(const UpdateOutcome &Outcome) {
  BlockTally Tally;
  const std::vector<EFI_STATUS> &Statuses = Outcome.Report.BlockStatuses;
  for (size_t Block = 0; Block < Statuses.size(); Block++) {
    Tally.ByStatus[Statuses[Block]]++;
    if (Statuses[Block] != EFI_SUCCESS && !Tally.FirstFailedBlock) {
      Tally.FirstFailedBlock = static_cast<uint32_t>(Block);
      Tally.FirstFailure = Statuses[Block];
    }
  }
  for (const TimelineCall &Call : Outcome.Timeline.Calls) {
    if (Call.Service == "BiosWriteImage") {
      (Call.ChangedFlash() ? Tally.Written : Tally.Unchanged)++;
    }
  }
  const uint32_t Reached = static_cast<uint32_t>(Statuses.size());
  Tally.NotReached = Outcome.Report.Blocks > Reached ? Outcome.Report.Blocks - Reached : 0;
  return Tally;
}

std::string UpdateResultLine(const UpdateOutcome &Outcome) {
  if (Outcome.Completed()) {
    return "update completed";
  }
  if (const TimelineCall *Cut = Outcome.Timeline.PowerCut()) {
    std::string Where = Cut->Service;
    if (Cut->Service == "BiosWriteImage") {
      Where += Printf(" (block %u", Cut->Block) + (Cut->Region.empty() ? "" : ", region " + Cut->Region) + ")";
    }
    return "update not completed: the power failed during " + Where;
  }
  // The first thing that went wrong, in the order of the calls: the services before the
  // blocks refuse the update, the blocks and the services after them leave it incomplete.
  const UpdateReport &Report = Outcome.Report;
  const auto Failure = [&](const ServiceStatus &Service) -> std::string {
    if (!Called(Outcome, Service.Service)) {
      return std::string(Service.Service) + " was not called";
    }
    const EFI_STATUS Status = Report.*Service.Status;
    return Status == EFI_SUCCESS ? "" : std::string(Service.Service) + " returned " + EfiStatusName(Status);
  };
  for (const ServiceStatus &Service : {kServices[0], kServices[1], kServices[2]}) {
    if (const std::string Why = Failure(Service); !Why.empty()) {
      return "update refused: " + Why + ", no block written";
    }
  }
  if (Report.BlocksFailed != 0) {
    const BlockTally Tally = TallyBlocks(Outcome);
    return Printf("update not completed: %u blocks failed, the first (block %u) with ", Report.BlocksFailed,
                  Tally.FirstFailedBlock.value_or(0)) +
           EfiStatusName(Tally.FirstFailure);
  }
  for (const ServiceStatus &Service : {kServices[3], kServices[4]}) {
    if (const std::string Why = Failure(Service); !Why.empty()) {
      return "update not completed: " + Why;
    }
  }
  if (!Report.ReadBackEqual) {
    return "update not completed: the read-back differs from the image";
  }
  return "update not completed";
}

std::string UpdateSummaryJson(const UpdateRequest &Request, const UpdateInputs &Inputs, const UpdateOutcome &Outcome) {
  const UpdateReport &Report = Outcome.Report;
  const BlockTally Tally = TallyBlocks(Outcome);
  JsonWriter Json;
  Json.BeginObject();
  Json.Key("completed").Bool(Outcome.Completed()).Key("result").String(UpdateResultLine(Outcome));
  Json.Key("files").BeginObject();
  Json.Key("flash").String(Request.FlashPath).Key("image").String(Request.ImagePath);
  Json.Key("signature").String(Request.SignaturePath);
  Json.Key("output").String(Request.OutputPath.empty() ? Request.FlashPath : Request.OutputPath).EndObject();
  Json.Key("scenario").BeginObject();
  Json.Key("mode").String(Request.Recovery ? "recovery" : "normal");
  Json.Key("layout").String(Request.Untracked ? "untracked" : "tracked");
  Json.Key("pei_sign_check").Bool(Request.PeiSignCheck);
  Json.Key("power_cut_at");
  Request.PowerCutAt ? Json.Number(*Request.PowerCutAt) : Json.Null();
  Json.EndObject();

  Json.Key("services").BeginObject();
  for (const ServiceStatus &Service : kServices) {
    Json.Key(Service.Key).BeginObject().Key("service").String(Service.Service);
    const bool WasCalled = Called(Outcome, Service.Service);
    Json.Key("called").Bool(WasCalled);
    if (WasCalled) {
      StatusFields(Json, Report.*Service.Status);
    }
    Json.EndObject();
    if (Service.Status == &UpdateReport::Verify) {  // the blocks come between verification and read-back
      Json.Key("write").BeginObject().Key("service").String("BiosWriteImage");
      Json.Key("called").Bool(!Report.BlockStatuses.empty());
      Json.Key("blocks").Number(Report.Blocks).Key("block_size").Number(Report.BlockSize);
      Json.Key("calls").Number(Report.BlockStatuses.size());
      Json.Key("by_status").BeginArray();
      for (const auto &[Status, Count] : Tally.ByStatus) {
        Json.BeginObject();
        StatusFields(Json, Status);
        Json.Key("count").Number(Count).EndObject();
      }
      Json.EndArray().Key("first_failure");
      if (Tally.FirstFailedBlock) {
        Json.BeginObject().Key("block").Number(*Tally.FirstFailedBlock);
        StatusFields(Json, Tally.FirstFailure);
        Json.EndObject();
      } else {
        Json.Null();
      }
      Json.EndObject();
    }
  }
  Json.EndObject();

  Json.Key("blocks").BeginObject().Key("total").Number(Report.Blocks).Key("written").Number(Tally.Written);
  Json.Key("unchanged").Number(Tally.Unchanged).Key("not_reached").Number(Tally.NotReached).EndObject();
  Json.Key("read_back_equal").Bool(Report.ReadBackEqual);
  Json.Key("skip_regions").BeginArray();
  for (const SkipRegion &Region : Report.SkipRegions) {
    Json.BeginObject().Key("start").Hex(Region.Start).Key("pages").Number(Region.Pages);
    Json.Key("bytes").Number(static_cast<uint64_t>(Region.Pages) * kSkipRegionPageSize).EndObject();
  }
  Json.EndArray();
  Json.Key("chip").BeginObject();
  Json.Key("reads").Number(Report.Chip.Reads).Key("bytes_read").Number(Report.Chip.BytesRead);
  Json.Key("sector_erases").Number(Report.Chip.SectorErases).Key("programs").Number(Report.Chip.Programs);
  Json.Key("bytes_programmed").Number(Report.Chip.BytesProgrammed);
  Json.Key("program_faults").Number(Report.Chip.ProgramFaults).EndObject();
  Json.Key("physical_time_ns").BeginObject();
  Json.Key("erase").Number(Report.Time.EraseNanoseconds).Key("program").Number(Report.Time.ProgramNanoseconds);
  Json.Key("read").Number(Report.Time.ReadNanoseconds).Key("total").Number(Report.Time.Total()).EndObject();
  Json.Key("host_time_ns").Number(static_cast<uint64_t>(Report.HostTime.count()));
  Json.Key("power_cut");
  if (const TimelineCall *Cut = Outcome.Timeline.PowerCut()) {
    Json.BeginObject().Key("service").String(Cut->Service);
    if (Cut->Service == "BiosWriteImage") {
      Json.Key("block").Number(Cut->Block).Key("region").String(Cut->Region);
    }
    Json.EndObject();
  } else {
    Json.Null();
  }
  Json.Key("interrupted");
  Outcome.Interruption.empty() ? Json.Null() : Json.String(Outcome.Interruption);
  Json.Key("flash_changed").Bool(Outcome.FlashAfter != Inputs.Flash);
  Json.Key("flash_equals_image").Bool(Outcome.FlashAfter == Inputs.Image);
  Json.EndObject();
  return Json.Text() + "\n";
}

std::string UpdateSummaryText(const UpdateRequest &Request, const UpdateInputs &Inputs, const UpdateOutcome &Outcome) {
  const UpdateReport &Report = Outcome.Report;
  const BlockTally Tally = TallyBlocks(Outcome);
  std::string Text = "bios-update: " + Request.ImagePath + " onto " + Request.FlashPath + " (" +
                     ScenarioText(Request) + ")\n";
  const auto Line = [&Text](const char *Label, const std::string &Value) {
    Text += Printf("  %-16s %s\n", Label, Value.c_str());
  };
  if (!Outcome.Interruption.empty()) {
    Line("interrupted", Outcome.Interruption);
    Text += "  the resumed update:\n";
  }
  for (const ServiceStatus &Service : kServices) {
    Line(Service.Key, Called(Outcome, Service.Service) ? EfiStatusName(Report.*Service.Status) : "not called");
    if (Service.Status == &UpdateReport::Verify && Report.BlockStatuses.empty()) {
      Line("write", "not called");
    } else if (Service.Status == &UpdateReport::Verify) {
      std::string Statuses = Printf("%zu of %u blocks of %u bytes:", Report.BlockStatuses.size(), Report.Blocks,
                                    Report.BlockSize);
      for (const auto &[Status, Count] : Tally.ByStatus) {
        Statuses += Printf(" %u ", Count) + EfiStatusName(Status);
      }
      if (Tally.FirstFailedBlock) {
        Statuses += Printf(", first failure at block %u", *Tally.FirstFailedBlock);
      }
      Line("write", Statuses);
    }
  }
  Line("blocks", Printf("%u written, %u left as they were%s", Tally.Written, Tally.Unchanged,
                        Tally.NotReached ? Printf(", %u not reached", Tally.NotReached).c_str() : ""));
  Line("read-back", Called(Outcome, "BiosReadImage") ? (Report.ReadBackEqual ? "equal" : "differs") : "not done");
  Line("chip", Printf("%" PRIu64 " sectors erased, %" PRIu64 " bytes programmed in %" PRIu64 " programs, %" PRIu64
                      " program faults, %" PRIu64 " bytes read",
                      Report.Chip.SectorErases, Report.Chip.BytesProgrammed, Report.Chip.Programs,
                      Report.Chip.ProgramFaults, Report.Chip.BytesRead));
  Line("physical time", Seconds(Report.Time.Total()) + " (erase " + Seconds(Report.Time.EraseNanoseconds) +
                            ", program " + Seconds(Report.Time.ProgramNanoseconds) + ", read " +
                            Seconds(Report.Time.ReadNanoseconds) + ")");
  Line("host time", Seconds(static_cast<uint64_t>(Report.HostTime.count())) + " in the driver's services");
  std::string Skips;
  for (const SkipRegion &Region : Report.SkipRegions) {
    Skips += Printf("%s0x%08x +0x%x", Skips.empty() ? "" : ", ", Region.Start, Region.Pages * kSkipRegionPageSize);
  }
  Line("skip regions", Skips.empty() ? "none" : Skips);
  const std::string Output = Request.OutputPath.empty() ? Request.FlashPath : Request.OutputPath;
  Line("flash file", Output + (Outcome.FlashAfter == Inputs.Flash ? ": unchanged"
                               : Outcome.FlashAfter == Inputs.Image ? ": now equal to the image"
                                                                    : ": changed, not equal to the image"));
  Text += "result: " + UpdateResultLine(Outcome) + "\n";
  return Text;
}
