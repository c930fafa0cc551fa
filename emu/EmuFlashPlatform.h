// The flash side of the emulated platform: where the reference platform keeps its flash
// structures, the geometry GetFlashInfo reports, the two protected-region lists the flash
// service hands out (owned here, settable by tests), and the three small protocols the
// image query consults (query notification, lower-flash access, post-query).
#pragma once
#include "../src/base/PlatformProtocols.h"
#include "../src/base/Uefi.h"

class EmuPlatform;

// Flash addresses of the reference platform's 16 MiB image (mapped at 0xFF000000).
namespace EmuFlashLayout {
constexpr UINT32 kMappedBase = 0xFF000000;
constexpr UINT32 kMappedSize = 0x01000000;
constexpr UINT32 kEcStoreSize = 0x20000;  // the EC's own firmware store (not part of the image)
// The EC firmware at the start of the SPI device (its flash-map region), which the update
// hands to the EC store whole when it reaches OBB.
constexpr UINT32 kEcFirmwareAddress = 0xFF000000, kEcFirmwareSize = 0x20000;
// The embedded firmware structure and the primary and backup PSP level-1 directory blocks.
constexpr UINT32 kEfsAddress = 0xFF020000, kEfsSize = 0x1000;
constexpr UINT32 kPspL1DirectoryAddress = 0xFFF80000, kPspL1BackupDirectoryAddress = 0xFFF81000;
constexpr UINT32 kPspL1DirectorySize = 0x1000;
// The boot block (IBB1): a firmware volume whose last 64 KiB hold the "$BID" record.
constexpr UINT32 kBootBlockFvAddress = 0xFFA88000;
constexpr UINT32 kBootBlockFvSize = 0x178000;
constexpr UINT32 kBiosIdAreaSize = 0x10000;
constexpr UINT32 kBiosIdAreaAddress = kBootBlockFvAddress + kBootBlockFvSize - kBiosIdAreaSize;
// Variable store volume and its backup area.
constexpr UINT32 kVariableStoreAddress = 0xFF14A000;
constexpr UINT32 kVariableStoreSize = 0x30000;
constexpr UINT32 kVariableBackupAddress = 0xFF17C000;
constexpr UINT32 kVariableBackupSize = 0x32000;
// CmosToRom journal (header and data).
constexpr UINT32 kCmosJournalAddress = 0xFF0E6000;
constexpr UINT32 kCmosJournalSize = 0x2000;
// Code volumes outside the boot block.
constexpr UINT32 kObbFvAddress = 0xFF1B0000;  // end of OBB, up to IBB4
constexpr UINT32 kObbFvSize = 0x90000;
constexpr UINT32 kDxeFvAddress = 0xFF838000;  // end of OBB2, up to the boot block
constexpr UINT32 kDxeFvSize = 0x250000;
// Where the recovery (TopSwap) copies of IBB1, IBB4 and IBB2 sit.
constexpr UINT32 kRecoveryBase = 0xFF2C0000;
constexpr UINT32 kIbb1Address = 0xFFA88000, kIbb1Size = 0x178000;
constexpr UINT32 kIbb2Address = 0xFFC00000, kIbb2Size = 0x380000;
constexpr UINT32 kIbb4Address = 0xFF240000, kIbb4Size = 0x80000;
}  // namespace EmuFlashLayout

struct EmuFlashPlatform {
  static constexpr UINTN kSkipListCapacity = 16;

  // GetFlashInfo: the geometry of the whole image (EC part + lower part + mapped part).
  UINT32 BlockSize = 0x10000;
  UINT8 DeviceAttribute = 0x01;  // opaque to the driver; handed to the tool unchanged

  // The lists the flash service returns, {start image offset, length in bytes}; a platform
  // may end a list with a {0xFFFFFFFF, 0xFFFFFFFF} entry that its count includes.
  PlatformSkipRange NormalSkip[kSkipListCapacity] = {};
  UINT8 NormalSkipCount = 0;
  PlatformSkipRange AlwaysSkip[kSkipListCapacity] = {};
  UINT8 AlwaysSkipCount = 0;
  // Replaces a list (at most kSkipListCapacity entries are kept).
  void SetNormalSkipRegions(const PlatformSkipRange *List, UINT8 Count);
  void SetAlwaysSkipRegions(const PlatformSkipRange *List, UINT8 Count);

  // The byte the lower-flash access member answers (1: ranges below the boundary may be written).
  UINT8 LowerFlashWritable = 0;

  QueryNotifyProtocol QueryNotify = {};
  LowerFlashAccessProtocol LowerFlashAccess = {};
  PostQueryProtocol PostQuery = {};
};

constexpr PlatformSkipRange kSkipListTerminator = {0xFFFFFFFF, 0xFFFFFFFF};

// Fills the flash service's list and geometry members, the configuration block's flash
// fields and the three protocols with the reference platform's defaults.
void EmuFillFlashPlatform(EmuPlatform &Platform);
