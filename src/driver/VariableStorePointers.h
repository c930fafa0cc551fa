// The variable-store pointers a runtime image keeps: the live store volume found through the
// flash map (by name, else as the first area of the variable-store type), registered with
// the pointer-registration service so that they would follow a virtual address change.
#pragma once
#include "../base/Uefi.h"

extern UINT8 *mNvVariableStore;
extern UINT64 mNvVariableStoreSize;

HOST_ONLY(void ResetVariableStorePointersForTest();)
