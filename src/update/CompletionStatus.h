// The end of an update: SetFlashCompletionStatus (service slot 6) records the tool's status
// in the mirrored CMOS bytes, undoes the update's temporary arrangements (variable backup,
// critical-variable digest, progress record), tells the platform the update is over and,
// for status 0, publishes that the flash completed.
#pragma once
#include "../base/Uefi.h"

// Extended-CMOS bytes the service writes through the CmosToRom mirror.
constexpr UINT8 kCmosCompletionStatusIndex = 0xFA;  // the tool's status, unchanged
constexpr UINT8 kCmosUpdateStateIndex = 0xF9;       // kept at 5, set from the platform, or 0
constexpr UINT8 kCmosRecoveryMarkerIndex = 0xEE;    // 0, or 0x5A after a completed recovery flash
constexpr UINT8 kRecoveryCompletedMarker = 0x5A;

// Tool statuses with their own handling.
constexpr UINT8 kCompletionStatusSuccess = 0;
constexpr UINT8 kCompletionStatusClearState = 3;   // clears CMOS 0xF9 even when it holds 5
constexpr UINT8 kCompletionStatusKeepUpdate = 12;  // leaves the update in progress
constexpr UINT8 kCompletionStatusPlatform = 13;    // 0xF9 from the platform; HFT written back
constexpr UINT8 kUpdateStatePreserved = 5;         // the 0xF9 value every other status keeps

// Byte of the platform's update status block that status 13 copies into CMOS 0xF9.
constexpr UINTN kUpdateStatusBlockCmosValue = 0x14D9;
// The phase NotifyUpdatePhase is told when the update ends.
constexpr UINT64 kUpdatePhaseCompleted = 2;

#pragma pack(push, 1)
// The message handed to the platform when a written flash completed.
struct FlashCompleteMessage {
  CHAR8 Signature[8];  // "$FINISHI"
  UINT32 Length;       // 13
  UINT8 Kind;          // 1
};
#pragma pack(pop)
static_assert(offsetof(FlashCompleteMessage, Length) == 8);
static_assert(offsetof(FlashCompleteMessage, Kind) == 12);
static_assert(sizeof(FlashCompleteMessage) == 13);

// Erases the variable backup volume (the whole backup area written with 0xFF). EFI_NOT_FOUND
// when the area holds no NV store volume, EFI_OUT_OF_RESOURCES without pool (nothing
// written), else the write's status.
EFI_STATUS EraseVariableBackup();
