// BiosQueryImage (service slot 2) and its helpers: the update gates, the BIOS ID, the flash
// geometry, the update mode and the protected regions a write must leave alone.
#pragma once
#include "../base/Uefi.h"
#include "FlashRecords.h"

// The update mode of this query: UpdateModeRecovery in a recovery boot, else
// UpdateModeHft when the one-shot variable HFT exists (its byte is kept in mHftValue and
// the variable deleted), else UpdateModeNormal.
UINT32 DetectUpdateMode();

// Whether the primary PSP directory's signature is missing, the mark an interrupted
// region-tracked update leaves. Defined with the update progress records.
BOOLEAN IsPspDirectoryInvalidated();
