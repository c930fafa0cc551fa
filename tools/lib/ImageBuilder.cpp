#include "ImageBuilder.h"

#include <cstring>
#include <stdexcept>

#include "../../src/base/Guids.h"
#include "../../src/flash/BiosIdRecord.h"
#include "DefaultImageLayout.h"
#include "FlashMapBuilder.h"
#include "PspImageBuilder.h"
#include "VariableStoreBuilder.h"

namespace {

// Attributes of a volume kept in NOR flash: readable, writable, erase polarity 1, its
// status bits enabled and locked, 8-byte alignment.
constexpr uint32_t kVolumeAttributes = 0x0004FEFF;
constexpr uint8_t kFileStateValid = static_cast<uint8_t>(~(EFI_FILE_HEADER_CONSTRUCTION | EFI_FILE_HEADER_VALID |
                                                            EFI_FILE_DATA_VALID));
constexpr uint32_t kFileAlignment = 8;
constexpr uint32_t kMaxSmallFileSize = 0xFFFFFF;

uint8_t Sum8(const uint8_t *Bytes, size_t Length) {
  uint8_t Sum = 0;
  for (size_t Index = 0; Index < Length; Index++) {
    Sum = static_cast<uint8_t>(Sum + Bytes[Index]);
  }
  return Sum;
}

uint32_t AlignUp(uint32_t Value, uint32_t Alignment) { return (Value + Alignment - 1) & ~(Alignment - 1); }

}  // namespace

// ---- Firmware volumes ----------------------------------------------------------------------

FirmwareVolumeBuilder::FirmwareVolumeBuilder(const EFI_GUID &FileSystem, uint32_t Size, uint32_t BlockSize) {
  if (BlockSize == 0 || Size < HeaderLength() || Size % BlockSize != 0) {
    throw std::invalid_argument("firmware volume size must be a whole number of blocks");
  }
  Bytes_.assign(Size, 0xFF);
  EFI_FIRMWARE_VOLUME_HEADER Header = {};
  Header.FileSystemGuid = FileSystem;
  Header.FvLength = Size;
  Header.Signature = kFvSignature;
  Header.Attributes = kVolumeAttributes;
  Header.HeaderLength = static_cast<uint16_t>(HeaderLength());
  Header.Revision = EFI_FVH_REVISION;
  Header.BlockMap[0] = {Size / BlockSize, BlockSize};
  std::memcpy(Bytes_.data(), &Header, sizeof(Header));
  const EFI_FV_BLOCK_MAP_ENTRY End = {0, 0};
  std::memcpy(Bytes_.data() + sizeof(Header), &End, sizeof(End));
  // The header's 16-bit words sum to zero.
  uint16_t Sum = 0;
  for (uint32_t Offset = 0; Offset < HeaderLength(); Offset += 2) {
    uint16_t Word;
    std::memcpy(&Word, Bytes_.data() + Offset, sizeof(Word));
    Sum = static_cast<uint16_t>(Sum + Word);
  }
  const uint16_t Checksum = static_cast<uint16_t>(0x10000 - Sum);
  std::memcpy(Bytes_.data() + offsetof(EFI_FIRMWARE_VOLUME_HEADER, Checksum), &Checksum, sizeof(Checksum));
  Next_ = HeaderLength();
}

uint32_t FirmwareVolumeBuilder::HeaderLength() const {
  return sizeof(EFI_FIRMWARE_VOLUME_HEADER) + sizeof(EFI_FV_BLOCK_MAP_ENTRY);  // one map entry and its end
}

