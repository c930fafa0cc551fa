// The firmware's tables, kept where the shared code looks for them (gImageHandle, gST, gBS,
// gRT); every image of the run sets them first thing in its entry point.
#pragma once
#include "../../src/base/Globals.h"

inline void AdoptFirmwareTables(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  gImageHandle = ImageHandle;
  gST = SystemTable;
  gBS = SystemTable->BootServices;
  gRT = SystemTable->RuntimeServices;
}
