#include "PowerCutCampaign.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>
#include <tuple>

#include "../../emu/host/EmuHostMemory.h"
#include "../../src/driver/Config.h"
#include "../../src/verify/SecuritySettingsRecord.h"
#include "DefaultImageLayout.h"
#include "ImageBuilder.h"
#include "NewImageBuilder.h"
#include "NextBoot.h"
#include "TestSigningKeys.h"
#include "UpdateRunner.h"
#include "VariableStoreBuilder.h"

namespace {

using namespace EmuFlashLayout;

struct Area {
  const char *Name;
  uint32_t Address, Size;
};

// Named areas first (the first match names an address), then the update regions.
constexpr Area kAreas[] = {
    {"EFS", kEfsAddress, kEfsSize},
    {"PSP directory", kPspL1DirectoryAddress, kPspL1DirectorySize},
    {"PSP backup directory", kPspL1BackupDirectoryAddress, kPspL1DirectorySize},
    {"flash map", 0xFF0EA000, 0x1000},
    {"CMOS journal", kCmosJournalAddress, kCmosJournalSize},
    {"variable store", kVariableStoreAddress, kVariableStoreSize},
    {"variable backup", kVariableBackupAddress, kVariableBackupSize},
    {"security settings", SecuritySettingsBlock, kSecuritySettingsSize},
    {"security settings backup", SecuritySettingsBackup, kSecuritySettingsSize},
    {"digest areas", DefaultImageLayout::kDigestArea1Address, 0x3000},
    // Rewritten by every completion that restores the variable store (recovery mode), left
    // as the image has it by a normal one; a cut in IBB1..IBB4 makes the resumed update a
    // recovery update, so its digest legitimately differs from the uninterrupted run's.
    {"critical-variable digest", 0xFF0E9000, 0x1000},
    {"IBB1R", kRecoveryBase, kIbb1Size},
    {"IBB4R", kRecoveryBase + kIbb1Size, kIbb4Size},
    {"IBB2R", kRecoveryBase + kIbb1Size + kIbb4Size, kIbb2Size},
    {"IBB1", kIbb1Address, kIbb1Size},
    {"IBB2", kIbb2Address, kIbb2Size},
    {"IBB4", kIbb4Address, kIbb4Size},
    {"OBB", kMappedBase, kIbb4Address - kMappedBase},
    {"OBB2", kRecoveryBase, kIbb1Address - kRecoveryBase},
    {"OBB3", kPspL1DirectoryAddress, 0x80000},
};
// Areas whose flash legitimately differs after a resumed update: the CMOS journal gets a
// record for every CMOS byte written, so each completion attempt appends its own.
constexpr const char *kIgnoredAreas[] = {"CMOS journal", "critical-variable digest"};
// Areas that hold a marker, a backup, a journal, a directory or the EFS: the sample cuts at
// each of their operations.
constexpr const char *kSampledAreas[] = {"EFS", "PSP directory", "PSP backup directory", "flash map",
                                         "CMOS journal", "variable backup", "security settings backup"};

std::string PlaceOf(uint64_t Address) {
  for (const Area &Each : kAreas) {
    if (Address >= Each.Address && Address - Each.Address < Each.Size) {
      return Each.Name;
    }
  }
  return "elsewhere";
}

bool Ignored(const std::string &Place) {
  return std::find(std::begin(kIgnoredAreas), std::end(kIgnoredAreas), Place) != std::end(kIgnoredAreas);
}

// A boot-critical structure: its primary place and its recovery copy (0: none).
struct CriticalStructure {
  const char *Name;
  uint32_t Primary, Recovery, Size;
};
constexpr CriticalStructure kCritical[] = {
    {"IBB1", kIbb1Address, kRecoveryBase, kIbb1Size},
    {"IBB2", kIbb2Address, kRecoveryBase + kIbb1Size + kIbb4Size, kIbb2Size},
    {"IBB4", kIbb4Address, kRecoveryBase + kIbb1Size, kIbb4Size},
    {"EFS", kEfsAddress, 0, kEfsSize},
    {"PSP level-1 directory", kPspL1DirectoryAddress, kPspL1BackupDirectoryAddress, kPspL1DirectorySize},
};

struct Scene {
  std::vector<uint8_t> Installed, Image, Signature;
  std::vector<uint8_t> FinalFlash;  // after the uninterrupted update
  std::vector<uint8_t> SettingsBefore;
  std::vector<std::tuple<std::u16string, std::string, uint32_t, std::vector<uint8_t>>> PreservedBefore;
};

size_t Offset(uint32_t Address) { return Address - kMappedBase; }

bool Equal(const uint8_t *Flash, const std::vector<uint8_t> &Image, uint32_t Address, uint32_t Size) {
  return memcmp(Flash + Offset(Address), Image.data() + Offset(Address), Size) == 0;
}

// Wholly the old or wholly the new image's bytes at Address.
bool Intact(const uint8_t *Flash, const Scene &S, uint32_t Address, uint32_t Size) {
  return Address != 0 && (Equal(Flash, S.Installed, Address, Size) || Equal(Flash, S.Image, Address, Size));
}

std::string BrokenCriticalStructure(const uint8_t *Flash, const Scene &S) {
  for (const CriticalStructure &Each : kCritical) {
    if (!Intact(Flash, S, Each.Primary, Each.Size) && !Intact(Flash, S, Each.Recovery, Each.Size)) {
      return Each.Name;
    }
  }
  return {};
}

std::string GuidText(const EFI_GUID &Guid) { return std::string(reinterpret_cast<const char *>(&Guid), sizeof(Guid)); }

// The variables in the added state of the live store, as (name, vendor, attributes, data).
auto LiveVariables(const uint8_t *Flash) {
  const ParsedStore Store = ParseVariableStore(
      std::span<const uint8_t>(Flash + Offset(kVariableStoreAddress), kVariableStoreSize), StoreHeaderForm::Vss);
  std::vector<std::tuple<std::u16string, std::string, uint32_t, std::vector<uint8_t>>> Variables;
  for (const ParsedVariable &Each : Store.Variables) {
    if (Each.Record.State == kVariableAdded) {
      Variables.emplace_back(Each.Record.Name, GuidText(Each.Record.Vendor), Each.Record.Attributes, Each.Record.Data);
    }
  }
  std::sort(Variables.begin(), Variables.end());
  return Variables;
}

std::vector<uint8_t> SettingsOf(const uint8_t *Flash) {
  return std::vector<uint8_t>(Flash + Offset(SecuritySettingsBlock), Flash + Offset(SecuritySettingsBlock) + kSecuritySettingsSize);
}

// The new release: some sectors of every region changed, and the PSP level-1 directory
// blocks too (a byte past their entries, so that both copies are rewritten).
std::vector<uint8_t> CampaignImage() {
  NewImageOptions Options;
  Options.ChangedRegions = {"EC", "OBB", "DXE", "IBB1", "IBB2", "IBB4"};
  std::vector<uint8_t> Image = BuildNewImage(Options).Bytes;
  for (uint32_t Directory : {kPspL1DirectoryAddress, kPspL1BackupDirectoryAddress}) {
    Image[Offset(Directory) + 0xF00] ^= 0x5A;
  }
  return Image;
}

class Campaign {
public:
  explicit Campaign(const CampaignOptions &Options) : Options_(Options) {}

