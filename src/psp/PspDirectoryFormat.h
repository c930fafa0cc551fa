// Byte layouts of the AMD embedded firmware structure (EFS), the PSP and BIOS directories,
// their combo directories and A/B headers, as the directory code reads them, and of the
// A/B summary it builds. All multi-byte fields are little-endian.
#pragma once
#include <cstddef>
#include <type_traits>

#include "../base/Uefi.h"

constexpr UINT32 DirectoryCookie(const char (&Text)[5]) {
  return static_cast<UINT32>(static_cast<UINT8>(Text[0])) | static_cast<UINT32>(static_cast<UINT8>(Text[1])) << 8 |
         static_cast<UINT32>(static_cast<UINT8>(Text[2])) << 16 | static_cast<UINT32>(static_cast<UINT8>(Text[3])) << 24;
}

constexpr UINT32 kEfsSignature = 0x55AA55AA;
constexpr UINT32 kPspDirectoryCookie = DirectoryCookie("$PSP");
constexpr UINT32 kPspLevel2Cookie = DirectoryCookie("$PL2");
constexpr UINT32 kBiosDirectoryCookie = DirectoryCookie("$BHD");
constexpr UINT32 kBiosLevel2Cookie = DirectoryCookie("$BL2");
constexpr UINT32 kPspComboCookie = DirectoryCookie("2PSP");
constexpr UINT32 kBiosComboCookie = DirectoryCookie("2BHD");
static_assert(kPspComboCookie == 0x50535032 && kBiosComboCookie == 0x44484232);

#pragma pack(push, 1)

// The first 60 bytes of the EFS.
struct EmbeddedFirmwareStructure {
  UINT32 Signature;
  UINT8 Reserved04[0x10];
  UINT32 PspDirectory;  // "$PSP" or a "2PSP" combo directory
  UINT8 BiosPointers[0x0C];  // 0x18..0x23: BIOS directory locations, at an offset that depends on the SoC
  UINT8 Generation;
  UINT8 Reserved25[3];
  UINT32 ComboBiosDirectory;     // "2BHD"
  UINT32 AlternatePspDirectory;  // tried when the first one does not validate
  UINT8 Reserved30[0x0C];
};
static_assert(sizeof(EmbeddedFirmwareStructure) == 60);
static_assert(offsetof(EmbeddedFirmwareStructure, PspDirectory) == 0x14);
static_assert(offsetof(EmbeddedFirmwareStructure, BiosPointers) == 0x18);
static_assert(offsetof(EmbeddedFirmwareStructure, Generation) == 0x24);
static_assert(offsetof(EmbeddedFirmwareStructure, ComboBiosDirectory) == 0x28);
static_assert(offsetof(EmbeddedFirmwareStructure, AlternatePspDirectory) == 0x2C);

struct DirectoryHeader {
  UINT32 Cookie;
  UINT32 Checksum;  // Fletcher-32 from Count to the end of the last entry
  UINT32 Count;
  UINT32 Reserved;
};
static_assert(sizeof(DirectoryHeader) == 16);
static_assert(offsetof(DirectoryHeader, Checksum) == 4);
static_assert(offsetof(DirectoryHeader, Count) == 8);

struct PspDirectoryEntry {
  UINT32 TypeWord;  // 7:0 type, 15:8 sub-program, 22:19 further selector bits
  UINT32 Size;
  UINT64 Location;  // 63:62 address mode
};
static_assert(sizeof(PspDirectoryEntry) == 16);
static_assert(offsetof(PspDirectoryEntry, Size) == 4);
static_assert(offsetof(PspDirectoryEntry, Location) == 8);

struct BiosDirectoryEntry {
  UINT32 TypeWord;  // 7:0 type, 23:20 instance, 26:24 sub-program
  UINT32 Size;
  UINT64 Source;  // 63:62 address mode
  UINT64 Destination;
};
static_assert(sizeof(BiosDirectoryEntry) == 24);
static_assert(offsetof(BiosDirectoryEntry, Size) == 4);
static_assert(offsetof(BiosDirectoryEntry, Source) == 8);
static_assert(offsetof(BiosDirectoryEntry, Destination) == 16);

// "2PSP" / "2BHD": one directory per SoC.
struct ComboDirectoryHeader {
  UINT32 Cookie;
  UINT32 Checksum;
  UINT32 Count;
  UINT32 LookupMode;
  UINT8 Reserved[16];
};
static_assert(sizeof(ComboDirectoryHeader) == 32);
static_assert(offsetof(ComboDirectoryHeader, Count) == 8);

