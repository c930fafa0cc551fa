// What other drivers of the platform publish for the driver's shared libraries: the
// callback-hub registry (created by whichever driver started first) and the runtime core's
// pointer-registration service, which records every registration it is asked for.
#pragma once
#include "../src/base/Uefi.h"
#include "../src/driver/PointerRegistration.h"

struct EmuHubServices {
  LIST_ENTRY Registry;  // interface of gCallbackHubProtocolGuid
  PointerRegistrationProtocol PointerRegistration;
  EFI_STATUS RegisterStatus;  // what Register and Unregister answer

  // An empty registry and a service whose members record "PointerRegister" and
  // "PointerUnregister" with the address they were given.
  void Initialize();
};
