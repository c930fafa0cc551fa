#include "UpdateStaging.h"

#include <utility>

#include "../base/BaseLib.h"
#include "../base/Char16.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/Hardware.h"
#include "../base/PlatformProtocols.h"
#include "../base/Pool.h"
#include "../base/Print.h"
#include "../base/ScopeGuard.h"
#include "../base/Smbios.h"
#include "../driver/Config.h"
#include "../driver/DriverState.h"
#include "../flash/FlashState.h"
#include "../platform/Cmos.h"

namespace {

constexpr UINT64 kOpenRead = EFI_FILE_MODE_READ;
constexpr UINT64 kOpenReadWrite = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE;
constexpr UINT64 kOpenCreate = EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE;
constexpr UINT64 kCreateDirectoryAttributes = EFI_FILE_DIRECTORY | EFI_FILE_ARCHIVE;

constexpr UINTN kPathBufferSize = 256;        // bytes, for every formatted path
constexpr UINTN kDirectoryWalkCharacters = 256;  // the prefix buffer of CreateDirectoryPath
constexpr UINTN kIdBufferSize = 12;           // the five identifier bytes as UTF-16, terminated
constexpr UINTN kFileSystemInfoSize = 0x88;
constexpr UINTN kVolumeLabelOffset = 36;
static_assert(offsetof(EFI_FILE_SYSTEM_INFO, VolumeLabel) == kVolumeLabelOffset);
static_assert((kBiosIdLength + 1) * sizeof(CHAR16) <= kIdBufferSize);

constexpr unsigned kDirectoryAttempts = 4;
constexpr unsigned kWriteAttempts = 4;
constexpr EFI_SMBIOS_TYPE kBiosInformationType = 0;
constexpr unsigned kToolFlavourShift = 21;  // bit 53 of the characteristics in the upper half

// An open file that is closed when the holder goes away, unless Delete took it.
class OpenFile {
public:
  OpenFile() = default;
  OpenFile(const OpenFile &) = delete;
  OpenFile &operator=(const OpenFile &) = delete;
  ~OpenFile() { Close(); }

