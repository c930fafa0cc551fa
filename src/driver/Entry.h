#pragma once
#include "../base/Uefi.h"

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable);
EFI_STATUS BiosImageInterfaceEntry(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable);
EFI_STATUS EFIAPI BiosImageInterfaceUnload(EFI_HANDLE ImageHandle);
