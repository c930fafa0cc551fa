// The read-back: the flash as read, with the accepted image laid over every part the update
// does not write or read back, each overlay clipped to the image and the result.
#include <algorithm>
#include <vector>

#include "../../src/base/Globals.h"
#include "../../src/driver/Config.h"
#include "../../src/verify/UpdateRegionTable.h"
#include "FlashFixture.h"

namespace {

class ImageReadBack : public FlashFixture {
protected:
  std::vector<UINT8> Read(EFI_STATUS Expected = EFI_SUCCESS) {
    VOID *Buffer = reinterpret_cast<VOID *>(1);
    EXPECT_EQ(mBiosImageInterface->BiosReadImage(mBiosImageInterface, 0, &Buffer), Expected);
    if (Buffer == nullptr) {
      return {};
    }
    const UINT8 *Bytes = static_cast<UINT8 *>(Buffer);
    std::vector<UINT8> Result(Bytes, Bytes + mFlashInfo.EcSize + mFlashInfo.LowerFlashSize + mFlashInfo.MappedFlashSize);
    gBS->FreePool(Buffer);
    return Result;
  }

  // Which source each 4 KiB of the result came from: 'I' the image, 'F' the device.
  std::string Origins(const std::vector<UINT8> &Result) const {
    const UINTN Ec = Platform->Layout.EcSize;
    std::string Found;
    for (UINTN Offset = 0; Offset < Result.size(); Offset += 0x1000) {
      const UINT8 Device = Offset < Ec ? Platform->EcStore[Offset] : Platform->Flash.Bytes()[Offset - Ec];
      Found += Result[Offset] == mVerifiedImage[Offset] ? 'I' : Result[Offset] == Device ? 'F' : '?';
    }
    return Found;
  }
};

// Each test accepts a changed image: every byte differs from the flash and the EC store.
TEST_F(ImageReadBack, OverlaysIbb4TheVariableStoreAndTheSavedSkipRegionsAndReportsFailures) {
  StartWithCopy(0xA5);
  Platform->Config->Flags |= kPlatformConfigAlternativeFlag;
  ASSERT_EQ(BuildUpdateRegionTable(mVerifiedImage, mVerifiedImageSize), EFI_SUCCESS);
  mSavedSkipRegions.Count = 2;
  mSavedSkipRegions.Regions[0] = {0, 2};             // Start 0: the first 8 KiB
  mSavedSkipRegions.Regions[1] = {0xFFE000, 0x10};   // clipped at the end of the result
  const std::vector<UINT8> Result = Read();

  std::string Expected(0x1000, 'F');
  auto Mark = [&](UINT64 Offset, UINT64 Size) { Expected.replace(Offset / 0x1000, Size / 0x1000, Size / 0x1000, 'I'); };
  Mark(0, 0x2000);
  Mark(0xFFE000, 0x2000);
  Mark(gConfig.VariableStoreBase - 0xFF000000, gConfig.VariableStoreSize);
  Mark(EmuFlashLayout::kIbb4Address - 0xFF000000, EmuFlashLayout::kIbb4Size);
  EXPECT_EQ(Origins(Result), Expected);

  Platform->Config->Flags &= ~kPlatformConfigAlternativeFlag;
  mSavedSkipRegions.Count = 0;
  EXPECT_EQ(Origins(Read())[(EmuFlashLayout::kIbb4Address - 0xFF000000) / 0x1000], 'F') << "IBB4 only when tracked";

  // Without an image or a buffer pointer the refusal is HostileInput's; here pool and the device.
  Sim.FailAllocationAfter(1);
  EXPECT_TRUE(Read(EFI_OUT_OF_RESOURCES).empty());
  mFlashInfo.MappedFlashSize += 0x1000;  // a read past the chip: the platform fails it
  EXPECT_EQ(Read(EFI_INVALID_PARAMETER).size(), 0x1001000u) << "still assembled and handed over";
}

TEST_F(ImageReadBack, TakesTheHeadFromTheImageAndTheEcPartFromItsStoreUnlessDeferred) {
  UseLayout({0x20000, 0x100000, 0x01000000, 0x20000});
  StartWithCopy(0xA5);
  mSavedSkipRegions.Count = 2;
  mSavedSkipRegions.Regions[0] = {0, 0x121};         // Start 0 reaching 4 KiB past the head
  mSavedSkipRegions.Regions[1] = {0x110000, 0x12};   // starts in the head: clipped to the mapped part
  std::string Origin = Origins(Read());
  EXPECT_EQ(Origin.substr(0, 0x20), std::string(0x20, 'F')) << "EC part read back";
  EXPECT_EQ(Origin.substr(0x20, 0x100), std::string(0x100, 'I')) << "lower part from the image";
  EXPECT_EQ(Origin.substr(0x120, 3), "IIF") << "both skip regions end 8 KiB into the mapped part";

  mEcUpdateDeferred = TRUE;
  Origin = Origins(Read());
  EXPECT_EQ(Origin.substr(0, 0x20), std::string(0x20, 'I'));
}

}  // namespace
