// An update cut short by a power failure: what the next boot needs is saved to the boot
// volume (the chip as the cut left it, the update log's non-volatile progress code and both
// CMOS banks); the firmware's own variables persist in its variable store.
#pragma once
#include "../../emu/EmuPlatform.h"

EFI_STATUS SaveInterruptedState(EFI_FILE_HANDLE Root, const EmuPlatform &Platform);
