// The progress bar of the block writes on the console: redrawn in place when the percentage
// or the region changes; a region's last state stays on its own line.
#pragma once
#include "../../src/base/Uefi.h"

class ProgressBar {
public:
  // Before Block (0-based) of Blocks is written into Region.
  void Show(UINT32 Block, UINT32 Blocks, const char *Region);
  void Finish(UINT32 Blocks);
  void Interrupt();

private:
  void Draw(UINT32 Done, UINT32 Blocks, const char *Region);
  UINT32 Percent_ = 101;
  const char *Region_ = nullptr;
};
