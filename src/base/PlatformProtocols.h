// Byte layouts of the platform's closed protocols, as far as the driver reads them.
// Each block is packed with no padding; members sit at the byte offsets asserted below,
// and the gaps are opaque bytes owned by the producer.
#pragma once
#include "Uefi.h"

#pragma pack(push, 1)

// ---- Setup data description (flash device member 1, SMM flash member 1) -----------------
// Where the platform's setup data lies and the table of its fields' offsets into it.
struct SetupDataDescription {
  UINT64 Opaque00;
  UINT8 *SetupData;  // 0x08: base of the setup data
  UINT64 Opaque10;
  const UINT16 *FieldOffsets;  // 0x18: u16 offset of each setup field from SetupData
};
static_assert(offsetof(SetupDataDescription, SetupData) == 0x08);
static_assert(offsetof(SetupDataDescription, FieldOffsets) == 0x18);

// ---- Flash device interface (gPlatformFlashDeviceProtocolGuid): 8-byte slots -------------
typedef EFI_STATUS(EFIAPI *PLATFORM_FLASH_DEVICE_WRITE)(UINTN Address, const VOID *Buffer, UINTN Length);
typedef EFI_STATUS(EFIAPI *PLATFORM_FLASH_DEVICE_ERASE)(UINTN Address, UINTN Length);
typedef EFI_STATUS(EFIAPI *PLATFORM_FLASH_DEVICE_DELAY)(UINTN Units);
typedef EFI_STATUS(EFIAPI *PLATFORM_FLASH_DEVICE_MEMBER)(VOID *This);

struct PlatformFlashDeviceProtocol {
  VOID *Slot0;
  SetupDataDescription *SetupData;  // member 1
  VOID *Slot2[18];
  PLATFORM_FLASH_DEVICE_WRITE FlashDeviceWrite;  // member 20
  VOID *Slot21;
  PLATFORM_FLASH_DEVICE_ERASE FlashDeviceErase;  // member 22
  VOID *Slot23;
  PLATFORM_FLASH_DEVICE_MEMBER PrepareSetupData;  // member 24
  VOID *Slot25[4];
  PLATFORM_FLASH_DEVICE_DELAY FlashDeviceDelay;  // member 29
  VOID *Slot30[10];
};
static_assert(offsetof(PlatformFlashDeviceProtocol, SetupData) == 1 * 8);
static_assert(offsetof(PlatformFlashDeviceProtocol, FlashDeviceWrite) == 20 * 8);
static_assert(offsetof(PlatformFlashDeviceProtocol, FlashDeviceErase) == 22 * 8);
static_assert(offsetof(PlatformFlashDeviceProtocol, PrepareSetupData) == 24 * 8);
static_assert(offsetof(PlatformFlashDeviceProtocol, FlashDeviceDelay) == 29 * 8);

// The SMM flash interface (gSettingsSmmFlashGuid) counts its members the same way.
struct SettingsSmmFlashProtocol {
  VOID *Slot0;
  SetupDataDescription *SetupData;                // member 1
  PLATFORM_FLASH_DEVICE_MEMBER PrepareSetupData;  // member 2
  VOID *Slot3[15];
  PLATFORM_FLASH_DEVICE_WRITE Write;  // member 18
  PLATFORM_FLASH_DEVICE_ERASE Erase;  // member 19
  PLATFORM_FLASH_DEVICE_DELAY Delay;  // member 20
  VOID *Slot21[11];
};
static_assert(offsetof(SettingsSmmFlashProtocol, SetupData) == 1 * 8);
static_assert(offsetof(SettingsSmmFlashProtocol, PrepareSetupData) == 2 * 8);
static_assert(offsetof(SettingsSmmFlashProtocol, Write) == 18 * 8);
static_assert(offsetof(SettingsSmmFlashProtocol, Erase) == 19 * 8);
static_assert(offsetof(SettingsSmmFlashProtocol, Delay) == 20 * 8);

