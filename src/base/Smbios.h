// The SMBIOS protocol (PI specification, volume 5) and the structure header.
#pragma once
#include "Uefi.h"

typedef UINT16 EFI_SMBIOS_HANDLE;
typedef UINT8 EFI_SMBIOS_TYPE;
#define SMBIOS_HANDLE_PI_RESERVED 0xFFFE

#pragma pack(push, 1)
struct EFI_SMBIOS_TABLE_HEADER {
  EFI_SMBIOS_TYPE Type;
  UINT8 Length;
  EFI_SMBIOS_HANDLE Handle;
};
#pragma pack(pop)
static_assert(sizeof(EFI_SMBIOS_TABLE_HEADER) == 4);

struct EFI_SMBIOS_PROTOCOL;
typedef EFI_STATUS(EFIAPI *EFI_SMBIOS_ADD)(const EFI_SMBIOS_PROTOCOL *This, EFI_HANDLE ProducerHandle,
                                           EFI_SMBIOS_HANDLE *SmbiosHandle, EFI_SMBIOS_TABLE_HEADER *Record);
typedef EFI_STATUS(EFIAPI *EFI_SMBIOS_UPDATE_STRING)(const EFI_SMBIOS_PROTOCOL *This, EFI_SMBIOS_HANDLE *SmbiosHandle,
                                                     UINTN *StringNumber, CHAR8 *String);
typedef EFI_STATUS(EFIAPI *EFI_SMBIOS_REMOVE)(const EFI_SMBIOS_PROTOCOL *This, EFI_SMBIOS_HANDLE SmbiosHandle);
typedef EFI_STATUS(EFIAPI *EFI_SMBIOS_GET_NEXT)(const EFI_SMBIOS_PROTOCOL *This, EFI_SMBIOS_HANDLE *SmbiosHandle,
                                                EFI_SMBIOS_TYPE *Type, EFI_SMBIOS_TABLE_HEADER **Record,
                                                EFI_HANDLE *ProducerHandle);

struct EFI_SMBIOS_PROTOCOL {
  EFI_SMBIOS_ADD Add;
  EFI_SMBIOS_UPDATE_STRING UpdateString;
  EFI_SMBIOS_REMOVE Remove;
  EFI_SMBIOS_GET_NEXT GetNext;
  UINT8 MajorVersion;
  UINT8 MinorVersion;
};
static_assert(offsetof(EFI_SMBIOS_PROTOCOL, MajorVersion) == 32);
