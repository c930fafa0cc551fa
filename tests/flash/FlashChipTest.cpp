// The emulated SPI NOR chip: program semantics, range refusals and the power cut that the
// flash scenarios build on.
#include <gtest/gtest.h>

#include <vector>

#include "../../emu/EmuFlashChip.h"

namespace {

constexpr UINT32 kChipSize = 4 * EmuFlashChip::kSectorSize;

class FlashChip : public ::testing::Test {
protected:
  FlashChip() : Storage(kChipSize, 0x00) { Chip.Attach(Storage.data(), kChipSize); }
  void LoadZeros() { Chip.Load(0, std::vector<UINT8>(kChipSize, 0).data(), kChipSize); }
  std::vector<UINT8> Bytes(UINT32 Offset, UINT32 Length) const {
    return std::vector<UINT8>(Storage.begin() + Offset, Storage.begin() + Offset + Length);
  }

  std::vector<UINT8> Storage;
  EmuFlashChip Chip;
};

TEST_F(FlashChip, StartsErasedAndProgramOnlyClearsBits) {
  EXPECT_EQ(Bytes(0, 4), std::vector<UINT8>(4, 0xFF));
  const UINT8 First[2] = {0xF0, 0x3C};
  ASSERT_EQ(Chip.Program(0x10, First, 2), EFI_SUCCESS);
  EXPECT_EQ(Chip.Stats().ProgramFaults, 0u);

  const UINT8 Second[2] = {0x0F, 0x3C};  // 0x0F over 0xF0 wants bits set back to 1
  ASSERT_EQ(Chip.Program(0x10, Second, 2), EFI_SUCCESS);
  EXPECT_EQ(Bytes(0x10, 2), (std::vector<UINT8>{0x00, 0x3C})) << "the cell keeps the AND";
  EXPECT_EQ(Chip.Stats().ProgramFaults, 1u);
  EXPECT_EQ(Chip.Stats().Programs, 2u);
  EXPECT_EQ(Chip.Stats().BytesProgrammed, 4u);
}

TEST_F(FlashChip, OperationsOutOfRangeAreRefusedAndChangeNothing) {
  const struct {
    const char *Name;
    UINT32 Offset, Length;
  } Cases[] = {{"one byte past the end", kChipSize, 1},
               {"ending one past the end", kChipSize - 4, 5},
               {"length wrapping past 4 GiB", 0x10, 0xFFFFFFF8},
               {"offset near 4 GiB", 0xFFFFFFFF, 1}};
  std::vector<UINT8> Buffer(16, 0x00);
  for (const auto &Case : Cases) {
    EXPECT_EQ(Chip.Read(Case.Offset, Buffer.data(), Case.Length), EFI_INVALID_PARAMETER) << Case.Name;
    EXPECT_EQ(Chip.EraseSectors(Case.Offset, Case.Length), EFI_INVALID_PARAMETER) << Case.Name;
    EXPECT_EQ(Chip.Program(Case.Offset, Buffer.data(), Case.Length), EFI_INVALID_PARAMETER) << Case.Name;
  }
  EXPECT_EQ(Chip.Stats().Reads + Chip.Stats().SectorErases + Chip.Stats().Programs, 0u);
  EXPECT_EQ(Chip.OperationsCounted(), 0u) << "refused operations do not move the fault counter";
  EXPECT_EQ(Bytes(0, kChipSize), std::vector<UINT8>(kChipSize, 0xFF));
}

TEST_F(FlashChip, PowerCutLeavesAnEraseDoneAProgramHalfDoneAndStopsTheChip) {
  LoadZeros();
  Chip.CutPowerAtOperation(1);
  EXPECT_EQ(Chip.EraseSectors(0, 2 * EmuFlashChip::kSectorSize), EFI_DEVICE_ERROR);
  EXPECT_TRUE(Chip.PowerLost());
  EXPECT_EQ(Bytes(0, EmuFlashChip::kSectorSize), std::vector<UINT8>(EmuFlashChip::kSectorSize, 0xFF));
  EXPECT_EQ(Bytes(EmuFlashChip::kSectorSize, 1), std::vector<UINT8>{0x00});

  UINT8 Buffer[4] = {};
  EXPECT_EQ(Chip.Read(0, Buffer, 4), EFI_DEVICE_ERROR);
  EXPECT_EQ(Chip.Program(0, Buffer, 4), EFI_DEVICE_ERROR);
  EXPECT_EQ(Chip.EraseSectors(EmuFlashChip::kSectorSize, 1), EFI_DEVICE_ERROR);
  EXPECT_EQ(Bytes(EmuFlashChip::kSectorSize, 1), std::vector<UINT8>{0x00});

  Chip.RestorePower();
  EXPECT_EQ(Chip.Read(0, Buffer, 4), EFI_SUCCESS) << "the next boot finds what the cut left";
  EXPECT_EQ(std::vector<UINT8>(Buffer, Buffer + 4), std::vector<UINT8>(4, 0xFF));

  Chip.ResetStats();
  Chip.CutPowerAtOperation(1);
  const std::vector<UINT8> Data(8, 0x00);
  EXPECT_EQ(Chip.Program(0x20, Data.data(), 8), EFI_DEVICE_ERROR);
  EXPECT_EQ(Bytes(0x20, 8), (std::vector<UINT8>{0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(Chip.Stats().BytesProgrammed, 4u);
  EXPECT_EQ(Chip.Program(0x24, Data.data(), 4), EFI_DEVICE_ERROR);
}

}  // namespace
