// Boot services for the harnesses: pool from malloc (a zero-byte request still gets its own
// block, so that ASan sees any read through it) and no protocols.
#pragma once
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "src/base/Globals.h"
#include "src/base/Guids.h"
#include "src/base/PiHob.h"

inline EFI_STATUS EFIAPI FuzzAllocatePool(EFI_MEMORY_TYPE, UINTN Size, VOID **Buffer) {
  *Buffer = std::malloc(Size == 0 ? 1 : Size);
  return *Buffer != nullptr ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
}
inline EFI_STATUS EFIAPI FuzzFreePool(VOID *Buffer) {
  std::free(Buffer);
  return EFI_SUCCESS;
}
inline EFI_STATUS EFIAPI FuzzLocateProtocol(EFI_GUID *, VOID *, VOID **Interface) {
  *Interface = nullptr;
  return EFI_NOT_FOUND;  // e.g. no PCD protocol: dynamic PCDs read as 0
}

// A table with the three services above and nothing else.
inline EFI_BOOT_SERVICES FuzzBootServices() {
  EFI_BOOT_SERVICES Services{};
  Services.AllocatePool = FuzzAllocatePool;
  Services.FreePool = FuzzFreePool;
  Services.LocateProtocol = FuzzLocateProtocol;
  return Services;
}

// Reads the input front to back; past its end everything reads as zero.
struct FuzzInput {
  const uint8_t *Data;
  size_t Size;
  template <typename T> T Take() {
    T Value{};
    const size_t Length = Size < sizeof(T) ? Size : sizeof(T);
    std::memcpy(&Value, Data, Length);
    Data += Length;
    Size -= Length;
    return Value;
  }
};

// A HOB list as the firmware hands it over (the hand-off HOB, the given HOBs, the end HOB the
// hand-off names) and a system table whose configuration table points at it.
struct FuzzHobList {
  std::vector<uint8_t> List;
  EFI_CONFIGURATION_TABLE Table{};
  EFI_SYSTEM_TABLE System{};
  FuzzHobList(const uint8_t *Hobs, size_t Size, EFI_BOOT_MODE BootMode, EFI_BOOT_SERVICES *BootServices)
      : List(sizeof(EFI_HOB_HANDOFF_INFO_TABLE), 0) {
    List.insert(List.end(), Hobs, Hobs + Size);
    const size_t EndOffset = List.size();
    const uint8_t End[8] = {0xFF, 0xFF, 8, 0, 0, 0, 0, 0};
    List.insert(List.end(), End, End + sizeof(End));
    auto *Handoff = reinterpret_cast<EFI_HOB_HANDOFF_INFO_TABLE *>(List.data());
    Handoff->Header.HobType = EFI_HOB_TYPE_HANDOFF;
    Handoff->Header.HobLength = sizeof(EFI_HOB_HANDOFF_INFO_TABLE);
    Handoff->BootMode = BootMode;
    Handoff->EfiEndOfHobList = reinterpret_cast<EFI_PHYSICAL_ADDRESS>(List.data() + EndOffset);
    Table = {gEfiHobListGuid, List.data()};
    System.NumberOfTableEntries = 1;
    System.ConfigurationTable = &Table;
    System.BootServices = BootServices;
  }
  FuzzHobList(const FuzzHobList &) = delete;  // the tables point into this object
};
