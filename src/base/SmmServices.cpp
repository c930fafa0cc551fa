#include "SmmServices.h"

#include "Globals.h"
#include "Guids.h"

namespace {
EFI_SMM_BASE2_PROTOCOL *mSmmBase2 = nullptr;
BOOLEAN mInSmmKnown = FALSE;
BOOLEAN mInSmm = FALSE;
}  // namespace

BOOLEAN IsInSmm() {
  if (mInSmmKnown) {
    return mInSmm;
  }
  if (mSmmBase2 == nullptr &&
      (gBS == nullptr || gBS->LocateProtocol(const_cast<EFI_GUID *>(&gEfiSmmBase2ProtocolGuid), nullptr,
                                             reinterpret_cast<VOID **>(&mSmmBase2)) != EFI_SUCCESS)) {
    mSmmBase2 = nullptr;
    return FALSE;
  }
  BOOLEAN InSmram = FALSE;
  if (mSmmBase2->InSmm(mSmmBase2, &InSmram) != EFI_SUCCESS) {
    return FALSE;
  }
  mInSmm = InSmram;
  mInSmmKnown = TRUE;
  if (mInSmm && gSmst == nullptr) {
    mSmmBase2->GetSmstLocation(mSmmBase2, &gSmst);
  }
  return mInSmm;
}

EFI_STATUS EFIAPI SmmServicesTableLibConstructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)ImageHandle;
  (void)SystemTable;
  IsInSmm();
  return EFI_SUCCESS;
}

#if defined(BIOS_HOST_BUILD)
void ResetSmmStateForTest() {
  mSmmBase2 = nullptr;
  mInSmmKnown = FALSE;
  mInSmm = FALSE;
}
#endif
