// Whole directory trees in the emulated flash: every shape the builder makes, found through
// GetBiosEntry and GetPspEntry at the places the builder put them; the A/B choices; the
// level-1 searches; the caches.
#include <cstring>
#include <vector>

#include "../../src/driver/Config.h"
#include "../../src/psp/HeapBuffer.h"
#include "../../src/psp/PspDirectory.h"
#include "../../src/psp/Soc.h"
#include "PspTestSupport.h"

namespace {

using namespace PspImage;

struct Found {
  BOOLEAN Ok = FALSE;
  UINT32 TypeWord = 0, Size = 0;
  UINT64 Source = 0, Destination = 0;
};

Found BiosEntry(UINT8 Type, INT8 Instance = -1) {
  Found F;
  F.Ok = GetBiosEntry(Type, Instance, -1, &F.TypeWord, &F.Source, &F.Size, &F.Destination);
  return F;
}

// Counts, then primary and secondary index, priority and level-2 location of a summary.
std::vector<UINT32> Summary(const AbInfo *Info) {
  return {UINT32{Info->PointerEntryCount}, UINT32(Info->ActiveCount), UINT32(Info->InactiveCount),
          UINT32(Info->PrimaryIndex), UINT32{Info->Primary.Priority}, UINT32{Info->Primary.Level2Location},
          UINT32(Info->SecondaryIndex), UINT32{Info->Secondary.Priority}, UINT32{Info->Secondary.Level2Location}};
}

class PspTree : public PspFixture {
protected:
  PspImage::PspTree Use(UINT32 Signature, const PspTreeOptions &Options) {
    SelectSoc(Signature);
    PspImage::PspTree Tree = BuildPspTree(Options);
    Place(Tree.Builder);
    return Tree;
  }

