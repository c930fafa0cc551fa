// Hostile input at every service: null pointers, extreme sizes and offsets, hostile skip
// regions, blocks past the end, calls out of order. Each row names its exact status and no
// row may erase or program the chip, whose bytes all differ from the accepted image.
#include <algorithm>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "../../src/driver/BiosImageInterface.h"
#include "../../src/driver/DriverState.h"
#include "../../tools/lib/NewImageBuilder.h"
#include "../../tools/lib/TestSigningKeys.h"
#include "../flash/FlashFixture.h"

namespace {

constexpr UINT64 k4G = 0xFFFFFFFFull;
constexpr UINT64 k64 = ~0ull;
constexpr UINT16 kPastTheEnd = 0xFFFF;  // the image has 4096 blocks of 4 KiB
constexpr UINT16 kMiddleOfObb = 0x800;  // inside OBB, not the first block of any region

struct Signed {
  std::vector<uint8_t> Image, Signature;
};

const Signed &NewSignedImage() {
  static const Signed Built = [] {
    Signed Made{BuildNewImage().Bytes, {}};
    std::string Error;
    EXPECT_TRUE(SignWithTestKey(Made.Image, Made.Signature, Error)) << Error;
    return Made;
  }();
  return Built;
}

struct Row {
  const char *Case;
  std::function<EFI_STATUS()> Call;
  EFI_STATUS Expected;
};

class HostileInput : public FlashFixture {
protected:
  // A region-tracked platform that enforces the detached signature, the driver started.
  void StartTracked() {
    Platform->Config->Flags |= kPlatformConfigAlternativeFlag;
    Hobs.AddGuidHob(gPeiSignCheckHobGuid, nullptr, 0);
    Start();
    First = mBiosImageInterface;
    Second = mBiosImageInterface2;
  }

  EFI_STATUS Query() { return First->BiosQueryImage(First, &Record, 0, 0); }

  EFI_STATUS Verify(VOID *Image, UINTN ImageSize, VOID *Signature, UINT64 SignatureSize) {
    return First->BiosVerifySignature(First, Image, ImageSize, Signature, SignatureSize);
  }

  // The query, then the new image accepted; its private copy is then made to differ from the
  // flash in every byte.
  void QueryAndAccept() {
    ASSERT_EQ(Query(), EFI_SUCCESS);
    Image = NewSignedImage();
    ASSERT_EQ(Verify(Image.Image.data(), Image.Image.size(), Image.Signature.data(), Image.Signature.size()),
              EFI_SUCCESS);
    for (UINTN Index = 0; Index < mVerifiedImageSize; Index++) {
      mVerifiedImage[Index] = static_cast<UINT8>(~Platform->Flash.Bytes()[Index]);
    }
    Platform->Flash.ResetStats();
  }

  // A block of the query's geometry: offset Block x 4 KiB unless given.
  EFI_STATUS Write(UINT16 Block, BiosImageQueryRecord Hostile, BiosImageInterfaceProtocol *Table = nullptr,
                   UINT64 Offset = k64, UINT16 BlockEx = 0) {
    BiosWriteRequest Request = {};
    Request.BlockNumber = Block;
    Request.BlockNumberEx = BlockEx == 0 ? Block : BlockEx;
    Request.ImageOffset = Offset == k64 ? UINT64{Block} * 0x1000 : Offset;
    Table = Table == nullptr ? First : Table;
    return Table->BiosWriteImage(Table, &Hostile, &Request);
  }

  BiosImageQueryRecord WithSkips(std::vector<SkipRegion> Regions, int Count = -1) const {
    BiosImageQueryRecord Hostile = Record;
    std::fill(std::begin(Hostile.SkipRegions), std::end(Hostile.SkipRegions), SkipRegion{0, 0});
    for (size_t Index = 0; Index < Regions.size() && Index < kMaxSkipRegions; Index++) {
      Hostile.SkipRegions[Index] = Regions[Index];
    }
    Hostile.SkipRegionCount = static_cast<UINT8>(Count < 0 ? static_cast<int>(Regions.size()) : Count);
    return Hostile;
  }

