// Firmware volume and firmware file system (FFS2/FFS3) headers, PI specification volume 3.
#pragma once
#include "Uefi.h"

#pragma pack(push, 1)

constexpr UINT32 kFvSignature = 0x4856465F;  // "_FVH"

struct EFI_FV_BLOCK_MAP_ENTRY {
  UINT32 NumBlocks;
  UINT32 Length;
};

struct EFI_FIRMWARE_VOLUME_HEADER {
  UINT8 ZeroVector[16];
  EFI_GUID FileSystemGuid;
  UINT64 FvLength;
  UINT32 Signature;
  UINT32 Attributes;
  UINT16 HeaderLength;
  UINT16 Checksum;
  UINT16 ExtHeaderOffset;
  UINT8 Reserved[1];
  UINT8 Revision;
  EFI_FV_BLOCK_MAP_ENTRY BlockMap[1];
};
static_assert(offsetof(EFI_FIRMWARE_VOLUME_HEADER, FileSystemGuid) == 16);
static_assert(offsetof(EFI_FIRMWARE_VOLUME_HEADER, FvLength) == 32);
static_assert(offsetof(EFI_FIRMWARE_VOLUME_HEADER, Signature) == 40);
static_assert(offsetof(EFI_FIRMWARE_VOLUME_HEADER, Attributes) == 44);
static_assert(offsetof(EFI_FIRMWARE_VOLUME_HEADER, HeaderLength) == 48);
static_assert(offsetof(EFI_FIRMWARE_VOLUME_HEADER, Checksum) == 50);
static_assert(offsetof(EFI_FIRMWARE_VOLUME_HEADER, ExtHeaderOffset) == 52);
static_assert(offsetof(EFI_FIRMWARE_VOLUME_HEADER, Revision) == 55);
static_assert(offsetof(EFI_FIRMWARE_VOLUME_HEADER, BlockMap) == 56);

struct EFI_FIRMWARE_VOLUME_EXT_HEADER {
  EFI_GUID FvName;
  UINT32 ExtHeaderSize;
};
static_assert(sizeof(EFI_FIRMWARE_VOLUME_EXT_HEADER) == 20);

// FFS file header; a file of 16 MiB or more uses the extended form (FFS_ATTRIB_LARGE_FILE).
struct EFI_FFS_FILE_HEADER {
  EFI_GUID Name;
  UINT8 HeaderChecksum;
  UINT8 FileChecksum;
  UINT8 Type;
  UINT8 Attributes;
  UINT8 Size[3];
  UINT8 State;
};
static_assert(sizeof(EFI_FFS_FILE_HEADER) == 24);
static_assert(offsetof(EFI_FFS_FILE_HEADER, Type) == 18);
static_assert(offsetof(EFI_FFS_FILE_HEADER, Size) == 20);
static_assert(offsetof(EFI_FFS_FILE_HEADER, State) == 23);

struct EFI_FFS_FILE_HEADER2 {
  EFI_FFS_FILE_HEADER Base;
  UINT64 ExtendedSize;
};
static_assert(sizeof(EFI_FFS_FILE_HEADER2) == 32);

constexpr UINT8 FFS_ATTRIB_LARGE_FILE = 0x01;
constexpr UINT8 FFS_ATTRIB_CHECKSUM = 0x40;  // FileChecksum covers the data; else it is FFS_FIXED_CHECKSUM
constexpr UINT8 FFS_FIXED_CHECKSUM = 0xAA;
constexpr UINT8 EFI_FV_FILETYPE_PEIM = 0x06;
constexpr UINT8 EFI_FV_FILETYPE_DRIVER = 0x07;
constexpr UINT8 EFI_SECTION_RAW = 0x19;
constexpr UINT8 EFI_FVH_REVISION = 0x02;
constexpr UINT8 EFI_FV_FILETYPE_RAW = 0x01;
constexpr UINT8 EFI_FV_FILETYPE_FREEFORM = 0x02;
constexpr UINT8 EFI_FV_FILETYPE_FIRMWARE_VOLUME_IMAGE = 0x0B;
constexpr UINT8 EFI_FV_FILETYPE_FFS_PAD = 0xF0;

// File state bits (erase polarity 1: a bit is "set" when it reads 0).
constexpr UINT8 EFI_FILE_HEADER_CONSTRUCTION = 0x01;
constexpr UINT8 EFI_FILE_HEADER_VALID = 0x02;
constexpr UINT8 EFI_FILE_DATA_VALID = 0x04;
constexpr UINT8 EFI_FILE_MARKED_FOR_UPDATE = 0x08;
constexpr UINT8 EFI_FILE_DELETED = 0x10;
constexpr UINT8 EFI_FILE_HEADER_INVALID = 0x20;

struct EFI_COMMON_SECTION_HEADER {
  UINT8 Size[3];
  UINT8 Type;
};
static_assert(sizeof(EFI_COMMON_SECTION_HEADER) == 4);

#pragma pack(pop)

inline UINT32 Uint24(const UINT8 Bytes[3]) {
  return static_cast<UINT32>(Bytes[0]) | (static_cast<UINT32>(Bytes[1]) << 8) | (static_cast<UINT32>(Bytes[2]) << 16);
}
