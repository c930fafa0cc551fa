// The emulated SPI NOR chip: program semantics and the power cut that the flash scenarios
// build on (the platform's address checks in front of it are tested through the services).
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "../../emu/EmuFlashChip.h"

namespace {

constexpr UINT32 kChipSize = 4 * EmuFlashChip::kSectorSize;

class FlashChip : public ::testing::Test {
protected:
  FlashChip() : Storage(kChipSize, 0x00) { Chip.Attach(Storage.data(), kChipSize); }
  std::vector<UINT8> Bytes(UINT32 Offset, UINT32 Length) const {
    return std::vector<UINT8>(Storage.begin() + Offset, Storage.begin() + Offset + Length);
  }

  std::vector<UINT8> Storage;
  EmuFlashChip Chip;
};

// 0x0F over 0xF0 wants bits set back to 1: one fault, and the cell keeps the AND.
TEST_F(FlashChip, StartsErasedAndProgramOnlyClearsBits) {
  const UINT8 First[2] = {0xF0, 0x3C}, Second[2] = {0x0F, 0x3C};
  ASSERT_EQ(Chip.Program(0x10, First, 2), EFI_SUCCESS);
  ASSERT_EQ(Chip.Program(0x10, Second, 2), EFI_SUCCESS);
  EXPECT_EQ(Bytes(0x10, 2), (std::vector<UINT8>{0x00, 0x3C}));
  EXPECT_EQ(Chip.Stats().ProgramFaults, 1u);
}

// An erase cut sets a random subset of each old byte's bits, the same for the same (seed, N),
// and leaves the next sector alone; then every operation fails until the next boot.
TEST_F(FlashChip, PowerCutLeavesIndeterminateBitsReproduciblyAndStopsTheChip) {
  constexpr UINT32 kSector = EmuFlashChip::kSectorSize;
  const auto Cut = [&] {
    std::vector<UINT8> Old(kChipSize);
    for (UINT32 Index = 0; Index < kChipSize; Index++) {
      Old[Index] = static_cast<UINT8>(Index * 37 + 11);
    }
    Chip.RestorePower();
    Chip.Load(0, Old.data(), kChipSize);
    Chip.SetCutSeed(7);
    Chip.CutPowerAtOperation(2);
    EXPECT_EQ(Chip.EraseSectors(0, kSector), EFI_SUCCESS);  // operation 1 completes
    EXPECT_EQ(Chip.EraseSectors(kSector, 2 * kSector), EFI_DEVICE_ERROR);
    return std::make_pair(Old, Bytes(0, kChipSize));
  };

  const auto [Old, AfterErase] = Cut();
  size_t Indeterminate = 0;
  for (UINT32 Index = kSector; Index < 2 * kSector; Index++) {
    ASSERT_EQ(AfterErase[Index] & Old[Index], Old[Index]) << "an erase only sets bits, at " << Index;
    Indeterminate += AfterErase[Index] != Old[Index] && AfterErase[Index] != 0xFF;
  }
  EXPECT_GT(Indeterminate, kSector / 2) << "the sector is neither old nor erased";
  EXPECT_TRUE(std::equal(Old.begin() + 2 * kSector, Old.end(), AfterErase.begin() + 2 * kSector))
      << "the sector after the cut is untouched";
  EXPECT_EQ(Cut().second, AfterErase) << "the same seed and N leave the same bytes";

  UINT8 Buffer[4] = {};
  EXPECT_EQ(Chip.Program(0, Buffer, 4), EFI_DEVICE_ERROR);
  EXPECT_EQ(Bytes(0, kChipSize), AfterErase) << "nothing reaches the array after the cut";
}

}  // namespace
