// The start-up and shut-down steps of the general firmware libraries the driver is
// built with: table globals, HOB list, debug mask, timer and the like.
#include "../base/BaseLib.h"
#include "../base/Char16.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/Hardware.h"
#include "../base/Hob.h"
#include "../psp/Soc.h"
#include "Config.h"
#include "DynamicPcd.h"
#include "LibraryList.h"

namespace {

struct DebugMaskProtocol;
typedef EFI_STATUS(EFIAPI *DEBUG_MASK_GET)(DebugMaskProtocol *This, UINTN *CurrentDebugMask);
typedef EFI_STATUS(EFIAPI *DEBUG_MASK_SET)(DebugMaskProtocol *This, UINTN NewDebugMask);
struct DebugMaskProtocol {
  INT64 Revision;
  DEBUG_MASK_GET GetDebugMask;
  DEBUG_MASK_SET SetDebugMask;
};

VOID *mDevicePathUtilities = nullptr;
VOID *mSmbusHc = nullptr;
UINT32 mDebugPrintErrorLevel = 0;
EFI_EVENT mExitBootServicesEvent = nullptr;
BOOLEAN mAfterExitBootServices = FALSE;
BOOLEAN mDebugMaskInstalled = FALSE;

EFI_STATUS EFIAPI GetDebugMask(DebugMaskProtocol *This, UINTN *CurrentDebugMask) {
  (void)This;
  if (CurrentDebugMask == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  *CurrentDebugMask = mDebugPrintErrorLevel;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SetDebugMask(DebugMaskProtocol *This, UINTN NewDebugMask) {
  (void)This;
  mDebugPrintErrorLevel = static_cast<UINT32>(NewDebugMask);
  return EFI_SUCCESS;
}

DebugMaskProtocol mDebugMaskProtocol = {0x10000, GetDebugMask, SetDebugMask};

VOID EFIAPI OnExitBootServices(EFI_EVENT Event, VOID *Context) {
  (void)Event;
  (void)Context;
  mAfterExitBootServices = TRUE;
}

// The configuration table entry published when nobody else has: boot-services pool, since
// the firmware keeps the table after this image is unloaded on a failed entry.
UINT64 *mPublishedTscFrequency = nullptr;

const VOID *FindConfigurationTable(EFI_SYSTEM_TABLE *SystemTable, const EFI_GUID *Guid) {
  for (UINTN Index = 0; SystemTable != nullptr && Index < SystemTable->NumberOfTableEntries; Index++) {
    if (CompareGuid(&SystemTable->ConfigurationTable[Index].VendorGuid, Guid)) {
      return SystemTable->ConfigurationTable[Index].VendorTable;
    }
  }
  return nullptr;
}

}  // namespace

EFI_STATUS EFIAPI UefiBootServicesTableLibConstructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  gImageHandle = ImageHandle;
  gST = SystemTable;
  gBS = SystemTable->BootServices;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI DevicePathLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *) {
  return gBS->LocateProtocol(const_cast<EFI_GUID *>(&gEfiDevicePathUtilitiesProtocolGuid), nullptr,
                             &mDevicePathUtilities);
}

EFI_STATUS EFIAPI UefiRuntimeServicesTableLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *SystemTable) {
  gRT = SystemTable->RuntimeServices;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI EmptyLibraryConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI EmptyLibraryDestructor(EFI_HANDLE, EFI_SYSTEM_TABLE *) { return EFI_SUCCESS; }

EFI_STATUS EFIAPI HobLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *SystemTable) { return CacheHobList(SystemTable); }

