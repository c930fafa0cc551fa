// Whether the code runs in SMM, and the SMM system table when it does.
#pragma once
#include "PiSmm.h"

// Asks gEfiSmmBase2ProtocolGuid once it can be located and answers; a failed locate or
// query answers FALSE and is tried again at the next call. A TRUE answer also fetches gSmst.
BOOLEAN IsInSmm();
// Library constructor: caches gSmst when running in SMM.
EFI_STATUS EFIAPI SmmServicesTableLibConstructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable);

HOST_ONLY(void ResetSmmStateForTest();)
