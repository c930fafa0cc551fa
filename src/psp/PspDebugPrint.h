// Debug print of the AMD-derived code, through the platform's PSP debug print protocol.
#pragma once
#include "../base/Uefi.h"

typedef EFI_STATUS(EFIAPI *PSP_DEBUG_PRINT)(UINT32 Level, const CHAR8 *Format, VA_LIST Marker);
struct PspDebugPrintProtocol {
  PSP_DEBUG_PRINT Print;  // first member: (level, format, argument list)
};

constexpr UINT32 kPspDebugLevelInfo = 0x80000000;

// Locates the protocol on first success and keeps it; a failed locate returns its status.
EFI_STATUS EFIAPI PspDebugPrint(UINT32 Level, const char *Format, ...);
