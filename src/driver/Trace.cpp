#include "Trace.h"

#include "../base/BaseLib.h"
#include "../base/Hardware.h"

namespace {
// Handler address of an IDT gate: bits 15..0 at bytes 0-1, 31..16 at 6-7, 63..32 at 8-11.
UINT64 GateHandler(const UINT8 *Gate) {
  return static_cast<UINT64>(ReadUnaligned16(Gate)) | (static_cast<UINT64>(ReadUnaligned16(Gate + 6)) << 16) |
         (static_cast<UINT64>(ReadUnaligned32(Gate + 8)) << 32);
}
}  // namespace

VOID EFIAPI DebugTrace(const char *Format, ...) {
  const UINT8 *Idt = reinterpret_cast<const UINT8 *>(Hw::IdtBase());
  if (Idt == nullptr) {
    return;
  }
  UINT64 Handler = GateHandler(Idt + 3 * 16);
  if (Handler < kDebugServicePointerOffset) {
    return;
  }
  const UINT8 *HandlerBytes = reinterpret_cast<const UINT8 *>(Handler);
  if (ReadUnaligned32(HandlerBytes - kDebugMarkerOffset) != kDebugServiceMarker) {
    return;
  }
  UINT64 Service = ReadUnaligned32(HandlerBytes - kDebugServicePointerOffset);
  if (Service == 0) {
    return;
  }
  auto Print = reinterpret_cast<DEBUG_SERVICE_PRINT>(
      ReadUnaligned64(reinterpret_cast<const UINT8 *>(Service) + kDebugServicePrintSlot));
  VA_LIST Arguments;
  VA_START(Arguments, Format);
  Print(reinterpret_cast<VOID *>(Service), Format, Arguments);
  VA_END(Arguments);
}
