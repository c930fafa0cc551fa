// The CmosToRom restore at start: the mirror image and CMOS made to agree before anything
// else uses them, from live CMOS, from the flash journal, or as the earlier phase orders.
#include <array>
#include <cstring>

#include "../../src/base/Guids.h"
#include "../../src/platform/Cmos.h"
#include "../support/PlatformFixture.h"

namespace {

constexpr UINT32 kJournalOffset = 0xFF0E6000 - 0xFF000000;
constexpr UINT32 kHalf = 0x1000;
constexpr UINT32 kQuarter = 0x800;
constexpr UINT32 kHeader = 0x20;

using Image = std::array<UINT8, CmosToRomImage::kSize>;
using Pairs = std::vector<UINT8>;

void Store16(UINT8 *At, UINT16 Value) {
  At[0] = static_cast<UINT8>(Value);
  At[1] = static_cast<UINT8>(Value >> 8);
}
UINT16 Load16(const UINT8 *At) { return static_cast<UINT16>(At[0] | (At[1] << 8)); }

class CmosRestoreAtStart : public PlatformFixture {
protected:
  // Both banks zero under checksum 265: valid by either judgement.
  static Image ValidEmptyImage() {
    Image Result{};
    Store16(&Result[CmosToRomImage::kBank0ChecksumOffset], 265);
    Store16(&Result[CmosToRomImage::kBank1ChecksumOffset], 265);
    return Result;
  }
  void AddImageHob(const Image &Bytes, size_t Size = CmosToRomImage::kSize) {
    ImageOffset = Hobs.AddGuidHob(gCmosToRomImageHobGuid, Bytes.data(), Size);
  }
  void AddHob(const EFI_GUID &Guid) { Hobs.AddGuidHob(Guid, nullptr, 0); }
  UINT8 *HobImage() { return Hobs.Data() + ImageOffset; }

  // One signed journal half with its bank-0 and bank-1 pair areas.
  void LoadJournalHalf(UINT32 Which, const Pairs &Bank0, const Pairs &Bank1) {
    std::vector<UINT8> Half(kHalf, 0xFF);
    std::memcpy(Half.data(), &gCmosJournalSignatureGuid, sizeof(EFI_GUID));
    std::copy(Bank0.begin(), Bank0.end(), Half.begin() + kHeader);
    std::copy(Bank1.begin(), Bank1.end(), Half.begin() + kQuarter);
    Platform->Flash.Load(kJournalOffset + Which * kHalf, Half.data(), kHalf);
  }
  // A live extended bank whose checksum holds: 0xF9 = Value.
  void MakeLiveExtendedBankValid(UINT8 Value) {
    Platform->ExtendedCmos[0xF9] = Value;
    Store16(&Platform->ExtendedCmos[0xC2], static_cast<UINT16>(265 + Value));
  }
  // Values written to the CMOS data ports during start, as (index, value) per bank.
  std::vector<std::pair<UINT32, UINT32>> DataWrites(UINT16 IndexPort) const {
    std::vector<std::pair<UINT32, UINT32>> Result;
    UINT32 Index = 0;
    for (UINTN At = 0; At < Platform->PortLogCount; At++) {
      const auto &Access = Platform->PortLog[At];
      if (Access.Write && Access.Port == IndexPort) {
        Index = Access.Value & 0x7F;
        if (IndexPort == 0x72) Index = Access.Value;
      } else if (Access.Write && Access.Port == IndexPort + 1) {
        Result.emplace_back(Index, Access.Value);
      }
    }
    return Result;
  }

