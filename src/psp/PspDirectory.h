// The AMD PSP and BIOS directory trees in the SPI ROM: the EFS search, level-1 and level-2
// directories (plain, behind "2PSP"/"2BHD" combo directories, or doubled into A and B
// copies), their validation, and entry lookups. Every directory is read into a buffer of
// kDirectoryBufferSize bytes and every read of its bytes stays inside that buffer:
// malformed trees make the lookups return FALSE.
#pragma once
#include "../base/Uefi.h"
#include "PspDirectoryFormat.h"
#include "RomAccess.h"

// Directory arguments point at buffers of kDirectoryBufferSize bytes.
UINT32 Fletcher32(const UINT8 *Data, UINTN WordCount);
BOOLEAN ValidatePspDirectory(const UINT8 *Directory, UINT32 Cookie, BOOLEAN CheckPointers);
BOOLEAN ValidateBiosDirectory(const UINT8 *Directory, UINT32 Cookie);
// TypeWord against a legacy 8-bit type; SoCs with 16-bit entry types compare the mapped type.
BOOLEAN EntryTypeMatches(UINT32 TypeWord, UINT32 LegacyType);
// TRUE when the directory has entries and all of them are A/B pointer entries (0x48, 0x4A).
BOOLEAN IsAbPointerDirectory(const UINT8 *Directory);
// Resolves the address mode in bits 63:62: Base1 for directory-relative and Base2 for
// slot-relative locations.
UINT64 TranslateEntryAddress(UINT64 Location, UINT64 Base1, UINT64 Base2);

// Level-1 "$PSP" and "$BHD" found through the EFS (a cached copy while it stays valid).
BOOLEAN GetPspDirectory(const UINT8 **Directory);
BOOLEAN GetBiosDirectory(const UINT8 **Directory);
// The A/B summary of a level-1 directory of A/B pointer entries.
BOOLEAN BuildAbInfo(const UINT8 *Level1, const AbInfo **Info);

BOOLEAN GetPspEntry(UINT32 TypeWord, UINT64 *Location, UINT32 *Size);
BOOLEAN GetPspL2Entry(UINT32 TypeWord, UINT64 Level2Location, UINT64 *Location, UINT32 *Size);
BOOLEAN GetBiosL2Directory(UINT64 Location, const UINT8 **Directory);
// Instance and SubProgram -1 match any. Without Level2Given, Location is a "$PL2" whose
// entry 0x49 leads to the "$BL2".
BOOLEAN GetBiosL2Entry(UINT8 Type, INT8 Instance, INT8 SubProgram, BOOLEAN Level2Given, UINT64 Location,
                       UINT32 *TypeWord, UINT64 *Source, UINT32 *Size, UINT64 *Destination);
// A BIOS directory entry wherever the tree keeps it (SubProgram is not used).
BOOLEAN GetBiosEntry(UINT8 Type, INT8 Instance, INT8 SubProgram, UINT32 *TypeWord, UINT64 *Source, UINT32 *Size,
                     UINT64 *Destination);

// Shared by the level-1 and lookup code.
namespace PspDirectoryDetail {
// Moves a location below 0xFF000000 into the mapped window when the switch asks for it.
UINT64 ForceMapped(UINT64 Location);
// The cache buffer of Handle when caching is on, else nullptr.
UINT8 *CacheBuffer(UINT32 Handle, UINT32 Size);
// Keeps a copy of a freshly validated buffer in the cache and returns the copy (scratch
// buffers are reused by the next read); without caching the fresh buffer itself.
const UINT8 *StoreInCache(UINT32 Handle, const UINT8 *Fresh, UINT32 Size);
UINT8 *ScratchBuffer(UINT32 Handle, UINT32 Size);
// Locations of the last 0x48 and 0x4A entries; TRUE when both kinds are present.
BOOLEAN FindAbPair(const UINT8 *Level1, UINT64 *ACopy, UINT64 *BCopy);
}  // namespace PspDirectoryDetail
