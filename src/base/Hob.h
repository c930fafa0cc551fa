// HOB list access over the list cached at start-up. Walking is bounded: a HOB
// whose length is zero or not a multiple of 8 ends the walk instead of looping.
#pragma once
#include "PiHob.h"

// The cached list (from the gEfiHobListGuid configuration table), or nullptr.
const VOID *GetHobList();
EFI_STATUS CacheHobList(EFI_SYSTEM_TABLE *SystemTable);

const VOID *GetNextHob(UINT16 Type, const VOID *HobStart);
const EFI_HOB_GUID_TYPE *GetFirstGuidHob(const EFI_GUID *Guid);
const EFI_HOB_GUID_TYPE *GetNextGuidHob(const EFI_GUID *Guid, const VOID *HobStart);
// Data of a GUID HOB (after its 24-byte header) and the data's size.
VOID *GuidHobData(const EFI_HOB_GUID_TYPE *Hob);
UINTN GuidHobDataSize(const EFI_HOB_GUID_TYPE *Hob);

HOST_ONLY(void ResetHobCacheForTest();)
