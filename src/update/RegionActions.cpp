#include "RegionActions.h"

#include "../base/BaseLib.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/Pool.h"
#include "../driver/Config.h"
#include "../driver/DriverState.h"
#include "../driver/DynamicPcd.h"
#include "../driver/FlashMap.h"
#include "../psp/RomAccess.h"
#include "UpdateProgress.h"

namespace {

// Directory and EFS copies go through the platform service with this access type; the
// flash-map copy with the image's.
constexpr UINT8 kFlashAccessFirmwareSupport = 1;
constexpr UINT8 kFlashAccessImage = 0;

// Rewrites the Size bytes at flash address Address from the image unless the flash already
// holds them.
EFI_STATUS CopyBlockFromImage(const UINT8 *Image, UINTN ImageSize, UINT32 Address, UINT32 Size) {
  if (Image == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  PlatformFlashServiceProtocol *Service = nullptr;
  EFI_STATUS Status = LocatePlatformFlashServiceAfresh(&Service);
  if (EFI_ERROR(Status)) {
    return Status;
  }

  const UINT32 Offset = Address - mFlashBase;
  // A block beyond the image is not copied.
  if (!(Offset <= ImageSize && Size <= ImageSize - Offset)) {
    return EFI_BAD_BUFFER_SIZE;
  }
  const UINT8 *Source = Image + Offset;
  // At least one page, so that an empty block still has a buffer.
  const UINTN Pages = Size == 0 ? 1 : (static_cast<UINTN>(Size) + SIZE_4KB - 1) / SIZE_4KB;
  PageBuffer Current = PageBuffer::Allocate(Pages);
  if (!Current) {
    return EFI_OUT_OF_RESOURCES;
  }
  ZeroMem(Current.Data(), Size);
  if (!ReadRomByOffset(Offset, Current.Data(), Size)) {
    return EFI_ACCESS_DENIED;
  }
  if (Size == 0 || CompareMem(Current.Data(), Source, Size) == 0) {
    return EFI_SUCCESS;
  }
  return Service->WriteFlash(kFlashAccessFirmwareSupport, Address, Source, Size);
}

}  // namespace

EFI_STATUS UpdatePspL1(const UINT8 *Image, UINTN ImageSize, BOOLEAN Backup) {
  const UINT32 Address = Backup ? gConfig.PspL1BackupDirectoryBase : gConfig.PspL1DirectoryBase;
  return CopyBlockFromImage(Image, ImageSize, Address, gConfig.PspL1DirectorySize);
}

EFI_STATUS UpdateRomSig(const UINT8 *Image, UINTN ImageSize) {
  return CopyBlockFromImage(Image, ImageSize, gConfig.EfsAddress, gConfig.EfsSize);
}

EFI_STATUS InvalidateFlashMapCopy() {
  const UINT64 Address = PcdGet64(&gFlashMapTokenSpaceGuid, kFlashMapAddressToken);
  const UINT64 Size = PcdGet64(&gFlashMapTokenSpaceGuid, kFlashMapSizeToken);
  // A copy too small for the signature, or beyond what the flash service addresses, holds none.
  if (Size < sizeof(UINT32) || Size > 0xFFFFFFFFull || Address > 0xFFFFFFFFull) {
    return EFI_NOT_FOUND;
  }
  if (mPlatformFlashService == nullptr) {
    return EFI_NOT_READY;
  }
  PoolBuffer Copy = PoolBuffer::Allocate(static_cast<UINTN>(Size));
  if (!Copy) {
    return EFI_OUT_OF_RESOURCES;
  }
  EFI_STATUS Status = mPlatformFlashService->ReadFlash(kFlashAccessImage, Copy.Data(), static_cast<UINT32>(Address),
                                                       static_cast<UINT32>(Size));
  if (EFI_ERROR(Status)) {
    return Status;
  }
  if (ReadUnaligned32(Copy.Data()) != kFlashMapSignature) {
    return EFI_NOT_FOUND;
  }
  SetMem(Copy.Data(), sizeof(UINT32), 0xFF);
  return mPlatformFlashService->WriteFlash(kFlashAccessImage, static_cast<UINT32>(Address), Copy.Data(),
                                           static_cast<UINT32>(Size));
}

EFI_STATUS UpdateEc() {
  if (mPlatformConfig == nullptr || mPlatformFlashService == nullptr) {
    return EFI_NOT_READY;
  }
  UINT64 Region = 0;
  UINT64 RegionSize = 0;
  if (EFI_ERROR(FlashMapGetRegion(&gEcFirmwareRegionGuid, 1, &Region, &RegionSize))) {
    Region = 0;
    RegionSize = 0;
  }
  const UINT32 Length = mPlatformConfig->EcImageSize;
  if (Length > RegionSize) {
    return EFI_BAD_BUFFER_SIZE;
  }
  // The EC firmware is taken from the mapped flash, where the update has just written it.
  return mPlatformFlashService->WriteEc(reinterpret_cast<const VOID *>(static_cast<UINTN>(Region)), Length,
                                        mPlatformConfig->EcImageOffset);
}
