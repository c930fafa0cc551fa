// CMOS banks, their checksums and the CmosToRom mirror with its flash journal.
#include <cstring>

#include "../../emu/host/EmuHostMemory.h"
#include "../../src/base/BaseLib.h"

#include "../../src/base/Char16.h"
#include "../../src/base/Guids.h"
#include "../../src/driver/Config.h"
#include "../../src/base/SmmServices.h"
#include "../../src/platform/Cmos.h"
#include "../support/PlatformFixture.h"

namespace {

constexpr UINT32 kJournal = 0xFF0E6000;
constexpr UINT32 kHalf = 0x1000;
constexpr UINT32 kQuarter = 0x800;

using PortWrites = std::vector<std::pair<UINT16, UINT32>>;

class CmosAccess : public PlatformFixture {
protected:
  void SetUp() override {
    ASSERT_EQ(StartDriver(), EFI_SUCCESS);
    Platform->ClearPortLog();
    Platform->ClearCalls();
    Platform->InterruptDisableCount = 0;
  }

  // Port and value of every write since the last clear, in order.
  PortWrites Writes() const {
    PortWrites Result;
    for (UINTN Index = 0; Index < Platform->PortLogCount; Index++) {
      if (Platform->PortLog[Index].Write) {
        Result.emplace_back(Platform->PortLog[Index].Port, Platform->PortLog[Index].Value);
      }
    }
    return Result;
  }

  UINT8 *FlashAt(UINT32 Address) { return Platform->Flash.Bytes() + (Address - Platform->FlashBaseAddress); }
  void NameImage(UINT32 Address) {
    Sim.SetVariable(u"Q42CmosToRom", gPlatformVariableGuid, EFI_VARIABLE_BOOTSERVICE_ACCESS, &Address, 4);
  }

