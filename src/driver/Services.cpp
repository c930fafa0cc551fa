// The services whose whole behaviour is fixed here: the version, the update token
// and the four reserved slots.
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/PlatformProtocols.h"
#include "BiosImageInterface.h"
#include "Trace.h"

namespace {
constexpr UINT32 kUpdateLogRecordVersionQueried = 27;
}

EFI_STATUS EFIAPI BiosGetDriverVersion(BiosImageInterfaceProtocol *This, UINT8 *Major, UINT8 *Minor) {
  (void)This;
  TRACE("  BiosImageInterfaceProtocol->BiosGetDriverVersion Entry");
  if (Major == nullptr || Minor == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  *Major = 2;
  *Minor = 0;
  UpdateLogProtocol *Log = nullptr;
  if (gBS->LocateProtocol(const_cast<EFI_GUID *>(&gUpdateLogProtocolGuid), nullptr,
                          reinterpret_cast<VOID **>(&Log)) == EFI_SUCCESS &&
      Log != nullptr) {
    Log->WriteRecord(Log, kUpdateLogRecordVersionQueried, 0, nullptr);
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI BiosGetUpdateToken(BiosImageInterfaceProtocol *This, UINT64 *Token) {
  (void)This;
  TRACE("  BiosImageInterfaceProtocol->BiosGetUpdateToken Entry");
  if (Token == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  *Token = 0;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI BiosReservedNotReady(BiosImageInterfaceProtocol *This) {
  (void)This;
  return EFI_NOT_READY;
}

EFI_STATUS EFIAPI BiosReservedUnsupported(BiosImageInterfaceProtocol *This) {
  (void)This;
  return EFI_UNSUPPORTED;
}