void FirmwareVolumeBuilder::AppendFile(const EFI_GUID &Name, uint8_t Type, std::span<const uint8_t> Data,
                                       bool DataChecksum) {
  const uint32_t Start = AlignUp(Next_, kFileAlignment);
  const uint64_t FileSize = sizeof(EFI_FFS_FILE_HEADER) + Data.size();
  if (FileSize > kMaxSmallFileSize || Start > Size() || FileSize > Size() - Start) {
    throw std::length_error("file does not fit in the firmware volume");
  }
  const bool FixedChecksum = Type == EFI_FV_FILETYPE_FFS_PAD || !DataChecksum;
  EFI_FFS_FILE_HEADER Header = {};
  Header.Name = Name;
  Header.Type = Type;
  Header.Attributes = FixedChecksum ? 0 : FFS_ATTRIB_CHECKSUM;
  Header.Size[0] = static_cast<uint8_t>(FileSize);
  Header.Size[1] = static_cast<uint8_t>(FileSize >> 8);
  Header.Size[2] = static_cast<uint8_t>(FileSize >> 16);
  // The header sums to zero with State and the file checksum taken as zero.
  const uint8_t HeaderSum = Sum8(reinterpret_cast<const uint8_t *>(&Header), sizeof(Header));
  Header.HeaderChecksum = static_cast<uint8_t>(0x100 - HeaderSum);
  Header.FileChecksum = FixedChecksum ? FFS_FIXED_CHECKSUM : static_cast<uint8_t>(0x100 - Sum8(Data.data(), Data.size()));
  Header.State = kFileStateValid;
  std::memcpy(Bytes_.data() + Start, &Header, sizeof(Header));
  if (!Data.empty()) {
    std::memcpy(Bytes_.data() + Start + sizeof(Header), Data.data(), Data.size());
  }
  LastData_ = Start + sizeof(Header);
  Next_ = static_cast<uint32_t>(Start + FileSize);
}

FirmwareVolumeBuilder &FirmwareVolumeBuilder::AddFile(const EFI_GUID &Name, uint8_t Type,
                                                      std::span<const uint8_t> Data, uint32_t DataAlignment,
                                                      bool DataChecksum) {
  if (DataAlignment < kFileAlignment || (DataAlignment & (DataAlignment - 1)) != 0) {
    throw std::invalid_argument("data alignment must be a power of two of at least 8");
  }
  const uint32_t Start = AlignUp(Next_, kFileAlignment);
  const uint32_t Header = sizeof(EFI_FFS_FILE_HEADER);
  if ((Start + Header) % DataAlignment != 0) {
    // A pad file of at least a header's length moves the next file's data onto the boundary.
    uint32_t Pad = (DataAlignment - (Start + Header) % DataAlignment) % DataAlignment;
    while (Pad < Header) {
      Pad += DataAlignment;
    }
    PadTo(Start + Pad);
  }
  AppendFile(Name, Type, Data, DataChecksum);
  return *this;
}

FirmwareVolumeBuilder &FirmwareVolumeBuilder::AddRawSectionFile(const EFI_GUID &Name, uint8_t Type,
                                                                std::span<const uint8_t> Payload, bool DataChecksum,
                                                                uint8_t SectionType) {
  const size_t SectionSize = sizeof(EFI_COMMON_SECTION_HEADER) + Payload.size();
  std::vector<uint8_t> Section(SectionSize);
  Section[0] = static_cast<uint8_t>(SectionSize);
  Section[1] = static_cast<uint8_t>(SectionSize >> 8);
  Section[2] = static_cast<uint8_t>(SectionSize >> 16);
  Section[3] = SectionType;
  if (!Payload.empty()) {
    std::memcpy(Section.data() + sizeof(EFI_COMMON_SECTION_HEADER), Payload.data(), Payload.size());
  }
  return AddFile(Name, Type, Section, kFileAlignment, DataChecksum);
}

FirmwareVolumeBuilder &FirmwareVolumeBuilder::PadTo(uint32_t Offset) {
  const uint32_t Start = AlignUp(Next_, kFileAlignment);
  if (Offset % kFileAlignment != 0 || Offset < Start + sizeof(EFI_FFS_FILE_HEADER)) {
    throw std::invalid_argument("a pad file needs room for its header and 8-byte alignment");
  }
  const std::vector<uint8_t> Erased(Offset - Start - sizeof(EFI_FFS_FILE_HEADER), 0xFF);
  AppendFile(EFI_GUID{}, EFI_FV_FILETYPE_FFS_PAD, Erased);
  return *this;
}

EFI_GUID GeneratedFileName(uint32_t Index) {
  return EFI_GUID{0x5A510000u | (Index & 0xFFFF), 0x4242, 0x4D46, {0x9E, 0x11, 0x51, 0x42, 0x00, 0x00, 0x00,
                                                                     static_cast<uint8_t>(Index >> 16)}};
}

std::vector<uint8_t> PseudoRandomBytes(size_t Length, uint32_t Seed) {
  std::vector<uint8_t> Bytes(Length);
  uint32_t State = Seed == 0 ? 0x9E3779B9u : Seed;
  for (size_t Index = 0; Index < Length; Index++) {
    State ^= State << 13;
    State ^= State >> 17;
    State ^= State << 5;
    Bytes[Index] = static_cast<uint8_t>(State >> 24);
  }
  return Bytes;
}

