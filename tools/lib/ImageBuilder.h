// Builds update images in the layout the driver sees (EC part, lower flash part, mapped
// flash part) for tests, benches and the image tool. An image is composed step by step:
// named regions placed at flash addresses (overlaps are refused), firmware volumes with
// FFS2/FFS3 file systems, the BIOS ID record, and arbitrary bytes at a flash address for
// the pieces other builders produce (flash map, PSP trees, variable stores, signatures).
#pragma once
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "../../emu/EmuPlatform.h"
#include "../../src/base/PiFirmwareVolume.h"
#include "../../src/flash/FlashRecords.h"

// A firmware volume built file by file: header with its checksum and block map, files
// 8-byte aligned with valid header and data checksums, free space erased (0xFF).
class FirmwareVolumeBuilder {
public:
  FirmwareVolumeBuilder(const EFI_GUID &FileSystem, uint32_t Size, uint32_t BlockSize = 0x1000);

  // Appends a file whose contents (after the 24-byte header) are Data. With DataAlignment
  // above 8 a pad file goes in front when needed, so that the data starts aligned relative
  // to the volume. Throws std::length_error when the volume has no room left.
  // Without DataChecksum the file carries the fixed checksum, so that its data may be filled
  // in later (signatures) without touching the header.
  FirmwareVolumeBuilder &AddFile(const EFI_GUID &Name, uint8_t Type, std::span<const uint8_t> Data,
                                 uint32_t DataAlignment = 8, bool DataChecksum = true);
  // A file holding one section of SectionType (raw by default) with Payload.
  FirmwareVolumeBuilder &AddRawSectionFile(const EFI_GUID &Name, uint8_t Type, std::span<const uint8_t> Payload,
                                           bool DataChecksum = true, uint8_t SectionType = EFI_SECTION_RAW);
  // A pad file so that the next file starts at Offset (at least a header's length ahead).
  FirmwareVolumeBuilder &PadTo(uint32_t Offset);

  uint32_t Size() const { return static_cast<uint32_t>(Bytes_.size()); }
  uint32_t HeaderLength() const;
  uint32_t NextFileOffset() const { return Next_; }
  // Volume offset of the data of the last file added.
  uint32_t LastFileDataOffset() const { return LastData_; }
  const std::vector<uint8_t> &Bytes() const { return Bytes_; }

private:
  void AppendFile(const EFI_GUID &Name, uint8_t Type, std::span<const uint8_t> Data, bool DataChecksum = true);

  std::vector<uint8_t> Bytes_;
  uint32_t Next_ = 0;
  uint32_t LastData_ = 0;
};

// A name for a generated file: distinct per Index, stable from build to build.
EFI_GUID GeneratedFileName(uint32_t Index);
// Deterministic filler standing for code and data (never all 0xFF).
std::vector<uint8_t> PseudoRandomBytes(size_t Length, uint32_t Seed);

class ImageBuilder {
public:
  struct Region {
    std::string Name;
    uint64_t Address;
    uint32_t Size;
  };

  // An erased image (all 0xFF) for the layout; FlashBase is where the mapped part starts.
  explicit ImageBuilder(const EmuLayout &Layout = kDefaultEmuLayout, uint32_t FlashBase = EmuFlashLayout::kMappedBase);

  const EmuLayout &Layout() const { return Layout_; }
  uint32_t FlashBase() const { return FlashBase_; }
  size_t Size() const { return Image_.size(); }
  std::vector<uint8_t> &Bytes() { return Image_; }
  const std::vector<uint8_t> &Bytes() const { return Image_; }

  // Image offset of [FlashAddress, FlashAddress + Length) in the lower or mapped part;
  // throws std::out_of_range when the range is not wholly there.
  size_t ImageOffsetOf(uint64_t FlashAddress, size_t Length = 1) const;
  std::span<uint8_t> At(uint64_t FlashAddress, size_t Length);
  std::span<const uint8_t> At(uint64_t FlashAddress, size_t Length) const;

  // ---- Generic placement ---------------------------------------------------------------
  ImageBuilder &PutBytes(uint64_t FlashAddress, std::span<const uint8_t> Data);
  ImageBuilder &Fill(uint64_t FlashAddress, size_t Length, uint8_t Value);
  ImageBuilder &PutEcBytes(uint32_t Offset, std::span<const uint8_t> Data);
  // Reserves [FlashAddress, FlashAddress + Size) under Name; throws std::invalid_argument
  // when it overlaps a region placed before.
  ImageBuilder &PlaceRegion(const std::string &Name, uint64_t FlashAddress, uint32_t Size);
  // PlaceRegion for the bytes' extent, then PutBytes.
  ImageBuilder &Place(const std::string &Name, uint64_t FlashAddress, std::span<const uint8_t> Data);
  const std::vector<Region> &Regions() const { return Regions_; }
  const Region *FindRegion(const std::string &Name) const;

  // ---- Structures ----------------------------------------------------------------------
  ImageBuilder &AddVolume(const std::string &Name, uint64_t FlashAddress, const FirmwareVolumeBuilder &Volume);
  // Copies Length bytes of the image from one flash address to another (recovery copies).
  ImageBuilder &CopyFlash(uint64_t From, uint64_t To, size_t Length);

private:
  EmuLayout Layout_;
  uint32_t FlashBase_;
  std::vector<uint8_t> Image_;
  std::vector<Region> Regions_;
};

// The "$BID" record followed by the rest of the identifier text, as a raw file's contents.
std::vector<uint8_t> BiosIdRecordBytes(const uint8_t (&Id)[kBiosIdLength]);

struct DefaultImageOptions {
  uint8_t BiosId[kBiosIdLength] = {'Z', 'Q', '4', '2', 'A'};
  EmuLayout Layout = kDefaultEmuLayout;
  char VersionFamily = 'E';  // byte 14 of the "$BVDT" record
  bool VssStoreHeader = true;  // the live store's header form: "$VSS", else the GUID form
};

// The reference platform's image: the EC firmware at the start of the flash; the boot-block
// volume (IBB1) with the "$BID" record in its last 64 KiB; the IBB2, IBB4, OBB and DXE code
// volumes, OBB carrying the signed firmware-volume file and the signature file; the live
// variable store at VariableStoreBase (DefaultLiveVariables) and the erased backup area; the
// flash map with its signature area, the digest areas and the "$BVDT" version record; the
// EC part (when the layout has one) and, last, the recovery copies of IBB1, IBB4 and IBB2.
// Signatures are placeholders (0xFF) for the signing tool. Composers that add structures do
// so before the recovery copies (RefreshRecoveryCopies takes them again).
ImageBuilder BuildDefaultImage(const DefaultImageOptions &Options = {});
// Copies IBB1, IBB4 and IBB2 over their recovery copies.
void RefreshRecoveryCopies(ImageBuilder &Image);
// The "$BVDT" version record: version text, and the version family at byte 14.
std::vector<uint8_t> VersionRecordBytes(char VersionFamily);
// The default image's bytes, built once per process.
const std::vector<uint8_t> &DefaultImage();

// Puts an image into the platform as its current flash: the EC part into the EC store and
// the lower and mapped parts into the chip, without counting them as operations. FALSE
// when the image's size does not match the platform's layout.
bool LoadImage(EmuPlatform &Platform, std::span<const uint8_t> Image);
