// Placeholder until the debug-code sinks are built: the code goes to the debug port only.
#include "DebugCode.h"

#include "../base/Hardware.h"
#include "../driver/Config.h"

UINT32 OutputDebugCode(UINT32 Code) {
  Hw::IoWrite32(gConfig.DebugCodePort, Code | 0x200);
  return Code;
}

void DisplayDebugCode(UINT32) {}