// ---- Platform configuration block (gPlatformConfigProtocolGuid) ---------------------------
typedef EFI_STATUS(EFIAPI *PLATFORM_NOTIFY_UPDATE_PHASE)(UINT64 Phase, UINT64 Reserved);
typedef EFI_STATUS(EFIAPI *PLATFORM_CHECK_IMAGE)(const VOID *Image, UINT64 ImageSize);
// The layout of a new image: the memory addresses of the four recovery-copy sources, then
// flash offsets and sizes of IBB1 to IBB4. The driver zeroes the eight offsets and sizes first.
typedef EFI_STATUS(EFIAPI *PLATFORM_GET_UPDATE_LAYOUT)(const VOID *Image, UINT64 ImageSize, UINT64 *Source0,
                                                       UINT64 *Source1, UINT64 *Source2, UINT64 *Source3,
                                                       UINT64 *Ibb1Offset, UINT64 *Ibb1Size, UINT64 *Ibb2Offset,
                                                       UINT64 *Ibb2Size, UINT64 *Ibb3Offset, UINT64 *Ibb3Size,
                                                       UINT64 *Ibb4Offset, UINT64 *Ibb4Size);
// The platform's message channel: a buffer it owns, then the hand-over of what was put in it.
typedef EFI_STATUS(EFIAPI *PLATFORM_GET_MESSAGE_BUFFER)(VOID **Buffer, UINTN *Size);
typedef EFI_STATUS(EFIAPI *PLATFORM_SEND_MESSAGE)(VOID *Buffer);

struct PlatformConfigProtocol {
  UINT8 Opaque000[0x44];
  PLATFORM_NOTIFY_UPDATE_PHASE NotifyUpdatePhase;  // 0x44
  UINT8 Opaque04C[0x75 - 0x4C];
  UINT32 BootBlockFvAddress;  // 0x75
  UINT8 Opaque079[0x7D - 0x79];
  UINT32 BiosIdAreaAddress;  // 0x7D
  UINT32 BiosIdAreaSize;     // 0x81
  UINT8 Opaque085[0x9D - 0x85];
  UINT64 UpdateResetHandler;  // 0x9D: address of a ResetSystem replacement, or 0
  UINT8 Opaque0A5[0xAD - 0xA5];
  PlatformFlashDeviceProtocol *FlashDevice;  // 0xAD
  UINT32 EcImageOffset;                      // 0xB5: state word, EC firmware offset in the EC store
  UINT32 EcImageSize;                        // 0xB9: second state word, EC firmware size
  UINT8 Opaque0BD[0xCD - 0xBD];
  PLATFORM_CHECK_IMAGE CheckImage;  // 0xCD: first check of a new image
  UINT8 Opaque0D5[0xED - 0xD5];
  UINT8 *UpdateStatusBlock;  // 0xED
  UINT8 Opaque0F5[0x135 - 0xF5];
  UINT8 Flags;  // 0x135; bit 6 selects each Part's alternative handling
  UINT8 Opaque136[0x211 - 0x136];
  PLATFORM_GET_MESSAGE_BUFFER GetMessageBuffer;  // 0x211
  PLATFORM_SEND_MESSAGE SendMessage;             // 0x219
  UINT8 Opaque221[0x27E - 0x221];
  PLATFORM_GET_UPDATE_LAYOUT GetUpdateLayout;  // 0x27E
  UINT8 Opaque286[0x10];
};
static_assert(offsetof(PlatformConfigProtocol, NotifyUpdatePhase) == 0x44);
static_assert(offsetof(PlatformConfigProtocol, BootBlockFvAddress) == 0x75);
static_assert(offsetof(PlatformConfigProtocol, BiosIdAreaAddress) == 0x7D);
static_assert(offsetof(PlatformConfigProtocol, BiosIdAreaSize) == 0x81);
static_assert(offsetof(PlatformConfigProtocol, UpdateResetHandler) == 0x9D);
static_assert(offsetof(PlatformConfigProtocol, FlashDevice) == 0xAD);
static_assert(offsetof(PlatformConfigProtocol, EcImageOffset) == 0xB5);
static_assert(offsetof(PlatformConfigProtocol, EcImageSize) == 0xB9);
static_assert(offsetof(PlatformConfigProtocol, CheckImage) == 0xCD);
static_assert(offsetof(PlatformConfigProtocol, UpdateStatusBlock) == 0xED);
static_assert(offsetof(PlatformConfigProtocol, Flags) == 0x135);
static_assert(offsetof(PlatformConfigProtocol, GetMessageBuffer) == 0x211);
static_assert(offsetof(PlatformConfigProtocol, SendMessage) == 0x219);
static_assert(offsetof(PlatformConfigProtocol, GetUpdateLayout) == 0x27E);

