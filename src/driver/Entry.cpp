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

// Allocates one zeroed service table and installs it on a new handle. The table is owned
// by the firmware from then on; a failed installation frees it again.
EFI_STATUS InstallServiceTable(const EFI_GUID &Guid, BiosImageInterfaceProtocol *&Table, bool &Allocated) {
  PoolBuffer Buffer = PoolBuffer::AllocateZeroed(sizeof(BiosImageInterfaceProtocol));
  Allocated = static_cast<bool>(Buffer);
  if (!Buffer) {
    return EFI_OUT_OF_RESOURCES;
  }
  auto *NewTable = Buffer.As<BiosImageInterfaceProtocol>();
  FillServiceTable(NewTable);
  Table = NewTable;
  EFI_HANDLE Handle = nullptr;
  EFI_STATUS Status =
      gBS->InstallProtocolInterface(&Handle, const_cast<EFI_GUID *>(&Guid), EFI_NATIVE_INTERFACE, NewTable);
  if (Status == EFI_SUCCESS) {
    Buffer.Release();
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

  bool Allocated = false;
  Status = InstallServiceTable(gBiosImageInterfaceProtocolGuid, mBiosImageInterface, Allocated);
  if (!Allocated) {
    return EFI_OUT_OF_RESOURCES;
  }
  if (Status != EFI_SUCCESS) {
    mBiosImageInterface = nullptr;  // the table was freed; the entry goes on
  }

  EFI_STATUS SecondStatus = InstallServiceTable(gBiosImageInterfaceProtocol2Guid, mBiosImageInterface2, Allocated);
  if (!Allocated) {
    return EFI_OUT_OF_RESOURCES;
  }

  // Update-tool probe: 0xFF in CMOS 0xF8 asks for the update files to be staged on disk.
  const PlatformDataBlock *Data = mPlatformFlashService->PlatformData;
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
