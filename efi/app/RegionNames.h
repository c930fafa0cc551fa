// Names for what a block writes. A region-tracked update announces its regions in the update
// log while the image is verified ("IBB:Percentage(17%-21%)/Block(701-889)"): those names
// and block ranges are used as the driver reported them. Otherwise a block is named by the
// part of the reference flash layout its image offset falls into.
#pragma once
#include "../../emu/EmuPlatform.h"

class RegionNames {
public:
  // Takes the progress ranges the driver logged (none for an update that is not tracked).
  void ReadProgressRanges(const EmuUpdateLog &Log);
  // Block is 0-based; the name of its range, else of the layout part at ImageOffset.
  const char *ForBlock(UINT32 Block, UINT64 ImageOffset) const;
  UINTN RangeCount() const { return Count_; }

  // The reference layout's part holding ImageOffset, "-" between parts.
  static const char *LayoutPart(UINT64 ImageOffset);

private:
  static constexpr UINTN kMaxRanges = 8;
  static constexpr UINTN kMaxName = 24;
  struct Range {
    CHAR8 Name[kMaxName];
    UINT32 FirstBlock, LastBlock;  // 1-based, as logged; a range ends where the next starts
  };
  Range Ranges_[kMaxRanges] = {};
  UINTN Count_ = 0;
};
