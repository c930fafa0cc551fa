// The bios-update command's library: a whole update, a tampered image refused before anything
// is erased, a power cut that leaves neither image and the same cut resumed by the next boot;
// the summary and timeline of each, and the one-line messages for bad input files. The command
// itself, with its exit statuses, runs as the ctest bios_update_tool.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>
#include <unistd.h>

#include "../../tools/lib/ImageBuilder.h"
#include "../../tools/lib/NewImageBuilder.h"
#include "../../tools/lib/TestSigningKeys.h"
#include "../../tools/lib/ToolSupport.h"
#include "../../tools/lib/UpdateCommand.h"
#include "../../tools/lib/UpdateSummary.h"

namespace {

// The reference image installed, the signed new release to write.
const UpdateInputs &DefaultInputs() {
  static const UpdateInputs Inputs = [] {
    UpdateInputs Built{DefaultImage(), BuildNewImage({}).Bytes, {}};
    std::string Error;
    EXPECT_TRUE(SignWithTestKey(Built.Image, Built.Signature, Error)) << Error;
    return Built;
  }();
  return Inputs;
}

enum class FlashEnd { Unchanged, EqualsImage, NeitherImage };

struct Scenario {
  const char *Name;
  void (*Adjust)(UpdateRequest &, UpdateInputs &);
  FlashEnd Flash;
  const char *Result;                      // how the result line starts
  std::vector<std::string> JsonFragments;  // pieces the JSON summary holds
};

const Scenario kScenarios[] = {
    {"Whole", [](UpdateRequest &, UpdateInputs &) {}, FlashEnd::EqualsImage, "update completed",
     {R"("first_failure":null)", R"("read_back_equal":true)", R"("power_cut":null)", R"("completed":true)"}},
    {"TamperedIbb4", [](UpdateRequest &, UpdateInputs &Inputs) { Inputs.Image[0x240040] ^= 0x5A; },
     FlashEnd::Unchanged, "update refused: BiosVerifySignature returned EFI_SECURITY_VIOLATION",
     {R"("verify":{"service":"BiosVerifySignature","called":true,"status":9223372036854775834,"name":"EFI_SECURITY_VIOLATION"})",
      R"("write":{"service":"BiosWriteImage","called":false)", R"("sector_erases":0,)", R"("bytes_programmed":0,)"}},
    {"PowerCutInObb", [](UpdateRequest &Request, UpdateInputs &) { Request.PowerCutAt = 40; },
     FlashEnd::NeitherImage, "update not completed: the power failed during BiosWriteImage (block ",
     {R"("power_cut":{"service":"BiosWriteImage","block":)", R"("completion":{"service":"SetFlashCompletionStatus","called":false})",
      R"("power_cut_at":40)", R"("completed":false)"}},
    {"PowerCutInObbResumed",
     [](UpdateRequest &Request, UpdateInputs &) {
       Request.PowerCutAt = 40;
       Request.Resume = true;
     },
     FlashEnd::EqualsImage, "update completed",
     {R"("interrupted":"update not completed: the power failed during BiosWriteImage (block 1888, region OBB); )"
      R"(the next boot runs the primary copies, resume HOB 0x08")",
      R"("read_back_equal":true)", R"("power_cut":null)"}},
    {"Untracked", [](UpdateRequest &Request, UpdateInputs &) { Request.Untracked = true; }, FlashEnd::EqualsImage,
     "update completed", {R"("layout":"untracked")", R"("read_back_equal":true)"}},
};

void PrintTo(const Scenario &Case, std::ostream *Stream) { *Stream << Case.Name; }

class BiosUpdateScenario : public ::testing::TestWithParam<Scenario> {};

