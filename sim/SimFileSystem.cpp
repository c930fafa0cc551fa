#include "SimFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "../src/base/Guids.h"

struct SimVolume::FileHandle {
  EFI_FILE_PROTOCOL Protocol;  // first: the thunks turn the protocol pointer back into the handle
  SimVolume *Volume;
  std::u16string Key;
  UINT64 Mode;
  UINT64 Position;
  bool Open;
};

namespace {

constexpr UINT64 kModeRead = EFI_FILE_MODE_READ;
constexpr UINT64 kModeWrite = EFI_FILE_MODE_WRITE;
constexpr UINT64 kModeCreate = EFI_FILE_MODE_CREATE;
constexpr UINT32 kBlockSize = 512;
constexpr UINT64 kVolumeSize = 64ull << 20;

SimVolume::FileHandle &H(EFI_FILE_PROTOCOL *File) { return *reinterpret_cast<SimVolume::FileHandle *>(File); }

std::u16string Text(const CHAR16 *Name) {
  std::u16string Result;
  while (Name != nullptr && *Name != 0) {
    Result.push_back(static_cast<char16_t>(*Name++));
  }
  return Result;
}

bool SameGuid(const EFI_GUID *First, const EFI_GUID &Second) {
  return First != nullptr && std::memcmp(First, &Second, sizeof(EFI_GUID)) == 0;
}

EFI_STATUS EFIAPI OpenVolume(EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *This, EFI_FILE_PROTOCOL **Root);
EFI_STATUS EFIAPI Open(EFI_FILE_PROTOCOL *File, EFI_FILE_PROTOCOL **New, CHAR16 *Name, UINT64 Mode, UINT64 Attributes) {
  return H(File).Volume->DoOpen(H(File), New, Name, Mode, Attributes);
}
EFI_STATUS EFIAPI Close(EFI_FILE_PROTOCOL *File) { return H(File).Volume->DoClose(H(File)); }
EFI_STATUS EFIAPI Delete(EFI_FILE_PROTOCOL *File) { return H(File).Volume->DoDelete(H(File)); }
EFI_STATUS EFIAPI Read(EFI_FILE_PROTOCOL *File, UINTN *Size, VOID *Buffer) {
  return H(File).Volume->DoRead(H(File), Size, Buffer);
}
EFI_STATUS EFIAPI Write(EFI_FILE_PROTOCOL *File, UINTN *Size, VOID *Buffer) {
  return H(File).Volume->DoWrite(H(File), Size, Buffer);
}
EFI_STATUS EFIAPI GetPosition(EFI_FILE_PROTOCOL *File, UINT64 *Position) {
  return H(File).Volume->DoGetPosition(H(File), Position);
}
EFI_STATUS EFIAPI SetPosition(EFI_FILE_PROTOCOL *File, UINT64 Position) {
  return H(File).Volume->DoSetPosition(H(File), Position);
}
EFI_STATUS EFIAPI GetInfo(EFI_FILE_PROTOCOL *File, EFI_GUID *Type, UINTN *Size, VOID *Buffer) {
  return H(File).Volume->DoGetInfo(H(File), Type, Size, Buffer);
}
EFI_STATUS EFIAPI Flush(EFI_FILE_PROTOCOL *) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI UnexpectedFileService() {
  ADD_FAILURE() << "unexpected file protocol service (SetInfo or an Ex form)";
  return EFI_UNSUPPORTED;
}
EFI_STATUS EFIAPI UnexpectedBlockService() {
  ADD_FAILURE() << "unexpected Block I/O service";
  return EFI_UNSUPPORTED;
}

EFI_STATUS EFIAPI OpenVolume(EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *This, EFI_FILE_PROTOCOL **Root) {
  struct Layout {
    EFI_SIMPLE_FILE_SYSTEM_PROTOCOL Protocol;
    SimVolume *Volume;
  };
  return reinterpret_cast<Layout *>(This)->Volume->DoOpenVolume(Root);
}

}  // namespace

