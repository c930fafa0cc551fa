// Arbitrary bytes as the HOBs of a list: walking it for GUID HOBs must stay inside the list
// the hand-off HOB describes, and end.
#include <cstdint>

#include "src/base/Guids.h"
#include "src/base/Hob.h"
#include "tests/fuzz/FuzzBootServices.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  // Whole 8-byte units of the fuzzer's bytes between the hand-off HOB and the end HOB.
  FuzzHobList Hobs(Data, Size & ~size_t(7), BOOT_WITH_FULL_CONFIGURATION, nullptr);
  if (CacheHobList(&Hobs.System) != EFI_SUCCESS) {
    return 0;
  }
  size_t Found = 0;
  for (const EFI_HOB_GUID_TYPE *Hob = GetFirstGuidHob(&gCmosToRomImageHobGuid); Hob != nullptr;
       Hob = GetNextGuidHob(&gCmosToRomImageHobGuid, reinterpret_cast<const uint8_t *>(Hob) + Hob->Header.HobLength)) {
    Found += GuidHobDataSize(Hob);
  }
  return Found == SIZE_MAX ? 1 : 0;
}
