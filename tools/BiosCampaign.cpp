// bios-campaign: cuts the power at every flash operation of a whole region-tracked update
// (verification, every block, completion), boots again, lets the update resume and complete,
// and prints what survived. --sample cuts only where markers, backups, journals, directories
// and the embedded firmware structure are written, and at each region's first, middle and
// last operation.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <string>

#include "lib/PowerCutCampaign.h"
#include "lib/ToolSupport.h"

namespace {

void Usage(FILE *Out) {
  fprintf(Out,
          "usage: bios-campaign [--sample] [--seed S] [--recovery] [--remedies] [--no-pairs] [--check] [--detail] [--json]\n"
          "  Power cut at every flash operation of a whole update of the reference image, next boot,\n"
          "  resumed update; prints cut points tried, resumed to the same flash, preserved data intact,\n"
          "  boot-critical structures intact at the cut, and every failing cut with its cause.\n"
          "  --sample    only the cut points of the test sample\n"
          "  --seed S    seed of the indeterminate bits a cut leaves (default 1)\n"
          "  --recovery  a forced recovery update (recovery boot mode, every region, variable backup)\n"
          "  --remedies  run with the power-loss remedies switched on (off in the shipped build)\n"
          "  --no-pairs  no second cuts during the resumed updates\n"
          "  --check     exit 1 when a loss is not one of the known ones (or one the remedies close, with them on)\n"
          "  --detail    also list the operations outside the blocks and each failing cut's differences\n"
          "  --json      one JSON object instead of text\n");
}

}  // namespace

