// The steps taken as the writes of a region-tracked update enter each update region: the
// firmware-support copies, the progress record and the debug code of that region.
#pragma once
#include "../base/Uefi.h"

// Called for every piece of every block about to be written (empty pieces included): Start
// is the piece's image offset, Block the block number of the write call, UnitsPerBlock the
// flash block size in 4 KiB units. The caller does not examine the result.
EFI_STATUS UpdateRegionStep(UINT32 Start, UINT16 Block, UINT32 UnitsPerBlock);
