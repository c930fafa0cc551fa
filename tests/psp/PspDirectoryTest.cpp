// Directory validation, entry-type matching and address translation on directory buffers
// built by the PSP image builder.
#include <algorithm>
#include <array>
#include <cstring>

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

// Known values; the builder's sums over more than one 360-word block meet these in the 96-entry row.
TEST_F(PspChecksum, KnownValues) {
  const UINT8 Abcde[] = {'a', 'b', 'c', 'd', 'e', 0};
  EXPECT_EQ(Fletcher32(Abcde, 3), 0xF04FC729u);
  EXPECT_EQ(Fletcher32(Abcde, 0), 0xFFFFFFFFu) << "no words: both sums stay 0xFFFF";
}

using PspDirectoryValidation = PspFixture;

// A header whose count is Count, with a checksum over what a reader of the buffer sees, so
// that only the count is wrong.
Buffer WithCount(std::vector<uint8_t> Good, UINT32 Count) {
  Buffer Bad = Held(Good);
  WriteUnaligned32(Bad.data() + 8, Count);
  UINTN Covered = std::min<UINTN>(static_cast<UINTN>(Count) * 16 + 8, kDirectoryBufferSize - 8);
  WriteUnaligned32(Bad.data() + 4, PspImage::Fletcher32(std::span<const uint8_t>(Bad.data() + 8, Covered)));
  return Bad;
}

TEST_F(PspDirectoryValidation, SizesCountsAndHeadersOfPspAndBiosDirectories) {
  std::vector<PspEntry> Mixed = Pointers(32);  // 33 entries not all pointers: an ordinary directory
  Mixed.push_back({0x01, 0x100, 0xFF200000});
  Buffer BadSum = Held(PspDirectory("$PSP", Blobs(3)));
  WriteUnaligned32(BadSum.data() + 4, ReadUnaligned32(BadSum.data() + 4) + 1);
  const struct {
    const char *What;
    Buffer Directory;
    UINT32 Cookie;        // a BIOS cookie validates as a BIOS directory
    BOOLEAN PointerCheck;
    bool Valid;
  } kRows[] = {
      {"empty $PSP", Held(PspDirectory("$PSP", {})), kPspDirectoryCookie, TRUE, true},
      {"96 entries fill the buffer", Held(PspDirectory("$PSP", Blobs(96))), kPspDirectoryCookie, TRUE, true},
      {"64 BIOS entries fill the buffer", Held(BiosDirectory("$BL2", Apcbs(64, 0xFF300000))), kBiosLevel2Cookie, FALSE,
       true},
      {"32 pointers", Held(PspDirectory("$PSP", Pointers(32))), kPspDirectoryCookie, TRUE, true},
      {"33 pointers", Held(PspDirectory("$PSP", Pointers(33))), kPspDirectoryCookie, TRUE, false},
      {"33 pointers, no pointer check", Held(PspDirectory("$PSP", Pointers(33))), kPspDirectoryCookie, FALSE, true},
      {"32 pointers and a blob", Held(PspDirectory("$PSP", Mixed)), kPspDirectoryCookie, TRUE, true},
      {"checksum off by one", BadSum, kPspDirectoryCookie, FALSE, false},
      {"count 0x10000001 (wraps in 32 bits)", WithCount(PspDirectory("$PSP", Blobs(3)), 0x10000001),
       kPspDirectoryCookie, FALSE, false},
      {"count 97, one more entry than the buffer holds", WithCount(PspDirectory("$PSP", Blobs(3)), 97),
       kPspDirectoryCookie, FALSE, false},
  };
  for (const auto &Row : kRows) {
    const bool IsBios = Row.Cookie == kBiosDirectoryCookie || Row.Cookie == kBiosLevel2Cookie;
    EXPECT_EQ(IsBios ? ValidateBiosDirectory(Row.Directory.data(), Row.Cookie)
                     : ValidatePspDirectory(Row.Directory.data(), Row.Cookie, Row.PointerCheck),
              Row.Valid)
        << Row.What;
  }
}

using PspEntryTypes = PspFixture;

TEST_F(PspEntryTypes, EightBitTypesCompareTheLowByteSixteenBitTypesTheMappedType) {
  const struct {
    UINT32 Signature, Word;
    UINT8 Wanted;
    bool Matches;
  } kRows[] = {{kSigRow3Kind2, 0x00010048, 0x48, true},    {kSigRow3Kind2, 0x148, 0x48, true},
               {kSigRow3Kind2, 0x13C, 0x48, false},        {kSigRow3Kind2, 0x40, 0x40, true},
               {kSigRow22Sixteen, 0x13C, 0x48, true},      {kSigRow22Sixteen, 0x0001013D, 0x4A, true},
               {kSigRow22Sixteen, 0x14F, 0x49, true},      {kSigRow22Sixteen, 0x48, 0x48, false}};
  for (const auto &Row : kRows) {
    SelectSoc(Row.Signature);
    EXPECT_EQ(EntryTypeMatches(Row.Word, Row.Wanted) != FALSE, Row.Matches) << std::hex << Row.Word;
  }
  EXPECT_TRUE(Assertions().empty());
  EXPECT_FALSE(EntryTypeMatches(0x40, 0x40)) << "no 16-bit equivalent";
  EXPECT_EQ(Assertions(), std::vector<UINT32>{0x22010302});
}

TEST_F(PspEntryTypes, PointerDirectoryNeedsEntriesAllOfThem) {
  EXPECT_TRUE(IsAbPointerDirectory(Held(PspDirectory("$PSP", Pointers(2))).data()));
  EXPECT_FALSE(IsAbPointerDirectory(Held(PspDirectory("$PSP", {})).data()));
  Buffer Huge = Held(PspDirectory("$PSP", Pointers(96)));
  WriteUnaligned32(Huge.data() + 8, 200);
  EXPECT_FALSE(IsAbPointerDirectory(Huge.data())) << "a count beyond the buffer";
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
      {"mode 3", (3ull << 62) | 0x2000, Base2 + 0x2000, Base2 + 0x2000},
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