// ---- Images --------------------------------------------------------------------------------

ImageBuilder::ImageBuilder(const EmuLayout &Layout, uint32_t FlashBase) : Layout_(Layout), FlashBase_(FlashBase) {
  Image_.assign(static_cast<size_t>(Layout.EcSize) + Layout.LowerFlashSize + Layout.MappedFlashSize, 0xFF);
}

size_t ImageBuilder::ImageOffsetOf(uint64_t FlashAddress, size_t Length) const {
  const uint64_t FlashStart = static_cast<uint64_t>(FlashBase_) - Layout_.LowerFlashSize;
  const uint64_t FlashBytes = static_cast<uint64_t>(Layout_.LowerFlashSize) + Layout_.MappedFlashSize;
  if (FlashAddress < FlashStart || FlashAddress - FlashStart > FlashBytes ||
      Length > FlashBytes - (FlashAddress - FlashStart)) {
    throw std::out_of_range("range is not in the image's flash parts");
  }
  return static_cast<size_t>(Layout_.EcSize + (FlashAddress - FlashStart));
}

std::span<uint8_t> ImageBuilder::At(uint64_t FlashAddress, size_t Length) {
  return std::span<uint8_t>(Image_).subspan(ImageOffsetOf(FlashAddress, Length), Length);
}

std::span<const uint8_t> ImageBuilder::At(uint64_t FlashAddress, size_t Length) const {
  return std::span<const uint8_t>(Image_).subspan(ImageOffsetOf(FlashAddress, Length), Length);
}

ImageBuilder &ImageBuilder::PutBytes(uint64_t FlashAddress, std::span<const uint8_t> Data) {
  std::span<uint8_t> Target = At(FlashAddress, Data.size());
  if (!Data.empty()) {
    std::memcpy(Target.data(), Data.data(), Data.size());
  }
  return *this;
}

ImageBuilder &ImageBuilder::Fill(uint64_t FlashAddress, size_t Length, uint8_t Value) {
  std::span<uint8_t> Target = At(FlashAddress, Length);
  std::memset(Target.data(), Value, Length);
  return *this;
}

ImageBuilder &ImageBuilder::PutEcBytes(uint32_t Offset, std::span<const uint8_t> Data) {
  if (Offset > Layout_.EcSize || Data.size() > Layout_.EcSize - Offset) {
    throw std::out_of_range("range is not in the image's EC part");
  }
  if (!Data.empty()) {
    std::memcpy(Image_.data() + Offset, Data.data(), Data.size());
  }
  return *this;
}

ImageBuilder &ImageBuilder::PlaceRegion(const std::string &Name, uint64_t FlashAddress, uint32_t Size) {
  ImageOffsetOf(FlashAddress, Size);  // must lie in the flash parts
  for (const Region &Placed : Regions_) {
    if (FlashAddress < Placed.Address + Placed.Size && Placed.Address < FlashAddress + Size) {
      throw std::invalid_argument("region " + Name + " overlaps " + Placed.Name);
    }
  }
  Regions_.push_back({Name, FlashAddress, Size});
  return *this;
}

ImageBuilder &ImageBuilder::Place(const std::string &Name, uint64_t FlashAddress, std::span<const uint8_t> Data) {
  PlaceRegion(Name, FlashAddress, static_cast<uint32_t>(Data.size()));
  return PutBytes(FlashAddress, Data);
}

const ImageBuilder::Region *ImageBuilder::FindRegion(const std::string &Name) const {
  for (const Region &Placed : Regions_) {
    if (Placed.Name == Name) {
      return &Placed;
    }
  }
  return nullptr;
}

ImageBuilder &ImageBuilder::AddVolume(const std::string &Name, uint64_t FlashAddress,
                                      const FirmwareVolumeBuilder &Volume) {
  return Place(Name, FlashAddress, Volume.Bytes());
}

ImageBuilder &ImageBuilder::CopyFlash(uint64_t From, uint64_t To, size_t Length) {
  const std::vector<uint8_t> Copy(At(From, Length).begin(), At(From, Length).end());
  return PutBytes(To, Copy);
}

// ---- The reference image -------------------------------------------------------------------

