// Arbitrary bytes as the flash map, reached through every source the start-up takes it
// from (map HOB, recovery address HOB, PCD address, flash scan, another driver's copy) and
// then published: validation, the copy and every lookup must stay inside the bytes that
// exist (the HOB's data, the flash window up to 4 GiB) and end, whatever the header claims.
#include <algorithm>
#include <cstdint>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "emu/EmuPlatform.h"
#include "emu/host/EmuHostMemory.h"
#include "src/base/BaseLib.h"
#include "src/base/Globals.h"
#include "src/base/Guids.h"
#include "src/base/Hob.h"
#include "src/base/PiPcd.h"
#include "src/base/SmmServices.h"
#include "src/driver/Config.h"
#include "src/driver/DynamicPcd.h"
#include "src/driver/FlashMap.h"
#include "src/driver/LibraryList.h"
#include "tests/fuzz/FuzzBootServices.h"

namespace {
// Area types worth hitting: the named-area type and a few the fuzzer can spell from its input.
const EFI_GUID kTypeSeed = {0x6a1f0c3e, 0x0d2b, 0x4c55, {0x8e, 0x10, 0x71, 0x2a, 0x9b, 0x33, 0x5d, 0x0a}};

// Control byte: where the map is and what the boot looks like.
constexpr uint8_t kRecovery = 0x01;
constexpr uint8_t kMapHob = 0x02;
constexpr uint8_t kAddressHob = 0x04;     // naming the flash copy, or the memory copy
constexpr uint8_t kShortAddressHob = 0x08;
constexpr uint8_t kTheirs = 0x10;          // another driver published the memory copy
constexpr uint8_t kFlashPlaceShift = 5;    // 0 none, 1 a scan step, 2 the last 4 KiB, 3 the PCD address

UINT64 gPcdAddress = 0;
VOID *gTheirs = nullptr;

UINT64 EFIAPI PcdGet64Fuzz(const EFI_GUID *, UINTN) { return gPcdAddress; }
EFI_PCD_PROTOCOL gPcd = [] {
  EFI_PCD_PROTOCOL Pcd = {};
  Pcd.Get64 = PcdGet64Fuzz;
  return Pcd;
}();

EFI_STATUS EFIAPI LocateProtocolFuzz(EFI_GUID *Protocol, VOID *, VOID **Interface) {
  *Interface = CompareGuid(Protocol, &gEfiPcdProtocolGuid) ? &gPcd
               : CompareGuid(Protocol, &gFlashMapProtocolGuid) ? gTheirs
                                                                 : nullptr;
  return *Interface != nullptr ? EFI_SUCCESS : EFI_NOT_FOUND;
}
EFI_STATUS EFIAPI InstallProtocolFuzz(EFI_HANDLE *, EFI_GUID *, EFI_INTERFACE_TYPE, VOID *) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI CreateEventExFuzz(UINT32, EFI_TPL, EFI_EVENT_NOTIFY, const VOID *, const EFI_GUID *,
                                    EFI_EVENT *Event) {
  static UINT64 Token;
  *Event = &Token;
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI CloseEventFuzz(EFI_EVENT) { return EFI_SUCCESS; }

EmuPlatform &Platform() {
  static EmuPlatform *Instance = [] {
    auto *Created = new EmuPlatform();
    Created->Initialize(EmuHostMemory(), kDefaultEmuLayout);
    std::memset(Created->Flash.Bytes(), 0xFF, Created->Flash.Size());
    return Created;
  }();
  return *Instance;
}

void AppendGuidHob(std::vector<uint8_t> &List, const EFI_GUID &Guid, const void *Data, size_t Size) {
  const size_t Padded = (Size + 7) & ~size_t(7);
  EFI_HOB_GUID_TYPE Header = {};
  Header.Header.HobType = EFI_HOB_TYPE_GUID_EXTENSION;
  Header.Header.HobLength = static_cast<UINT16>(sizeof(Header) + Padded);
  Header.Name = Guid;
  const auto *Raw = reinterpret_cast<const uint8_t *>(&Header);
  List.insert(List.end(), Raw, Raw + sizeof(Header));
  const size_t At = List.size();
  List.resize(At + Padded, 0);
  if (Size != 0) {
    std::memcpy(List.data() + At, Data, Size);
  }
}

// Places the map at a flash address, up to the window's end; remembers what to erase.
void PutInFlash(UINT64 Address, const std::vector<uint8_t> &Map, std::vector<std::pair<UINT32, UINT32>> &Written) {
  EmuPlatform &P = Platform();
  if (Map.empty() || Address < P.FlashBaseAddress || Address >= 0x100000000ull) {
    return;
  }
  const UINT32 Offset = static_cast<UINT32>(Address - P.FlashBaseAddress);
  const UINT32 Length = static_cast<UINT32>(std::min<size_t>(Map.size(), P.Flash.Size() - Offset));
  std::memcpy(P.Flash.Bytes() + Offset, Map.data(), Length);
  Written.emplace_back(Offset, Length);
}

void Lookups(const uint8_t *Data, size_t Size) {
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
  volatile UINT64 Sink = Sum;  // keep the lookups' results alive
  (void)Sink;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  static EFI_BOOT_SERVICES BootServices = [] {
    EFI_BOOT_SERVICES Services = FuzzBootServices();
    Services.LocateProtocol = LocateProtocolFuzz;
    Services.InstallProtocolInterface = InstallProtocolFuzz;
    Services.CreateEventEx = CreateEventExFuzz;
    Services.CloseEvent = CloseEventFuzz;
    return Services;
  }();
  if (Size < 5) {
    return 0;
  }
  gEmuPlatform = &Platform();
  gBS = &BootServices;
  const uint8_t Control = Data[0];
  UINT32 Raw = 0;
  std::memcpy(&Raw, Data + 1, sizeof(Raw));
  // 0, or an address in the flash window (the platform's PCD never names other memory).
  gPcdAddress = (Raw & 0x80000000) != 0 ? 0 : 0xFF000000ull | (Raw & 0xFFFFF0);
  Data += 5;
  Size -= 5;
  const std::vector<uint8_t> Map(Data, Data + Size);

  // A map in memory is trusted to hold its header and TotalSize bytes: the copy is made so.
  std::vector<uint8_t> Memory = Map;
  Memory.resize(std::max(Memory.size(), sizeof(FlashMapHeader)), 0);
  const UINT32 Exact = static_cast<UINT32>(Memory.size());
  std::memcpy(Memory.data() + offsetof(FlashMapHeader, TotalSize), &Exact, sizeof(Exact));
  Memory.shrink_to_fit();
  gTheirs = (Control & kTheirs) != 0 ? Memory.data() : nullptr;

  std::vector<std::pair<UINT32, UINT32>> Written;
  const UINT64 Places[] = {0, 0xFF0EA000, 0xFFFFF000, gPcdAddress};
  const unsigned Place = (Control >> kFlashPlaceShift) & 3;
  std::vector<uint8_t> InFlash = Map;
  if (Place == 2 && InFlash.size() >= 8) {
    InFlash[6] = InFlash[7] = 0;  // in the last page, a TotalSize below 64 KiB: near the window's end
  }
  PutInFlash(Places[Place], InFlash, Written);

  // The chosen GUID HOBs; the map HOB holds exactly the map.
  std::vector<uint8_t> GuidHobs;
  if ((Control & kMapHob) != 0) {
    AppendGuidHob(GuidHobs, gFlashMapHobGuid, Map.data(), Map.size());
  }
  if ((Control & kAddressHob) != 0) {
    const UINT64 Named = (Control & kTheirs) != 0 ? reinterpret_cast<UINT64>(Memory.data()) : gPcdAddress;
    AppendGuidHob(GuidHobs, gFlashMapAddressHobGuid, &Named, (Control & kShortAddressHob) != 0 ? 4 : sizeof(Named));
  }
  FuzzHobList Hobs(GuidHobs.data(), GuidHobs.size(),
                   (Control & kRecovery) != 0 ? BOOT_IN_RECOVERY_MODE : BOOT_WITH_FULL_CONFIGURATION, &BootServices);
  EFI_SYSTEM_TABLE &System = Hobs.System;

  ResetHobCacheForTest();
  ResetSmmStateForTest();
  ResetDynamicPcdForTest();
  ResetFlashMapForTest();
  if (CacheHobList(&System) == EFI_SUCCESS) {
    FlashMapLibConstructor(nullptr, &System);
    Lookups(Data, Size);
    FlashMapLibDestructor(nullptr, &System);
  }
  ResetFlashMapForTest();  // frees the published copy

  // The bytes the next run must not find.
  for (const auto &[Offset, Length] : Written) {
    std::memset(Platform().Flash.Bytes() + Offset, 0xFF, Length);
  }
  return 0;
}
