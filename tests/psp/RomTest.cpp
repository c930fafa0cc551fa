// ROM reads through the processor's flash windows: which window a family uses, the limits,
// and the naturally aligned 64-bit loads.
#include <algorithm>
#include <array>
#include <cstring>

#include "../../src/psp/RomAccess.h"
#include "PspTestSupport.h"

namespace {

class RomAccess : public PspFixture {
protected:
  void SetUp() override {
    PspFixture::SetUp();
    for (UINT32 Offset = 0; Offset < 0x100; Offset++) {
      Chip(Offset)[0] = static_cast<UINT8>(Offset ^ 0x5A);
    }
    Chip(0xFFFFFF)[0] = 0x77;
  }
  UINT8 At(UINT32 Offset) { return *Chip(Offset); }
};

TEST_F(RomAccess, ThreeBytesAtOffsetSevenTakeTwoAlignedWords) {
  UINT8 Out[3] = {};
  ASSERT_TRUE(ReadRomByOffset(7, Out, 3));
  // The window was asked for the aligned word holding byte 7 and the next one, nothing more.
  EXPECT_EQ(Platform->Soc.LastWindowAddress, 0xFD00000000ull);
  EXPECT_EQ(Platform->Soc.LastWindowLength, 16u);

  SelectSoc(kSigRow13Narrow);
  ASSERT_TRUE(ReadRomByOffset(7, Out, 3));
  EXPECT_EQ(Platform->Soc.LastWindowAddress, 0xFF000000ull);
  EXPECT_EQ(Platform->Soc.LastWindowLength, 16u);

  // The narrow window takes the offset modulo 16 MiB.
  ASSERT_TRUE(ReadRomByOffset(0x3000010, Out, 2));
  EXPECT_EQ(Out[0], At(0x10));
  EXPECT_EQ(Platform->Soc.LastWindowAddress, 0xFF000010ull);
  ASSERT_TRUE(ReadRomByOffset(0x1FFFFFF, Out, 1));
  EXPECT_EQ(Out[0], 0x77);
}

// Offsets through each window (ReadRomByOffset), then locations of every kind (ReadRom).
TEST_F(RomAccess, LimitsOfEachWindowAndLocationsOutsideThemAreRefused) {
  UINT8 Out[8] = {};
  struct Case {
    const char *What;
    UINT32 Signature;  // 0: ReadRom on the reference SoC
    UINT64 Location;
    UINT32 Length;
    bool Expected;
  } Cases[] = {
      {"length 0", kSigRow3Kind2, 0, 0, false},
      {"wide: offset at the 64 MiB limit", kSigRow3Kind2, 0x4000000, 1, false},
      {"wide: crossing the 64 MiB limit", kSigRow3Kind2, 0x3FFFFFF, 2, false},
      {"wide: past the chip", kSigRow3Kind2, 0x1000000, 4, false},
      {"wide: last byte of the chip", kSigRow3Kind2, 0xFFFFFF, 1, true},
      {"narrow: crossing 16 MiB", kSigRow13Narrow, 0xFFFFFF, 2, false},
      {"flash offset", 0, 0x10, 4, true},
      {"last mapped bytes", 0, 0xFFFFFFF8, 8, true},
      {"crossing 4 GiB", 0, 0xFFFFFFFC, 8, false},
      {"below the mapped window", 0, 0xFEFFFFFF, 1, false},
      {"after the wide window", 0, 0xFD04000000ull, 4, false},
      {"wide window end crossed", 0, 0xFD03FFFFFCull, 8, false},
      {"length 0 at a mapped address", 0, 0xFF000000, 0, true},
  };
  for (const Case &C : Cases) {
    SelectSoc(C.Signature == 0 ? kSigRow3Kind2 : C.Signature);
    const UINT64 Requests = Platform->Soc.WindowRequests;
    const UINT64 Window = C.Signature == kSigRow13Narrow ? 0x1000000 : 0x4000000;
    const BOOLEAN Read = C.Signature == 0 ? ReadRom(C.Location, Out, C.Length)
                                          : ReadRomByOffset(static_cast<UINT32>(C.Location), Out, C.Length);
    EXPECT_EQ(Read != FALSE, C.Expected) << C.What;
    if (C.Signature != 0 && C.Location + C.Length > Window) {
      EXPECT_EQ(Platform->Soc.WindowRequests, Requests) << C.What << ": refused by the window's limits, not the chip";
    }
  }
}

TEST_F(RomAccess, Family1AReadsOffsetsThroughTheWideWindowButRefusesItsAddresses) {
  UINT8 Out[4] = {};
  SelectSoc(kSigFamily1A);
  ASSERT_TRUE(ReadRomByOffset(0x10, Out, 4));
  EXPECT_EQ(Platform->Soc.LastWindowAddress, 0xFD00000010ull);
  EXPECT_FALSE(ReadRom(0xFD00000010ull, Out, 4));

  SelectSoc(kSigRow3Kind2);  // family 0x19 may read the wide window as memory
  std::memset(Out, 0, sizeof(Out));
  ASSERT_TRUE(ReadRom(0xFD00000010ull, Out, 4));
  EXPECT_EQ(Out[0], At(0x10));
}

TEST_F(RomAccess, DirectoryReadsZeroTheBufferFirst) {
  std::array<UINT8, kDirectoryBufferSize> Buffer;
  Buffer.fill(0xAA);
  EXPECT_FALSE(ReadDirectory(0x80000000, Buffer.data()));
  EXPECT_TRUE(std::all_of(Buffer.begin(), Buffer.end(), [](UINT8 Byte) { return Byte == 0; }));
  ASSERT_TRUE(ReadDirectory(0xFF000000, Buffer.data()));
  EXPECT_EQ(std::memcmp(Buffer.data(), Chip(0), kDirectoryBufferSize), 0);
}

}  // namespace
