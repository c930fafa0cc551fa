// BiosImageInterfaceProtocol: eleven EFIAPI function pointers and no data.
#pragma once
#include "../base/Uefi.h"

struct BiosImageInterfaceProtocol;

typedef EFI_STATUS(EFIAPI *BIOS_GET_DRIVER_VERSION)(BiosImageInterfaceProtocol *This, UINT8 *Major, UINT8 *Minor);
typedef EFI_STATUS(EFIAPI *BIOS_GET_UPDATE_TOKEN)(BiosImageInterfaceProtocol *This, UINT64 *Token);
// The query's last two arguments belong to the update application; the service does not read them.
typedef EFI_STATUS(EFIAPI *BIOS_QUERY_IMAGE)(BiosImageInterfaceProtocol *This, VOID *QueryRecord, UINT64 Unused2,
                                             UINT64 Unused3);
typedef EFI_STATUS(EFIAPI *BIOS_READ_IMAGE)(BiosImageInterfaceProtocol *This, UINT64 Unused, VOID **Buffer);
// The write takes the query record back (skip regions, block size) and the block's request.
typedef EFI_STATUS(EFIAPI *BIOS_WRITE_IMAGE)(BiosImageInterfaceProtocol *This, VOID *QueryRecord,
                                             VOID *WriteRequest);
typedef EFI_STATUS(EFIAPI *BIOS_VERIFY_SIGNATURE)(BiosImageInterfaceProtocol *This, VOID *Image, UINTN ImageSize,
                                                  VOID *Signature, UINT64 SignatureSize);
typedef EFI_STATUS(EFIAPI *BIOS_SET_FLASH_COMPLETION_STATUS)(BiosImageInterfaceProtocol *This, UINT8 Status);
typedef EFI_STATUS(EFIAPI *BIOS_RESERVED_SERVICE)(BiosImageInterfaceProtocol *This);

struct BiosImageInterfaceProtocol {
  BIOS_GET_DRIVER_VERSION BiosGetDriverVersion;          // slot 0
  BIOS_GET_UPDATE_TOKEN BiosGetUpdateToken;              // slot 1
  BIOS_QUERY_IMAGE BiosQueryImage;                       // slot 2
  BIOS_READ_IMAGE BiosReadImage;                         // slot 3
  BIOS_WRITE_IMAGE BiosWriteImage;                       // slot 4
  BIOS_VERIFY_SIGNATURE BiosVerifySignature;             // slot 5
  BIOS_SET_FLASH_COMPLETION_STATUS SetFlashCompletionStatus;  // slot 6
  BIOS_RESERVED_SERVICE Reserved7;                       // slot 7
  BIOS_RESERVED_SERVICE Reserved8;                       // slot 8
  BIOS_RESERVED_SERVICE Reserved9;                       // slot 9
  BIOS_RESERVED_SERVICE Reserved10;                      // slot 10
};
static_assert(sizeof(BiosImageInterfaceProtocol) == 88);
static_assert(offsetof(BiosImageInterfaceProtocol, SetFlashCompletionStatus) == 6 * 8);
static_assert(offsetof(BiosImageInterfaceProtocol, Reserved10) == 10 * 8);

// The services, each defined with its subsystem.
EFI_STATUS EFIAPI BiosGetDriverVersion(BiosImageInterfaceProtocol *This, UINT8 *Major, UINT8 *Minor);
EFI_STATUS EFIAPI BiosGetUpdateToken(BiosImageInterfaceProtocol *This, UINT64 *Token);
EFI_STATUS EFIAPI BiosQueryImage(BiosImageInterfaceProtocol *This, VOID *QueryRecord, UINT64 Unused2, UINT64 Unused3);
EFI_STATUS EFIAPI BiosReadImage(BiosImageInterfaceProtocol *This, UINT64 Unused, VOID **Buffer);
EFI_STATUS EFIAPI BiosWriteImage(BiosImageInterfaceProtocol *This, VOID *QueryRecord, VOID *WriteRequest);
EFI_STATUS EFIAPI BiosVerifySignature(BiosImageInterfaceProtocol *This, VOID *Image, UINTN ImageSize,
                                      VOID *Signature, UINT64 SignatureSize);
EFI_STATUS EFIAPI SetFlashCompletionStatus(BiosImageInterfaceProtocol *This, UINT8 Status);
EFI_STATUS EFIAPI BiosReservedNotReady(BiosImageInterfaceProtocol *This);
EFI_STATUS EFIAPI BiosReservedUnsupported(BiosImageInterfaceProtocol *This);