  void Prepare(CampaignReport &Report) {
    S_.Installed = DefaultImage();
    S_.Image = CampaignImage();
    std::string Error;
    if (!SignWithTestKey(S_.Image, S_.Signature, Error)) {
      throw std::runtime_error("cannot sign the campaign image: " + Error);
    }
    auto Platform = NewPlatform();
    S_.SettingsBefore = SettingsOf(Platform->Flash.Bytes());
    const auto Before = LiveVariables(Platform->Flash.Bytes());

    std::string Stage = "start";
    struct Log {
      std::vector<FlashOperation> *Operations;
      std::string *Stage;
    } Context{&Report.Operations, &Stage};
    Platform->Flash.Observe(
        [](VOID *Raw, UINT64 N, BOOLEAN Erase, UINT32 Offset, UINT32 Length) {
          auto *L = static_cast<Log *>(Raw);
          const uint32_t Address = kMappedBase + Offset;
          L->Operations->push_back({N, Erase != FALSE, Address, Length, *L->Stage, PlaceOf(Address)});
        },
        &Context);
    Platform->Flash.ClearFaults();  // operation numbers count from here
    UpdateOptions Update = Run({});
    Update.Stage = [&Stage, Configure = Update.Stage](const char *Name) {
      Configure(Name);
      Stage = Name;
    };
    const UpdateReport Result = RunUpdate(*Platform, S_.Image, S_.Signature, Update);
    Platform->Flash.Observe(nullptr, nullptr);
    if (!Result.Completed() || Result.Completion != EFI_SUCCESS) {
      throw std::runtime_error("the uninterrupted update does not complete");
    }
    S_.FinalFlash.assign(Platform->Flash.Bytes(), Platform->Flash.Bytes() + Platform->Flash.Size());
    // Preserved: what the uninterrupted update keeps of the variables there were before.
    std::set<std::pair<std::u16string, std::string>> Kept;
    for (const auto &[Name, Vendor, Attributes, Data] : LiveVariables(S_.FinalFlash.data())) {
      Kept.insert({Name, Vendor});
    }
    for (const auto &Each : Before) {
      if (Kept.count({std::get<0>(Each), std::get<1>(Each)}) != 0) {
        S_.PreservedBefore.push_back(Each);
      }
    }
    Report.TotalOperations = Report.Operations.size();
    for (const FlashOperation &Op : Report.Operations) {
      Report.VerifyOperations += Op.Stage == "verify" || Op.Stage == "query";
      Report.WriteOperations += Op.Stage == "write";
      Report.CompletionOperations += Op.Stage == "completion";
    }
    Report.IgnoredAreas.assign(std::begin(kIgnoredAreas), std::end(kIgnoredAreas));
    Platform.reset();
    EmuHostMemoryReleaseAll();  // each cut builds its own platform in the same memory
  }

