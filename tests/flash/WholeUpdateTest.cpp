// A whole region-tracked update of the reference image through each table, as the update
// application drives it: the chip ends up holding the new image outside the protected regions,
// and the primary PSP directory's signature is missing exactly while IBB1 to IBB4 are rewritten.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "../../src/platform/Cmos.h"
#include "../../src/psp/PspDirectoryFormat.h"
#include "../../tools/lib/VariableStoreBuilder.h"
#include "../../tools/lib/ImageBuilder.h"
#include "../../tools/lib/NewImageBuilder.h"
#include "../../tools/lib/TestSigningKeys.h"
#include "../../tools/lib/UpdateRunner.h"

namespace {

constexpr UINT32 kPrimaryPspDirectory = 0xFFF80000;

// The signed new release and a platform holding the reference image.
struct UpdateScene {
  std::vector<uint8_t> Image = BuildNewImage({}).Bytes;
  std::vector<uint8_t> Signature;
  std::unique_ptr<EmuPlatform> Platform = MakeInstalledPlatform(DefaultImage());
  bool Ready() {
    std::string Error;
    return Platform != nullptr && SignWithTestKey(Image, Signature, Error);
  }
  bool PrimaryDirectorySigned() const {
    UINT32 Cookie = 0;
    memcpy(&Cookie, Platform->MappedFlash(kPrimaryPspDirectory, sizeof(Cookie)), sizeof(Cookie));
    return Cookie == kPspDirectoryCookie;
  }
};

class WholeUpdate : public ::testing::TestWithParam<bool> {};

TEST_P(WholeUpdate, ReferenceUpdateLandsRegionByRegion) {
  UpdateScene Scene;
  ASSERT_TRUE(Scene.Ready());
  std::unique_ptr<EmuPlatform> &Platform = Scene.Platform;

  // Samples, before each block, the last progress code logged and whether "$PSP" is there.
  std::vector<std::pair<UINT32, bool>> Phases;
  UpdateOptions Options;
  Options.SecondTable = GetParam();
  Options.Progress = [&](uint32_t, uint32_t, uint64_t) {
    const EmuUpdateLog &Log = Platform->UpdateLogStore;
    const UINT32 Code = Log.ProgressCodeKept ? Log.ProgressCode : 0xFFFFFFFF;
    if (Phases.empty() || Phases.back().first != Code) {
      Phases.emplace_back(Code, Scene.PrimaryDirectorySigned());
    }
  };
  const UpdateReport Report = RunUpdate(*Platform, Scene.Image, Scene.Signature, Options);
  ASSERT_TRUE(Report.Completed()) << std::hex << Report.Query << Report.Verify << Report.Write << Report.Read;

  // The chip holds the new image except where the query protected the old content.
  std::vector<uint8_t> Expected = Scene.Image;
  for (const SkipRegion &Region : Report.SkipRegions) {
    std::copy_n(DefaultImage().begin() + Region.Start, Region.Pages * 4096ull, Expected.begin() + Region.Start);
  }
  EXPECT_TRUE(std::equal(Expected.begin(), Expected.end(), Platform->Flash.Bytes()));

  const std::vector<std::pair<UINT32, bool>> ExpectedPhases = {
      {0xFFFFFFFF, true}, {0, true},  {1, true},  {3, true},  {4, false}, {5, false},
      {7, false},         {8, true},  {9, true},  {10, true}};
  EXPECT_EQ(Phases, ExpectedPhases);
}

INSTANTIATE_TEST_SUITE_P(BothTables, WholeUpdate, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool> &Info) { return Info.param ? "Second" : "First"; });

// A recovery update ended with status 0, then the next boot with the CMOS bank cleared: the
// restore at start brings the completion's CMOS bytes back from the journal it appended to.
TEST(WholeUpdateCompletion, RecoveryUpdateEndsAndTheNextBootRestoresItsCmosBytes) {
  UpdateScene Scene;
  ASSERT_TRUE(Scene.Ready());
  std::unique_ptr<EmuPlatform> &Platform = Scene.Platform;
  // The mirror image the earlier phase hands over: 0xF9, 0xFA and 0xEE set, checksum valid.
  std::vector<uint8_t> Mirror(CmosToRomImage::kSize, 0);
  Mirror[CmosToRomImage::kBank1 + 0xF9] = 0x07;
  Mirror[CmosToRomImage::kBank1 + 0xFA] = 0x33;
  Mirror[CmosToRomImage::kBank1 + 0xEE] = 0x11;
  const UINT16 Checksum = CmosImageChecksum(Mirror.data(), 1);
  memcpy(Mirror.data() + CmosToRomImage::kBank1ChecksumOffset, &Checksum, sizeof(Checksum));

  UpdateOptions Options;
  Options.Boot.BootMode = BOOT_IN_RECOVERY_MODE;
  Options.Boot.CmosImage = Mirror;
  Options.CompletionStatus = 0;
  const UpdateReport Report = RunUpdate(*Platform, Scene.Image, Scene.Signature, Options);
  ASSERT_TRUE(Report.Completed());

  // What the completion itself does is the completion tests' matter; here the preserved
  // variables are back in the live store after the blocks rewrote it.
  const ParsedStore Live = ParseVariableStore(
      std::span<const uint8_t>(Platform->MappedFlash(EmuFlashLayout::kVariableStoreAddress, EmuFlashLayout::kVariableStoreSize),
                               EmuFlashLayout::kVariableStoreSize),
      StoreHeaderForm::Vss);
  EXPECT_EQ(Live.Variables.size(), 10u);

  // The next boot: the bank lost its content, the earlier phase hands over its own image.
  std::fill(std::begin(Platform->ExtendedCmos), std::end(Platform->ExtendedCmos), 0xFF);
  BootScenario Next;
  Next.CmosImage = Mirror;
  SimulatedBoot Boot(*Platform, Next);
  ASSERT_EQ(Boot.StartDriver(), EFI_SUCCESS);
  const UINT8 *Cmos = Platform->ExtendedCmos;
  EXPECT_EQ((std::vector<UINT8>{Cmos[0xF9], Cmos[0xFA], Cmos[0xEE]}), (std::vector<UINT8>{0x00, 0x00, 0x5A}));
}

}  // namespace
