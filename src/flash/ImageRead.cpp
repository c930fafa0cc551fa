// BiosReadImage: the image as the devices hold it after an update, with every part the
// driver does not write or does not read back (lower flash part, variable store, IBB4 of a
// region-tracked update, the last write's skip regions) taken from the accepted image, so
// that the tool can compare it with its file. Every overlay is clipped to both the accepted
// image and the result.
#include "../base/BaseLib.h"
#include "../base/Pool.h"
#include "../driver/BiosImageInterface.h"
#include "../driver/Config.h"
#include "../driver/DriverState.h"
#include "../driver/Trace.h"
#include "FlashState.h"

namespace {

// Offsets of the variable store and of IBB4 in the mapped part are taken against the
// platform's fixed window, whatever mFlashBase says.
constexpr UINT64 kMappedWindowBase = 0xFF000000ull;
constexpr UINT8 kFlashAccessImage = 0;

// Copies image bytes [ImageOffset, ImageOffset + Length) to the same image offsets of the
// result, as far as both hold them.
void OverlayFromImage(UINT8 *Result, UINT64 ResultSize, UINT64 ImageOffset, UINT64 Length) {
  const UINT64 ImageSize = mVerifiedImageSize;
  const UINT64 Limit = ResultSize < ImageSize ? ResultSize : ImageSize;
  if (ImageOffset >= Limit) {
    return;
  }
  if (Length > Limit - ImageOffset) {
    Length = Limit - ImageOffset;
  }
  CopyMem(Result + ImageOffset, mVerifiedImage + ImageOffset, Length);
}

// The same, for an image range that lies in the mapped part: [From, From + Length) of the
// mapped part, never before its start.
void OverlayMapped(UINT8 *Result, UINT64 ResultSize, UINT64 Head, UINT64 From, UINT64 Length) {
  if (From > ResultSize) {
    return;
  }
  OverlayFromImage(Result, ResultSize, Head + From, Length);
}

// A saved skip region in image offsets, clipped to the mapped part: a region starting in the
// head contributes only what lies behind it (a region starting at 0 is the usual case).
void OverlaySkipRegion(UINT8 *Result, UINT64 ResultSize, UINT64 Head, const SkipRegion &Region) {
  const UINT64 Start = Region.Start;
  const UINT64 End = Start + static_cast<UINT64>(Region.Pages) * kSkipRegionPageSize;
  const UINT64 From = Start > Head ? Start : Head;
  if (Region.Pages == 0 || End <= From) {
    return;
  }
  OverlayFromImage(Result, ResultSize, From, End - From);
}

// IBB4 keeps its PSP data at run time; it reads back as the image's. Its source is a memory
// address, used only when it lies inside the accepted image.
void OverlayIbb4(UINT8 *Result, UINT64 ResultSize, UINT64 Head) {
  const UpdateRegion &Ibb4 = mUpdateRegionTable[RegionIbb4];
  const UINT64 Image = reinterpret_cast<UINTN>(mVerifiedImage);
  if (Ibb4.Source < Image || Ibb4.Source - Image > mVerifiedImageSize || Ibb4.Address < kMappedWindowBase) {
    return;
  }
  const UINT64 SourceOffset = Ibb4.Source - Image;
  const UINT64 Target = Head + (Ibb4.Address - kMappedWindowBase);
  if (Target >= ResultSize) {
    return;
  }
  UINT64 Length = Ibb4.Size;
  const UINT64 SourceRoom = mVerifiedImageSize - SourceOffset;
  Length = Length < SourceRoom ? Length : SourceRoom;
  Length = Length < ResultSize - Target ? Length : ResultSize - Target;
  CopyMem(Result + Target, mVerifiedImage + SourceOffset, Length);
}

}  // namespace

EFI_STATUS EFIAPI BiosReadImage(BiosImageInterfaceProtocol *This, UINT64 Unused, VOID **Buffer) {
  (void)This;
  (void)Unused;
  TRACE("  BiosImageInterfaceProtocol->BiosReadImage Entry");
  if (Buffer == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  *Buffer = nullptr;
  if (mVerifiedImage == nullptr) {
    return EFI_NOT_READY;
  }
  const UINT64 EcSize = mFlashInfo.EcSize;
  const UINT64 Head = EcSize + mFlashInfo.LowerFlashSize;
  const UINT64 MappedSize = mFlashInfo.MappedFlashSize;
  const UINT64 ResultSize = Head + MappedSize;
  PoolBuffer Result = PoolBuffer::AllocateZeroed(ResultSize == 0 ? 1 : ResultSize);
  if (!Result) {
    return EFI_OUT_OF_RESOURCES;
  }
  UINT8 *Bytes = Result.Data();
  OverlayFromImage(Bytes, ResultSize, 0, Head);

  if (EcSize != 0 && !mEcUpdateDeferred) {
    PoolBuffer Ec = PoolBuffer::Allocate(EcSize);
    if (!Ec) {
      return EFI_OUT_OF_RESOURCES;
    }
    if (mPlatformFlashService->ReadEc(Ec.Data(), 0, static_cast<UINT32>(EcSize)) == EFI_SUCCESS) {
      CopyMem(Bytes, Ec.Data(), EcSize);
    }
  }

  // The flash is read straight into the mapped part of the result; the overlays follow.
  const EFI_STATUS Status = mPlatformFlashService->ReadFlash(kFlashAccessImage, Bytes + Head, mFlashBase,
                                                             static_cast<UINT32>(MappedSize));
  if (mPlatformConfig != nullptr && (mPlatformConfig->Flags & kPlatformConfigAlternativeFlag) != 0) {
    OverlayIbb4(Bytes, ResultSize, Head);
  }
  if (gConfig.VariableStoreBase >= kMappedWindowBase) {
    OverlayMapped(Bytes, ResultSize, Head, gConfig.VariableStoreBase - kMappedWindowBase, gConfig.VariableStoreSize);
  }
  const UINT32 Count = mSavedSkipRegions.Count < kMaxSkipRegions ? mSavedSkipRegions.Count
                                                                 : static_cast<UINT32>(kMaxSkipRegions);
  for (UINT32 Index = 0; Index < Count; Index++) {
    OverlaySkipRegion(Bytes, ResultSize, Head, mSavedSkipRegions.Regions[Index]);
  }
  *Buffer = Result.Release();
  return Status;
}
