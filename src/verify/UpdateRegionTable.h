// The update region table of a region-tracked update: built from the accepted image when
// its signature has been checked, it tells the writes where each boot-critical region and
// its recovery (TopSwap) copy lie, counts them in progress units, picks up where an
// interrupted update resumes, and announces the five progress ranges to the update log.
#pragma once
#include "../base/Uefi.h"

// Record type of a progress-range text in the platform's update log (ASCII, no terminator).
constexpr UINT32 kUpdateLogRecordProgressRange = 34;
// The resume HOB's first data byte: low nibble the region to resume at, high nibble the phase.
constexpr UINT8 kResumePhaseB = 0xB;
constexpr UINT32 kLastResumeRegion = 8;

// Fills every field of mUpdateRegionTable from the image's layout, marks an unchanged PSP
// region as not to be written (normal updates), takes the resume HOB and writes the five
// progress ranges. Only the platform's layout error is returned (nothing is touched then);
// each failed progress record is traced as "    Error : Record log failure." and the call
// goes on.
EFI_STATUS BuildUpdateRegionTable(const UINT8 *Image, UINT64 ImageSize);

// TRUE when the Size bytes of flash at FlashAddress equal the Size bytes at memory address
// Source once the directory entries that the platform rewrites at run time (APCB data, the
// APCB backups' instance and checksum, the flash's APOB area) are masked. Flash that is not
// mapped, or buffers that cannot be had, count as changed.
BOOLEAN IsPspRegionUnchanged(UINT64 FlashAddress, UINT64 Source, UINT64 Size);

// Writes "<Name>:Percentage(a%-b%)/Block(x-y)" for the table's entries First..Last to the
// update log. EFI_BAD_BUFFER_SIZE without a record when the geometry has blocks smaller
// than 4 KiB or none at all; EFI_INVALID_PARAMETER for indices outside the table or no name.
EFI_STATUS WriteProgressRange(UINT8 First, UINT8 Last, const CHAR8 *Name);
