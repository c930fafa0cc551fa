#include "HeapBuffer.h"

#include "../base/BaseLib.h"
#include "../base/Pool.h"
#include "../driver/LibraryList.h"
#include "PspAssert.h"
#include "PspConfig.h"
#include "PspState.h"

BOOLEAN GetHeapBuffer(UINT32 Handle, UINT32 Size, VOID **Buffer) {
  for (UINTN Index = 0; Index < mHeapBufferCount; Index++) {
    if (mHeapBuffers[Index].Handle == Handle) {
      // A buffer registered smaller than asked for would be overrun by its user.
      if (mHeapBuffers[Index].Size < Size) {
        return FALSE;
      }
      *Buffer = mHeapBuffers[Index].Data;
      return TRUE;
    }
  }
  PoolBuffer Created = mHeapBufferCount < kHeapBufferCapacity ? PoolBuffer::AllocateZeroed(Size) : PoolBuffer();
  if (!Created) {
    AssertReport(kAssertHeapBufferUnavailable);
    return FALSE;
  }
  // The store keeps its buffers for the boot.
  mHeapBuffers[mHeapBufferCount++] = {Handle, Size, Created.Release()};
  *Buffer = mHeapBuffers[mHeapBufferCount - 1].Data;
  return TRUE;
}

// The configuration-buffer library's start: the assertion reporter takes its shipped switch.
EFI_STATUS EFIAPI AmdCfgPcdBufLibDxeConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *) {
  mPspAssertEnabled = PspAssertEnabled;
  return EFI_SUCCESS;
}
