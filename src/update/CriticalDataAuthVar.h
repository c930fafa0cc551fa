// The digest of the critical authenticated variables, kept in the critical-data block in
// flash and refreshed when a flash completes.
#pragma once
#include "../base/Uefi.h"

// Gathers the critical variables of the live store, digests them and rewrites the
// critical-data block when its digest differs.
EFI_STATUS Q42CriticalDataAuthVar();
