// The security-settings block (SecuritySettingsRecord.h) and its operations: checking a
// record's seal, repairing a damaged live block from its backup (or clearing it and
// resetting), snapshotting the live block into memory, and sealing and writing a record back.
// Flash writes are retried up to 100 times and then reported as done whatever they gave.
#pragma once
#include "../base/Uefi.h"
#include "SecuritySettingsRecord.h"

// 1 byte under gPlatformVariableGuid: how the last repair of the live block went.
constexpr UINT8 kSettingsRestoredFromBackup = 2;
constexpr UINT8 kSettingsCleared = 3;
constexpr UINT32 kSettingsFailFlagAttributes =
    EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS;

constexpr UINTN kSettingsFlashAttempts = 100;
constexpr UINTN kSettingsFlashDelayUnits = 50;

// The snapshot page handed to SaveSecuritySettings by the verification service: allocated on
// first use and kept for the life of the driver.
extern UINT8 *mSecuritySettingsCopy;

// EFI_SUCCESS when the 4096-byte record's seal holds; EFI_NOT_READY for an all-zero record;
// EFI_SECURITY_VIOLATION for a wrong seal or an unknown format; EFI_INVALID_PARAMETER for null.
EFI_STATUS CheckSecuritySettings(const UINT8 *Record);
// Repairs a damaged live block from a good backup, or clears it and resets the platform.
EFI_STATUS RecoverSecuritySettings();
// Rewrites the live block with zeros.
EFI_STATUS ClearSecuritySettings();
// Copies the live block into *Copy (one runtime-services page, allocated when *Copy is null),
// adds the backup magic and records the physical presence flags.
EFI_STATUS SaveSecuritySettings(UINT8 **Copy);
// Seals Record in place and writes it to the live block unless the block already holds it.
EFI_STATUS WriteSecuritySettings(UINT8 *Record);

EFI_STATUS EFIAPI SecuritySettingsLibConstructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable);
EFI_STATUS EFIAPI SecuritySettingsLibDestructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable);

HOST_ONLY(void ResetSecuritySettingsForTest();)