SimVolume::SimVolume(SimUefi &Sim, const SimVolumeOptions &Options) : Options_(Options) {
  Nodes_[u""] = Node{u"", true, {}};
  Media_.MediaId = 1;
  Media_.RemovableMedia = Options.Removable ? TRUE : FALSE;
  Media_.MediaPresent = TRUE;
  Media_.LogicalPartition = TRUE;
  Media_.BlockSize = kBlockSize;
  Media_.LastBlock = kVolumeSize / kBlockSize - 1;
  BlockIo_.Revision = EFI_BLOCK_IO_INTERFACE_REVISION;
  BlockIo_.Media = &Media_;
  BlockIo_.Reset = reinterpret_cast<EFI_BLOCK_RESET>(reinterpret_cast<void (*)()>(&UnexpectedBlockService));
  BlockIo_.ReadBlocks = reinterpret_cast<EFI_BLOCK_READ>(reinterpret_cast<void (*)()>(&UnexpectedBlockService));
  BlockIo_.WriteBlocks = reinterpret_cast<EFI_BLOCK_WRITE>(reinterpret_cast<void (*)()>(&UnexpectedBlockService));
  BlockIo_.FlushBlocks = reinterpret_cast<EFI_BLOCK_FLUSH>(reinterpret_cast<void (*)()>(&UnexpectedBlockService));
  FileSystem_.Protocol.Revision = EFI_FILE_IO_INTERFACE_REVISION;
  FileSystem_.Protocol.OpenVolume = OpenVolume;
  FileSystem_.Volume = this;
  Sim.Install(&Handle_, gEfiBlockIoProtocolGuid, &BlockIo_);
  Sim.Install(&Handle_, gEfiSimpleFileSystemProtocolGuid, &FileSystem_.Protocol);
  if (Options.SystemPartition) {
    Sim.Install(&Handle_, gEfiPartTypeSystemPartGuid, nullptr);  // a marker: no interface, as partition drivers do
  }
}

SimVolume::~SimVolume() = default;

std::u16string SimVolume::Key(const std::u16string &Path) {
  std::u16string Result = Path;
  for (char16_t &Character : Result) {
    if (Character >= u'a' && Character <= u'z') {
      Character = static_cast<char16_t>(Character - u'a' + u'A');
    }
  }
  return Result;
}

bool SimVolume::Resolve(const std::u16string &Base, const std::u16string &Name, std::u16string &Path) {
  std::vector<std::u16string> Parts;
  std::u16string Start = !Name.empty() && Name[0] == u'\\' ? std::u16string() : Base;
  std::u16string Combined = Start + u"\\" + Name;
  size_t Begin = 0;
  while (Begin <= Combined.size()) {
    size_t End = Combined.find(u'\\', Begin);
    if (End == std::u16string::npos) {
      End = Combined.size();
    }
    std::u16string Part = Combined.substr(Begin, End - Begin);
    if (Part == u"..") {
      if (Parts.empty()) {
        return false;
      }
      Parts.pop_back();
    } else if (!Part.empty() && Part != u".") {
      Parts.push_back(Part);
    }
    Begin = End + 1;
  }
  Path.clear();
  for (const std::u16string &Part : Parts) {
    Path += (Path.empty() ? u"" : u"\\") + Part;
  }
  return true;
}

std::u16string SimVolume::Parent(const std::u16string &Path) {
  size_t Last = Path.rfind(u'\\');
  return Last == std::u16string::npos ? std::u16string() : Path.substr(0, Last);
}

const SimVolume::Node *SimVolume::Find(const std::u16string &K) const {
  auto Found = Nodes_.find(K);
  return Found == Nodes_.end() ? nullptr : &Found->second;
}

SimVolume::Node &SimVolume::Create(const std::u16string &Path, bool Directory) {
  Node &Created = Nodes_[Key(Path)];
  Created = Node{Path, Directory, {}};
  return Created;
}

void SimVolume::AddDirectory(const std::u16string &Path) {
  std::u16string Resolved;
  ASSERT_TRUE(Resolve(u"", Path, Resolved));
  for (size_t End = 0; End != std::u16string::npos;) {
    End = Resolved.find(u'\\', End + 1);
    std::u16string Prefix = Resolved.substr(0, End);
    if (Nodes_.count(Key(Prefix)) == 0) {
      Create(Prefix, true);
    }
  }
}

