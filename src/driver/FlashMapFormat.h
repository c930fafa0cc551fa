// The flash map ("QFDM"): the platform's table of flash areas, each with a type GUID, a
// name GUID, an offset and a size. Found in flash, in a HOB or in pool; little-endian.
#pragma once
#include <type_traits>

#include "../base/Uefi.h"

constexpr UINT32 kFlashMapSignature = 0x4D444651;  // "QFDM"

#pragma pack(push, 1)
struct FlashMapHeader {
  UINT32 Signature;      // 0: "QFDM"
  UINT32 TotalSize;      // 4: bytes of the whole map; entries end at map + TotalSize
  UINT32 EntriesOffset;  // 8: first entry, from the start of the map
  UINT32 EntrySize;      // 12: distance between consecutive entries
  UINT32 Reserved;       // 16: not read by the driver (a builder may keep the sum byte here)
  UINT64 BaseAddress;    // 20: added to every entry's Offset (unaligned)
};

struct FlashMapEntry {
  EFI_GUID AreaType;  // 0: the kind of area
  EFI_GUID AreaName;  // 16: the area's own identity
  UINT64 Offset;      // 32: relative to BaseAddress
  UINT64 Size;        // 40
  UINT32 Attributes;  // 48
};
#pragma pack(pop)
static_assert(offsetof(FlashMapHeader, TotalSize) == 4);
static_assert(offsetof(FlashMapHeader, EntriesOffset) == 8);
static_assert(offsetof(FlashMapHeader, EntrySize) == 12);
static_assert(offsetof(FlashMapHeader, BaseAddress) == 20);
static_assert(sizeof(FlashMapHeader) == 28);  // the 28 bytes whose 8-bit sum must be 0
static_assert(offsetof(FlashMapEntry, AreaName) == 16);
static_assert(offsetof(FlashMapEntry, Offset) == 32);
static_assert(offsetof(FlashMapEntry, Size) == 40);
static_assert(offsetof(FlashMapEntry, Attributes) == 48);
static_assert(sizeof(FlashMapEntry) == 52);
static_assert(std::is_trivially_copyable_v<FlashMapHeader> && std::is_trivially_copyable_v<FlashMapEntry>);

// Attribute bit 1: the entry is ignored by every lookup and count.
constexpr UINT32 kFlashMapEntryIgnored = 0x2;
// Maps in flash start on this step.
constexpr UINT32 kFlashMapScanStep = 0x1000;
