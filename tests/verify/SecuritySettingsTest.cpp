// The security-settings block: checking seals, writing, repairing from the backup or clearing
// with a reset, snapshots, the library's start, and the same operations inside SMM.
#include <algorithm>

#include "../../emu/host/EmuHostMemory.h"
#include "../../src/base/Globals.h"
#include "../../src/driver/DriverState.h"
#include "../../src/verify/PhysicalPresence.h"
#include "SettingsFixture.h"

namespace {

using namespace SecuritySettingsLib;

EFI_STATUS EFIAPI WriteAlwaysFailing(UINTN, const VOID *, UINTN) { return EFI_DEVICE_ERROR; }

EFI_STATUS EFIAPI ResetThatReturns(EFI_RESET_TYPE, EFI_STATUS, UINTN, CHAR16 *) { return EFI_SUCCESS; }

SettingsBytes Flipped(SettingsBytes Record, size_t Offset, UINT8 Mask = 0x01) {
  Record[Offset] ^= Mask;
  return Record;
}

using SecuritySettings = SettingsFixture;

TEST_F(SecuritySettings, EachFormatPassesWhenSealedAndFailsWhenNot) {
  StartWithFlags(true, false);
  SettingsBytes Format2 = MakeSettingsRecord(kIntegrityWordChecksum);  // the format word one up, the checksum one down
  Put16(Format2, kIntegrityFormatOffset, 2);
  Put16(Format2, kSettingsChecksumOffset, static_cast<UINT16>(Get16(Format2.data(), kSettingsChecksumOffset) - 1));

  const struct {
    const char *Name;
    SettingsBytes Record;
    EFI_STATUS Expected;
  } Cases[] = {
      {"word checksum, sealed", MakeSettingsRecord(kIntegrityWordChecksum), EFI_SUCCESS},
      {"word checksum, data byte flipped", Flipped(MakeSettingsRecord(kIntegrityWordChecksum), 0x10),
       EFI_SECURITY_VIOLATION},
      {"SHA-256, sealed", MakeSettingsRecord(kIntegritySha256), EFI_SUCCESS},
      {"SHA-256, data byte flipped", Flipped(MakeSettingsRecord(kIntegritySha256), 0x200), EFI_SECURITY_VIOLATION},
      {"format 2 whose words sum to 0", Format2, EFI_SECURITY_VIOLATION},
      {"all zero", SettingsBytes(kSecuritySettingsSize, 0), EFI_NOT_READY},
      {"zero but for one byte", Flipped(SettingsBytes(kSecuritySettingsSize, 0), 0xFFF), EFI_SECURITY_VIOLATION},
  };
  for (const auto &Case : Cases) {
    EXPECT_EQ(CheckSecuritySettings(Case.Record.data()), Case.Expected) << Case.Name;
  }
  Sim.FailAllocationAfter(1);  // the digest check fails closed without pool memory
  EXPECT_EQ(CheckSecuritySettings(Cases[2].Record.data()), EFI_SECURITY_VIOLATION);
}

TEST_F(SecuritySettings, ARecordEqualToTheLiveBlockWritesNothingEvenWithAStaleSeal) {
  StartWithFlags(true, false);
  SettingsBytes Stale = Flipped(MakeSettingsRecord(kIntegrityWordChecksum), 0x20);
  LoadLive(Stale);
  SettingsBytes Record = Stale;
  EXPECT_EQ(WriteSecuritySettings(Record.data()), EFI_SUCCESS);
  EXPECT_EQ(FlashChanges(), 0u);
  EXPECT_EQ(Record, Stale) << "not resealed either";
}

TEST_F(SecuritySettings, SealsWithTheWordChecksumOrWithSha256UnderDigestProtection) {
  StartWithFlags(true, false);
  SettingsBytes Record = MakeSettingsRecord(kIntegritySha256, true, 0x5A);  // a format the write replaces
  ASSERT_EQ(WriteSecuritySettings(Record.data()), EFI_SUCCESS);

  EXPECT_EQ(Get16(Record.data(), kIntegrityFormatOffset), kIntegrityWordChecksum);
  EXPECT_EQ(LiveBytes(), Record) << "the sealed record reached the block";
  EXPECT_EQ(CheckSecuritySettings(Live()), EFI_SUCCESS);
  EXPECT_EQ(CallNames(), (std::vector<std::string>{"FlashDeviceErase", "FlashDeviceDelay", "FlashDeviceWrite"}));

  DigestProtection = TRUE;
  SettingsBytes Digested = MakeSettingsRecord(kIntegrityWordChecksum, true, 0x77);
  ASSERT_EQ(WriteSecuritySettings(Digested.data()), EFI_SUCCESS);
  EXPECT_EQ(Get16(Digested.data(), kIntegrityFormatOffset), kIntegritySha256);
  EXPECT_EQ(LiveBytes(), Digested);
  EXPECT_EQ(CheckSecuritySettings(Live()), EFI_SUCCESS) << "sealed with the digest of its bytes";

  Platform->ClearCalls();
  SettingsBytes Unsealable = MakeSettingsRecord(kIntegrityWordChecksum, true, 0x78);
  Sim.FailAllocationAfter(1);  // no memory for the digest's context
  EXPECT_EQ(WriteSecuritySettings(Unsealable.data()), EFI_OUT_OF_RESOURCES);
  Sim.FailAllocationAfter(0);
  EXPECT_EQ(FlashChanges(), 0u) << "nothing is written without its seal";
}

TEST_F(SecuritySettings, RefusalsTouchNeitherTheRecordNorTheFlash) {
  const struct {
    const char *Name;
    bool Magic, EraseMember;
    EFI_STATUS Expected;
  } Cases[] = {
      {"no magic", false, true, EFI_ACCESS_DENIED},
      {"flash device without an erase member", true, false, EFI_PROTOCOL_ERROR},
  };
  StartWithFlags(true, false);
  PLATFORM_FLASH_DEVICE_ERASE Erase = Platform->FlashDevice->FlashDeviceErase;
  for (const auto &Item : Cases) {
    Platform->FlashDevice->FlashDeviceErase = Item.EraseMember ? Erase : nullptr;
    SettingsBytes Record = MakeSettingsRecord(7, Item.Magic, 0x33);
    const SettingsBytes Before = Record;
    EXPECT_EQ(WriteSecuritySettings(Record.data()), Item.Expected) << Item.Name;
    EXPECT_EQ(Record, Before) << Item.Name;
    EXPECT_EQ(FlashChanges(), 0u) << Item.Name;
  }
}

TEST_F(SecuritySettings, ALiveBlockOutsideTheMappedFlashIsNotFoundForEveryOperation) {
  ASSERT_TRUE(Platform->Initialize(EmuHostMemory(), {0, 0, 0x800000, 0x20000}));  // from 0xFF800000
  StartWithFlags(true, true);
  SettingsBytes Record = MakeSettingsRecord(kIntegrityWordChecksum, true, 0x21);
  EXPECT_EQ(WriteSecuritySettings(Record.data()), EFI_NOT_FOUND);
  EXPECT_EQ(RecoverSecuritySettings(), EFI_NOT_FOUND);
  EXPECT_EQ(SaveSecuritySettings(&Copy), EFI_NOT_FOUND);
  EXPECT_EQ(FlashChanges(), 0u);
}

TEST_F(SecuritySettings, ASoundOrEmptyBlockOrOneWithoutDigestProtectionIsLeftAlone) {
  StartWithFlags(true, true);
  EXPECT_EQ(RecoverSecuritySettings(), EFI_SUCCESS) << "the reference block is sealed";
  LoadLive(SettingsBytes(kSecuritySettingsSize, 0));
  EXPECT_EQ(RecoverSecuritySettings(), EFI_NOT_READY);

  DigestProtection = FALSE;
  SettingsBytes Damaged = Flipped(MakeSettingsRecord(kIntegrityWordChecksum), 0x30);
  LoadLive(Damaged);
  EXPECT_EQ(RecoverSecuritySettings(), EFI_UNSUPPORTED);
  EXPECT_EQ(FlashChanges(), 0u);
  EXPECT_EQ(FailFlag(), -1);
}

TEST_F(SecuritySettings, WithoutAUsableBackupClearsTheBlockAndResets) {
  const struct {
    const char *Name;
    SettingsBytes Backup;
    bool BackupSupported;
  } Cases[] = {
      {"no backup magic", MakeSettingsRecord(kIntegrityWordChecksum, false), true},
      {"backup with a wrong seal", Flipped(MakeSettingsRecord(kIntegrityWordChecksum), 0x40), true},
      {"good backup but writes refused", MakeSettingsRecord(kIntegrityWordChecksum), false},
  };
  StartWithFlags(true, true);
  for (const auto &Item : Cases) {
    Sim.Variables().clear();
    SettingsBackupSupported = Item.BackupSupported;
    LoadBackup(Item.Backup);
    LoadLive(Flipped(MakeSettingsRecord(kIntegritySha256), 0x10));
    EXPECT_THROW(RecoverSecuritySettings(), SimResetRequested) << Item.Name;
    EXPECT_EQ(Sim.LastResetType(), EfiResetCold) << Item.Name;
    EXPECT_EQ(LiveBytes(), SettingsBytes(kSecuritySettingsSize, 0)) << Item.Name;
    EXPECT_EQ(FailFlag(), 0x700 | kSettingsCleared) << Item.Name;
  }
  Sim.RuntimeServices()->ResetSystem = ResetThatReturns;
  LoadLive(Flipped(MakeSettingsRecord(kIntegritySha256), 0x10));
  EXPECT_EQ(RecoverSecuritySettings(), EFI_DEVICE_ERROR) << "a reset that returns is no success";
}

TEST_F(SecuritySettings, ClearWritesZerosWhateverTheBackupSwitchOrStopsBeforeTheReset) {
  StartWithFlags(false, true);
  EXPECT_EQ(ClearSecuritySettings(), EFI_SUCCESS);
  EXPECT_EQ(LiveBytes(), SettingsBytes(kSecuritySettingsSize, 0));
  PLATFORM_FLASH_DEVICE_WRITE RealWrite = Platform->FlashDevice->FlashDeviceWrite;
  Platform->FlashDevice->FlashDeviceWrite = WriteAlwaysFailing;
  EXPECT_EQ(ClearSecuritySettings(), EFI_SUCCESS) << "whatever the attempts gave";
  Platform->FlashDevice->FlashDeviceWrite = RealWrite;

  // A clear that cannot find the flash stops before the reset.
  LoadLive(Flipped(MakeSettingsRecord(kIntegrityWordChecksum), 0x10));
  Platform->FlashDevice->FlashDeviceWrite = nullptr;  // no restore from the backup either
  EXPECT_EQ(RecoverSecuritySettings(), EFI_PROTOCOL_ERROR);
  EXPECT_EQ(Sim.ResetCount(), 0u);
  EXPECT_EQ(FailFlag(), -1);
}

TEST_F(SecuritySettings, APowerCutDuringAWriteIsRepairedFromTheBackupAtTheNextBoot) {
  StartWithFlags(true, true);
  SettingsBytes Good = MakeSettingsRecord(kIntegrityWordChecksum, true, 0x21);  // not the digest format
  LoadBackup(Good);
  SettingsBytes Record = MakeSettingsRecord(kIntegrityWordChecksum, true, 0x52);
  Platform->Flash.CutPowerAtOperation(2);  // the erase completes, the program is cut halfway

  EXPECT_EQ(WriteSecuritySettings(Record.data()), EFI_SUCCESS) << "failures are retried, then ignored";
  EXPECT_EQ(Calls("FlashDeviceErase"), 100u);
  EXPECT_EQ(Calls("FlashDeviceDelay"), 100u) << "a delay after every erase";
  EXPECT_EQ(Calls("FlashDeviceWrite"), 1u) << "no write after a failed erase";

  Platform->Flash.RestorePower();
  Sim.SimulateReboot();
  Platform->ClearCalls();
  EXPECT_EQ(RecoverSecuritySettings(), EFI_SUCCESS);
  EXPECT_EQ(LiveBytes(), Good) << "the backup's bytes, not resealed";
  EXPECT_EQ(FailFlag(), 0x700 | kSettingsRestoredFromBackup);
  EXPECT_EQ(Sim.ResetCount(), 0u);
}

TEST_F(SecuritySettings, ABlockWithoutMagicGetsItSoTheFollowingWriteWritesTheBlock) {
  StartWithFlags(true, false);
  SettingsBytes NoMagic = MakeSettingsRecord(kIntegrityWordChecksum, false, 0x61);
  LoadLive(NoMagic);

  ASSERT_EQ(SaveSecuritySettings(&Copy), EFI_SUCCESS);
  EXPECT_EQ(std::memcmp(Copy, NoMagic.data(), kBackupMagicOffset), 0) << "settings data carried over";
  EXPECT_EQ(Copy[kPlatformSecurityByte1Offset], EmuSettings::kField20Value) << "physical presence recorded";
  EXPECT_EQ(FlashChanges(), 0u);

  EXPECT_EQ(WriteSecuritySettings(Copy), EFI_SUCCESS);
  EXPECT_EQ(std::memcmp(Live() + kBackupMagicOffset, "$zqBKSEC", 8), 0);
}

// A damaged block without a backup resets before the snapshot.
TEST_F(SecuritySettings, ASnapshotOverADamagedBlockWithoutABackupResetsFirst) {
  StartWithFlags(true, true);
  LoadLive(Flipped(MakeSettingsRecord(kIntegritySha256), 0x10));
  LoadBackup(SettingsBytes(kSecuritySettingsSize, 0xFF));
  EXPECT_THROW(SaveSecuritySettings(&Copy), SimResetRequested);
  EXPECT_EQ(Copy, nullptr);
  EXPECT_EQ(FailFlag(), 0x700 | kSettingsCleared);
}

TEST_F(SecuritySettings, WaitsForALateFlashServiceAndClosesItsEventOnStop) {
  Install.FlashService = FALSE;
  StartTablesOnly();
  size_t EventsBefore = Sim.OpenEvents();
  ASSERT_EQ(SecuritySettingsLibConstructor(Sim.ImageHandle(), Sim.SystemTable()), EFI_SUCCESS);

  SetFlashServiceFlags(true, true);
  EFI_HANDLE Handle = nullptr;
  ASSERT_EQ(Sim.Install(&Handle, gPlatformFlashServiceProtocolGuid, Platform->FlashService), EFI_SUCCESS);
  EXPECT_TRUE(SettingsBackupSupported && DigestProtection);

  SecuritySettingsLibDestructor(Sim.ImageHandle(), Sim.SystemTable());
  EXPECT_EQ(Sim.OpenEvents(), EventsBefore);
}

class SecuritySettingsSmm : public SettingsFixture {
protected:
  SettingsSmmServiceProtocol &Service() { return *Platform->Settings.SmmService; }
};

TEST_F(SecuritySettingsSmm, WritesSavesAndRecordsPhysicalPresenceThroughTheSmmInterfaces) {
  StartInSmm();
  SettingsBytes Record = MakeSettingsRecord(kIntegrityWordChecksum, true, 0x71);
  Service().VerifyFlags = 0x02;
  ASSERT_EQ(WriteSecuritySettings(Record.data()), EFI_SUCCESS);
  EXPECT_EQ(Get16(Record.data(), kIntegrityFormatOffset), kIntegritySha256);
  EXPECT_EQ(LiveBytes(), Record);
  EXPECT_EQ(CallNames(), (std::vector<std::string>{"SmmFlashErase", "SmmFlashDelay", "SmmFlashWrite"}));

  Service().SettingsFlags = 0x00;
  SettingsBytes Other = MakeSettingsRecord(kIntegrityWordChecksum, true, 0x72);
  EXPECT_EQ(WriteSecuritySettings(Other.data()), EFI_UNSUPPORTED);
  EXPECT_EQ(SaveSecuritySettings(&Copy), EFI_UNSUPPORTED) << "the snapshot follows the SMM backup switch too";
  Service().SettingsFlags = 0x01;
  Sim.SetVariable(u"Tcg2PhysicalPresenceFlags", gEfiTcg2PhysicalPresenceGuid, 7, "\x10\x20\x30\x40", 4);
  ASSERT_EQ(SaveSecuritySettings(&Copy), EFI_SUCCESS);
  EXPECT_EQ(std::memcmp(Copy, Live(), kPpFlagsOffset), 0);
  EXPECT_EQ(Get32(Copy, kPpFlagsOffset), 0x40302010u) << "read through the SMM variable protocol";

  // Physical presence recording switched by the SMM setup record, then by the security setup block.
  Platform->Settings.SetupRecord[87] = 0x00;
  EXPECT_EQ(RecordPhysicalPresenceFlags(Copy), EFI_UNSUPPORTED);
  Service().SetupFlags = 0x02;
  EXPECT_EQ(RecordPhysicalPresenceFlags(Copy), EFI_SUCCESS);
  Platform->Settings.SecuritySetup->PpRecordingSwitch = 0;
  EXPECT_EQ(RecordPhysicalPresenceFlags(Copy), EFI_UNSUPPORTED);
}

TEST_F(SecuritySettingsSmm, WithoutTheSmmFlashAndVariableServicesNothingIsWritten) {
  StartInSmm(/*PublishServices=*/false);
  SettingsBytes Record = MakeSettingsRecord(kIntegrityWordChecksum, true, 0x73);
  EXPECT_EQ(WriteSecuritySettings(Record.data()), EFI_PROTOCOL_ERROR);
  EXPECT_EQ(ClearSecuritySettings(), EFI_PROTOCOL_ERROR);
  LoadLive(Flipped(MakeSettingsRecord(kIntegritySha256), 0x10));
  EXPECT_EQ(RecoverSecuritySettings(), EFI_NOT_FOUND) << "no SMM variable service";
  EXPECT_EQ(FlashChanges(), 0u);
}

}  // namespace
