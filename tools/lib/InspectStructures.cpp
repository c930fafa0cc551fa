// The flash map (found and validated by the driver's lookups), the firmware volumes, and
// the variable stores (recognised and walked by the driver's store code).
#include <cstring>

#include "../../src/base/ByteView.h"
#include "../../src/base/Guids.h"
#include "../../src/base/Hardware.h"
#include "../../src/base/PiFirmwareVolume.h"
#include "../../src/driver/Config.h"
#include "../../src/driver/FlashMap.h"
#include "../../src/driver/FlashMapFormat.h"
#include "../../src/flash/VariableStore.h"
#include "../../src/flash/VariableStoreFormat.h"
#include "InspectStructures.h"

namespace {

bool IsErased(const EFI_GUID &Guid) {
  const auto *Bytes = reinterpret_cast<const uint8_t *>(&Guid);
  for (size_t Index = 0; Index < sizeof(Guid); Index++) {
    if (Bytes[Index] != 0xFF) {
      return false;
    }
  }
  return true;
}

// A map of more entries than this is hostile: listing stops there (each listed entry is looked
// up again, which walks the map).
constexpr size_t kMaxListedMapEntries = 4096;

std::string MapStatusText(EFI_STATUS Status) {
  switch (Status) {
  case EFI_NOT_FOUND:
    return "no flash map found (no \"QFDM\" on a 4 KiB step of the flash)";
  case EFI_SECURITY_VIOLATION:
    return "flash map refused: header sum not 0, header cut short or entry stride below 52 bytes";
  default:
    return "flash map unusable, status " + HexText(Status);
  }
}

}  // namespace

// ---- Flash map ------------------------------------------------------------------------------

FlashMapInfo InspectFlashMap(std::vector<std::string> &Findings) {
  FlashMapInfo Info;
  const auto *Map = static_cast<const UINT8 *>(FlashMapFind());
  UINT8 Count = 0;
  const EFI_STATUS Status = Map == nullptr ? EFI_NOT_FOUND : FlashMapCountEntries(&Count);
  if (Status != EFI_SUCCESS) {
    Info.Status = MapStatusText(Status);
    Findings.push_back(Info.Status);
    return Info;
  }
  // The map lies in the flash window; it may be read up to the window's end.
  const UINT8 *Window = Hw::FlashPointer(kInspectedFlashBase, kInspectedImageSize);
  if (Window == nullptr || Map < Window || Map >= Window + kInspectedImageSize) {
    Info.Status = "flash map found outside the image";
    Findings.push_back(Info.Status);
    return Info;
  }
  const UINTN Extent = kInspectedImageSize - static_cast<UINTN>(Map - Window);
  FlashMapHeader Header;
  std::memcpy(&Header, Map, sizeof(Header));
  Info.Found = true;
  Info.Address = kInspectedFlashBase + static_cast<uint64_t>(Map - Window);
  Info.TotalSize = Header.TotalSize;
  Info.EntriesOffset = Header.EntriesOffset;
  Info.EntrySize = Header.EntrySize;
  Info.BaseAddress = Header.BaseAddress;

  // The walk the lookups make: entries inside TotalSize and the bytes that exist, each
  // then looked up again through the driver by its type and instance.
  const ByteView Entries(Map, Header.TotalSize < Extent ? Header.TotalSize : Extent);
  uint64_t Position = Header.EntriesOffset;
  size_t Erased = 0;
  for (; Position < Header.TotalSize; Position += Header.EntrySize) {
    if (Info.Entries.size() == kMaxListedMapEntries) {
      Findings.push_back("flash map claims more than " + std::to_string(kMaxListedMapEntries) +
                         " entries; the rest are not listed");
      break;
    }
    FlashMapEntry Raw;
    if (!Entries.ReadBytes(static_cast<UINTN>(Position), &Raw, sizeof(Raw))) {
      break;
    }
    FlashMapEntryInfo Entry{Raw.AreaType, Raw.AreaName, Raw.Offset, Raw.Size, Raw.Attributes,
                            (Raw.Attributes & kFlashMapEntryIgnored) != 0, 0};
    Erased += IsErased(Raw.AreaType) ? 1 : 0;
    if (!Entry.Ignored) {
      unsigned Instance = 1;
      for (const FlashMapEntryInfo &Earlier : Info.Entries) {
        Instance += !Earlier.Ignored && std::memcmp(&Earlier.Type, &Entry.Type, sizeof(EFI_GUID)) == 0;
      }
      UINT64 Address = 0, Size = 0;
      if (Instance <= 0xFF && FlashMapGetRegion(&Entry.Type, static_cast<UINT8>(Instance), &Address, &Size) == EFI_SUCCESS) {
        Entry.Address = Address;
      }
    }
    Info.Entries.push_back(Entry);
  }
  if (Erased != 0) {
    Findings.push_back("flash map lists " + std::to_string(Erased) + " erased entries");
  }
  if (Position < Header.TotalSize && Info.Entries.size() < kMaxListedMapEntries) {
    Findings.push_back("flash map cut short: the entry at +" + HexText(Position) +
                       " does not lie whole inside the map (TotalSize " + HexText(Header.TotalSize) +
                       ", or the flash ends): the lookups drop it");
  }
  Info.Status = "\"QFDM\" at " + HexText(Info.Address) + ", " + std::to_string(Info.Entries.size()) + " entries (" +
                std::to_string(Count) + " usable)";
  if (Info.Entries.empty()) {
    Findings.push_back("flash map holds no entry");
  }
  return Info;
}