  // One cut at N (and a second one at SecondN of the resumed update); ResumedOperations
  // tells how many operations the resumed update took.
  CutResult Cut(const FlashOperation &Op, uint64_t SecondN, uint64_t &ResumedOperations) {
    CutResult Result;
    Result.N = Op.N;
    Result.SecondN = SecondN;
    Result.Stage = Op.Stage;
    Result.Place = Op.Place;
    auto Platform = NewPlatform();
    Platform->Flash.CutPowerAtOperation(Op.N);
    UpdateReport Run1 = RunUpdate(*Platform, S_.Image, S_.Signature, Run({}));
    Result.BrokenStructure = BrokenCriticalStructure(Platform->Flash.Bytes(), S_);
    Result.BootCriticalIntact = Result.BrokenStructure.empty();

    NextBootPlan Plan = PlanNextBoot(*Platform, Run1.Variables, Run({}).Boot);
    if (SecondN != 0 && Plan.Copy != BootCopy::None) {
      Platform->Flash.CutPowerAtOperation(SecondN);
      const UpdateReport Run2 = RunUpdate(*Platform, S_.Image, S_.Signature, Run(Plan.Scenario));
      const std::string Broken = BrokenCriticalStructure(Platform->Flash.Bytes(), S_);
      if (Result.BootCriticalIntact && !Broken.empty()) {
        Result.BootCriticalIntact = false;
        Result.BrokenStructure = Broken + " (second cut)";
      }
      Plan = PlanNextBoot(*Platform, Run2.Variables, Run({}).Boot);
    }
    Result.BootCopy = BootCopyName(Plan.Copy);
    if (Plan.Copy != BootCopy::None) {
      Platform->Flash.ClearFaults();
      const UpdateReport Resumed = RunUpdate(*Platform, S_.Image, S_.Signature, Run(Plan.Scenario));
      ResumedOperations = Platform->Flash.OperationsCounted();
      char Text[160];
      snprintf(Text, sizeof(Text), "resume 0x%X, query %llx verify %llx write %llx (%u failed) read %llx%s completion %llx",
               Plan.Scenario.Resume.value_or(0xFF), static_cast<unsigned long long>(Resumed.Query),
               static_cast<unsigned long long>(Resumed.Verify), static_cast<unsigned long long>(Resumed.Write),
               Resumed.BlocksFailed, static_cast<unsigned long long>(Resumed.Read),
               Resumed.ReadBackEqual ? " equal" : " differs", static_cast<unsigned long long>(Resumed.Completion));
      Result.Resumed = Text;
    }
    Compare(Platform->Flash.Bytes(), Result);
    if (Plan.Copy == BootCopy::None) {
      Result.SameFlash = false;
      Result.FlashDifference = "the platform does not start";
    }
    Platform.reset();
    EmuHostMemoryReleaseAll();
    return Result;
  }

private:
  std::unique_ptr<EmuPlatform> NewPlatform() {
    auto Platform = MakeInstalledPlatform(S_.Installed);
    if (Platform == nullptr) {
      throw std::runtime_error("cannot build the installed platform");
    }
    Platform->Flash.SetCutSeed(Options_.Seed);
    return Platform;
  }

  // The update application: query, verification, every block, read-back, completion 0; on a
  // boot after a cut it simply runs the whole sequence again.
  // Each boot starts from the reference configuration; the switch is set before the first
  // service call.
  UpdateOptions Run(const BootScenario &Boot) const {
    UpdateOptions Update;
    Update.Boot = Boot;
    Update.Boot.RegionTracked = true;
    if (Options_.Recovery) {
      Update.Boot.BootMode = BOOT_IN_RECOVERY_MODE;
      Update.Boot.FullRecovery = true;
    }
    Update.CompletionStatus = 0;
    Update.Stage = [Remedies = Options_.Remedies](const char *) { gConfig.PowerLossRemedies = Remedies ? TRUE : FALSE; };
    return Update;
  }

