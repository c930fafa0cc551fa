#include "VariableStorePointers.h"

#include "../base/Guids.h"
#include "FlashMap.h"
#include "LibraryList.h"
#include "PointerRegistration.h"

UINT8 *mNvVariableStore = nullptr;
UINT64 mNvVariableStoreSize = 0;

EFI_STATUS EFIAPI VariableStorePointerLibConstructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)ImageHandle;
  (void)SystemTable;
  UINT64 Address = 0;
  UINT64 Size = 0;
  if (FlashMapFindByName(&gNvVariableStoreRegionGuid, &Address, &Size) != EFI_SUCCESS) {
    Address = FlashMapGetAddress(&gNvVariableStoreRegionGuid, 1);
    Size = FlashMapGetSize(&gNvVariableStoreRegionGuid, 1);
  }
  if (Address == 0) {
    return EFI_NOT_FOUND;
  }
  mNvVariableStore = reinterpret_cast<UINT8 *>(static_cast<UINTN>(Address));
  mNvVariableStoreSize = Size;
  PointerRegister(reinterpret_cast<VOID **>(&mNvVariableStore));
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI VariableStorePointerLibDestructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)ImageHandle;
  (void)SystemTable;
  if (mNvVariableStore != nullptr) {
    PointerUnregister(reinterpret_cast<VOID **>(&mNvVariableStore));
  }
  return EFI_SUCCESS;
}

#if defined(BIOS_HOST_BUILD)
void ResetVariableStorePointersForTest() {
  mNvVariableStore = nullptr;
  mNvVariableStoreSize = 0;
}
#endif
