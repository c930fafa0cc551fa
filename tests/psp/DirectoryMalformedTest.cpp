// Malformed directory trees, one field wrong in a small tree: each way a lookup ends (FALSE, or
// a sound level it falls back to). Random trees and reads outside the buffers are fuzzed.

#include "../../src/driver/Config.h"
#include "../../src/psp/PspDirectory.h"
#include "PspTestSupport.h"

namespace {

using namespace PspImage;

constexpr uint32_t kEfsAt = 0x20000;
constexpr uint32_t kLevel1At = 0xF80000, kLevel1 = 0xFFF80000;
constexpr uint32_t kBiosAt = 0xF82000, kBios = 0xFFF82000;
constexpr uint32_t kHeaderAt = 0xF83000, kHeader = 0xFFF83000;
constexpr uint32_t kPspL2At = 0xF84000, kPspL2 = 0xFFF84000;
constexpr uint32_t kBiosL2At = 0xF86000, kBiosL2 = 0xFFF86000;
constexpr uint64_t kApcbL1 = 0xFFF90000, kApcbL2 = 0xFFF91000;

enum class Tree { KindTwo, Plain };
using Patches = std::vector<std::pair<uint32_t, std::vector<uint8_t>>>;  // bytes put over the tree

// KindTwo, the sound A/B kind-2 tree: EFS -> "$PSP" (0x48, 0x4A) -> headers naming Level2 ->
// "$PL2" (0x02, 0x49 -> Level2Bios) -> "$BL2" (0x60).
// Plain, the sound plain tree: EFS -> "$PSP" (0x01, 0x40 -> Level2Psp) and "$BHD" (0x60,
// 0x70 -> Level2Bios) -> "$BL2" (0x60).
void PutTree(PspImageBuilder &B, Tree Shape, uint64_t Level2, uint64_t Level2Bios, uint64_t Level2Psp) {
  if (Shape == Tree::KindTwo) {
    B.Put(kEfsAt, Efs({.PspDirectory = kLevel1}));
    B.Put(kLevel1At, PspDirectory("$PSP", {{0x48, 32, kHeader}, {0x4A, 32, kHeader + 0x100}}));
    B.Put(kHeaderAt, PspImage::AbHeaderKind2(1, static_cast<uint32_t>(Level2), 0xBC0D0400));
    B.Put(kHeaderAt + 0x100, PspImage::AbHeaderKind2(1, static_cast<uint32_t>(Level2), 0xBC0D0400));
    B.Put(kPspL2At, PspDirectory("$PL2", {{0x02, 0x100, 0xFFF8C000}, {0x49, 0x400, Level2Bios}}));
  } else {
    B.Put(kEfsAt, Efs({.PspDirectory = kLevel1, .BiosPointerOffset = 0x28, .BiosDirectory = kBios}));
    B.Put(kLevel1At, PspDirectory("$PSP", {{0x01, 0x100, 0xFFF8C000}, {0x40, 0x400, Level2Psp}}));
    B.Put(kPspL2At, PspDirectory("$PL2", {{0x02, 0x100, 0xFFF8C100}}));
    B.Put(kBiosAt, BiosDirectory("$BHD", {{0x60, 0x1000, kApcbL1, 0}, {0x70, 0x400, Level2Bios, 0}}));
  }
  B.Put(kBiosL2At, BiosDirectory("$BL2", Apcbs(1, kApcbL2)));
}

struct MalformedCase {
  const char *What;
  UINT32 Signature;
  Tree Shape;
  uint64_t Level2, Level2Bios, Level2Psp;  // as PutTree takes them
  Patches Patch;
  bool BiosFound;
  UINT64 BiosSource;  // when found
  bool PspFound;      // entry 0x02
};

void PrintTo(const MalformedCase &Case, std::ostream *Out) { *Out << Case.What; }

std::vector<uint8_t> OtherSocHeader() { return PspImage::AbHeaderKind2(1, kPspL2, 0xBC0D0300); }

const MalformedCase kCases[] = {
    {"sound kind-2 tree (reference)", kSigRow3Kind2, Tree::KindTwo, kPspL2, kBiosL2, kPspL2, {}, true, kApcbL2, true},
    {"A/B header: level 2 is the level-1 directory", kSigRow3Kind2, Tree::KindTwo, kLevel1, kBiosL2, kPspL2, {},
     false, 0, false},
    {"$PL2 entry 0x49 points at the $PL2 itself", kSigRow3Kind2, Tree::KindTwo, kPspL2, kPspL2, kPspL2, {}, false, 0,
     true},
    {"A/B headers all of another SoC", kSigRow3Kind2, Tree::KindTwo, kPspL2, kBiosL2, kPspL2,
     {{kHeaderAt, OtherSocHeader()}, {kHeaderAt + 0x100, OtherSocHeader()}}, false, 0, false},
    {"2PSP without this SoC", kSigRow7Combo, Tree::Plain, kPspL2, kBiosL2, kPspL2,
     {{kLevel1At, ComboDirectory("2PSP", {{0xBC0A0100, kLevel1}})}}, false, 0, false},
    {"$BHD entry 0x70 points back at the $BHD", kSigRow9Plain, Tree::Plain, kPspL2, kBios, kPspL2, {}, true, kApcbL1,
     true},
    {"$PSP entry 0x40 points at the $PSP", kSigRow9Plain, Tree::Plain, kPspL2, kBiosL2, kLevel1, {}, true, kApcbL2,
     false},
};

class DirectoryMalformed : public PspFixture, public ::testing::WithParamInterface<MalformedCase> {};

TEST_P(DirectoryMalformed, LookupsEndWithoutLeavingTheirBuffers) {
  const MalformedCase &Case = GetParam();
  SelectSoc(Case.Signature);
  PspImageBuilder Builder;
  PutTree(Builder, Case.Shape, Case.Level2, Case.Level2Bios, Case.Level2Psp);
  for (const auto &[At, Bytes] : Case.Patch) {
    Builder.Put(At, Bytes);
  }
  Place(Builder);
  for (bool Cached : {true, false}) {
    SCOPED_TRACE(Cached ? "caching" : "no caching");
    gConfig.PcdPspDirectorySwitch = Cached ? 1 : 0;
    ForgetBufferStore();
    UINT32 Word = 0, Size = 0;
    UINT64 Source = 0, Destination = 0;
    BOOLEAN Bios = GetBiosEntry(0x60, -1, -1, &Word, &Source, &Size, &Destination);
    EXPECT_EQ(Bios != FALSE, Case.BiosFound);
    EXPECT_EQ(Bios ? Source : 0, Case.BiosSource);

    UINT64 Location = 0;
    EXPECT_EQ(GetPspEntry(0x02, &Location, &Size) != FALSE, Case.PspFound);
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, DirectoryMalformed, ::testing::ValuesIn(kCases));

}  // namespace
