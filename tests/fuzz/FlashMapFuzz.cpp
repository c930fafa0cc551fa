// Arbitrary bytes as the flash map in use: validation and every lookup must stay inside the
// bytes given and end, whatever the header claims (stride, entry offset, total size).
#include <cstdint>
#include <cstring>
#include <vector>

#include "src/base/Guids.h"
#include "src/driver/Config.h"
#include "src/driver/FlashMap.h"

namespace {
// Area types worth hitting: the named-area type and a few the fuzzer can spell from its input.
const EFI_GUID kTypeSeed = {0x6a1f0c3e, 0x0d2b, 0x4c55, {0x8e, 0x10, 0x71, 0x2a, 0x9b, 0x33, 0x5d, 0x0a}};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  gConfig.PcdFlashSize = 0;  // no flash behind the map to fall back on
  // Exactly the fuzzer's bytes on the heap, so that any read past them is caught.
  std::vector<uint8_t> Map(Data, Data + Size);
  Map.shrink_to_fit();
  ResetFlashMapForTest();
  UseFlashMapForTest(Map.data(), Map.size());

  EFI_GUID Types[3] = {gFlashMapNamedAreaGuid, kTypeSeed, {}};
  if (Size >= 28 + sizeof(EFI_GUID)) {
    std::memcpy(&Types[2], Data + 28, sizeof(EFI_GUID));  // the first entry's own type
  }
  UINT8 Count = 0;
  FlashMapCountEntries(&Count);
  UINT64 Sum = Count + FlashMapGetBase();
  for (const EFI_GUID &Type : Types) {
    for (UINT8 Instance : {UINT8(1), UINT8(2), UINT8(255)}) {
      EFI_GUID Name;
      UINT64 Offset = 0, Length = 0;
      UINT32 Attributes = 0;
      FlashMapFindEntry(&Type, Instance, &Name, &Offset, &Length, &Attributes);
      Sum += Offset + Length + Attributes + FlashMapGetAddress(&Type, Instance) + FlashMapGetSize(&Type, Instance);
    }
  }
  if (Size >= 28 + 2 * sizeof(EFI_GUID)) {
    EFI_GUID Name;
    std::memcpy(&Name, Data + 28 + sizeof(EFI_GUID), sizeof(Name));
    UINT64 Address = 0, Length = 0;
    FlashMapFindByName(&Name, &Address, &Length);
    Sum += Address + Length;
  }
  ResetFlashMapForTest();
  volatile UINT64 Sink = Sum;  // keep the lookups' results alive
  (void)Sink;
  return 0;
}