  void ExpectEntry(const PlacedBiosEntry *Expected, const char *What) {
    ASSERT_NE(Expected, nullptr) << What;
    Found F = BiosEntry(static_cast<UINT8>(Expected->TypeWord & 0xFF));
    ASSERT_TRUE(F.Ok) << What;
    EXPECT_EQ((std::vector<UINT64>{F.TypeWord, F.Source, F.Size, F.Destination}),
              (std::vector<UINT64>{Expected->TypeWord, Expected->Source, Expected->Size, Expected->Destination}))
        << What;
  }
};

// One row per shape; the A/B rows write their "$PL2" -> "$BL2" entries and items in modes 1 to 3.
TEST_F(PspTree, ApcbAndApobFoundWhereTheBuilderPutThem) {
  const struct {
    const char *Name;
    UINT32 Signature;
    TreeShape Shape;
    UINT32 PspId, BiosPointerOffset;
    bool SixteenBit, LocationsAsOffsets;
    AddressMode Mode;
  } kShapes[] = {
      {"PlainNarrowWindow", kSigRow13Narrow, TreeShape::Plain, 0xBC090000, 0x18, false, false, AddressMode::Physical},
      {"PlainWideWindowOffsets", kSigRow9Plain, TreeShape::Plain, 0xBC0B0D00, 0x28, false, true, AddressMode::Physical},
      {"Combo", kSigRow7Combo, TreeShape::Combo, 0xBC0C0140, 0x28, false, false, AddressMode::Physical},
      {"AbPair", kSigRow9Plain, TreeShape::AbPair, 0xBC0B0D00, 0x28, false, false, AddressMode::FlashOffset},
      {"AbKind1", kSigRow10Kind1, TreeShape::AbKind1, 0xBC0B0800, 0, false, false, AddressMode::DirectoryRelative},
      {"AbKind2SixteenBit", kSigRow22Sixteen, TreeShape::AbKind2, 0xBC0D0600, 0, true, false,
       AddressMode::SlotRelative},
  };
  for (const auto &Shape : kShapes) {
    SCOPED_TRACE(Shape.Name);
    ForgetBufferStore();
    PspImage::PspTree Tree = Use(Shape.Signature, {.Shape = Shape.Shape,
                                                   .SixteenBitTypes = Shape.SixteenBit,
                                                   .PspId = Shape.PspId,
                                                   .BiosPointerOffset = Shape.BiosPointerOffset,
                                                   .LocationsAsOffsets = Shape.LocationsAsOffsets,
                                                   .SourceMode = Shape.Mode});
    for (UINT8 Type : {kTypeApcb, kTypeApcbBackup, kTypeApob}) {
      ExpectEntry(Tree.Find(Type), "copy A");
    }
    EXPECT_FALSE(BiosEntry(0x61).Ok) << "a type the tree does not hold";
    EXPECT_TRUE(Assertions().empty());
  }
}

using PspAbCopies = PspTree;

TEST_F(PspAbCopies, CopyBOnlyWhenTheRecoveryFlagIsSwitchedOnAndSet) {
  for (TreeShape Shape : {TreeShape::AbKind2, TreeShape::AbPair}) {
    PspImage::PspTree Tree = Use(kSigRow3Kind2, {.Shape = Shape});
    Platform->Soc.SetBootedFromRecovery(TRUE);
    gConfig.PcdPspRecoverySwitch = 0;
    ExpectEntry(Tree.Find(kTypeApcb), "switch off: copy A");
    ForgetBufferStore();
    gConfig.PcdPspRecoverySwitch = 1;
    ExpectEntry(Tree.Find(kTypeApob, true), "booted from B");
    ForgetBufferStore();
    Platform->Soc.SetBootedFromRecovery(FALSE);
    ExpectEntry(Tree.Find(kTypeApcb), "booted from A");
    ForgetBufferStore();
  }
}

TEST_F(PspAbCopies, KindOneHigherPriorityCopyIsPrimary) {
  PspImage::PspTree Tree = Use(
      kSigRow10Kind1,
      {.Shape = TreeShape::AbKind1, .PspId = 0xBC0B0800, .KindOnePriorityA = 1, .KindOnePriorityB = 7});
  ExpectEntry(Tree.Find(kTypeApcb, true), "primary is the B entry");
  ForgetBufferStore();

  // Priorities 3, 5, 5: the first 5 is primary, an equal priority does not displace it.
  PspImageBuilder B;
  B.Put(0xF83000, PspImage::AbHeaderKind1(3, 0xFFF84000));
  B.Put(0xF83100, PspImage::AbHeaderKind1(5, 0xFFF85000));
  B.Put(0xF83200, PspImage::AbHeaderKind1(5, 0xFFF86000));
  auto Level1 = HeldDirectory(PspDirectory("$PSP", {{kTypeCopyA, 16, 0xFFF83000},
                                                    {kTypeCopyB, 16, 0xFFF83100},
                                                    {kTypeCopyA, 16, 0xFFF83200}}));
  Place(B);
  const AbInfo *Info = nullptr;
  ASSERT_TRUE(BuildAbInfo(Level1.data(), &Info));
  EXPECT_EQ(Summary(Info), (std::vector<UINT32>{3, 3, 0, 1, 5, 0xFFF85000, 2, 5, 0xFFF86000}));
}

// With A and B copies, a type the selected "$BL2" lacks is not found, even when a "$BHD"
// the EFS names holds it.
TEST_F(PspAbCopies, ATypeMissingFromTheSelectedCopyIsNotLookedForInBhd) {
  const struct {
    UINT32 Signature;
    TreeShape Shape;
    UINT32 PspId;
    UINT32 BiosDirectory;  // at EFS offset 0x28: a "$BHD", or the "2BHD" of a combo SoC
  } kRows[] = {{kSigRow9Plain, TreeShape::AbPair, 0xBC0B0D00, 0xFFFC0000},
               {kSigRow10Kind1, TreeShape::AbKind1, 0xBC0B0800, 0xFFFC1000}};
  for (const auto &Row : kRows) {
    ForgetBufferStore();
    PspImage::PspTree Tree = Use(Row.Signature, {.Shape = Row.Shape, .PspId = Row.PspId});
    PspImageBuilder B;
    B.Put(0xFC0000, BiosDirectory("$BHD", {{0x61, 0x100, 0xFFF90000, 0}}));
    B.Put(0xFC1000, ComboDirectory("2BHD", {{Row.PspId, 0xFFFC0000}}));
    B.Put(0x20000, Efs({.PspDirectory = static_cast<uint32_t>(Tree.PspDirectory),
                        .BiosPointerOffset = 0x28,
                        .BiosDirectory = Row.BiosDirectory}));
    Place(B);
    const UINT8 *Bios = nullptr;
    ASSERT_TRUE(GetBiosDirectory(&Bios)) << "the \"$BHD\" is reachable";
    EXPECT_FALSE(BiosEntry(0x61).Ok);
    ExpectEntry(Tree.Find(kTypeApcb), "the selected copy still answers");
  }
}

TEST_F(PspAbCopies, SummaryFailures) {
  auto Level1 = HeldDirectory(PspDirectory("$PSP", {{kTypeCopyA, 16, 0xFFF83000}, {kTypeCopyB, 16, 0xFFF83100}}));
  const AbInfo *Info = nullptr;

  SelectSoc(kSigRow10Kind1);  // both priorities 0: no active copy
  PspImageBuilder Zero;
  Zero.Put(0xF83000, PspImage::AbHeaderKind1(0, 0xFFF84000)).Put(0xF83100, PspImage::AbHeaderKind1(0, 0xFFF85000));
  Place(Zero);
  EXPECT_FALSE(BuildAbInfo(Level1.data(), &Info));
  SelectSoc(kSigRow9Plain);  // a SoC without an A/B scheme
  EXPECT_FALSE(BuildAbInfo(Level1.data(), &Info));
  auto Unreadable = HeldDirectory(PspDirectory("$PSP", {{kTypeCopyA, 16, 0x80000000}}));
  SelectSoc(kSigRow10Kind1);
  EXPECT_FALSE(BuildAbInfo(Unreadable.data(), &Info));
  SelectSoc(kSigRow3Kind2);
  EXPECT_FALSE(BuildAbInfo(Unreadable.data(), &Info));
  SelectSoc(kSigNoSoc);
  EXPECT_FALSE(BuildAbInfo(Level1.data(), &Info));
  EXPECT_EQ(Assertions(), (std::vector<UINT32>{0x22010667, 0x22010646, 0x22010587}));
}

using PspLevel1 = PspTree;

TEST_F(PspLevel1, LevelTwoFirstExceptForTypeSeventyAndInstancesSelectAmongOneType) {
  SelectSoc(kSigRow9Plain);
  PspImageBuilder B;
  B.Put(0x20000, Efs({.PspDirectory = 0xFFF80000, .BiosPointerOffset = 0x28, .BiosDirectory = 0xFFF82000}));
  B.Put(0xF80000, PspDirectory("$PSP", {{0x01, 0x100, 0xFFF8C000}}));
  B.Put(0xF82000, BiosDirectory("$BHD", {{0x60, 0x100, 0xFFF90000, 0},
                                         {0x62, 0x100, 0xFFF91000, 0},
                                         {BiosTypeWord(0x68, 0), 0x100, 0xFFF94000, 0},
                                         {BiosTypeWord(0x68, 1, 2), 0x100, 0xFFF95000, 0},
                                         {0x70, 0x400, 0xFFF86000, 0}}));
  B.Put(0xF86000, BiosDirectory("$BL2", {{0x70, 0x100, 0xFFF92000, 0},
                                         {BiosTypeWord(0x60, 0, 1), 0x100, 0xFFF93000, 0},
                                         {BiosTypeWord(0x60, 3, 1), 0x100, 0xFFF96000, 0}}));
  Place(B);
  EXPECT_EQ(BiosEntry(0x70).Source, 0xFFF86000u) << "the level-1 entry, not the one in \"$BL2\"";
  EXPECT_EQ(BiosEntry(0x60).Source, 0xFFF93000u) << "level 2 first";
  EXPECT_EQ(BiosEntry(0x62).Source, 0xFFF91000u) << "level 1 when level 2 lacks the type";
  EXPECT_EQ(BiosEntry(0x68, 1).Source, 0xFFF95000u);
  EXPECT_EQ(BiosEntry(0x68, -1).Source, 0xFFF94000u);
  EXPECT_EQ(BiosEntry(0x60, 3).Source, 0xFFF96000u);
  EXPECT_FALSE(BiosEntry(0x60, 2).Ok);
}

// Level-2 PSP entries match on type, sub-program byte and bits 22:19 together; a cached
// directory counts only when it is a "$PL2".
TEST_F(PspLevel1, Level2PspEntriesMatchTypeSubProgramAndSelectorBits) {
  SelectSoc(kSigRow9Plain);
  PspImageBuilder B;
  B.Put(0xF84000, PspDirectory("$PL2", {{0x02, 0x10, 0xFFF8D000},
                                        {0x0102, 0x20, 0xFFF8E000},
                                        {0x0102 | (1u << 19), 0x30, 0xFFF8F000}}));
  Place(B);
  auto Foreign = HeldDirectory(PspDirectory("$PSP", {{0x0102, 0x40, 0xFFF80000}}));
  std::memcpy(PspDirectoryDetail::CacheBuffer(kHandlePspLevel2Cache, kDirectoryBufferSize), Foreign.data(), Foreign.size());
  const struct {
    UINT32 Wanted;
    UINT64 Location;
  } kRows[] = {{0x0102 | (1u << 19), 0xFFF8F000}, {0x0102, 0xFFF8E000}, {0x02 | (1u << 23), 0xFFF8D000}};
  for (const auto &Row : kRows) {
    UINT64 Location = 0;
    UINT32 Size = 0;
    ASSERT_TRUE(GetPspL2Entry(Row.Wanted, 0xFFF84000, &Location, &Size)) << std::hex << Row.Wanted;
    EXPECT_EQ(Location, Row.Location) << std::hex << Row.Wanted;
  }
}

TEST_F(PspLevel1, KindTwoSocTriesTheAlternatePspDirectory) {
  SelectSoc(kSigRow3Kind2);
  PspImageBuilder B;
  B.Put(0x20000, Efs({.PspDirectory = 0xFFF80000, .AlternatePspDirectory = 0xFFF88000}));
  B.Put(0xF80000, ComboDirectory("2PSP", {{0xBC0A0100, 0xFFF89000}}));
  B.Put(0xF88000, PspDirectory("$PSP", {{0x05, 0x100, 0xFFF8C000}}));
  Place(B);
  UINT64 Location = 0;
  UINT32 Size = 0;
  ASSERT_TRUE(GetPspEntry(0x05, &Location, &Size));
  EXPECT_EQ(Location, 0xFFF8C000u);
}

// 8-bit SoCs search every candidate offset, 16-bit ones only the first; a generation the
// processor refuses is passed over.
TEST_F(PspLevel1, EfsSearchOrderAndGeneration) {
  SelectSoc(kSigRow9Plain);
  PspImageBuilder Late;
  Late.Put(0xFA0000, Efs({.PspDirectory = 0xFFF80000}));
  Late.Put(0xF80000, PspDirectory("$PSP", {{0x01, 0x100, 0xFFF8C000}}));
  Place(Late);
  const UINT8 *Directory = nullptr;
  EXPECT_TRUE(GetPspDirectory(&Directory));
  ForgetBufferStore();

  // The search stops at the first unreadable candidate, past the 16 MiB chip.
  SelectSoc(kSigRow22Sixteen);
  Platform->ClearPortLog();
  EXPECT_FALSE(GetPspDirectory(&Directory));
  EXPECT_EQ(Assertions(), std::vector<UINT32>{0x22011179});
  ForgetBufferStore();

  SelectSoc(kSigRow9Plain);
  PspImageBuilder Old;
  Old.Put(0x20000, Efs({.PspDirectory = 0xFFF81000, .Generation = 0xFF}));
  Old.Put(0xF81000, PspDirectory("$PSP", {{0x07, 0x100, 0xFFF8D000}}));
  Place(Old);
  UINT64 Location = 0;
  UINT32 Size = 0;
  EXPECT_TRUE(GetPspEntry(0x01, &Location, &Size)) << "the EFS at 0xFA0000";
  EXPECT_FALSE(GetPspEntry(0x07, &Location, &Size));
}

TEST_F(PspLevel1, UnknownSocAndMissingBiosPointer) {
  SelectSoc(kSigNoSoc);
  const UINT8 *Directory = nullptr;
  EXPECT_FALSE(GetPspDirectory(&Directory));
  EXPECT_FALSE(GetBiosDirectory(&Directory));
  EXPECT_EQ(Assertions(), (std::vector<UINT32>{0x22011152, 0x22011331}));

  // The reference SoC keeps no BIOS directory pointer in the EFS: none is read.
  Platform->ClearPortLog();
  Use(kSigRow3Kind2, {.Shape = TreeShape::Plain, .BiosPointerOffset = 0x28});
  EXPECT_FALSE(GetBiosDirectory(&Directory));
  EXPECT_TRUE(Assertions().empty());
}

using PspDirectoryCache = PspTree;

TEST_F(PspDirectoryCache, ValidCopiesServeLaterLookupsAndWithoutCachingEveryLookupReadsTheFlash) {
  for (UINT8 Switch : {1, 0}) {
    SCOPED_TRACE(int(Switch));
    gConfig.PcdPspDirectorySwitch = Switch;
    ForgetBufferStore();
    PspImage::PspTree Tree = Use(kSigRow3Kind2, {});
    ExpectEntry(Tree.Find(kTypeApcb), "first lookup");
    std::memset(Chip(0xF80000), 0xFF, 0x8000);  // the tree is gone from flash
    if (Switch == 0) {
      EXPECT_FALSE(BiosEntry(kTypeApcb).Ok);
      continue;
    }
    ExpectEntry(Tree.Find(kTypeApob), "served from the caches");
    VOID *Cached = nullptr;
    ASSERT_TRUE(GetHeapBuffer(41021, kDirectoryBufferSize, &Cached));
    static_cast<UINT8 *>(Cached)[8] ^= 1;  // a cached "$PSP" that no longer validates is read again
    EXPECT_FALSE(BiosEntry(kTypeApcb).Ok);
  }
}

}  // namespace
