// The variable store as it sits in flash: an NV store firmware volume, then a store header
// in one of two forms, then authenticated variable records packed one after the other.
#pragma once
#include <type_traits>

#include "../base/Uefi.h"

#pragma pack(push, 1)

// The short header form: "$VSS" signature.
struct VariableStoreHeaderVss {
  UINT32 Signature;  // 0: "$VSS"
  UINT32 Size;       // 4
  UINT8 Format;      // 8
  UINT8 State;       // 9
  UINT8 Reserved[6];
};

// The long header form: the store's kind as a GUID.
struct VariableStoreHeaderGuid {
  EFI_GUID Signature;  // 0: gEfiAuthenticatedVariableGuid or gEfiVariableGuid
  UINT32 Size;         // 16
  UINT8 Format;        // 20
  UINT8 State;         // 21
  UINT8 Reserved[6];
};

// Every record carries the authenticated header, whichever store header form is used.
struct AuthenticatedVariableHeader {
  UINT16 StartId;         // 0: 0x55AA
  UINT8 State;            // 2
  UINT8 Reserved;         // 3
  UINT32 Attributes;      // 4
  UINT64 MonotonicCount;  // 8
  UINT8 TimeStamp[16];    // 16: EFI_TIME
  UINT32 PubKeyIndex;     // 32
  UINT32 NameSize;        // 36: bytes of the UTF-16 name, terminator included
  UINT32 DataSize;        // 40
  EFI_GUID VendorGuid;    // 44
};                        // 60: the name, then the data

// With the power-loss remedies on, a backup counts only once this seal, written into the
// backup area's last sector after the backup itself, holds the SHA-256 of its bytes.
struct VariableBackupSeal {
  UINT64 Signature;   // 0: "Q42BKSEL"
  UINT32 Length;      // 8: backup bytes covered, from the area's start
  UINT32 Reserved;    // 12
  UINT8 Digest[32];   // 16
};

#pragma pack(pop)

constexpr UINT64 kVariableBackupSealSignature = 0x4C45534B42323451ULL;  // "Q42BKSEL"
constexpr UINT32 kVariableBackupSealSector = 0x1000;

static_assert(sizeof(VariableBackupSeal) == 48);
static_assert(offsetof(VariableBackupSeal, Length) == 8);
static_assert(offsetof(VariableBackupSeal, Digest) == 16);
static_assert(sizeof(VariableStoreHeaderVss) == 16);
static_assert(offsetof(VariableStoreHeaderVss, Size) == 4);
static_assert(offsetof(VariableStoreHeaderVss, Format) == 8);
static_assert(offsetof(VariableStoreHeaderVss, State) == 9);
static_assert(sizeof(VariableStoreHeaderGuid) == 28);
static_assert(offsetof(VariableStoreHeaderGuid, Size) == 16);
static_assert(offsetof(VariableStoreHeaderGuid, Format) == 20);
static_assert(offsetof(VariableStoreHeaderGuid, State) == 21);
static_assert(sizeof(AuthenticatedVariableHeader) == 60);
static_assert(offsetof(AuthenticatedVariableHeader, State) == 2);
static_assert(offsetof(AuthenticatedVariableHeader, Attributes) == 4);
static_assert(offsetof(AuthenticatedVariableHeader, MonotonicCount) == 8);
static_assert(offsetof(AuthenticatedVariableHeader, TimeStamp) == 16);
static_assert(offsetof(AuthenticatedVariableHeader, PubKeyIndex) == 32);
static_assert(offsetof(AuthenticatedVariableHeader, NameSize) == 36);
static_assert(offsetof(AuthenticatedVariableHeader, DataSize) == 40);
static_assert(offsetof(AuthenticatedVariableHeader, VendorGuid) == 44);
static_assert(std::is_trivially_copyable_v<VariableStoreHeaderVss> &&
              std::is_trivially_copyable_v<VariableStoreHeaderGuid> &&
              std::is_trivially_copyable_v<AuthenticatedVariableHeader>);

constexpr UINT32 kVariableStoreSignature = 0x53535624;  // "$VSS"
constexpr UINT8 kVariableStoreFormatted = 0x5A;
constexpr UINT8 kVariableStoreHealthy = 0xFE;

constexpr UINT16 kVariableStartId = 0x55AA;
constexpr UINTN kVariableHeaderSize = sizeof(AuthenticatedVariableHeader);
// Record states as the variable driver leaves them (erase polarity 1: bits are cleared).
constexpr UINT8 kVariableHeaderValidOnly = 0x7F;
constexpr UINT8 kVariableAdded = 0x3F;
constexpr UINT8 kVariableInDeletedTransition = 0x3E;
constexpr UINT8 kVariableDeleted = 0x3C;
// Attribute bits 4 and 5: authenticated write access (counter-based or time-based).
constexpr UINT32 kVariableAuthenticatedAttributes = 0x30;
// Store header size + NameSize + DataSize of a walkable record is at most this.
constexpr UINT64 kVariableRecordBound = 0x11000;
