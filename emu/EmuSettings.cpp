#include "EmuSettings.h"

#include "../src/base/BaseLib.h"
#include "../src/verify/SecuritySettingsRecord.h"
#include "EmuPlatform.h"
#include "EmuMembers.h"

using namespace emu_members;

namespace {

// ---- SMM flash interface: the same chip as the flash device interface -------------------
EFI_STATUS EFIAPI SmmFlashWrite(UINTN Address, const VOID *Buffer, UINTN Length) {
  P().Record("SmmFlashWrite", Address, Ptr(Buffer), Length);
  return P().ProgramFlashAt(Address, Buffer, Length);
}

EFI_STATUS EFIAPI SmmFlashErase(UINTN Address, UINTN Length) {
  P().Record("SmmFlashErase", Address, Length);
  return P().EraseFlashAt(Address, Length);
}

EFI_STATUS EFIAPI SmmFlashDelay(UINTN Units) {
  P().Record("SmmFlashDelay", Units);
  P().ElapsedMicroseconds += Units;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SmmFlashPrepareSetupData(VOID *This) {
  P().Record("SmmFlashPrepareSetupData", Ptr(This));
  EmuSettingsPrepareSetupData(P());
  return EFI_SUCCESS;
}

template <typename T> T *AllocateZeroed(const EmuMemory &Memory, UINTN Count = 1) {
  VOID *Block = Memory.Allocate(sizeof(T) * Count);
  if (Block != nullptr) {
    ZeroMem(Block, sizeof(T) * Count);
  }
  return static_cast<T *>(Block);
}

}  // namespace

BOOLEAN EmuSettingsInitialize(EmuPlatform &Platform, const EmuMemory &Memory) {
  EmuSettings &Settings = Platform.Settings;
  Settings.SetupDescription = AllocateZeroed<SetupDataDescription>(Memory);
  Settings.SetupData = AllocateZeroed<UINT8>(Memory, EmuSettings::kSetupDataSize);
  Settings.StaleSetupData = AllocateZeroed<UINT8>(Memory, EmuSettings::kSetupDataSize);
  Settings.SetupFieldOffsets = AllocateZeroed<UINT16>(Memory, EmuSettings::kSetupFieldCount);
  Settings.SetupRecord = AllocateZeroed<UINT8>(Memory, EmuSettings::kSetupRecordSize);
  Settings.SecuritySetup = AllocateZeroed<SecuritySetupBlock>(Memory);
  Settings.SmmService = AllocateZeroed<SettingsSmmServiceProtocol>(Memory);
  Settings.SmmFlash = AllocateZeroed<SettingsSmmFlashProtocol>(Memory);
  Settings.SmmSecurityLink = AllocateZeroed<SmmSecuritySetupLink>(Memory);
  Settings.SetupSmm = AllocateZeroed<PlatformSetupSmmProtocol>(Memory);
  if (Settings.SetupDescription == nullptr || Settings.SetupData == nullptr || Settings.StaleSetupData == nullptr ||
      Settings.SetupFieldOffsets == nullptr ||
      Settings.SetupRecord == nullptr || Settings.SecuritySetup == nullptr || Settings.SmmService == nullptr ||
      Settings.SmmFlash == nullptr || Settings.SmmSecurityLink == nullptr || Settings.SetupSmm == nullptr) {
    return FALSE;
  }

  // Setup data: fields 19, 20 and 25 hold distinct values.
  Settings.SetupFieldOffsets[19] = EmuSettings::kField19Offset;
  Settings.SetupFieldOffsets[20] = EmuSettings::kField20Offset;
  Settings.SetupFieldOffsets[25] = EmuSettings::kField25Offset;
  Settings.SetupData[EmuSettings::kField19Offset] = EmuSettings::kField19Value;
  Settings.SetupData[EmuSettings::kField20Offset] = EmuSettings::kField20Value;
  Settings.SetupData[EmuSettings::kField25Offset] = EmuSettings::kField25Value;
  // Until member 24 (member 2 in SMM) prepares it, the description names a stale, zeroed copy.
  Settings.SetupDescription->SetupData = Settings.StaleSetupData;
  Settings.SetupDescription->FieldOffsets = Settings.SetupFieldOffsets;

  // Recording switched on: bit 2 of the older layout's field 7, and the security setup byte.
  Settings.SetupRecord[87] = 0x04;
  Settings.SecuritySetup->PpRecordingSwitch = 1;

  Platform.FlashDevice->SetupData = Settings.SetupDescription;
  Platform.FlashService->SetupRecord = Settings.SetupRecord;
  Platform.FlashService->SettingsFlags |= 0x01;  // the settings block has a backup
  Platform.PlatformData->SecuritySetup = Settings.SecuritySetup;

  SettingsSmmFlashProtocol &Flash = *Settings.SmmFlash;
  Flash.SetupData = Settings.SetupDescription;
  Flash.PrepareSetupData = SmmFlashPrepareSetupData;
  Flash.Write = SmmFlashWrite;
  Flash.Erase = SmmFlashErase;
  Flash.Delay = SmmFlashDelay;

  // The SMM service finds its flash interface through the SMM table on first use.
  Settings.SmmService->SettingsFlags = 0x01;
  Settings.SmmService->SecurityLink = Settings.SmmSecurityLink;
  Settings.SmmSecurityLink->SecuritySetup = Settings.SecuritySetup;
  Settings.SetupSmm->SetupRecord = Settings.SetupRecord;
  EmuSettingsLoadReferenceBlocks(Platform);
  return TRUE;
}

VOID EmuSettingsLoadReferenceBlocks(EmuPlatform &Platform) {
  UINT8 Record[kSecuritySettingsSize];
  ZeroMem(Record, sizeof(Record));
  for (UINTN Index = 0; Index < kBackupMagicOffset; Index++) {
    Record[Index] = static_cast<UINT8>(Index * 7 + 1);
  }
  CopyMem(Record + kBackupMagicOffset, kSecuritySettingsBackupMagic, sizeof(kSecuritySettingsBackupMagic));
  UINT16 Sum = 0;
  for (UINTN Offset = 0; Offset < sizeof(Record); Offset += 2) {
    Sum = static_cast<UINT16>(Sum + ReadUnaligned16(Record + Offset));
  }
  WriteUnaligned16(Record + kSettingsChecksumOffset, static_cast<UINT16>(0x10000 - Sum));

  const UINT32 Addresses[] = {SecuritySettingsBlock, SecuritySettingsBackup};
  for (UINT32 Address : Addresses) {
    UINT32 Offset;
    if (Platform.FlashOffset(Address, sizeof(Record), Offset)) {
      Platform.Flash.Load(Offset, Record, sizeof(Record));
    }
  }
}

VOID EmuSettingsPrepareSetupData(EmuPlatform &Platform) {
  Platform.Settings.SetupDescription->SetupData = Platform.Settings.SetupData;
}
