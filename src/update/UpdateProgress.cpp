#include "UpdateProgress.h"

#include "../base/BaseLib.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/Hardware.h"
#include "../base/Pool.h"
#include "../driver/Config.h"
#include "../driver/DriverState.h"
#include "../driver/Trace.h"
#include "../flash/ImageQuery.h"
#include "../psp/PspDirectoryFormat.h"
#include "../psp/RomAccess.h"

namespace {

// Every marker access goes through the platform service with this access type.
constexpr UINT8 kFlashAccessMarker = 1;
constexpr UINTN kRegionNameBufferSize = 10;

constexpr const char *kUpdateRegionNames[16] = {
    "IBB1R", "IBB2R", "IBB3R", "IBB4R", "IBB1", "IBB2", "IBB3", "IBB4", "OBB", "OBB2", "OBB3",
    "Undefine", "Undefine", "Undefine", "Undefine", "Undefine",
};

EFI_STATUS LocateUpdateLog(UpdateLogProtocol **Log) {
  *Log = nullptr;
  EFI_STATUS Status = gBS->LocateProtocol(const_cast<EFI_GUID *>(&gUpdateLogProtocolGuid), nullptr,
                                          reinterpret_cast<VOID **>(Log));
  if (!EFI_ERROR(Status) && *Log == nullptr) {
    Status = EFI_NOT_FOUND;
  }
  return Status;
}

EFI_STATUS WriteProgressCode(UpdateLogProtocol *Log, UINT32 Code) {
  return Log->WriteRecord(Log, kUpdateLogRecordProgressCode, sizeof(Code), &Code);
}

// Flash address of the primary PSP level-1 directory, from the EFS location word (an offset
// from the flash base, added in 32 bits).
BOOLEAN ReadPrimaryDirectoryAddress(UINT32 *Directory) {
  UINT32 Location = 0;
  if (!ReadRomByOffset(gConfig.EfsAddress + kEfsPspDirectoryOffset - mFlashBase, &Location, sizeof(Location))) {
    return FALSE;
  }
  *Directory = Location + mFlashBase;
  return TRUE;
}

// The two page buffers of a directory-block rewrite: the block as read and then changed, and
// the read-back.
struct DirectoryBlockBuffers {
  PageBuffer Block;
  PageBuffer ReadBack;
};

EFI_STATUS ReadDirectoryBlock(PlatformFlashServiceProtocol *Service, UINT32 Directory,
                              DirectoryBlockBuffers &Buffers) {
  Service->SetFlashAccessType(kFlashAccessMarker);
  Buffers.Block = PageBuffer::Allocate(1);
  Buffers.ReadBack = PageBuffer::Allocate(1);
  if (!Buffers.Block || !Buffers.ReadBack) {
    return EFI_OUT_OF_RESOURCES;
  }
  ZeroMem(Buffers.Block.Data(), kPspDirectoryBlockSize);
  ZeroMem(Buffers.ReadBack.Data(), kPspDirectoryBlockSize);
  return Service->ReadFlash(kFlashAccessMarker, Buffers.Block.Data(), Directory, kPspDirectoryBlockSize);
}

// Writes the block until it reads back as written.
EFI_STATUS WriteDirectoryBlockChecked(PlatformFlashServiceProtocol *Service, UINT32 Directory,
                                      const DirectoryBlockBuffers &Buffers) {
  for (UINTN Attempt = 0; Attempt < kMarkerWriteAttempts; Attempt++) {
    if (EFI_ERROR(Service->WriteFlash(kFlashAccessMarker, Directory, Buffers.Block.Data(), kPspDirectoryBlockSize))) {
      continue;
    }
    if (EFI_ERROR(Service->ReadFlash(kFlashAccessMarker, Buffers.ReadBack.Data(), Directory,
                                     kPspDirectoryBlockSize))) {
      continue;
    }
    if (CompareMem(Buffers.ReadBack.Data(), Buffers.Block.Data(), kPspDirectoryBlockSize) == 0) {
      return EFI_SUCCESS;
    }
  }
  return EFI_DEVICE_ERROR;
}

BOOLEAN HasPspCookie(const UINT8 *Block) { return ReadUnaligned32(Block) == kPspDirectoryCookie; }

}  // namespace

const CHAR8 *UpdateRegionName(UINT32 ProgressCode) {
  return reinterpret_cast<const CHAR8 *>(kUpdateRegionNames[ProgressCode & 0x0F]);
}