void SimVolume::AddFile(const std::u16string &Path, const std::vector<uint8_t> &Data) {
  std::u16string Resolved;
  ASSERT_TRUE(Resolve(u"", Path, Resolved));
  if (!Parent(Resolved).empty()) {
    AddDirectory(Parent(Resolved));
  }
  Create(Resolved, false).Data = Data;
}

std::map<std::u16string, std::vector<uint8_t>> SimVolume::Files() const {
  std::map<std::u16string, std::vector<uint8_t>> Result;
  for (const auto &[K, Entry] : Nodes_) {
    if (!Entry.Directory) {
      Result[Entry.Path] = Entry.Data;
    }
  }
  return Result;
}

std::vector<std::u16string> SimVolume::Directories() const {
  std::vector<std::u16string> Result;
  for (const auto &[K, Entry] : Nodes_) {
    if (Entry.Directory && !K.empty()) {
      Result.push_back(Entry.Path);
    }
  }
  return Result;
}

void SimVolume::ReadShort(const std::u16string &Path, size_t Fewer, unsigned Count) {
  ShortReads_[Key(Path)] = Fault{Fewer, EFI_SUCCESS, Count};
}

void SimVolume::FailCreate(const std::u16string &Path, EFI_STATUS Status, unsigned Count) {
  CreateFailures_[Key(Path)] = Fault{0, Status, Count};
}

bool SimVolume::Consume(std::map<std::u16string, Fault> &Faults, const std::u16string &K, Fault &Hit) {
  auto Found = Faults.find(K);
  if (Found == Faults.end() || Found->second.Count == 0) {
    return false;
  }
  Hit = Found->second;
  if (Found->second.Count != ~0u) {
    Found->second.Count--;
  }
  return true;
}

size_t SimVolume::OpenHandles() const {
  size_t Count = 0;
  for (const auto &Handle : Handles_) {
    Count += Handle->Open ? 1 : 0;
  }
  return Count;
}

SimVolume::FileHandle &SimVolume::NewHandle(const std::u16string &K, UINT64 Mode) {
  auto Handle = std::make_unique<FileHandle>();
  Handle->Protocol.Revision = EFI_FILE_PROTOCOL_REVISION;
  Handle->Protocol.Open = Open;
  Handle->Protocol.Close = Close;
  Handle->Protocol.Delete = Delete;
  Handle->Protocol.Read = Read;
  Handle->Protocol.Write = Write;
  Handle->Protocol.GetPosition = GetPosition;
  Handle->Protocol.SetPosition = SetPosition;
  Handle->Protocol.GetInfo = GetInfo;
  Handle->Protocol.SetInfo = reinterpret_cast<EFI_FILE_SET_INFO>(reinterpret_cast<void (*)()>(&UnexpectedFileService));
  Handle->Protocol.Flush = Flush;
  Handle->Protocol.OpenEx = reinterpret_cast<EFI_FILE_OPEN_EX>(reinterpret_cast<void (*)()>(&UnexpectedFileService));
  Handle->Protocol.ReadEx = reinterpret_cast<EFI_FILE_READ_EX>(reinterpret_cast<void (*)()>(&UnexpectedFileService));
  Handle->Protocol.WriteEx = reinterpret_cast<EFI_FILE_WRITE_EX>(reinterpret_cast<void (*)()>(&UnexpectedFileService));
  Handle->Protocol.FlushEx = reinterpret_cast<EFI_FILE_FLUSH_EX>(reinterpret_cast<void (*)()>(&UnexpectedFileService));
  Handle->Volume = this;
  Handle->Key = K;
  Handle->Mode = Mode;
  Handle->Position = 0;
  Handle->Open = true;
  Handles_.push_back(std::move(Handle));
  return *Handles_.back();
}

