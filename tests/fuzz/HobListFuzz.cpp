// Arbitrary bytes as the HOBs of a list: walking it for GUID HOBs must stay inside the list
// the hand-off HOB describes, and end.
#include <cstdint>
#include <cstring>
#include <vector>

#include "src/base/Guids.h"
#include "src/base/Hob.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  // Hand-off HOB, the fuzzer's bytes (whole 8-byte units), and the end HOB the list names.
  std::vector<uint8_t> List(sizeof(EFI_HOB_HANDOFF_INFO_TABLE), 0);
  List.insert(List.end(), Data, Data + (Size & ~size_t(7)));
  size_t EndOffset = List.size();
  const uint8_t End[8] = {0xFF, 0xFF, 8, 0, 0, 0, 0, 0};
  List.insert(List.end(), End, End + sizeof(End));
  auto *Handoff = reinterpret_cast<EFI_HOB_HANDOFF_INFO_TABLE *>(List.data());
  Handoff->Header.HobType = EFI_HOB_TYPE_HANDOFF;
  Handoff->Header.HobLength = sizeof(EFI_HOB_HANDOFF_INFO_TABLE);
  Handoff->EfiEndOfHobList = reinterpret_cast<EFI_PHYSICAL_ADDRESS>(List.data() + EndOffset);

  EFI_CONFIGURATION_TABLE Table = {gEfiHobListGuid, List.data()};
  EFI_SYSTEM_TABLE System = {};
  System.NumberOfTableEntries = 1;
  System.ConfigurationTable = &Table;
  if (CacheHobList(&System) != EFI_SUCCESS) {
    return 0;
  }
  size_t Found = 0;
  for (const EFI_HOB_GUID_TYPE *Hob = GetFirstGuidHob(&gCmosToRomImageHobGuid); Hob != nullptr;
       Hob = GetNextGuidHob(&gCmosToRomImageHobGuid, reinterpret_cast<const uint8_t *>(Hob) + Hob->Header.HobLength)) {
    Found += GuidHobDataSize(Hob);
  }
  return Found == SIZE_MAX ? 1 : 0;
}
