// The CmosToRom restore at start: before anything else uses them, the in-memory mirror
// image (the gCmosToRomImageHobGuid HOB's data) and CMOS are made to agree. A CMOS whose
// extended bank still checks out refreshes the image; a cleared one gets the image rebuilt
// from the flash journal and its listed bytes written back. HOBs of the earlier boot phase
// can order the write-back outright or suppress it. CmosToRomStart itself is declared with
// the other start-up steps (driver/LibraryList.h).
#pragma once
#include "../base/Uefi.h"

// Image bytes of the bank's listed indexes and its stored checksum = what CMOS holds now.
VOID CopyLiveCmosToImage(UINT8 *Image, UINTN Bank);
// Replays the active journal half over Image, then judges each bank: kept when its checksum
// holds, reduced to its listed bytes when only the older whole-bank sum holds, else zeroed
// with checksum 265. *NoJournal tells that no half was active (the image is then all zero
// with both checksums 265).
VOID RebuildCmosImageFromJournal(UINT8 *Image, BOOLEAN *NoJournal);
// Writes the listed bytes and checksums of Image back to CMOS (bank 0 unless the RTC-skip
// HOB is there; the extended bank only when it works).
VOID RestoreCmosFromImage(const UINT8 *Image);
