// The "$BID" search over a BIOS-ID area read from flash: malformed or hostile areas give
// "not found", never a read outside the area.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "../../src/flash/BiosIdRecord.h"

namespace {

TEST(ImageQueryBiosIdSearch, FindsTheRecordNearestTheEndWithinTheWindow) {
  const struct {
    const char *Name;
    size_t AreaSize;
    std::vector<std::pair<size_t, const char *>> Records;  // offset, signature and ID as they lie in flash
    const char *ExpectedId;  // nullptr: nothing found
  } kRows[] = {
      {"not on a step", 0x100, {{0x18, "$BIDABCDE"}}, nullptr},
      {"steps count from the end of an odd size", 0x45, {{0x25, "$BIDODD_1"}, {0x30, "$BIDEVEN1"}}, "ODD_1"},
      {"nearest the end wins", 0x1000, {{0x20, "$BIDFIRST"}, {0xFE0, "$BIDLAST_"}, {0x800, "$BIDMIDDL"}}, "LAST_"},
      {"lowest position of the window", 0x10010, {{0x10, "$BIDLOWST"}}, "LOWST"},
      {"whole window of a large area", 0x30000, {{0x20000, "$BIDWINDW"}, {0x1FFF0, "$BIDOUTSD"}}, "WINDW"},
      {"only below the window", 0x30000, {{0x1FFF0, "$BIDOUTSD"}}, nullptr},
      {"signature with a wrong byte", 0x100, {{0x40, "$BIE"}, {0x50, "$bid"}, {0x60, "BID$"}}, nullptr},
  };
  for (const auto &Row : kRows) {
    std::unique_ptr<UINT8[]> Area(new UINT8[Row.AreaSize]);  // exactly sized: ASan sees an overrun
    std::fill(Area.get(), Area.get() + Row.AreaSize, 0xFF);
    for (const auto &[Offset, Bytes] : Row.Records) {
      std::copy(Bytes, Bytes + std::char_traits<char>::length(Bytes), Area.get() + Offset);
    }
    UINT8 Id[kBiosIdLength] = {'-', '-', '-', '-', '-'};
    EXPECT_EQ(FindBiosId(ByteView(Area.get(), Row.AreaSize), Id) != FALSE, Row.ExpectedId != nullptr) << Row.Name;
    const char *Expected = Row.ExpectedId != nullptr ? Row.ExpectedId : "-----";  // a miss leaves the ID alone
    EXPECT_EQ(std::string(reinterpret_cast<char *>(Id), kBiosIdLength), Expected) << Row.Name;
  }
}

}  // namespace
