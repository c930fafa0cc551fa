// Host memory for the emulated platform: ordinary heap memory, and memory below 4 GiB for
// what firmware reaches through 32-bit addresses (mmap with MAP_32BIT). The platform's
// memory is kept for the life of the process's test, then released with the platform.
#pragma once
#include "../EmuPlatform.h"

const EmuMemory &EmuHostMemory();
// Takes back everything EmuHostMemory() handed out since the last call (kept for reuse).
void EmuHostMemoryReleaseAll();
// A block below 4 GiB for tests (an image that a 32-bit variable points to).
VOID *EmuHostAllocateBelow4G(UINTN Size);
