// The image-to-device address model and WriteImageRange: compare-before-write on the
// mapped flash, the lower part always written, the EC part and its deferral, device errors.
#include <vector>

#include "../../src/flash/FlashAccess.h"
#include "FlashFixture.h"

namespace {

using FlashWriteImageRange = FlashFixture;

// Mapped ranges count as written when equal (no write) or written; a range outside the image
// or a device error leaves the flag alone.
TEST_F(FlashWriteImageRange, MappedRangesAreComparedAndCountAsWrittenUnlessRefusedOrFailed) {
  StartWithCopy(0x00);
  EXPECT_EQ(WriteImageRange(0x1000, mVerifiedImageSize - 0xFFF, 0), EFI_INVALID_PARAMETER);
  EXPECT_EQ(Platform->CallCount, 0u) << "no device touched";
  EXPECT_EQ(WriteImageRange(0x2000, 0x1B0000, 0), EFI_SUCCESS);
  EXPECT_TRUE(mFlashWritten);
  EXPECT_EQ(Platform->CountCalls("WriteFlash"), 0u);

  mFlashWritten = FALSE;
  mVerifiedImage[0x1B0010] ^= 0xFF;
  Platform->Flash.FailOperation(1);
  EXPECT_EQ(WriteImageRange(0x1000, 0x1B0000, 0), EFI_DEVICE_ERROR);
  EXPECT_FALSE(mFlashWritten);
  EXPECT_EQ(WriteImageRange(0x1000, 0x1B0000, 0), EFI_SUCCESS) << "no retries here; the caller's next call works";
  EXPECT_EQ(Platform->CountCalls("WriteFlash"), 2u);
  EXPECT_TRUE(mFlashWritten);
}

TEST_F(FlashWriteImageRange, LowerPartIsAlwaysWrittenNeverCompared) {
  UseLayout({0x0, 0x100000, 0x01000000, 0x20000});
  StartWithCopy(0x00);
  EXPECT_EQ(WriteImageRange(0x1000, 0x80000, 0), EFI_SUCCESS);
  auto Writes = CallsNamed("WriteFlash");
  ASSERT_EQ(Writes.size(), 1u) << "equal bytes, still written";
  EXPECT_EQ(Writes[0].Arguments[1], 0xFEF80000u);
  EXPECT_EQ(WriteImageRange(0x1000, 0x100000, 0), EFI_SUCCESS) << "the first mapped block is compared";
  EXPECT_EQ(Platform->CountCalls("WriteFlash"), 1u);

  // A base above 0xFF000000 puts the lower part inside the mapped window: still not compared.
  mFlashBase = 0xFF100000;
  std::copy_n(Platform->Flash.Bytes() + (0xFF080000 - Platform->FlashBaseAddress), 0x1000, mVerifiedImage + 0x80000);
  EXPECT_EQ(WriteImageRange(0x1000, 0x80000, 0), EFI_SUCCESS);
  EXPECT_EQ(Platform->CountCalls("WriteFlash"), 2u) << "equal to the window's bytes, still written";
}

TEST_F(FlashWriteImageRange, EcRangeGoesToTheEcStoreWholeOrNowhereWhenDeferred) {
  UseLayout({0x20000, 0x0, 0x01000000, 0x20000});
  StartWithCopy(0x00);
  mVerifiedImage[0x1FFF0] ^= 0xFF;
  EXPECT_EQ(WriteImageRange(0x20, 0x1FFF0, 0), EFI_INVALID_PARAMETER)
      << "a range starting in the EC part is not split at its end; the store refuses the overrun";
  EXPECT_FALSE(mFlashWritten);
  EXPECT_EQ(WriteImageRange(0x10, 0x1FFF0, 0), EFI_SUCCESS);
  auto Writes = CallsNamed("WriteEc");
  ASSERT_EQ(Writes.size(), 2u);
  EXPECT_EQ(std::vector<UINT64>(Writes[1].Arguments, Writes[1].Arguments + 3),
            (std::vector<UINT64>{reinterpret_cast<UINT64>(mVerifiedImage + 0x1FFF0), 0x10, 0x1FFF0}));
  EXPECT_TRUE(mFlashWritten && Platform->CountCalls("WriteFlash") == 0);

  Platform->ClearCalls();
  mFlashWritten = FALSE;
  mEcUpdateDeferred = TRUE;
  EXPECT_EQ(WriteImageRange(0x1000, 0x0, 0), EFI_SUCCESS);
  EXPECT_TRUE(mFlashWritten);
  EXPECT_EQ(Platform->CallCount, 0u);
}

TEST(FlashImageOffset, MapsToTheDeviceThePartNames) {
  const struct {
    const char *Name;
    UINT32 EcSize, LowerFlashSize, MappedFlashSize;
    UINT64 ImageOffset;
    ImageTarget Target;
    UINT64 Address;
  } kRows[] = {
      {"EC part", 0x20000, 0, 0x1000000, 0x1FFFF, ImageTarget::EcStore, 0x1FFFF},
      {"after the EC part: the lower part", 0x20000, 0x80000, 0x1000000, 0x20000, ImageTarget::Flash, 0xFEF80000},
      {"no mapped part", 0x20000, 0x80000, 0, 0x30000, ImageTarget::Nothing, 0},
      {"a huge offset stays 64-bit", 0, 0, 0x1000000, 0x100000000ull, ImageTarget::Flash, 0x1FF000000ull},
  };
  mFlashBase = 0xFF000000;
  for (const auto &Row : kRows) {
    mFlashInfo = {.EcSize = Row.EcSize, .MappedFlashSize = Row.MappedFlashSize, .LowerFlashSize = Row.LowerFlashSize};
    ImageLocation Where = ImageOffsetToFlashAddress(Row.ImageOffset);
    EXPECT_EQ(Where.Target, Row.Target) << Row.Name;
    EXPECT_EQ(Where.Address, Row.Address) << Row.Name;
  }
  mFlashBase = 0;
  mFlashInfo = {};
}

}  // namespace