int main(int argc, char **argv) {
  CampaignOptions Options;
  bool Json = false;
  bool Check = false;
  bool Detail = false;
  for (int Index = 1; Index < argc; Index++) {
    const std::string Argument = argv[Index];
    if (Argument == "--help" || Argument == "-h") {
      Usage(stdout);
      return 0;
    } else if (Argument == "--sample") {
      Options.Sample = true;
    } else if (Argument == "--detail") {
      Detail = true;
    } else if (Argument == "--check") {
      Check = true;
    } else if (Argument == "--json") {
      Json = true;
    } else if (Argument == "--no-pairs") {
      Options.SecondCuts = false;
    } else if (Argument == "--recovery") {
      Options.Recovery = true;
    } else if (Argument == "--remedies") {
      Options.Remedies = true;
    } else if (Argument == "--seed" && Index + 1 < argc) {
      char *End = nullptr;
      Options.Seed = strtoull(argv[++Index], &End, 0);
      if (End == nullptr || *End != 0) {
        fprintf(stderr, "bios-campaign: --seed wants a number, not \"%s\"\n", argv[Index]);
        return 2;
      }
    } else {
      fprintf(stderr, "bios-campaign: unknown argument \"%s\" (see --help)\n", Argument.c_str());
      return 2;
    }
  }
  if (!Json) {
    Options.Progress = [](size_t Done, size_t Total) {
      if (Done % 50 == 0 || Done == Total) {
        fprintf(stderr, "  %zu/%zu cuts\n", Done, Total);
      }
    };
  }
  CampaignReport Report;
  try {
    Report = RunPowerCutCampaign(Options);
  } catch (const std::exception &Error) {
    fprintf(stderr, "bios-campaign: %s\n", Error.what());
    return 1;
  }
  // Losses the known list does not explain, or that the remedies should have closed.
  std::string Unexpected;
  for (const CutResult &R : Report.Results) {
    if (!R.Lost()) {
      continue;
    }
    const KnownLoss *Known = ClassifyLoss(R);
    if (Known == nullptr || (Options.Remedies && Known->ClosedByRemedy)) {
      Unexpected += " " + std::to_string(R.N) + (R.SecondN ? "+" + std::to_string(R.SecondN) : "");
    }
  }
  if (Detail) {
    for (const FlashOperation &Op : Report.Operations) {
      if (Op.Stage != "write") {
        printf("op %llu %s %s 0x%08X+0x%X %s\n", static_cast<unsigned long long>(Op.N), Op.Stage.c_str(),
               Op.Erase ? "erase" : "program", Op.Address, Op.Length, Op.Place.c_str());
      }
    }
  }
  if (Json) {
    JsonWriter Out;
    Out.BeginObject().Key("seed").Number(Options.Seed).Key("sample").Bool(Options.Sample);
    Out.Key("remedies").Bool(Options.Remedies).Key("recovery").Bool(Options.Recovery);
    Out.Key("operations").Number(Report.TotalOperations).Key("verifyOperations").Number(Report.VerifyOperations);
    Out.Key("writeOperations").Number(Report.WriteOperations).Key("completionOperations").Number(Report.CompletionOperations);
    Out.Key("cutPointsTried").Number(Report.Tried()).Key("resumedToSameFlash").Number(Report.SameFlash());
    Out.Key("preservedDataIntact").Number(Report.PreservedIntact());
    Out.Key("bootCriticalIntactAtCut").Number(Report.BootCriticalIntact());
    Out.Key("seconds").Real(Report.Seconds).Key("ignoredAreas").BeginArray();
    for (const std::string &Area : Report.IgnoredAreas) {
      Out.String(Area);
    }
    Out.EndArray().Key("failures").BeginArray();
    for (const CutResult &R : Report.Results) {
      if (!R.Lost() && R.BootCriticalIntact) {
        continue;
      }
      Out.BeginObject().Key("n").Number(R.N).Key("secondN").Number(R.SecondN).Key("stage").String(R.Stage);
      Out.Key("place").String(R.Place).Key("bootCriticalIntact").Bool(R.BootCriticalIntact);
      Out.Key("broken").String(R.BrokenStructure).Key("bootCopy").String(R.BootCopy);
      Out.Key("sameFlash").Bool(R.SameFlash).Key("flashDifference").String(R.FlashDifference);
      Out.Key("resumed").String(R.Resumed).Key("preservedIntact").Bool(R.PreservedIntact).Key("cause").String(R.Cause).EndObject();
    }
    Out.EndArray().Key("unexpected").String(Unexpected).EndObject();
    printf("%s\n", Out.Text().c_str());
    return Check && !Unexpected.empty() ? 1 : 0;
  }
  printf("power-cut campaign (seed %llu, %s update, %s, remedies %s)\n", static_cast<unsigned long long>(Options.Seed),
         Options.Recovery ? "recovery" : "normal", Options.Sample ? "sample" : "every operation",
         Options.Remedies ? "on" : "off");
  printf("  flash operations of the uninterrupted update: %llu (verification %llu, blocks %llu, completion %llu)\n",
         static_cast<unsigned long long>(Report.TotalOperations), static_cast<unsigned long long>(Report.VerifyOperations),
         static_cast<unsigned long long>(Report.WriteOperations), static_cast<unsigned long long>(Report.CompletionOperations));
  printf("  cut points tried:                     %zu\n", Report.Tried());
  printf("  resumed to the same flash:            %zu\n", Report.SameFlash());
  printf("  preserved data intact:                %zu\n", Report.PreservedIntact());
  printf("  boot-critical structures intact:      %zu\n", Report.BootCriticalIntact());
  printf("  run time:                             %.1f s\n", Report.Seconds);
  // Failing cuts by cause, with their N ("N+M": a second cut at the resumed update's Mth operation).
  std::map<std::string, std::string> ByCause;
  for (const CutResult &R : Report.Results) {
    if (R.Lost()) {
      std::string &List = ByCause[R.Cause];
      List += (List.empty() ? "" : " ") + std::to_string(R.N) + (R.SecondN ? "+" + std::to_string(R.SecondN) : "");
    }
    if (!R.BootCriticalIntact) {
      printf("  boot-critical structure broken at N=%llu: %s\n", static_cast<unsigned long long>(R.N), R.BrokenStructure.c_str());
    }
    if (Detail && R.Lost()) {
      printf("  N=%llu %s/%s boot=%s: %s\n      %s\n      %s\n", static_cast<unsigned long long>(R.N), R.Stage.c_str(),
             R.Place.c_str(), R.BootCopy.c_str(), R.FlashDifference.c_str(), R.PreservedDifference.c_str(), R.Resumed.c_str());
    }
  }
  for (const auto &[Cause, List] : ByCause) {
    const KnownLoss *Known = nullptr;
    for (const KnownLoss &Each : KnownLosses()) {
      Known = Cause == Each.Id ? &Each : Known;
    }
    printf("  lost at N = %s\n    cause: %s%s\n", List.c_str(), Known ? Known->Cause : Cause.c_str(),
           Known && Known->ClosedByRemedy ? " [closed by --remedies]" : "");
  }
  if (Check && !Unexpected.empty()) {
    fprintf(stderr, "bios-campaign: unexpected losses: %s\n", Unexpected.c_str());
    return 1;
  }
  return 0;
}
