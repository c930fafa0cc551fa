#include "SettingsServices.h"

#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../driver/DriverState.h"

namespace SecuritySettingsLib {
BOOLEAN mInSmm = FALSE;
BOOLEAN SettingsBackupSupported = FALSE;
BOOLEAN DigestProtection = FALSE;
}  // namespace SecuritySettingsLib

using namespace SecuritySettingsLib;

namespace {

SettingsSmmServiceProtocol *mSettingsSmmService = nullptr;
EFI_SMM_VARIABLE_PROTOCOL *mSettingsSmmVariable = nullptr;

template <typename T> EFI_STATUS SmmLocate(const EFI_GUID &Guid, T *&Interface) {
  if (gSmst == nullptr || gSmst->SmmLocateProtocol == nullptr) {
    return EFI_NOT_FOUND;
  }
  VOID *Found = nullptr;
  EFI_STATUS Status = gSmst->SmmLocateProtocol(const_cast<EFI_GUID *>(&Guid), nullptr, &Found);
  if (Status == EFI_SUCCESS && Found == nullptr) {
    Status = EFI_NOT_FOUND;
  }
  if (Status == EFI_SUCCESS) {
    Interface = static_cast<T *>(Found);
  }
  return Status;
}

template <typename T> EFI_STATUS BootLocate(const EFI_GUID &Guid, T *&Interface) {
  if (gBS == nullptr) {
    return EFI_NOT_READY;
  }
  VOID *Found = nullptr;
  EFI_STATUS Status = gBS->LocateProtocol(const_cast<EFI_GUID *>(&Guid), nullptr, &Found);
  if (Status == EFI_SUCCESS && Found == nullptr) {
    Status = EFI_NOT_FOUND;
  }
  if (Status == EFI_SUCCESS) {
    Interface = static_cast<T *>(Found);
  }
  return Status;
}

}  // namespace

VOID ReadSettingsFlags(const PlatformFlashServiceProtocol *Service) {
  SettingsBackupSupported = (Service->SettingsFlags & kSettingsBackupSupportedBit) != 0;
  DigestProtection = (Service->VerifyFlags & kDigestProtectionBit) != 0;
}

SettingsSmmServiceProtocol *LocateSettingsSmmService() {
  if (mSettingsSmmService == nullptr && SmmLocate(gSettingsSmmServiceGuid, mSettingsSmmService) != EFI_SUCCESS) {
    mSettingsSmmService = nullptr;
  }
  if (mSettingsSmmService == nullptr) {
    SettingsBackupSupported = FALSE;
    DigestProtection = FALSE;
    return nullptr;
  }
  if (mSettingsSmmService->Flash == nullptr) {
    SettingsSmmFlashProtocol *Flash = nullptr;
    if (SmmLocate(gSettingsSmmFlashGuid, Flash) == EFI_SUCCESS) {
      mSettingsSmmService->Flash = Flash;
    }
  }
  SettingsBackupSupported = (mSettingsSmmService->SettingsFlags & kSettingsBackupSupportedBit) != 0;
  DigestProtection = (mSettingsSmmService->VerifyFlags & kDigestProtectionBit) != 0;
  return mSettingsSmmService;
}

EFI_STATUS LocateSettingsSmmVariable(EFI_SMM_VARIABLE_PROTOCOL **Variable) {
  if (mSettingsSmmVariable == nullptr) {
    EFI_STATUS Status = SmmLocate(gEfiSmmVariableProtocolGuid, mSettingsSmmVariable);
    if (Status != EFI_SUCCESS) {
      mSettingsSmmVariable = nullptr;
      return Status;
    }
  }
  *Variable = mSettingsSmmVariable;
  return EFI_SUCCESS;
}

PlatformFlashDeviceProtocol *LocateSettingsFlashDevice() {
  if (mPlatformConfig == nullptr && BootLocate(gPlatformConfigProtocolGuid, mPlatformConfig) != EFI_SUCCESS) {
    mPlatformConfig = nullptr;
    return nullptr;
  }
  if (mPlatformConfig->FlashDevice == nullptr) {
    PlatformFlashDeviceProtocol *Device = nullptr;
    if (BootLocate(gPlatformFlashDeviceProtocolGuid, Device) == EFI_SUCCESS) {
      mPlatformConfig->FlashDevice = Device;
    }
  }
  return mPlatformConfig->FlashDevice;
}

BOOLEAN GetSettingsFlash(SettingsFlash &Flash) {
  if (mInSmm) {
    SettingsSmmServiceProtocol *Service = LocateSettingsSmmService();
    const SettingsSmmFlashProtocol *SmmFlash = Service != nullptr ? Service->Flash : nullptr;
    if (SmmFlash == nullptr) {
      return FALSE;
    }
    Flash = {SmmFlash->Erase, SmmFlash->Delay, SmmFlash->Write};
  } else {
    const PlatformFlashDeviceProtocol *Device = LocateSettingsFlashDevice();
    if (Device == nullptr) {
      return FALSE;
    }
    Flash = {Device->FlashDeviceErase, Device->FlashDeviceDelay, Device->FlashDeviceWrite};
  }
  return Flash.Erase != nullptr && Flash.Delay != nullptr && Flash.Write != nullptr;
}

EFI_STATUS SettingsGetVariable(const CHAR16 *Name, const EFI_GUID &Guid, UINTN *DataSize, VOID *Data) {
  if (mInSmm) {
    EFI_SMM_VARIABLE_PROTOCOL *Variable = nullptr;
    EFI_STATUS Status = LocateSettingsSmmVariable(&Variable);
    if (Status != EFI_SUCCESS) {
      return Status;
    }
    return Variable->SmmGetVariable(const_cast<CHAR16 *>(Name), const_cast<EFI_GUID *>(&Guid), nullptr, DataSize, Data);
  }
  if (gRT == nullptr) {
    return EFI_NOT_READY;
  }
  return gRT->GetVariable(const_cast<CHAR16 *>(Name), const_cast<EFI_GUID *>(&Guid), nullptr, DataSize, Data);
}

EFI_STATUS SettingsSetVariable(const CHAR16 *Name, const EFI_GUID &Guid, UINT32 Attributes, UINTN DataSize,
                               const VOID *Data) {
  if (mInSmm) {
    EFI_SMM_VARIABLE_PROTOCOL *Variable = nullptr;
    EFI_STATUS Status = LocateSettingsSmmVariable(&Variable);
    if (Status != EFI_SUCCESS) {
      return Status;
    }
    return Variable->SmmSetVariable(const_cast<CHAR16 *>(Name), const_cast<EFI_GUID *>(&Guid), Attributes, DataSize,
                                    const_cast<VOID *>(Data));
  }
  if (gRT == nullptr) {
    return EFI_NOT_READY;
  }
  return gRT->SetVariable(const_cast<CHAR16 *>(Name), const_cast<EFI_GUID *>(&Guid), Attributes, DataSize,
                          const_cast<VOID *>(Data));
}

#if defined(BIOS_HOST_BUILD)
void ResetSettingsServicesForTest() {
  mInSmm = FALSE;
  SettingsBackupSupported = FALSE;
  DigestProtection = FALSE;
  mSettingsSmmService = nullptr;
  mSettingsSmmVariable = nullptr;
}
#endif