constexpr UINT8 kPlatformConfigAlternativeFlag = 0x40;

// The platform's security setup, reached from FlashServiceData (and, in SMM, from the
// settings service's member 55); byte 0x578 is 1 when physical presence recording is on.
struct SecuritySetupBlock {
  UINT8 Opaque000[0x578];
  UINT8 PpRecordingSwitch;  // 0x578
  UINT8 Opaque579[7];
};
static_assert(offsetof(SecuritySetupBlock, PpRecordingSwitch) == 0x578);

// ---- Platform data block behind PlatformFlashServiceProtocol offset 0x08 -----------------
struct FlashServiceData {
  UINT8 Opaque000[0x174];
  UINT8 CmosIndexPort;  // 0x174: first argument of every CMOS access
  UINT8 CmosDataPort;   // 0x175: second argument
  UINT8 Opaque176[0x3A5 - 0x176];
  SecuritySetupBlock *SecuritySetup;  // 0x3A5
  UINT8 Opaque3AD[0x3C2 - 0x3AD];
  VOID **PoolBufferLocation;  // 0x3C2: a location that may hold a pool buffer the platform allocated
  UINT8 Opaque3CA[0x600 - 0x3CA];
};
static_assert(offsetof(FlashServiceData, CmosIndexPort) == 0x174);
static_assert(offsetof(FlashServiceData, CmosDataPort) == 0x175);
static_assert(offsetof(FlashServiceData, SecuritySetup) == 0x3A5);
static_assert(offsetof(FlashServiceData, PoolBufferLocation) == 0x3C2);
static_assert(sizeof(FlashServiceData) == 0x600);

// ---- Platform flash service (gPlatformFlashServiceProtocolGuid) --------------------------
#pragma pack(push, 1)
struct FlashInfo {
  UINT32 BlockSize;        // 0
  UINT16 BlockCount;       // 4
  UINT8 DeviceAttribute;   // 6
  UINT8 Opaque7[4];        // 7
  UINT32 EcSize;           // 11
  UINT8 Opaque15[4];       // 15
  UINT32 MappedFlashSize;  // 19
  UINT8 Opaque23[4];       // 23
  UINT32 LowerFlashSize;   // 27
  UINT8 Opaque31[1];       // 31: the provided area is 32 bytes
};
#pragma pack(pop)
static_assert(sizeof(FlashInfo) == 32);
static_assert(offsetof(FlashInfo, BlockCount) == 4);
static_assert(offsetof(FlashInfo, DeviceAttribute) == 6);
static_assert(offsetof(FlashInfo, EcSize) == 11);
static_assert(offsetof(FlashInfo, MappedFlashSize) == 19);
static_assert(offsetof(FlashInfo, LowerFlashSize) == 27);

// A protected range as the platform lists give it: start image offset and length in bytes.
struct PlatformSkipRange {
  UINT32 Start;
  UINT32 Length;
};
static_assert(sizeof(PlatformSkipRange) == 8);

