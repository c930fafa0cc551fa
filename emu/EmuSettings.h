// The platform side of the security settings and physical presence recording: the setup data
// that the flash device interface describes, the setup record the flash service points to,
// the security setup block, and the SMM settings service with its SMM flash interface and the
// SMM setup protocol (host tests publish these through the simulated SMM table).
#pragma once
#include "../src/base/PlatformProtocols.h"
#include "../src/base/Uefi.h"

class EmuPlatform;
struct EmuMemory;

struct EmuSettings {
  static constexpr UINTN kSetupDataSize = 0x100;
  static constexpr UINTN kSetupFieldCount = 32;
  static constexpr UINTN kSetupRecordSize = 0x800;

  // Reference contents: three distinct setup bytes, and recording switched on in both places.
  static constexpr UINT16 kField19Offset = 0x40;
  static constexpr UINT16 kField20Offset = 0x41;
  static constexpr UINT16 kField25Offset = 0x42;
  static constexpr UINT8 kField19Value = 0xC3;
  static constexpr UINT8 kField20Value = 0xA1;
  static constexpr UINT8 kField25Value = 0xB2;

  SetupDataDescription *SetupDescription = nullptr;  // flash device member 1, SMM flash member 1
  UINT8 *SetupData = nullptr;                         // kSetupDataSize bytes
  UINT8 *StaleSetupData = nullptr;                    // what the description names until prepared
  UINT16 *SetupFieldOffsets = nullptr;                // kSetupFieldCount entries
  UINT8 *SetupRecord = nullptr;                       // kSetupRecordSize bytes, older layout
  SecuritySetupBlock *SecuritySetup = nullptr;        // behind FlashServiceData 0x3A5

  SettingsSmmServiceProtocol *SmmService = nullptr;  // gSettingsSmmServiceGuid
  SettingsSmmFlashProtocol *SmmFlash = nullptr;      // gSettingsSmmFlashGuid
  SmmSecuritySetupLink *SmmSecurityLink = nullptr;   // SMM service member 55
  PlatformSetupSmmProtocol *SetupSmm = nullptr;      // gPlatformSetupSmmGuid
};

// Builds the blocks from Memory, links them into the platform's protocols and loads the
// reference settings blocks; FALSE when memory runs out.
BOOLEAN EmuSettingsInitialize(EmuPlatform &Platform, const EmuMemory &Memory);
// Loads the live settings block and its backup with the same record: reference settings
// data, the backup magic, sealed with the word checksum. Not counted as flash operations.
VOID EmuSettingsLoadReferenceBlocks(EmuPlatform &Platform);
// What the flash device's member 24 (the SMM flash interface's member 2) does before the
// setup data is read: points the description at the current setup data.
VOID EmuSettingsPrepareSetupData(EmuPlatform &Platform);
