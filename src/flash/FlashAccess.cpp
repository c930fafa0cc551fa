#include "FlashAccess.h"

#include "../base/BaseLib.h"
#include "../base/Hardware.h"
#include "../driver/DriverState.h"
#include "FlashState.h"

namespace {
// The part of the flash the platform maps as memory, whatever mFlashBase says.
constexpr UINT64 kMappedFlashBase = 0xFF000000ull;
constexpr UINT64 kMappedFlashLastOffset = 0xFFFFFFull;
constexpr UINT8 kFlashAccessImage = 0;
}  // namespace

ImageLocation ImageOffsetToFlashAddress(UINT64 ImageOffset) {
  const UINT64 EcSize = mFlashInfo.EcSize;
  if (EcSize != 0 && ImageOffset < EcSize) {
    return {ImageTarget::EcStore, ImageOffset};
  }
  if (mFlashInfo.MappedFlashSize != 0) {
    return {ImageTarget::Flash, static_cast<UINT64>(mFlashBase) - mFlashInfo.LowerFlashSize - EcSize + ImageOffset};
  }
  return {ImageTarget::Nothing, 0};
}

EFI_STATUS WriteImageRange(UINT32 Length, UINT64 ImageOffset, UINT64 Source) {
  const UINT8 *Data;
  if (Source != 0) {
    Data = reinterpret_cast<const UINT8 *>(static_cast<UINTN>(Source));
  } else {
    // The accepted image is the only source the caller does not hand over itself: a range
    // outside it (or no image at all) is refused before any device is touched.
    if (mVerifiedImage == nullptr || ImageOffset > mVerifiedImageSize || Length > mVerifiedImageSize - ImageOffset) {
      return EFI_INVALID_PARAMETER;
    }
    Data = mVerifiedImage + ImageOffset;
  }

  ImageLocation Where = ImageOffsetToFlashAddress(ImageOffset);
  EFI_STATUS Status;
  switch (Where.Target) {
  case ImageTarget::EcStore:
    if (mEcUpdateDeferred) {
      mFlashWritten = TRUE;
      return EFI_SUCCESS;
    }
    // A range that starts in the EC part goes to the EC store whole.
    Status = mPlatformFlashService->WriteEc(Data, Length, static_cast<UINT32>(ImageOffset));
    break;
  case ImageTarget::Flash: {
    const UINT64 Address = Where.Address;
    // Compare-before-write, for the mapped part only: the lower part is always written.
    if (Address - kMappedFlashBase <= kMappedFlashLastOffset && ImageOffset >= mFlashInfo.LowerFlashSize) {
      const UINT8 *Mapped = Hw::FlashPointer(Address, Length);
      if (Mapped != nullptr && CompareMem(Mapped, Data, Length) == 0) {
        mFlashWritten = TRUE;
        return EFI_SUCCESS;
      }
    }
    Status = mPlatformFlashService->WriteFlash(kFlashAccessImage, static_cast<UINT32>(Address), Data, Length);
    break;
  }
  case ImageTarget::Nothing:
  default:
    mFlashWritten = TRUE;
    return EFI_SUCCESS;
  }
  if (!EfiError(Status)) {
    mFlashWritten = TRUE;
  }
  return Status;
}
