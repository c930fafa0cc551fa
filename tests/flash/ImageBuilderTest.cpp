// The image builder: volumes whose headers and files check out, and the signature structures
// and the new release where the driver's scans expect them.

#include "../../src/flash/BiosIdRecord.h"
#include "../../tools/lib/DefaultImageLayout.h"
#include "../../tools/lib/FlashMapBuilder.h"
#include "../../tools/lib/NewImageBuilder.h"
#include "FlashFixture.h"

namespace {

using namespace EmuFlashLayout;

uint32_t Get32(const uint8_t *Bytes, size_t At) {
  uint32_t Value;
  memcpy(&Value, Bytes + At, sizeof(Value));
  return Value;
}

uint8_t Sum8(const uint8_t *Bytes, size_t Length) {
  uint8_t Sum = 0;
  for (size_t Index = 0; Index < Length; Index++) {
    Sum = static_cast<uint8_t>(Sum + Bytes[Index]);
  }
  return Sum;
}

// Walks a volume as a firmware volume parser would and reports the first inconsistency.
std::string CheckVolume(std::span<const uint8_t> Volume, const EFI_GUID &FileSystem, size_t &Files) {
  EFI_FIRMWARE_VOLUME_HEADER Header;
  memcpy(&Header, Volume.data(), sizeof(Header));
  if (Header.Signature != kFvSignature || Header.FvLength != Volume.size() ||
      memcmp(&Header.FileSystemGuid, &FileSystem, sizeof(EFI_GUID)) != 0) {
    return "volume header";
  }
  uint16_t Sum = 0;
  for (size_t Offset = 0; Offset < Header.HeaderLength; Offset += 2) {
    Sum = static_cast<uint16_t>(Sum + (Volume[Offset] | Volume[Offset + 1] << 8));
  }
  if (Sum != 0) {
    return "volume header checksum";
  }
  if (Header.BlockMap[0].NumBlocks * Header.BlockMap[0].Length != Volume.size()) {
    return "block map";
  }
  Files = 0;
  size_t Offset = Header.HeaderLength;
  while (Offset + sizeof(EFI_FFS_FILE_HEADER) <= Volume.size()) {
    EFI_FFS_FILE_HEADER File;
    memcpy(&File, Volume.data() + Offset, sizeof(File));
    const auto Header = Volume.subspan(Offset, sizeof(File));
    if (std::all_of(Header.begin(), Header.end(), [](uint8_t Byte) { return Byte == 0xFF; })) {
      break;  // free space
    }
    const size_t Size = Uint24(File.Size);
    if (Offset % 8 != 0 || Size < sizeof(File) || Size > Volume.size() - Offset) {
      return "file bounds";
    }
    if (static_cast<uint8_t>(Sum8(Volume.data() + Offset, sizeof(File)) - File.FileChecksum - File.State) != 0) {
      return "file header checksum";
    }
    const uint8_t DataSum = Sum8(Volume.data() + Offset + sizeof(File), Size - sizeof(File));
    if ((File.Attributes & FFS_ATTRIB_CHECKSUM) != 0 ? static_cast<uint8_t>(DataSum + File.FileChecksum) != 0
                                                      : File.FileChecksum != FFS_FIXED_CHECKSUM) {
      return "file data checksum";
    }
    if (File.State != 0xF8) {
      return "file state";
    }
    Files++;
    Offset = (Offset + Size + 7) & ~size_t(7);
  }
  return "";
}

TEST(ImageBuilder, DefaultImageVolumesParseAndRecoveryCopiesMatchTheirOriginals) {
  const ImageBuilder Image = BuildDefaultImage();
  struct {
    const char *Name;
    const EFI_GUID *FileSystem;
    size_t MinimumFiles;
  } Volumes[] = {{"OBB", &gEfiFirmwareFileSystem3Guid, 4},
                 {"DXE", &gEfiFirmwareFileSystem2Guid, 6},
                 {"IBB1", &gEfiFirmwareFileSystem2Guid, 6},
                 {"IBB2", &gEfiFirmwareFileSystem2Guid, 4},
                 {"IBB4", &gEfiFirmwareFileSystem2Guid, 2}};
  for (const auto &Volume : Volumes) {
    const ImageBuilder::Region *Region = Image.FindRegion(Volume.Name);
    ASSERT_NE(Region, nullptr) << Volume.Name;
    size_t Files = 0;
    EXPECT_EQ(CheckVolume(Image.At(Region->Address, Region->Size), *Volume.FileSystem, Files), "") << Volume.Name;
    EXPECT_GE(Files, Volume.MinimumFiles) << Volume.Name;
  }
  EXPECT_EQ(Image.FindRegion("NvStorage")->Address, 0xFF14A000u) << "at VariableStoreBase";
  EXPECT_EQ(Image.FindRegion("NvStorage")->Size, 0x30000u);
  EXPECT_EQ(Image.FindRegion("IBB1")->Address, kBootBlockFvAddress);

  const auto Ibb1 = Image.At(kIbb1Address, kIbb1Size);
  const auto Copy = Image.At(kRecoveryBase, kIbb1Size);
  EXPECT_TRUE(std::equal(Ibb1.begin(), Ibb1.end(), Copy.begin()));
  EXPECT_EQ(Image.FindRegion("IBB2R")->Address + kIbb2Size, kDxeFvAddress) << "the copies end where DXE starts";
}

}  // namespace
