#include "ScenarioHobs.h"

#include "../../src/base/BaseLib.h"
#include "../../src/base/Globals.h"
#include "../../src/base/Guids.h"
#include "../../src/base/PiHob.h"
#include "../../src/base/Pool.h"
#include "../../src/driver/FlashMapFormat.h"
#include "../common/ConsolePrint.h"

namespace {

constexpr UINTN kMaxAddedHobs = 8;
constexpr UINTN kMaxHobListSize = 16u << 20;

struct AddedHob {
  const EFI_GUID *Guid;
  const VOID *Data;
  UINTN Size;
};

UINTN GuidHobLength(UINTN DataSize) { return (sizeof(EFI_HOB_GUID_TYPE) + DataSize + 7) & ~static_cast<UINTN>(7); }

const EFI_HOB_HANDOFF_INFO_TABLE *FirmwareHobList() {
  for (UINTN Index = 0; Index < gST->NumberOfTableEntries; Index++) {
    const EFI_CONFIGURATION_TABLE &Entry = gST->ConfigurationTable[Index];
    if (CompareGuid(&Entry.VendorGuid, &gEfiHobListGuid)) {
      return static_cast<const EFI_HOB_HANDOFF_INFO_TABLE *>(Entry.VendorTable);
    }
  }
  return nullptr;
}

// Bytes of the list in front of its end HOB; 0 when no end HOB is reached.
UINTN LengthToEndHob(const EFI_HOB_HANDOFF_INFO_TABLE *List) {
  const auto *Start = reinterpret_cast<const UINT8 *>(List);
  UINTN Offset = 0;
  while (Offset <= kMaxHobListSize) {
    const auto *Hob = reinterpret_cast<const EFI_HOB_GENERIC_HEADER *>(Start + Offset);
    if (Hob->HobType == EFI_HOB_TYPE_END_OF_HOB_LIST) {
      return Offset;
    }
    if (Hob->HobLength < sizeof(EFI_HOB_GENERIC_HEADER) || (Hob->HobLength % 8) != 0) {
      return 0;
    }
    Offset += Hob->HobLength;
  }
  return 0;
}

}  // namespace

EFI_STATUS PublishScenarioHobs(const RunScenario &Scenario, EmuPlatform &Platform) {
  AddedHob Added[kMaxAddedHobs] = {};
  UINTN Count = 0;
  // The sequence the host's simulated boot adds, in the same order.
  Added[Count++] = {&gUpdateAllowedHobGuid, nullptr, 0};
  Added[Count++] = {&gUpdateAuthorizedHobGuid, nullptr, 0};
  if (Platform.PcdBootBlockUpdateEnabled) {
    Added[Count++] = {&gBootBlockUpdateHobGuid, nullptr, 0};
  }
  Added[Count++] = {&gPeiSignCheckHobGuid, nullptr, 0};
  // The flash map as the chip holds it now, so that the driver's lookups do not depend on
  // the map in flash, which the update itself rewrites.
  if (const UINT8 *Map = Platform.MappedFlash(Platform.PcdFlashMapAddress, sizeof(FlashMapHeader))) {
    const UINT32 TotalSize = ReadUnaligned32(Map + offsetof(FlashMapHeader, TotalSize));
    if (Platform.MappedFlash(Platform.PcdFlashMapAddress, TotalSize) != nullptr) {
      Added[Count++] = {&gFlashMapHobGuid, Map, TotalSize};
    }
  }
  UINT8 ResumeByte = 0;
  if (Platform.UpdateLogStore.ResumeHobByte(ResumeByte)) {
    Added[Count++] = {&gUpdateResumeHobGuid, &ResumeByte, 1};
    ConsolePrint("EmuPlatformDxe: resume HOB %x (progress code %x kept by the update log)\r\n", ResumeByte,
                 Platform.UpdateLogStore.ProgressCode);
  }

  const EFI_HOB_HANDOFF_INFO_TABLE *List = FirmwareHobList();
  const UINTN Kept = List != nullptr ? LengthToEndHob(List) : 0;
  if (Kept < sizeof(EFI_HOB_HANDOFF_INFO_TABLE) || List->Header.HobType != EFI_HOB_TYPE_HANDOFF) {
    return EFI_NOT_FOUND;
  }
  UINTN Size = Kept + sizeof(EFI_HOB_GENERIC_HEADER);
  for (UINTN Index = 0; Index < Count; Index++) {
    Size += GuidHobLength(Added[Index].Size);
  }
  PoolBuffer Copy = PoolBuffer::AllocateZeroed(Size);
  if (!Copy) {
    return EFI_OUT_OF_RESOURCES;
  }
  CopyMem(Copy.Data(), List, Kept);
  UINT8 *Cursor = Copy.Data() + Kept;
  for (UINTN Index = 0; Index < Count; Index++) {
    auto *Hob = reinterpret_cast<EFI_HOB_GUID_TYPE *>(Cursor);
    Hob->Header.HobType = EFI_HOB_TYPE_GUID_EXTENSION;
    Hob->Header.HobLength = static_cast<UINT16>(GuidHobLength(Added[Index].Size));
    Hob->Name = *Added[Index].Guid;
    if (Added[Index].Size != 0) {
      CopyMem(Cursor + sizeof(EFI_HOB_GUID_TYPE), Added[Index].Data, Added[Index].Size);
    }
    Cursor += Hob->Header.HobLength;
  }
  auto *End = reinterpret_cast<EFI_HOB_GENERIC_HEADER *>(Cursor);
  End->HobType = EFI_HOB_TYPE_END_OF_HOB_LIST;
  End->HobLength = sizeof(EFI_HOB_GENERIC_HEADER);

  auto *Handoff = Copy.As<EFI_HOB_HANDOFF_INFO_TABLE>();
  Handoff->BootMode = Scenario.Recovery ? BOOT_IN_RECOVERY_MODE : BOOT_WITH_FULL_CONFIGURATION;
  Handoff->EfiEndOfHobList = reinterpret_cast<EFI_PHYSICAL_ADDRESS>(End);
  EFI_STATUS Status = gBS->InstallConfigurationTable(const_cast<EFI_GUID *>(&gEfiHobListGuid), Copy.Data());
  if (!EfiError(Status)) {
    Copy.Release();  // the table lives for the firmware's life
  }
  return Status;
}
