// Placeholder until the region steps are built: no region takes any action.
#include "UpdateRegionStep.h"

EFI_STATUS UpdateRegionStep(UINT32, UINT16, UINT32) { return EFI_SUCCESS; }
