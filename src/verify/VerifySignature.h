// BiosVerifySignature (service slot 5) and the checks it makes: the detached signature
// through the platform's verifier, the signature the image carries in its firmware
// volumes, the signature over the pieces its flash map names, and the erasure of the
// authenticated-variable digests when the version family changes.
#pragma once
#include "../base/PlatformProtocols.h"
#include "../base/Uefi.h"

// Detached-signature key selectors: the first is tried, then the second.
constexpr UINT32 kVerifyKeySelectorPrimary = 1;
constexpr UINT32 kVerifyKeySelectorFallback = 0;
// Byte of the platform's update-status block set when an image was accepted.
constexpr UINTN kUpdateStatusAcceptedOffset = 5324;
// Dynamic pointer PCD holding the installed firmware's UTF-16 version tag.
constexpr UINTN kBiosVersionTagToken = 0x10052;
// How many leading bytes of a digest area tell whether it holds a digest.
constexpr UINTN kAuthVarDigestMarkBytes = 32;

// The signed file and signature file inside the image's firmware volumes.
// EFI_NOT_FOUND when either is missing; otherwise Verify's status when the
// firmware-volume signature is enforced (enforce HOB without waiver HOB), else EFI_SUCCESS.
EFI_STATUS CheckFvSignature(ImageSignatureVerifyProtocol *Verifier, const UINT8 *Image, UINT64 ImageSize);
// The signature over the five regions the image's flash map names. EFI_NOT_FOUND when the
// map, an entry or the signature record is missing or points outside the image.
EFI_STATUS CheckFlashMapSignature(ImageSignatureVerifyProtocol *Verifier, const UINT8 *Image, UINT64 ImageSize);
// The installed firmware's family is not 'F' and the image's "$BVDT" record says 'F'.
BOOLEAN IsVersionFamilyChange(const UINT8 *Image, UINT64 ImageSize);
// Clears the digest mark of area 1 and erases areas 2 and 3 when area 3 holds a digest.
EFI_STATUS EraseAuthVarDigests();
