#include "Hob.h"

#include "BaseLib.h"
#include "Guids.h"

namespace {
const VOID *mHobList = nullptr;
// One past the last byte any HOB may occupy: the end HOB that the hand-off HOB names.
UINTN mHobListLimit = 0;

bool Fits(const EFI_HOB_GENERIC_HEADER *Hob, UINTN Length) {
  UINTN Address = reinterpret_cast<UINTN>(Hob);
  return Address <= mHobListLimit && Length <= mHobListLimit - Address;
}

// A HOB whose header or length leaves the list, or whose length is not a non-zero multiple
// of 8, ends every walk: nothing after it can be trusted.
bool WellFormed(const EFI_HOB_GENERIC_HEADER *Hob) {
  return Fits(Hob, sizeof(EFI_HOB_GENERIC_HEADER)) && Hob->HobLength >= sizeof(EFI_HOB_GENERIC_HEADER) &&
         (Hob->HobLength % 8) == 0 && Fits(Hob, Hob->HobLength);
}

const EFI_HOB_GENERIC_HEADER *Next(const EFI_HOB_GENERIC_HEADER *Hob) {
  return reinterpret_cast<const EFI_HOB_GENERIC_HEADER *>(reinterpret_cast<const UINT8 *>(Hob) + Hob->HobLength);
}
}  // namespace

const VOID *GetHobList() { return mHobList; }

namespace {
// No HOB list is anywhere near this long; a walk that finds no end HOB within it gives up.
constexpr UINTN kMaxHobListSize = 64u << 20;

// The end of a list whose hand-off HOB does not name it (the DXE core may have moved the
// list without updating EfiEndOfHobList): the end HOB found by walking well-formed HOBs.
UINTN FindEndHob(UINTN Start) {
  UINTN Cursor = Start;
  while (Cursor - Start <= kMaxHobListSize - sizeof(EFI_HOB_GENERIC_HEADER)) {
    const auto *Hob = reinterpret_cast<const EFI_HOB_GENERIC_HEADER *>(Cursor);
    if (Hob->HobType == EFI_HOB_TYPE_END_OF_HOB_LIST) {
      return Cursor;
    }
    if (Hob->HobLength < sizeof(EFI_HOB_GENERIC_HEADER) || (Hob->HobLength % 8) != 0) {
      return 0;
    }
    Cursor += Hob->HobLength;
  }
  return 0;
}
}  // namespace

EFI_STATUS CacheHobList(EFI_SYSTEM_TABLE *SystemTable) {
  mHobList = nullptr;
  mHobListLimit = 0;
  if (SystemTable == nullptr) {
    return EFI_NOT_FOUND;
  }
  for (UINTN Index = 0; Index < SystemTable->NumberOfTableEntries; Index++) {
    const EFI_CONFIGURATION_TABLE &Entry = SystemTable->ConfigurationTable[Index];
    if (!CompareGuid(&Entry.VendorGuid, &gEfiHobListGuid) || Entry.VendorTable == nullptr) {
      continue;
    }
    const auto *Handoff = static_cast<const EFI_HOB_HANDOFF_INFO_TABLE *>(Entry.VendorTable);
    if (Handoff->Header.HobType != EFI_HOB_TYPE_HANDOFF || Handoff->Header.HobLength < sizeof(*Handoff)) {
      return EFI_NOT_FOUND;
    }
    UINTN Start = reinterpret_cast<UINTN>(Handoff);
    UINTN Named = static_cast<UINTN>(Handoff->EfiEndOfHobList);
    bool NamedInside = Named >= Start + sizeof(*Handoff) && Named - Start <= kMaxHobListSize;
    UINTN EndHob = NamedInside ? Named : FindEndHob(Start);
    if (EndHob == 0) {
      return EFI_NOT_FOUND;  // a list without a reachable end cannot be walked safely
    }
    mHobList = Handoff;
    mHobListLimit = EndHob + sizeof(EFI_HOB_GENERIC_HEADER);
    return EFI_SUCCESS;
  }
  return EFI_NOT_FOUND;
}

const VOID *GetNextHob(UINT16 Type, const VOID *HobStart) {
  const auto *Hob = static_cast<const EFI_HOB_GENERIC_HEADER *>(HobStart);
  while (Hob != nullptr && WellFormed(Hob) && Hob->HobType != EFI_HOB_TYPE_END_OF_HOB_LIST) {
    if (Hob->HobType == Type) {
      return Hob;
    }
    Hob = Next(Hob);
  }
  return nullptr;
}

const EFI_HOB_GUID_TYPE *GetNextGuidHob(const EFI_GUID *Guid, const VOID *HobStart) {
  const VOID *Cursor = HobStart;
  while ((Cursor = GetNextHob(EFI_HOB_TYPE_GUID_EXTENSION, Cursor)) != nullptr) {
    const auto *GuidHob = static_cast<const EFI_HOB_GUID_TYPE *>(Cursor);
    if (GuidHob->Header.HobLength >= sizeof(EFI_HOB_GUID_TYPE) && CompareGuid(&GuidHob->Name, Guid)) {
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
void ResetHobCacheForTest() {
  mHobList = nullptr;
  mHobListLimit = 0;
}
#endif
