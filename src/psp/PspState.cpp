#include "PspState.h"

#include "../base/Globals.h"

UINT8 mPspAssertEnabled = 0;
PspDebugPrintProtocol *mPspDebugPrint = nullptr;
HeapBufferSlot mHeapBuffers[kHeapBufferCapacity] = {};
UINTN mHeapBufferCount = 0;

#if defined(BIOS_HOST_BUILD)
void ResetPspStateForTest() {
  for (UINTN Index = 0; Index < mHeapBufferCount; Index++) {
    if (gBS != nullptr && mHeapBuffers[Index].Data != nullptr) {
      gBS->FreePool(mHeapBuffers[Index].Data);
    }
    mHeapBuffers[Index] = {};
  }
  mHeapBufferCount = 0;
  mPspAssertEnabled = 0;
  mPspDebugPrint = nullptr;
}
#endif
