#include "ProgressBar.h"

#include "../../src/base/BaseLib.h"
#include "../common/ConsolePrint.h"

namespace {
constexpr UINT32 kBarWidth = 40;
}

void ProgressBar::Draw(UINT32 Done, UINT32 Blocks, const char *Region) {
  CHAR8 Bar[kBarWidth + 1];
  const UINT32 Filled = Blocks != 0 ? static_cast<UINT32>(static_cast<UINT64>(Done) * kBarWidth / Blocks) : 0;
  for (UINT32 Index = 0; Index < kBarWidth; Index++) {
    Bar[Index] = Index < Filled ? '#' : '.';
  }
  Bar[kBarWidth] = 0;
  const UINT32 Percent = Blocks != 0 ? static_cast<UINT32>(static_cast<UINT64>(Done) * 100 / Blocks) : 0;
  ConsolePrint("\r  [%a] %3d%%  block %4d/%d  %-16a", Bar, Percent, Done, Blocks, Region);
}

void ProgressBar::Show(UINT32 Block, UINT32 Blocks, const char *Region) {
  const UINT32 Percent = Blocks != 0 ? static_cast<UINT32>(static_cast<UINT64>(Block) * 100 / Blocks) : 0;
  const bool NewRegion = Region_ == nullptr || AsciiStrCmp(reinterpret_cast<const CHAR8 *>(Region),
                                                           reinterpret_cast<const CHAR8 *>(Region_)) != 0;
  if (Percent == Percent_ && !NewRegion) {
    return;
  }
  if (NewRegion && Region_ != nullptr) {
    Draw(Block, Blocks, Region_);  // the finished region keeps its line, at its last block
    ConsolePrint("\r\n");
  }
  Percent_ = Percent;
  Region_ = Region;
  Draw(Block + 1, Blocks, Region);
}

void ProgressBar::Finish(UINT32 Blocks) {
  Draw(Blocks, Blocks, Region_ != nullptr ? Region_ : "");
  ConsolePrint("\r\n");
}

void ProgressBar::Interrupt() { ConsolePrint("  << power lost\r\n"); }
