// The buffer store of the AMD configuration-buffer library: boot-services pool buffers
// registered under numeric handles, created on first request and kept for the boot.
#pragma once
#include "../base/Uefi.h"

// The existing buffer of Handle, or a new zero-filled one of Size bytes registered under it.
// FALSE (with assertion 0x80426 when it cannot be created) when no buffer of at least Size
// bytes can be given.
BOOLEAN GetHeapBuffer(UINT32 Handle, UINT32 Size, VOID **Buffer);