// ---- Firmware volumes -----------------------------------------------------------------------
// The scan the embedded-signature check makes: a volume header on every 16-byte step, the
// next search after a volume's end; files 8-byte aligned until free space or a broken header.

namespace {

constexpr UINTN kVolumeScanStep = 16;
constexpr UINTN kFileHeaderSize = sizeof(EFI_FFS_FILE_HEADER);

bool VolumeAt(const ByteView &Image, UINTN Offset, VolumeInfo &Volume) {
  UINT32 Signature = 0;
  EFI_GUID FileSystem;
  UINT64 Length = 0;
  UINT16 HeaderLength = 0;
  if (!Image.Read32(Offset + offsetof(EFI_FIRMWARE_VOLUME_HEADER, Signature), Signature) || Signature != kFvSignature ||
      !Image.ReadGuid(Offset + offsetof(EFI_FIRMWARE_VOLUME_HEADER, FileSystemGuid), FileSystem) ||
      !(CompareGuid(&FileSystem, &gEfiFirmwareFileSystem2Guid) || CompareGuid(&FileSystem, &gEfiFirmwareFileSystem3Guid)) ||
      !Image.Read64(Offset + offsetof(EFI_FIRMWARE_VOLUME_HEADER, FvLength), Length) ||
      !Image.Read16(Offset + offsetof(EFI_FIRMWARE_VOLUME_HEADER, HeaderLength), HeaderLength) || Length == 0) {
    return false;
  }
  Volume.Address = kInspectedFlashBase + Offset;
  Volume.Length = Length;
  Volume.HeaderLength = HeaderLength;
  Volume.FileSystem = FileSystem;
  return true;
}

void WalkFiles(const ByteView &Image, UINTN Offset, VolumeInfo &Volume) {
  const UINTN End = Volume.Length < Image.Size() - Offset ? Offset + static_cast<UINTN>(Volume.Length) : Image.Size();
  UINTN File = Offset + Volume.HeaderLength;
  while (File < End) {
    const UINT8 *Header = Image.At(File, kFileHeaderSize);
    if (Header == nullptr || kFileHeaderSize > End - File) {
      Volume.Status = "ends with a file header cut by the volume's end at " + HexText(kInspectedFlashBase + File);
      return;
    }
    const UINT32 Size = Header[20] | Header[21] << 8 | static_cast<UINT32>(Header[22]) << 16;
    if (Size == 0xFFFFFF) {
      Volume.Status = "free space from " + HexText(kInspectedFlashBase + File);
      return;
    }
    if (Size < kFileHeaderSize || Size > End - File) {
      Volume.Status = "walk ends at " + HexText(kInspectedFlashBase + File) + ": file size " + HexText(Size) +
                      " is a large file, a broken header or crosses the volume's end";
      return;
    }
    FfsFileInfo Info;
    std::memcpy(&Info.Name, Header, sizeof(Info.Name));
    Info.Type = Header[offsetof(EFI_FFS_FILE_HEADER, Type)];
    Info.Address = kInspectedFlashBase + File;
    Info.Size = Size;
    Volume.Files.push_back(Info);
    File = (File + Size + 7) & ~static_cast<UINTN>(7);
  }
  Volume.Status = "files up to the volume's end";
}

}  // namespace

std::vector<VolumeInfo> InspectVolumes(const std::vector<uint8_t> &Image, std::vector<std::string> &Findings) {
  std::vector<VolumeInfo> Volumes;
  const ByteView View(Image.data(), Image.size());
  UINTN Position = 0;
  while (Position < View.Size()) {
    VolumeInfo Volume;
    if (!VolumeAt(View, Position, Volume)) {
      Position += kVolumeScanStep;
      continue;
    }
    WalkFiles(View, Position, Volume);
    const bool Overruns = Volume.Length > View.Size() - Position;
    if (Overruns) {
      Findings.push_back("firmware volume at " + HexText(Volume.Address) + " claims " + HexText(Volume.Length) +
                         " bytes, past the image's end");
    }
    Volumes.push_back(std::move(Volume));
    if (Overruns) {
      break;
    }
    Position += static_cast<UINTN>(Volumes.back().Length);
  }
  if (Volumes.empty()) {
    Findings.push_back("no firmware volume found (no FFS2/FFS3 \"_FVH\" header on a 16-byte step)");
  }
  return Volumes;
}

