// Settings records sealed independently of the driver (OpenSSL for the digest), the live block
// and its backup in the emulated flash, the library started by the driver's entry or in SMM.
#pragma once
#include <openssl/sha.h>

#include <cstring>
#include <string>
#include <vector>

#include "../../src/base/Globals.h"
#include "../../src/base/Guids.h"
#include "../../src/base/PiSmm.h"
#include "../../src/driver/LibraryList.h"
#include "../../src/verify/SecuritySettings.h"
#include "../../src/verify/SettingsServices.h"
#include "../support/PlatformFixture.h"

using SettingsBytes = std::vector<UINT8>;

// Little-endian words read and written here, not through the driver's helpers.
inline UINT16 Get16(const UINT8 *Bytes, size_t Offset) {
  return static_cast<UINT16>(Bytes[Offset] | (Bytes[Offset + 1] << 8));
}
inline UINT32 Get32(const UINT8 *Bytes, size_t Offset) {
  return Get16(Bytes, Offset) | UINT32{Get16(Bytes, Offset + 2)} << 16;
}
inline void Put16(SettingsBytes &Record, size_t Offset, UINT16 Value) {
  Record[Offset] = static_cast<UINT8>(Value);
  Record[Offset + 1] = static_cast<UINT8>(Value >> 8);
}

inline UINT16 RecordWordSum(const SettingsBytes &Record) {
  UINT16 Sum = 0;
  for (size_t Offset = 0; Offset < Record.size(); Offset += 2) {
    Sum = static_cast<UINT16>(Sum + Get16(Record.data(), Offset));
  }
  return Sum;
}

// A record with settings data, optionally the backup magic, sealed in the format given
// (any other format value is stored as it is over a zero checksum).
inline SettingsBytes MakeSettingsRecord(UINT16 Format, bool Magic = true, UINT8 Seed = 0x11) {
  SettingsBytes Record(kSecuritySettingsSize, 0);
  for (size_t Index = 0; Index < kBackupMagicOffset; Index++) {
    Record[Index] = static_cast<UINT8>(Index * 13 + Seed);
  }
  Record[0x900] = Seed;  // an uninterpreted byte past the digest
  if (Magic) {
    std::memcpy(Record.data() + kBackupMagicOffset, kSecuritySettingsBackupMagic, 8);
  }
  Put16(Record, kIntegrityFormatOffset, Format);
  if (Format == kIntegrityWordChecksum) {
    Put16(Record, kSettingsChecksumOffset, static_cast<UINT16>(0x10000 - RecordWordSum(Record)));
  } else if (Format == kIntegritySha256) {  // the digest field is still zero
    SHA256(Record.data(), Record.size(), Record.data() + kSettingsDigestOffset);
  }
  return Record;
}

class SettingsFixture : public PlatformFixture {
protected:
  // Boot-services mode: the platform's flag bytes, then the driver's entry (which runs the
  // library constructor in its place in the start-up order).
  void StartWithFlags(bool BackupSupported, bool Digest) {
    SetFlashServiceFlags(BackupSupported, Digest);
    ASSERT_EQ(StartDriver(), EFI_SUCCESS);
    Platform->ClearCalls();
  }
  void SetFlashServiceFlags(bool BackupSupported, bool Digest) {
    Platform->FlashService->SettingsFlags = BackupSupported ? 0x01 : 0x00;
    Platform->FlashService->VerifyFlags = Digest ? 0x02 : 0x00;
  }

  // SMM mode: the library started alone, as an SMM driver's start-up would, with the SMM
  // settings service and (unless told otherwise) its flash interface and the SMM variable protocol.
  void StartInSmm(bool PublishServices = true) {
    StartTablesOnly();
    Sim.InstallSmmBase2(TRUE);
    Sim.InstallSmmProtocol(gSettingsSmmServiceGuid, Platform->Settings.SmmService);
    if (PublishServices) {
      Sim.InstallSmmProtocol(gSettingsSmmFlashGuid, Platform->Settings.SmmFlash);
      SmmVariable.SmmGetVariable = Sim.RuntimeServices()->GetVariable;
      SmmVariable.SmmGetNextVariableName = Sim.RuntimeServices()->GetNextVariableName;
      SmmVariable.SmmSetVariable = Sim.RuntimeServices()->SetVariable;
      Sim.InstallSmmProtocol(gEfiSmmVariableProtocolGuid, &SmmVariable);
    }
    Sim.InstallSmmProtocol(gPlatformSetupSmmGuid, Platform->Settings.SetupSmm);
    ASSERT_EQ(SecuritySettingsLibConstructor(Sim.ImageHandle(), Sim.SystemTable()), EFI_SUCCESS);
    Platform->ClearCalls();
  }

  // The boot and runtime services tables, as the library's own start would find them.
  void StartTablesOnly() {
    PrepareBoot();
    UefiBootServicesTableLibConstructor(Sim.ImageHandle(), Sim.SystemTable());
    UefiRuntimeServicesTableLibConstructor(Sim.ImageHandle(), Sim.SystemTable());
  }

  // The snapshot page a test had SaveSecuritySettings fill goes back before the leak check.
  void TearDown() override {
    if (Copy != nullptr) {
      gBS->FreePages(reinterpret_cast<EFI_PHYSICAL_ADDRESS>(Copy), 1);
    }
  }

  UINT8 *Live() { return Platform->Flash.Bytes() + (SecuritySettingsBlock - Platform->FlashBaseAddress); }
  UINT8 *Backup() { return Platform->Flash.Bytes() + (SecuritySettingsBackup - Platform->FlashBaseAddress); }
  SettingsBytes LiveBytes() { return SettingsBytes(Live(), Live() + kSecuritySettingsSize); }
  void LoadLive(const SettingsBytes &Record) { std::memcpy(Live(), Record.data(), Record.size()); }
  void LoadBackup(const SettingsBytes &Record) { std::memcpy(Backup(), Record.data(), Record.size()); }

  // The 1-byte repair note with its attributes above it (0x700 | note), or -1 when it was not written.
  int FailFlag() const {
    const SimVariable *Variable = Sim.FindVariable(u"Q42SaftyProtectedCheckSumFailFlag", gPlatformVariableGuid);
    return Variable == nullptr || Variable->Data.size() != 1 ? -1 : int(Variable->Attributes << 8 | Variable->Data[0]);
  }

  size_t Calls(const char *Name) const { return Platform->CountCalls(Name); }
  size_t FlashChanges() const {
    return Calls("FlashDeviceErase") + Calls("FlashDeviceWrite") + Calls("SmmFlashErase") + Calls("SmmFlashWrite");
  }

  EFI_SMM_VARIABLE_PROTOCOL SmmVariable{};
  UINT8 *Copy = nullptr;
};
