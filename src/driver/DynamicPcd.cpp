#include "DynamicPcd.h"

#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/PiPcd.h"
#include "Trace.h"

namespace {
EFI_PCD_PROTOCOL *mPcd = nullptr;

EFI_PCD_PROTOCOL *PcdProtocol() {
  if (mPcd == nullptr) {
    EFI_STATUS Status = gBS->LocateProtocol(const_cast<EFI_GUID *>(&gEfiPcdProtocolGuid), nullptr,
                                            reinterpret_cast<VOID **>(&mPcd));
    if (Status != EFI_SUCCESS) {
      mPcd = nullptr;
      TRACE("  PCD protocol not found: %x", Status);
    }
  }
  return mPcd;
}
}  // namespace

BOOLEAN PcdGetBool(const EFI_GUID *TokenSpace, UINTN TokenNumber) {
  EFI_PCD_PROTOCOL *Pcd = PcdProtocol();
  return Pcd == nullptr ? FALSE : Pcd->GetBool(TokenSpace, TokenNumber);
}

UINT8 PcdGet8(const EFI_GUID *TokenSpace, UINTN TokenNumber) {
  EFI_PCD_PROTOCOL *Pcd = PcdProtocol();
  return Pcd == nullptr ? 0 : Pcd->Get8(TokenSpace, TokenNumber);
}

UINT64 PcdGet64(const EFI_GUID *TokenSpace, UINTN TokenNumber) {
  EFI_PCD_PROTOCOL *Pcd = PcdProtocol();
  return Pcd == nullptr ? 0 : Pcd->Get64(TokenSpace, TokenNumber);
}

VOID *PcdGetPtr(const EFI_GUID *TokenSpace, UINTN TokenNumber) {
  EFI_PCD_PROTOCOL *Pcd = PcdProtocol();
  return Pcd == nullptr ? nullptr : Pcd->GetPtr(TokenSpace, TokenNumber);
}

#if defined(BIOS_HOST_BUILD)
void ResetDynamicPcdForTest() { mPcd = nullptr; }
#endif
