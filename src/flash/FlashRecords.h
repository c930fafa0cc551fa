// Records exchanged between the image services and with the update tool: protected
// regions, write ranges, update regions and the query record. All little-endian and packed.
#pragma once
#include <type_traits>

#include "../base/Uefi.h"

#pragma pack(push, 1)

// A protected region as the query reports it: start image offset and length in 4 KiB pages.
// Both words 0xFFFFFFFF mark the end of a platform list.
struct SkipRegion {
  UINT32 Start;
  UINT32 Pages;
};
static_assert(sizeof(SkipRegion) == 8);
static_assert(offsetof(SkipRegion, Pages) == 4);

// One piece of a block write: Source 0 means the accepted image's bytes at Start. Source is
// a full memory address: the accepted image may lie above 4 GiB.
struct FlashWriteRange {
  UINT32 Start;
  UINT64 Source;
  UINT32 Length;
};
static_assert(sizeof(FlashWriteRange) == 16);
static_assert(offsetof(FlashWriteRange, Source) == 4);
static_assert(offsetof(FlashWriteRange, Length) == 12);

struct UpdateRegion {
  UINT64 Address;     // flash address of the region
  UINT64 Size;        // bytes
  UINT64 Source;      // memory address of the region's bytes in the accepted image
  UINT64 StartBlock;  // first progress unit
  UINT64 Pages;       // Size / 4096
};
static_assert(sizeof(UpdateRegion) == 40);
static_assert(offsetof(UpdateRegion, Size) == 8);
static_assert(offsetof(UpdateRegion, Source) == 16);
static_assert(offsetof(UpdateRegion, StartBlock) == 24);
static_assert(offsetof(UpdateRegion, Pages) == 32);

constexpr UINTN kMaxSkipRegions = 10;
constexpr UINTN kBiosIdLength = 5;
constexpr UINT32 kSkipRegionPageSize = 4096;

// What BiosQueryImage fills for the tool, and what BiosWriteImage takes back per block.
struct BiosImageQueryRecord {
  UINT8 BiosId[kBiosIdLength];  // 0
  UINT8 Reserved5[3];           // 5: not written
  UINT32 BlockSize;             // 8
  UINT16 BlockCount;            // 12
  UINT8 DeviceAttribute;        // 14
  UINT8 SkipRegionCount;        // 15
  SkipRegion SkipRegions[kMaxSkipRegions];  // 16
};
static_assert(sizeof(BiosImageQueryRecord) == 96);
static_assert(offsetof(BiosImageQueryRecord, BlockSize) == 8);
static_assert(offsetof(BiosImageQueryRecord, BlockCount) == 12);
static_assert(offsetof(BiosImageQueryRecord, DeviceAttribute) == 14);
static_assert(offsetof(BiosImageQueryRecord, SkipRegionCount) == 15);
static_assert(offsetof(BiosImageQueryRecord, SkipRegions) == 16);

// The skip regions of the last block write, kept for the read-back.
struct SavedSkipRegions {
  UINT8 Count;
  SkipRegion Regions[kMaxSkipRegions];
};
static_assert(offsetof(SavedSkipRegions, Regions) == 1);

// What the tool passes with each block write. Which block-number field is read depends on
// the protocol installation the tool called through.
struct BiosWriteRequest {
  UINT8 Reserved0[2];
  UINT16 BlockNumber;    // 2: read through the first installation
  UINT16 BlockNumberEx;  // 4: read through the second installation
  UINT8 Reserved6[2];
  UINT64 ImageOffset;    // 8: image offset of the block
};
static_assert(sizeof(BiosWriteRequest) == 16);
static_assert(offsetof(BiosWriteRequest, BlockNumber) == 2);
static_assert(offsetof(BiosWriteRequest, BlockNumberEx) == 4);
static_assert(offsetof(BiosWriteRequest, ImageOffset) == 8);

#pragma pack(pop)

static_assert(std::is_trivially_copyable_v<BiosImageQueryRecord>);

enum UpdateMode : UINT32 {
  UpdateModeNormal = 0,    // tool-driven update
  UpdateModeRecovery = 1,  // the boot mode is BOOT_IN_RECOVERY_MODE
  UpdateModeHft = 2,       // the one-shot variable HFT was present
};
