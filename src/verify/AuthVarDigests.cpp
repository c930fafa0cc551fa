// The digest of the authenticated variables is given up when an image moves the platform
// into the 'F' version family: the new firmware rebuilds it from the variables it finds.
#include "../base/BaseLib.h"
#include "../base/ByteView.h"
#include "../base/Guids.h"
#include "../base/Hardware.h"
#include "../base/Pool.h"
#include "../driver/DriverState.h"
#include "../driver/DynamicPcd.h"
#include "../driver/FlashMap.h"
#include "VerifySignature.h"

namespace {

constexpr UINTN kVersionTagCapacity = 8;  // characters, terminator included
constexpr UINTN kVersionRecordProbeStep = 4096;
constexpr CHAR8 kVersionRecordSignature[] = "$BVDT";
constexpr UINTN kVersionRecordFamilyOffset = 14;
constexpr CHAR8 kFamilyF = 'F';

// The first character of the installed firmware's version tag; 0 when the tag is absent
// or does not fit the 8-byte buffer it is converted into.
CHAR8 InstalledVersionFamily() {
  const CHAR16 *Tag = static_cast<const CHAR16 *>(PcdGetPtr(&gPlatformPcdTokenSpace2Guid, kBiosVersionTagToken));
  if (Tag == nullptr) {
    return 0;
  }
  for (UINTN Length = 0; Length < kVersionTagCapacity; Length++) {
    if (Tag[Length] == 0) {
      return Length == 0 ? 0 : static_cast<CHAR8>(Tag[0]);
    }
  }
  return 0;
}

struct DigestArea {
  UINT64 Address = 0;
  UINT64 Size = 0;
};

DigestArea LookUpArea(const EFI_GUID &Type) {
  DigestArea Area;
  if (FlashMapGetRegion(&Type, 1, &Area.Address, &Area.Size) != EFI_SUCCESS) {
    Area = {};
  }
  return Area;
}

// A digest is present when any of the area's first 32 bytes is programmed; an area that is
// missing, too small or not wholly in the flash window holds none.
bool HoldsDigest(const DigestArea &Area) {
  if (Area.Size < kAuthVarDigestMarkBytes || Area.Size > 0xFFFFFFFFull) {
    return false;
  }
  const UINT8 *Bytes = Hw::FlashPointer(Area.Address, Area.Size);
  if (Bytes == nullptr) {
    return false;
  }
  for (UINTN Index = 0; Index < kAuthVarDigestMarkBytes; Index++) {
    if (Bytes[Index] < 0xFF) {
      return true;
    }
  }
  return false;
}

EFI_STATUS WriteArea(UINT64 Address, const PoolBuffer &Buffer) {
  return mPlatformFlashService->WriteFlash(0, static_cast<UINT32>(Address), Buffer.Data(),
                                           static_cast<UINT32>(Buffer.Size()));
}

}  // namespace

BOOLEAN IsVersionFamilyChange(const UINT8 *Image, UINT64 ImageSize) {
  if (InstalledVersionFamily() == kFamilyF || ImageSize == 0 || Image == nullptr) {
    return FALSE;
  }
  const ByteView View(Image, ImageSize);
  constexpr UINTN kSignatureLength = sizeof(kVersionRecordSignature) - 1;
  for (UINTN Offset = 0; Offset < View.Size(); Offset += kVersionRecordProbeStep) {
    UINT8 Family = 0;
    if (View.Equals(Offset, kVersionRecordSignature, kSignatureLength) &&
        View.Read8(Offset + kVersionRecordFamilyOffset, Family) && Family == kFamilyF) {
      return TRUE;
    }
  }
  return FALSE;
}

EFI_STATUS EraseAuthVarDigests() {
  const DigestArea First = LookUpArea(gAuthVarDigestAreaGuid);
  const DigestArea Second = LookUpArea(gAuthVarDigestArea2Guid);
  const DigestArea Third = LookUpArea(gAuthVarDigestArea3Guid);

  if (HoldsDigest(First)) {
    PoolBuffer Copy = PoolBuffer::Allocate(static_cast<UINTN>(First.Size));
    if (!Copy) {
      return EFI_OUT_OF_RESOURCES;
    }
    CopyMem(Copy.Data(), Hw::FlashPointer(First.Address, First.Size), Copy.Size());
    SetMem(Copy.Data(), kAuthVarDigestMarkBytes, 0xFF);
    EFI_STATUS Status = WriteArea(First.Address, Copy);
    if (EfiError(Status)) {
      return Status;
    }
  }
  if (HoldsDigest(Third)) {
    // Area 3 is erased together with area 2, which the platform places just before it.
    if (Second.Size == 0 || Second.Size > 0xFFFFFFFFull - Third.Size) {
      return EFI_NOT_FOUND;
    }
    PoolBuffer Erased = PoolBuffer::Allocate(static_cast<UINTN>(Second.Size + Third.Size));
    if (!Erased) {
      return EFI_OUT_OF_RESOURCES;
    }
    SetMem(Erased.Data(), Erased.Size(), 0xFF);
    EFI_STATUS Status = WriteArea(Second.Address, Erased);
    if (EfiError(Status)) {
      return Status;
    }
  }
  return EFI_SUCCESS;
}
