// Module state of the PSP directory subsystem: the assertion reporter's enable flag, the
// located debug print interface and the buffer store. Everything starts zeroed and lives
// for the boot.
#pragma once
#include "../base/Uefi.h"

struct PspDebugPrintProtocol;

struct HeapBufferSlot {
  UINT32 Handle;
  UINT32 Size;
  UINT8 *Data;
};
constexpr UINTN kHeapBufferCapacity = 16;

extern UINT8 mPspAssertEnabled;
extern PspDebugPrintProtocol *mPspDebugPrint;
extern HeapBufferSlot mHeapBuffers[kHeapBufferCapacity];
extern UINTN mHeapBufferCount;

// Frees the buffer store through gBS (still set when the fixture calls it) and forgets the rest.
HOST_ONLY(void ResetPspStateForTest();)
