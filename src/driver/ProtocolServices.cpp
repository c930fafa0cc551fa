#include "ProtocolServices.h"

#include "../base/BaseLib.h"
#include "../base/Globals.h"
#include "../base/PiSmm.h"
#include "../base/SmmServices.h"

namespace {
// The SMM table keeps these members untyped; their signatures are the boot services' ones.
template <typename Function> Function SmmMember(VOID *Member) { return reinterpret_cast<Function>(Member); }

bool SmmUsable(BOOLEAN InSmm) { return InSmm && gSmst != nullptr; }
}  // namespace

EFI_STATUS ProtocolServices::Locate(const EFI_GUID &Guid, VOID **Interface) const {
  *Interface = nullptr;
  EFI_STATUS Status = EFI_NOT_FOUND;
  if (InSmm) {
    if (SmmUsable(InSmm) && gSmst->SmmLocateProtocol != nullptr) {
      Status = gSmst->SmmLocateProtocol(const_cast<EFI_GUID *>(&Guid), nullptr, Interface);
    }
  } else {
    Status = gBS->LocateProtocol(const_cast<EFI_GUID *>(&Guid), nullptr, Interface);
  }
  if (Status != EFI_SUCCESS) {
    *Interface = nullptr;
  }
  return Status;
}

EFI_STATUS ProtocolServices::InstallOnNewHandle(const EFI_GUID &Guid, VOID *Interface) const {
  EFI_HANDLE Handle = nullptr;
  if (InSmm) {
    if (!SmmUsable(InSmm) || gSmst->SmmInstallProtocolInterface == nullptr) {
      return EFI_UNSUPPORTED;
    }
    return SmmMember<EFI_INSTALL_PROTOCOL_INTERFACE>(gSmst->SmmInstallProtocolInterface)(
        &Handle, const_cast<EFI_GUID *>(&Guid), EFI_NATIVE_INTERFACE, Interface);
  }
  return gBS->InstallProtocolInterface(&Handle, const_cast<EFI_GUID *>(&Guid), EFI_NATIVE_INTERFACE, Interface);
}

VOID *ProtocolServices::Allocate(EFI_MEMORY_TYPE Type, UINTN Size) const {
  VOID *Buffer = nullptr;
  EFI_STATUS Status = EFI_OUT_OF_RESOURCES;
  if (InSmm) {
    if (SmmUsable(InSmm) && gSmst->SmmAllocatePool != nullptr) {
      Status = SmmMember<EFI_ALLOCATE_POOL>(gSmst->SmmAllocatePool)(Type, Size, &Buffer);
    }
  } else {
    Status = gBS->AllocatePool(Type, Size, &Buffer);
  }
  return Status == EFI_SUCCESS ? Buffer : nullptr;
}

VOID *ProtocolServices::AllocateZeroed(EFI_MEMORY_TYPE Type, UINTN Size) const {
  VOID *Buffer = Allocate(Type, Size);
  if (Buffer != nullptr) {
    ZeroMem(Buffer, Size);
  }
  return Buffer;
}

void ProtocolServices::Free(VOID *Buffer) const {
  if (Buffer == nullptr) {
    return;
  }
  if (InSmm) {
    if (SmmUsable(InSmm) && gSmst->SmmFreePool != nullptr) {
      SmmMember<EFI_FREE_POOL>(gSmst->SmmFreePool)(Buffer);
    }
    return;
  }
  gBS->FreePool(Buffer);
}

ProtocolServices CurrentProtocolServices() { return ProtocolServices{IsInSmm()}; }
