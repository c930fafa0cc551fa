#include "FlashMap.h"

#include "../base/BaseLib.h"
#include "../base/ByteView.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/Hardware.h"
#include "../base/Hob.h"
#include "../base/PiSmm.h"
#include "Config.h"
#include "DynamicPcd.h"
#include "LibraryList.h"
#include "ProtocolServices.h"

const VOID *mFlashMap = nullptr;
BOOLEAN mFlashMapGone = FALSE;
EFI_EVENT mFlashMapEvent = nullptr;

namespace {

// Whether the map library runs in SMM, and the SMM table it then uses. Private to this
// library: other libraries keep their own answer under the same name.
BOOLEAN mInSmm = FALSE;
EFI_SMM_SYSTEM_TABLE2 *mSmst = nullptr;

// How many bytes are known to exist at mFlashMap: the HOB's data, the rest of the flash
// window, or our own copy. A map reached through a bare memory address (another driver's
// published copy, a PCD) is bounded by its own TotalSize.
constexpr UINTN kExtentFromHeader = ~UINTN(0);
UINTN mFlashMapExtent = 0;
// The copy this driver published (runtime pool), if any.
VOID *mPublishedCopy = nullptr;

constexpr UINT64 kFourGiB = 0x100000000ull;

void UseMap(const VOID *Map, UINTN Extent) {
  mFlashMap = Map;
  mFlashMapExtent = Map == nullptr ? 0 : Extent;
}

// The bytes of a map: its known extent, or, for a bare address, the header and TotalSize.
ByteView MapBytes(const VOID *Map, UINTN Extent) {
  if (Map == nullptr) {
    return ByteView();
  }
  if (Extent != kExtentFromHeader) {
    return ByteView(Map, Extent);
  }
  UINT32 TotalSize = ReadUnaligned32(static_cast<const UINT8 *>(Map) + offsetof(FlashMapHeader, TotalSize));
  return ByteView(Map, TotalSize > sizeof(FlashMapHeader) ? TotalSize : sizeof(FlashMapHeader));
}

bool CarriesSignature(const VOID *Map, UINTN Extent) {
  if (Map == nullptr || (Extent != kExtentFromHeader && Extent < sizeof(UINT32))) {
    return false;
  }
  return ReadUnaligned32(Map) == kFlashMapSignature;
}

// A map address as the platform gives it. Inside the flash window it is read through the
// window, up to the window's end; anything else is memory that holds a map of TotalSize.
const VOID *ResolveMapAddress(UINT64 Address, UINTN &Extent) {
  Extent = 0;
  if (Address == 0) {
    return nullptr;
  }
  if (Address < kFourGiB) {
    UINT64 Remaining = kFourGiB - Address;
    if (const UINT8 *Window = Hw::FlashPointer(Address, Remaining)) {
      Extent = static_cast<UINTN>(Remaining);
      return Window;
    }
  }
  Extent = kExtentFromHeader;
  return reinterpret_cast<const VOID *>(static_cast<UINTN>(Address));
}

// A map that passed validation: its entry walk is bounded by TotalSize and by the bytes
// that exist, whichever ends first.
struct ValidMap {
  ByteView Entries;  // from the start of the map
  UINT64 EntriesOffset;
  UINT64 EntrySize;
  UINT64 TotalSize;
  UINT64 BaseAddress;
};

EFI_STATUS Validate(ByteView Bytes, ValidMap &Map) {
  UINT32 Signature = 0;
  if (!Bytes.Read32(offsetof(FlashMapHeader, Signature), Signature) || Signature != kFlashMapSignature) {
    return EFI_NOT_FOUND;
  }
  const UINT8 *Header = Bytes.At(0, sizeof(FlashMapHeader));
  if (Header == nullptr) {
    return EFI_SECURITY_VIOLATION;  // a header cut short cannot sum to 0
  }
  UINT8 Sum = 0;
  for (UINTN Index = 0; Index < sizeof(FlashMapHeader); Index++) {
    Sum = static_cast<UINT8>(Sum + Header[Index]);
  }
  if (Sum != 0) {
    return EFI_SECURITY_VIOLATION;
  }
  FlashMapHeader Fields;
  CopyMem(&Fields, Header, sizeof(Fields));
  // A stride shorter than an entry makes entries overlap, and a stride of 0 would never
  // advance the walk: the header describes no usable table.
  if (Fields.EntrySize < sizeof(FlashMapEntry)) {
    return EFI_SECURITY_VIOLATION;
  }
  UINTN Visible = Bytes.Size() < Fields.TotalSize ? Bytes.Size() : Fields.TotalSize;
  Map.Entries = ByteView(Bytes.Data(), Visible);
  Map.EntriesOffset = Fields.EntriesOffset;
  Map.EntrySize = Fields.EntrySize;
  Map.TotalSize = Fields.TotalSize;
  Map.BaseAddress = Fields.BaseAddress;
  return EFI_SUCCESS;
}

EFI_STATUS OpenMap(ValidMap &Map) {
  if (mFlashMapGone) {
    return EFI_UNSUPPORTED;
  }
  const VOID *Found = FlashMapFind();
  if (Found == nullptr) {
    return EFI_NOT_FOUND;
  }
  return Validate(MapBytes(Found, mFlashMapExtent), Map);
}

// Calls Visit(entry) for every usable entry in map order until it returns true. An entry
// that does not lie wholly inside the map ends the walk. FALSE when the first entry already
// starts at or beyond the end.
template <typename Visitor> bool WalkUsableEntries(const ValidMap &Map, Visitor Visit) {
  if (Map.EntriesOffset >= Map.TotalSize) {
    return false;
  }
  for (UINT64 Position = Map.EntriesOffset; Position < Map.TotalSize; Position += Map.EntrySize) {
    FlashMapEntry Entry;
    if (!Map.Entries.ReadBytes(static_cast<UINTN>(Position), &Entry, sizeof(Entry))) {
      break;
    }
    if ((Entry.Attributes & kFlashMapEntryIgnored) == 0 && Visit(Entry)) {
      break;
    }
  }
  return true;
}

VOID EFIAPI OnExitBootServices(EFI_EVENT Event, VOID *Context) {
  (void)Context;
  gBS->CloseEvent(Event);
  mFlashMapEvent = nullptr;
  mFlashMapGone = TRUE;
}

BOOLEAN HandoffInRecoveryMode() {
  const auto *Handoff = static_cast<const EFI_HOB_HANDOFF_INFO_TABLE *>(GetHobList());
  return Handoff != nullptr && Handoff->BootMode == BOOT_IN_RECOVERY_MODE;
}

// The map of the last flash-map HOB, bounded by that HOB's data.
bool MapFromHob(const VOID *&Map, UINTN &Extent) {
  const EFI_HOB_GUID_TYPE *Last = nullptr;
  for (const EFI_HOB_GUID_TYPE *Hob = GetFirstGuidHob(&gFlashMapHobGuid); Hob != nullptr;
       Hob = GetNextGuidHob(&gFlashMapHobGuid, reinterpret_cast<const UINT8 *>(Hob) + Hob->Header.HobLength)) {
    Last = Hob;
  }
  if (Last == nullptr) {
    return false;
  }
  Map = GuidHobData(Last);
  Extent = GuidHobDataSize(Last);
  return true;
}

// Recovery without the HOB: the address HOB, else the PCD's address checked by
// FlashMapFind (which scans the flash when that address holds no map).
void MapFromRecoverySources() {
  const EFI_HOB_GUID_TYPE *AddressHob = GetFirstGuidHob(&gFlashMapAddressHobGuid);
  UINT64 Address = 0;
  if (AddressHob != nullptr && ByteView(GuidHobData(AddressHob), GuidHobDataSize(AddressHob)).Read64(0, Address)) {
    UINTN Extent = 0;
    const VOID *Map = ResolveMapAddress(Address, Extent);
    UseMap(Map, Extent);
    return;
  }
  UINTN Extent = 0;
  const VOID *Map = ResolveMapAddress(PcdGet64(&gFlashMapTokenSpaceGuid, kFlashMapAddressToken), Extent);
  UseMap(Map, Extent);
  // FlashMapFind keeps the PCD's map with its extent, or records a scan hit with the
  // window's own extent: the extent must be taken after it ran, never before.
  if (FlashMapFind() == nullptr) {
    UseMap(nullptr, 0);
  }
}

// Copies the map in use into runtime pool and installs the copy for the drivers after us.
// Only a map that carries its signature and lies wholly inside its known bytes is copied.
EFI_STATUS PublishCopy(const ProtocolServices &Services) {
  ByteView Bytes = MapBytes(mFlashMap, mFlashMapExtent);
  UINT32 Signature = 0;
  if (!Bytes.Read32(offsetof(FlashMapHeader, Signature), Signature) || Signature != kFlashMapSignature) {
    return EFI_NOT_FOUND;
  }
  UINT32 TotalSize = 0;
  if (!Bytes.Read32(offsetof(FlashMapHeader, TotalSize), TotalSize) || TotalSize < sizeof(FlashMapHeader) ||
      !Bytes.Contains(0, TotalSize)) {
    return EFI_VOLUME_CORRUPTED;
  }
  VOID *Copy = Services.Allocate(EfiRuntimeServicesData, TotalSize);
  if (Copy == nullptr) {
    return EFI_OUT_OF_RESOURCES;
  }
  CopyMem(Copy, Bytes.Data(), TotalSize);
  EFI_STATUS Status = Services.InstallOnNewHandle(gFlashMapProtocolGuid, Copy);
  if (Status != EFI_SUCCESS) {
    Services.Free(Copy);
    return Status;
  }
  mPublishedCopy = Copy;
  UseMap(Copy, TotalSize);
  return EFI_SUCCESS;
}

}  // namespace

