// Boot services for the harnesses: pool from malloc (a zero-byte request still gets its own
// block, so that ASan sees any read through it) and no protocols.
#pragma once
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "src/base/Globals.h"

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
