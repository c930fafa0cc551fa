// Library steps whose subsystems are still being built. Each keeps its place in the
// start-up order and does nothing yet; a subsystem that implements its step removes it here.
#include "LibraryList.h"

EFI_STATUS EFIAPI CmosToRomStart(EFI_HANDLE, EFI_SYSTEM_TABLE *) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI CriticalDataAuthVarLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI CriticalDataAuthVarLibDestructor(EFI_HANDLE, EFI_SYSTEM_TABLE *) { return EFI_SUCCESS; }
