#include "Stopwatch.h"

#include "../../src/base/Globals.h"

namespace {
UINT64 ReadTsc() {
  UINT32 Low = 0, High = 0;
  __asm__ __volatile__("rdtsc" : "=a"(Low), "=d"(High));
  return (static_cast<UINT64>(High) << 32) | Low;
}
constexpr UINTN kCalibrationMicroseconds = 20000;
}  // namespace

void Stopwatch::Start() {
  const UINT64 Before = ReadTsc();
  gBS->Stall(kCalibrationMicroseconds);
  const UINT64 Ticks = ReadTsc() - Before;
  TicksPerMillisecond_ = Ticks / (kCalibrationMicroseconds / 1000) != 0 ? Ticks / (kCalibrationMicroseconds / 1000) : 1;
  StartTicks_ = ReadTsc();
}

UINT64 Stopwatch::ElapsedMicroseconds() const { return (ReadTsc() - StartTicks_) * 1000 / TicksPerMillisecond_; }
