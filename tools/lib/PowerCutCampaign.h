// The power-cut campaign: a region-tracked update of the reference image to a new release
// that changes sectors of every region, with the power cut at each flash operation N of an
// uninterrupted run (verification, every block, completion), the next boot planned by the
// boot model (NextBoot.h), and the update application run again until it completes. For
// each cut it records (a) whether every boot-critical structure was intact (wholly old or
// wholly new bytes) in its primary place or its recovery copy at the cut, (b) whether the
// flash after the resumed update equals the uninterrupted run's flash outside the areas that
// legitimately differ, (c) whether the preserved variables and the security settings equal
// those before the update; failures get a classified cause.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct CampaignOptions {
  uint64_t Seed = 1;    // of the indeterminate bits each cut leaves
  bool Sample = false;  // the operations that touch markers, backups, journals, directories,
                        // the embedded firmware structure, and each region's first/middle/last
  bool SecondCuts = true;  // a second cut during the resumed update, for a sample of pairs
  bool Remedies = false;   // the driver's PowerLossRemedies switch in every boot
  // A forced recovery update (recovery boot mode with the full-recovery HOB, on every boot
  // until the update completes): the variable store is rewritten, so its backup is taken in
  // verification and put back at the first block and in completion.
  bool Recovery = false;
  std::function<void(size_t Done, size_t Total)> Progress;
};

// One erase (a sector) or program of the uninterrupted run.
struct FlashOperation {
  uint64_t N = 0;
  bool Erase = false;
  uint32_t Address = 0, Length = 0;  // flash address
  std::string Stage;  // "query", "verify", "write", "read", "completion"
  std::string Place;  // the named area or update region it touches
};

struct CutResult {
  uint64_t N = 0;
  uint64_t SecondN = 0;  // 0: one cut only; else the operation of the resumed update cut too
  std::string Stage, Place;  // of operation N
  bool BootCriticalIntact = true;
  std::string BrokenStructure;  // the first structure intact in neither place
  std::string BootCopy;         // what the next boot ran from
  std::string Resumed;          // how the resumed update's services answered
  bool SameFlash = false;
  std::string FlashDifference;  // the areas that differ, named
  bool PreservedIntact = false;
  std::string PreservedDifference;
  std::string Cause;  // empty when (b) and (c) hold
  bool Lost() const { return !SameFlash || !PreservedIntact; }
};

struct CampaignReport {
  uint64_t TotalOperations = 0;  // of the uninterrupted run
  uint64_t VerifyOperations = 0, WriteOperations = 0, CompletionOperations = 0;
  std::vector<FlashOperation> Operations;
  std::vector<CutResult> Results;
  std::vector<std::string> IgnoredAreas;  // compared nowhere: they legitimately differ
  bool RemedySwitch = false;               // the configuration the campaign ran with
  bool Recovery = false;
  double Seconds = 0;
  size_t Tried() const { return Results.size(); }
  size_t SameFlash() const;
  size_t PreservedIntact() const;
  size_t BootCriticalIntact() const;
};

// The classes of loss the campaign knows, each with its cause; a loss of no known class is
// "unexplained". ClosedByRemedy: the PowerLossRemedies switch removes it.
struct KnownLoss {
  const char *Id;
  bool ClosedByRemedy;
  const char *Cause;
};
const std::vector<KnownLoss> &KnownLosses();
// The known class of a loss, or nullptr.
const KnownLoss *ClassifyLoss(const CutResult &Result);

// Runs the campaign with the driver's configuration as it stands (the remedy switch
// included). Throws std::runtime_error when the uninterrupted update does not complete.
CampaignReport RunPowerCutCampaign(const CampaignOptions &Options);
// The operations the sample cuts at, from the uninterrupted run's list.
std::vector<uint64_t> SampleCutPoints(const std::vector<FlashOperation> &Operations);
