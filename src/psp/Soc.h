// Which AMD SoC the driver runs on: processor identification from CPUID, the SoC descriptor
// table of the directory code (directory ids, EFS layout, A/B scheme, entry-type width) and
// the SoC information table (recovery-flag register selector).
#pragma once
#include <cstddef>

#include "../base/Uefi.h"

constexpr UINT32 kCpuidExtendedSignatureLeaf = 0x80000001;
constexpr UINT32 kSocNone = 0xFFFFFFFF;  // "no BIOS pointer" / "no A/B scheme"

struct ProcessorId {
  UINT32 Signature;      // EAX of CPUID 0x80000001
  UINT32 Family;         // base family + extended family
  UINT32 ExtendedModel;  // the extended-model nibble
  UINT32 Model;          // extended model x 16 + base model
};
ProcessorId IdentifyProcessor();

// Processors whose flash offsets are read through the 64 MiB window at 0xFD00000000.
bool ReadsOffsetsThroughWideWindow(const ProcessorId &Cpu);
// Processors on which a location inside the 64 MiB window may be read as memory.
bool MapsWideWindowLocations(const ProcessorId &Cpu);

struct SocDescriptor {
  UINT32 CpuKey;
  UINT32 PspId;              // id of this SoC in combo directories
  UINT32 BiosPointerOffset;  // EFS offset of the BIOS directory location, or kSocNone
  UINT32 ComboBiosDirectory;  // low byte set: the EFS points at a "2BHD" combo directory
  UINT32 AbKind;             // 1, 2 or kSocNone
  UINT32 Word5;
  UINT32 EntryTypeWidth;  // 1: 8-bit entry types, 2: 16-bit entry types
};
static_assert(sizeof(SocDescriptor) == 28);
static_assert(offsetof(SocDescriptor, PspId) == 4);
static_assert(offsetof(SocDescriptor, BiosPointerOffset) == 8);
static_assert(offsetof(SocDescriptor, ComboBiosDirectory) == 12);
static_assert(offsetof(SocDescriptor, AbKind) == 16);
static_assert(offsetof(SocDescriptor, EntryTypeWidth) == 24);

#pragma pack(push, 1)
struct SocInfo {
  UINT32 CpuKey;
  UINT32 Word4;
  UINT8 Byte8;
  UINT8 RecoveryFlagSelector;  // 2: the recovery flag sits at the second register
  UINT32 Word10;               // read by the debug-code output
  UINT32 Word14;
};
#pragma pack(pop)
static_assert(sizeof(SocInfo) == 18);
static_assert(offsetof(SocInfo, RecoveryFlagSelector) == 9);
static_assert(offsetof(SocInfo, Word10) == 10);

constexpr UINTN kSocDescriptorCount = 28;
constexpr UINTN kSocInfoCount = 7;
extern const SocDescriptor kSocDescriptors[kSocDescriptorCount];
extern const SocInfo kSocInfos[kSocInfoCount];
constexpr UINT32 kSocInfoWord10Default = 0x10500;

// Key = signature without stepping and base model.
BOOLEAN SocMatches(UINT32 Key);
BOOLEAN FindSocDescriptor(const SocDescriptor **Descriptor);
BOOLEAN FindSocInfo(const SocInfo **Info);
// The SoC information value at byte 10, or its default when no row matches.
UINT32 SocInfoWord10();
// TRUE when a descriptor is found and its entry types are 16 bits wide.
BOOLEAN SocUsesSixteenBitEntryTypes();

// EFS generation byte 0xFF marks a layout that newer processors no longer accept.
constexpr UINTN kEfsGenerationOffset = 0x24;
BOOLEAN EfsGenerationRejected(const UINT8 *Efs);
