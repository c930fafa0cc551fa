// The choice of the UEFI variables that survive an update: every authenticated variable,
// and the plain ones on the preserved list; the secure-boot policy variables are dropped
// when the configuration says so. The variable-store backup copies the chosen records.
#pragma once
#include "../base/Uefi.h"

// Copies the chosen records of the store that runs from FirstRecord up to SourceEnd into
// Destination, one after the other. The walk stops at the first record that is not bounded
// or does not fit before SourceEnd. Records are counted even when they no longer fit in the
// Capacity bytes at Destination (they are then not copied): *Length is the total of all the
// chosen records, and the result is EFI_BUFFER_TOO_SMALL when that exceeds Capacity.
// EFI_INVALID_PARAMETER for a null pointer.
EFI_STATUS SelectPreservedVariables(const UINT8 *FirstRecord, const UINT8 *SourceEnd, UINT8 *Destination,
                                    UINT64 Capacity, UINT64 *Length);

// TRUE when the record matches an entry of the preserved list (by vendor, or by name and
// vendor). Record must be a whole record: its name lies inside NameSize bytes at offset 60.
BOOLEAN IsListedPreservedVariable(const UINT8 *Record);
