// The next-boot model after a power cut, and what a platform without power still does: the
// copy the platform runs from follows the PSP directories, the resume byte follows the
// update log's kept code, and nothing non-volatile changes after the cut. The campaign
// itself runs as the ctests power_cut_sample*.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "../../src/psp/PspDirectoryFormat.h"
#include "../../tools/lib/ImageBuilder.h"
#include "../../tools/lib/NextBoot.h"
#include "../../tools/lib/PowerCutCampaign.h"

namespace {

using namespace EmuFlashLayout;

UINT8 *At(EmuPlatform &Platform, UINT32 Address) { return Platform.Flash.Bytes() + (Address - kMappedBase); }

TEST(NextBoot, TheDirectoriesChooseTheCopyAndTheLogChoosesTheResume) {
  const struct {
    const char *Name;
    std::function<void(EmuPlatform &)> Leave;
    BootCopy Copy;
    EFI_BOOT_MODE Mode;
    int Resume;  // -1: no resume HOB
  } Cases[] = {
      {"untouched flash", [](EmuPlatform &) {}, BootCopy::Primary, BOOT_WITH_FULL_CONFIGURATION, -1},
      {"primary signature zeroed in IBB2", [](EmuPlatform &P) {
         memset(At(P, kPspL1DirectoryAddress), 0, 4);
         P.UpdateLogStore.Write(EmuUpdateLog::kTypeProgressCode, 4, "\x05\0\0\0");
       }, BootCopy::Recovery, BOOT_IN_RECOVERY_MODE, 0x05},
      {"primary checksum broken by a cut", [](EmuPlatform &P) { At(P, kPspL1DirectoryAddress)[8] ^= 0x10; },
       BootCopy::Recovery, BOOT_IN_RECOVERY_MODE, -1},
      {"both directories broken", [](EmuPlatform &P) {
         memset(At(P, kPspL1DirectoryAddress), 0xFF, 4);
         memset(At(P, kPspL1BackupDirectoryAddress), 0xFF, 4);
       }, BootCopy::None, BOOT_WITH_FULL_CONFIGURATION, -1},
      {"no embedded firmware structure", [](EmuPlatform &P) { At(P, kEfsAddress)[0] ^= 1; }, BootCopy::None,
       BOOT_WITH_FULL_CONFIGURATION, -1},
      {"update completed", [](EmuPlatform &P) {
         P.UpdateLogStore.Write(EmuUpdateLog::kTypeProgressCode, 4, "\x0A\0\0\0");
         P.UpdateLogStore.Write(EmuUpdateLog::kTypeProgressCode, 4, "\xFE\0\0\0");
       }, BootCopy::Primary, BOOT_WITH_FULL_CONFIGURATION, -1},
  };
  for (const auto &Case : Cases) {
    auto Platform = MakeInstalledPlatform(DefaultImage());
    ASSERT_NE(Platform, nullptr);
    Case.Leave(*Platform);
    Platform->CompletionPoolBuffer = Platform.get();  // a dead boot's pool
    const NextBootPlan Plan = PlanNextBoot(*Platform, {});
    EXPECT_EQ(Plan.Copy, Case.Copy) << Case.Name;
    if (Case.Copy != BootCopy::None) {
      EXPECT_EQ(Plan.Scenario.BootMode, Case.Mode) << Case.Name;
    }
    EXPECT_EQ(Plan.Scenario.Resume ? *Plan.Scenario.Resume : -1, Case.Resume) << Case.Name;
    EXPECT_EQ(Platform->CompletionPoolBuffer, nullptr) << Case.Name << ": memory does not survive";
  }
}

// After the cut the chip answers nothing, through the window too, and neither the update
// log's kept code nor CMOS changes; the next boot gets them back as the cut left them.
TEST(NextBoot, APlatformWithoutPowerKeepsItsNonVolatileStateAsTheCutLeftIt) {
  auto Platform = MakeInstalledPlatform(DefaultImage());
  ASSERT_NE(Platform, nullptr);
  Platform->UpdateLogStore.Write(EmuUpdateLog::kTypeProgressCode, 4, "\x04\0\0\0");
  Platform->Flash.CutPowerAtOperation(1);
  EXPECT_EQ(Platform->EraseFlashAt(kVariableBackupAddress, 0x1000), EFI_DEVICE_ERROR);
  EXPECT_EQ(Platform->MappedFlash(kEfsAddress, 4), nullptr);
  gEmuPlatform = Platform.get();
  EXPECT_EQ(Platform->UpdateLog->WriteRecord(Platform->UpdateLog, EmuUpdateLog::kTypeProgressCode, 4, "\x05\0\0\0"),
            EFI_DEVICE_ERROR);
  Platform->IoWrite(0x72, 1, 0xF9);
  Platform->IoWrite(0x73, 1, 0x33);
  gEmuPlatform = nullptr;
  EXPECT_NE(Platform->ExtendedCmos[0xF9], 0x33);
  const NextBootPlan Plan = PlanNextBoot(*Platform, {});
  EXPECT_EQ(Plan.Scenario.Resume.value_or(0), 0x04);
  EXPECT_NE(Platform->MappedFlash(kEfsAddress, 4), nullptr);
}

// Each known class of loss is recognised by its cut; a loss anywhere else is unexplained.
TEST(PowerCutCampaign, LossesAreClassifiedByWhereTheCutCame) {
  const auto Loss = [](const char *Stage, const char *Place, const char *Difference) {
    CutResult R;
    R.N = 9;
    R.Stage = Stage;
    R.Place = Place;
    R.FlashDifference = Difference;
    R.SameFlash = Difference[0] == 0;
    R.PreservedIntact = false;
    return R;
  };
  const struct {
    CutResult Result;
    const char *Expected;  // nullptr: unexplained
  } Cases[] = {
      {Loss("verify", "variable backup", "variable store at 0xFF14A000"), "partial-backup-trusted"},
      {Loss("completion", "variable backup", "variable backup at 0xFF17C000, variable store at 0xFF14D000"),
       "resume-without-backup"},
      {Loss("completion", "critical-variable digest", "variable store at 0xFF14D000"), "resume-without-backup"},
      {Loss("completion", "variable store", "variable store at 0xFF14D000"), nullptr},
      {Loss("write", "IBB1", "IBB1 at 0xFFA88000"), nullptr},
      {Loss("verify", "variable backup", "OBB at 0xFF0E9000"), nullptr},
      {[&] {
         CutResult R = Loss("write", "IBB2", "variable store at 0xFF14D000");
         R.SecondN = 866;  // the resumed update's completion
         R.PreservedDifference = "preserved variables (+Boot0000 +Setup)";
         return R;
       }(), "resume-without-backup"},
  };
  for (const auto &Case : Cases) {
    const KnownLoss *Known = ClassifyLoss(Case.Result);
    EXPECT_STREQ(Known ? Known->Id : nullptr, Case.Expected) << Case.Result.Stage << "/" << Case.Result.Place;
  }
}

}  // namespace
