// Recording the physical presence flags and three setup bytes into a settings record, the two
// forms of the enable switch, the setup record locator. SMM: the settings suite's SMM scenario.
#include "../../src/verify/PhysicalPresence.h"
#include "SettingsFixture.h"

namespace {

constexpr UINT8 kSentinel = 0x5C;

class PhysicalPresence : public SettingsFixture {
protected:
  void SetUp() override { StartWithFlags(true, false); }
  void PublishTcg(const std::vector<UINT8> &Value) {
    Sim.SetVariable(u"PhysicalPresenceFlags", gEfiPhysicalPresenceGuid, 7, Value.data(), Value.size());
  }

  UINT32 PpFlags() const { return Get32(Record.data(), kPpFlagsOffset); }
  UINT8 Source() const { return Record[kPpFlagsSourceOffset]; }

  SettingsBytes Record = SettingsBytes(kSecuritySettingsSize, kSentinel);
};

TEST_F(PhysicalPresence, RecordsTheFlagsOfWhicheverVariableIsThereTcg2First) {
  const struct {
    const char *Name;
    std::vector<UINT8> Tcg;   // empty: not published
    std::vector<UINT8> Tcg2;  // empty: not published
    EFI_STATUS Expected;
    UINT32 Flags;
    UINT8 Source;
  } Cases[] = {
      {"only the TCG byte", {0x84}, {}, EFI_SUCCESS, 0x00000084, kPpFlagsSourceTcg},
      {"both: TCG2 wins", {0x84}, {0x78, 0x56, 0x34, 0x12}, EFI_SUCCESS, 0x12345678, kPpFlagsSourceTcg2},
      {"TCG2 of two bytes", {}, {0x34, 0x12}, EFI_SUCCESS, 0x00001234, kPpFlagsSourceTcg2},
      {"neither", {}, {}, EFI_NOT_FOUND, 0, kPpFlagsSourceNone},
      {"TCG of two bytes is not a TCG byte", {0x84, 0x01}, {}, EFI_NOT_FOUND, 0, kPpFlagsSourceNone},
      {"TCG2 of five bytes is refused, TCG kept", {0x21}, {1, 2, 3, 4, 5}, EFI_SUCCESS, 0x21, kPpFlagsSourceTcg},
      {"TCG2 of five bytes alone", {}, {1, 2, 3, 4, 5}, EFI_BUFFER_TOO_SMALL, 0, kPpFlagsSourceNone},
  };
  for (const auto &Case : Cases) {
    Sim.Variables().clear();
    if (!Case.Tcg.empty()) {
      PublishTcg(Case.Tcg);
    }
    if (!Case.Tcg2.empty()) {
      Sim.SetVariable(u"Tcg2PhysicalPresenceFlags", gEfiTcg2PhysicalPresenceGuid, 7, Case.Tcg2.data(), Case.Tcg2.size());
    }
    Record.assign(kSecuritySettingsSize, kSentinel);
    EXPECT_EQ(RecordPhysicalPresenceFlags(Record.data()), Case.Expected) << Case.Name;
    EXPECT_EQ(PpFlags(), Case.Flags) << Case.Name;
    EXPECT_EQ(Source(), Case.Source) << Case.Name;
    // Only the five fields change.
    SettingsBytes Expected(kSecuritySettingsSize, kSentinel);
    std::memcpy(Expected.data() + kPpFlagsOffset, Record.data() + kPpFlagsOffset, 5);
    std::memcpy(Expected.data() + kPlatformSecurityByte1Offset, Record.data() + kPlatformSecurityByte1Offset, 3);
    EXPECT_EQ(Record, Expected) << Case.Name;
  }
}

TEST_F(PhysicalPresence, SetupBytesFollowTheFieldOffsetTable) {
  for (UINT8 Field : {20, 25, 19}) {
    Platform->Settings.SetupFieldOffsets[Field] = 0x80 + Field;
    Platform->Settings.SetupData[0x80 + Field] = Field;  // member 24 names this copy, not the stale one
  }
  RecordPhysicalPresenceFlags(Record.data());
  EXPECT_EQ(std::vector<UINT8>(&Record[kPlatformSecurityByte1Offset], &Record[kPlatformSecurityByte1Offset] + 3),
            (std::vector<UINT8>{20, 25, 19}));
  EXPECT_EQ(Calls("FlashDevicePrepareSetupData"), 1u) << "member 24 runs before the setup data is read";
}

TEST_F(PhysicalPresence, TheEnableSwitchHasTwoFormsAndAnOffSwitchChangesNothing) {
  const struct {
    const char *Name;
    UINT8 Capabilities;  // flash service byte 0x31
    UINT8 SetupByte87;   // older setup record layout
    UINT8 SecuritySwitch;
    bool Enabled;
  } Cases[] = {
      {"setup record bit 2 set", 0x00, 0x04, 0, true},
      {"setup record bit 2 clear", 0x00, 0xFB, 1, false},
      {"security setup byte 1", 0x02, 0x00, 1, true},
      {"security setup byte 0", 0x02, 0x04, 0, false},
      {"security setup byte 5 is not 1", 0x02, 0x04, 5, false},
      {"other capability bits do not select it", 0xFD, 0x04, 0, true},
  };
  for (const auto &Case : Cases) {
    Sim.Variables().clear();
    PublishTcg({0x84});
    Platform->FlashService->FlashCapabilities = Case.Capabilities;
    Platform->Settings.SetupRecord[87] = Case.SetupByte87;
    Platform->Settings.SecuritySetup->PpRecordingSwitch = Case.SecuritySwitch;
    Record.assign(kSecuritySettingsSize, kSentinel);
    EXPECT_EQ(RecordPhysicalPresenceFlags(Record.data()), Case.Enabled ? EFI_SUCCESS : EFI_UNSUPPORTED) << Case.Name;
    EXPECT_EQ(Source(), Case.Enabled ? kPpFlagsSourceTcg : kSentinel) << Case.Name;
    EXPECT_EQ(Record == SettingsBytes(kSecuritySettingsSize, kSentinel), !Case.Enabled) << Case.Name;
  }
}

EFI_STATUS EFIAPI PrepareFailing(VOID *) { return EFI_DEVICE_ERROR; }
// A variable service that reports more bytes than the buffer it was given holds.
EFI_STATUS EFIAPI OverreportingGetVariable(CHAR16 *, EFI_GUID *, UINT32 *, UINTN *DataSize, VOID *Data) {
  std::memset(Data, 0x7E, *DataSize);
  *DataSize = 8;
  return EFI_SUCCESS;
}

TEST_F(PhysicalPresence, AnOverlongReadIsNotBelievedAndRefusalsOrAFailedSetupPreparationWriteNothing) {
  EFI_GET_VARIABLE Original = Sim.RuntimeServices()->GetVariable;
  Sim.RuntimeServices()->GetVariable = OverreportingGetVariable;  // claims 8 bytes whatever it was given
  EXPECT_EQ(RecordPhysicalPresenceFlags(Record.data()), EFI_SUCCESS) << "the one-byte read is sound";
  Sim.RuntimeServices()->GetVariable = Original;
  EXPECT_EQ(PpFlags(), 0x7Eu) << "the TCG byte; the TCG2 read was refused";

  Record.assign(kSecuritySettingsSize, kSentinel);
  Platform->FlashDevice->SetupData = nullptr;
  EXPECT_EQ(RecordPhysicalPresenceFlags(Record.data()), EFI_NOT_FOUND);
  Platform->FlashDevice->PrepareSetupData = PrepareFailing;
  EXPECT_EQ(RecordPhysicalPresenceFlags(Record.data()), EFI_DEVICE_ERROR);
  EXPECT_EQ(Record, SettingsBytes(kSecuritySettingsSize, kSentinel));
}

std::vector<UINT8> NewerSetupRecord(UINT16 Offset) {
  std::vector<UINT8> Setup(2048, 0);
  std::memcpy(Setup.data(), &gPlatformSetupLayoutGuid, sizeof(EFI_GUID));
  Setup[0x26] = static_cast<UINT8>(Offset);
  Setup[0x27] = static_cast<UINT8>(Offset >> 8);
  return Setup;
}

TEST(PhysicalPresenceLocator, TheNewerLayoutAcceptsOnlyTheStartsOfItsFieldsAnyOtherIsTheOlder) {
  // The offset read from the record, and where the setting is found (any other offset: the first byte).
  const std::pair<UINT16, UINT16> Rows[] = {{256, 256},   {288, 288}, {528, 528}, {1040, 1040}, {1328, 1328},
                                            {1840, 1840}, {255, 0},   {257, 0},   {1841, 0}};
  for (const auto &[Offset, Found] : Rows) {
    std::vector<UINT8> Setup = NewerSetupRecord(Offset);
    EXPECT_EQ(PlatformSettingLocator(Setup.data()), Setup.data() + Found) << Offset;
  }
  std::vector<UINT8> Setup = NewerSetupRecord(256);
  Setup[15] ^= 1;  // no longer the layout GUID
  EXPECT_EQ(PlatformSettingLocator(Setup.data()), Setup.data() + 87);
}

}  // namespace
