#include "DriverLoading.h"

#include "../../src/base/Globals.h"
#include "../../src/base/Guids.h"
#include "../../src/base/ScopeGuard.h"
#include "../common/ConsolePrint.h"
#include "../common/VolumeFiles.h"

void ConnectAllControllers() {
  UINTN Count = 0;
  EFI_HANDLE *Handles = nullptr;
  if (EfiError(gBS->LocateHandleBuffer(AllHandles, nullptr, nullptr, &Count, &Handles)) || Handles == nullptr) {
    return;
  }
  ScopeGuard Free([Handles] { gBS->FreePool(Handles); });
  for (UINTN Index = 0; Index < Count; Index++) {
    gBS->ConnectController(Handles[Index], nullptr, nullptr, TRUE);
  }
}

EFI_STATUS LoadDriver(EFI_HANDLE ImageHandle, EFI_FILE_HANDLE Root, const char *Path) {
  PoolBuffer Image;
  EFI_STATUS Status = ReadWholeFile(Root, Path, Image);
  if (EfiError(Status)) {
    ConsolePrint("  reading %a: %lx\r\n", Path, Status);
    return Status;
  }
  EFI_HANDLE Driver = nullptr;
  Status = gBS->LoadImage(FALSE, ImageHandle, nullptr, Image.Data(), Image.Size(), &Driver);
  if (EfiError(Status)) {
    ConsolePrint("  loading %a: %lx\r\n", Path, Status);
    return Status;
  }
  Status = gBS->StartImage(Driver, nullptr, nullptr);
  if (EfiError(Status)) {
    ConsolePrint("  starting %a: %lx\r\n", Path, Status);
  }
  return Status;
}

BiosImageInterfaceProtocol *LocateServices(const EFI_GUID &Guid) {
  VOID *Interface = nullptr;
  return gBS->LocateProtocol(const_cast<EFI_GUID *>(&Guid), nullptr, &Interface) == EFI_SUCCESS
             ? static_cast<BiosImageInterfaceProtocol *>(Interface)
             : nullptr;
}

EmuPlatform *LocateEmuPlatform() {
  VOID *Interface = nullptr;
  return gBS->LocateProtocol(const_cast<EFI_GUID *>(&gEmuPlatformProtocolGuid), nullptr, &Interface) == EFI_SUCCESS
             ? static_cast<EmuPlatform *>(Interface)
             : nullptr;
}

BOOLEAN ReportServiceTable(const char *Name, BiosImageInterfaceProtocol *Services) {
  if (Services == nullptr) {
    ConsolePrint("%a: not installed\r\n", Name);
    return FALSE;
  }
  UINT8 Major = 0xFF, Minor = 0xFF;
  UINT64 Token = 0xFFFF;
  EFI_STATUS Version = Services->BiosGetDriverVersion(Services, &Major, &Minor);
  EFI_STATUS TokenStatus = Services->BiosGetUpdateToken(Services, &Token);
  EFI_STATUS Slot7 = Services->Reserved7(Services);
  EFI_STATUS Slot8 = Services->Reserved8(Services);
  EFI_STATUS Slot9 = Services->Reserved9(Services);
  EFI_STATUS Slot10 = Services->Reserved10(Services);
  ConsolePrint("%a: version %d.%d (%lx), token %ld (%lx), slots 7-10 %lx %lx %lx %lx\r\n", Name, Major, Minor, Version,
               Token, TokenStatus, Slot7, Slot8, Slot9, Slot10);
  return Version == EFI_SUCCESS && Major == 2 && Minor == 0 && TokenStatus == EFI_SUCCESS && Token == 0 &&
         Slot7 == EFI_NOT_READY && Slot8 == EFI_NOT_READY && Slot9 == EFI_UNSUPPORTED && Slot10 == EFI_UNSUPPORTED;
}
