// The signing command's library on a small composed image: a volume with the signed file and
// the signature file, a "QFDM" record naming the signature area and five signed regions. The
// expected signed data is rebuilt here from the composition, not read back from the signer.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "src/base/Guids.h"
#include "src/driver/Config.h"
#include "tools/lib/FlashMapBuilder.h"
#include "tools/lib/ImageBuilder.h"
#include "tools/lib/ImageSigner.h"
#include "tools/lib/TestSigningKeys.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kImageSize = 0x200000;  // covers the excluded area at 0x144700
constexpr size_t kVolumeOffset = 0x10000;
constexpr size_t kSignatureAreaOffset = 0x30000;
constexpr size_t kRecordOffset = kSignatureAreaOffset + 0x40;
constexpr size_t kSignatureSize = 256;
const size_t kExcludedOffset = kReferenceConfig.SignatureExcludedBase - kReferenceConfig.PcdFlashBase;

struct SignedRegion {
  const EFI_GUID *Guid;
  uint64_t Offset, Size;
};
const SignedRegion kRegions[5] = {{&gSignedRegion1Guid, 0x40000, 0x100},
                                  {&gSignedRegion2Guid, 0x41000, 0x80},
                                  {&gSignedRegion3Guid, 0x42000, 0x40},
                                  {&gSignedRegion4Guid, 0x50000, 0x20},
                                  {&gSignedRegion5Guid, 0x43000, 0x200}};

struct Composed {
  Bytes Image;
  size_t SignedFile = 0, SignedFileSize = 0, SignatureData = 0;
};

Composed Compose() {
  Composed Out;
  Out.Image = PseudoRandomBytes(kImageSize, 3);
  FirmwareVolumeBuilder Volume(gEfiFirmwareFileSystem2Guid, 0x10000);
  Volume.AddFile(GeneratedFileName(1), EFI_FV_FILETYPE_DRIVER, PseudoRandomBytes(300, 1));
  const Bytes Inner = PseudoRandomBytes(0x800, 2);
  Volume.AddFile(gSignedFvFileGuid, 0x0B, Inner);
  Out.SignedFile = kVolumeOffset + Volume.LastFileDataOffset() - 24;
  Out.SignedFileSize = 24 + Inner.size();
  Volume.AddRawSectionFile(gFvSignatureFileGuid, EFI_FV_FILETYPE_FREEFORM, Bytes(kSignatureSize, 0));
  Out.SignatureData = kVolumeOffset + Volume.LastFileDataOffset() + 4;
  std::copy(Volume.Bytes().begin(), Volume.Bytes().end(), Out.Image.begin() + kVolumeOffset);
  FlashMapBuilder Map(0);
  Map.Add({gQfdmSignatureEntryGuid, gQfdmSignatureEntryTypeGuid, kSignatureAreaOffset, 0x1000});
  for (size_t Index = 0; Index < 5; Index++) {
    Map.Add({*kRegions[Index].Guid, GeneratedFileName(100 + static_cast<uint32_t>(Index)), kRegions[Index].Offset,
             kRegions[Index].Size});
  }
  const Bytes MapBytes = Map.Build();
  std::copy(MapBytes.begin(), MapBytes.end(), Out.Image.begin() + 0x20000);
  std::memcpy(Out.Image.data() + kRecordOffset, &gQfdmSignatureRecordGuid, sizeof(EFI_GUID));
  const uint32_t RecordLength = kSignatureSize + 4;
  std::memcpy(Out.Image.data() + kRecordOffset + 24, &RecordLength, 3);
  return Out;
}

Bytes Slice(const Bytes &Image, size_t Offset, size_t Length) {
  return Bytes(Image.begin() + static_cast<ptrdiff_t>(Offset), Image.begin() + static_cast<ptrdiff_t>(Offset + Length));
}

// Z1 from O1; 2 x Z2 from O2; Z3 + Z4 from O3; Z5 from O5.
Bytes FlashMapSignedData(const Bytes &Image) {
  Bytes Data = Slice(Image, kRegions[0].Offset, kRegions[0].Size);
  for (const Bytes &Piece : {Slice(Image, kRegions[1].Offset, 2 * kRegions[1].Size),
                             Slice(Image, kRegions[2].Offset, kRegions[2].Size + kRegions[3].Size),
                             Slice(Image, kRegions[4].Offset, kRegions[4].Size)}) {
    Data.insert(Data.end(), Piece.begin(), Piece.end());
  }
  return Data;
}

bool Verifies(const Bytes &Data, const Bytes &Signature) {
  std::string Error;
  const bool Good = RsaVerifySha256(Data, TestSigningKeyPath(TestSigningKey::Selector1), Signature, Error);
  EXPECT_EQ(Error, "");
  return Good;
}

Bytes Blanked(Bytes Image) {
  std::fill_n(Image.begin() + static_cast<ptrdiff_t>(kExcludedOffset), kReferenceConfig.SignatureExcludedSize, 0xFF);
  return Image;
}

struct SignResult {
  bool Ok;
  Bytes Image, Detached;
  SignImageReport Report;
  std::string Error;
};

SignResult Sign(Bytes Image, const std::string &Key = TestSigningKeyPath(TestSigningKey::Selector1)) {
  SignResult R{false, std::move(Image), {}, {}, {}};
  R.Ok = SignImage(R.Image, Key, R.Detached, R.Error, &R.Report);
  return R;
}

TEST(ImageSigner, WritesEmbeddedSignaturesThatVerifyAndChangesNothingElse) {
  const Composed Original = Compose();
  const SignResult R = Sign(Original.Image);
  ASSERT_TRUE(R.Ok) << R.Error;
  EXPECT_TRUE(R.Report.FvSignatureWritten && R.Report.FlashMapSignatureWritten) << R.Report.Skipped;

  EXPECT_TRUE(Verifies(Slice(R.Image, Original.SignedFile, Original.SignedFileSize),
                       Slice(R.Image, Original.SignatureData, kSignatureSize)));
  EXPECT_TRUE(Verifies(FlashMapSignedData(R.Image), Slice(R.Image, kRecordOffset + 28, kSignatureSize)));
  EXPECT_TRUE(Verifies(Blanked(R.Image), R.Detached));
  EXPECT_FALSE(Verifies(R.Image, R.Detached)) << "the detached signature covers the blanked image";

  // Only the two signature slots and the signature file's data checksum changed.
  const size_t SignatureFile = Original.SignatureData - 4 - 24;
  for (size_t Offset = 0; Offset < R.Image.size(); Offset++) {
    const bool InSlot = (Offset >= Original.SignatureData && Offset < Original.SignatureData + kSignatureSize) ||
                        (Offset >= kRecordOffset + 28 && Offset < kRecordOffset + 28 + kSignatureSize) ||
                        Offset == SignatureFile + 17;
    if (!InSlot && R.Image[Offset] != Original.Image[Offset]) {
      ADD_FAILURE() << "byte at 0x" << std::hex << Offset << " changed";
      break;
    }
  }
  uint8_t FileSum = 0;
  for (size_t Offset = SignatureFile + 24; Offset < Original.SignatureData + kSignatureSize; Offset++) {
    FileSum = static_cast<uint8_t>(FileSum + R.Image[Offset]);
  }
  EXPECT_EQ(static_cast<uint8_t>(FileSum + R.Image[SignatureFile + 17]), 0) << "signature file data checksum";
}

}  // namespace
