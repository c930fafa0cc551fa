// Whole-file reads and writes on a FAT volume through the simple file system protocol, as
// the update application and the emulation driver need them. Paths are ASCII, backslashes.
#pragma once
#include "../../src/base/Pool.h"
#include "../../src/base/Uefi.h"

// The root of the first file system that holds File; nullptr when none does. The caller
// closes the root.
EFI_FILE_HANDLE FindVolumeHolding(const char *File);
// The root of the volume an image was loaded from; nullptr when it has none.
EFI_FILE_HANDLE OpenImageVolume(EFI_HANDLE ImageHandle);

// Reads the whole file into Contents (an empty holder and the status on failure; an empty
// file is EFI_END_OF_FILE).
EFI_STATUS ReadWholeFile(EFI_FILE_HANDLE Root, const char *Path, PoolBuffer &Contents);
// Replaces the file's contents (the file is created, a stale one deleted first).
EFI_STATUS WriteWholeFile(EFI_FILE_HANDLE Root, const char *Path, const VOID *Data, UINTN Size);
// Creates the directory when it does not exist.
EFI_STATUS MakeDirectory(EFI_FILE_HANDLE Root, const char *Path);
