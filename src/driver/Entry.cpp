// The module entry point and the driver's own initialisation: read the configuration,
// find the platform protocols, build the service table and install it under both GUIDs.
#include "Entry.h"

#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/Hob.h"
#include "../base/Pool.h"
#include "../platform/Cmos.h"
#include "BiosImageInterface.h"
#include "Config.h"
#include "DriverState.h"
#include "DynamicPcd.h"
#include "LibraryList.h"
#include "Trace.h"

namespace {

constexpr UINT8 kUpdateToolProbeIndex = 0xF8;

void FillServiceTable(BiosImageInterfaceProtocol *Table) {
  Table->BiosGetDriverVersion = BiosGetDriverVersion;
  Table->BiosGetUpdateToken = BiosGetUpdateToken;
  Table->BiosQueryImage = BiosQueryImage;
  Table->BiosReadImage = BiosReadImage;
  Table->BiosWriteImage = BiosWriteImage;
  Table->BiosVerifySignature = BiosVerifySignature;
  Table->SetFlashCompletionStatus = SetFlashCompletionStatus;
  Table->Reserved7 = BiosReservedNotReady;
  Table->Reserved8 = BiosReservedNotReady;
  Table->Reserved9 = BiosReservedUnsupported;
  Table->Reserved10 = BiosReservedUnsupported;
}

EFI_STATUS Locate(const EFI_GUID &Guid, VOID **Interface) {
  return gBS->LocateProtocol(const_cast<EFI_GUID *>(&Guid), nullptr, Interface);
}

template <typename T> EFI_STATUS LocateInto(const EFI_GUID &Guid, T *&Interface) {
  return Locate(Guid, reinterpret_cast<VOID **>(&Interface));
}

// A zeroed service table with every slot filled, or an empty holder when pool runs out.
PoolBuffer NewServiceTable() {
  PoolBuffer Table = PoolBuffer::AllocateZeroed(sizeof(BiosImageInterfaceProtocol));
  if (Table) {
    FillServiceTable(Table.As<BiosImageInterfaceProtocol>());
  }
  return Table;
}

// Installs a table on a new handle. Once installed the firmware owns it for good; after a
// failed installation the holder still owns it and frees it.
EFI_STATUS InstallOnNewHandle(const EFI_GUID &Guid, PoolBuffer &Table) {
  EFI_HANDLE Handle = nullptr;
  EFI_STATUS Status =
      gBS->InstallProtocolInterface(&Handle, const_cast<EFI_GUID *>(&Guid), EFI_NATIVE_INTERFACE, Table.Data());
  if (Status == EFI_SUCCESS) {
    Table.Release();
  }
  return Status;
}

}  // namespace

EFI_STATUS BiosImageInterfaceEntry(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)SystemTable;
  if (!gConfig.PcdBiosImageInterfaceEnable) {
    return EFI_NOT_STARTED;
  }

  mDxeSignCheck = gConfig.DxeSignCheckFlag;
  mUpdateHobsRequired = gConfig.UpdateHobsRequired;
  BootBlockUpdateEnabled = PcdGetBool(&gPlatformPcdTokenSpaceGuid, kBootBlockUpdateEnabledToken);

  const VOID *HobList = GetHobList();
  if (HobList == nullptr) {
    return EFI_NOT_FOUND;
  }
  mBootMode = static_cast<const EFI_HOB_HANDOFF_INFO_TABLE *>(HobList)->BootMode;

  EFI_STATUS Status;
  if (mPlatformConfig == nullptr && (Status = LocateInto(gPlatformConfigProtocolGuid, mPlatformConfig)) != EFI_SUCCESS) {
    return Status;
  }
  if (mPlatformConfig->FlashDevice == nullptr) {
    PlatformFlashDeviceProtocol *FlashDevice = nullptr;
    Status = LocateInto(gPlatformFlashDeviceProtocolGuid, FlashDevice);
    if (Status != EFI_SUCCESS) {
      return Status;
    }
    mPlatformConfig->FlashDevice = FlashDevice;
  }
  if (mPlatformFlashService == nullptr &&
      (Status = LocateInto(gPlatformFlashServiceProtocolGuid, mPlatformFlashService)) != EFI_SUCCESS) {
    return Status;
  }
  if (BootBlockUpdateEnabled && mBootBlockHandler == nullptr &&
      (Status = LocateInto(gBootBlockHandlerProtocolGuid, mBootBlockHandler)) != EFI_SUCCESS) {
    return Status;
  }

  mFlashBase = gConfig.PcdFlashBase;
  TRACE("  mFlashBase = %x", mFlashBase);
  if (mFlashBase == 0) {
    TRACE("  FlashBase not found");
    return EFI_OUT_OF_RESOURCES;
  }
  mUpdateStatusBlock = mPlatformConfig->UpdateStatusBlock;
  mImageHandle = ImageHandle;

  PoolBuffer First = NewServiceTable();
  if (!First) {
    return EFI_OUT_OF_RESOURCES;
  }
  mBiosImageInterface = First.As<BiosImageInterfaceProtocol>();
  if (InstallOnNewHandle(gBiosImageInterfaceProtocolGuid, First) != EFI_SUCCESS) {
    First.Reset();  // a failed first installation is not reported; the entry goes on
    mBiosImageInterface = nullptr;
  }

  PoolBuffer Second = NewServiceTable();
  if (!Second) {
    return EFI_OUT_OF_RESOURCES;
  }
  mBiosImageInterface2 = Second.As<BiosImageInterfaceProtocol>();
  EFI_STATUS SecondStatus = InstallOnNewHandle(gBiosImageInterfaceProtocol2Guid, Second);
  Second.Reset();  // freed when not installed; mBiosImageInterface2 keeps its value

  // Update-tool probe: 0xFF in CMOS 0xF8 asks for the update files to be staged on disk.
  const FlashServiceData *Data = mPlatformFlashService->PlatformData;
  if (Data != nullptr && ReadCmosPort(Data->CmosIndexPort, Data->CmosDataPort, kUpdateToolProbeIndex) == 0xFF) {
    mStageUpdateToDisk = 1;
  }
  return SecondStatus;
}

EFI_STATUS EFIAPI BiosImageInterfaceUnload(EFI_HANDLE ImageHandle) {
  // The module's unload list is empty; only the libraries are stopped.
  RunLibraryDestructors(ImageHandle, gST);
  return EFI_SUCCESS;
}

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  if (gConfig.MinimumSystemTableRevision != 0 && SystemTable->Hdr.Revision < gConfig.MinimumSystemTableRevision) {
    return EFI_INCOMPATIBLE_VERSION;
  }
  RunLibraryConstructors(ImageHandle, SystemTable);
  if (gConfig.UnloadImageCount != 0) {
    EFI_LOADED_IMAGE *LoadedImage = nullptr;
    if (gBS->HandleProtocol(ImageHandle, const_cast<EFI_GUID *>(&gEfiLoadedImageProtocolGuid),
                            reinterpret_cast<VOID **>(&LoadedImage)) == EFI_SUCCESS) {
      LoadedImage->Unload = BiosImageInterfaceUnload;
    }
  }
  EFI_STATUS Status = BiosImageInterfaceEntry(ImageHandle, SystemTable);
  if (EfiError(Status)) {
    RunLibraryDestructors(ImageHandle, SystemTable);
  }
  return Status;
}
