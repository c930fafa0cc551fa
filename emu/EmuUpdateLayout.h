// The layout the emulated platform reports for a new image (configuration member 0x27E):
// flash offsets and sizes of IBB1 to IBB4, and where the image keeps the recovery (TopSwap)
// copies the platform writes into the recovery area. Tests may set other values.
#pragma once
#include "../src/base/Uefi.h"
#include "EmuFlashPlatform.h"

struct EmuLayout;

struct EmuUpdateLayout {
  // Offsets from the start of the 16 MiB flash (0xFF000000) and sizes in bytes.
  UINT64 Ibb1Offset, Ibb1Size;
  UINT64 Ibb2Offset, Ibb2Size;
  UINT64 Ibb3Offset, Ibb3Size;
  UINT64 Ibb4Offset, Ibb4Size;
  // Flash address of the recovery copies in the image: IBB1R, then IBB4R, then IBB2R (and
  // IBB3R, which the reference platform does not have, where IBB2R starts).
  UINT64 RecoveryBase;

  // The member's answer for Image (laid out as ImageLayout says): the eight values, and the
  // memory addresses of the copies for IBB1R, IBB2R, IBB3R and IBB4R. EFI_BAD_BUFFER_SIZE,
  // writing nothing, when the image does not hold every region and copy;
  // EFI_INVALID_PARAMETER for a null argument.
  EFI_STATUS Answer(const EmuLayout &ImageLayout, const VOID *Image, UINT64 ImageSize, UINT64 *Sources[4],
                    UINT64 *Values[8]) const;
};

constexpr EmuUpdateLayout kDefaultEmuUpdateLayout = {
    EmuFlashLayout::kIbb1Address - EmuFlashLayout::kMappedBase, EmuFlashLayout::kIbb1Size,
    EmuFlashLayout::kIbb2Address - EmuFlashLayout::kMappedBase, EmuFlashLayout::kIbb2Size,
    0,                                                          0,
    EmuFlashLayout::kIbb4Address - EmuFlashLayout::kMappedBase, EmuFlashLayout::kIbb4Size,
    EmuFlashLayout::kRecoveryBase,
};