  void Compare(const uint8_t *Flash, CutResult &Result) const {
    std::map<std::string, uint32_t> Differing;  // each area with its first differing sector
    for (size_t Sector = 0; Sector < S_.FinalFlash.size(); Sector += 0x1000) {
      if (memcmp(Flash + Sector, S_.FinalFlash.data() + Sector, 0x1000) != 0) {
        const std::string Place = PlaceOf(kMappedBase + Sector);
        if (!Ignored(Place)) {
          Differing.insert({Place, static_cast<uint32_t>(kMappedBase + Sector)});
        }
      }
    }
    Result.SameFlash = Differing.empty();
    for (const auto &[Place, Address] : Differing) {
      char Text[32];
      snprintf(Text, sizeof(Text), " at 0x%08X", Address);
      Result.FlashDifference += (Result.FlashDifference.empty() ? "" : ", ") + Place + Text;
    }
    const auto After = LiveVariables(Flash);
    std::vector<std::string> Problems;
    if (After != S_.PreservedBefore) {
      std::string Detail;
      for (const auto &Each : S_.PreservedBefore) {
        if (std::find(After.begin(), After.end(), Each) == After.end()) {
          Detail += " -" + VariableNameText(std::get<0>(Each));
        }
      }
      for (const auto &Each : After) {
        if (std::find(S_.PreservedBefore.begin(), S_.PreservedBefore.end(), Each) == S_.PreservedBefore.end()) {
          Detail += " +" + VariableNameText(std::get<0>(Each));
        }
      }
      Problems.push_back("preserved variables (" + Detail.substr(Detail.empty() ? 0 : 1) + ")");
    }
    if (SettingsOf(Flash) != S_.SettingsBefore) {
      Problems.push_back("security settings");
    }
    Result.PreservedIntact = Problems.empty();
    for (const std::string &Each : Problems) {
      Result.PreservedDifference += (Result.PreservedDifference.empty() ? "" : ", ") + Each;
    }
  }

  const CampaignOptions &Options_;
  Scene S_;
};


}  // namespace

namespace {
std::string Classify(const CutResult &R);
}  // namespace

size_t CampaignReport::SameFlash() const {
  return std::count_if(Results.begin(), Results.end(), [](const CutResult &R) { return R.SameFlash; });
}
size_t CampaignReport::PreservedIntact() const {
  return std::count_if(Results.begin(), Results.end(), [](const CutResult &R) { return R.PreservedIntact; });
}
size_t CampaignReport::BootCriticalIntact() const {
  return std::count_if(Results.begin(), Results.end(), [](const CutResult &R) { return R.BootCriticalIntact; });
}

std::vector<uint64_t> SampleCutPoints(const std::vector<FlashOperation> &Operations) {
  std::set<uint64_t> Points;
  // First, middle and last operation of each run of one place within one stage.
  std::map<std::pair<std::string, std::string>, std::vector<uint64_t>> Runs;
  for (const FlashOperation &Op : Operations) {
    if (std::find(std::begin(kSampledAreas), std::end(kSampledAreas), Op.Place) != std::end(kSampledAreas)) {
      Points.insert(Op.N);
    }
    Runs[{Op.Stage, Op.Place}].push_back(Op.N);
  }
  for (const auto &[Key, Ns] : Runs) {
    Points.insert(Ns.front());
    Points.insert(Ns[Ns.size() / 2]);
    Points.insert(Ns.back());
  }
  return std::vector<uint64_t>(Points.begin(), Points.end());
}