  EFI_FILE_PROTOCOL *Get() const { return File_; }
  explicit operator bool() const { return File_ != nullptr; }
  void Adopt(EFI_FILE_PROTOCOL *File) {
    Close();
    File_ = File;
  }
  void Close() {
    if (EFI_FILE_PROTOCOL *File = std::exchange(File_, nullptr)) {
      File->Close(File);
    }
  }
  // Delete closes the handle whether or not the file goes.
  EFI_STATUS Delete() {
    EFI_FILE_PROTOCOL *File = std::exchange(File_, nullptr);
    return File->Delete(File);
  }

private:
  EFI_FILE_PROTOCOL *File_ = nullptr;
};

// Opens Path relative to Root into File; an open that reports success without a handle fails.
EFI_STATUS OpenPath(EFI_FILE_PROTOCOL *Root, OpenFile &File, const CHAR16 *Path, UINT64 Mode, UINT64 Attributes) {
  EFI_FILE_PROTOCOL *Handle = nullptr;
  EFI_STATUS Status = Root->Open(Root, &Handle, const_cast<CHAR16 *>(Path), Mode, Attributes);
  if (EfiError(Status)) {
    return Status;
  }
  if (Handle == nullptr) {
    return EFI_NOT_FOUND;
  }
  File.Adopt(Handle);
  return EFI_SUCCESS;
}

// The tool's path from the first SMBIOS record: the flavour in bits 53 to 60 of a BIOS
// Information record's characteristics; any other first record counts as flavour 0.
const CHAR16 *SelectUpdateToolPath(const EFI_SMBIOS_TABLE_HEADER *Record) {
  UINT8 Bits = 0;
  if (Record != nullptr && Record->Type == kBiosInformationType &&
      Record->Length >= kBiosInfoCharacteristicsHighOffset + sizeof(UINT32)) {
    const auto *Bytes = reinterpret_cast<const UINT8 *>(Record);
    Bits = static_cast<UINT8>(ReadUnaligned32(Bytes + kBiosInfoCharacteristicsHighOffset) >> kToolFlavourShift);
  }
  UINT8 Flavour = (Bits & 0x01) != 0 ? 0x01 : (Bits & 0x02) != 0 ? kToolFlavourAlternate : Bits;
  return Flavour == kToolFlavourAlternate ? gConfig.PcdUpdateToolAltPath : gConfig.PcdUpdateToolPath;
}

enum class VolumeClass { Tools, SystemPartition, Other };

// The candidate directories in their order, and which of them a volume class uses.
const CHAR16 *CandidateDirectory(UINTN Index) {
  const CHAR16 *const Candidates[] = {gConfig.PcdMakerShortName, gConfig.PcdToolsMakerDirectory,
                                      gConfig.PcdEspMakerDirectory};
  return Candidates[Index];
}
struct CandidateRange {
  UINTN First;
  UINTN End;
};
CandidateRange CandidatesOf(VolumeClass Class, bool WritingPass) {
  switch (Class) {
  case VolumeClass::Tools:
    return {0, 2};
  case VolumeClass::SystemPartition:
    return {2, 3};
  case VolumeClass::Other:
    break;
  }
  return WritingPass ? CandidateRange{0, 3} : CandidateRange{0, 0};
}

struct Volume {
  OpenFile Root;
  BOOLEAN SystemPartition = FALSE;
  VolumeClass Class = VolumeClass::Other;
};

// Opens the file system on Handle and classifies it; FALSE when the volume is passed over.
bool OpenVolume(EFI_HANDLE Handle, UINT8 *Info, Volume &Target) {
  EFI_BLOCK_IO_PROTOCOL *BlockIo = nullptr;
  if (EfiError(gBS->HandleProtocol(Handle, const_cast<EFI_GUID *>(&gEfiBlockIoProtocolGuid),
                                   reinterpret_cast<VOID **>(&BlockIo))) ||
      BlockIo == nullptr || BlockIo->Media == nullptr) {
    return false;
  }
  BOOLEAN Removable = BlockIo->Media->RemovableMedia;
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *FileSystem = nullptr;
  if (EfiError(gBS->HandleProtocol(Handle, const_cast<EFI_GUID *>(&gEfiSimpleFileSystemProtocolGuid),
                                   reinterpret_cast<VOID **>(&FileSystem))) ||
      FileSystem == nullptr) {
    return false;
  }
  VOID *Marker = nullptr;  // the marker carries no interface: its presence is what counts
  Target.SystemPartition =
      EfiError(gBS->HandleProtocol(Handle, const_cast<EFI_GUID *>(&gEfiPartTypeSystemPartGuid), &Marker)) ? FALSE
                                                                                                          : TRUE;
  EFI_FILE_PROTOCOL *Root = nullptr;
  if (EfiError(FileSystem->OpenVolume(FileSystem, &Root)) || Root == nullptr) {
    return false;
  }
  Target.Root.Adopt(Root);
  ZeroMem(Info, kFileSystemInfoSize);
  UINTN InfoSize = kFileSystemInfoSize;
  if (EfiError(Root->GetInfo(Root, const_cast<EFI_GUID *>(&gEfiFileSystemInfoGuid), &InfoSize, Info))) {
    Target.Root.Close();
    return false;
  }
  // The label is compared over its full size, terminator included.
  UINTN LabelBytes = (StrLen(gConfig.PcdToolsVolumeLabel) + 1) * sizeof(CHAR16);
  bool ToolsLabel = LabelBytes <= kFileSystemInfoSize - kVolumeLabelOffset &&
                    CompareMem(Info + kVolumeLabelOffset, gConfig.PcdToolsVolumeLabel, LabelBytes) == 0;
  Target.Class = Removable && ToolsLabel ? VolumeClass::Tools
                 : Target.SystemPartition ? VolumeClass::SystemPartition
                                          : VolumeClass::Other;
  return true;
}

// The pool buffers of one staging operation.
struct StagingBuffers {
  PoolBuffer Info;
  PoolBuffer ToolPath;
  PoolBuffer DirectoryPath;
  PoolBuffer Id;
  PoolBuffer ImagePath;
  PoolBuffer SignaturePath;
};

// Search pass: every volume whose class names a candidate directory holding the tool gets
// BIOS\New beside it. EFI_SUCCESS with ToolFound, or the status of a directory that could
// not be created in four attempts.
EFI_STATUS PrepareToolVolumes(const EFI_HANDLE *Handles, UINTN Count, const CHAR16 *ToolPath, StagingBuffers &Buffers,
                              bool &ToolFound) {
  auto *ToolFile = Buffers.ToolPath.As<CHAR16>();
  auto *Directory = Buffers.DirectoryPath.As<CHAR16>();
  for (UINTN Index = 0; Index < Count; Index++) {
    Volume Target;
    if (!OpenVolume(Handles[Index], Buffers.Info.Data(), Target)) {
      continue;
    }
    CandidateRange Range = CandidatesOf(Target.Class, false);
    for (UINTN Candidate = Range.First; Candidate < Range.End; Candidate++) {
      UnicodeSPrint(ToolFile, kPathBufferSize, "%s%s"_u16, CandidateDirectory(Candidate), ToolPath);
      OpenFile Tool;
      if (EfiError(OpenPath(Target.Root.Get(), Tool, ToolFile, kOpenRead, 0))) {
        continue;
      }
      Tool.Close();
      ToolFound = true;
      UnicodeSPrint(Directory, kPathBufferSize, "%s\\BIOS\\New"_u16, CandidateDirectory(Candidate));
      EFI_STATUS Status = EFI_SUCCESS;
      for (unsigned Attempt = 0; Attempt < kDirectoryAttempts; Attempt++) {
        Status = CreateDirectoryPath(Target.Root.Get(), Directory);
        if (!EfiError(Status)) {
          break;
        }
      }
      if (EfiError(Status)) {
        return Status;
      }
    }
  }
  return EFI_SUCCESS;
}

// One attempt at one file: a stale file of the name is deleted, the data written, and the
// file read back and compared.
EFI_STATUS WriteAndCheck(EFI_FILE_PROTOCOL *Root, const CHAR16 *Path, const VOID *Data, UINT64 Length) {
  OpenFile File;
  if (!EfiError(OpenPath(Root, File, Path, kOpenReadWrite, 0)) && File.Delete() != EFI_SUCCESS) {
    return EFI_ACCESS_DENIED;
  }
  EFI_STATUS Status = OpenPath(Root, File, Path, kOpenCreate, EFI_FILE_ARCHIVE);
  if (EfiError(Status)) {
    return Status;
  }
  UINTN Size = Length;
  Status = File.Get()->Write(File.Get(), &Size, const_cast<VOID *>(Data));
  File.Close();
  if (EfiError(Status)) {
    return Status;
  }
  Status = OpenPath(Root, File, Path, kOpenRead, EFI_FILE_ARCHIVE);
  if (EfiError(Status)) {
    return Status;
  }
  PoolBuffer ReadBack = PoolBuffer::Allocate(Length);
  if (!ReadBack) {
    return EFI_OUT_OF_RESOURCES;  // unchecked is not done
  }
  Size = Length;
  Status = File.Get()->Read(File.Get(), &Size, ReadBack.Data());
  if (EfiError(Status) || Size != Length || CompareMem(ReadBack.Data(), Data, Length) != 0) {
    return EFI_INCOMPATIBLE_VERSION;
  }
  return EFI_SUCCESS;
}

struct StagedFile {
  const VOID *Data;
  UINT64 Size;
};

// Writing pass: both files go into every candidate's BIOS\New that exists. A volume is
// staged when both files of the last candidate written on it are intact.
void WriteUpdateFiles(const EFI_HANDLE *Handles, UINTN Count, const StagedFile &Image, const StagedFile &Signature,
                      StagingBuffers &Buffers, bool &Staged, bool &SystemPartitionStaged) {
  auto *Directory = Buffers.DirectoryPath.As<CHAR16>();
  auto *ImagePath = Buffers.ImagePath.As<CHAR16>();
  auto *SignaturePath = Buffers.SignaturePath.As<CHAR16>();
  auto *Id = Buffers.Id.As<CHAR16>();
  for (UINTN Index = 0; Index < Count; Index++) {
    Volume Target;
    if (!OpenVolume(Handles[Index], Buffers.Info.Data(), Target)) {
      continue;
    }
    bool ImageDone = false;
    bool SignatureDone = false;
    CandidateRange Range = CandidatesOf(Target.Class, true);
    for (UINTN Candidate = Range.First; Candidate < Range.End; Candidate++) {
      UnicodeSPrint(Directory, kPathBufferSize, "%s\\BIOS\\New"_u16, CandidateDirectory(Candidate));
      OpenFile Existing;
      if (EfiError(OpenPath(Target.Root.Get(), Existing, Directory, kOpenRead, EFI_FILE_DIRECTORY))) {
        continue;
      }
      Existing.Close();
      UnicodeSPrint(ImagePath, kPathBufferSize, "%s\\BIOS\\New\\%s.bin"_u16, CandidateDirectory(Candidate), Id);
      UnicodeSPrint(SignaturePath, kPathBufferSize, "%s\\BIOS\\New\\%s.sig"_u16, CandidateDirectory(Candidate), Id);
      ImageDone = false;
      SignatureDone = false;
      for (unsigned Attempt = 0; Attempt < kWriteAttempts && !(ImageDone && SignatureDone); Attempt++) {
        if (!ImageDone) {
          ImageDone = !EfiError(WriteAndCheck(Target.Root.Get(), ImagePath, Image.Data, Image.Size));
        }
        if (!SignatureDone) {
          SignatureDone = !EfiError(WriteAndCheck(Target.Root.Get(), SignaturePath, Signature.Data, Signature.Size));
        }
      }
    }
    if (ImageDone && SignatureDone) {
      Staged = true;
      SystemPartitionStaged = SystemPartitionStaged || Target.SystemPartition;
    }
  }
}

// Both passes over the block devices, every buffer released on return.
EFI_STATUS StageOnVolumes(const StagedFile &Image, const StagedFile &Signature, const CHAR16 *ToolPath,
                          bool &SystemPartitionStaged) {
  UINTN Count = 0;
  EFI_HANDLE *Handles = nullptr;
  if (EfiError(gBS->LocateHandleBuffer(ByProtocol, const_cast<EFI_GUID *>(&gEfiBlockIoProtocolGuid), nullptr, &Count,
                                       &Handles)) ||
      Handles == nullptr) {
    return EFI_UNSUPPORTED;
  }
  ScopeGuard FreeHandles([Handles] { gBS->FreePool(Handles); });

  StagingBuffers Buffers;
  Buffers.Info = PoolBuffer::AllocateZeroed(kFileSystemInfoSize);
  Buffers.ToolPath = PoolBuffer::AllocateZeroed(kPathBufferSize);
  Buffers.DirectoryPath = PoolBuffer::AllocateZeroed(kPathBufferSize);
  if (!Buffers.Info || !Buffers.ToolPath || !Buffers.DirectoryPath) {
    return EFI_BUFFER_TOO_SMALL;
  }
  bool ToolFound = false;
  EFI_STATUS Status = PrepareToolVolumes(Handles, Count, ToolPath, Buffers, ToolFound);
  if (EfiError(Status)) {
    return Status;
  }
  Buffers.ToolPath.Reset();
  if (!ToolFound) {
    return EFI_NO_MEDIA;
  }

  Buffers.Id = PoolBuffer::AllocateZeroed(kIdBufferSize);
  Buffers.ImagePath = PoolBuffer::AllocateZeroed(kPathBufferSize);
  Buffers.SignaturePath = PoolBuffer::AllocateZeroed(kPathBufferSize);
  if (!Buffers.Id || !Buffers.ImagePath || !Buffers.SignaturePath) {
    return EFI_BUFFER_TOO_SMALL;
  }
  auto *Id = Buffers.Id.As<CHAR16>();
  for (UINTN Index = 0; Index < kBiosIdLength && mBiosId[Index] != 0; Index++) {
    Id[Index] = mBiosId[Index];
  }
  bool Staged = false;
  WriteUpdateFiles(Handles, Count, Image, Signature, Buffers, Staged, SystemPartitionStaged);
  return Staged ? EFI_SUCCESS : EFI_ACCESS_DENIED;
}

}  // namespace

