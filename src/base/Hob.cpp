#include "Hob.h"

#include "BaseLib.h"
#include "Guids.h"

namespace {
const VOID *mHobList = nullptr;

const EFI_HOB_GENERIC_HEADER *Next(const EFI_HOB_GENERIC_HEADER *Hob) {
  return reinterpret_cast<const EFI_HOB_GENERIC_HEADER *>(reinterpret_cast<const UINT8 *>(Hob) + Hob->HobLength);
}

bool WellFormed(const EFI_HOB_GENERIC_HEADER *Hob) {
  return Hob->HobLength >= sizeof(EFI_HOB_GENERIC_HEADER) && (Hob->HobLength % 8) == 0;
}
}  // namespace

const VOID *GetHobList() { return mHobList; }

EFI_STATUS CacheHobList(EFI_SYSTEM_TABLE *SystemTable) {
  mHobList = nullptr;
  if (SystemTable == nullptr) {
    return EFI_NOT_FOUND;
  }
  for (UINTN Index = 0; Index < SystemTable->NumberOfTableEntries; Index++) {
    const EFI_CONFIGURATION_TABLE &Entry = SystemTable->ConfigurationTable[Index];
    if (CompareGuid(&Entry.VendorGuid, &gEfiHobListGuid)) {
      mHobList = Entry.VendorTable;
      return EFI_SUCCESS;
    }
  }
  return EFI_NOT_FOUND;
}

const VOID *GetNextHob(UINT16 Type, const VOID *HobStart) {
  const auto *Hob = static_cast<const EFI_HOB_GENERIC_HEADER *>(HobStart);
  while (Hob != nullptr && Hob->HobType != EFI_HOB_TYPE_END_OF_HOB_LIST) {
    if (Hob->HobType == Type) {
      return Hob;
    }
    if (!WellFormed(Hob)) {
      return nullptr;
    }
    Hob = Next(Hob);
  }
  return nullptr;
}

const EFI_HOB_GUID_TYPE *GetNextGuidHob(const EFI_GUID *Guid, const VOID *HobStart) {
  const VOID *Cursor = HobStart;
  while ((Cursor = GetNextHob(EFI_HOB_TYPE_GUID_EXTENSION, Cursor)) != nullptr) {
    const auto *GuidHob = static_cast<const EFI_HOB_GUID_TYPE *>(Cursor);
    if (!WellFormed(&GuidHob->Header) || GuidHob->Header.HobLength < sizeof(EFI_HOB_GUID_TYPE)) {
      return nullptr;
    }
    if (CompareGuid(&GuidHob->Name, Guid)) {
      return GuidHob;
    }
    Cursor = Next(&GuidHob->Header);
  }
  return nullptr;
}

const EFI_HOB_GUID_TYPE *GetFirstGuidHob(const EFI_GUID *Guid) { return GetNextGuidHob(Guid, mHobList); }

VOID *GuidHobData(const EFI_HOB_GUID_TYPE *Hob) {
  return const_cast<UINT8 *>(reinterpret_cast<const UINT8 *>(Hob + 1));
}

UINTN GuidHobDataSize(const EFI_HOB_GUID_TYPE *Hob) { return Hob->Header.HobLength - sizeof(EFI_HOB_GUID_TYPE); }

#if defined(BIOS_HOST_BUILD)
void ResetHobCacheForTest() { mHobList = nullptr; }
#endif
