#include "PspAssert.h"

#include "../base/Hardware.h"
#include "PspState.h"

namespace {

UINT64 RotateLeft(UINT64 Value, unsigned Bits) { return (Value << Bits) | (Value >> (64 - Bits)); }

// One turn of the display: six views of the code scrolling by a byte every 2.5 s, then the
// closing rotation that brings the value back to where the turn began.
void ShowAssertionRound(VOID *Context) {
  UINT64 &Value = *static_cast<UINT64 *>(Context);
  for (int Step = 0; Step < 6; Step++) {
    Value = RotateLeft(Value, 8);
    Hw::IoWrite32(kAssertCodePort, static_cast<UINT32>(Value));
    Hw::MicroSecondDelay(kAssertDisplayStepMicroseconds);
  }
  Value = RotateLeft(Value, 16);
}

}  // namespace

VOID AssertReport(UINT32 Code) {
  if (mPspAssertEnabled == 0) {
    return;
  }
  Hw::IoWrite16(kAssertMarkerPort, kAssertMarker);
  Hw::IoWrite32(kAssertCodePort, Code);
  // A simulator recognises the escape and answers in SI; a real processor leaves SI at 0.
  UINT32 Si = Hw::CpuidEscape(kSimulatorEscapeLeaf, kSimulatorEscapeAssert, 0);
  if (static_cast<UINT16>(Si) != 0) {
    return;
  }
  UINT64 Display = ((0xFFFFDEADull << 32) | Code) << 16;
  Hw::CpuDeadLoop(ShowAssertionRound, &Display);
}
