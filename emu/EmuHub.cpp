#include "EmuHub.h"

#include "EmuPlatform.h"

namespace {
EFI_STATUS EFIAPI EmuPointerRegister(VOID **PointerAddress) {
  EmuPlatform *Platform = EmuActivePlatform();
  if (Platform == nullptr) {
    return EFI_NOT_READY;
  }
  Platform->Record("PointerRegister", reinterpret_cast<UINT64>(PointerAddress));
  return Platform->Hub.RegisterStatus;
}

EFI_STATUS EFIAPI EmuPointerUnregister(VOID **PointerAddress) {
  EmuPlatform *Platform = EmuActivePlatform();
  if (Platform == nullptr) {
    return EFI_NOT_READY;
  }
  Platform->Record("PointerUnregister", reinterpret_cast<UINT64>(PointerAddress));
  return Platform->Hub.RegisterStatus;
}
}  // namespace

void EmuHubServices::Initialize() {
  Registry.Flink = &Registry;
  Registry.Blink = &Registry;
  PointerRegistration = {};
  PointerRegistration.Register = EmuPointerRegister;
  PointerRegistration.Unregister = EmuPointerUnregister;
  RegisterStatus = EFI_SUCCESS;
}
