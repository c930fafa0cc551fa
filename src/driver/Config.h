// Build-time configuration: one structure holding the reference build's values.
// Firmware images see it as a constant; host builds may vary it in tests and restore it.
#pragma once
#include "../base/Uefi.h"

struct DriverConfig {
  BOOLEAN PcdBiosImageInterfaceEnable;
  BOOLEAN PcdBiosImageInterfaceDebug;
  UINT32 PcdFlashBase;
  UINT32 PcdFlashSize;
  BOOLEAN DxeSignCheckFlag;
  BOOLEAN UpdateHobsRequired;
  UINT32 VariableStoreBase;
  UINT32 VariableStoreSize;
  UINT32 ImageFlashOffset;
  UINT32 SignatureExcludedBase;
  UINT32 SignatureExcludedSize;
  BOOLEAN PolicyVariablesDropped;
  BOOLEAN ImageAcceptHookEnabled;
  BOOLEAN WriteStartHookEnabled;
  BOOLEAN FlashCompleteHookEnabled;
  BOOLEAN IbbUpdateHookEnabled;
  UINT32 EfsAddress;
  UINT32 EfsSize;
  UINT32 RecoveryBiosIdBase;
  UINT32 VariableBackupBase;
  UINT32 VariableBackupSize;
  UINT32 CmosJournalBase;
  UINT32 CmosJournalHeaderSize;
  UINT32 CmosJournalDataSize;
  UINT32 PspL1DirectoryBase;
  UINT32 PspL1DirectorySize;
  UINT32 PspL1BackupDirectoryBase;
  BOOLEAN CriticalDataAuthVarEnabled;
  UINT32 CriticalDataBase;
  UINT32 CriticalDataSize;
  BOOLEAN PpRecordingEnabled;
  BOOLEAN VssSignatureFormat;
  BOOLEAN DebugCodeHookEnabled;
  BOOLEAN DebugCodeCmosCopyEnabled;
  UINT16 DebugCodePort;
  const CHAR16 *PcdToolsVolumeLabel;
  const CHAR16 *PcdEspMakerDirectory;
  const CHAR16 *PcdToolsMakerDirectory;
  const CHAR16 *PcdMakerShortName;
  const CHAR16 *PcdUpdateToolPath;
  const CHAR16 *PcdUpdateToolAltPath;
  UINT8 PcdPspRomAddressFixup;
  UINT8 PcdPspRecoverySwitch;
  UINT8 PcdPspDirectorySwitch;
  // Values of the EDK II libraries the driver is built with.
  UINT64 PcdPciExpressBaseAddress;
  UINT64 PcdPciExpressBaseSize;
  UINT32 PcdMaximumUnicodeStringLength;
  UINT32 PcdMaximumAsciiStringLength;
  UINT32 PcdDebugPrintErrorLevel;
  // Dispatcher-facing constants of the module.
  UINT32 MinimumSystemTableRevision;
  UINT32 UnloadImageCount;
  // Power-loss remedies (off in the shipped configuration): where the prescribed order of
  // writes leaves a window in which a power cut loses data, take the smallest step that
  // closes it. Each use names its window.
  BOOLEAN PowerLossRemedies;
};

// Dynamic PCD token numbers read at start-up.
constexpr UINTN kBootBlockUpdateEnabledToken = 0x0A04;  // GetBool, platform token space
constexpr UINTN kAmdLibrarySettingToken = 0x95940054;   // Get8, AMD token space

extern const DriverConfig kReferenceConfig;

#if defined(BIOS_HOST_BUILD)
extern DriverConfig gConfig;
void ResetConfigForTest();
#else
extern const DriverConfig gConfig;
#endif
