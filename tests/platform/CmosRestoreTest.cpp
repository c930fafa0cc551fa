// The CmosToRom restore at start: the mirror image and CMOS made to agree before anything
// else uses them, from live CMOS, from the flash journal, or as the earlier phase orders.
#include <array>
#include <cstring>

#include "../../src/base/Guids.h"
#include "../../src/platform/Cmos.h"
#include "../support/PlatformFixture.h"

namespace {

using Image = std::array<UINT8, CmosToRomImage::kSize>;
using Bytes = std::vector<UINT8>;

void Store16(UINT8 *At, UINT16 Value) { At[0] = static_cast<UINT8>(Value), At[1] = static_cast<UINT8>(Value >> 8); }
UINT16 Load16(const UINT8 *At) { return static_cast<UINT16>(At[0] | (At[1] << 8)); }

class CmosRestoreAtStart : public PlatformFixture {
protected:
  void AddImageHob(const Image &Start, size_t Size = CmosToRomImage::kSize) {
    ImageOffset = Hobs.AddGuidHob(gCmosToRomImageHobGuid, Start.data(), Size);
  }
  UINT8 *HobImage() { return Hobs.Data() + ImageOffset; }
  // A signed journal half (0 or 1) at 0xFF0E6000 with its bank-0 and bank-1 pairs.
  void LoadJournalHalf(UINT32 Which, const Bytes &Bank0, const Bytes &Bank1) {
    Bytes Half(0x1000, 0xFF);
    std::memcpy(Half.data(), &gCmosJournalSignatureGuid, sizeof(EFI_GUID));
    std::copy(Bank0.begin(), Bank0.end(), Half.begin() + 0x20);
    std::copy(Bank1.begin(), Bank1.end(), Half.begin() + 0x800);
    Platform->Flash.Load(0xE6000 + Which * 0x1000, Half.data(), 0x1000);
  }
  // Values written to a CMOS data port (0x71 or 0x73) during start.
  Bytes DataWrites(UINT16 Port) const {
    Bytes Values;
    for (UINTN At = 0; At < Platform->PortLogCount; At++) {
      if (Platform->PortLog[At].Write && Platform->PortLog[At].Port == Port) {
        Values.push_back(static_cast<UINT8>(Platform->PortLog[At].Value));
      }
    }
    return Values;
  }
  size_t ImageOffset = 0;
};

TEST_F(CmosRestoreAtStart, ValidLiveExtendedBankRefreshesOnlyItsListedBytesInTheImage) {
  Image Stale;
  Stale.fill(0x5A);
  AddImageHob(Stale);
  UINT16 Sum = 265;
  for (UINT8 Index : {0xC6, 0xE0, 0xEE, 0xF7, 0xF8, 0xF9, 0xFA, 0xFB}) {
    Platform->ExtendedCmos[Index] = static_cast<UINT8>(Index - 0xB0);
    Sum = static_cast<UINT16>(Sum + Index - 0xB0);
    Stale[256 + Index] = static_cast<UINT8>(Index - 0xB0);
  }
  Store16(&Platform->ExtendedCmos[0xC2], Sum);
  Store16(&Stale[450], Sum);
  Platform->ExtendedCmos[0x10] = 0x33;  // not listed: stays out of the image
  LoadJournalHalf(0, {0x76, 0x01}, {0xF9, 0x01});  // not consulted

  ASSERT_EQ(StartDriver(), EFI_SUCCESS);
  EXPECT_EQ(std::memcmp(HobImage(), Stale.data(), Stale.size()), 0) << "bank 0 and unlisted bytes untouched";
  EXPECT_TRUE(DataWrites(0x71).empty());
}

TEST_F(CmosRestoreAtStart, ClearedCmosIsRebuiltFromTheActiveHalfLaterPairsWinningAndWrittenBack) {
  Image Start{};
  Start[256 + 0x10] = 0x44;  // a byte the journal does not mention keeps its value
  AddImageHob(Start);
  LoadJournalHalf(0, {0x76, 0x09}, {0xF9, 0x07, 0xC2, 0x10, 0xC3, 0x01});  // older half: ignored
  // 0xF9 set to 5 then back to 0; after the erased pair nothing counts.
  LoadJournalHalf(1, {0x76, 0x01, 0x4E, 0x0A, 0x4F, 0x01},
                  {0xF9, 0x05, 0xFA, 0x03, 0xF9, 0x00, 0xC2, 0x0C, 0xC3, 0x01, 0xFF, 0xFF, 0xFB, 0x09});

  ASSERT_EQ(StartDriver(), EFI_SUCCESS);
  const UINT8 *Rebuilt = HobImage();
  EXPECT_EQ(Bytes(Rebuilt + 256 + 0xF9, Rebuilt + 256 + 0xFC), (Bytes{0, 3, 0}));
  EXPECT_EQ(Rebuilt[256 + 0x10], 0x44);
  EXPECT_EQ(Load16(Rebuilt + 450), 268);
  EXPECT_EQ(Rebuilt[0x76] + Platform->Cmos[0x76] + Platform->ExtendedCmos[0xFA], 5);
  EXPECT_EQ(Load16(&Platform->Cmos[0x4E]) + 0x10000 * Load16(&Platform->ExtendedCmos[0xC2]), 266 + 0x10000 * 268);
  EXPECT_EQ(Platform->ExtendedCmos[0x10], 0) << "only listed bytes are written back";
}

struct JudgementCase {
  const char *Name;
  bool Journal;
  UINTN Bank;
  UINT16 Stored;                   // over listed byte 2 and unlisted byte 3
  UINT8 KeptListed, KeptUnlisted;
  UINT16 Checksum;
};

class CmosBankJudgement : public CmosRestoreAtStart, public ::testing::WithParamInterface<JudgementCase> {};

TEST_P(CmosBankJudgement, BankIsKeptReducedToItsListedBytesOrZeroed) {
  const JudgementCase &Case = GetParam();
  const UINTN Base = Case.Bank * 256, Listed = Base + (Case.Bank == 0 ? 0x76 : 0xF9);
  const UINTN ChecksumAt = Case.Bank == 0 ? 78 : 450, OtherChecksumAt = Case.Bank == 0 ? 450 : 78;
  Image Start{};
  Start[Listed] = 2;
  Start[Base + 0x10] = 3;
  Store16(&Start[ChecksumAt], Case.Stored);
  Store16(&Start[OtherChecksumAt], 265);
  AddImageHob(Start);
  if (Case.Journal) LoadJournalHalf(0, {}, {});
  ASSERT_EQ(StartDriver(), EFI_SUCCESS);

  EXPECT_EQ(HobImage()[Listed], Case.KeptListed);
  EXPECT_EQ(HobImage()[Base + 0x10], Case.KeptUnlisted);
  EXPECT_EQ(Load16(HobImage() + ChecksumAt), Case.Checksum);
  const UINT8 *Live = Case.Bank == 0 ? &Platform->Cmos[0x4E] : &Platform->ExtendedCmos[0xC2];
  EXPECT_EQ(Load16(Live), Case.Checksum) << "the judged checksum is written to CMOS";
}

INSTANTIATE_TEST_SUITE_P(Banks, CmosBankJudgement,
                         ::testing::Values(JudgementCase{"ChecksumHolds0", true, 0, 267, 2, 3, 267},
                                           JudgementCase{"OnlyBankSumHolds1", true, 1, 270, 2, 0, 267},
                                           JudgementCase{"NeitherHolds0", true, 0, 0x1234, 0, 0, 265},
                                           JudgementCase{"NoSignedHalf", false, 1, 267, 0, 0, 265}),
                         [](const auto &Info) { return std::string(Info.param.Name); });

struct HobCase {
  const char *Name;
  size_t ImageHobSize;
  bool FromImage, Done, RtcSkip, ExtendedWorks;
  size_t Bank0Writes, ExtendedWrites;  // 5: three bytes and the checksum; 2: the probe; 12: probe and bank 1
};

class CmosRestoreHobs : public CmosRestoreAtStart, public ::testing::WithParamInterface<HobCase> {};

// The image fails both checks and there is no journal, so any unordered rebuild would zero it.
TEST_P(CmosRestoreHobs, WriteTheImageAsOrderedOrNothing) {
  const HobCase &Case = GetParam();
  Image Ordered{};
  Ordered[0x76] = 0x11;
  Store16(&Ordered[78], 0x2233);
  Ordered[256 + 0xF9] = 0x22;
  Store16(&Ordered[450], 0x4455);
  AddImageHob(Ordered, Case.ImageHobSize);
  if (Case.FromImage) Hobs.AddGuidHob(gCmosRestoreFromImageHobGuid, nullptr, 0);
  if (Case.Done) Hobs.AddGuidHob(gCmosRestoreDoneHobGuid, nullptr, 0);
  if (Case.RtcSkip) Hobs.AddGuidHob(gRtcCmosRestoreSkipHobGuid, nullptr, 0);
  Platform->ExtendedCmosWorking = Case.ExtendedWorks;
  ASSERT_EQ(StartDriver(), EFI_SUCCESS);

  EXPECT_EQ(std::memcmp(HobImage(), Ordered.data(), Case.ImageHobSize), 0);
  Bytes Bank0 = DataWrites(0x71), Extended = DataWrites(0x73);
  EXPECT_EQ(Bank0.size(), Case.Bank0Writes);
  EXPECT_EQ(Extended.size(), Case.ExtendedWrites);
  if (Case.Bank0Writes != 0) {
    EXPECT_EQ(Load16(&Platform->Cmos[0x4E]), 0x2233);
  }
  if (Case.ExtendedWrites > 2) {
    EXPECT_EQ(Load16(&Platform->ExtendedCmos[0xC2]), 0x4455);
  }
}

constexpr size_t kWhole = CmosToRomImage::kSize;
INSTANTIATE_TEST_SUITE_P(Start, CmosRestoreHobs,
                         ::testing::Values(HobCase{"ImageHobShorterThanAnImage", 256, false, false, false, true, 0, 0},
                                           HobCase{"ExtendedBankBroken", kWhole, false, false, false, false, 0, 2},
                                           HobCase{"Ordered", kWhole, true, false, false, true, 5, 12},
                                           HobCase{"OrderedAndDone", kWhole, true, true, false, true, 0, 0},
                                           HobCase{"OrderedRtcBankSkipped", kWhole, true, false, true, true, 0, 12},
                                           HobCase{"OrderedExtendedBankBroken", kWhole, true, false, false, false, 5, 2}),
                         [](const auto &Info) { return std::string(Info.param.Name); });

}  // namespace