  // A mirror image in memory below 4 GiB, named by the Q42CmosToRom variable.
  UINT8 *PublishImage(bool ValidBank1 = true) {
    auto *Image = static_cast<UINT8 *>(EmuHostAllocateBelow4G(CmosToRomImage::kSize));
    std::memset(Image, 0, CmosToRomImage::kSize);
    Image[256 + 0xFA] = 7;
    Image[256 + 0xEE] = 0x30;
    WriteUnaligned16(Image + CmosToRomImage::kBank1ChecksumOffset, CmosImageChecksum(Image, 1) + (ValidBank1 ? 0 : 1));
    NameImage(static_cast<UINT32>(reinterpret_cast<UINTN>(Image)));
    return Image;
  }
};

TEST_F(CmosAccess, StandardBankKeepsTheNmiMaskAsFound) {
  Platform->CmosIndexRegister = 0x80;
  Platform->Cmos[0x0E] = 0x5A;
  EXPECT_EQ(ReadCmos(0x0E), 0x5A);
  EXPECT_EQ(Writes(), (PortWrites{{0x70, 0x8E}}));

  Platform->ClearPortLog();
  Platform->CmosIndexRegister = 0x00;
  WriteCmos(0x0F, 0x11);
  EXPECT_EQ(Writes(), (PortWrites{{0x70, 0x0F}, {0x71, 0x11}})) << "NMI mask stays clear";
}

TEST_F(CmosAccess, PortAccessesMaskInterruptsAndRestoreTheFlagAsFoundOutsideSmm) {
  Platform->Flags = 0x202;
  ReadExtendedCmos(0x10);
  EXPECT_EQ(Platform->InterruptDisableCount, 1u);
  EXPECT_EQ(Platform->Flags & 0x200, 0x200u);

  Platform->Flags = 0x002;
  WriteCmosPort(0x72, 0x73, 0x10, 1);
  EXPECT_EQ(Platform->InterruptDisableCount, 2u);
  EXPECT_EQ(Platform->Flags & 0x200, 0u) << "interrupts stay off when they were off";

  ResetSmmStateForTest();
  Sim.InstallSmmBase2(TRUE);
  Platform->Flags = 0x202;
  ReadExtendedCmos(0x10);
  EXPECT_EQ(Platform->InterruptDisableCount, 2u) << "in SMM nothing is toggled";
}

// Bank 1's list and the whole-bank sum are judged in the restore tests; bank 0's list is here.
TEST_F(CmosAccess, ChecksumsCoverOnlyTheListedIndices) {
  UINT8 Image[CmosToRomImage::kSize] = {};
  Image[256 + 0x10] = 5;  // not listed
  Image[256 + 0xF6] = 5;  // not listed, next to the listed 0xF7
  Image[0x76] = 1;
  Image[0x77] = 2;
  Image[0x7D] = 3;
  EXPECT_EQ(CmosImageChecksum(Image, 0), 271);
  EXPECT_EQ(CmosImageChecksum(Image, 1), 265);
}

TEST_F(CmosAccess, MirroredWriteUpdatesImageCmosAndJournalUnlessTheValueIsThere) {
  UINT8 *Image = PublishImage();
  UINT16 Before = CmosImageChecksum(Image, 1);
  EXPECT_EQ(ReadCmosToRom(0xFA), 7);

  WriteCmosToRom(0xFA, 9);

  UINT16 After = static_cast<UINT16>(Image[450] | (Image[451] << 8));
  EXPECT_EQ(After, Before + 2);
  EXPECT_EQ(Image[256 + 0xFA], 9);
  EXPECT_EQ(Writes(), (PortWrites{{0x72, 0xFA}, {0x73, 9}, {0x72, 0xC2}, {0x73, After & 0xFFu}, {0x72, 0xC3},
                                  {0x73, After >> 8u}}));
  const UINT8 Record[] = {0xFA, 9, 0xC2, static_cast<UINT8>(After), 0xC3, static_cast<UINT8>(After >> 8)};
  EXPECT_EQ(std::memcmp(FlashAt(kJournal + kQuarter), Record, sizeof(Record)), 0);
  EXPECT_EQ(CallNames(), std::vector<std::string>{"FlashDeviceWrite"});

  Platform->ClearPortLog();
  Platform->ClearCalls();
  WriteCmosToRom(0xEE, 0x30);
  EXPECT_TRUE(Writes().empty()) << "the value already mirrored touches nothing";
  EXPECT_EQ(Platform->CallCount, 0u);
}

TEST_F(CmosAccess, ImageWithBadChecksumOrNoImageStopsEverything) {
  UINT8 *Image = PublishImage(false);
  EXPECT_EQ(ReadCmosToRom(0xFA), 0);
  WriteCmosToRom(0xFA, 9);
  EXPECT_EQ(Image[256 + 0xFA], 7);

  NameImage(0);
  WriteCmosToRom(0xFA, 9);
  EXPECT_TRUE(Writes().empty());
  EXPECT_EQ(Platform->CallCount, 0u);
}

class CmosMirrorFromHob : public CmosAccess {
protected:
  void SetUp() override {
    UINT8 Image[CmosToRomImage::kSize] = {};
    Image[256 + 0xF9] = 4;
    WriteUnaligned16(Image + CmosToRomImage::kBank1ChecksumOffset, CmosImageChecksum(Image, 1));
    ImageOffset = Hobs.AddGuidHob(gCmosToRomImageHobGuid, Image, sizeof(Image));
    // Live CMOS agrees with the image, so the restore at start leaves the image as it is.
    Platform->ExtendedCmos[0xF9] = 4;
    Platform->ExtendedCmos[0xC2] = Image[450];
    Platform->ExtendedCmos[0xC3] = Image[451];
    CmosAccess::SetUp();
  }
  size_t ImageOffset = 0;
};

TEST_F(CmosMirrorFromHob, UnreadableVariableFallsBackToTheHobImageAReadableOneWins) {
  UINT8 *HobImage = Hobs.Data() + ImageOffset;
  EXPECT_EQ(ReadCmosToRom(0xF9), 4);
  WriteCmosToRom(0xF9, 1);
  EXPECT_EQ(HobImage[256 + 0xF9] + Platform->ExtendedCmos[0xF9], 2);
  EXPECT_TRUE(IsCmosImageChecksumValid(HobImage, 1));

  NameImage(0);
  EXPECT_EQ(ReadCmosToRom(0xF9), 0) << "the variable names no image, so the HOB is not consulted";
}

TEST_F(CmosAccess, FullJournalAreaDropsTheRecordButStillUpdatesCmos) {
  PublishImage();
  // Bank-1 area of the first half is used up to 4 bytes before its end.
  std::vector<UINT8> Used(kQuarter - 4, 0x11);
  Platform->Flash.Load(kJournal + kQuarter - static_cast<UINT32>(Platform->FlashBaseAddress), Used.data(),
                       static_cast<UINT32>(Used.size()));
  WriteCmosToRom(0xFA, 9);
  EXPECT_EQ(Platform->ExtendedCmos[0xFA], 9);
  EXPECT_EQ(Platform->CountCalls("FlashDeviceWrite"), 0u);
  EXPECT_EQ(FlashAt(kJournal + 2 * kQuarter - 4)[0], 0xFF);

  // A 2-byte record without checksum still fits there.
  AppendCmosJournal(0xF7, 3, nullptr);
  EXPECT_EQ(FlashAt(kJournal + 2 * kQuarter - 4)[1], 3);
  AppendCmosJournal(0xF6, 4, nullptr);  // exactly fills the area
  EXPECT_EQ(FlashAt(kJournal + 2 * kQuarter - 2)[0], 0xF6);

  Platform->ClearCalls();
  gConfig.CmosJournalBase = 0;  // no journal base means no journal
  AppendCmosJournal(0xF6, 3, nullptr);
  EXPECT_EQ(Platform->CallCount, 0u);
}

TEST_F(CmosAccess, ActiveSecondHalfIsMovedBackBeforeAppending) {
  std::vector<UINT8> Second(kHalf, 0xFF);
  std::memcpy(Second.data(), &gCmosJournalSignatureGuid, sizeof(EFI_GUID));
  Second[kQuarter] = 0xE0;
  Second[kQuarter + 1] = 0x01;
  UINT32 SecondOffset = kJournal + kHalf - static_cast<UINT32>(Platform->FlashBaseAddress);
  Platform->Flash.Load(SecondOffset, Second.data(), kHalf);
  std::vector<UINT8> OldFirst(kHalf, 0x00);
  Platform->Flash.Load(SecondOffset - kHalf, OldFirst.data(), kHalf);

  UINT16 Checksum = 0x1234;
  AppendCmosJournal(0xFB, 2, &Checksum);

  EXPECT_EQ(std::memcmp(FlashAt(kJournal), &gCmosJournalSignatureGuid, sizeof(EFI_GUID)), 0);
  const UINT8 Expected[] = {0xE0, 0x01, 0xFB, 0x02, 0xC2, 0x34, 0xC3, 0x12};
  EXPECT_EQ(std::memcmp(FlashAt(kJournal + kQuarter), Expected, sizeof(Expected)), 0);
  EXPECT_EQ(std::vector<UINT8>(FlashAt(kJournal + kHalf), FlashAt(kJournal + 2 * kHalf)),
            std::vector<UINT8>(kHalf, 0xFF)) << "second half erased";
  EXPECT_EQ(CallNames(),
            (std::vector<std::string>{"FlashDeviceErase", "FlashDeviceWrite", "FlashDeviceErase", "FlashDeviceWrite"}));
  EXPECT_EQ(Platform->ElapsedMicroseconds
, 4 * 50u) << "a 50 us wait after each flash operation";
}

}  // namespace
