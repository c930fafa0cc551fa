#include "PointerRegistration.h"

#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/SmmServices.h"
#include "LibraryList.h"
#include "ProtocolServices.h"

PointerRegistrationProtocol *mPointerRegistration = nullptr;
BOOLEAN mIsRuntimeImage = FALSE;
EFI_EVENT mPointerRegistrationEvent = nullptr;
PlatformFlashServiceProtocol *mRuntimeFlashService = nullptr;
FlashServiceData *mRuntimeFlashServiceData = nullptr;

namespace {
VOID *mPointerRegistrationNotifyKey = nullptr;

VOID **OwnPointer() { return reinterpret_cast<VOID **>(&mPointerRegistration); }

EFI_STATUS LocateService(PointerRegistrationProtocol **Service) {
  return gBS->LocateProtocol(const_cast<EFI_GUID *>(&gPointerRegistrationProtocolGuid), nullptr,
                             reinterpret_cast<VOID **>(Service));
}

// The service appeared: take it, register our own pointer to it, and stop waiting.
VOID EFIAPI OnPointerRegistrationInstalled(EFI_EVENT Event, VOID *Context) {
  (void)Context;
  PointerRegistrationProtocol *Service = nullptr;
  if (LocateService(&Service) != EFI_SUCCESS || Service == nullptr) {
    return;
  }
  mPointerRegistration = Service;
  PointerRegister(OwnPointer());
  gBS->CloseEvent(Event);
  mPointerRegistrationEvent = nullptr;
}
}  // namespace

EFI_STATUS PointerRegister(VOID **PointerAddress) {
  if (mPointerRegistration == nullptr || !mIsRuntimeImage || mPointerRegistration->Register == nullptr) {
    return EFI_ABORTED;
  }
  return mPointerRegistration->Register(PointerAddress);
}

EFI_STATUS PointerUnregister(VOID **PointerAddress) {
  if (mPointerRegistration == nullptr || !mIsRuntimeImage || mPointerRegistration->Unregister == nullptr) {
    return EFI_ABORTED;
  }
  return mPointerRegistration->Unregister(PointerAddress);
}

EFI_STATUS EFIAPI PointerRegistrationLibConstructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)SystemTable;
  if (IsInSmm()) {
    return EFI_SUCCESS;
  }
  EFI_LOADED_IMAGE *LoadedImage = nullptr;
  mIsRuntimeImage = gBS->HandleProtocol(ImageHandle, const_cast<EFI_GUID *>(&gEfiLoadedImageProtocolGuid),
                                        reinterpret_cast<VOID **>(&LoadedImage)) == EFI_SUCCESS &&
                            LoadedImage != nullptr && LoadedImage->ImageCodeType == EfiRuntimeServicesCode
                        ? TRUE
                        : FALSE;

  PointerRegistrationProtocol *Service = nullptr;
  if (LocateService(&Service) == EFI_SUCCESS && Service != nullptr) {
    mPointerRegistration = Service;
    PointerRegister(OwnPointer());
    return EFI_SUCCESS;
  }
  EFI_STATUS Status = gBS->CreateEvent(EVT_NOTIFY_SIGNAL, TPL_CALLBACK, OnPointerRegistrationInstalled, nullptr,
                                       &mPointerRegistrationEvent);
  if (Status != EFI_SUCCESS) {
    mPointerRegistrationEvent = nullptr;
    return Status;
  }
  Status = gBS->RegisterProtocolNotify(const_cast<EFI_GUID *>(&gPointerRegistrationProtocolGuid),
                                       mPointerRegistrationEvent, &mPointerRegistrationNotifyKey);
  if (Status != EFI_SUCCESS) {
    gBS->CloseEvent(mPointerRegistrationEvent);
    mPointerRegistrationEvent = nullptr;
  }
  return Status;
}

EFI_STATUS EFIAPI PointerRegistrationLibDestructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)ImageHandle;
  (void)SystemTable;
  if (mPointerRegistrationEvent != nullptr) {
    gBS->CloseEvent(mPointerRegistrationEvent);
    mPointerRegistrationEvent = nullptr;
    return EFI_SUCCESS;
  }
  PointerUnregister(OwnPointer());
  return EFI_SUCCESS;
}

// Locates the platform flash service (inside SMM through the SMM table) and registers the
// two pointers a runtime image would have to keep valid: the interface and its data block.
EFI_STATUS EFIAPI PlatformPointerRegistrationConstructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)ImageHandle;
  (void)SystemTable;
  VOID *Interface = nullptr;
  EFI_STATUS Status = CurrentProtocolServices().Locate(gPlatformFlashServiceProtocolGuid, &Interface);
  if (Status != EFI_SUCCESS || Interface == nullptr) {
    return Status == EFI_SUCCESS ? EFI_NOT_FOUND : Status;
  }
  mRuntimeFlashService = static_cast<PlatformFlashServiceProtocol *>(Interface);
  mRuntimeFlashServiceData = mRuntimeFlashService->PlatformData;
  PointerRegister(reinterpret_cast<VOID **>(&mRuntimeFlashService));
  PointerRegister(reinterpret_cast<VOID **>(&mRuntimeFlashServiceData));
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI PlatformPointerRegistrationDestructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)ImageHandle;
  (void)SystemTable;
  PointerUnregister(reinterpret_cast<VOID **>(&mRuntimeFlashServiceData));
  PointerUnregister(reinterpret_cast<VOID **>(&mRuntimeFlashService));
  return EFI_SUCCESS;
}

#if defined(BIOS_HOST_BUILD)
void ResetPointerRegistrationForTest() {
  mPointerRegistration = nullptr;
  mIsRuntimeImage = FALSE;
  mPointerRegistrationEvent = nullptr;
  mPointerRegistrationNotifyKey = nullptr;
  mRuntimeFlashService = nullptr;
  mRuntimeFlashServiceData = nullptr;
}
#endif
