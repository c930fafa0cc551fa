#include "PhysicalPresence.h"

#include "../base/BaseLib.h"
#include "../base/Char16.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/PlatformProtocols.h"
#include "../driver/Config.h"
#include "../driver/DriverState.h"
#include "SecuritySettingsRecord.h"
#include "SettingsServices.h"

using namespace SecuritySettingsLib;

namespace {

// What the current mode offers: the setup data preparation, its description, and the two
// places the recording switch may be read from.
struct PpPlatform {
  PLATFORM_FLASH_DEVICE_MEMBER PrepareSetupData;
  VOID *FlashInterface;
  const SetupDataDescription *SetupData;
  BOOLEAN SecuritySetupSelected;
  const SecuritySetupBlock *SecuritySetup;
  const UINT8 *SetupRecord;
};

EFI_STATUS GatherBootServicesPlatform(PpPlatform &Platform) {
  if (mPlatformFlashService == nullptr) {
    if (gBS == nullptr) {
      return EFI_NOT_READY;
    }
    VOID *Interface = nullptr;
    EFI_STATUS Status =
        gBS->LocateProtocol(const_cast<EFI_GUID *>(&gPlatformFlashServiceProtocolGuid), nullptr, &Interface);
    if (Status != EFI_SUCCESS) {
      return Status;
    }
    if (Interface == nullptr) {
      return EFI_NOT_FOUND;
    }
    mPlatformFlashService = static_cast<PlatformFlashServiceProtocol *>(Interface);
  }
  PlatformFlashDeviceProtocol *Device = LocateSettingsFlashDevice();
  if (Device == nullptr) {
    return EFI_NOT_FOUND;
  }
  const FlashServiceData *Data = mPlatformFlashService->PlatformData;
  Platform.PrepareSetupData = Device->PrepareSetupData;
  Platform.FlashInterface = Device;
  Platform.SetupData = Device->SetupData;
  Platform.SecuritySetupSelected = (mPlatformFlashService->FlashCapabilities & kSecuritySetupSwitchSelect) != 0;
  Platform.SecuritySetup = Data != nullptr ? Data->SecuritySetup : nullptr;
  Platform.SetupRecord = mPlatformFlashService->SetupRecord;
  return EFI_SUCCESS;
}

EFI_STATUS GatherSmmPlatform(PpPlatform &Platform) {
  SettingsSmmServiceProtocol *Service = LocateSettingsSmmService();
  if (Service == nullptr || Service->Flash == nullptr) {
    return EFI_NOT_FOUND;
  }
  Platform.PrepareSetupData = Service->Flash->PrepareSetupData;
  Platform.FlashInterface = Service->Flash;
  Platform.SetupData = Service->Flash->SetupData;
  Platform.SecuritySetupSelected = (Service->SetupFlags & kSecuritySetupSwitchSelect) != 0;
  Platform.SecuritySetup = Service->SecurityLink != nullptr ? Service->SecurityLink->SecuritySetup : nullptr;
  Platform.SetupRecord = nullptr;
  VOID *SetupSmm = nullptr;
  if (gSmst != nullptr && gSmst->SmmLocateProtocol != nullptr &&
      gSmst->SmmLocateProtocol(const_cast<EFI_GUID *>(&gPlatformSetupSmmGuid), nullptr, &SetupSmm) == EFI_SUCCESS &&
      SetupSmm != nullptr) {
    Platform.SetupRecord = static_cast<PlatformSetupSmmProtocol *>(SetupSmm)->SetupRecord;
  }
  return EFI_SUCCESS;
}

BOOLEAN RecordingEnabled(const PpPlatform &Platform) {
  if (Platform.SecuritySetupSelected) {
    return Platform.SecuritySetup != nullptr && Platform.SecuritySetup->PpRecordingSwitch == 1;
  }
  const UINT8 *Setting = PlatformSettingLocator(Platform.SetupRecord);
  return Setting != nullptr && (*Setting & kSetupPpRecordingBit) != 0;
}

}  // namespace

const UINT8 *PlatformSettingLocator(const UINT8 *Record) {
  if (Record == nullptr) {
    return nullptr;
  }
  if (!CompareGuid(reinterpret_cast<const EFI_GUID *>(Record), &gPlatformSetupLayoutGuid)) {
    return Record + kOlderSetupFieldOffset;
  }
  UINT16 Offset = ReadUnaligned16(Record + kSetupLayoutFieldOffsetAt);
  for (UINT16 Known : kNewerSetupFieldOffsets) {
    if (Offset == Known) {
      return Record + Offset;
    }
  }
  return Record;
}

EFI_STATUS RecordPhysicalPresenceFlags(UINT8 *Record) {
  if (!gConfig.PpRecordingEnabled) {
    return EFI_UNSUPPORTED;
  }
  if (Record == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  PpPlatform Platform = {};
  EFI_STATUS Status = mInSmm ? GatherSmmPlatform(Platform) : GatherBootServicesPlatform(Platform);
  if (Status != EFI_SUCCESS) {
    return Status;
  }
  if (Platform.PrepareSetupData == nullptr) {
    return EFI_NOT_FOUND;
  }
  Status = Platform.PrepareSetupData(Platform.FlashInterface);
  if (EfiError(Status)) {
    return Status;
  }

  const SetupDataDescription *Description = Platform.SetupData;
  if (Description == nullptr || Description->SetupData == nullptr || Description->FieldOffsets == nullptr) {
    return EFI_NOT_FOUND;
  }
  const UINT8 *Setup = Description->SetupData;
  const UINT16 *Offsets = Description->FieldOffsets;
  UINT8 Byte1 = Setup[ReadUnaligned16(&Offsets[kPlatformSecurityField1])];
  UINT8 Byte2 = Setup[ReadUnaligned16(&Offsets[kPlatformSecurityField2])];
  UINT8 Byte3 = Setup[ReadUnaligned16(&Offsets[kPlatformSecurityField3])];
  if (!RecordingEnabled(Platform)) {
    return EFI_UNSUPPORTED;
  }

  Record[kPlatformSecurityByte1Offset] = Byte1;
  Record[kPlatformSecurityByte2Offset] = Byte2;
  Record[kPlatformSecurityByte3Offset] = Byte3;
  WriteUnaligned32(Record + kPpFlagsOffset, 0);
  Record[kPpFlagsSourceOffset] = kPpFlagsSourceNone;

  UINT8 TcgFlags = 0;
  UINTN Size = sizeof(TcgFlags);
  if (SettingsGetVariable("PhysicalPresenceFlags"_u16, gEfiPhysicalPresenceGuid, &Size, &TcgFlags) == EFI_SUCCESS) {
    WriteUnaligned32(Record + kPpFlagsOffset, TcgFlags);
    Record[kPpFlagsSourceOffset] = kPpFlagsSourceTcg;
  }

  UINT8 Tcg2Flags[4] = {};
  Size = sizeof(Tcg2Flags);
  Status = SettingsGetVariable("Tcg2PhysicalPresenceFlags"_u16, gEfiTcg2PhysicalPresenceGuid, &Size, Tcg2Flags);
  if (Status == EFI_SUCCESS && Size <= sizeof(Tcg2Flags)) {
    WriteUnaligned32(Record + kPpFlagsOffset, ReadUnaligned32(Tcg2Flags));
    Record[kPpFlagsSourceOffset] = kPpFlagsSourceTcg2;
  }
  return Record[kPpFlagsSourceOffset] != kPpFlagsSourceNone ? EFI_SUCCESS : Status;
}
