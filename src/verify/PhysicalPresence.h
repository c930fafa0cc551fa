// The TCG physical presence flags and three bytes of the platform's setup data, recorded in
// a security-settings snapshot before a flash so that the record written back carries them.
#pragma once
#include "../base/Uefi.h"

// Setup fields whose bytes are copied beside the flags (indices into the field offset table).
constexpr UINTN kPlatformSecurityField1 = 20;
constexpr UINTN kPlatformSecurityField2 = 25;
constexpr UINTN kPlatformSecurityField3 = 19;

// The setup record's recording switch: bit 2 of the byte the locator finds.
constexpr UINT8 kSetupPpRecordingBit = 0x04;
// Bit 1 of the flash service byte 0x31 (SMM: settings service byte 0x21) selects the security
// setup block's switch instead.
constexpr UINT8 kSecuritySetupSwitchSelect = 0x02;

// Newer setup record layout: starts with gPlatformSetupLayoutGuid, names the field's offset here.
constexpr UINTN kSetupLayoutFieldOffsetAt = 0x26;
// Older layout: the field's fixed offset.
constexpr UINTN kOlderSetupFieldOffset = 87;
// The offsets the newer layout may name (the starts of its fields).
constexpr UINT16 kNewerSetupFieldOffsets[] = {256,  288,  416,  448,  464,  496,  528,  1040,
                                              1072, 1136, 1264, 1280, 1296, 1312, 1328, 1840};

// Fills PpFlags, PpFlagsSource and the three PlatformSecurityByte fields of a settings record
// when the platform's setup enables it. EFI_UNSUPPORTED (record untouched) when it does not.
EFI_STATUS RecordPhysicalPresenceFlags(UINT8 *Record);
// The setup byte that holds the recording switch, in either record layout; null for null.
const UINT8 *PlatformSettingLocator(const UINT8 *Record);