EFI_STATUS CreateDirectoryPath(EFI_FILE_PROTOCOL *Root, const CHAR16 *Path) {
  if (Root == nullptr || Path == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  PoolBuffer Prefix = PoolBuffer::AllocateZeroed(kDirectoryWalkCharacters * sizeof(CHAR16));
  if (!Prefix) {
    return EFI_OUT_OF_RESOURCES;
  }
  OpenFile Directory;
  if (!EfiError(OpenPath(Root, Directory, Path, kOpenRead, EFI_FILE_DIRECTORY))) {
    return EFI_SUCCESS;
  }
  // Each level in turn, from the first component to the whole path.
  auto *Level = Prefix.As<CHAR16>();
  const CHAR16 *Position = Path;
  for (;;) {
    ZeroMem(Level, Prefix.Size());
    const CHAR16 *Separator = nullptr;
    for (const CHAR16 *Scan = *Position != 0 ? Position + 1 : Position; *Scan != 0; Scan++) {
      if (*Scan == u'\\') {
        Separator = Scan;
        break;
      }
    }
    const CHAR16 *Target = Path;
    if (Separator != nullptr) {
      UINTN Length = static_cast<UINTN>(Separator - Path);
      if (Length >= kDirectoryWalkCharacters) {
        return EFI_BUFFER_TOO_SMALL;
      }
      CopyMem(Level, Path, Length * sizeof(CHAR16));
      Target = Level;
    }
    EFI_STATUS Status = OpenPath(Root, Directory, Target, kOpenCreate, kCreateDirectoryAttributes);
    if (EfiError(Status)) {
      return Status;
    }
    Directory.Close();
    if (Separator == nullptr) {
      return EFI_SUCCESS;
    }
    Position = Separator;
  }
}

EFI_STATUS StageUpdateFiles(const VOID *Image, UINT64 ImageSize, const VOID *Signature, UINT64 SignatureSize) {
  if (Image == nullptr || Signature == nullptr || ImageSize == 0 || SignatureSize == 0) {
    return EFI_INVALID_PARAMETER;
  }
  EFI_SMBIOS_PROTOCOL *Smbios = nullptr;
  if (EfiError(gBS->LocateProtocol(const_cast<EFI_GUID *>(&gEfiSmbiosProtocolGuid), nullptr,
                                   reinterpret_cast<VOID **>(&Smbios))) ||
      Smbios == nullptr) {
    return EFI_NOT_READY;
  }
  EFI_SMBIOS_HANDLE SmbiosHandle = SMBIOS_HANDLE_PI_RESERVED;
  EFI_SMBIOS_TABLE_HEADER *Record = nullptr;
  if (EfiError(Smbios->GetNext(Smbios, &SmbiosHandle, nullptr, &Record, nullptr))) {
    return EFI_UNSUPPORTED;
  }
  const CHAR16 *ToolPath = SelectUpdateToolPath(Record);

  bool SystemPartitionStaged = false;
  EFI_STATUS Status = StageOnVolumes({Image, ImageSize}, {Signature, SignatureSize}, ToolPath, SystemPartitionStaged);
  if (EfiError(Status)) {
    return Status;
  }

  WriteCmosToRom(kStagedUpdateCmosIndex, 1);
  if (SystemPartitionStaged) {
    StagedUpdateNotifyProtocol *Notify = nullptr;
    if (!EfiError(gBS->LocateProtocol(const_cast<EFI_GUID *>(&gStagedUpdateNotifyProtocolGuid), nullptr,
                                      reinterpret_cast<VOID **>(&Notify))) &&
        Notify != nullptr && Notify->Notify != nullptr) {
      Notify->Notify();
    }
  }
  if (mPlatformFlashService != nullptr && mPlatformFlashService->Member51C != nullptr) {
    mPlatformFlashService->Member51C(0);
  }
  Hw::IoWrite8(kResetControlPort, kFullPlatformReset);
  Hw::CpuDeadLoop();
  return EFI_DEVICE_ERROR;  // only where the processor stop returns (emulated hardware)
}
