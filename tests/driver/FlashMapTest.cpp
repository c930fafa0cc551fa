// The flash map: its sources at start, publish or adopt, the lookups with attribute bit 1 and
// instance counting, the end of boot services, and the statuses of malformed maps.
#include <cstring>
#include <string>
#include <vector>

#include "../../src/base/BaseLib.h"
#include "../../src/base/Globals.h"
#include "../../src/base/Guids.h"
#include "../../src/driver/Config.h"
#include "../../src/driver/FlashMap.h"
#include "../../src/driver/LibraryList.h"
#include "../../src/driver/VariableStorePointers.h"
#include "../../tools/lib/FlashMapBuilder.h"
#include "../../tools/lib/ImageBuilder.h"
#include "../support/PlatformFixture.h"

namespace {

const EFI_GUID kTypeA = {0x6a1f0c3e, 0x0d2b, 0x4c55, {0x8e, 0x10, 0x71, 0x2a, 0x9b, 0x33, 0x5d, 0x0a}};
const EFI_GUID kTypeB = {0x6a1f0c3e, 0x0d2b, 0x4c55, {0x8e, 0x10, 0x71, 0x2a, 0x9b, 0x33, 0x5d, 0x0b}};
const EFI_GUID kName1 = {0x2c9b7d11, 0x44e0, 0x4a3f, {0xb2, 0x05, 0x1e, 0x6c, 0x70, 0x88, 0x91, 0x01}};
const EFI_GUID kName2 = {0x2c9b7d11, 0x44e0, 0x4a3f, {0xb2, 0x05, 0x1e, 0x6c, 0x70, 0x88, 0x91, 0x02}};
const EFI_GUID kName3 = {0x2c9b7d11, 0x44e0, 0x4a3f, {0xb2, 0x05, 0x1e, 0x6c, 0x70, 0x88, 0x91, 0x03}};

constexpr UINT64 kBase = 0xFF000000;

// A: instance 1 at 0x1000, an ignored entry, B, then instance 2 of A at 0x3000.
std::vector<uint8_t> SampleMap(UINT64 Base = kBase) {
  return FlashMapBuilder(Base)
      .Add({kTypeA, kName1, 0x1000, 0x100, 0})
      .Add({kTypeA, kName2, 0x2000, 0x200, kFlashMapEntryIgnored})
      .Add({kTypeB, kName2, 0x5000, 0x500, 0})
      .Add({kTypeA, kName3, 0x3000, 0x300, 0x1})
      .AddNamed(kName1, 0x7000, 0x700)
      .Build();
}

class FlashMapTest : public PlatformFixture {
protected:
  // Scans must not meet a map that the default image carries.
  FlashMapTest() { std::memset(Platform->Flash.Bytes(), 0xFF, Platform->Flash.Size()); }
  EFI_STATUS StartMapLibrary() {
    PrepareBoot();
    UefiBootServicesTableLibConstructor(Sim.ImageHandle(), Sim.SystemTable());
    HobLibConstructor(Sim.ImageHandle(), Sim.SystemTable());
    return FlashMapLibConstructor(Sim.ImageHandle(), Sim.SystemTable());
  }
  const VOID *PublishedMap() {
    auto Handles = Sim.HandlesWith(gFlashMapProtocolGuid);
    return Handles.size() == 1 ? Sim.InterfaceOn(Handles[0], gFlashMapProtocolGuid) : nullptr;
  }
  void AddMapHob(const std::vector<uint8_t> &Map) { Hobs.AddGuidHob(gFlashMapHobGuid, Map.data(), Map.size()); }
  void PutInFlash(UINT64 Address, const std::vector<uint8_t> &Map) {
    Platform->Flash.Load(static_cast<UINT32>(Address - Platform->FlashBaseAddress), Map.data(),
                         static_cast<UINT32>(Map.size()));
  }
};

// Each map is SampleMap(base); a base of 0 means no such map.
struct SourceCase {
  const char *Name;
  bool Recovery;
  std::vector<UINT64> Hobs;  // maps in flash-map HOBs, in order
  UINT64 AddressHob;         // the map a recovery address HOB names
  UINT64 Theirs;             // the map another driver published first
  UINT64 AtScanStep;         // the map in flash at 0xFF0EA000
  UINT64 AtPcd;              // the map in flash at 0xFF010000, the address the PCD names
  EFI_STATUS Expected;
  UINT64 Base;  // of the map the lookups answer from, and on success the map published
};

void PrintTo(const SourceCase &Case, std::ostream *Out) { *Out << Case.Name; }

const SourceCase kSources[] = {
    {"HobMapIsCopiedAndPublished", false, {kBase}, 0, 0, 0, 0, EFI_SUCCESS, kBase},
    {"LastOfSeveralHobsWins", false, {0x1000000, 0x2000000}, 0, 0, 0, 0, EFI_SUCCESS, 0x2000000},
    {"MapOfAnotherDriverIsAdopted", false, {kBase}, 0, 0x3000000, 0, 0, EFI_SUCCESS, 0x3000000},
    {"WithoutHobOutsideRecoveryTheLookupsScan", false, {}, 0, 0, kBase, 0, EFI_NOT_FOUND, kBase},
    {"RecoveryTakesTheAddressHob", true, {}, 0x4000000, 0, 0, 0, EFI_SUCCESS, 0x4000000},
    {"RecoveryTakesThePcdAddressWhenItHoldsAMap", true, {}, 0, 0, 0x5000000, 0x6000000, EFI_SUCCESS, 0x6000000},
    {"RecoveryScansWhenThePcdAddressHoldsNoMap", true, {}, 0, 0, 0x5000000, 0, EFI_SUCCESS, 0x5000000},
    {"RecoveryWithoutAnyMap", true, {}, 0, 0, 0, 0, EFI_NOT_FOUND, 0},
};

class FlashMapSources : public FlashMapTest, public ::testing::WithParamInterface<SourceCase> {};

TEST_P(FlashMapSources, GivesItsStatusPublishesACopyAndAnswersFromIt) {
  const SourceCase &Case = GetParam();
  if (Case.Recovery) {
    Hobs.Handoff()->BootMode = BOOT_IN_RECOVERY_MODE;
  }
  for (UINT64 Base : Case.Hobs) {
    AddMapHob(SampleMap(Base));
  }
  std::vector<uint8_t> Named = SampleMap(Case.AddressHob), Theirs = SampleMap(Case.Theirs);
  const UINT64 Address = reinterpret_cast<UINT64>(Named.data());
  if (Case.AddressHob != 0) {
    Hobs.AddGuidHob(gFlashMapAddressHobGuid, &Address, sizeof(Address));
  }
  EFI_HANDLE Handle = nullptr;
  if (Case.Theirs != 0) {
    Sim.Install(&Handle, gFlashMapProtocolGuid, Theirs.data());
  }
  if (Case.AtScanStep != 0) {
    PutInFlash(0xFF0EA000, SampleMap(Case.AtScanStep));
  }
  if (Case.AtPcd != 0) {
    PutInFlash(0xFF010000, SampleMap(Case.AtPcd));
  }
  Sim.SetPcd(gFlashMapTokenSpaceGuid, kFlashMapAddressToken, 0xFF010000);

  EXPECT_EQ(StartMapLibrary(), Case.Expected);
  ASSERT_EQ(PublishedMap() != nullptr, Case.Expected == EFI_SUCCESS);
  if (Case.Expected == EFI_SUCCESS) {
    EXPECT_EQ(EventTpls.at(mFlashMapEvent), static_cast<EFI_TPL>(TPL_NOTIFY));
    EXPECT_EQ(mFlashMap, PublishedMap());
    if (Case.Theirs == 0) {
      EXPECT_EQ(PoolTypes.at(PublishedMap()), EfiRuntimeServicesData) << "kept after boot services end";
    }
    const std::vector<uint8_t> Map = SampleMap(Case.Base);
    EXPECT_EQ(std::memcmp(PublishedMap(), Map.data(), Map.size()), 0);
  }
  EXPECT_EQ(FlashMapGetBase(), Case.Base);
  EXPECT_EQ(FlashMapGetAddress(&kTypeB, 1), Case.Base == 0 ? 0 : Case.Base + 0x5000);
}

INSTANTIATE_TEST_SUITE_P(EachSource, FlashMapSources, ::testing::ValuesIn(kSources),
                         [](const auto &Info) { return std::string(Info.param.Name); });

// Recovery without HOBs whose PCD address holds no map: the scan's hit is kept with the
// bytes the window has from the hit on, not with those from the PCD's address. Under the
// sanitizer a copy that reads past the window's end fails the test.
TEST_F(FlashMapTest, RecoveryScanHitIsPublishedWithItsOwnExtentWhereverThePcdPoints) {
  const struct {
    UINT64 Pcd, MapAt;
    UINT32 TotalSize;  // 0: the sample's own
    EFI_STATUS Expected;
  } kRows[] = {
      {0, 0xFF0EA000, 0, EFI_SUCCESS},
      {0xFFFFFF00, 0xFF0EA000, 0, EFI_SUCCESS},                    // 256 bytes left above the PCD
      {0xFFFFE000, 0xFFFFF000, 0x1800, EFI_VOLUME_CORRUPTED},      // the map claims more than remains
  };
  Hobs.Handoff()->BootMode = BOOT_IN_RECOVERY_MODE;
  for (const auto &Row : kRows) {
    ResetFlashMapForTest();
    std::memset(Platform->Flash.Bytes(), 0xFF, Platform->Flash.Size());
    std::vector<uint8_t> Map = SampleMap();
    if (Row.TotalSize != 0) {
      SetFlashMapField32(Map, offsetof(FlashMapHeader, TotalSize), Row.TotalSize);
      SealFlashMapHeader(Map);
    }
    PutInFlash(Row.MapAt, Map);
    Sim.SetPcd(gFlashMapTokenSpaceGuid, kFlashMapAddressToken, Row.Pcd);
    EXPECT_EQ(StartMapLibrary(), Row.Expected) << std::hex << Row.Pcd;
    const VOID *Published = PublishedMap();
    EXPECT_EQ(Published != nullptr, Row.Expected == EFI_SUCCESS) << std::hex << Row.Pcd;
    if (Published != nullptr) {
      EXPECT_EQ(std::memcmp(Published, Map.data(), Map.size()), 0);
      for (EFI_HANDLE Handle : Sim.HandlesWith(gFlashMapProtocolGuid)) {
        Sim.BootServices()->UninstallProtocolInterface(Handle, const_cast<EFI_GUID *>(&gFlashMapProtocolGuid),
                                                       const_cast<VOID *>(Published));
      }
    }
    EXPECT_EQ(FlashMapGetAddress(&kTypeB, 1), kBase + 0x5000) << std::hex << Row.Pcd;
    FlashMapLibDestructor(Sim.ImageHandle(), Sim.SystemTable());
  }
}

TEST_F(FlashMapTest, ScanLooksOnlyAt4KiBStepsInsideTheConfiguredSizeAndKeepsItsHit) {
  PutInFlash(0xFF0EA800, SampleMap());  // half-way between two steps
  EXPECT_EQ(StartMapLibrary(), EFI_NOT_FOUND);
  EXPECT_EQ(mFlashMapEvent, nullptr);
  EXPECT_EQ(FlashMapFind(), nullptr);

  PutInFlash(0xFF800000, SampleMap());
  gConfig.PcdFlashSize = 0x800000;
  EXPECT_EQ(FlashMapFind(), nullptr) << "offset 0x800000 is the bound, not searched";
  gConfig.PcdFlashSize = 0x801000;
  EXPECT_EQ(FlashMapGetAddress(&kTypeA, 1), kBase + 0x1000);
  EXPECT_EQ(mFlashMap, Platform->Flash.Bytes() + 0x800000) << "the hit is kept";
}

TEST_F(FlashMapTest, AfterExitBootServicesEveryLookupIsUnsupported) {
  AddMapHob(SampleMap());
  ASSERT_EQ(StartMapLibrary(), EFI_SUCCESS);
  Sim.SignalEventGroup(gEfiEventExitBootServicesGuid);
  EXPECT_EQ(mFlashMapEvent, nullptr);
  UINT64 Address = 0;
  EXPECT_EQ(FlashMapGetAddress(&kTypeA, 1) + FlashMapGetBase(), 0u);
  EXPECT_EQ(FlashMapFindEntry(&kTypeA, 1, nullptr, nullptr, nullptr, nullptr), EFI_UNSUPPORTED);
  EXPECT_EQ(FlashMapFindByName(&kName1, &Address, nullptr), EFI_UNSUPPORTED);
}

TEST_F(FlashMapTest, IgnoredEntriesAreInvisibleAndInstancesCountUsableEntries) {
  std::vector<uint8_t> Map = SampleMap();
  UseFlashMapForTest(Map.data(), Map.size());
  EFI_GUID Name = {};
  UINT64 Offset = 0, Size = 0;
  UINT32 Attributes = 0;
  ASSERT_EQ(FlashMapFindEntry(&kTypeA, 2, &Name, &Offset, &Size, &Attributes), EFI_SUCCESS);
  EXPECT_TRUE(CompareGuid(&Name, &kName3)) << "the second usable A, not the second A of the map";
  EXPECT_EQ(Offset, 0x3000u);
  EXPECT_EQ(Attributes, 0x1u) << "other attribute bits do not hide an entry";
  EXPECT_EQ(FlashMapFindEntry(&kTypeA, 3, &Name, &Offset, &Size, &Attributes), EFI_NOT_FOUND);
  EXPECT_EQ(Offset, 0u) << "outputs are zeroed";
  EXPECT_EQ(FlashMapFindEntry(&kTypeA, 0, &Name, &Offset, &Size, &Attributes), EFI_INVALID_PARAMETER);
}

TEST_F(FlashMapTest, NamedAreasAreFoundByNameTheLastUsableWinningWithinAnEightBitCount) {
  std::vector<uint8_t> Map = FlashMapBuilder(kBase)
                                 .AddNamed(kName2, 0x100, 0x10)
                                 .Add({gFlashMapNamedAreaGuid, kName1, 0x200, 0x20, kFlashMapEntryIgnored})
                                 .Add({kTypeA, kName1, 0x300, 0x30, 0})
                                 .AddNamed(kName1, 0x400, 0x40)
                                 .Build();
  UseFlashMapForTest(Map.data(), Map.size());
  UINT64 Address = 0, Size = 0;
  EXPECT_EQ(FlashMapFindByName(&kName1, &Address, &Size), EFI_SUCCESS);
  EXPECT_EQ(Address + Size, kBase + 0x400 + 0x40);
  EXPECT_EQ(FlashMapFindByName(&kName3, &Address, &Size), EFI_NOT_FOUND);

  // 254 or 255 filler areas before the one searched for: 256 entries count as 0.
  for (UINT32 Filler : {254u, 255u}) {
    FlashMapBuilder Builder(kBase);
    for (UINT32 Index = 0; Index < Filler; Index++) {
      Builder.AddNamed(kName2, Index, 1);
    }
    std::vector<uint8_t> Long = Builder.AddNamed(kName1, 0x999, 9).Build();
    UseFlashMapForTest(Long.data(), Long.size());
    UINT8 Count = 1;
    EXPECT_EQ(FlashMapCountEntries(&Count), EFI_SUCCESS);
    EXPECT_EQ(Count, static_cast<UINT8>(Filler + 1));
    EXPECT_EQ(FlashMapFindByName(&kName1, &Address, nullptr), Filler == 254 ? EFI_SUCCESS : EFI_NOT_FOUND);
  }
}

// The variable-store pointers of the 17th constructor: the named area first, else the first
// area of the store type.
TEST_F(FlashMapTest, VariableStorePointersComeFromTheNamedAreaOrTheFirstOfTheType) {
  const std::vector<uint8_t> Maps[] = {
      FlashMapBuilder(kBase)
          .Add({gNvVariableStoreRegionGuid, kName1, 0x14A000, 0x30000, 0})
          .AddNamed(gNvVariableStoreRegionGuid, 0x200000, 0x10000)
          .Build(),
      FlashMapBuilder(kBase).Add({gNvVariableStoreRegionGuid, kName1, 0x14A000, 0x30000, 0}).Build(),
      SampleMap(),
  };
  const UINT64 Expected[][2] = {{kBase + 0x200000, 0x10000}, {kBase + 0x14A000, 0x30000}, {0, 0}};
  for (size_t Index = 0; Index < 3; Index++) {
    UseFlashMapForTest(Maps[Index].data(), Maps[Index].size());
    ResetVariableStorePointersForTest();
    EXPECT_EQ(VariableStorePointerLibConstructor(Sim.ImageHandle(), Sim.SystemTable()),
              Expected[Index][0] == 0 ? EFI_NOT_FOUND : EFI_SUCCESS);
    EXPECT_EQ(reinterpret_cast<UINT64>(mNvVariableStore), Expected[Index][0]) << Index;
    EXPECT_EQ(mNvVariableStoreSize, Expected[Index][1]) << Index;
  }
}

TEST_F(FlashMapTest, EveryHeaderBitFlipIsCaught) {
  gConfig.PcdFlashSize = 0;  // no flash to fall back on
  const std::vector<uint8_t> Good = SampleMap();
  for (size_t Bit = 0; Bit < 28 * 8; Bit++) {
    std::vector<uint8_t> Map = Good;
    Map[Bit / 8] ^= static_cast<uint8_t>(1u << (Bit % 8));
    UseFlashMapForTest(Map.data(), Map.size());
    EFI_STATUS Expected = Bit < 32 ? EFI_NOT_FOUND : EFI_SECURITY_VIOLATION;
    EXPECT_EQ(FlashMapFindEntry(&kTypeA, 1, nullptr, nullptr, nullptr, nullptr), Expected) << "bit " << Bit;
    UINT64 Address = 1;
    EXPECT_EQ(FlashMapFindByName(&kName1, &Address, nullptr), EFI_NOT_FOUND) << "bit " << Bit;
  }
}

// One row per refusal branch, each with its exact statuses; the fuzz harness covers random
// damage. Exactly the bytes that exist are on the heap: a read past them fails under ASan.
TEST_F(FlashMapTest, MalformedMapsGiveTheStatusesOfTheirBranch) {
  gConfig.PcdFlashSize = 0;  // no flash to fall back on
  constexpr EFI_STATUS kViolation = EFI_SECURITY_VIOLATION;
  // The sample's entries: A (0x1C), A ignored (0x50), B (0x84), A (0xB8), named (0xEC); end 0x120.
  const struct {
    const char *Name;
    size_t Field;  // header field to set
    UINT32 Value;
    EFI_STATUS FindFirstA, FindB, Count;
    UINT8 Counted;
  } kRows[] = {
      {"stride 0", offsetof(FlashMapHeader, EntrySize), 0, kViolation, kViolation, kViolation, 0},
      {"first entry at the end", offsetof(FlashMapHeader, EntriesOffset), 0x120, EFI_NOT_FOUND, EFI_NOT_FOUND,
       EFI_SUCCESS, 0},
      {"TotalSize cuts an entry", offsetof(FlashMapHeader, TotalSize), 0x84 + 51, EFI_SUCCESS, EFI_NOT_FOUND,
       EFI_SUCCESS, 1},
      {"TotalSize near 4 GiB (the unignored entries counted)", offsetof(FlashMapHeader, TotalSize), 0xFFFFFFFF,
       EFI_SUCCESS, EFI_SUCCESS, EFI_SUCCESS, 4},
  };
  for (const auto &Row : kRows) {
    std::vector<uint8_t> Map = SampleMap();
    SetFlashMapField32(Map, Row.Field, Row.Value);
    SealFlashMapHeader(Map);
    Map.shrink_to_fit();
    UseFlashMapForTest(Map.data(), Map.size());
    EXPECT_EQ(FlashMapFindEntry(&kTypeA, 1, nullptr, nullptr, nullptr, nullptr), Row.FindFirstA) << Row.Name;
    EXPECT_EQ(FlashMapFindEntry(&kTypeB, 1, nullptr, nullptr, nullptr, nullptr), Row.FindB) << Row.Name;
    UINT8 Count = 0xEE;
    EXPECT_EQ(FlashMapCountEntries(&Count), Row.Count) << Row.Name;
    EXPECT_EQ(Count, Row.Counted) << Row.Name;
  }
}

}  // namespace
