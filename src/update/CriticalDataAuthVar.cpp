// Placeholder until the critical-variable digest is built.
#include "CriticalDataAuthVar.h"

#include "../driver/LibraryList.h"

EFI_STATUS Q42CriticalDataAuthVar() { return EFI_UNSUPPORTED; }
EFI_STATUS EFIAPI CriticalDataAuthVarLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI CriticalDataAuthVarLibDestructor(EFI_HANDLE, EFI_SYSTEM_TABLE *) { return EFI_SUCCESS; }