TEST_P(BiosUpdateScenario, SummaryTellsWhatTheUpdateDid) {
  const Scenario &Case = GetParam();
  UpdateRequest Request{"flash.bin", "new.bin", "new.sig"};
  UpdateInputs Inputs = DefaultInputs();
  Case.Adjust(Request, Inputs);
  const UpdateOutcome Outcome = RunBiosUpdate(Request, Inputs);

  EXPECT_EQ(UpdateResultLine(Outcome).rfind(Case.Result, 0), 0u) << UpdateResultLine(Outcome);
  const std::string Json = UpdateSummaryJson(Request, Inputs, Outcome);
  for (const std::string &Fragment : Case.JsonFragments) {
    EXPECT_NE(Json.find(Fragment), std::string::npos) << Fragment << "\nin " << Json;
  }
  const bool Unchanged = Outcome.FlashAfter == Inputs.Flash, EqualsImage = Outcome.FlashAfter == Inputs.Image;
  EXPECT_EQ(Unchanged, Case.Flash == FlashEnd::Unchanged);
  EXPECT_EQ(EqualsImage, Case.Flash == FlashEnd::EqualsImage);

  // Every block reached is either written or left as it was; the rest were never reached.
  const BlockTally Tally = TallyBlocks(Outcome);
  EXPECT_EQ(Tally.Written + Tally.Unchanged + Tally.NotReached, Outcome.Report.Blocks);
  EXPECT_EQ(Tally.NotReached == 0, Case.Flash != FlashEnd::NeitherImage);
  EXPECT_EQ(Tally.Written == 0, Case.Flash == FlashEnd::Unchanged);
  // The timeline's clock is the chip's: its calls follow one another and add up to its time.
  uint64_t Clock = 0;
  for (const TimelineCall &Call : Outcome.Timeline.Calls) {
    EXPECT_EQ(Call.Begin, Clock) << Call.Service << " " << Call.Block;
    Clock = Call.End;
  }
  EXPECT_EQ(Clock, Outcome.Report.Time.Total());
  // A power cut ends the update with the call it struck.
  const bool EndsCut = Request.PowerCutAt.has_value() && !Request.Resume;
  EXPECT_EQ(Outcome.Timeline.PowerCut() != nullptr, EndsCut);
  if (EndsCut) {
    EXPECT_EQ(Outcome.Timeline.PowerCut(), &Outcome.Timeline.Calls.back());
    EXPECT_NE(TimelineSvg(Outcome.Timeline).find(">power cut</text>"), std::string::npos);
  }
}

INSTANTIATE_TEST_SUITE_P(Scenarios, BiosUpdateScenario, ::testing::ValuesIn(kScenarios),
                         [](const ::testing::TestParamInfo<Scenario> &Info) { return Info.param.Name; });

// A region-tracked update names its regions as it enters them.
TEST(BiosUpdateTimeline, RegionsFollowTheUpdate) {
  const UpdateOutcome Tracked = RunBiosUpdate({"flash.bin", "new.bin", "new.sig"}, DefaultInputs());
  std::vector<std::pair<uint32_t, std::string>> Progress;
  for (const TimelineCode &Code : Tracked.Timeline.ProgressCodes) {
    Progress.emplace_back(Code.Code, Code.Name);
  }
  EXPECT_EQ(Progress, (decltype(Progress){{0, "IBB1R"}, {1, "IBB2R"}, {3, "IBB4R"}, {4, "IBB1"}, {5, "IBB2"},
                                          {7, "IBB4"}, {8, "OBB"}, {9, "OBB2"}, {10, "OBB3"}, {0xFE, ""}}));
}

// Each bad input file gives one message naming the file and what is wrong with it.
TEST(BiosUpdateInputs, BadFilesGiveOneClearMessage) {
  // Named for this process: test runs of other checkouts may share the directory.
  const std::string Directory = ::testing::TempDir() + std::to_string(getpid()) + "-";
  const auto Write = [&](const char *Name, std::vector<uint8_t> Bytes) {
    const std::string Path = Directory + Name;
    EXPECT_TRUE(WriteWholeFile(Path, Bytes));
    return Path;
  };
  const std::string Flash = Write("bu-flash.bin", DefaultInputs().Flash);
  const std::string Image = Write("bu-new.bin", DefaultInputs().Image);
  const std::string Signature = Write("bu-new.sig", DefaultInputs().Signature);
  const std::string Short = Write("bu-short.bin", std::vector<uint8_t>(1000, 0xFF));
  const std::string Blank = Write("bu-blank.bin", std::vector<uint8_t>(DefaultInputs().Image.size(), 0));
  struct Case {
    UpdateRequest Request;
    std::string Message;
  };
  const Case Cases[] = {
      {{Flash, Short, Signature}, "the image file " + Short + " has 1000 bytes, not 16777216"},
      {{Blank, Image, Signature}, "the flash file " + Blank + " is not a BIOS image"},
  };
  for (const Case &Each : Cases) {
    UpdateInputs Inputs;
    std::string Error;
    EXPECT_FALSE(LoadUpdateInputs(Each.Request, Inputs, Error));
    EXPECT_EQ(Error.rfind(Each.Message, 0), 0u) << Error;
    EXPECT_EQ(Error.find('\n'), std::string::npos);
  }
}

}  // namespace
