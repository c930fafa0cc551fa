// The image inspector over the reference image, a signed image with a whole A/B directory
// tree, and images broken one structure at a time: what it lists must be what the builders
// put there (as the driver resolves it), and every break must become a finding while the
// other sections are still listed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <tuple>

#include "../../src/base/Guids.h"
#include "../../tools/lib/ImageBuilder.h"
#include "../../tools/lib/ImageInspector.h"
#include "../../tools/lib/PspImageBuilder.h"
#include "../../tools/lib/TestSigningKeys.h"
#include "../../tools/lib/VariableStoreBuilder.h"

namespace {

constexpr size_t kMapOffset = 0xEA000;  // the reference image's flash map

bool HasFinding(const ImageInspection &Inspection, const std::string &Text) {
  return std::any_of(Inspection.Findings.begin(), Inspection.Findings.end(),
                     [&](const std::string &Finding) { return Finding.find(Text) != std::string::npos; });
}

// The flash map's header sums to 0 over 28 bytes; the reserved word keeps the balance.
void Reseal(std::vector<uint8_t> &Image) {
  uint8_t Sum = 0;
  for (size_t Index = 0; Index < 28; Index++) {
    Sum = static_cast<uint8_t>(Sum + Image[kMapOffset + Index]);
  }
  Image[kMapOffset + 16] = static_cast<uint8_t>(Image[kMapOffset + 16] - Sum);
}

// The reference image with a whole A/B tree of kind 2 (the platform's SoC); item sources are
// written relative to their copy's slot, so that listing them needs the driver's translation.
std::vector<uint8_t> ImageWithTree(PspImage::PspTree &Tree) {
  std::vector<uint8_t> Image = DefaultImage();
  PspImage::PspTreeOptions Options;
  Options.SourceMode = PspImage::AddressMode::SlotRelative;
  Tree = PspImage::BuildPspTree(Options);
  Tree.Builder.ApplyTo(Image);
  return Image;
}

TEST(ImageInspector, ReferenceImageListsItsMapStoresAndTreeWithoutFindings) {
  const ImageInspection I = InspectImage(DefaultImage());
  EXPECT_TRUE(I.Recognized()) << (I.Findings.empty() ? "" : I.Findings.front());
  EXPECT_EQ(I.BiosId.Text, "ZQ42A");
  EXPECT_EQ(I.RecoveryBiosId.Text, "ZQ42A");
  EXPECT_EQ(I.VersionFamily, 'E');

  // Map entries the driver's checks look up, at the address its lookup answers.
  EXPECT_EQ(I.FlashMap.Address, 0xFF0EA000u);
  using Area = std::pair<uint64_t, uint64_t>;
  std::map<std::string, Area> Areas;
  for (const FlashMapEntryInfo &Entry : I.FlashMap.Entries) {
    Areas[GuidName(Entry.Type)] = {Entry.Address, Entry.Size};
  }
  EXPECT_EQ(I.FlashMap.Entries.size(), 14u);
  EXPECT_EQ(Areas[GuidName(gVariableStoreBackupAreaGuid)], Area(0xFF17C000, 0x32000));
  EXPECT_EQ(Areas[GuidName(gSignedRegion1Guid)], Area(0xFFA88000, 0x178000));
  EXPECT_EQ(Areas[GuidName(gAuthVarDigestArea3Guid)], Area(0xFF0EE000, 0x1000));

  // The live store holds the builder's records in order, deleted ones included; the backup is erased.
  std::vector<std::tuple<std::string, uint8_t, size_t>> Built, Listed;
  for (const VariableRecord &Record : DefaultLiveVariables()) {
    Built.emplace_back(VariableNameText(Record.Name), Record.State, Record.Data.size());
  }
  ASSERT_EQ(I.Stores.size(), 2u);
  for (const VariableInfo &Variable : I.Stores[0].Variables) {
    Listed.emplace_back(Variable.Name, Variable.State, Variable.DataSize);
  }
  EXPECT_EQ(Listed, Built);
  EXPECT_EQ(I.Stores[1].Status, "erased");
  EXPECT_EQ(I.Psp.Directories.size(), 1u) << "the reference image carries an empty level-1 \"$PSP\"";
}

TEST(ImageInspector, SignedImageWithAbTreeListsBothCopiesAndVerifiesOnlyUnderItsKey) {
  PspImage::PspTree Tree;
  std::vector<uint8_t> Image = ImageWithTree(Tree);
  std::vector<uint8_t> Signature;
  std::string Error;
  ASSERT_TRUE(SignWithTestKey(Image, Signature, Error)) << Error;
  InspectOptions Options;
  Options.DetachedSignature = Signature;
  const ImageInspection I = InspectImage(Image, Options);
  EXPECT_TRUE(I.Recognized()) << (I.Findings.empty() ? "" : I.Findings.front());

  // Cookie, copy and address of each directory, all valid.
  std::vector<std::tuple<std::string, std::string, uint64_t>> Listed;
  for (const DirectoryInfo &D : I.Psp.Directories) {
    EXPECT_TRUE(D.Valid) << D.Cookie << D.Copy;
    Listed.emplace_back(D.Cookie, D.Copy, D.Level == 1 ? 0 : D.Address);
  }
  EXPECT_EQ(Listed, (decltype(Listed){{"$PSP", "", 0},
                                      {"$PL2", "A", Tree.PspLevel2A},
                                      {"$BL2", "A", Tree.BiosLevel2A},
                                      {"$PL2", "B", Tree.PspLevel2B},
                                      {"$BL2", "B", Tree.BiosLevel2B}}));
  ASSERT_EQ(I.Psp.Directories.size(), 5u);
  // Each copy's "$BL2" lists its items where the driver's lookup resolves them.
  for (const auto &[Directory, Placed] : {std::pair{&I.Psp.Directories[2], &Tree.CopyA},
                                          std::pair{&I.Psp.Directories[4], &Tree.CopyB}}) {
    ASSERT_EQ(Directory->Entries.size(), Placed->size());
    for (size_t Index = 0; Index < Placed->size(); Index++) {
      EXPECT_EQ(Directory->Entries[Index].TypeWord, (*Placed)[Index].TypeWord);
      EXPECT_EQ(Directory->Entries[Index].Resolved, (*Placed)[Index].Source);
    }
  }
  ASSERT_EQ(I.Signatures.size(), 3u);
  for (const SignatureInfo &Each : I.Signatures) {
    EXPECT_EQ(Each.Verdict, SignatureVerdict::Verifies) << Each.Kind;
  }

  Options.KeyPem = TestSigningKeyPath(TestSigningKey::Foreign);
  const ImageInspection Foreign = InspectImage(Image, Options);
  for (const SignatureInfo &Each : Foreign.Signatures) {
    EXPECT_EQ(Each.Verdict, SignatureVerdict::DoesNotVerify) << Each.Kind;
  }
  EXPECT_TRUE(Foreign.Recognized()) << "a signature that does not verify is reported, not a malformed image";
}

// ---- One structure broken at a time --------------------------------------------------------

struct BreakCase {
  const char *Name;
  std::function<void(std::vector<uint8_t> &, const PspImage::PspTree &)> Break;
  const char *Finding;
  std::function<void(const ImageInspection &)> StillListed;
};

const BreakCase kBreaks[] = {
    {"FlashMapClaimingAllTheFlash",
     [](std::vector<uint8_t> &Image, const PspImage::PspTree &) {
       std::memset(&Image[kMapOffset + 4], 0xFF, 4);  // TotalSize: up to 4 GiB, bounded by the window
       Reseal(Image);
     },
     "entries; the rest are not listed",
     [](const ImageInspection &I) { EXPECT_TRUE(HasFinding(I, "erased entries")); }},
    {"FlashMapHeaderSumWrong", [](std::vector<uint8_t> &Image, const PspImage::PspTree &) { Image[kMapOffset + 20]++; },
     "flash map refused", [](const ImageInspection &I) { EXPECT_EQ(I.Stores[0].Variables.size(), 22u); }},
    {"Level2DirectoryOfCopyAWithBadChecksum",
     [](std::vector<uint8_t> &Image, const PspImage::PspTree &Tree) {
       Image[Tree.PspLevel2A - 0xFF000000 + 20] ^= 0x01;  // the first entry's size
     },
     "\"$PL2\" directory of copy A at",
     [](const ImageInspection &I) {
       ASSERT_EQ(I.Psp.Directories.size(), 4u) << "copy A's \"$BL2\" is not reached";
       EXPECT_FALSE(I.Psp.Directories[1].Valid);
       EXPECT_EQ(I.Psp.Directories[1].Status, "fails validation: checksum or entry count wrong");
       EXPECT_TRUE(I.Psp.Directories[3].Valid) << "copy B's \"$BL2\"";
     }},
};

TEST(ImageInspector, BrokenStructureIsAFindingAndTheRestIsStillListed) {
  for (const BreakCase &Case : kBreaks) {
    SCOPED_TRACE(Case.Name);
    PspImage::PspTree Tree;
    std::vector<uint8_t> Image = ImageWithTree(Tree);
    Case.Break(Image, Tree);
    const ImageInspection I = InspectImage(Image);
    EXPECT_FALSE(I.Recognized());
    EXPECT_TRUE(HasFinding(I, Case.Finding)) << InspectionText(I);
    Case.StillListed(I);
  }
}

}  // namespace
