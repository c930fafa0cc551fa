// Protocol and pool services for the libraries that also run in SMM (the callback hub,
// the flash map): the SMM system table's inside SMM, the boot services' otherwise.
#pragma once
#include "../base/Uefi.h"

struct ProtocolServices {
  BOOLEAN InSmm;

  EFI_STATUS Locate(const EFI_GUID &Guid, VOID **Interface) const;
  // Installs Interface on a new handle.
  EFI_STATUS InstallOnNewHandle(const EFI_GUID &Guid, VOID *Interface) const;
  // Pool memory owned for good by the registry or map it holds; nullptr when exhausted.
  VOID *Allocate(EFI_MEMORY_TYPE Type, UINTN Size) const;
  VOID *AllocateZeroed(EFI_MEMORY_TYPE Type, UINTN Size) const;
  void Free(VOID *Buffer) const;
};

// The services of the phase the code runs in, as IsInSmm() answers.
ProtocolServices CurrentProtocolServices();
