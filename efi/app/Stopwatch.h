// Elapsed time on this machine from the processor's time-stamp counter, calibrated once
// against the boot services' stall.
#pragma once
#include "../../src/base/Uefi.h"

class Stopwatch {
public:
  void Start();
  UINT64 ElapsedMicroseconds() const;

private:
  UINT64 StartTicks_ = 0;
  UINT64 TicksPerMillisecond_ = 1;
};
