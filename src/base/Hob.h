// HOB list access over the list cached at start-up. Walking is bounded by the list's end
// HOB (the one the hand-off HOB names, or the first one found when the list was moved): a
// HOB that leaves the list, or whose length is zero or not a multiple of 8, ends the walk
// instead of looping or reading past the list.
#pragma once
#include "PiHob.h"

// The cached list (from the gEfiHobListGuid configuration table), or nullptr. A list
// whose first HOB is not a hand-off HOB, or whose end cannot be found, is not taken.
const VOID *GetHobList();
EFI_STATUS CacheHobList(EFI_SYSTEM_TABLE *SystemTable);

const VOID *GetNextHob(UINT16 Type, const VOID *HobStart);
const EFI_HOB_GUID_TYPE *GetFirstGuidHob(const EFI_GUID *Guid);
const EFI_HOB_GUID_TYPE *GetNextGuidHob(const EFI_GUID *Guid, const VOID *HobStart);
// Data of a GUID HOB (after its 24-byte header) and the data's size.
VOID *GuidHobData(const EFI_HOB_GUID_TYPE *Hob);
UINTN GuidHobDataSize(const EFI_HOB_GUID_TYPE *Hob);

HOST_ONLY(void ResetHobCacheForTest();)
