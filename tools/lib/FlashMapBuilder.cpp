#include "FlashMapBuilder.h"

#include <cstring>

#include "../../src/base/Guids.h"

namespace {
// The header field the driver does not read carries the byte that makes the sum 0.
constexpr size_t kSealByte = offsetof(FlashMapHeader, Reserved);
}  // namespace

FlashMapBuilder &FlashMapBuilder::AddNamed(const EFI_GUID &Name, UINT64 Offset, UINT64 Size) {
  return Add({gFlashMapNamedAreaGuid, Name, Offset, Size, 0});
}

FlashMapBuilder DefaultFlashMap() {
  constexpr UINT64 kFlashBase = 0xFF000000;
  constexpr UINT64 kVariableStore = 0xFF14A000, kVariableStoreSize = 0x30000;
  constexpr UINT64 kVariableBackup = 0xFF17C000, kVariableBackupSize = 0x32000;
  FlashMapBuilder Map(kFlashBase);
  Map.Add({gNvVariableStoreRegionGuid, gEfiSystemNvDataFvGuid, kVariableStore - kFlashBase, kVariableStoreSize, 0})
      .AddNamed(gNvVariableStoreRegionGuid, kVariableStore - kFlashBase, kVariableStoreSize)
      .Add({gVariableStoreBackupAreaGuid, gVariableStoreBackupAreaGuid, kVariableBackup - kFlashBase,
            kVariableBackupSize, 0});
  return Map;
}

std::vector<uint8_t> FlashMapBuilder::Build() const {
  const UINT32 EntrySize = sizeof(FlashMapEntry) + EntryPadding_;
  const UINT32 TotalSize = sizeof(FlashMapHeader) + EntrySize * static_cast<UINT32>(Areas_.size());
  std::vector<uint8_t> Map(TotalSize, 0);
  FlashMapHeader Header = {kFlashMapSignature, TotalSize, sizeof(FlashMapHeader), EntrySize, 0, BaseAddress_};
  std::memcpy(Map.data(), &Header, sizeof(Header));
  size_t Position = sizeof(FlashMapHeader);
  for (const FlashMapArea &Area : Areas_) {
    FlashMapEntry Entry = {Area.AreaType, Area.AreaName, Area.Offset, Area.Size, Area.Attributes};
    std::memcpy(Map.data() + Position, &Entry, sizeof(Entry));
    Position += EntrySize;
  }
  SealFlashMapHeader(Map);
  return Map;
}

void SetFlashMapField32(std::vector<uint8_t> &Map, size_t Offset, UINT32 Value) {
  if (Offset + sizeof(Value) <= Map.size()) {
    std::memcpy(Map.data() + Offset, &Value, sizeof(Value));
  }
}

void SealFlashMapHeader(std::vector<uint8_t> &Map) {
  if (Map.size() < sizeof(FlashMapHeader)) {
    return;
  }
  Map[kSealByte] = 0;
  uint8_t Sum = 0;
  for (size_t Index = 0; Index < sizeof(FlashMapHeader); Index++) {
    Sum = static_cast<uint8_t>(Sum + Map[Index]);
  }
  Map[kSealByte] = static_cast<uint8_t>(0x100 - Sum);
}