  BiosImageQueryRecord WithBlockSize(UINT32 Size) const {
    BiosImageQueryRecord Hostile = Record;
    Hostile.BlockSize = Size;
    return Hostile;
  }

  // The call made on the platform without region tracking.
  std::function<EFI_STATUS()> Untracked(std::function<EFI_STATUS()> Call) {
    return [this, Call] {
      Platform->Config->Flags &= ~kPlatformConfigAlternativeFlag;
      const EFI_STATUS Status = Call();
      Platform->Config->Flags |= kPlatformConfigAlternativeFlag;
      return Status;
    };
  }

  void RunTable(const std::vector<Row> &Rows) {
    for (const Row &R : Rows) {
      EXPECT_EQ(R.Call(), R.Expected) << R.Case;
      EXPECT_EQ(Platform->Flash.Stats().SectorErases + Platform->Flash.Stats().Programs, 0u) << R.Case;
      Platform->Flash.ResetStats();  // a failing row does not spill into the next
    }
  }

  BiosImageInterfaceProtocol *First = nullptr, *Second = nullptr;
  BiosImageQueryRecord Record = {};
  Signed Image;
};

// The services without an image: version, token, the reserved slots, the query and the
// completion (which takes any status byte, even before any verification).
TEST_F(HostileInput, ServicesWithoutAnImageRefuseNullOutputsIgnoreThisAndFillOnlyTheirRecord) {
  StartTracked();
  UINT8 Major = 0, Minor = 0;
  UINT64 Token = 1;
  auto *Foreign = reinterpret_cast<BiosImageInterfaceProtocol *>(&Token);
  std::vector<UINT8> Exact(sizeof(BiosImageQueryRecord));  // ASan traps a write past its end
  auto *Exactly = reinterpret_cast<BiosImageQueryRecord *>(Exact.data());
  RunTable({
      {"version: null major", [&] { return First->BiosGetDriverVersion(First, nullptr, &Minor); }, EFI_INVALID_PARAMETER},
      {"version: null This", [&] { return First->BiosGetDriverVersion(nullptr, &Major, &Minor); }, EFI_SUCCESS},
      {"token: null", [&] { return First->BiosGetUpdateToken(First, nullptr); }, EFI_INVALID_PARAMETER},
      {"token: foreign This", [&] { return First->BiosGetUpdateToken(Foreign, &Token); }, EFI_SUCCESS},
      {"slot 7: null This", [&] { return First->Reserved7(nullptr); }, EFI_NOT_READY},
      {"slot 8: foreign This", [&] { return Second->Reserved8(Foreign); }, EFI_NOT_READY},
      {"slot 9: null This", [&] { return First->Reserved9(nullptr); }, EFI_UNSUPPORTED},
      {"slot 10: foreign This", [&] { return Second->Reserved10(Foreign); }, EFI_UNSUPPORTED},
      {"query: null record", [&] { return First->BiosQueryImage(First, nullptr, 0, 0); }, EFI_INVALID_PARAMETER},
      {"query: record in an exactly sized buffer, unused arguments 2^64-1",
       [&] { return First->BiosQueryImage(First, Exactly, k64, k64); }, EFI_SUCCESS},
      {"query: null This", [&] { return First->BiosQueryImage(nullptr, Exactly, k4G, 1); }, EFI_SUCCESS},
      {"completion: status 0xFF", [&] { return First->SetFlashCompletionStatus(First, 0xFF); }, EFI_SUCCESS},
      {"completion: status 1 through a null This", [&] { return First->SetFlashCompletionStatus(nullptr, 1); },
       EFI_SUCCESS},
      {"query: eleven platform regions", [&] {
         std::vector<PlatformSkipRange> Eleven(11, PlatformSkipRange{0xFFFFF000, 0xFFFFFFFF});
         Platform->FlashPlatform.SetNormalSkipRegions(Eleven.data(), 11);
         return Query();
       }, EFI_NOT_FOUND},
  });
  EXPECT_EQ(Major * 16 + Minor, 0x20);
  EXPECT_EQ(Token, 0u);
  EXPECT_EQ(Exactly->BlockSize, 0x10000u) << "a null This is not the first installation";
}

TEST_F(HostileInput, VerificationRefusesWhatItCannotReadBeforeTouchingAnything) {
  StartTracked();
  ASSERT_EQ(Query(), EFI_SUCCESS);
  Image = NewSignedImage();
  std::vector<uint8_t> &Bytes = Image.Image;
  std::vector<uint8_t> &Sig = Image.Signature;
  std::vector<uint8_t> Oversize = Bytes;
  Oversize.resize(Bytes.size() + 0x1000, 0xFF);
  Platform->Flash.ResetStats();
  RunTable({
      {"null image", [&] { return Verify(nullptr, Bytes.size(), Sig.data(), Sig.size()); }, EFI_INVALID_PARAMETER},
      {"null signature", [&] { return Verify(Bytes.data(), Bytes.size(), nullptr, Sig.size()); }, EFI_INVALID_PARAMETER},
      {"image size 0", [&] { return Verify(Bytes.data(), 0, Sig.data(), Sig.size()); }, EFI_BAD_BUFFER_SIZE},
      {"image size 2^64-1", [&] { return Verify(Bytes.data(), k64, Sig.data(), Sig.size()); }, EFI_BAD_BUFFER_SIZE},
      {"truncated by one byte", [&] { return Verify(Bytes.data(), Bytes.size() - 1, Sig.data(), Sig.size()); },
       EFI_BAD_BUFFER_SIZE},
      {"oversize by 4 KiB", [&] { return Verify(Oversize.data(), Oversize.size(), Sig.data(), Sig.size()); },
       EFI_BAD_BUFFER_SIZE},
      {"signature size 0", [&] { return Verify(Bytes.data(), Bytes.size(), Sig.data(), 0); }, EFI_SECURITY_VIOLATION},
      {"signature size 2^64-1", [&] { return Verify(Bytes.data(), Bytes.size(), Sig.data(), k64); },
       EFI_SECURITY_VIOLATION},
  });
  EXPECT_EQ(mVerifiedImage, nullptr);
  EXPECT_EQ(Platform->CountCalls("SetUpdateInProgress"), 0u);
}

TEST_F(HostileInput, WriteRefusesOrSkipsEveryHostileBlock) {
  StartTracked();
  ASSERT_EQ(Query(), EFI_SUCCESS);
  ASSERT_EQ(Write(kMiddleOfObb, Record), EFI_NOT_READY) << "before any verification";
  QueryAndAccept();
  const UINT64 Size = mVerifiedImageSize;
  const SkipRegion Everything = {0, 0x1000};  // the whole 16 MiB
  std::vector<SkipRegion> TenthCovers(kMaxSkipRegions - 1, SkipRegion{0, 0});
  TenthCovers.push_back(Everything);
  BiosWriteRequest Request = {};
  RunTable({
      {"null record", [&] { return First->BiosWriteImage(First, nullptr, &Request); }, EFI_INVALID_PARAMETER},
      {"null request", [&] { return First->BiosWriteImage(First, &Record, nullptr); }, EFI_INVALID_PARAMETER},
      {"block size 0", [&] { return Write(kMiddleOfObb, WithBlockSize(0)); }, EFI_BAD_BUFFER_SIZE},
      {"block size 2^32-1", [&] { return Write(kMiddleOfObb, WithBlockSize(0xFFFFFFFF)); }, EFI_BAD_BUFFER_SIZE},
      {"offset 2^64-1 with a block past the end", [&] { return Write(kPastTheEnd, Record, First, k64 - 1); },
       EFI_INVALID_PARAMETER},
      {"offset one byte short of a whole block", [&] { return Write(kMiddleOfObb, Record, First, Size - 0xFFF); },
       EFI_INVALID_PARAMETER},
      {"first table: BlockNumber past the end, BlockNumberEx in range",
       [&] { return Write(kPastTheEnd, Record, First, 0x800000, kMiddleOfObb); }, EFI_SUCCESS},
      {"second table: BlockNumberEx past the end, BlockNumber in range",
       [&] { return Write(kMiddleOfObb, Record, Second, 0x800000, kPastTheEnd); }, EFI_SUCCESS},
      {"2^32-1 pages from 0 (the length wraps)", [&] { return Write(kMiddleOfObb, WithSkips({{0, 0xFFFFFFFF}})); },
       EFI_SUCCESS},
      {"overlapping regions that cover it together",
       [&] { return Write(kMiddleOfObb, WithSkips({{0x100000, 0xF00}, {0, 0x900}})); }, EFI_SUCCESS},
      {"a region whose end wraps at 2^32, then a covering one",
       [&] { return Write(kMiddleOfObb, WithSkips({{0xFFFFF000, 0x2000}, Everything})); }, EFI_SUCCESS},
      {"a region past the image end, then a covering one",
       [&] { return Write(kMiddleOfObb, WithSkips({{0x7F000000, 0x80000}, Everything})); }, EFI_SUCCESS},
      {"count 255: the tenth region counts", [&] { return Write(kMiddleOfObb, WithSkips(TenthCovers, 255)); },
       EFI_SUCCESS},
      {"untracked layout: block size 0 writes nothing", Untracked([&] { return Write(kMiddleOfObb, WithBlockSize(0)); }),
       EFI_SUCCESS},
      {"untracked layout: a block reaching past the image",
       Untracked([&] { return Write(kPastTheEnd, Record, First, Size - 0x800); }), EFI_INVALID_PARAMETER},
  });
}

TEST_F(HostileInput, ReadBackStaysInsideItsBuffersWhateverTheSavedSkipRegions) {
  StartTracked();
  VOID *Buffer = reinterpret_cast<VOID *>(1);
  ASSERT_EQ(First->BiosReadImage(First, 0, &Buffer), EFI_NOT_READY) << "before any verification";
  EXPECT_EQ(Buffer, nullptr);
  QueryAndAccept();
  // A refused write still saves its record's skip regions for the read-back.
  auto ReadAfter = [&](std::vector<SkipRegion> Regions, int Count, UINT64 Unused) {
    BiosImageQueryRecord Hostile = WithSkips(std::move(Regions), Count);
    First->BiosWriteImage(First, &Hostile, nullptr);
    VOID *Read = nullptr;
    const EFI_STATUS Status = First->BiosReadImage(First, Unused, &Read);
    if (Read != nullptr) {
      gBS->FreePool(Read);
    }
    return Status;
  };
  const size_t Live = Sim.LiveAllocations();
  RunTable({
      {"null buffer", [&] { return First->BiosReadImage(First, 0, nullptr); }, EFI_INVALID_PARAMETER},
      {"unused argument 2^64-1", [&] { return ReadAfter({}, 0, k64); }, EFI_SUCCESS},
      {"a region past the image end", [&] { return ReadAfter({{0xFFFFF000, 0xFFFFF}}, 1, 0); }, EFI_SUCCESS},
      {"a region whose end wraps at 2^32", [&] { return ReadAfter({{0xFFFF0000, 0x100}}, 1, 1); }, EFI_SUCCESS},
      {"overlapping regions, count 255",
       [&] { return ReadAfter({{0x10000, 0x100}, {0x20000, 0x100}, {0xFFF000, 2}}, 255, k4G); }, EFI_SUCCESS},
  });
  EXPECT_EQ(Sim.LiveAllocations(), Live) << "every read-back buffer is the caller's, and freed";
}

}  // namespace
