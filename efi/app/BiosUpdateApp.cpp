// The update application used inside OVMF: it loads the emulated platform and the driver
// from its own volume, calls the driver's services through both protocol GUIDs, prints
// one result line on the console and shuts the machine down.
#include "../../src/base/BaseLib.h"
#include "../../src/base/Char16.h"
#include "../../src/base/Globals.h"
#include "../../src/base/Guids.h"
#include "../../src/base/Print.h"
#include "../../src/driver/BiosImageInterface.h"

namespace {

void Print(const char *Format, ...) __attribute__((ms_abi));
void Print(const char *Format, ...) {
  CHAR16 Line[512];
  VA_LIST Arguments;
  VA_START(Arguments, Format);
  UnicodeVSPrintAsciiFormat(Line, sizeof(Line), Format, Arguments);
  VA_END(Arguments);
  gST->ConOut->OutputString(gST->ConOut, Line);
}

EFI_STATUS ReadFile(EFI_FILE_HANDLE Root, const CHAR16 *Path, VOID **Buffer, UINTN *Size) {
  EFI_FILE_HANDLE File = nullptr;
  EFI_STATUS Status = Root->Open(Root, &File, const_cast<CHAR16 *>(Path), EFI_FILE_MODE_READ, 0);
  if (EfiError(Status)) {
    return Status;
  }
  UINT64 End = 0;
  File->SetPosition(File, 0xFFFFFFFFFFFFFFFFull);
  File->GetPosition(File, &End);
  File->SetPosition(File, 0);
  *Size = End;
  Status = gBS->AllocatePool(EfiBootServicesData, *Size, Buffer);
  if (!EfiError(Status)) {
    Status = File->Read(File, Size, *Buffer);
  }
  File->Close(File);
  return Status;
}

EFI_STATUS LoadDriver(EFI_HANDLE ImageHandle, EFI_FILE_HANDLE Root, const CHAR16 *Path) {
  VOID *Buffer = nullptr;
  UINTN Size = 0;
  EFI_STATUS Status = ReadFile(Root, Path, &Buffer, &Size);
  if (EfiError(Status)) {
    Print("  reading %s: %lx\r\n", Path, Status);
    return Status;
  }
  EFI_HANDLE Driver = nullptr;
  Status = gBS->LoadImage(FALSE, ImageHandle, nullptr, Buffer, Size, &Driver);
  gBS->FreePool(Buffer);
  if (EfiError(Status)) {
    Print("  loading %s: %lx\r\n", Path, Status);
    return Status;
  }
  Status = gBS->StartImage(Driver, nullptr, nullptr);
  if (EfiError(Status)) {
    Print("  starting %s: %lx\r\n", Path, Status);
  }
  return Status;
}

BiosImageInterfaceProtocol *Locate(const EFI_GUID &Guid) {
  VOID *Interface = nullptr;
  return gBS->LocateProtocol(const_cast<EFI_GUID *>(&Guid), nullptr, &Interface) == EFI_SUCCESS
             ? static_cast<BiosImageInterfaceProtocol *>(Interface)
             : nullptr;
}

bool ReportTable(const char *Name, BiosImageInterfaceProtocol *Services) {
  if (Services == nullptr) {
    Print("%a: not installed\r\n", Name);
    return false;
  }
  UINT8 Major = 0xFF, Minor = 0xFF;
  UINT64 Token = 0xFFFF;
  EFI_STATUS Version = Services->BiosGetDriverVersion(Services, &Major, &Minor);
  EFI_STATUS TokenStatus = Services->BiosGetUpdateToken(Services, &Token);
  EFI_STATUS Slot7 = Services->Reserved7(Services);
  EFI_STATUS Slot8 = Services->Reserved8(Services);
  EFI_STATUS Slot9 = Services->Reserved9(Services);
  EFI_STATUS Slot10 = Services->Reserved10(Services);
  Print("%a: version %d.%d (%lx), token %ld (%lx), slots 7-10 %lx %lx %lx %lx\r\n", Name, Major, Minor, Version, Token,
        TokenStatus, Slot7, Slot8, Slot9, Slot10);
  return Version == EFI_SUCCESS && Major == 2 && Minor == 0 && TokenStatus == EFI_SUCCESS && Token == 0 &&
         Slot7 == EFI_NOT_READY && Slot8 == EFI_NOT_READY && Slot9 == EFI_UNSUPPORTED && Slot10 == EFI_UNSUPPORTED;
}

// Verifies the signed image and its tampered twin from the volume; the first must be
// accepted and the second refused.
bool VerifyImages(EFI_FILE_HANDLE Root, BiosImageInterfaceProtocol *Services) {
  struct Case {
    const char *Name;
    const CHAR16 *Image;
    EFI_STATUS Expected;
  };
  const Case Cases[] = {{"signed image", "\\new.bin"_u16, EFI_SUCCESS},
                        {"tampered image", "\\bad.bin"_u16, EFI_SECURITY_VIOLATION}};
  VOID *Signature = nullptr;
  UINTN SignatureSize = 0;
  if (Services == nullptr || EfiError(ReadFile(Root, "\\new.sig"_u16, &Signature, &SignatureSize))) {
    Print("verify: no signature on the volume\r\n");
    return false;
  }
  bool Passed = true;
  for (const Case &Each : Cases) {
    VOID *Image = nullptr;
    UINTN ImageSize = 0;
    EFI_STATUS Status = ReadFile(Root, Each.Image, &Image, &ImageSize);
    if (!EfiError(Status)) {
      Status = Services->BiosVerifySignature(Services, Image, ImageSize, Signature, SignatureSize);
    }
    Print("BiosVerifySignature, %a (%ld bytes): %lx, expected %lx\r\n", Each.Name, ImageSize, Status, Each.Expected);
    Passed = Passed && Status == Each.Expected;
    // The driver works from its own copy of an accepted image.
    if (Image != nullptr) {
      gBS->FreePool(Image);
    }
  }
  gBS->FreePool(Signature);
  return Passed;
}

}  // namespace

