#include "PspDebugPrint.h"

#include "../base/Globals.h"
#include "../base/Guids.h"
#include "PspState.h"

EFI_STATUS EFIAPI PspDebugPrint(UINT32 Level, const char *Format, ...) {
  if (mPspDebugPrint == nullptr) {
    if (gBS == nullptr) {
      return EFI_NOT_READY;
    }
    VOID *Interface = nullptr;
    EFI_STATUS Status =
        gBS->LocateProtocol(const_cast<EFI_GUID *>(&gPspDebugPrintProtocolGuid), nullptr, &Interface);
    if (EfiError(Status)) {
      return Status;
    }
    if (Interface == nullptr) {
      return EFI_NOT_FOUND;
    }
    mPspDebugPrint = static_cast<PspDebugPrintProtocol *>(Interface);
  }
  VA_LIST Marker;
  VA_START(Marker, Format);
  EFI_STATUS Status = mPspDebugPrint->Print(Level, reinterpret_cast<const CHAR8 *>(Format), Marker);
  VA_END(Marker);
  return Status;
}
