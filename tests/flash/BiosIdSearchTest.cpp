// The "$BID" search over a BIOS-ID area read from flash: malformed or hostile areas give
// "not found", never a read outside the area (the area is an exactly sized heap copy, so
// ASan reports any overrun).
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "../../src/flash/BiosIdRecord.h"

namespace {

struct Placed {
  size_t Offset;
  const char *Bytes;  // signature and ID as they lie in flash
};

struct SearchCase {
  const char *Name;
  size_t AreaSize;
  std::vector<Placed> Records;
  const char *ExpectedId;  // nullptr: nothing found
};

class ImageQueryBiosIdSearch : public ::testing::TestWithParam<SearchCase> {};

TEST_P(ImageQueryBiosIdSearch, FindsTheRecordNearestTheEndWithinTheWindow) {
  const SearchCase &Case = GetParam();
  std::unique_ptr<UINT8[]> Area(new UINT8[Case.AreaSize == 0 ? 1 : Case.AreaSize]);
  std::fill(Area.get(), Area.get() + Case.AreaSize, 0xFF);
  for (const Placed &Record : Case.Records) {
    const size_t Length = std::min(std::char_traits<char>::length(Record.Bytes), Case.AreaSize - Record.Offset);
    std::copy(Record.Bytes, Record.Bytes + Length, Area.get() + Record.Offset);
  }
  UINT8 Id[kBiosIdLength] = {'-', '-', '-', '-', '-'};
  const BOOLEAN Found = FindBiosId(ByteView(Area.get(), Case.AreaSize), Id);
  if (Case.ExpectedId == nullptr) {
    EXPECT_FALSE(Found);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(Id), kBiosIdLength), "-----") << "a miss leaves the ID alone";
  } else {
    EXPECT_TRUE(Found);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(Id), kBiosIdLength), Case.ExpectedId);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Areas, ImageQueryBiosIdSearch,
    ::testing::Values(
        SearchCase{"NotOnAStep", 0x100, {{0x18, "$BIDABCDE"}}, nullptr},
        SearchCase{"StepsCountFromTheEndOfAnOddSize", 0x45, {{0x25, "$BIDODD_1"}, {0x30, "$BIDEVEN1"}}, "ODD_1"},
        SearchCase{"NearestTheEndWins", 0x1000, {{0x20, "$BIDFIRST"}, {0xFE0, "$BIDLAST_"}, {0x800, "$BIDMIDDL"}},
                   "LAST_"},
        SearchCase{"LowestPositionOfTheWindow", 0x10010, {{0x10, "$BIDLOWST"}}, "LOWST"},
        SearchCase{"WholeWindowOfALargeArea", 0x30000, {{0x20000, "$BIDWINDW"}, {0x1FFF0, "$BIDOUTSD"}}, "WINDW"},
        SearchCase{"SignatureWithAWrongByte", 0x100, {{0x40, "$BIE"}, {0x50, "$bid"}, {0x60, "BID$"}}, nullptr}),
    [](const auto &Info) { return std::string(Info.param.Name); });

}  // namespace