std::vector<uint8_t> BiosIdRecordBytes(const uint8_t (&Id)[kBiosIdLength]) {
  // The five ID bytes are followed by the rest of the identifier text, as flash images carry it.
  static constexpr char kIdentifierTail[] = ".107.2024.0102";
  std::vector<uint8_t> Bytes(sizeof(BiosIdRecord));
  const uint32_t Signature = kBiosIdSignature;
  std::memcpy(Bytes.data(), &Signature, sizeof(Signature));
  std::memcpy(Bytes.data() + offsetof(BiosIdRecord, Id), Id, kBiosIdLength);
  Bytes.insert(Bytes.end(), kIdentifierTail, kIdentifierTail + sizeof(kIdentifierTail));
  return Bytes;
}

namespace {

struct GeneratedFile {
  uint8_t Type;
  uint32_t Size;
};

void AddGeneratedFiles(FirmwareVolumeBuilder &Volume, std::span<const GeneratedFile> Files, uint32_t FirstIndex) {
  uint32_t Index = FirstIndex;
  for (const GeneratedFile &File : Files) {
    Volume.AddRawSectionFile(GeneratedFileName(Index), File.Type, PseudoRandomBytes(File.Size, Index));
    Index++;
  }
}

}  // namespace

std::vector<uint8_t> VersionRecordBytes(char VersionFamily) {
  // "$BVDT", a record revision, the platform and version text with the family at 14.
  static constexpr char kRecord[] = "$BVDT\x01ZQ42A107?.2024.0102";
  std::vector<uint8_t> Bytes(kRecord, kRecord + sizeof(kRecord));
  Bytes[DefaultImageLayout::kVersionFamilyOffset] = static_cast<uint8_t>(VersionFamily);
  return Bytes;
}

void RefreshRecoveryCopies(ImageBuilder &Image) {
  using namespace EmuFlashLayout;
  Image.CopyFlash(kIbb1Address, kRecoveryBase, kIbb1Size)
      .CopyFlash(kIbb4Address, kRecoveryBase + kIbb1Size, kIbb4Size)
      .CopyFlash(kIbb2Address, kRecoveryBase + kIbb1Size + kIbb4Size, kIbb2Size);
}

namespace {

constexpr uint8_t kFileTypeFirmwareVolumeImage = 0x0B;
constexpr uint8_t kSectionFirmwareVolumeImage = 0x17;

// The file whose embedded signature the driver checks: a firmware volume image of PEI modules.
void AddSignedVolumeFiles(FirmwareVolumeBuilder &Volume) {
  FirmwareVolumeBuilder Nested(gEfiFirmwareFileSystem2Guid, 0x20000);
  const GeneratedFile NestedFiles[] = {{EFI_FV_FILETYPE_PEIM, 0x9000}, {EFI_FV_FILETYPE_PEIM, 0x6400},
                                       {EFI_FV_FILETYPE_DRIVER, 0xB800}};
  AddGeneratedFiles(Nested, NestedFiles, 0x400);
  Volume.AddRawSectionFile(gSignedFvFileGuid, kFileTypeFirmwareVolumeImage, Nested.Bytes(), true,
                           kSectionFirmwareVolumeImage);
  // The signature over the signed file goes into this section; the file keeps the fixed
  // checksum so that the signature can be written without touching the file header.
  const std::vector<uint8_t> Placeholder(DefaultImageLayout::kSignatureLength, 0xFF);
  Volume.AddRawSectionFile(gFvSignatureFileGuid, EFI_FV_FILETYPE_FREEFORM, Placeholder, false);
}

std::vector<uint8_t> MapSignatureRecord() {
  using namespace DefaultImageLayout;
  std::vector<uint8_t> Record(kMapSignatureRecordSignatureOffset + kSignatureLength, 0);
  std::memcpy(Record.data(), &gQfdmSignatureRecordGuid, sizeof(EFI_GUID));
  const uint32_t Length = kSignatureLength + 4;
  Record[kMapSignatureRecordLengthOffset] = static_cast<uint8_t>(Length);
  Record[kMapSignatureRecordLengthOffset + 1] = static_cast<uint8_t>(Length >> 8);
  Record[kMapSignatureRecordLengthOffset + 2] = static_cast<uint8_t>(Length >> 16);
  std::memset(Record.data() + kMapSignatureRecordSignatureOffset, 0xFF, kSignatureLength);
  return Record;
}

}  // namespace

