// The firmware-support actions a region-tracked update takes as it enters IBB1 and OBB:
// copying the PSP level-1 directory blocks and the embedded firmware structure from the
// accepted image, invalidating the flash-map copy, and handing the EC firmware to the EC.
#pragma once
#include "../base/Uefi.h"

// The primary (or, with Backup, the backup) PSP level-1 directory block from Image (ImageSize
// bytes), which is addressed as a copy of the mapped flash from mFlashBase on. A block whose
// flash content already equals the image is not written; one beyond the image is
// EFI_BAD_BUFFER_SIZE.
EFI_STATUS UpdatePspL1(const UINT8 *Image, UINTN ImageSize, BOOLEAN Backup);
// The same for the embedded firmware structure block.
EFI_STATUS UpdateRomSig(const UINT8 *Image, UINTN ImageSize);
// Clears the "QFDM" signature of the flash-map copy the platform's dynamic PCDs name;
// EFI_NOT_FOUND (nothing written) when the copy does not start with it.
EFI_STATUS InvalidateFlashMapCopy();
// Writes the EC firmware region of the flash map into the EC store at the configured
// offset; EFI_BAD_BUFFER_SIZE when the configured EC image is larger than that region.
EFI_STATUS UpdateEc();
