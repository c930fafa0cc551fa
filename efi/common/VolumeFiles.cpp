#include "VolumeFiles.h"

#include "../../src/base/BaseLib.h"
#include "../../src/base/Globals.h"
#include "../../src/base/Guids.h"
#include "../../src/base/ScopeGuard.h"

namespace {

constexpr UINTN kMaxPath = 128;

// The ASCII path as UTF-16 in Wide; FALSE when it does not fit.
bool WidePath(const char *Path, CHAR16 (&Wide)[kMaxPath]) {
  UINTN Index = 0;
  for (; Path[Index] != 0; Index++) {
    if (Index + 1 >= kMaxPath) {
      return false;
    }
    Wide[Index] = static_cast<CHAR16>(static_cast<unsigned char>(Path[Index]));
  }
  Wide[Index] = 0;
  return true;
}

EFI_STATUS Open(EFI_FILE_HANDLE Root, const char *Path, UINT64 Mode, UINT64 Attributes, EFI_FILE_HANDLE &File) {
  CHAR16 Wide[kMaxPath];
  if (Root == nullptr || !WidePath(Path, Wide)) {
    return EFI_INVALID_PARAMETER;
  }
  File = nullptr;
  EFI_STATUS Status = Root->Open(Root, &File, Wide, Mode, Attributes);
  return !EfiError(Status) && File == nullptr ? EFI_NOT_FOUND : Status;
}

}  // namespace

EFI_FILE_HANDLE FindVolumeHolding(const char *File) {
  UINTN Count = 0;
  EFI_HANDLE *Handles = nullptr;
  if (EfiError(gBS->LocateHandleBuffer(ByProtocol, const_cast<EFI_GUID *>(&gEfiSimpleFileSystemProtocolGuid), nullptr,
                                       &Count, &Handles)) ||
      Handles == nullptr) {
    return nullptr;
  }
  ScopeGuard FreeHandles([Handles] { gBS->FreePool(Handles); });
  for (UINTN Index = 0; Index < Count; Index++) {
    EFI_FILE_IO_INTERFACE *Volume = nullptr;
    EFI_FILE_HANDLE Root = nullptr;
    if (EfiError(gBS->HandleProtocol(Handles[Index], const_cast<EFI_GUID *>(&gEfiSimpleFileSystemProtocolGuid),
                                     reinterpret_cast<VOID **>(&Volume))) ||
        EfiError(Volume->OpenVolume(Volume, &Root))) {
      continue;
    }
    EFI_FILE_HANDLE Probe = nullptr;
    if (!EfiError(Open(Root, File, EFI_FILE_MODE_READ, 0, Probe))) {
      Probe->Close(Probe);
      return Root;
    }
    Root->Close(Root);
  }
  return nullptr;
}

EFI_FILE_HANDLE OpenImageVolume(EFI_HANDLE ImageHandle) {
  EFI_LOADED_IMAGE *Loaded = nullptr;
  EFI_FILE_IO_INTERFACE *Volume = nullptr;
  EFI_FILE_HANDLE Root = nullptr;
  if (EfiError(gBS->HandleProtocol(ImageHandle, const_cast<EFI_GUID *>(&gEfiLoadedImageProtocolGuid),
                                   reinterpret_cast<VOID **>(&Loaded))) ||
      EfiError(gBS->HandleProtocol(Loaded->DeviceHandle, const_cast<EFI_GUID *>(&gEfiSimpleFileSystemProtocolGuid),
                                   reinterpret_cast<VOID **>(&Volume))) ||
      EfiError(Volume->OpenVolume(Volume, &Root))) {
    return nullptr;
  }
  return Root;
}

EFI_STATUS ReadWholeFile(EFI_FILE_HANDLE Root, const char *Path, PoolBuffer &Contents) {
  Contents.Reset();
  EFI_FILE_HANDLE File = nullptr;
  EFI_STATUS Status = Open(Root, Path, EFI_FILE_MODE_READ, 0, File);
  if (EfiError(Status)) {
    return Status;
  }
  ScopeGuard Close([File] { File->Close(File); });
  UINT64 End = 0;
  File->SetPosition(File, 0xFFFFFFFFFFFFFFFFull);
  File->GetPosition(File, &End);
  File->SetPosition(File, 0);
  if (End == 0) {
    return EFI_END_OF_FILE;  // nothing to hold
  }
  PoolBuffer Buffer = PoolBuffer::Allocate(static_cast<UINTN>(End));
  if (!Buffer) {
    return EFI_OUT_OF_RESOURCES;
  }
  UINTN Size = static_cast<UINTN>(End);
  Status = File->Read(File, &Size, Buffer.Data());
  if (EfiError(Status)) {
    return Status;
  }
  if (Size != End) {
    return EFI_VOLUME_CORRUPTED;
  }
  Contents = static_cast<PoolBuffer &&>(Buffer);
  return EFI_SUCCESS;
}

EFI_STATUS WriteWholeFile(EFI_FILE_HANDLE Root, const char *Path, const VOID *Data, UINTN Size) {
  EFI_FILE_HANDLE File = nullptr;
  if (!EfiError(Open(Root, Path, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0, File))) {
    File->Delete(File);  // closes the handle
  }
  EFI_STATUS Status =
      Open(Root, Path, EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, EFI_FILE_ARCHIVE, File);
  if (EfiError(Status)) {
    return Status;
  }
  UINTN Written = Size;
  Status = File->Write(File, &Written, const_cast<VOID *>(Data));
  EFI_STATUS Closed = File->Close(File);
  if (EfiError(Status)) {
    return Status;
  }
  return Written != Size ? EFI_VOLUME_FULL : Closed;
}

EFI_STATUS MakeDirectory(EFI_FILE_HANDLE Root, const char *Path) {
  EFI_FILE_HANDLE Directory = nullptr;
  EFI_STATUS Status = Open(Root, Path, EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE,
                           EFI_FILE_DIRECTORY, Directory);
  if (!EfiError(Status)) {
    Directory->Close(Directory);
  }
  return Status;
}
