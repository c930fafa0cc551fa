#include "Globals.h"

EFI_HANDLE gImageHandle = nullptr;
EFI_SYSTEM_TABLE *gST = nullptr;
EFI_BOOT_SERVICES *gBS = nullptr;
EFI_RUNTIME_SERVICES *gRT = nullptr;
VOID *gDS = nullptr;
EFI_SMM_SYSTEM_TABLE2 *gSmst = nullptr;

#if defined(BIOS_HOST_BUILD)
void ResetGlobalsForTest() {
  gImageHandle = nullptr;
  gST = nullptr;
  gBS = nullptr;
  gRT = nullptr;
  gDS = nullptr;
  gSmst = nullptr;
}
#endif
