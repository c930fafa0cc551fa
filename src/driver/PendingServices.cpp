// Service slots whose subsystems are still being built: each prints its entry line and
// reports EFI_UNSUPPORTED. A subsystem that implements its service removes it from here.
#include "BiosImageInterface.h"
#include "Trace.h"

EFI_STATUS EFIAPI SetFlashCompletionStatus(BiosImageInterfaceProtocol *This, UINT8 Status) {
  (void)This;
  TRACE("  BiosImageInterfaceProtocol->SetFlashCompletionStatus Entry [%x]", Status);
  return EFI_UNSUPPORTED;
}
