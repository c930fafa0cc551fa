#include "BiosIdRecord.h"

BOOLEAN FindBiosId(const ByteView &Area, UINT8 (&Id)[kBiosIdLength]) {
  const UINTN Size = Area.Size();
  if (Size < kBiosIdAlignment) {
    return FALSE;
  }
  const UINTN Lowest = Size > kBiosIdSearchSpan ? Size - kBiosIdSearchSpan : 0;
  for (UINTN Offset = Size - kBiosIdAlignment;; Offset -= kBiosIdAlignment) {
    UINT32 Signature = 0;
    UINT8 Found[kBiosIdLength];
    if (Area.Read32(Offset, Signature) && Signature == kBiosIdSignature &&
        Area.ReadBytes(Offset + offsetof(BiosIdRecord, Id), Found, sizeof(Found))) {
      CopyMem(Id, Found, sizeof(Found));
      return TRUE;
    }
    if (Offset - Lowest < kBiosIdAlignment) {
      return FALSE;
    }
  }
}
