// gnu-efi's crt0 relocates the image and calls efi_main with the System V convention;
// the firmware-facing entry point is the EFIAPI _ModuleEntryPoint.
#include "../../src/driver/Entry.h"

extern "C" EFI_STATUS efi_main(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  return _ModuleEntryPoint(ImageHandle, SystemTable);
}
