// The firmware table globals with their EDK II names, set by the first library
// constructors of the driver's entry point.
#pragma once
#include "Uefi.h"

struct EFI_SMM_SYSTEM_TABLE2;

extern EFI_HANDLE gImageHandle;
extern EFI_SYSTEM_TABLE *gST;
extern EFI_BOOT_SERVICES *gBS;
extern EFI_RUNTIME_SERVICES *gRT;
extern VOID *gDS;  // DXE services table, kept for the libraries that want it
extern EFI_SMM_SYSTEM_TABLE2 *gSmst;

HOST_ONLY(void ResetGlobalsForTest();)
