// Directory validation, entry-type matching and address translation on directory buffers
// built by the PSP image builder.
#include <algorithm>
#include <array>
#include <cstring>
#include <random>

#include "../../src/base/BaseLib.h"
#include "../../src/driver/Config.h"
#include "../../src/psp/PspDirectory.h"
#include "PspTestSupport.h"

namespace {

using namespace PspImage;
using Buffer = std::array<UINT8, kDirectoryBufferSize>;

Buffer Held(const std::vector<uint8_t> &Bytes) { return HeldDirectory(Bytes); }

std::vector<PspEntry> Pointers(size_t Count) {
  std::vector<PspEntry> Entries;
  for (size_t Index = 0; Index < Count; Index++) {
    Entries.push_back({Index % 2 == 0 ? kTypeCopyA : kTypeCopyB, 16, 0xFF100000 + Index * 0x100});
  }
  return Entries;
}

using PspChecksum = PspFixture;

TEST_F(PspChecksum, KnownValuesAndTheBuildersSumsAcrossBlockBoundaries) {
  const UINT8 Abcde[] = {'a', 'b', 'c', 'd', 'e', 0};
  EXPECT_EQ(Fletcher32(Abcde, 3), 0xF04FC729u);
  EXPECT_EQ(Fletcher32(Abcde, 0), 0xFFFFFFFFu) << "no words: both sums stay 0xFFFF";
  const UINT8 Zeros[8] = {};
  EXPECT_EQ(Fletcher32(Zeros, 4), 0xFFFFFFFFu);

  std::mt19937 Random(7);
  for (size_t Words : {1u, 358u, 359u, 360u, 718u, 719u, 776u, 1000u}) {
    for (int Pattern = 0; Pattern < 3; Pattern++) {
      std::vector<uint8_t> Bytes(Words * 2);
      for (auto &Byte : Bytes) {
        Byte = Pattern == 0 ? 0xFF : Pattern == 1 ? 0x00 : static_cast<uint8_t>(Random());
      }
      EXPECT_EQ(Fletcher32(Bytes.data(), Words), PspImage::Fletcher32(Bytes)) << Words << "/" << Pattern;
    }
  }
}

using PspDirectoryValidation = PspFixture;

TEST_F(PspDirectoryValidation, EmptyDirectoriesValidateAndLargerThanTheBufferAreRefused) {
  Buffer Psp = Held(PspDirectory("$PSP", {}));
  EXPECT_EQ(ReadUnaligned32(Psp.data() + 4), 0xFFFFFFFFu) << "the checksum covers count and reserved word";
  EXPECT_TRUE(ValidatePspDirectory(Psp.data(), kPspDirectoryCookie, TRUE));
  EXPECT_TRUE(ValidatePspDirectory(Psp.data(), kPspDirectoryCookie, FALSE));
  EXPECT_TRUE(ValidateBiosDirectory(Held(BiosDirectory("$BHD", {})).data(), kBiosDirectoryCookie));

  EXPECT_TRUE(ValidatePspDirectory(Held(PspDirectory("$PSP", Blobs(96))).data(), kPspDirectoryCookie, TRUE));
  EXPECT_FALSE(ValidatePspDirectory(Held(PspDirectory("$PSP", Blobs(97))).data(), kPspDirectoryCookie, TRUE));
  EXPECT_TRUE(ValidateBiosDirectory(Held(BiosDirectory("$BL2", Apcbs(64, 0xFF300000))).data(), kBiosLevel2Cookie));
  EXPECT_FALSE(ValidateBiosDirectory(Held(BiosDirectory("$BL2", Apcbs(65, 0xFF300000))).data(), kBiosLevel2Cookie));
}

TEST_F(PspDirectoryValidation, PointerDirectoriesHoldAtMost32Entries) {
  Buffer Full = Held(PspDirectory("$PSP", Pointers(32)));
  EXPECT_TRUE(ValidatePspDirectory(Full.data(), kPspDirectoryCookie, TRUE));
  Buffer Over = Held(PspDirectory("$PSP", Pointers(33)));
  EXPECT_FALSE(ValidatePspDirectory(Over.data(), kPspDirectoryCookie, TRUE));
  EXPECT_TRUE(ValidatePspDirectory(Over.data(), kPspDirectoryCookie, FALSE));
  // 33 entries that are not all pointers are an ordinary directory.
  std::vector<PspEntry> Mixed = Pointers(32);
  Mixed.push_back({0x01, 0x100, 0xFF200000});
  Buffer Ordinary = Held(PspDirectory("$PSP", Mixed));
  EXPECT_TRUE(ValidatePspDirectory(Ordinary.data(), kPspDirectoryCookie, TRUE));
}

TEST_F(PspDirectoryValidation, MalformedHeaders) {
  struct Case {
    const char *What;
    UINTN Offset;
    UINT32 Value;
  } Cases[] = {
      {"cookie of another level", 0, kPspLevel2Cookie},
      {"checksum off by one", 4, 0},  // filled in below
      {"count 513", 8, 513},
      {"count 0xFFFFFFFF", 8, 0xFFFFFFFF},
      {"count 0x10000001 (wraps when multiplied in 32 bits)", 8, 0x10000001},
      {"count beyond the buffer", 8, 97},
  };
  std::vector<uint8_t> Good = PspDirectory("$PSP", Blobs(3));
  for (Case C : Cases) {
    Buffer Bad = Held(Good);
    if (C.Offset == 4) {
      C.Value = ReadUnaligned32(Bad.data() + 4) + 1;
    }
    WriteUnaligned32(Bad.data() + C.Offset, C.Value);
    if (C.Offset == 8) {  // a consistent checksum, so that only the count is wrong
      UINTN Covered = std::min<UINTN>(static_cast<UINTN>(C.Value) * 16 + 8, kDirectoryBufferSize - 8);
      WriteUnaligned32(Bad.data() + 4, PspImage::Fletcher32(std::span<const uint8_t>(Bad.data() + 8, Covered)));
    }
    EXPECT_FALSE(ValidatePspDirectory(Bad.data(), kPspDirectoryCookie, FALSE)) << C.What;
  }
  EXPECT_FALSE(ValidatePspDirectory(nullptr, kPspDirectoryCookie, FALSE));
  EXPECT_FALSE(ValidateBiosDirectory(nullptr, kBiosDirectoryCookie));
}

TEST_F(PspDirectoryValidation, EverySingleBitFlipIsCaught) {
  std::vector<uint8_t> Psp = PspDirectory("$PSP", Blobs(5));
  for (size_t Bit = 0; Bit < Psp.size() * 8; Bit++) {
    Buffer Bad = Held(Psp);
    Bad[Bit / 8] ^= static_cast<UINT8>(1u << (Bit % 8));
    EXPECT_FALSE(ValidatePspDirectory(Bad.data(), kPspDirectoryCookie, FALSE)) << "bit " << Bit;
  }
  std::vector<uint8_t> Bios = BiosDirectory("$BHD", Apcbs(4, 0xFF300000));
  for (size_t Bit = 0; Bit < Bios.size() * 8; Bit++) {
    Buffer Bad = Held(Bios);
    Bad[Bit / 8] ^= static_cast<UINT8>(1u << (Bit % 8));
    EXPECT_FALSE(ValidateBiosDirectory(Bad.data(), kBiosDirectoryCookie)) << "bit " << Bit;
  }
}

using PspEntryTypes = PspFixture;

TEST_F(PspEntryTypes, EightBitTypesCompareTheLowByteSixteenBitTypesTheMappedType) {
  SelectSoc(kSigRow3Kind2);
  EXPECT_TRUE(EntryTypeMatches(0x00010048, 0x48));
  EXPECT_TRUE(EntryTypeMatches(0x148, 0x48));
  EXPECT_FALSE(EntryTypeMatches(0x13C, 0x48));
  EXPECT_TRUE(EntryTypeMatches(0x40, 0x40));

  SelectSoc(kSigRow22Sixteen);
  EXPECT_TRUE(EntryTypeMatches(0x13C, 0x48));
  EXPECT_TRUE(EntryTypeMatches(0x0001013D, 0x4A));
  EXPECT_TRUE(EntryTypeMatches(0x14F, 0x49));
  EXPECT_FALSE(EntryTypeMatches(0x48, 0x48));
  EXPECT_TRUE(Assertions().empty());
  EXPECT_FALSE(EntryTypeMatches(0x40, 0x40)) << "no 16-bit equivalent";
  EXPECT_EQ(Assertions(), std::vector<UINT32>{0x22010302});
}

TEST_F(PspEntryTypes, PointerDirectoryNeedsEntriesAllOfThem) {
  EXPECT_TRUE(IsAbPointerDirectory(Held(PspDirectory("$PSP", Pointers(2))).data()));
  EXPECT_FALSE(IsAbPointerDirectory(Held(PspDirectory("$PSP", {})).data()));
  std::vector<PspEntry> Mixed = Pointers(2);
  Mixed.push_back({0x49, 0x400, 0xFF200000});
  EXPECT_FALSE(IsAbPointerDirectory(Held(PspDirectory("$PSP", Mixed)).data()));
  // A count beyond the buffer is not taken for a pointer directory.
  Buffer Huge = Held(PspDirectory("$PSP", Pointers(96)));
  WriteUnaligned32(Huge.data() + 8, 200);
  EXPECT_FALSE(IsAbPointerDirectory(Huge.data()));
  EXPECT_TRUE(Assertions().empty());
  EXPECT_FALSE(IsAbPointerDirectory(nullptr));
  EXPECT_EQ(Assertions(), std::vector<UINT32>{0x22010466});
}

using PspAddressTranslation = PspFixture;

TEST_F(PspAddressTranslation, FourModesThenTheOptionalWindowFix) {
  constexpr UINT64 Base1 = 0xFF600000, Base2 = 0xFF700000;
  struct Case {
    const char *What;
    UINT64 Location;
    UINT64 Plain;      // PspForceMappedAddress 0
    UINT64 ForcedFix;  // PspForceMappedAddress 1
  } Cases[] = {
      {"mode 0, mapped", 0xFF123456, 0xFF123456, 0xFF123456},
      {"mode 0, offset", 0x00123456, 0x00123456, 0xFF123456},
      {"mode 1", (1ull << 62) | 0x00123456, 0x00123456, 0xFF123456},
      {"mode 2", (2ull << 62) | 0x1000, Base1 + 0x1000, Base1 + 0x1000},
      {"mode 2 keeps bit 62 clear", (2ull << 62) | 0x20, Base1 + 0x20, Base1 + 0x20},
      {"mode 3", (3ull << 62) | 0x2000, Base2 + 0x2000, Base2 + 0x2000},
      {"mode 0 above 4 GiB", 0x100123456ull, 0x100123456ull, 0x1FF123456ull},
      {"mode 0, other high byte", 0x12345678, 0x12345678, 0xFF345678},
  };
  for (const Case &C : Cases) {
    gConfig.PcdPspRomAddressFixup = 0;
    EXPECT_EQ(TranslateEntryAddress(C.Location, Base1, Base2), C.Plain) << C.What;
    gConfig.PcdPspRomAddressFixup = 1;
    EXPECT_EQ(TranslateEntryAddress(C.Location, Base1, Base2), C.ForcedFix) << C.What;
  }
}

}  // namespace