const VOID *FlashMapFind() {
  if (CarriesSignature(mFlashMap, mFlashMapExtent)) {
    return mFlashMap;
  }
  if (gConfig.PcdFlashSize == 0) {
    return nullptr;
  }
  for (UINT64 Offset = 0; Offset < gConfig.PcdFlashSize; Offset += kFlashMapScanStep) {
    UINT32 Address = static_cast<UINT32>(gConfig.PcdFlashBase + Offset);  // 32-bit addresses
    UINT64 Remaining = kFourGiB - Address;
    const UINT8 *Window = Hw::FlashPointer(Address, Remaining);
    if (Window != nullptr && ReadUnaligned32(Window) == kFlashMapSignature) {
      UseMap(Window, static_cast<UINTN>(Remaining));
      return Window;
    }
  }
  return nullptr;
}

UINT64 FlashMapGetBase() {
  if (mFlashMapGone) {
    return 0;
  }
  const VOID *Map = FlashMapFind();
  UINT64 BaseAddress = 0;
  if (Map == nullptr || !MapBytes(Map, mFlashMapExtent).Read64(offsetof(FlashMapHeader, BaseAddress), BaseAddress)) {
    return 0;
  }
  return BaseAddress;
}

EFI_STATUS FlashMapCountEntries(UINT8 *Count) {
  if (Count == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  *Count = 0;
  ValidMap Map;
  EFI_STATUS Status = OpenMap(Map);
  if (Status != EFI_SUCCESS) {
    return Status;
  }
  UINT8 Usable = 0;
  WalkUsableEntries(Map, [&](const FlashMapEntry &) {
    Usable++;  // 8 bits wide, as other drivers count
    return false;
  });
  *Count = Usable;
  return EFI_SUCCESS;
}

EFI_STATUS FlashMapFindEntry(const EFI_GUID *AreaType, UINT8 Instance, EFI_GUID *AreaName, UINT64 *Offset,
                             UINT64 *Size, UINT32 *Attributes) {
  if (AreaName != nullptr) {
    ZeroMem(AreaName, sizeof(*AreaName));
  }
  if (Offset != nullptr) {
    *Offset = 0;
  }
  if (Size != nullptr) {
    *Size = 0;
  }
  if (Attributes != nullptr) {
    *Attributes = 0;
  }
  if (mFlashMapGone) {
    return EFI_UNSUPPORTED;
  }
  if (Instance == 0 || AreaType == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  ValidMap Map;
  EFI_STATUS Status = OpenMap(Map);
  if (Status != EFI_SUCCESS) {
    return Status;
  }
  UINTN Seen = 0;
  bool Found = false;
  FlashMapEntry Match;
  bool Walked = WalkUsableEntries(Map, [&](const FlashMapEntry &Entry) {
    if (!CompareGuid(&Entry.AreaType, AreaType) || ++Seen < Instance) {
      return false;
    }
    Match = Entry;
    Found = true;
    return true;
  });
  if (!Walked || !Found) {
    return EFI_NOT_FOUND;
  }
  if (AreaName != nullptr) {
    CopyMem(AreaName, &Match.AreaName, sizeof(*AreaName));
  }
  if (Offset != nullptr) {
    *Offset = Match.Offset;
  }
  if (Size != nullptr) {
    *Size = Match.Size;
  }
  if (Attributes != nullptr) {
    *Attributes = Match.Attributes;
  }
  return EFI_SUCCESS;
}

EFI_STATUS FlashMapGetRegion(const EFI_GUID *AreaType, UINT8 Instance, UINT64 *Address, UINT64 *Size) {
  if (Address != nullptr) {
    *Address = 0;
  }
  if (Size != nullptr) {
    *Size = 0;
  }
  if (mFlashMapGone) {
    return EFI_UNSUPPORTED;
  }
  UINT64 Offset = 0;
  UINT64 AreaSize = 0;
  if (FlashMapFindEntry(AreaType, Instance, nullptr, &Offset, &AreaSize, nullptr) != EFI_SUCCESS) {
    return EFI_NOT_FOUND;
  }
  if (Address != nullptr) {
    *Address = FlashMapGetBase() + Offset;
  }
  if (Size != nullptr) {
    *Size = AreaSize;
  }
  return EFI_SUCCESS;
}

UINT64 FlashMapGetAddress(const EFI_GUID *AreaType, UINT8 Instance) {
  UINT64 Address = 0;
  return FlashMapGetRegion(AreaType, Instance, &Address, nullptr) == EFI_SUCCESS ? Address : 0;
}

UINT64 FlashMapGetSize(const EFI_GUID *AreaType, UINT8 Instance) {
  UINT64 Size = 0;
  return FlashMapGetRegion(AreaType, Instance, nullptr, &Size) == EFI_SUCCESS ? Size : 0;
}

EFI_STATUS FlashMapFindByName(const EFI_GUID *AreaName, UINT64 *Address, UINT64 *Size) {
  if (Address != nullptr) {
    *Address = 0;
  }
  if (Size != nullptr) {
    *Size = 0;
  }
  if (mFlashMapGone) {
    return EFI_UNSUPPORTED;
  }
  UINT8 Usable = 0;
  if (AreaName == nullptr || FlashMapCountEntries(&Usable) != EFI_SUCCESS) {
    return EFI_NOT_FOUND;
  }
  // The loop counter is wider than the 8-bit count so that a count of 255 still ends.
  for (UINTN Instance = 1; Instance <= Usable; Instance++) {
    EFI_GUID Name;
    UINT64 Offset = 0;
    UINT64 AreaSize = 0;
    if (FlashMapFindEntry(&gFlashMapNamedAreaGuid, static_cast<UINT8>(Instance), &Name, &Offset, &AreaSize,
                          nullptr) != EFI_SUCCESS) {
      return EFI_NOT_FOUND;
    }
    if (CompareGuid(&Name, AreaName)) {
      if (Address != nullptr) {
        *Address = FlashMapGetBase() + Offset;
      }
      if (Size != nullptr) {
        *Size = AreaSize;
      }
      return EFI_SUCCESS;
    }
  }
  return EFI_NOT_FOUND;
}

// Takes the map from the HOB list (or, in recovery, its other sources), then adopts the
// copy another driver published or publishes one.
EFI_STATUS EFIAPI FlashMapLibConstructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)ImageHandle;
  (void)SystemTable;
  const VOID *Map = nullptr;
  UINTN Extent = 0;
  if (MapFromHob(Map, Extent)) {
    UseMap(Map, Extent);
  } else if (HandoffInRecoveryMode()) {
    MapFromRecoverySources();
  } else {
    return EFI_NOT_FOUND;  // lookups will scan the flash
  }

  ProtocolServices Services = CurrentProtocolServices();
  mInSmm = Services.InSmm;
  if (mInSmm) {
    mSmst = gSmst;
  } else {
    EFI_STATUS Status = gBS->CreateEventEx(EVT_NOTIFY_SIGNAL, TPL_NOTIFY, OnExitBootServices, nullptr,
                                           &gEfiEventExitBootServicesGuid, &mFlashMapEvent);
    if (Status != EFI_SUCCESS) {
      mFlashMapEvent = nullptr;
    }
  }

  VOID *Published = nullptr;
  if (Services.Locate(gFlashMapProtocolGuid, &Published) == EFI_SUCCESS && Published != nullptr) {
    UseMap(Published, kExtentFromHeader);
    return EFI_SUCCESS;
  }
  return PublishCopy(Services);
}

EFI_STATUS EFIAPI FlashMapLibDestructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)ImageHandle;
  (void)SystemTable;
  if (mFlashMapEvent != nullptr) {
    gBS->CloseEvent(mFlashMapEvent);
    mFlashMapEvent = nullptr;
  }
  return EFI_SUCCESS;
}

#if defined(BIOS_HOST_BUILD)
void ResetFlashMapForTest() {
  if (mPublishedCopy != nullptr && gBS != nullptr) {
    ProtocolServices{mInSmm}.Free(mPublishedCopy);
  }
  mPublishedCopy = nullptr;
  mFlashMap = nullptr;
  mFlashMapExtent = 0;
  mFlashMapGone = FALSE;
  mFlashMapEvent = nullptr;
  mInSmm = FALSE;
  mSmst = nullptr;
}

void UseFlashMapForTest(const VOID *Map, UINTN Size) { UseMap(Map, Size); }
#endif