EFI_STATUS EFIAPI DebugPrintErrorLevelLibConstructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *) {
  mDebugPrintErrorLevel = gConfig.PcdDebugPrintErrorLevel;
  mAfterExitBootServices = FALSE;
  EFI_HANDLE Handle = ImageHandle;
  mDebugMaskInstalled = gBS->InstallProtocolInterface(&Handle, const_cast<EFI_GUID *>(&gEfiDebugMaskProtocolGuid),
                                                      EFI_NATIVE_INTERFACE, &mDebugMaskProtocol) == EFI_SUCCESS;
  gBS->CreateEventEx(EVT_NOTIFY_SIGNAL, TPL_NOTIFY, OnExitBootServices, nullptr, &gEfiEventExitBootServicesGuid,
                     &mExitBootServicesEvent);

  UINT32 Mask = 0;
  UINTN Size = sizeof(Mask);
  if (gRT->GetVariable(const_cast<CHAR16 *>("EFIDebug"_u16), const_cast<EFI_GUID *>(&gEfiGenericVariableGuid),
                       nullptr, &Size, &Mask) == EFI_SUCCESS &&
      Size == sizeof(Mask)) {
    mDebugPrintErrorLevel = Mask;
  } else {
    const EFI_HOB_GUID_TYPE *Hob = GetFirstGuidHob(&gEfiGenericVariableGuid);
    if (Hob != nullptr && Hob->Header.HobLength == 32) {
      mDebugPrintErrorLevel = ReadUnaligned32(GuidHobData(Hob));
    }
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI DebugPrintErrorLevelLibDestructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *) {
  if (mExitBootServicesEvent != nullptr) {
    gBS->CloseEvent(mExitBootServicesEvent);
    mExitBootServicesEvent = nullptr;
  }
  if (mDebugMaskInstalled) {
    gBS->UninstallProtocolInterface(ImageHandle, const_cast<EFI_GUID *>(&gEfiDebugMaskProtocolGuid),
                                    &mDebugMaskProtocol);
    mDebugMaskInstalled = FALSE;
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SmbusLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *) {
  return gBS->LocateProtocol(const_cast<EFI_GUID *>(&gEfiSmbusHcProtocolGuid), nullptr, &mSmbusHc);
}

// The time-stamp-counter frequency for busy waits: the published configuration table,
// or a measurement against the firmware's Stall, then published for the drivers after us.
EFI_STATUS EFIAPI TscTimerLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *SystemTable) {
  const VOID *Published = FindConfigurationTable(SystemTable, &gEfiTscFrequencyGuid);
  if (Published != nullptr) {
    Hw::SetTscFrequency(ReadUnaligned64(Published));
    return EFI_SUCCESS;
  }
  VOID *Table = nullptr;
  if (gBS->AllocatePool(EfiBootServicesData, sizeof(UINT64), &Table) != EFI_SUCCESS || Table == nullptr) {
    return EFI_OUT_OF_RESOURCES;
  }
  WriteUnaligned64(Table, Hw::TscFrequency());
  EFI_STATUS Status = gBS->InstallConfigurationTable(const_cast<EFI_GUID *>(&gEfiTscFrequencyGuid), Table);
  if (Status != EFI_SUCCESS) {
    gBS->FreePool(Table);
    return Status;
  }
  mPublishedTscFrequency = static_cast<UINT64 *>(Table);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI DxeServicesTableLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *SystemTable) {
  gDS = const_cast<VOID *>(FindConfigurationTable(SystemTable, &gEfiDxeServicesTableGuid));
  return EFI_SUCCESS;
}

// ---- AMD reference-code support: set-up whose content this driver does not use -----------
EFI_STATUS EFIAPI S3BootScriptLibInitialize(EFI_HANDLE, EFI_SYSTEM_TABLE *) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI S3BootScriptLibDeinitialize(EFI_HANDLE, EFI_SYSTEM_TABLE *) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI AmdS3SaveLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI AmdS3SaveLibDestructor(EFI_HANDLE, EFI_SYSTEM_TABLE *) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI AmdHeapConfigLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *) { return EFI_SUCCESS; }

EFI_STATUS EFIAPI AmdBaseLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *) {
  // The AMD library reads its setting byte and identifies the processor in the SoC
  // information table at start; the driver keeps nothing of either (the PSP code looks the
  // processor up again when it needs it).
  (void)PcdGet8(&gAmdPcdTokenSpaceGuid, kAmdLibrarySettingToken);
  const SocInfo *Info = nullptr;
  (void)FindSocInfo(&Info);
  return EFI_SUCCESS;
}

#if defined(BIOS_HOST_BUILD)
void ResetEdkLibrariesForTest() {
  mDevicePathUtilities = nullptr;
  mSmbusHc = nullptr;
  mDebugPrintErrorLevel = 0;
  mExitBootServicesEvent = nullptr;
  mAfterExitBootServices = FALSE;
  mDebugMaskInstalled = FALSE;
  mPublishedTscFrequency = nullptr;  // the firmware's now
}
#endif
