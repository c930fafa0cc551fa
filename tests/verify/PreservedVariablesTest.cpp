// Which variables survive an update: authenticated ones, the listed plain ones, live states only,
// policy variables when dropped; the bound of the copy (the walk's bound is the fuzz harness's).
#include "../../src/verify/PreservedVariables.h"

#include <gtest/gtest.h>

#include "../../src/base/Guids.h"
#include "../../src/driver/Config.h"
#include "../../tools/lib/VariableStoreBuilder.h"

namespace {

VariableRecord With(VariableRecord Record, uint8_t State, uint32_t Attributes) {
  Record.State = State;
  Record.Attributes = Attributes;
  return Record;
}

// The records laid end to end in a buffer of exactly their size (reads past it are caught).
std::vector<uint8_t> Records(const std::vector<VariableRecord> &List) {
  std::vector<uint8_t> Bytes;
  for (const VariableRecord &Record : List) {
    const std::vector<uint8_t> One = VariableRecordBytes(Record);
    Bytes.insert(Bytes.end(), One.begin(), One.end());
  }
  Bytes.shrink_to_fit();
  return Bytes;
}

TEST(PreservedVariables, SelectionByStateAuthenticationListAndPolicy) {
  constexpr uint32_t Plain = 0x7, TimeAuth = 0x27, CountAuth = 0x17;
  const EFI_GUID Elsewhere = gPlatformSetupLayoutGuid;
  auto Named = [](const char16_t *Name, const EFI_GUID &Vendor) { return PlainVariable(Name, Vendor, {1, 2, 3}); };
  struct {
    const char *Name;
    VariableRecord Record;
    bool PolicyDropped, Selected;
  } Cases[] = {
      {"vendor 1, any name", Named(u"Anything", gPreservedVendor1Guid), false, true},
      {"pairing info of its vendor", Named(u"BluetoothPairingInfo", gBtPairingVendorGuid), false, true},
      {"pairing info elsewhere", Named(u"BluetoothPairingInfo", Elsewhere), false, false},
      {"name with a longer tail", Named(u"BluetoothPairingInfo2", gBtPairingVendorGuid), false, false},
      {"VT flag", Named(u"Q42VtHasBeenEnable", gPlatformVariableGuid), false, true},
      {"VSM key of its vendor", Named(u"VsmLocalKey2", gMicrosoftVendorGuid), false, true},
      {"plain VSM key elsewhere", Named(u"VsmLocalKey2", Elsewhere), false, false},
      {"authenticated VSM key elsewhere", With(Named(u"VsmLocalKey2", Elsewhere), 0x3F, TimeAuth), false, true},
      {"counter-authenticated", With(Named(u"Mok", Elsewhere), 0x3F, CountAuth), false, true},
      {"in deleted transition", With(Named(u"X", gPreservedVendor1Guid), 0x3E, Plain), false, true},
      {"deleted", With(Named(u"X", gPreservedVendor1Guid), 0x3C, Plain), false, false},
      {"policy kept", With(Named(u"CurrentPolicy", Elsewhere), 0x3F, TimeAuth), false, true},
      {"policy dropped", With(Named(u"CurrentPolicy", Elsewhere), 0x3F, TimeAuth), true, false},
      {"active policy dropped", With(Named(u"CurrentActivePolicy", gPreservedVendor1Guid), 0x3F, TimeAuth), true,
       false},
      {"other authenticated kept with policies dropped", With(Named(u"PK", Elsewhere), 0x3F, TimeAuth), true, true},
  };
  for (const auto &Case : Cases) {
    gConfig.PolicyVariablesDropped = Case.PolicyDropped;
    const std::vector<uint8_t> Store = Records({Case.Record});
    std::vector<uint8_t> Destination(Store.size(), 0xEE);
    UINT64 Length = 99;
    EXPECT_EQ(SelectPreservedVariables(Store.data(), Store.data() + Store.size(), Destination.data(),
                                       Destination.size(), &Length),
              EFI_SUCCESS)
        << Case.Name;
    EXPECT_EQ(Length, Case.Selected ? Store.size() : 0u) << Case.Name;
    EXPECT_EQ(Destination == Store, Case.Selected) << Case.Name;
  }
  ResetConfigForTest();
}

TEST(PreservedVariables, CopyStopsAtTheCapacityButTheLengthCountsEverything) {
  const VariableRecord First = PlainVariable(u"A", gPreservedVendor1Guid, std::vector<uint8_t>(40, 1));
  const VariableRecord Dropped = PlainVariable(u"Setup", gPlatformSetupLayoutGuid, std::vector<uint8_t>(30, 2));
  const VariableRecord Second = PlainVariable(u"B", gPreservedVendor2Guid, std::vector<uint8_t>(50, 3));
  const std::vector<uint8_t> Store = Records({First, Dropped, Second});
  const size_t A = VariableRecordBytes(First).size(), B = VariableRecordBytes(Second).size();
  for (size_t Capacity : {A + B, A + B - 1, A, size_t{0}}) {
    std::vector<uint8_t> Destination(A + B + 8, 0xEE);
    UINT64 Length = 0;
    const EFI_STATUS Status =
        SelectPreservedVariables(Store.data(), Store.data() + Store.size(), Destination.data(), Capacity, &Length);
    EXPECT_EQ(Status, Capacity == A + B ? EFI_SUCCESS : EFI_BUFFER_TOO_SMALL) << Capacity;
    EXPECT_EQ(Length, A + B) << Capacity;
    const size_t Copied = Capacity >= A + B ? A + B : Capacity >= A ? A : 0;
    EXPECT_TRUE(std::equal(Store.begin(), Store.begin() + std::min(Copied, A), Destination.begin())) << Capacity;
    EXPECT_TRUE(std::all_of(Destination.begin() + Copied, Destination.end(), [](uint8_t Byte) { return Byte == 0xEE; }))
        << "nothing past the copied records, capacity " << Capacity;
  }
}

}  // namespace
