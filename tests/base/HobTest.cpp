// HOB lists from the earlier boot phase are walked only inside the list the hand-off HOB
// describes; damaged HOBs end the walk.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "../../src/base/Guids.h"
#include "../../src/base/Hob.h"

namespace {

class HobWalk : public ::testing::Test {
protected:
  ~HobWalk() override { ResetHobCacheForTest(); }

  // Hand-off HOB, GUID HOBs with the given lengths (contents zero), end HOB.
  void Build(const std::vector<uint16_t> &Lengths, const std::vector<uint16_t> &Layout = {},
             bool NameTheEnd = true) {
    List.assign(sizeof(EFI_HOB_HANDOFF_INFO_TABLE), 0);
    for (size_t Index = 0; Index < Lengths.size(); Index++) {
      const EFI_HOB_GUID_TYPE Hob{{EFI_HOB_TYPE_GUID_EXTENSION, Lengths[Index], 0}, gCmosToRomImageHobGuid};
      const size_t At = List.size(), Occupied = Layout.empty() ? Lengths[Index] : Layout[Index];
      List.resize(At + Occupied, 0);
      std::memcpy(List.data() + At, &Hob, std::min(Occupied, sizeof(Hob)));
    }
    size_t EndAt = List.size();
    const uint8_t End[8] = {0xFF, 0xFF, 8, 0, 0, 0, 0, 0};
    List.insert(List.end(), End, End + 8);
    List.resize(List.size() + 0x10000, 0xEE);  // room a wild length could reach into
    auto *Handoff = reinterpret_cast<EFI_HOB_HANDOFF_INFO_TABLE *>(List.data());
    Handoff->Header.HobType = EFI_HOB_TYPE_HANDOFF;
    Handoff->Header.HobLength = sizeof(*Handoff);
    Handoff->EfiEndOfHobList = NameTheEnd ? reinterpret_cast<EFI_PHYSICAL_ADDRESS>(List.data() + EndAt) : 0;
    Table = {gEfiHobListGuid, List.data()};
    System.NumberOfTableEntries = 1;
    System.ConfigurationTable = &Table;
  }

  size_t Count() {
    size_t Found = 0;
    for (const EFI_HOB_GUID_TYPE *Hob = GetFirstGuidHob(&gCmosToRomImageHobGuid); Hob != nullptr;
         Hob = GetNextGuidHob(&gCmosToRomImageHobGuid, reinterpret_cast<const uint8_t *>(Hob) + Hob->Header.HobLength)) {
      Found++;
    }
    return Found;
  }

  std::vector<uint8_t> List;
  EFI_CONFIGURATION_TABLE Table{};
  EFI_SYSTEM_TABLE System{};
};

TEST_F(HobWalk, StopsAtTheFirstDamagedHob) {
  const struct {
    const char *Name;
    std::vector<uint16_t> Lengths;  // declared lengths of the GUID HOBs after the hand-off HOB
    std::vector<uint16_t> Layout;   // bytes each one really occupies (empty: as declared)
    size_t Found;                   // how many the walk returns before it stops
  } kLists[] = {{"well formed", {32, 24, 64}, {}, 3},
                {"length 0 ends the walk", {32, 0, 32}, {32, 24, 32}, 1},
                {"length not a multiple of 8", {32, 28, 32}, {32, 32, 32}, 1},
                {"length past the end HOB", {32, 0xFFF8}, {32, 32}, 1},
                {"GUID HOB shorter than its header is skipped", {16, 32}, {}, 1}};
  for (const auto &Case : kLists) {
    ResetHobCacheForTest();
    Build(Case.Lengths, Case.Layout);
    ASSERT_EQ(CacheHobList(&System), EFI_SUCCESS) << Case.Name;
    EXPECT_EQ(Count(), Case.Found) << Case.Name;
  }
}

// The DXE core may move the list and leave EfiEndOfHobList pointing at the old place.
TEST_F(HobWalk, MovedListIsBoundedByTheEndHobFoundByWalkingOrNotTakenWithoutOne) {
  Build({32, 40}, {}, false);
  ASSERT_EQ(CacheHobList(&System), EFI_SUCCESS);
  EXPECT_EQ(Count(), 2u);

  ResetHobCacheForTest();
  Build({32, 0}, {32, 32}, false);
  EXPECT_EQ(CacheHobList(&System), EFI_NOT_FOUND);
  EXPECT_EQ(GetHobList(), nullptr);
  EXPECT_EQ(GetFirstGuidHob(&gCmosToRomImageHobGuid), nullptr);
}

}  // namespace