ImageBuilder BuildDefaultImage(const DefaultImageOptions &Options) {
  using namespace DefaultImageLayout;
  ImageBuilder Image(Options.Layout);
  if (Options.Layout.EcSize != 0) {
    Image.PutEcBytes(0, PseudoRandomBytes(Options.Layout.EcSize, 0xEC0000));
  }
  Image.Place("EC", kEcFirmwareAddress, PseudoRandomBytes(kEcFirmwareSize, 0xEC1000));

  // The embedded firmware structure right after the EC firmware, naming the primary PSP
  // level-1 directory (as an offset from the flash base); the primary and backup directory
  // blocks after IBB2, each a "$PSP" header without entries.
  PspImage::EfsFields EfsFields;
  EfsFields.PspDirectory = kPspL1DirectoryAddress - kMappedBase;
  Image.Place("EFS", kEfsAddress, PspImage::Efs(EfsFields));
  const std::vector<uint8_t> PspL1 = PspImage::PspDirectory("$PSP", {});
  Image.PlaceRegion("PspL1", kPspL1DirectoryAddress, kPspL1DirectorySize).PutBytes(kPspL1DirectoryAddress, PspL1);
  Image.PlaceRegion("PspL1Backup", kPspL1BackupDirectoryAddress, kPspL1DirectorySize)
      .PutBytes(kPspL1BackupDirectoryAddress, PspL1);

  // OBB: the post-memory code that the boot block loads (FFS3), with the signed file.
  FirmwareVolumeBuilder Obb(gEfiFirmwareFileSystem3Guid, kObbFvSize);
  const GeneratedFile ObbFiles[] = {{EFI_FV_FILETYPE_DRIVER, 0x1A000}, {EFI_FV_FILETYPE_DRIVER, 0x9400},
                                    {EFI_FV_FILETYPE_DRIVER, 0x23800}, {EFI_FV_FILETYPE_FREEFORM, 0x4000}};
  AddGeneratedFiles(Obb, ObbFiles, 0x100);
  AddSignedVolumeFiles(Obb);
  Image.AddVolume("OBB", kObbFvAddress, Obb);

  // The live variable store and its backup area, erased: no backup has been taken.
  VariableStoreBuilder Store =
      DefaultLiveStore(Options.VssStoreHeader ? StoreHeaderForm::Vss : StoreHeaderForm::Guid, kVariableStoreSize);
  Image.Place("NvStorage", kVariableStoreAddress, Store.Bytes());
  Image.PlaceRegion("NvBackup", kVariableBackupAddress, kVariableBackupSize);

  // DXE: the drivers of the boot-services phase (FFS2).
  FirmwareVolumeBuilder Dxe(gEfiFirmwareFileSystem2Guid, kDxeFvSize);
  const GeneratedFile DxeFiles[] = {{EFI_FV_FILETYPE_DRIVER, 0x38000}, {EFI_FV_FILETYPE_DRIVER, 0x12000},
                                    {EFI_FV_FILETYPE_DRIVER, 0x6C00},  {EFI_FV_FILETYPE_DRIVER, 0x51000},
                                    {EFI_FV_FILETYPE_DRIVER, 0x2E00},  {EFI_FV_FILETYPE_FREEFORM, 0x20000}};
  AddGeneratedFiles(Dxe, DxeFiles, 0x200);
  Image.AddVolume("DXE", kDxeFvAddress, Dxe);

  // IBB1, the boot block: the pre-memory modules, and near its end the BIOS ID in a raw
  // file whose "$BID" lands on a 16-byte boundary inside the BIOS-ID area.
  FirmwareVolumeBuilder BootBlock(gEfiFirmwareFileSystem2Guid, kBootBlockFvSize);
  const GeneratedFile PeiFiles[] = {{EFI_FV_FILETYPE_PEIM, 0x2800}, {EFI_FV_FILETYPE_PEIM, 0x9C00},
                                    {EFI_FV_FILETYPE_PEIM, 0x41000}, {EFI_FV_FILETYPE_PEIM, 0x7400},
                                    {EFI_FV_FILETYPE_PEIM, 0x1C000}};
  AddGeneratedFiles(BootBlock, PeiFiles, 0x300);
  BootBlock.PadTo(kBootBlockFvSize - 0x800);
  BootBlock.AddFile(GeneratedFileName(0x3FF), EFI_FV_FILETYPE_RAW, BiosIdRecordBytes(Options.BiosId),
                    kBiosIdAlignment);
  Image.AddVolume("IBB1", kBootBlockFvAddress, BootBlock);

  // IBB2 and IBB4: the rest of the pre-memory code.
  FirmwareVolumeBuilder Ibb2(gEfiFirmwareFileSystem2Guid, kIbb2Size);
  const GeneratedFile Ibb2Files[] = {{EFI_FV_FILETYPE_PEIM, 0x64000}, {EFI_FV_FILETYPE_PEIM, 0x1F000},
                                     {EFI_FV_FILETYPE_PEIM, 0xA8000}, {EFI_FV_FILETYPE_FREEFORM, 0x30000}};
  AddGeneratedFiles(Ibb2, Ibb2Files, 0x500);
  Image.AddVolume("IBB2", kIbb2Address, Ibb2);
  FirmwareVolumeBuilder Ibb4(gEfiFirmwareFileSystem2Guid, kIbb4Size);
  const GeneratedFile Ibb4Files[] = {{EFI_FV_FILETYPE_PEIM, 0x18000}, {EFI_FV_FILETYPE_PEIM, 0x2A000}};
  AddGeneratedFiles(Ibb4, Ibb4Files, 0x600);
  Image.AddVolume("IBB4", kIbb4Address, Ibb4);

  // The flash map, its signature area, the digest areas (erased: no digest yet) and the
  // version record, side by side; the excluded area stays clear of all of them.
  const std::vector<uint8_t> FlashMap = DefaultFlashMap(Options.Layout.EcSize + Options.Layout.LowerFlashSize).Build();
  Image.PlaceRegion("FlashMap", kDefaultFlashMapAddress, kDefaultFlashMapRegionSize)
      .PutBytes(kDefaultFlashMapAddress, FlashMap);
  Image.PlaceRegion("MapSignature", kMapSignatureAreaAddress, kMapSignatureAreaSize)
      .PutBytes(kMapSignatureAreaAddress, MapSignatureRecord());
  Image.PlaceRegion("DigestArea1", kDigestArea1Address, kDigestArea1Size)
      .PlaceRegion("DigestArea2", kDigestArea2Address, kDigestArea2Size)
      .PlaceRegion("DigestArea3", kDigestArea3Address, kDigestArea3Size);
  // The CmosToRom journal: its first half signed and empty, so mirrored CMOS writes go there.
  std::vector<uint8_t> Journal(kCmosJournalSize, 0xFF);
  std::memcpy(Journal.data(), &gCmosJournalSignatureGuid, sizeof(EFI_GUID));
  Image.Place("CmosJournal", kCmosJournalAddress, Journal);
  Image.PlaceRegion("VersionRecord", kVersionRecordAddress, kVersionRecordSize)
      .PutBytes(kVersionRecordAddress, VersionRecordBytes(Options.VersionFamily));
  Image.PlaceRegion("SignatureExcluded", kSignatureExcludedAddress, kSignatureExcludedSize);

  // The recovery (TopSwap) copies of IBB1, IBB4 and IBB2, one after the other.
  Image.PlaceRegion("IBB1R", kRecoveryBase, kIbb1Size)
      .PlaceRegion("IBB4R", kRecoveryBase + kIbb1Size, kIbb4Size)
      .PlaceRegion("IBB2R", kRecoveryBase + kIbb1Size + kIbb4Size, kIbb2Size);
  RefreshRecoveryCopies(Image);
  return Image;
}

const std::vector<uint8_t> &DefaultImage() {
  static const std::vector<uint8_t> Bytes = BuildDefaultImage().Bytes();
  return Bytes;
}

bool LoadImage(EmuPlatform &Platform, std::span<const uint8_t> Image) {
  const EmuLayout &Layout = Platform.Layout;
  const uint64_t FlashBytes = static_cast<uint64_t>(Layout.LowerFlashSize) + Layout.MappedFlashSize;
  if (Image.size() != Layout.EcSize + FlashBytes || Platform.Flash.Size() != FlashBytes ||
      Platform.EcStoreSize < Layout.EcSize) {
    return false;
  }
  if (Layout.EcSize != 0) {
    std::memcpy(Platform.EcStore, Image.data(), Layout.EcSize);
  }
  Platform.Flash.Load(0, Image.data() + Layout.EcSize, static_cast<UINT32>(FlashBytes));
  return true;
}