typedef EFI_STATUS(EFIAPI *PLATFORM_READ_FLASH)(UINT8 Type, VOID *Buffer, UINT32 Address, UINT32 Length);
typedef VOID(EFIAPI *PLATFORM_SET_FLASH_ACCESS_TYPE)(UINT8 Type);
typedef EFI_STATUS(EFIAPI *PLATFORM_WRITE_FLASH)(UINT8 Type, UINT32 Address, const VOID *Buffer, UINT32 Length);
typedef EFI_STATUS(EFIAPI *PLATFORM_READ_EC)(VOID *Buffer, UINT32 Offset, UINT32 Length);
typedef EFI_STATUS(EFIAPI *PLATFORM_WRITE_EC)(const VOID *Buffer, UINT32 Length, UINT32 Offset);
typedef EFI_STATUS(EFIAPI *PLATFORM_SET_BYTE)(UINT8 Value);
typedef EFI_STATUS(EFIAPI *PLATFORM_GET_SKIP_REGIONS)(PlatformSkipRange **List, UINT8 *Count);
typedef EFI_STATUS(EFIAPI *PLATFORM_GET_FLASH_INFO)(FlashInfo *Info);
typedef EFI_STATUS(EFIAPI *PLATFORM_SET_DEBUG_CODE_DISPLAY)(VOID *TextOut, BOOLEAN Start);
typedef EFI_STATUS(EFIAPI *PLATFORM_GENERIC_MEMBER)(UINT64 Argument);
typedef EFI_STATUS(EFIAPI *PLATFORM_COMPLETION_NOTIFY)(UINT8 *Value);

struct PlatformFlashServiceProtocol {
  UINT8 *SetupRecord;               // 0x00: the platform's setup record (two layouts)
  FlashServiceData *PlatformData;  // 0x08
  UINT8 Opaque010[0x23 - 0x10];
  UINT8 SettingsFlags;  // 0x23: bit 0 SettingsBackupSupported
  UINT8 Opaque024[0x31 - 0x24];
  UINT8 FlashCapabilities;  // 0x31
  UINT8 Opaque032[0x36 - 0x32];
  UINT8 VerifyFlags;  // 0x36: bit 1 enables the authenticated-variable hash erase
  UINT8 Opaque037[0x2EC - 0x37];
  PLATFORM_READ_FLASH ReadFlash;                     // 0x2EC
  PLATFORM_SET_FLASH_ACCESS_TYPE SetFlashAccessType;  // 0x2F4
  PLATFORM_WRITE_FLASH WriteFlash;                   // 0x2FC
  PLATFORM_READ_EC ReadEc;                           // 0x304
  UINT8 Opaque30C[0x314 - 0x30C];
  PLATFORM_WRITE_EC WriteEc;  // 0x314
  UINT8 Opaque31C[0x34C - 0x31C];
  PLATFORM_SET_BYTE SetUpdateInProgress;  // 0x34C
  UINT8 Opaque354[0x37C - 0x354];
  PLATFORM_GET_SKIP_REGIONS GetNormalSkipRegions;  // 0x37C
  PLATFORM_GET_SKIP_REGIONS GetAlwaysSkipRegions;  // 0x384
  PLATFORM_GET_FLASH_INFO GetFlashInfo;            // 0x38C
  UINT8 Opaque394[0x454 - 0x394];
  PLATFORM_COMPLETION_NOTIFY CompletionNotify;  // 0x454: the flash completed
  UINT8 Opaque45C[0x50C - 0x45C];
  PLATFORM_SET_DEBUG_CODE_DISPLAY SetDebugCodeDisplay;  // 0x50C
  UINT8 Opaque514[0x51C - 0x514];
  PLATFORM_GENERIC_MEMBER Member51C;  // 0x51C
  UINT8 Opaque524[0x20];
};
static_assert(offsetof(PlatformFlashServiceProtocol, SetupRecord) == 0x00);
static_assert(offsetof(PlatformFlashServiceProtocol, PlatformData) == 0x08);
static_assert(offsetof(PlatformFlashServiceProtocol, SettingsFlags) == 0x23);
static_assert(offsetof(PlatformFlashServiceProtocol, FlashCapabilities) == 0x31);
static_assert(offsetof(PlatformFlashServiceProtocol, VerifyFlags) == 0x36);
static_assert(offsetof(PlatformFlashServiceProtocol, ReadFlash) == 0x2EC);
static_assert(offsetof(PlatformFlashServiceProtocol, SetFlashAccessType) == 0x2F4);
static_assert(offsetof(PlatformFlashServiceProtocol, WriteFlash) == 0x2FC);
static_assert(offsetof(PlatformFlashServiceProtocol, ReadEc) == 0x304);
static_assert(offsetof(PlatformFlashServiceProtocol, WriteEc) == 0x314);
static_assert(offsetof(PlatformFlashServiceProtocol, SetUpdateInProgress) == 0x34C);
static_assert(offsetof(PlatformFlashServiceProtocol, GetNormalSkipRegions) == 0x37C);
static_assert(offsetof(PlatformFlashServiceProtocol, GetAlwaysSkipRegions) == 0x384);
static_assert(offsetof(PlatformFlashServiceProtocol, GetFlashInfo) == 0x38C);
static_assert(offsetof(PlatformFlashServiceProtocol, CompletionNotify) == 0x454);
static_assert(offsetof(PlatformFlashServiceProtocol, SetDebugCodeDisplay) == 0x50C);
static_assert(offsetof(PlatformFlashServiceProtocol, Member51C) == 0x51C);

