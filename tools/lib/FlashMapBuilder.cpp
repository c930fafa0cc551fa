#include "FlashMapBuilder.h"

#include <cstring>

#include "../../src/base/Guids.h"
#include "DefaultImageLayout.h"

namespace {
// The header field the driver does not read carries the byte that makes the sum 0.
constexpr size_t kSealByte = offsetof(FlashMapHeader, Reserved);
}  // namespace

FlashMapBuilder &FlashMapBuilder::AddNamed(const EFI_GUID &Name, UINT64 Offset, UINT64 Size) {
  return Add({gFlashMapNamedAreaGuid, Name, Offset, Size, 0});
}

FlashMapBuilder DefaultFlashMap(UINT64 ImageHead) {
  using namespace DefaultImageLayout;
  constexpr UINT64 kFlashBase = kMappedBase;
  const EFI_GUID *const kRegionGuids[5] = {&gSignedRegion1Guid, &gSignedRegion2Guid, &gSignedRegion3Guid,
                                           &gSignedRegion4Guid, &gSignedRegion5Guid};
  FlashMapBuilder Map(kFlashBase);
  Map.Add({gNvVariableStoreRegionGuid, gEfiSystemNvDataFvGuid, kVariableStoreAddress - kFlashBase,
           kVariableStoreSize, 0})
      .AddNamed(gNvVariableStoreRegionGuid, kVariableStoreAddress - kFlashBase, kVariableStoreSize)
      .Add({gVariableStoreBackupAreaGuid, gVariableStoreBackupAreaGuid, kVariableBackupAddress - kFlashBase,
            kVariableBackupSize, 0})
      .Add({gFlashMapCopyAreaGuid, gFlashMapCopyAreaGuid, kDefaultFlashMapAddress - kFlashBase,
            kDefaultFlashMapRegionSize, 0})
      .Add({gQfdmSignatureEntryGuid, gQfdmSignatureEntryTypeGuid, ImageHead + kMapSignatureAreaAddress - kFlashBase,
            kMapSignatureAreaSize, 0});
  // The signature check finds these entries by a byte scan for their GUIDs, so the GUID
  // appears once per entry (the name stays zero).
  for (size_t Index = 0; Index < 5; Index++) {
    Map.Add({*kRegionGuids[Index], EFI_GUID{}, ImageHead + kSignedRegions[Index].Address - kFlashBase,
             kSignedRegions[Index].Size, 0});
  }
  Map.Add({gEcFirmwareRegionGuid, gEcFirmwareRegionGuid, kEcFirmwareAddress - kFlashBase, kEcFirmwareSize, 0})
      .Add({gAuthVarDigestAreaGuid, gAuthVarDigestAreaGuid, kDigestArea1Address - kFlashBase, kDigestArea1Size, 0})
      .Add({gAuthVarDigestArea2Guid, gAuthVarDigestArea2Guid, kDigestArea2Address - kFlashBase, kDigestArea2Size, 0})
      .Add({gAuthVarDigestArea3Guid, gAuthVarDigestArea3Guid, kDigestArea3Address - kFlashBase, kDigestArea3Size, 0});
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
