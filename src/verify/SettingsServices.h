// Where the security-settings library takes its services from. The same code runs in a
// boot-services driver (flash device interface, runtime variables, flags read once from the
// platform flash service) or in SMM (the SMM settings service and its flash interface, the
// SMM variable protocol, flags re-read on every call). Shared by the settings record
// operations and the physical presence recording.
#pragma once
#include "../base/PiSmm.h"
#include "../base/PlatformProtocols.h"

// The library flags, zero at load.
namespace SecuritySettingsLib {
extern BOOLEAN mInSmm;                   // running in SMM
extern BOOLEAN SettingsBackupSupported;  // gates Save and Write
extern BOOLEAN DigestProtection;         // gates Recover; selects the seal Write uses
}  // namespace SecuritySettingsLib

constexpr UINT8 kSettingsBackupSupportedBit = 0x01;  // flash service byte 0x23, SMM service byte 19
constexpr UINT8 kDigestProtectionBit = 0x02;         // flash service byte 0x36, SMM service byte 38

// Both flags from the platform flash service (boot-services mode).
VOID ReadSettingsFlags(const PlatformFlashServiceProtocol *Service);

// SMM: the settings service, located through gSmst when not yet known, its flash interface
// (member 54) located and stored when empty, and both flags re-read from it. nullptr when
// the service cannot be found; both flags then read as clear.
SettingsSmmServiceProtocol *LocateSettingsSmmService();
// SMM: the SMM variable protocol, located once through gSmst and kept.
EFI_STATUS LocateSettingsSmmVariable(EFI_SMM_VARIABLE_PROTOCOL **Variable);
// Boot services: the flash device interface that mPlatformConfig holds at 0xAD, locating
// mPlatformConfig and the interface (stored there) when not yet known. nullptr when missing.
PlatformFlashDeviceProtocol *LocateSettingsFlashDevice();

// The flash operations of the current mode.
struct SettingsFlash {
  PLATFORM_FLASH_DEVICE_ERASE Erase;
  PLATFORM_FLASH_DEVICE_DELAY Delay;
  PLATFORM_FLASH_DEVICE_WRITE Write;
};
// FALSE when the current mode has no flash interface with all three operations.
BOOLEAN GetSettingsFlash(SettingsFlash &Flash);

// Variables through runtime services, or through the SMM variable protocol in SMM.
EFI_STATUS SettingsGetVariable(const CHAR16 *Name, const EFI_GUID &Guid, UINTN *DataSize, VOID *Data);
EFI_STATUS SettingsSetVariable(const CHAR16 *Name, const EFI_GUID &Guid, UINT32 Attributes, UINTN DataSize,
                               const VOID *Data);

HOST_ONLY(void ResetSettingsServicesForTest();)
