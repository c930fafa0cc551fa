// The marks a region-tracked update leaves of how far it got: the progress record kept by
// the platform's update log, and the signature of the primary PSP level-1 directory in
// flash, which is zeroed while the boot-critical regions are being rewritten.
#pragma once
#include "../base/PlatformProtocols.h"
#include "../base/Uefi.h"

// Progress code: region index in bits 0-3, the update phase in bits 4-7.
constexpr UINT32 kUpdatePhaseNormal = 0x00;
constexpr UINT32 kUpdatePhaseB = 0xB0;         // the update parameter is 2, or a phase-B update resumes
constexpr UINT32 kUpdatePhaseRecovery = 0xC0;  // the update runs in a recovery boot
constexpr UINT32 kProgressCleared = 0xFE;      // the update completed: no region

// Update log record types written here.
constexpr UINT32 kUpdateLogRecordProgressCode = 33;  // u32 progress code
constexpr UINT32 kUpdateLogRecordRegionName = 35;    // the region's name, no terminator

// Where the EFS keeps the PSP level-1 directory's location (an offset from the flash base).
constexpr UINT32 kEfsPspDirectoryOffset = 0x14;
// A directory block is read, changed and written back as one unit.
constexpr UINT32 kPspDirectoryBlockSize = 4096;
// Attempts of a marker write that must read back as written.
constexpr UINTN kMarkerWriteAttempts = 100;

// The name of the region a progress code names (its low nibble); "Undefine" for 11 to 15.
const CHAR8 *UpdateRegionName(UINT32 ProgressCode);

// Records Code and its region's name in the update log.
EFI_STATUS SetUpdateProgress(UINT32 Code);
// Records the cleared code 0xFE (no name record).
EFI_STATUS ClearUpdateProgressRecord();
// Clears the record and puts the primary directory's signature back; always EFI_SUCCESS.
EFI_STATUS Q42ClearUpdateProgress();

// Zeroes (Invalidate) or restores the "$PSP" signature of the primary directory the EFS names.
// Locates the platform flash service again (the directory and EFS copies do not trust the
// pointer kept from entry) and keeps it in mPlatformFlashService when found.
EFI_STATUS LocatePlatformFlashServiceAfresh(PlatformFlashServiceProtocol **Service);
EFI_STATUS SetPspDirectorySignature(BOOLEAN Invalidate);
// The two halves of it, on the 4 KiB block at flash address Directory. Invalidating a block
// without "$PSP" is EFI_NOT_FOUND; restoring a block that has it writes nothing.
EFI_STATUS InvalidatePspDirectory(PlatformFlashServiceProtocol *Service, UINT32 Directory);
EFI_STATUS RestorePspDirectory(PlatformFlashServiceProtocol *Service, UINT32 Directory);

// IsPspDirectoryInvalidated() is declared with the image query, its one caller
// (src/flash/ImageQuery.h), and defined here.
