// The emulated platform as a DXE driver inside OVMF: it builds the platform in boot-services
// memory, installs its protocols, and answers the platform's PCD token spaces (which OVMF's
// PCD database does not hold) by wrapping the getters of the PI PCD protocol.
#include <new>

#include "../../emu/EmuPlatform.h"
#include "../../src/base/BaseLib.h"
#include "../../src/base/Globals.h"
#include "../../src/base/Guids.h"
#include "../../src/base/PiPcd.h"
#include "../../src/driver/Config.h"

namespace {

EFI_PCD_PROTOCOL_GET_8 mOriginalGet8 = nullptr;
EFI_PCD_PROTOCOL_GET_BOOLEAN mOriginalGetBool = nullptr;
EFI_PCD_PROTOCOL mOwnPcd = {};

bool IsPlatformTokenSpace(const EFI_GUID *Guid) {
  return CompareGuid(Guid, &gPlatformPcdTokenSpaceGuid) || CompareGuid(Guid, &gAmdPcdTokenSpaceGuid);
}

BOOLEAN EFIAPI EmuGetBool(const EFI_GUID *Guid, UINTN Token) {
  if (IsPlatformTokenSpace(Guid)) {
    return Token == kBootBlockUpdateEnabledToken ? gEmuPlatform->PcdBootBlockUpdateEnabled : FALSE;
  }
  return mOriginalGetBool != nullptr ? mOriginalGetBool(Guid, Token) : FALSE;
}

UINT8 EFIAPI EmuGet8(const EFI_GUID *Guid, UINTN Token) {
  if (IsPlatformTokenSpace(Guid)) {
    return Token == kAmdLibrarySettingToken ? gEmuPlatform->PcdAmdLibrarySetting : 0;
  }
  return mOriginalGet8 != nullptr ? mOriginalGet8(Guid, Token) : 0;
}

VOID *AllocateAny(UINTN Size) {
  EFI_PHYSICAL_ADDRESS Address = 0;
  if (gBS->AllocatePages(AllocateAnyPages, EfiBootServicesData, (Size + 0xFFF) / 0x1000, &Address) != EFI_SUCCESS) {
    return nullptr;
  }
  return reinterpret_cast<VOID *>(Address);
}

VOID *AllocateBelow4G(UINTN Size) {
  EFI_PHYSICAL_ADDRESS Address = 0xFFFFFFFFull;
  if (gBS->AllocatePages(AllocateMaxAddress, EfiBootServicesData, (Size + 0xFFF) / 0x1000, &Address) != EFI_SUCCESS) {
    return nullptr;
  }
  return reinterpret_cast<VOID *>(Address);
}

void AnswerPlatformPcds() {
  EFI_PCD_PROTOCOL *Pcd = nullptr;
  if (gBS->LocateProtocol(const_cast<EFI_GUID *>(&gEfiPcdProtocolGuid), nullptr, reinterpret_cast<VOID **>(&Pcd)) ==
          EFI_SUCCESS &&
      Pcd != nullptr) {
    mOriginalGet8 = Pcd->Get8;
    mOriginalGetBool = Pcd->GetBool;
    Pcd->Get8 = EmuGet8;
    Pcd->GetBool = EmuGetBool;
    return;
  }
  mOwnPcd.Get8 = EmuGet8;
  mOwnPcd.GetBool = EmuGetBool;
  EFI_HANDLE Handle = nullptr;
  gBS->InstallProtocolInterface(&Handle, const_cast<EFI_GUID *>(&gEfiPcdProtocolGuid), EFI_NATIVE_INTERFACE, &mOwnPcd);
}

}  // namespace

extern "C" EFI_STATUS efi_main(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  gImageHandle = ImageHandle;
  gST = SystemTable;
  gBS = SystemTable->BootServices;
  gRT = SystemTable->RuntimeServices;

  VOID *Memory = AllocateAny(sizeof(EmuPlatform));
  if (Memory == nullptr) {
    return EFI_OUT_OF_RESOURCES;
  }
  auto *Platform = new (Memory) EmuPlatform();
  static const EmuMemory kFirmwareMemory = {AllocateAny, AllocateBelow4G};
  if (!Platform->Initialize(kFirmwareMemory, kDefaultEmuLayout)) {
    return EFI_OUT_OF_RESOURCES;
  }
  Platform->EchoTracesToConsole = TRUE;
  gEmuPlatform = Platform;

  AnswerPlatformPcds();
  EmuInstallOptions Options;
  return EmuInstallProtocols(*Platform, gBS, Options);
}
