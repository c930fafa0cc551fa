#include "PlatformPcds.h"

#include "../../emu/EmuPlatform.h"
#include "../../src/base/BaseLib.h"
#include "../../src/base/Globals.h"
#include "../../src/base/Guids.h"
#include "../../src/base/PiPcd.h"
#include "../../src/driver/Config.h"
#include "../../src/driver/FlashMap.h"

namespace {

EFI_PCD_PROTOCOL_GET_8 mOriginalGet8 = nullptr;
EFI_PCD_PROTOCOL_GET_BOOLEAN mOriginalGetBool = nullptr;
EFI_PCD_PROTOCOL_GET_64 mOriginalGet64 = nullptr;
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

// The flash-map copy's address and size (gFlashMapTokenSpaceGuid); other tokens of that
// space, and other spaces, go to the firmware's own PCD database.
UINT64 EFIAPI EmuGet64(const EFI_GUID *Guid, UINTN Token) {
  if (CompareGuid(Guid, &gFlashMapTokenSpaceGuid)) {
    if (Token == kFlashMapAddressToken) {
      return gEmuPlatform->PcdFlashMapAddress;
    }
    if (Token == kFlashMapSizeToken) {
      return gEmuPlatform->PcdFlashMapSize;
    }
  }
  return mOriginalGet64 != nullptr ? mOriginalGet64(Guid, Token) : 0;
}

}  // namespace

void AnswerPlatformPcds() {
  EFI_PCD_PROTOCOL *Pcd = nullptr;
  if (gBS->LocateProtocol(const_cast<EFI_GUID *>(&gEfiPcdProtocolGuid), nullptr, reinterpret_cast<VOID **>(&Pcd)) ==
          EFI_SUCCESS &&
      Pcd != nullptr) {
    mOriginalGet8 = Pcd->Get8;
    mOriginalGetBool = Pcd->GetBool;
    mOriginalGet64 = Pcd->Get64;
    Pcd->Get8 = EmuGet8;
    Pcd->GetBool = EmuGetBool;
    Pcd->Get64 = EmuGet64;
    return;
  }
  mOwnPcd.Get8 = EmuGet8;
  mOwnPcd.GetBool = EmuGetBool;
  mOwnPcd.Get64 = EmuGet64;
  EFI_HANDLE Handle = nullptr;
  gBS->InstallProtocolInterface(&Handle, const_cast<EFI_GUID *>(&gEfiPcdProtocolGuid), EFI_NATIVE_INTERFACE, &mOwnPcd);
}

