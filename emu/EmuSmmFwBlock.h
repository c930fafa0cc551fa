// The platform's SMM firmware block service over the emulated flash chip. Host tests publish
// it in the simulated SMM protocol database; its members record their calls.
#pragma once
#include "../src/base/PlatformProtocols.h"

// The one service instance (constant data, no start-up work).
SmmFwBlockServiceProtocol *EmuSmmFwBlockService();