// ---- Variable stores ------------------------------------------------------------------------

namespace {

std::string VariableName(const UINT8 *Name, UINT32 NameSize) {
  std::string Text;
  for (UINT32 Index = 0; Index + 1 < NameSize; Index += 2) {
    const uint16_t Unit = static_cast<uint16_t>(Name[Index] | Name[Index + 1] << 8);
    if (Unit == 0) {
      break;
    }
    Text += Unit >= 0x20 && Unit < 0x7F ? static_cast<char>(Unit) : '?';
  }
  return Text;
}

// Recognition in the configured header form first, then in the other one.
bool RecogniseStore(const ByteView &Volume, UINTN &Headers, std::string &Form, UINT32 &HeaderStatus) {
  const BOOLEAN Configured = gConfig.VssSignatureFormat;
  for (BOOLEAN Vss : {Configured, static_cast<BOOLEAN>(!Configured)}) {
    gConfig.VssSignatureFormat = Vss;
    if (IsNvStoreVolume(Volume, &Headers)) {
      Form = Vss ? "$VSS" : "GUID";
      HeaderStatus = GetVariableStoreStatus(Volume.Data() + Headers - GetVariableStoreHeaderSize());
      return true;
    }
  }
  gConfig.VssSignatureFormat = Configured;
  return false;
}

}  // namespace

VariableStoreInfo InspectVariableStore(const std::vector<uint8_t> &Image, const std::string &Role, uint64_t Address,
                                       uint64_t Size, bool ErasedIsExpected, std::vector<std::string> &Findings) {
  VariableStoreInfo Store;
  Store.Role = Role;
  Store.Address = Address;
  Store.Size = Size;
  const ByteView View(Image.data(), Image.size());
  ByteView Volume;
  if (Address < kInspectedFlashBase || !View.Sub(static_cast<UINTN>(Address - kInspectedFlashBase), Size, Volume)) {
    Store.Status = "outside the image";
    Findings.push_back(Role + " variable store at " + HexText(Address) + " lies outside the image");
    return Store;
  }
  const BOOLEAN Configured = gConfig.VssSignatureFormat;
  UINTN Headers = 0;
  UINT32 HeaderStatus = VariableStoreInvalid;
  if (!RecogniseStore(Volume, Headers, Store.HeaderForm, HeaderStatus)) {
    bool Erased = true;
    for (UINTN Index = 0; Index < Volume.Size() && Erased; Index++) {
      Erased = Volume.Data()[Index] == 0xFF;
    }
    Store.Status = Erased ? "erased" : "not an NV store volume";
    if (!Erased || !ErasedIsExpected) {
      Findings.push_back(Role + " variable store at " + HexText(Address) + ": " + Store.Status);
    }
    return Store;
  }
  Store.Found = true;
  const UINT8 *End = Volume.Data() + Volume.Size();
  const UINT8 *Record = Volume.Data() + Headers;
  for (; IsVariableRecordInStore(Record, End); Record = GetNextVariableInStore(Record, End)) {
    AuthenticatedVariableHeader Header;
    std::memcpy(&Header, Record, sizeof(Header));
    VariableInfo Variable;
    Variable.Name = VariableName(Record + kVariableHeaderSize, Header.NameSize);
    Variable.Vendor = Header.VendorGuid;
    Variable.Attributes = Header.Attributes;
    Variable.State = Header.State;
    Variable.NameSize = Header.NameSize;
    Variable.DataSize = Header.DataSize;
    Variable.Address = Address + static_cast<uint64_t>(Record - Volume.Data());
    Store.Variables.push_back(Variable);
  }
  const uint64_t WalkEnd = Address + static_cast<uint64_t>(Record - Volume.Data());
  UINT16 StartId = 0;
  View.Read16(static_cast<UINTN>(WalkEnd - kInspectedFlashBase), StartId);
  const char *HeaderText = HeaderStatus == VariableStoreValid ? "valid" : HeaderStatus == VariableStoreRaw ? "erased" : "invalid";
  Store.Status = "NV store volume, " + Store.HeaderForm + " store header " + HeaderText + ", " +
                 std::to_string(Store.Variables.size()) + " records";
  if (HeaderStatus == VariableStoreInvalid) {
    Findings.push_back(Role + " variable store header is invalid");
  }
  if (Record < End && StartId != 0xFFFF) {
    Store.Status += "; the walk stops at " + HexText(WalkEnd) + " on a record that is not whole inside the store";
    Findings.push_back(Role + " variable store: record at " + HexText(WalkEnd) + " is malformed or crosses the store's end");
  }
  gConfig.VssSignatureFormat = Configured;
  return Store;
}