// ---- SMM settings service (gSettingsSmmServiceGuid) and SMM setup (gPlatformSetupSmmGuid) -
// Member 55 leads to a block whose pointer at 0x328 names the security setup block.
struct SmmSecuritySetupLink {
  UINT8 Opaque000[0x328];
  SecuritySetupBlock *SecuritySetup;  // 0x328
};
static_assert(offsetof(SmmSecuritySetupLink, SecuritySetup) == 0x328);

struct SettingsSmmServiceProtocol {
  UINT8 Opaque000[19];
  UINT8 SettingsFlags;  // 19: bit 0 SettingsBackupSupported
  UINT8 Opaque014[0x21 - 0x14];
  UINT8 SetupFlags;  // 0x21: bit 1 selects the security setup block for the recording switch
  UINT8 Opaque022[38 - 0x22];
  UINT8 VerifyFlags;  // 38: bit 1 DigestProtection
  UINT8 Opaque027[54 * 8 - 39];
  SettingsSmmFlashProtocol *Flash;     // member 54
  SmmSecuritySetupLink *SecurityLink;  // member 55
  VOID *Slot56[8];
};
static_assert(offsetof(SettingsSmmServiceProtocol, SettingsFlags) == 19);
static_assert(offsetof(SettingsSmmServiceProtocol, SetupFlags) == 0x21);
static_assert(offsetof(SettingsSmmServiceProtocol, VerifyFlags) == 38);
static_assert(offsetof(SettingsSmmServiceProtocol, Flash) == 54 * 8);
static_assert(offsetof(SettingsSmmServiceProtocol, SecurityLink) == 55 * 8);

struct PlatformSetupSmmProtocol {
  UINT8 Opaque000[0x79];
  UINT8 *SetupRecord;  // 0x79
  UINT8 Opaque081[7];
};
static_assert(offsetof(PlatformSetupSmmProtocol, SetupRecord) == 0x79);

// ---- Protocols the image query consults -------------------------------------------------
typedef EFI_STATUS(EFIAPI *PLATFORM_NOTIFY_MEMBER)(VOID);
typedef UINT8(EFIAPI *LOWER_FLASH_ACCESS_QUERY)(VOID);

