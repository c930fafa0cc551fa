// Staging an accepted image on disk instead of flashing it in place: the image and its
// detached signature are written beside the update tool (on a removable tools volume or on
// an EFI system partition), each read back to check it; then the platform is marked for an
// update on the next boot and reset through the chipset's reset port.
#pragma once
#include "../base/Uefi.h"

// Returns only when staging failed: EFI_INVALID_PARAMETER, EFI_NOT_READY (no SMBIOS),
// EFI_UNSUPPORTED, EFI_BUFFER_TOO_SMALL (no pool), the status of a BIOS\New directory that
// could not be created, EFI_NO_MEDIA (no tool anywhere), EFI_ACCESS_DENIED (no volume took
// both files intact). EFI_DEVICE_ERROR when the reset request came back.
EFI_STATUS StageUpdateFiles(const VOID *Image, UINT64 ImageSize, const VOID *Signature, UINT64 SignatureSize);

// Makes sure the directory Path (backslash-separated, relative to Root) exists, creating
// each missing level; the status of the first open that fails otherwise.
EFI_STATUS CreateDirectoryPath(EFI_FILE_PROTOCOL *Root, const CHAR16 *Path);

// The BIOS Characteristics bits 53 to 60 of the BIOS Information record select the tool.
constexpr UINTN kBiosInfoCharacteristicsHighOffset = 0x0E;  // upper half of the u64 at 0x0A
constexpr UINT8 kToolFlavourAlternate = 0x10;               // "\BIOSUpdate\BiosMgmt.efi"

// CMOS (extended bank) index that tells the next boot an update is staged.
constexpr UINT8 kStagedUpdateCmosIndex = 0xF9;
constexpr UINT16 kResetControlPort = 0xCF9;
constexpr UINT8 kFullPlatformReset = 0x0E;