  size_t ImageOffset = 0;
};

TEST_F(CmosRestoreAtStart, ValidLiveExtendedBankRefreshesOnlyItsListedBytesInTheImage) {
  Image Stale;
  Stale.fill(0x5A);
  AddImageHob(Stale);
  const UINT8 Listed[] = {0xC6, 0xE0, 0xEE, 0xF7, 0xF8, 0xF9, 0xFA, 0xFB};
  UINT16 Sum = 265;
  for (UINT8 Index : Listed) {
    Platform->ExtendedCmos[Index] = static_cast<UINT8>(Index - 0xB0);
    Sum = static_cast<UINT16>(Sum + Platform->ExtendedCmos[Index]);
  }
  Store16(&Platform->ExtendedCmos[0xC2], Sum);
  Platform->ExtendedCmos[0x10] = 0x33;  // not listed: stays out of the image
  Platform->Cmos[0x76] = 0x44;
  LoadJournalHalf(0, {0x76, 0x01}, {0xF9, 0x01});  // not consulted

  ASSERT_EQ(StartDriver(), EFI_SUCCESS);
  Image Expected = Stale;
  for (UINT8 Index : Listed) Expected[256 + Index] = Platform->ExtendedCmos[Index];
  Store16(&Expected[CmosToRomImage::kBank1ChecksumOffset], Sum);
  EXPECT_EQ(std::memcmp(HobImage(), Expected.data(), Expected.size()), 0);
  EXPECT_EQ(Platform->Cmos[0x76], 0x44);
  EXPECT_TRUE(DataWrites(0x70).empty()) << "bank 0 is not touched";
}

TEST_F(CmosRestoreAtStart, ClearedCmosIsRebuiltFromTheActiveHalfLaterPairsWinningAndWrittenBack) {
  Image Start = ValidEmptyImage();
  Start[256 + 0x10] = 0x44;  // a byte the journal does not mention keeps its value
  Store16(&Start[CmosToRomImage::kBank1ChecksumOffset], 0);
  AddImageHob(Start);
  LoadJournalHalf(0, {0x76, 0x09}, {0xF9, 0x07, 0xC2, 0x10, 0xC3, 0x01});  // older half: ignored
  // 0xF9 set to 5 then back to 0; after the erased pair nothing counts.
  LoadJournalHalf(1, {0x76, 0x01, 0x4E, 0x0A, 0x4F, 0x01},
                  {0xF9, 0x05, 0xFA, 0x03, 0xF9, 0x00, 0xC2, 0x0C, 0xC3, 0x01, 0xFF, 0xFF, 0xFB, 0x09});

  ASSERT_EQ(StartDriver(), EFI_SUCCESS);
  const UINT8 *Rebuilt = HobImage();
  EXPECT_EQ(Rebuilt[256 + 0xF9], 0);
  EXPECT_EQ(Rebuilt[256 + 0xFA], 3);
  EXPECT_EQ(Rebuilt[256 + 0xFB], 0);
  EXPECT_EQ(Rebuilt[256 + 0x10], 0x44);
  EXPECT_EQ(Load16(Rebuilt + CmosToRomImage::kBank1ChecksumOffset), 268);
  EXPECT_EQ(Rebuilt[0x76], 1);
  EXPECT_EQ(Platform->Cmos[0x76], 1);
  EXPECT_EQ(Load16(&Platform->Cmos[0x4E]), 266);
  EXPECT_EQ(Platform->ExtendedCmos[0xFA], 3);
  EXPECT_EQ(Load16(&Platform->ExtendedCmos[0xC2]), 268);
  EXPECT_EQ(Platform->ExtendedCmos[0x10], 0) << "only listed bytes are written back";
}

TEST_F(CmosRestoreAtStart, NoSignedHalfLeavesAnEmptyImage) {
  Image Start;
  Start.fill(0x21);
  AddImageHob(Start);
  ASSERT_EQ(StartDriver(), EFI_SUCCESS);
  EXPECT_EQ(std::memcmp(HobImage(), ValidEmptyImage().data(), CmosToRomImage::kSize), 0);
  EXPECT_EQ(Load16(&Platform->ExtendedCmos[0xC2]), 265);
}

struct JudgementCase {
  const char *Name;
  UINTN Bank;
  UINT16 Stored;
  UINT8 KeptListed, KeptUnlisted;  // the listed byte was 2 and the unlisted one 3
  UINT16 Checksum;
};

class CmosBankJudgement : public CmosRestoreAtStart, public ::testing::WithParamInterface<JudgementCase> {};

TEST_P(CmosBankJudgement, BankIsKeptReducedToItsListedBytesOrZeroed) {
  const JudgementCase &Case = GetParam();
  const UINTN Base = Case.Bank * 256;
  const UINT8 ListedIndex = Case.Bank == 0 ? 0x76 : 0xF9;
  const UINTN ChecksumOffset = Case.Bank == 0 ? 78 : 450;
  Image Start = ValidEmptyImage();
  Start[Base + ListedIndex] = 2;
  Start[Base + 0x10] = 3;
  Store16(&Start[ChecksumOffset], Case.Stored);
  AddImageHob(Start);
  LoadJournalHalf(0, {}, {});
  ASSERT_EQ(StartDriver(), EFI_SUCCESS);

  EXPECT_EQ(HobImage()[Base + ListedIndex], Case.KeptListed);
  EXPECT_EQ(HobImage()[Base + 0x10], Case.KeptUnlisted);
  EXPECT_EQ(Load16(HobImage() + ChecksumOffset), Case.Checksum);
  const UINT8 *Live = Case.Bank == 0 ? &Platform->Cmos[0x4E] : &Platform->ExtendedCmos[0xC2];
  EXPECT_EQ(Load16(Live), Case.Checksum) << "the judged checksum is written to CMOS";
}

INSTANTIATE_TEST_SUITE_P(Banks, CmosBankJudgement,
                         ::testing::Values(JudgementCase{"ChecksumHolds0", 0, 267, 2, 3, 267},
                                           JudgementCase{"ChecksumHolds1", 1, 267, 2, 3, 267},
                                           JudgementCase{"OnlyBankSumHolds0", 0, 270, 2, 0, 267},
                                           JudgementCase{"OnlyBankSumHolds1", 1, 270, 2, 0, 267},
                                           JudgementCase{"NeitherHolds0", 0, 0x1234, 0, 0, 265},
                                           JudgementCase{"NeitherHolds1", 1, 0x1234, 0, 0, 265}),
                         [](const auto &Info) { return std::string(Info.param.Name); });

struct OrderedCase {
  const char *Name;
  bool Done, RtcSkip, ExtendedWorks;
  bool Bank0Written, Bank1Written;
};

class CmosOrderedRestore : public CmosRestoreAtStart, public ::testing::WithParamInterface<OrderedCase> {};

TEST_P(CmosOrderedRestore, WritesTheImageUncheckedAsTheEarlierPhaseSays) {
  const OrderedCase &Case = GetParam();
  Image Ordered{};
  Ordered[0x76] = 0x11;
  Store16(&Ordered[78], 0x2233);  // neither checksum holds: the order skips the checks
  Ordered[256 + 0xF9] = 0x22;
  Store16(&Ordered[450], 0x4455);
  AddImageHob(Ordered);
  AddHob(gCmosRestoreFromImageHobGuid);
  if (Case.Done) AddHob(gCmosRestoreDoneHobGuid);
  if (Case.RtcSkip) AddHob(gRtcCmosRestoreSkipHobGuid);
  Platform->ExtendedCmosWorking = Case.ExtendedWorks;
  MakeLiveExtendedBankValid(0x01);  // would otherwise be copied into the image
  ASSERT_EQ(StartDriver(), EFI_SUCCESS);

  EXPECT_EQ(std::memcmp(HobImage(), Ordered.data(), Ordered.size()), 0) << "the image is not changed";
  EXPECT_EQ(Platform->Cmos[0x76] == 0x11 && Load16(&Platform->Cmos[0x4E]) == 0x2233, Case.Bank0Written);
  EXPECT_EQ(!DataWrites(0x70).empty(), Case.Bank0Written);
  EXPECT_EQ(Platform->ExtendedCmos[0xF9] == 0x22 && Load16(&Platform->ExtendedCmos[0xC2]) == 0x4455,
            Case.Bank1Written);
}

INSTANTIATE_TEST_SUITE_P(Hobs, CmosOrderedRestore,
                         ::testing::Values(OrderedCase{"Ordered", false, false, true, true, true},
                                           OrderedCase{"OrderedAndDone", true, false, true, false, false},
                                           OrderedCase{"RtcBankSkipped", false, true, true, false, true},
                                           OrderedCase{"ExtendedBankBroken", false, false, false, true, false}),
                         [](const auto &Info) { return std::string(Info.param.Name); });

struct NothingCase {
  const char *Name;
  size_t ImageHobSize;  // 0: no image HOB
  bool ExtendedWorks, OrderedAndDone;
  std::vector<std::pair<UINT32, UINT32>> ExtendedWrites;
};

class CmosRestoreSkipped : public CmosRestoreAtStart, public ::testing::WithParamInterface<NothingCase> {};

TEST_P(CmosRestoreSkipped, NothingChangesBeyondTheProbe) {
  const NothingCase &Case = GetParam();
  Image Start;
  Start.fill(0x5A);  // a rebuild would zero it: no journal, no valid bank
  if (Case.ImageHobSize != 0) AddImageHob(Start, Case.ImageHobSize);
  if (Case.OrderedAndDone) {
    AddHob(gCmosRestoreFromImageHobGuid);
    AddHob(gCmosRestoreDoneHobGuid);
  }
  Platform->ExtendedCmosWorking = Case.ExtendedWorks;
  ASSERT_EQ(StartDriver(), EFI_SUCCESS);
  if (Case.ImageHobSize != 0) {
    EXPECT_EQ(std::memcmp(HobImage(), Start.data(), Case.ImageHobSize), 0);
  }
  EXPECT_TRUE(DataWrites(0x70).empty());
  EXPECT_EQ(DataWrites(0x72), Case.ExtendedWrites);
}

const std::vector<std::pair<UINT32, UINT32>> kProbe = {{0xC0, 0x88}, {0xC1, 0x77}};
INSTANTIATE_TEST_SUITE_P(Start, CmosRestoreSkipped,
                         ::testing::Values(NothingCase{"NoImageHob", 0, true, false, {}},
                                           NothingCase{"ImageHobShorterThanAnImage", 256, true, false, {}},
                                           NothingCase{"ExtendedBankBroken", CmosToRomImage::kSize, false, false, kProbe},
                                           NothingCase{"OrderedAndDone", CmosToRomImage::kSize, true, true, {}}),
                         [](const auto &Info) { return std::string(Info.param.Name); });

}  // namespace
