#include "EmuUpdateLayout.h"

#include "EmuPlatform.h"

namespace {

// Image offset of [Address, Address + Length) in an image of the layout given, or FALSE
// when the range is not wholly inside its lower and mapped flash parts.
BOOLEAN ImageRange(const EmuLayout &Layout, UINT64 ImageSize, UINT64 Address, UINT64 Length, UINT64 &Offset) {
  const UINT64 MappedBase = 0x100000000ull - Layout.MappedFlashSize;
  const UINT64 FlashStart = MappedBase - Layout.LowerFlashSize;  // where the lower part starts
  if (Address < FlashStart || Address - FlashStart > ImageSize) {
    return FALSE;
  }
  Offset = Layout.EcSize + (Address - FlashStart);
  return Offset <= ImageSize && Length <= ImageSize - Offset;
}

}  // namespace

EFI_STATUS EmuUpdateLayout::Answer(const EmuLayout &ImageLayout, const VOID *Image, UINT64 ImageSize,
                                   UINT64 *Sources[4], UINT64 *Values[8]) const {
  if (Image == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  for (UINTN Index = 0; Index < 8; Index++) {
    if ((Index < 4 && Sources[Index] == nullptr) || Values[Index] == nullptr) {
      return EFI_INVALID_PARAMETER;
    }
  }
  const UINT64 Regions[4][2] = {{Ibb1Offset, Ibb1Size}, {Ibb2Offset, Ibb2Size}, {Ibb3Offset, Ibb3Size},
                                {Ibb4Offset, Ibb4Size}};
  // IBB1R, IBB2R, IBB3R, IBB4R: flash address of the copy and its length.
  const UINT64 Copies[4][2] = {{RecoveryBase, Ibb1Size},
                               {RecoveryBase + Ibb1Size + Ibb4Size, Ibb2Size},
                               {RecoveryBase + Ibb1Size + Ibb4Size, Ibb3Size},
                               {RecoveryBase + Ibb1Size, Ibb4Size}};
  UINT64 CopyOffsets[4] = {};
  for (UINTN Index = 0; Index < 4; Index++) {
    UINT64 Ignored = 0;
    if (Regions[Index][0] > 0xFFFFFFFFull ||
        !ImageRange(ImageLayout, ImageSize, EmuFlashLayout::kMappedBase + Regions[Index][0], Regions[Index][1],
                    Ignored) ||
        !ImageRange(ImageLayout, ImageSize, Copies[Index][0], Copies[Index][1], CopyOffsets[Index])) {
      return EFI_BAD_BUFFER_SIZE;
    }
  }
  for (UINTN Index = 0; Index < 4; Index++) {
    *Sources[Index] = reinterpret_cast<UINTN>(Image) + CopyOffsets[Index];
    *Values[2 * Index] = Regions[Index][0];
    *Values[2 * Index + 1] = Regions[Index][1];
  }
  return EFI_SUCCESS;
}
