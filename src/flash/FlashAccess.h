// The image-to-device address model and the one write primitive every image write goes
// through. The image is the EC part, the lower flash part and the mapped flash part, in
// that order, with sizes from mFlashInfo.
#pragma once
#include "../base/Uefi.h"

enum class ImageTarget {
  EcStore,  // Address is an offset in the EC firmware store
  Flash,    // Address is a flash address
  Nothing,  // the offset addresses no device
};

struct ImageLocation {
  ImageTarget Target;
  UINT64 Address;
};

// Where image offset ImageOffset lives (64-bit arithmetic).
ImageLocation ImageOffsetToFlashAddress(UINT64 ImageOffset);

// Writes Length bytes at image offset ImageOffset from Source, or from the accepted image
// at that offset when Source is 0. Mapped flash that already holds the bytes is not
// written; an EC range while the EC update is deferred succeeds without a device call.
// Returns the device's status (mFlashWritten is set unless the device failed).
EFI_STATUS WriteImageRange(UINT32 Length, UINT64 ImageOffset, UINT64 Source);
