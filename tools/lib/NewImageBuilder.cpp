#include "NewImageBuilder.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "../../src/base/Guids.h"

namespace {

constexpr size_t kSector = 0x1000;

// A byte range whose content may change without breaking a structure: the payload of a file
// whose first section is raw (after the 4-byte section header), with the file it belongs to.
struct Payload {
  size_t Begin, End;  // image offsets
  size_t File;        // image offset of the file header
};

bool IsFfsVolume(const std::vector<uint8_t> &Image, size_t Offset, size_t Size) {
  EFI_FIRMWARE_VOLUME_HEADER Header;
  if (Size < sizeof(Header)) {
    return false;
  }
  std::memcpy(&Header, Image.data() + Offset, sizeof(Header));
  return Header.Signature == kFvSignature && Header.FvLength == Size &&
         (std::memcmp(&Header.FileSystemGuid, &gEfiFirmwareFileSystem2Guid, sizeof(EFI_GUID)) == 0 ||
          std::memcmp(&Header.FileSystemGuid, &gEfiFirmwareFileSystem3Guid, sizeof(EFI_GUID)) == 0);
}

std::vector<Payload> RawPayloads(const std::vector<uint8_t> &Image, size_t Volume, size_t Size) {
  std::vector<Payload> Found;
  EFI_FIRMWARE_VOLUME_HEADER Header;
  std::memcpy(&Header, Image.data() + Volume, sizeof(Header));
  size_t Offset = Header.HeaderLength;
  while (Offset + sizeof(EFI_FFS_FILE_HEADER) + sizeof(EFI_COMMON_SECTION_HEADER) <= Size) {
    EFI_FFS_FILE_HEADER File;
    std::memcpy(&File, Image.data() + Volume + Offset, sizeof(File));
    const size_t FileSize = Uint24(File.Size);
    if (FileSize < sizeof(File) || FileSize > Size - Offset) {
      break;  // free space
    }
    const uint8_t SectionType = Image[Volume + Offset + sizeof(File) + 3];
    const size_t Begin = Volume + Offset + sizeof(File) + sizeof(EFI_COMMON_SECTION_HEADER);
    const bool Signature = std::memcmp(&File.Name, &gFvSignatureFileGuid, sizeof(EFI_GUID)) == 0;
    if (File.Type != EFI_FV_FILETYPE_FFS_PAD && SectionType == EFI_SECTION_RAW && !Signature &&
        (File.Attributes & FFS_ATTRIB_CHECKSUM) != 0 && Begin < Volume + Offset + FileSize) {
      Found.push_back({Begin, Volume + Offset + FileSize, Volume + Offset});
    }
    Offset = (Offset + FileSize + 7) & ~size_t(7);
  }
  return Found;
}

void FixFileChecksum(std::vector<uint8_t> &Image, size_t File) {
  EFI_FFS_FILE_HEADER Header;
  std::memcpy(&Header, Image.data() + File, sizeof(Header));
  uint8_t Sum = 0;
  for (size_t Index = File + sizeof(Header); Index < File + Uint24(Header.Size); Index++) {
    Sum = static_cast<uint8_t>(Sum + Image[Index]);
  }
  Image[File + offsetof(EFI_FFS_FILE_HEADER, FileChecksum)] = static_cast<uint8_t>(0x100 - Sum);
}

uint32_t NextRandom(uint32_t &State) {
  State ^= State << 13;
  State ^= State >> 17;
  State ^= State << 5;
  return State;
}

// Changes Percent of the region's sectors, each at one payload byte; returns nothing when the
// region has no payload there. Non-volume regions change anywhere.
void ChangeSectors(ImageBuilder &Image, const ImageBuilder::Region &Region, unsigned Percent, uint32_t &Random) {
  std::vector<uint8_t> &Bytes = Image.Bytes();
  const size_t Start = Image.ImageOffsetOf(Region.Address, Region.Size);
  const bool Volume = IsFfsVolume(Bytes, Start, Region.Size);
  const std::vector<Payload> Payloads =
      Volume ? RawPayloads(Bytes, Start, Region.Size) : std::vector<Payload>{{Start, Start + Region.Size, SIZE_MAX}};

  // Sectors that hold payload, with the first payload byte in each.
  std::vector<std::pair<size_t, const Payload *>> Eligible;
  for (size_t Sector = Start; Sector < Start + Region.Size; Sector += kSector) {
    for (const Payload &Piece : Payloads) {
      if (Piece.Begin < Sector + kSector && Piece.End > Sector) {
        Eligible.push_back({std::max(Piece.Begin, Sector), &Piece});
        break;
      }
    }
  }
  const size_t Wanted = std::min(Eligible.size(), (Region.Size / kSector * Percent + 99) / 100);
  for (size_t Index = 0; Index < Wanted; Index++) {
    std::swap(Eligible[Index], Eligible[Index + NextRandom(Random) % (Eligible.size() - Index)]);
    const auto [First, Piece] = Eligible[Index];
    const size_t Room = std::min(Piece->End, (First & ~(kSector - 1)) + kSector) - First;
    Bytes[First + NextRandom(Random) % Room] ^= 0x5A;
    if (Piece->File != SIZE_MAX) {
      FixFileChecksum(Bytes, Piece->File);
    }
  }
}

}  // namespace

NewImage BuildNewImage(const NewImageOptions &Options) {
  ImageBuilder Image = BuildDefaultImage(Options.Base);
  const std::vector<uint8_t> Unchanged = Image.Bytes();
  uint32_t Random = Options.Seed == 0 ? 0x9E3779B9u : Options.Seed;
  for (const std::string &Name : Options.ChangedRegions) {
    const ImageBuilder::Region *Region = Image.FindRegion(Name);
    if (Region == nullptr) {
      throw std::invalid_argument("the default image has no region " + Name);
    }
    ChangeSectors(Image, *Region, Options.ChangedSectorPercent, Random);
  }
  RefreshRecoveryCopies(Image);

  NewImage Result;
  Result.Bytes = Image.Bytes();
  for (size_t Sector = 0; Sector < Unchanged.size(); Sector += kSector) {
    const size_t Length = std::min(kSector, Unchanged.size() - Sector);
    if (std::memcmp(Unchanged.data() + Sector, Result.Bytes.data() + Sector, Length) != 0) {
      Result.ChangedSectors++;
    }
  }
  return Result;
}
