// The switches of the AMD directory code under the names it uses, read from the driver's
// build-time configuration (the PCD names the platform's build gives them).
#pragma once
#include "../driver/Config.h"

// Entry locations below 0xFF000000 are moved into the 16 MiB window under 4 GiB.
inline bool PspForceMappedAddress() { return gConfig.PcdPspRomAddressFixup == 1; }
// Whether the directory code asks the PSP which copy (A or B) it booted from.
inline bool PspRecoveryFlagEnabled() { return gConfig.PcdPspRecoverySwitch != 0; }
// Whether directories and the A/B summary are kept in the buffer store between lookups.
inline bool PspDirectoryCacheEnabled() { return gConfig.PcdPspDirectorySwitch != 0; }
// PCI Express configuration space of the host bridge (SMN access).
inline UINT64 PcieBaseAddress() { return gConfig.PcdPciExpressBaseAddress; }
inline UINT64 PcieSize() { return gConfig.PcdPciExpressBaseSize; }

// The assertion reporter's enable flag as shipped; the configuration-buffer library copies it
// into the reporter at start.
constexpr UINT8 PspAssertEnabled = 1;
