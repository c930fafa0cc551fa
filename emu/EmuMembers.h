// Shorthands for the protocol members of the emulated platform: the active platform, and a
// pointer as the 64-bit value the call log records.
#pragma once
#include "EmuPlatform.h"

namespace emu_members {
inline EmuPlatform &P() { return *gEmuPlatform; }
inline UINT64 Ptr(const VOID *Pointer) { return reinterpret_cast<UINT64>(Pointer); }
}  // namespace emu_members
