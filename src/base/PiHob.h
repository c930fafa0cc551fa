// Hand-off block (HOB) formats from the PI specification, volume 3.
#pragma once
#include "Uefi.h"

#define EFI_HOB_TYPE_HANDOFF 0x0001
#define EFI_HOB_TYPE_MEMORY_ALLOCATION 0x0002
#define EFI_HOB_TYPE_RESOURCE_DESCRIPTOR 0x0003
#define EFI_HOB_TYPE_GUID_EXTENSION 0x0004
#define EFI_HOB_TYPE_FV 0x0005
#define EFI_HOB_TYPE_CPU 0x0006
#define EFI_HOB_TYPE_UNUSED 0xFFFE
#define EFI_HOB_TYPE_END_OF_HOB_LIST 0xFFFF

#define EFI_HOB_HANDOFF_TABLE_VERSION 0x000A

struct EFI_HOB_GENERIC_HEADER {
  UINT16 HobType;
  UINT16 HobLength;
  UINT32 Reserved;
};
static_assert(sizeof(EFI_HOB_GENERIC_HEADER) == 8);

struct EFI_HOB_HANDOFF_INFO_TABLE {
  EFI_HOB_GENERIC_HEADER Header;
  UINT32 Version;
  EFI_BOOT_MODE BootMode;
  EFI_PHYSICAL_ADDRESS EfiMemoryTop;
  EFI_PHYSICAL_ADDRESS EfiMemoryBottom;
  EFI_PHYSICAL_ADDRESS EfiFreeMemoryTop;
  EFI_PHYSICAL_ADDRESS EfiFreeMemoryBottom;
  EFI_PHYSICAL_ADDRESS EfiEndOfHobList;
};
static_assert(offsetof(EFI_HOB_HANDOFF_INFO_TABLE, BootMode) == 12);
static_assert(sizeof(EFI_HOB_HANDOFF_INFO_TABLE) == 56);

struct EFI_HOB_GUID_TYPE {
  EFI_HOB_GENERIC_HEADER Header;
  EFI_GUID Name;
};
static_assert(sizeof(EFI_HOB_GUID_TYPE) == 24);
