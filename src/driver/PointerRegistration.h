// The pointer-registration service (gPointerRegistrationProtocolGuid), through which a
// runtime image registers pointer variables with the platform's runtime core. This driver
// is a boot-service image, so its registrations are refused with EFI_ABORTED and change
// nothing; the libraries still go through the motions so that a runtime build would work.
#pragma once
#include "../base/PlatformProtocols.h"
#include "../base/Uefi.h"

typedef EFI_STATUS(EFIAPI *POINTER_REGISTRATION_OPERATION)(VOID **PointerAddress);

struct PointerRegistrationProtocol {
  VOID *Member0;
  VOID *Member1;
  POINTER_REGISTRATION_OPERATION Register;    // third slot
  POINTER_REGISTRATION_OPERATION Unregister;  // fourth slot
};
static_assert(offsetof(PointerRegistrationProtocol, Register) == 2 * 8);
static_assert(offsetof(PointerRegistrationProtocol, Unregister) == 3 * 8);

extern PointerRegistrationProtocol *mPointerRegistration;
// TRUE only when the image's loaded-image protocol reports EfiRuntimeServicesCode.
extern BOOLEAN mIsRuntimeImage;
// The notification that waits for the service while it is absent, or NULL.
extern EFI_EVENT mPointerRegistrationEvent;

// EFI_ABORTED when the service is absent or the image is not a runtime image; otherwise
// the service's answer.
EFI_STATUS PointerRegister(VOID **PointerAddress);
EFI_STATUS PointerUnregister(VOID **PointerAddress);

// The platform flash service pointers the 19th constructor registers: the interface and
// the platform data block it leads to.
extern PlatformFlashServiceProtocol *mRuntimeFlashService;
extern FlashServiceData *mRuntimeFlashServiceData;

HOST_ONLY(void ResetPointerRegistrationForTest();)
