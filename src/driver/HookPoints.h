// The five moments of an update that the driver announces through the callback hub, and
// the records it hands over. Each hook point is gated by its configuration switch: when
// the switch is off nothing is signalled, the result is EFI_SUCCESS and the answer 0.
#pragma once
#include "../base/Uefi.h"

// Record of the four image hook points: the accepted image the update works on.
struct ImageHookRecord {
  UINT32 Size;     // 0: 24
  UINT32 Verdict;  // 4: 0 when signalled; a hook sets 1 to refuse the image
  UINT64 Image;    // 8: address of mVerifiedImage
  UINT64 ImageSize;  // 16: mVerifiedImageSize
};
static_assert(offsetof(ImageHookRecord, Verdict) == 4);
static_assert(offsetof(ImageHookRecord, Image) == 8);
static_assert(offsetof(ImageHookRecord, ImageSize) == 16);
static_assert(sizeof(ImageHookRecord) == 24);

// Record of the debug-code hook point.
struct DebugCodeHookRecord {
  UINT32 Size;     // 0: 12
  UINT32 Handled;  // 4: 0 when signalled; a hook sets 1 to take the code over
  UINT32 Code;     // 8
};
static_assert(offsetof(DebugCodeHookRecord, Handled) == 4);
static_assert(offsetof(DebugCodeHookRecord, Code) == 8);
static_assert(sizeof(DebugCodeHookRecord) == 12);

// The answer with which a hook refuses an image or takes a debug code over.
constexpr UINT32 kHookAnswerTaken = 1;

// {24, 0, mVerifiedImage, mVerifiedImageSize}
ImageHookRecord MakeImageHookRecord();

// An image was accepted and copied (gImageAcceptHookGuid, ImageAcceptHookEnabled). *Verdict
// receives the hooks' answer; the caller refuses the image when it is kHookAnswerTaken.
EFI_STATUS SignalImageAcceptHook(UINT32 *Verdict);
// The image is being written (gBiosWriteStartHookGuid, WriteStartHookEnabled).
EFI_STATUS SignalWriteStartHook();
// The update parameters were recorded (gIbbUpdateHookGuid, IbbUpdateHookEnabled).
EFI_STATUS SignalIbbUpdateHook();
// The flash was reported complete (gFlashCompleteHookGuid, FlashCompleteHookEnabled).
EFI_STATUS SignalFlashCompleteHook();
// A debug code is being emitted (gDebugCodeHookGuid, DebugCodeHookEnabled). *Handled
// receives the hooks' answer; kHookAnswerTaken means the code must not go anywhere else.
EFI_STATUS SignalDebugCodeHook(UINT32 Code, UINT32 *Handled);