// gQueryNotifyProtocolGuid: told that a query ran (member 38).
struct QueryNotifyProtocol {
  VOID *Slot[38];
  PLATFORM_NOTIFY_MEMBER QueryNotify;  // 0x130
};
static_assert(offsetof(QueryNotifyProtocol, QueryNotify) == 0x130);

// gLowerFlashAccessProtocolGuid: answers whether the lower flash part may be written (member 3).
struct LowerFlashAccessProtocol {
  VOID *Slot[3];
  LOWER_FLASH_ACCESS_QUERY IsLowerFlashWritable;  // 0x18
};
static_assert(offsetof(LowerFlashAccessProtocol, IsLowerFlashWritable) == 0x18);

// gPostQueryProtocolGuid: called at the end of a query outside recovery boots (member 0).
struct PostQueryProtocol {
  PLATFORM_NOTIFY_MEMBER PostQuery;
};
static_assert(offsetof(PostQueryProtocol, PostQuery) == 0);

// ---- Boot-block handler (gBootBlockHandlerProtocolGuid) ----------------------------------
typedef EFI_STATUS(EFIAPI *BOOT_BLOCK_HANDLER_MEMBER)(VOID);
struct BootBlockHandlerProtocol {
  BOOT_BLOCK_HANDLER_MEMBER Member0;
  BOOT_BLOCK_HANDLER_MEMBER HandleBootBlockMarker;  // member 1
};

// ---- Update log (gUpdateLogProtocolGuid) -------------------------------------------------
struct UpdateLogProtocol;
typedef EFI_STATUS(EFIAPI *UPDATE_LOG_WRITE_RECORD)(UpdateLogProtocol *This, UINT32 RecordType, UINT64 Length,
                                                    const VOID *Data);
struct UpdateLogProtocol {
  UPDATE_LOG_WRITE_RECORD WriteRecord;
};

// ---- Image signature verifier (gImageSignatureVerifyProtocolGuid) ------------------------
// Member 2 checks a detached signature over Data; KeySelector chooses the key (1, then 0).
typedef EFI_STATUS(EFIAPI *IMAGE_SIGNATURE_VERIFY)(const VOID *Data, UINT64 DataSize, const VOID *Signature,
                                                   UINT64 SignatureSize, UINT32 KeySelector);
struct ImageSignatureVerifyProtocol {
  VOID *Slot0;
  VOID *Slot1;
  IMAGE_SIGNATURE_VERIFY Verify;  // member 2
};
static_assert(offsetof(ImageSignatureVerifyProtocol, Verify) == 16);

// ---- Staged-update notification (gStagedUpdateNotifyProtocolGuid) ------------------------
struct StagedUpdateNotifyProtocol {
  PLATFORM_NOTIFY_MEMBER Notify;  // member 0: update files were staged on a system partition
};

// ---- SMM firmware block service (gSmmFwBlockServiceProtocolGuid): 8-byte slots -----------
struct SmmFwBlockServiceProtocol;
typedef EFI_STATUS(EFIAPI *SMM_FW_BLOCK_WRITE)(SmmFwBlockServiceProtocol *This, UINTN Address, UINTN *Size,
                                               UINT8 *Source);
typedef EFI_STATUS(EFIAPI *SMM_FW_BLOCK_ERASE_BLOCKS)(SmmFwBlockServiceProtocol *This, UINTN Address, UINTN *Size);
struct SmmFwBlockServiceProtocol {
  VOID *Slot0;
  VOID *Slot1;
  SMM_FW_BLOCK_WRITE Write;               // member 2
  SMM_FW_BLOCK_ERASE_BLOCKS EraseBlocks;  // member 3
};
static_assert(offsetof(SmmFwBlockServiceProtocol, Write) == 2 * 8);
static_assert(offsetof(SmmFwBlockServiceProtocol, EraseBlocks) == 3 * 8);

#pragma pack(pop)