EFI_STATUS SetUpdateProgress(UINT32 Code) {
  CHAR8 Name[kRegionNameBufferSize] = {};
  const CHAR8 *Source = UpdateRegionName(Code);
  const UINTN Length = AsciiStrLen(Source);
  static_assert(sizeof("Undefine") <= kRegionNameBufferSize);
  CopyMem(Name, Source, Length + 1);

  UpdateLogProtocol *Log = nullptr;
  EFI_STATUS Status = LocateUpdateLog(&Log);
  if (EFI_ERROR(Status)) {
    return Status;
  }
  Status = WriteProgressCode(Log, Code);
  if (EFI_ERROR(Status)) {
    return Status;
  }
  return Log->WriteRecord(Log, kUpdateLogRecordRegionName, Length, Name);
}

EFI_STATUS ClearUpdateProgressRecord() {
  UpdateLogProtocol *Log = nullptr;
  EFI_STATUS Status = LocateUpdateLog(&Log);
  if (EFI_ERROR(Status)) {
    return Status;
  }
  return WriteProgressCode(Log, kProgressCleared);
}

EFI_STATUS Q42ClearUpdateProgress() {
  if (EFI_ERROR(ClearUpdateProgressRecord())) {
    TRACE("  Q42ClearUpdateProgress fail!!");
  }
  SetPspDirectorySignature(FALSE);
  return EFI_SUCCESS;
}

EFI_STATUS LocatePlatformFlashServiceAfresh(PlatformFlashServiceProtocol **Service) {
  *Service = nullptr;
  EFI_STATUS Status = gBS->LocateProtocol(const_cast<EFI_GUID *>(&gPlatformFlashServiceProtocolGuid), nullptr,
                                          reinterpret_cast<VOID **>(Service));
  if (EFI_ERROR(Status)) {
    return Status;
  }
  if (*Service == nullptr) {
    return EFI_NOT_FOUND;
  }
  mPlatformFlashService = *Service;  // a failed lookup never clears the one found at entry
  return EFI_SUCCESS;
}

EFI_STATUS SetPspDirectorySignature(BOOLEAN Invalidate) {
  PlatformFlashServiceProtocol *Service = nullptr;
  EFI_STATUS Status = LocatePlatformFlashServiceAfresh(&Service);
  if (EFI_ERROR(Status)) {
    return Status;
  }
  UINT32 Directory = 0;
  if (!ReadPrimaryDirectoryAddress(&Directory)) {
    return EFI_ACCESS_DENIED;
  }
  Status = Invalidate ? InvalidatePspDirectory(Service, Directory) : RestorePspDirectory(Service, Directory);
  return EFI_ERROR(Status) ? Status : EFI_SUCCESS;
}

EFI_STATUS InvalidatePspDirectory(PlatformFlashServiceProtocol *Service, UINT32 Directory) {
  DirectoryBlockBuffers Buffers;
  EFI_STATUS Status = ReadDirectoryBlock(Service, Directory, Buffers);
  if (EFI_ERROR(Status)) {
    return Status;
  }
  if (!HasPspCookie(Buffers.Block.Data())) {
    return EFI_NOT_FOUND;
  }
  WriteUnaligned32(Buffers.Block.Data(), 0);
  return WriteDirectoryBlockChecked(Service, Directory, Buffers);
}

EFI_STATUS RestorePspDirectory(PlatformFlashServiceProtocol *Service, UINT32 Directory) {
  DirectoryBlockBuffers Buffers;
  EFI_STATUS Status = ReadDirectoryBlock(Service, Directory, Buffers);
  if (EFI_ERROR(Status)) {
    return Status;
  }
  if (HasPspCookie(Buffers.Block.Data())) {
    return EFI_SUCCESS;
  }
  // Only the signature changes; the rest of the block goes back as it was read.
  WriteUnaligned32(Buffers.Block.Data(), kPspDirectoryCookie);
  return WriteDirectoryBlockChecked(Service, Directory, Buffers);
}

BOOLEAN IsPspDirectoryInvalidated() {
  UINT32 Directory = 0;
  if (!ReadPrimaryDirectoryAddress(&Directory)) {
    return FALSE;
  }
  // The mapped flash, read directly; an address outside it shows no marker.
  const UINT8 *Mapped = Hw::FlashPointer(Directory, sizeof(UINT32));
  return Mapped != nullptr && !HasPspCookie(Mapped);
}