extern "C" EFI_STATUS efi_main(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  gImageHandle = ImageHandle;
  gST = SystemTable;
  gBS = SystemTable->BootServices;
  gRT = SystemTable->RuntimeServices;
  Print("\r\nBiosUpdateApp: starting\r\n");

  bool Passed = false;
  EFI_LOADED_IMAGE *Loaded = nullptr;
  EFI_FILE_IO_INTERFACE *Volume = nullptr;
  EFI_FILE_HANDLE Root = nullptr;
  EFI_GUID LoadedImageGuid = gEfiLoadedImageProtocolGuid;
  EFI_GUID FileSystemGuid = gEfiSimpleFileSystemProtocolGuid;
  EFI_STATUS Status = gBS->HandleProtocol(ImageHandle, &LoadedImageGuid, reinterpret_cast<VOID **>(&Loaded));
  if (!EfiError(Status)) {
    Status = gBS->HandleProtocol(Loaded->DeviceHandle, &FileSystemGuid, reinterpret_cast<VOID **>(&Volume));
  }
  if (!EfiError(Status)) {
    Status = Volume->OpenVolume(Volume, &Root);
  }
  if (!EfiError(Status)) {
    Status = LoadDriver(ImageHandle, Root, "\\EFI\\BOOT\\EmuPlatformDxe.efi"_u16);
    Print("EmuPlatformDxe: %lx\r\n", Status);
  }
  if (!EfiError(Status)) {
    Status = LoadDriver(ImageHandle, Root, "\\EFI\\BOOT\\BiosImageInterfaceDxe.efi"_u16);
    Print("BiosImageInterfaceDxe: %lx\r\n", Status);
  }
  if (!EfiError(Status)) {
    bool First = ReportTable("BiosImageInterfaceProtocol", Locate(gBiosImageInterfaceProtocolGuid));
    bool Second = ReportTable("BiosImageInterfaceProtocol2", Locate(gBiosImageInterfaceProtocol2Guid));
    bool Verified = VerifyImages(Root, Locate(gBiosImageInterfaceProtocolGuid));
    Passed = First && Second && Verified;
  }
  Print("BIOS-IMAGE-INTERFACE-RESULT: %a\r\n", Passed ? "PASS" : "FAIL");
  gRT->ResetSystem(EfiResetShutdown, EFI_SUCCESS, 0, nullptr);
  return EFI_SUCCESS;
}