EFI_STATUS SimVolume::DoOpenVolume(EFI_FILE_PROTOCOL **Root) {
  if (Root == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  if (OpenVolumeFailure_ != EFI_SUCCESS) {
    return OpenVolumeFailure_;
  }
  *Root = &NewHandle(u"", kModeRead | kModeWrite).Protocol;
  return EFI_SUCCESS;
}

EFI_STATUS SimVolume::DoOpen(FileHandle &From, EFI_FILE_PROTOCOL **New, const CHAR16 *Name, UINT64 Mode,
                             UINT64 Attributes) {
  if (!From.Open) {
    ADD_FAILURE() << "Open through a closed file handle";
    return EFI_INVALID_PARAMETER;
  }
  if (New == nullptr || Name == nullptr ||
      (Mode != kModeRead && Mode != (kModeRead | kModeWrite) && Mode != (kModeCreate | kModeRead | kModeWrite)) ||
      (Attributes & ~UINT64{EFI_FILE_VALID_ATTR}) != 0) {
    return EFI_INVALID_PARAMETER;
  }
  const Node *Base = Find(From.Key);
  std::u16string Path;
  if (Base == nullptr || !Base->Directory || !Resolve(Base->Path, Text(Name), Path)) {
    return EFI_NOT_FOUND;
  }
  Fault Hit;
  if ((Mode & kModeCreate) != 0 && Consume(CreateFailures_, Key(Path), Hit)) {
    return Hit.Status;
  }
  auto Found = Nodes_.find(Key(Path));
  if (Found == Nodes_.end()) {
    auto Container = Nodes_.find(Key(Parent(Path)));
    if ((Mode & kModeCreate) == 0 || Container == Nodes_.end() || !Container->second.Directory) {
      return EFI_NOT_FOUND;
    }
    Create(Path, (Attributes & EFI_FILE_DIRECTORY) != 0);
  }
  *New = &NewHandle(Key(Path), Mode & (kModeRead | kModeWrite)).Protocol;
  return EFI_SUCCESS;
}

EFI_STATUS SimVolume::DoClose(FileHandle &File) {
  if (!File.Open) {
    ADD_FAILURE() << "Close of a file handle that is already closed";
    return EFI_INVALID_PARAMETER;
  }
  File.Open = false;
  return EFI_SUCCESS;
}

EFI_STATUS SimVolume::DoDelete(FileHandle &File) {
  if (!File.Open) {
    ADD_FAILURE() << "Delete through a closed file handle";
    return EFI_INVALID_PARAMETER;
  }
  File.Open = false;  // Delete closes the handle whatever happens
  bool HasChildren = false;
  for (const auto &[K, Entry] : Nodes_) {
    HasChildren = HasChildren || (!K.empty() && Parent(K) == File.Key && K != File.Key);
  }
  if (File.Key.empty() || (File.Mode & kModeWrite) == 0 || HasChildren) {
    return EFI_WARN_DELETE_FAILURE;
  }
  Nodes_.erase(File.Key);
  Deletes_++;
  return EFI_SUCCESS;
}

EFI_STATUS SimVolume::DoRead(FileHandle &File, UINTN *Size, VOID *Buffer) {
  auto Found = Nodes_.find(File.Key);
  if (!File.Open || Size == nullptr || Found == Nodes_.end()) {
    return EFI_DEVICE_ERROR;
  }
  if (Found->second.Directory) {
    return EFI_UNSUPPORTED;  // directory listings are not simulated
  }
  size_t Length = Found->second.Data.size();
  Fault Hit;
  if (Consume(ShortReads_, File.Key, Hit)) {
    Length = Hit.Fewer < Length ? Length - Hit.Fewer : 0;
  }
  size_t Count = File.Position < Length ? std::min<size_t>(*Size, Length - File.Position) : 0;
  if (Count != 0 && Buffer == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  if (Count != 0) {
    std::memcpy(Buffer, Found->second.Data.data() + File.Position, Count);
  }
  File.Position += Count;
  *Size = Count;
  return EFI_SUCCESS;
}

EFI_STATUS SimVolume::DoWrite(FileHandle &File, UINTN *Size, const VOID *Buffer) {
  auto Found = Nodes_.find(File.Key);
  if (!File.Open || Size == nullptr || Found == Nodes_.end()) {
    return EFI_DEVICE_ERROR;
  }
  if (Found->second.Directory) {
    return EFI_UNSUPPORTED;
  }
  if ((File.Mode & kModeWrite) == 0) {
    return EFI_ACCESS_DENIED;
  }
  std::vector<uint8_t> &Data = Found->second.Data;
  if (Data.size() < File.Position + *Size) {
    Data.resize(File.Position + *Size);
  }
  if (*Size != 0) {
    std::memcpy(Data.data() + File.Position, Buffer, *Size);
  }
  File.Position += *Size;
  return EFI_SUCCESS;
}

EFI_STATUS SimVolume::DoGetInfo(FileHandle &File, const EFI_GUID *Type, UINTN *Size, VOID *Buffer) {
  if (!File.Open || Size == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  static const EFI_GUID kFileInfo = EFI_FILE_INFO_ID;
  const Node *Found = Find(File.Key);
  if (Found == nullptr) {
    return EFI_NOT_FOUND;
  }
  const Node &Entry = *Found;
  std::vector<uint8_t> Record;
  if (SameGuid(Type, gEfiFileSystemInfoGuid)) {
    if (InfoFailure_ != EFI_SUCCESS) {
      return InfoFailure_;
    }
    Record.resize(SIZE_OF_EFI_FILE_SYSTEM_INFO + (Options_.Label.size() + 1) * sizeof(CHAR16));
    EFI_FILE_SYSTEM_INFO Info{};
    Info.Size = Record.size();
    Info.VolumeSize = kVolumeSize;
    Info.FreeSpace = kVolumeSize / 2;
    Info.BlockSize = kBlockSize;
    std::memcpy(Record.data(), &Info, SIZE_OF_EFI_FILE_SYSTEM_INFO);
    std::memcpy(Record.data() + SIZE_OF_EFI_FILE_SYSTEM_INFO, Options_.Label.c_str(),
                (Options_.Label.size() + 1) * sizeof(CHAR16));
  } else if (SameGuid(Type, kFileInfo)) {
    std::u16string Name = Entry.Path.substr(Entry.Path.rfind(u'\\') + 1);
    Record.resize(SIZE_OF_EFI_FILE_INFO + (Name.size() + 1) * sizeof(CHAR16));
    EFI_FILE_INFO Info{};
    Info.Size = Record.size();
    Info.FileSize = Entry.Data.size();
    Info.PhysicalSize = (Entry.Data.size() + kBlockSize - 1) / kBlockSize * kBlockSize;
    Info.Attribute = Entry.Directory ? EFI_FILE_DIRECTORY : EFI_FILE_ARCHIVE;
    std::memcpy(Record.data(), &Info, SIZE_OF_EFI_FILE_INFO);
    std::memcpy(Record.data() + SIZE_OF_EFI_FILE_INFO, Name.c_str(), (Name.size() + 1) * sizeof(CHAR16));
  } else {
    return EFI_UNSUPPORTED;
  }
  if (*Size < Record.size()) {
    *Size = Record.size();
    return EFI_BUFFER_TOO_SMALL;
  }
  if (Buffer == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  std::memcpy(Buffer, Record.data(), Record.size());
  *Size = Record.size();
  return EFI_SUCCESS;
}

EFI_STATUS SimVolume::DoSetPosition(FileHandle &File, UINT64 Position) {
  const Node *Entry = Find(File.Key);
  if (Entry == nullptr || (Entry->Directory && Position != 0)) {
    return EFI_UNSUPPORTED;
  }
  File.Position = Position == ~UINT64{0} ? Entry->Data.size() : Position;
  return EFI_SUCCESS;
}

EFI_STATUS SimVolume::DoGetPosition(FileHandle &File, UINT64 *Position) {
  if (Position == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  const Node *Entry = Find(File.Key);
  if (Entry == nullptr || Entry->Directory) {
    return EFI_UNSUPPORTED;
  }
  *Position = File.Position;
  return EFI_SUCCESS;
}
