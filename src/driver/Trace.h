// Trace lines for the platform's developers, printed by the debug service that an
// earlier firmware component leaves behind interrupt vector 3. Call sites test the
// debug switch first, so nothing is evaluated when tracing is off: use TRACE(...).
#pragma once
#include "../base/Uefi.h"
#include "Config.h"

VOID EFIAPI DebugTrace(const char *Format, ...);

#define TRACE(...)                                                                                 \
  do {                                                                                             \
    if (gConfig.PcdBiosImageInterfaceDebug) {                                                      \
      DebugTrace(__VA_ARGS__);                                                                     \
    }                                                                                              \
  } while (0)

// Layout of the debug service behind vector 3.
constexpr UINT32 kDebugServiceMarker = 0x44656267;  // "gbeD" in memory
constexpr UINTN kDebugMarkerOffset = 16;            // marker at handler - 16
constexpr UINTN kDebugServicePointerOffset = 24;    // 32-bit service pointer at handler - 24
constexpr UINTN kDebugServicePrintSlot = 16;        // print function inside the service
typedef UINTN(EFIAPI *DEBUG_SERVICE_PRINT)(VOID *Service, const char *Format, VA_LIST Arguments);