CampaignReport RunPowerCutCampaign(const CampaignOptions &Options) {
  const auto Begin = std::chrono::steady_clock::now();
  CampaignReport Report;
  Campaign Run(Options);
  Run.Prepare(Report);

  std::vector<uint64_t> Points;
  if (Options.Sample) {
    Points = SampleCutPoints(Report.Operations);
  } else {
    for (const FlashOperation &Op : Report.Operations) {
      Points.push_back(Op.N);
    }
  }
  // Second cuts: after the first operation of each stage and region, at the first, middle
  // and last operation of the resumed update.
  std::set<uint64_t> PairFirsts;
  if (Options.SecondCuts) {
    std::set<std::pair<std::string, std::string>> Seen;
    for (const FlashOperation &Op : Report.Operations) {
      if (Seen.insert({Op.Stage, Op.Place}).second && (!Options.Sample || Op.Stage != "write" || Op.Place == "IBB2" ||
                                                      Op.Place == "OBB" || Op.Place == "IBB1R")) {
        PairFirsts.insert(Op.N);
      }
    }
  }
  const size_t Total = Points.size() + PairFirsts.size() * 3;
  size_t Done = 0;
  for (uint64_t N : Points) {
    uint64_t Resumed = 0;
    CutResult Result = Run.Cut(Report.Operations[N - 1], 0, Resumed);
    Result.Cause = Result.Lost() ? Classify(Result) : std::string();
    Report.Results.push_back(Result);
    if (Options.Progress) {
      Options.Progress(++Done, Total);
    }
    if (PairFirsts.count(N) != 0 && Resumed != 0) {
      for (uint64_t Second : {uint64_t{1}, Resumed / 2 + 1, Resumed}) {
        uint64_t Ignored = 0;
        CutResult Pair = Run.Cut(Report.Operations[N - 1], Second, Ignored);
        Pair.Cause = Pair.Lost() ? Classify(Pair) : std::string();
        Report.Results.push_back(Pair);
        if (Options.Progress) {
          Options.Progress(++Done, Total);
        }
      }
    }
  }
  Report.RemedySwitch = Options.Remedies;
  Report.Recovery = Options.Recovery;
  Report.Seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - Begin).count();
  return Report;
}

const std::vector<KnownLoss> &KnownLosses() {
  static const std::vector<KnownLoss> Known = {
      {"partial-backup-trusted", true,
       "a cut while verification writes the variable backup leaves its volume header whole and its records "
       "not; the next verification sees a valid backup (\"a backup is already there\") and keeps it, and "
       "the first block and the completion restore the live store from it: the preserved variables past the "
       "cut are lost (prescribed: the backup is judged by its header alone; remedy: a seal holding the "
       "backup's SHA-256, written into the area's last sector after the backup, without which the backup is "
       "taken again)"},
      {"resume-without-backup", true,
       "the completion erases the variable backup before it clears the progress record; a cut from the erase "
       "on leaves an update to resume without a backup, the resumed verification takes none (the interrupted "
       "update is trusted to have taken it) and the resumed update rewrites the live store from the image: "
       "the preserved variables are lost (prescribed order; remedy: a resume that finds no valid backup takes "
       "it again, the completion having restored the live store first)"},
  };
  return Known;
}

const KnownLoss *ClassifyLoss(const CutResult &R) {
  if (!R.Lost()) {
    return nullptr;
  }
  // Only the variable store and its backup differ (the preserved data's own areas).
  bool OnlyVariables = true;
  for (size_t At = 0; At < R.FlashDifference.size();) {
    OnlyVariables = OnlyVariables && R.FlashDifference.compare(At, 8, "variable") == 0;
    const size_t Comma = R.FlashDifference.find(", ", At);
    At = Comma == std::string::npos ? R.FlashDifference.size() : Comma + 2;
  }
  const auto Known = [](const char *Id) {
    for (const KnownLoss &Each : KnownLosses()) {
      if (std::string(Each.Id) == Id) {
        return &Each;
      }
    }
    return static_cast<const KnownLoss *>(nullptr);
  };
  if (R.SecondN == 0 && OnlyVariables && R.Stage == "verify" && R.Place == "variable backup") {
    return Known("partial-backup-trusted");
  }
  // From the backup's erase on: the backup, the digest refresh, the journal records.
  if (OnlyVariables && R.Stage == "completion" && R.Place != "variable store") {
    return Known("resume-without-backup");
  }
  // A second cut in the resumed update's own completion: nothing preserved is missing, the
  // image's variables stand in the live store (it was rewritten and never restored).
  const bool OnlyImageVariables = R.PreservedDifference.find("(-") == std::string::npos &&
                                  R.PreservedDifference.find(" -") == std::string::npos;
  if (R.SecondN != 0 && OnlyVariables && OnlyImageVariables && !R.PreservedIntact) {
    return Known("resume-without-backup");
  }
  return nullptr;
}

namespace {

std::string Classify(const CutResult &R) {
  if (const KnownLoss *Known = ClassifyLoss(R)) {
    return Known->Id;
  }
  return "unexplained: " + R.Stage + "/" + R.Place + ": " +
         (R.SameFlash ? std::string() : "flash differs in " + R.FlashDifference) +
         (R.PreservedIntact ? std::string() : "; lost " + R.PreservedDifference);
}

}  // namespace
