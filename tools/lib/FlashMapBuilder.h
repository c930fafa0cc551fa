// Builds the bytes of a flash map ("QFDM") from a list of areas, with a header whose 28
// bytes sum to 0 (the adjusting byte goes into the field the driver does not use). Tests
// and the image builder use it; tests then bend single fields to make malformed maps.
#pragma once
#include <cstdint>
#include <vector>

#include "../../src/driver/FlashMapFormat.h"

struct FlashMapArea {
  EFI_GUID AreaType;
  EFI_GUID AreaName;
  UINT64 Offset;  // from the map's BaseAddress
  UINT64 Size;
  UINT32 Attributes = 0;
};

class FlashMapBuilder {
public:
  explicit FlashMapBuilder(UINT64 BaseAddress) : BaseAddress_(BaseAddress) {}

  FlashMapBuilder &Add(const FlashMapArea &Area) {
    Areas_.push_back(Area);
    return *this;
  }
  // An area of type gFlashMapNamedAreaGuid, found by FlashMapFindByName.
  FlashMapBuilder &AddNamed(const EFI_GUID &Name, UINT64 Offset, UINT64 Size);
  // Room between consecutive entries beyond the 52 bytes of an entry.
  FlashMapBuilder &EntryPadding(UINT32 Bytes) {
    EntryPadding_ = Bytes;
    return *this;
  }

  // Header, then the entries from offset 28, EntrySize bytes apart; TotalSize covers them all.
  std::vector<uint8_t> Build() const;

private:
  UINT64 BaseAddress_;
  UINT32 EntryPadding_ = 0;
  std::vector<FlashMapArea> Areas_;
};

// The reference platform's map as the default image carries it: at a free 4 KiB step between
// the critical-data block and the variable store, the same address as the platform's map
// copy PCD, naming the areas by flash offset from BaseAddress = PcdFlashBase.
constexpr UINT32 kDefaultFlashMapAddress = 0xFF0EA000;
constexpr UINT32 kDefaultFlashMapRegionSize = 0x1000;
// Areas, by flash offset: the live variable store (type gNvVariableStoreRegionGuid, and a
// named area of that name), the variable-store backup (type gVariableStoreBackupAreaGuid), the
// map's own copy, the EC firmware and the three authenticated-variable digest areas. The
// entries the signature check reads by image offset (the signature area, the five signed
// regions) add ImageHead, the bytes of the EC and lower parts in front of the mapped part.
// Builders of other structures may Add their own areas before Build().
FlashMapBuilder DefaultFlashMap(UINT64 ImageHead = 0);

// Field access on built bytes, for tests that bend a header.
void SetFlashMapField32(std::vector<uint8_t> &Map, size_t Offset, UINT32 Value);
// Makes the 28 header bytes sum to 0 again after an edit.
void SealFlashMapHeader(std::vector<uint8_t> &Map);
