#include "Config.h"

#include "../base/Char16.h"

constexpr DriverConfig kReferenceConfigValue = {
    .PcdBiosImageInterfaceEnable = TRUE,
    .PcdBiosImageInterfaceDebug = FALSE,
    .PcdFlashBase = 0xFF000000,
    .PcdFlashSize = 0x01000000,
    .DxeSignCheckFlag = TRUE,
    .UpdateHobsRequired = TRUE,
    .VariableStoreBase = 0xFF14A000,
    .VariableStoreSize = 0x00030000,
    .ImageFlashOffset = 0,
    .SignatureExcludedBase = 0xFF144700,
    .SignatureExcludedSize = 0x100,
    .PolicyVariablesDropped = FALSE,
    .ImageAcceptHookEnabled = TRUE,
    .WriteStartHookEnabled = TRUE,
    .FlashCompleteHookEnabled = TRUE,
    .IbbUpdateHookEnabled = TRUE,
    .EfsAddress = 0xFF020000,
    .EfsSize = 0x1000,
    .RecoveryBiosIdBase = 0xFF2C0000,
    .VariableBackupBase = 0xFF17C000,
    .VariableBackupSize = 0x00032000,
    .CmosJournalBase = 0xFF0E6000,
    .CmosJournalHeaderSize = 0x20,
    .CmosJournalDataSize = 0x1FE0,
    .PspL1DirectoryBase = 0xFFF80000,
    .PspL1DirectorySize = 0x1000,
    .PspL1BackupDirectoryBase = 0xFFF81000,
    .CriticalDataAuthVarEnabled = TRUE,
    .CriticalDataBase = 0xFF0E9000,
    .CriticalDataSize = 0x1000,
    .PpRecordingEnabled = TRUE,
    .VssSignatureFormat = TRUE,
    .DebugCodeHookEnabled = FALSE,
    .DebugCodeCmosCopyEnabled = TRUE,
    .DebugCodePort = 0x0080,
    .PcdToolsVolumeLabel = "ZQ_TOOLS"_u16,
    .PcdEspMakerDirectory = "EFI\\ZQ"_u16,
    .PcdToolsMakerDirectory = "QUILLOR-TANDEMS"_u16,
    .PcdMakerShortName = "ZQ"_u16,
    .PcdUpdateToolPath = "\\BIOSUpdate\\ZqBiosMgmt.efi"_u16,
    .PcdUpdateToolAltPath = "\\BIOSUpdate\\BiosMgmt.efi"_u16,
    .PcdPspRomAddressFixup = 0,
    .PcdPspRecoverySwitch = 0,
    .PcdPspDirectorySwitch = 1,
    .PcdPciExpressBaseAddress = 0xE0000000,
    .PcdPciExpressBaseSize = 0x10000000,
    .PcdMaximumUnicodeStringLength = 1000000,
    .PcdMaximumAsciiStringLength = 1000000,
    .PcdDebugPrintErrorLevel = 0x8000004F,
    .MinimumSystemTableRevision = 0,
    .UnloadImageCount = 0,
    .PowerLossRemedies = FALSE,
};

const DriverConfig kReferenceConfig = kReferenceConfigValue;

#if defined(BIOS_HOST_BUILD)
DriverConfig gConfig = kReferenceConfigValue;
void ResetConfigForTest() { gConfig = kReferenceConfig; }
#else
const DriverConfig gConfig = kReferenceConfigValue;
#endif
