// Dynamic configuration values read through the PI PCD protocol, located on first use.
#pragma once
#include "../base/Uefi.h"

// Without the PCD protocol a read yields FALSE or 0, and a trace line says so.
BOOLEAN PcdGetBool(const EFI_GUID *TokenSpace, UINTN TokenNumber);
UINT8 PcdGet8(const EFI_GUID *TokenSpace, UINTN TokenNumber);
UINT64 PcdGet64(const EFI_GUID *TokenSpace, UINTN TokenNumber);
VOID *PcdGetPtr(const EFI_GUID *TokenSpace, UINTN TokenNumber);

HOST_ONLY(void ResetDynamicPcdForTest();)
