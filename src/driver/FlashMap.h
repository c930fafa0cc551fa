// Flash map lookups: the address or size of the n-th area of a type, or of a named area.
// The map comes from a HOB (or, in recovery, from an address HOB, a PCD or a scan of the
// flash), is published for other drivers or adopted from them, and answers until boot
// services end. Every read of map bytes is bounded by what is known to exist: a hostile
// map gives a status, never a read outside it.
#pragma once
#include "../base/Uefi.h"
#include "FlashMapFormat.h"

// The map in use, or NULL before one is found (lookups then scan the flash).
extern const VOID *mFlashMap;
// Set when boot services end; every lookup then returns EFI_UNSUPPORTED.
extern BOOLEAN mFlashMapGone;
extern EFI_EVENT mFlashMapEvent;

// Dynamic PCD (gFlashMapTokenSpaceGuid, 64-bit): a flash address holding a copy of the map.
constexpr UINTN kFlashMapAddressToken = 0x30000017;
// Its companion: the size of that copy.
constexpr UINTN kFlashMapSizeToken = 0x30000018;

// The map in use when it carries "QFDM"; otherwise the first 4 KiB step of the flash
// (from PcdFlashBase, below PcdFlashSize) that does, which is then kept. NULL if none.
const VOID *FlashMapFind();
// BaseAddress of the map, 0 when there is none.
UINT64 FlashMapGetBase();
// Usable entries (Attributes bit 1 clear) of every type; the count is 8 bits wide.
// EFI_NOT_FOUND (no map), EFI_SECURITY_VIOLATION (header sum not 0, or a stride that
// cannot hold an entry).
EFI_STATUS FlashMapCountEntries(UINT8 *Count);
// The Instance-th usable entry (from 1) of AreaType; NULL outputs are skipped.
// EFI_INVALID_PARAMETER (Instance 0 or no type), EFI_NOT_FOUND, EFI_SECURITY_VIOLATION.
EFI_STATUS FlashMapFindEntry(const EFI_GUID *AreaType, UINT8 Instance, EFI_GUID *AreaName, UINT64 *Offset,
                             UINT64 *Size, UINT32 *Attributes);
// Address = BaseAddress + Offset and Size of that entry; EFI_NOT_FOUND for any failure.
EFI_STATUS FlashMapGetRegion(const EFI_GUID *AreaType, UINT8 Instance, UINT64 *Address, UINT64 *Size);
// The address or size of that entry, 0 on any failure.
UINT64 FlashMapGetAddress(const EFI_GUID *AreaType, UINT8 Instance);
UINT64 FlashMapGetSize(const EFI_GUID *AreaType, UINT8 Instance);
// The entry of type gFlashMapNamedAreaGuid whose AreaName is given: EFI_SUCCESS or EFI_NOT_FOUND.
EFI_STATUS FlashMapFindByName(const EFI_GUID *AreaName, UINT64 *Address, UINT64 *Size);

#if defined(BIOS_HOST_BUILD)
void ResetFlashMapForTest();
// Makes Size bytes at Map the map in use (fuzzing and table tests).
void UseFlashMapForTest(const VOID *Map, UINTN Size);
#endif
