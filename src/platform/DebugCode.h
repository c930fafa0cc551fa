// Debug codes: one-byte milestones of a flash, sent to every sink the platform has (a hook
// that may take them over, the debug port, a CMOS byte, and a display on the console).
#pragma once
#include "../base/Uefi.h"

// Sends Code to the sinks and returns it.
UINT32 OutputDebugCode(UINT32 Code);
// Shows Code in the top-right corner of the console while the platform asks for it.
void DisplayDebugCode(UINT32 Code);
