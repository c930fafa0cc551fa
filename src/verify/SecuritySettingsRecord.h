// The security-settings record: one 4 KiB flash block holding the platform's protected
// settings, sealed by a 16-bit word checksum or a SHA-256 digest. The same layout is used by
// the live block, its backup copy and the in-memory snapshot. Little-endian, byte-packed.
#pragma once
#include <type_traits>

#include "../base/Uefi.h"

constexpr UINT32 SecuritySettingsBlock = 0xFF0C3000;   // the live block
constexpr UINT32 SecuritySettingsBackup = 0xFFFEE000;  // its backup copy
constexpr UINTN kSecuritySettingsSize = 0x1000;
constexpr UINTN kSecuritySettingsWordCount = kSecuritySettingsSize / 2;

// "$zqBKSEC", no terminator.
constexpr UINT8 kSecuritySettingsBackupMagic[8] = {'$', 'z', 'q', 'B', 'K', 'S', 'E', 'C'};

constexpr UINT16 kIntegrityWordChecksum = 0;
constexpr UINT16 kIntegritySha256 = 1;

// Where the physical presence flags came from.
constexpr UINT8 kPpFlagsSourceNone = 0;
constexpr UINT8 kPpFlagsSourceTcg = 1;
constexpr UINT8 kPpFlagsSourceTcg2 = 2;

#pragma pack(push, 1)
struct SecuritySettingsRecord {
  UINT8 SettingsData[0x420];  // the platform's settings; carried over unchanged
  UINT8 BackupMagic[8];       // 0x420
  UINT16 SettingsChecksum;    // 0x428: word-checksum format only
  UINT16 IntegrityFormat;     // 0x42A
  UINT8 Opaque42C[0x1A];
  UINT32 PpFlags;                // 0x446
  UINT8 PpFlagsSource;           // 0x44A
  UINT8 Opaque44B[2];
  UINT8 PlatformSecurityByte1;   // 0x44D
  UINT8 PlatformSecurityByte2;   // 0x44E
  UINT8 PlatformSecurityByte3;   // 0x44F
  UINT8 Opaque450[0x131];
  UINT8 SettingsDigest[32];      // 0x581: SHA-256 format only, computed with these bytes zero
  UINT8 Opaque5A1[0xA5F];
};
#pragma pack(pop)
static_assert(sizeof(SecuritySettingsRecord) == kSecuritySettingsSize);
static_assert(std::is_trivially_copyable_v<SecuritySettingsRecord>);
static_assert(offsetof(SecuritySettingsRecord, BackupMagic) == 0x420);
static_assert(offsetof(SecuritySettingsRecord, SettingsChecksum) == 0x428);
static_assert(offsetof(SecuritySettingsRecord, IntegrityFormat) == 0x42A);
static_assert(offsetof(SecuritySettingsRecord, PpFlags) == 0x446);
static_assert(offsetof(SecuritySettingsRecord, PpFlagsSource) == 0x44A);
static_assert(offsetof(SecuritySettingsRecord, PlatformSecurityByte1) == 0x44D);
static_assert(offsetof(SecuritySettingsRecord, PlatformSecurityByte2) == 0x44E);
static_assert(offsetof(SecuritySettingsRecord, PlatformSecurityByte3) == 0x44F);
static_assert(offsetof(SecuritySettingsRecord, SettingsDigest) == 0x581);

constexpr UINTN kBackupMagicOffset = offsetof(SecuritySettingsRecord, BackupMagic);
constexpr UINTN kSettingsChecksumOffset = offsetof(SecuritySettingsRecord, SettingsChecksum);
constexpr UINTN kIntegrityFormatOffset = offsetof(SecuritySettingsRecord, IntegrityFormat);
constexpr UINTN kPpFlagsOffset = offsetof(SecuritySettingsRecord, PpFlags);
constexpr UINTN kPpFlagsSourceOffset = offsetof(SecuritySettingsRecord, PpFlagsSource);
constexpr UINTN kPlatformSecurityByte1Offset = offsetof(SecuritySettingsRecord, PlatformSecurityByte1);
constexpr UINTN kPlatformSecurityByte2Offset = offsetof(SecuritySettingsRecord, PlatformSecurityByte2);
constexpr UINTN kPlatformSecurityByte3Offset = offsetof(SecuritySettingsRecord, PlatformSecurityByte3);
constexpr UINTN kSettingsDigestOffset = offsetof(SecuritySettingsRecord, SettingsDigest);
constexpr UINTN kSettingsDigestSize = sizeof(SecuritySettingsRecord::SettingsDigest);
