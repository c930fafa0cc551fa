// The image inspector over the reference image, a signed image with a whole A/B directory
// tree, and images broken one structure at a time: what it lists must be what the builders
// put there (as the driver resolves it), and every break must become a finding while the
// other sections are still listed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>

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

const ImageInspection &DefaultInspection() {
  static const ImageInspection Inspection = InspectImage(DefaultImage());
  return Inspection;
}

TEST(ImageInspector, ReferenceImageListsItsMapStoresAndTreeWithoutFindings) {
  const ImageInspection &I = DefaultInspection();
  EXPECT_TRUE(I.Recognized()) << (I.Findings.empty() ? "" : I.Findings.front());
  EXPECT_EQ(I.BiosId.Text, "ZQ42A");
  EXPECT_EQ(I.RecoveryBiosId.Text, "ZQ42A");
  EXPECT_EQ(I.VersionFamily, 'E');

  // Every map entry the driver's checks look up, at the address its lookup answers.
  struct ExpectedArea {
    const EFI_GUID *Type;
    uint64_t Address, Size;
  };
  const ExpectedArea kAreas[] = {
      {&gVariableStoreBackupAreaGuid, 0xFF17C000, 0x32000},
      {&gSignedRegion1Guid, 0xFFA88000, 0x178000},
      {&gAuthVarDigestArea3Guid, 0xFF0EE000, 0x1000},
  };
  EXPECT_EQ(I.FlashMap.Address, 0xFF0EA000u);
  EXPECT_EQ(I.FlashMap.Entries.size(), 14u);
  for (const ExpectedArea &Area : kAreas) {
    const auto Entry = std::find_if(I.FlashMap.Entries.begin(), I.FlashMap.Entries.end(), [&](const auto &E) {
      return std::memcmp(&E.Type, Area.Type, sizeof(EFI_GUID)) == 0;
    });
    ASSERT_NE(Entry, I.FlashMap.Entries.end()) << GuidName(*Area.Type);
    EXPECT_EQ(Entry->Address, Area.Address) << GuidName(*Area.Type);
    EXPECT_EQ(Entry->Size, Area.Size) << GuidName(*Area.Type);
  }

  // The live store holds the builder's records in order, deleted ones included; the backup is erased.
  const std::vector<VariableRecord> Built = DefaultLiveVariables();
  ASSERT_EQ(I.Stores.size(), 2u);
  ASSERT_EQ(I.Stores[0].Variables.size(), Built.size());
  for (size_t Index = 0; Index < Built.size(); Index++) {
    EXPECT_EQ(I.Stores[0].Variables[Index].Name, VariableNameText(Built[Index].Name)) << Index;
    EXPECT_EQ(I.Stores[0].Variables[Index].State, Built[Index].State) << Index;
    EXPECT_EQ(I.Stores[0].Variables[Index].DataSize, Built[Index].Data.size()) << Index;
  }
  EXPECT_EQ(I.Stores[1].Status, "erased");

  ASSERT_EQ(I.Psp.Directories.size(), 1u) << "the reference image carries an empty level-1 \"$PSP\"";
  ASSERT_EQ(I.Signatures.size(), 3u);
  EXPECT_EQ(I.Signatures[0].Verdict, SignatureVerdict::DoesNotVerify) << "placeholders until signed";
  EXPECT_NE(InspectionJson(I).find("\"recognized\":true"), std::string::npos);
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

  struct Level {
    const char *Cookie;
    int Level;
    const char *Copy;
    uint64_t Address;
  };
  const Level kLevels[] = {{"$PSP", 1, "", 0},
                           {"$PL2", 2, "A", Tree.PspLevel2A}, {"$BL2", 2, "A", Tree.BiosLevel2A},
                           {"$PL2", 2, "B", Tree.PspLevel2B}, {"$BL2", 2, "B", Tree.BiosLevel2B}};
  ASSERT_EQ(I.Psp.Directories.size(), std::size(kLevels));
  for (size_t Index = 0; Index < std::size(kLevels); Index++) {
    const DirectoryInfo &D = I.Psp.Directories[Index];
    EXPECT_EQ(D.Cookie, kLevels[Index].Cookie) << Index;
    EXPECT_EQ(D.Level, kLevels[Index].Level) << Index;
    EXPECT_EQ(D.Copy, kLevels[Index].Copy) << Index;
    EXPECT_TRUE(D.Valid) << Index;
    if (Index > 0) {
      EXPECT_EQ(D.Address, kLevels[Index].Address) << Index;
    }
  }
  // Each copy's "$BL2" lists its items where the driver's lookup resolves them.
  for (const auto &[Directory, Placed] : {std::pair{&I.Psp.Directories[2], &Tree.CopyA},
                                          std::pair{&I.Psp.Directories[4], &Tree.CopyB}}) {
    ASSERT_EQ(Directory->Entries.size(), Placed->size());
    for (size_t Index = 0; Index < Placed->size(); Index++) {
      EXPECT_EQ(Directory->Entries[Index].TypeWord, (*Placed)[Index].TypeWord);
      EXPECT_EQ(Directory->Entries[Index].Resolved, (*Placed)[Index].Source);
    }
  }
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

void PrintTo(const BreakCase &Case, std::ostream *Out) { *Out << Case.Name; }

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

class ImageInspectorBreaks : public ::testing::TestWithParam<BreakCase> {};

TEST_P(ImageInspectorBreaks, BrokenStructureIsAFindingAndTheRestIsStillListed) {
  PspImage::PspTree Tree;
  std::vector<uint8_t> Image = ImageWithTree(Tree);
  GetParam().Break(Image, Tree);
  const ImageInspection I = InspectImage(Image);
  EXPECT_FALSE(I.Recognized());
  EXPECT_TRUE(HasFinding(I, GetParam().Finding)) << InspectionText(I);
  GetParam().StillListed(I);
}

INSTANTIATE_TEST_SUITE_P(ImageInspector, ImageInspectorBreaks, ::testing::ValuesIn(kBreaks),
                         [](const auto &Info) { return std::string(Info.param.Name); });

TEST(ImageInspector, AnythingButTheMappedSixteenMegabytesIsRefusedUnparsed) {
  for (size_t Size : {kInspectedImageSize - 1, kInspectedImageSize + 0x20000}) {
    const ImageInspection I = InspectImage(std::vector<uint8_t>(Size, 0xFF));
    EXPECT_FALSE(I.SizeAccepted) << Size;
    ASSERT_EQ(I.Findings.size(), 1u) << Size;
    EXPECT_NE(I.Findings[0].find("wrong size"), std::string::npos);
  }
}

}  // namespace
