// Block devices carrying simple file systems held in memory: each volume is a handle with
// the Block I/O protocol (its media record says removable or not), the Simple File System
// protocol and, optionally, the system-partition marker. Files and directories sit behind
// the UEFI file protocol with FAT's case-insensitive names (files are read and written;
// directory listings are not simulated). Tests read the tree back and inject faults: short
// read-backs, failing creates, a volume that does not open or report its information.
#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../src/base/Uefi.h"
#include "SimUefi.h"

struct SimVolumeOptions {
  bool Removable = false;
  bool SystemPartition = false;  // gEfiPartTypeSystemPartGuid on the handle
  std::u16string Label;
};

class SimVolume {
public:
  // Installs the volume's protocols on a new handle of Sim.
  SimVolume(SimUefi &Sim, const SimVolumeOptions &Options);
  ~SimVolume();
  SimVolume(const SimVolume &) = delete;
  SimVolume &operator=(const SimVolume &) = delete;

  EFI_HANDLE Handle() const { return Handle_; }

  // Paths are relative to the root, components separated by backslashes; missing parent
  // directories are created.
  void AddDirectory(const std::u16string &Path);
  void AddFile(const std::u16string &Path, const std::vector<uint8_t> &Data);

  // Every file with its content and every directory, by path as first created (root excluded).
  std::map<std::u16string, std::vector<uint8_t>> Files() const;
  std::vector<std::u16string> Directories() const;

  // ---- Faults -----------------------------------------------------------------------------
  // The next Count reads of the file deliver Fewer bytes less than it holds.
  void ReadShort(const std::u16string &Path, size_t Fewer, unsigned Count = ~0u);
  // The next Count opens of the path with the create flag fail with Status.
  void FailCreate(const std::u16string &Path, EFI_STATUS Status, unsigned Count = ~0u);
  void FailOpenVolume(EFI_STATUS Status) { OpenVolumeFailure_ = Status; }
  void FailFileSystemInfo(EFI_STATUS Status) { InfoFailure_ = Status; }

  // ---- Observations -----------------------------------------------------------------------
  size_t OpenHandles() const;
  unsigned Deletes() const { return Deletes_; }

  // File protocol implementations (called from the EFIAPI thunks).
  struct FileHandle;
  EFI_STATUS DoOpenVolume(EFI_FILE_PROTOCOL **Root);
  EFI_STATUS DoOpen(FileHandle &From, EFI_FILE_PROTOCOL **New, const CHAR16 *Name, UINT64 Mode, UINT64 Attributes);
  EFI_STATUS DoClose(FileHandle &File);
  EFI_STATUS DoDelete(FileHandle &File);
  EFI_STATUS DoRead(FileHandle &File, UINTN *Size, VOID *Buffer);
  EFI_STATUS DoWrite(FileHandle &File, UINTN *Size, const VOID *Buffer);
  EFI_STATUS DoGetInfo(FileHandle &File, const EFI_GUID *Type, UINTN *Size, VOID *Buffer);
  EFI_STATUS DoSetPosition(FileHandle &File, UINT64 Position);
  EFI_STATUS DoGetPosition(FileHandle &File, UINT64 *Position);

private:
  struct Node {
    std::u16string Path;  // as first created
    bool Directory = false;
    std::vector<uint8_t> Data;
  };
  struct Fault {
    size_t Fewer = 0;
    EFI_STATUS Status = EFI_SUCCESS;
    unsigned Count = 0;
  };

  static std::u16string Key(const std::u16string &Path);
  // Resolves Name against the directory Base ("." and ".." allowed, a leading backslash
  // starts at the root); FALSE when it climbs above the root.
  static bool Resolve(const std::u16string &Base, const std::u16string &Name, std::u16string &Path);
  static std::u16string Parent(const std::u16string &Path);
  const Node *Find(const std::u16string &Key) const;
  Node &Create(const std::u16string &Path, bool Directory);
  FileHandle &NewHandle(const std::u16string &Key, UINT64 Mode);
  static bool Consume(std::map<std::u16string, Fault> &Faults, const std::u16string &Key, Fault &Hit);

  SimVolumeOptions Options_;
  EFI_HANDLE Handle_ = nullptr;
  EFI_BLOCK_IO_MEDIA Media_{};
  EFI_BLOCK_IO_PROTOCOL BlockIo_{};
  struct FileSystem {
    EFI_SIMPLE_FILE_SYSTEM_PROTOCOL Protocol;
    SimVolume *Volume;
  } FileSystem_{};
  std::map<std::u16string, Node> Nodes_;  // by Key(); "" is the root
  std::vector<std::unique_ptr<FileHandle>> Handles_;
  std::map<std::u16string, Fault> ShortReads_;
  std::map<std::u16string, Fault> CreateFailures_;
  EFI_STATUS OpenVolumeFailure_ = EFI_SUCCESS;
  EFI_STATUS InfoFailure_ = EFI_SUCCESS;
  unsigned Deletes_ = 0;
};
