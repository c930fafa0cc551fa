// The BIOS identifier record in flash: the signature "$BID" at a 16-byte-aligned position,
// followed by the five bytes of the BIOS ID.
#pragma once
#include "../base/ByteView.h"
#include "FlashRecords.h"

#pragma pack(push, 1)
struct BiosIdRecord {
  UINT32 Signature;
  UINT8 Id[kBiosIdLength];
};
#pragma pack(pop)
static_assert(offsetof(BiosIdRecord, Id) == 4);
static_assert(sizeof(BiosIdRecord) == 9);

constexpr UINT32 kBiosIdSignature = 0x44494224;  // "$BID"
constexpr UINTN kBiosIdAlignment = 16;
constexpr UINTN kBiosIdSearchSpan = 0x10000;     // only the area's last 64 KiB are searched

// Searches the area backwards, from its last 16-byte step (offset Size - 16) towards its
// start, over at most the last kBiosIdSearchSpan bytes. The record nearest the end wins.
// Returns FALSE, leaving Id alone, when there is none.
BOOLEAN FindBiosId(const ByteView &Area, UINT8 (&Id)[kBiosIdLength]);