struct ComboDirectoryEntry {
  UINT32 IdSelect;
  UINT32 PspId;
  UINT64 Location;  // low 32 bits used
};
static_assert(sizeof(ComboDirectoryEntry) == 16);
static_assert(offsetof(ComboDirectoryEntry, PspId) == 4);
static_assert(offsetof(ComboDirectoryEntry, Location) == 8);

// A/B header of SoCs of A/B kind 1.
struct AbHeaderKind1 {
  UINT32 Priority;
  UINT32 Word1;
  UINT32 Word2;
  UINT32 Level2Location;
};
static_assert(sizeof(AbHeaderKind1) == 16);
static_assert(offsetof(AbHeaderKind1, Level2Location) == 12);

// A/B header of SoCs of A/B kind 2.
struct AbHeaderKind2 {
  UINT32 Reserved0;
  UINT32 Priority;
  UINT32 Word;
  UINT8 Byte;
  UINT8 Reserved13[3];
  UINT32 Level2Location;
  UINT32 PspId;
  UINT8 Reserved24[8];
};
static_assert(sizeof(AbHeaderKind2) == 32);
static_assert(offsetof(AbHeaderKind2, Priority) == 4);
static_assert(offsetof(AbHeaderKind2, Word) == 8);
static_assert(offsetof(AbHeaderKind2, Byte) == 12);
static_assert(offsetof(AbHeaderKind2, Level2Location) == 16);
static_assert(offsetof(AbHeaderKind2, PspId) == 20);

// The copy of either header kind that the A/B summary keeps.
struct AbHeaderCopy {
  UINT32 Priority;
  UINT32 Word1;
  UINT32 Word2;
  UINT32 Level2Location;
};
static_assert(sizeof(AbHeaderCopy) == 16);

constexpr UINTN kAbListCapacity = 32;
constexpr UINT8 kAbNoEntry = 0xFF;

// What BuildAbInfo learns from a level-1 directory of A/B pointer entries.
struct AbInfo {
  UINT32 PointerEntryCount;
  UINT8 ActiveCount;
  UINT8 Active[kAbListCapacity];
  UINT8 InactiveCount;
  UINT8 Inactive[kAbListCapacity];
  UINT8 PrimaryIndex;
  AbHeaderCopy Primary;
  UINT8 SecondaryIndex;
  AbHeaderCopy Secondary;
};
static_assert(sizeof(AbInfo) == 104);
static_assert(offsetof(AbInfo, ActiveCount) == 4);
static_assert(offsetof(AbInfo, Active) == 5);
static_assert(offsetof(AbInfo, InactiveCount) == 37);
static_assert(offsetof(AbInfo, Inactive) == 38);
static_assert(offsetof(AbInfo, PrimaryIndex) == 70);
static_assert(offsetof(AbInfo, Primary) == 71);
static_assert(offsetof(AbInfo, Primary) + offsetof(AbHeaderCopy, Level2Location) == 83);
static_assert(offsetof(AbInfo, SecondaryIndex) == 87);
static_assert(offsetof(AbInfo, Secondary) == 88);
static_assert(offsetof(AbInfo, Secondary) + offsetof(AbHeaderCopy, Level2Location) == 100);

#pragma pack(pop)

static_assert(std::is_trivially_copyable_v<EmbeddedFirmwareStructure> && std::is_trivially_copyable_v<AbInfo>);

// Entry types the directory code knows by name (8-bit legacy values).
constexpr UINT32 kPspLevel2DirectoryType = 0x40;  // "$PL2" of a directory without A/B copies
constexpr UINT32 kPspAbPointerA = 0x48;
constexpr UINT32 kPspBiosLevel2Type = 0x49;  // "$BL2" reached from a "$PL2"
constexpr UINT32 kPspAbPointerB = 0x4A;
constexpr UINT8 kBiosLevel2DirectoryType = 0x70;

constexpr UINTN kMaxDirectoryCount = 512;
constexpr UINTN kMaxAbPointerEntries = 32;

// Address modes of entry locations (bits 63:62).
constexpr UINT64 kAddressModeShift = 62;
constexpr UINT64 kAddressModePhysical = 0;
constexpr UINT64 kAddressModeFlashOffset = 1;
constexpr UINT64 kAddressModeDirectoryRelative = 2;
constexpr UINT64 kAddressModeSlotRelative = 3;

// Buffer-store handles of the directory code.
constexpr UINT32 kHandleLevel1Scratch = 41015;
constexpr UINT32 kHandleLevel2Scratch = 41016;
constexpr UINT32 kHandleAbInfoScratch = 41017;
constexpr UINT32 kHandleAbInfoCache = 41020;
constexpr UINT32 kHandlePspCache = 41021;
constexpr UINT32 kHandleBiosCache = 41022;
constexpr UINT32 kHandlePspLevel2Cache = 41023;
constexpr UINT32 kHandleBiosLevel2Cache = 41024;
