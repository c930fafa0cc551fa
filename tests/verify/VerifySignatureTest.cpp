// BiosVerifySignature: one table of every refusal, of the signature-enforcement HOBs and of the
// settings saved in an HFT update; the excluded area; the digest erasure.
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "../../src/driver/CallbackHub.h"
#include "../../src/driver/Config.h"
#include "../../src/driver/HookPoints.h"
#include "../../src/verify/SecuritySettings.h"
#include "../../src/verify/VerifySignature.h"
#include "../../tools/lib/DefaultImageLayout.h"
#include "../../tools/lib/FlashMapBuilder.h"
#include "../../tools/lib/ImageSigner.h"
#include "../../tools/lib/NewImageBuilder.h"
#include "../../tools/lib/TestSigningKeys.h"
#include "../../tools/lib/VariableStoreBuilder.h"
#include "../flash/FlashFixture.h"

namespace {

using namespace DefaultImageLayout;

struct SignedImage {
  std::vector<uint8_t> Image;
  std::vector<uint8_t> Signature;
};

// The new image of the reference update, signed with the selector-1 key (built once per family).
const SignedImage &NewSignedImage(char Family = kDefaultVersionFamily) {
  static std::map<char, SignedImage> Built;
  auto Found = Built.find(Family);
  if (Found == Built.end()) {
    NewImageOptions Options;
    Options.Base.VersionFamily = Family;
    SignedImage Signed{BuildNewImage(Options).Bytes, {}};
    std::string Error;
    EXPECT_TRUE(SignWithTestKey(Signed.Image, Signed.Signature, Error, TestSigningKey::Selector1)) << Error;
    Found = Built.emplace(Family, std::move(Signed)).first;
  }
  return Found->second;
}

size_t Offset(uint64_t FlashAddress) { return static_cast<size_t>(FlashAddress - EmuFlashLayout::kMappedBase); }

// Where a GUID first appears in the image (the structures the embedded checks look for).
size_t Find(const std::vector<uint8_t> &Image, const EFI_GUID &Guid) {
  const auto *Bytes = reinterpret_cast<const uint8_t *>(&Guid);
  return std::search(Image.begin(), Image.end(), Bytes, Bytes + sizeof(Guid)) - Image.begin();
}

EFI_STATUS EFIAPI RefuseImage(const VOID *, UINT64) { return EFI_ABORTED; }

VOID EFIAPI RejectingHook(UINTN, HookEntry *) {
  static_cast<ImageHookRecord *>(HookFind(&gImageAcceptHookGuid)->CurrentRecord)->Verdict = kHookAnswerTaken;
}

class VerifySignature : public FlashFixture {
public:
  // What a table row may change before the driver starts.
  using FlashFixture::BootBlockUpdateHob, FlashFixture::Install, FlashFixture::Platform, FlashFixture::Sim;
  void RegionTracked() { Platform->Config->Flags |= kPlatformConfigAlternativeFlag; }
  // An HFT update, region-tracked; a resumed one keeps the settings saved before.
  void HftUpdate(bool Resuming) {
    const UINT8 Hft = 1, Resume = 0x05;
    Sim.SetVariable(u"HFT", gPlatformVariableGuid, 7, &Hft, 1);
    RegionTracked();
    if (Resuming) {
      Hobs.AddGuidHob(gUpdateResumeHobGuid, &Resume, 1);
    }
  }
  bool AddRejectingHookAfterStart = false;

protected:
  void StartWith() {
    for (const EFI_GUID *Hob : ExtraHobs) {
      Hobs.AddGuidHob(*Hob, nullptr, 0);
    }
    Start();
    BiosImageQueryRecord Record;
    ASSERT_EQ(Query(mBiosImageInterface, Record), EFI_SUCCESS);
  }
  EFI_STATUS Verify(std::vector<uint8_t> &Image, std::vector<uint8_t> &Signature) {
    return mBiosImageInterface->BiosVerifySignature(mBiosImageInterface, Image.data(), Image.size(),
                                                    Signature.data(), Signature.size());
  }
  std::vector<uint8_t> Flash(uint64_t Address, size_t Length) const {
    const UINT8 *Bytes = Platform->MappedFlash(Address, Length);
    return std::vector<uint8_t>(Bytes, Bytes + Length);
  }
  void AddRejectingHook() {
    ImageHookRecord First = MakeImageHookRecord();
    ASSERT_EQ(HookSignal(&gImageAcceptHookGuid, &First), EFI_SUCCESS);  // creates the node
    static HookEntry Entry;
    Entry = {};
    Entry.Callback = RejectingHook;
    LIST_ENTRY &Head = HookFind(&gImageAcceptHookGuid)->Lists[0];  // empty until now
    Entry.Link = {&Head, &Head};
    Head.Flink = Head.Blink = &Entry.Link;
  }

  std::vector<const EFI_GUID *> ExtraHobs;
};

enum class Variant { Signed, Tampered, ForeignKey, NoSignatureFile, BadFvSignature, NoFlashMap, BadRegion, Short };

SignedImage MakeVariant(Variant Kind) {
  SignedImage Made = NewSignedImage();
  std::vector<uint8_t> &Image = Made.Image;
  switch (Kind) {
    case Variant::Signed:
      break;
    case Variant::Tampered:
      Image[Offset(kDxeFvAddress) + 0x1234] ^= 0x01;
      break;
    case Variant::ForeignKey: {
      // Only the detached signature is foreign; the embedded ones stay good.
      std::vector<uint8_t> Input;
      std::string Error;
      EXPECT_TRUE(DetachedSignatureInput(Image, Input, Error) &&
                  RsaSignSha256(Input, TestSigningKeyPath(TestSigningKey::Foreign), Made.Signature, Error))
          << Error;
      break;
    }
    case Variant::NoSignatureFile:
      Image[Find(Image, gFvSignatureFileGuid)] ^= 0x01;
      break;
    case Variant::BadFvSignature:
      Image[Find(Image, gFvSignatureFileGuid) + 24 + 4 + 100] ^= 0x01;  // inside the signature
      break;
    case Variant::NoFlashMap:
      Image[Offset(kDefaultFlashMapAddress)] ^= 0x01;
      break;
    case Variant::BadRegion:
      Image[Offset(kSignedRegions[4].Address) + 0x40] ^= 0x01;  // signed by the flash map only
      break;
    case Variant::Short:
      Image.resize(Offset(kSignatureExcludedAddress) + kSignatureExcludedSize - 1);
      break;
  }
  return Made;
}

using Arrange = void (*)(VerifySignature &);
struct RefusalCase {
  const char *Name;
  Variant Image;
  std::vector<const EFI_GUID *> Hobs;
  EFI_STATUS Expected;
  bool ImageKept;  // mVerifiedImage holds the image afterwards
  Arrange Setup = nullptr;
  bool SettingsSaved = false;  // the security settings were saved for writing back
};

class VerifyRefusals : public VerifySignature, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(VerifyRefusals, ExactStatusAndWhatIsKept) {
  const RefusalCase &Case = GetParam();
  ExtraHobs = Case.Hobs;
  if (Case.Setup) {
    Case.Setup(*this);
  }
  StartWith();
  if (AddRejectingHookAfterStart) {
    AddRejectingHook();
  }
  SignedImage Made = MakeVariant(Case.Image);
  const std::vector<uint8_t> Before = Made.Image;
  EXPECT_EQ(Verify(Made.Image, Made.Signature), Case.Expected);
  EXPECT_EQ(mVerifiedImage != nullptr, Case.ImageKept);
  EXPECT_EQ(mSecuritySettingsCopy != nullptr, Case.SettingsSaved);
  EXPECT_EQ(Made.Image, Before);  // the caller's buffer is never left changed
  const auto &Chip = Platform->Flash.Stats();
  EXPECT_TRUE((Chip.SectorErases == 0 && Chip.Programs == 0) || Case.SettingsSaved) << "only settings written back";
  if (Case.Image == Variant::Tampered) {
    EXPECT_EQ(Platform->CountCalls("SetUpdateInProgress"), 0u);
  }
}

const EFI_GUID *kPei = &gPeiSignCheckHobGuid;
const EFI_GUID *kEnforce = &gFvSignatureEnforceHobGuid;
const EFI_GUID *kWaiver = &gFvSignatureWaiverHobGuid;
constexpr EFI_STATUS kRefused = EFI_SECURITY_VIOLATION;
using V = Variant;

INSTANTIATE_TEST_SUITE_P(
    Table, VerifyRefusals,
    ::testing::Values(
        RefusalCase{"Accepted", V::Signed, {kPei, kEnforce}, EFI_SUCCESS, true},
        RefusalCase{"TamperedWithPeiHob", V::Tampered, {kPei}, kRefused, false},
        RefusalCase{"ForeignKeyWithoutPeiHobGoesOn", V::ForeignKey, {}, EFI_SUCCESS, true},
        RefusalCase{"SecondSelectorStatusReturned", V::ForeignKey, {kPei}, EFI_NOT_FOUND, false,
                    [](VerifySignature &T) { T.Platform->SignatureKeys.Keys[0].ModulusSize = 0; }},
        RefusalCase{"PeiHobWithoutDxeCheck", V::Signed, {kPei}, kRefused, false,
                    [](VerifySignature &) { gConfig.DxeSignCheckFlag = FALSE; }},
        RefusalCase{"PlatformRefusesImage", V::Signed, {}, EFI_ABORTED, false,
                    [](VerifySignature &T) { T.Platform->Config->CheckImage = RefuseImage; }},
        RefusalCase{"NoVerifier", V::Signed, {}, EFI_NOT_FOUND, false,
                    [](VerifySignature &T) { T.Install.SignatureVerifier = FALSE; }},
        RefusalCase{"NoSignatureFileEvenUnenforced", V::NoSignatureFile, {}, kRefused, false},
        RefusalCase{"BadFvSignatureEnforced", V::BadFvSignature, {kEnforce}, kRefused, false},
        RefusalCase{"BadFvSignatureWaived", V::BadFvSignature, {kEnforce, kWaiver}, EFI_SUCCESS, true},
        RefusalCase{"BadFvSignatureUnenforced", V::BadFvSignature, {}, EFI_SUCCESS, true},
        RefusalCase{"NoFlashMapRecord", V::NoFlashMap, {}, EFI_NOT_FOUND, false},
        RefusalCase{"FlashMapSignatureFails", V::BadRegion, {}, kRefused, false},
        RefusalCase{"FlashMapUncheckedWithoutBootBlockFeature", V::BadRegion, {}, EFI_SUCCESS, true,
                    [](VerifySignature &T) {
                      T.Sim.SetPcd(gPlatformPcdTokenSpaceGuid, kBootBlockUpdateEnabledToken, FALSE);
                      T.BootBlockUpdateHob = false;
                    }},
        RefusalCase{"StagingFails", V::Signed, {}, EFI_NOT_READY, false,
                    [](VerifySignature &T) { T.Platform->ExtendedCmos[0xF8] = 0xFF; }},
        RefusalCase{"HookRefusesAfterTheCopy", V::Signed, {}, kRefused, true,
                    [](VerifySignature &T) { T.AddRejectingHookAfterStart = true; }},
        RefusalCase{"ImageTooShortForExcludedArea", V::Short, {}, EFI_BAD_BUFFER_SIZE, false},
        RefusalCase{"HftUpdateSavesTheSecuritySettings", V::Signed, {}, EFI_SUCCESS, true,
                    [](VerifySignature &T) { T.HftUpdate(false); }, true},
        RefusalCase{"ResumedHftUpdateDoesNotSaveThemAgain", V::Signed, {}, EFI_SUCCESS, true,
                    [](VerifySignature &T) { T.HftUpdate(true); }}),
    [](const ::testing::TestParamInfo<RefusalCase> &Info) { return std::string(Info.param.Name); });

TEST_F(VerifySignature, ExcludedAreaDoesNotCountAndIsPutBackAndASecondVerificationDoesNotLeak) {
  ExtraHobs = {&gPeiSignCheckHobGuid};
  StartWith();
  SignedImage New = NewSignedImage();
  ASSERT_EQ(Verify(New.Image, New.Signature), EFI_SUCCESS);
  const std::vector<uint8_t> Stamp = PseudoRandomBytes(kSignatureExcludedSize, 7);
  std::copy(Stamp.begin(), Stamp.end(), New.Image.begin() + Offset(kSignatureExcludedAddress));
  const std::vector<uint8_t> Before = New.Image;
  EXPECT_EQ(Verify(New.Image, New.Signature), EFI_SUCCESS);
  EXPECT_EQ(New.Image, Before);
  New.Image[Offset(kSignatureExcludedAddress) - 1] ^= 0x01;  // just outside: counted
  EXPECT_EQ(Verify(New.Image, New.Signature), EFI_SECURITY_VIOLATION);
}

struct DigestCase {
  const char *Name;
  const char16_t *InstalledTag;
  char NewFamily;
  bool Erased;
};

class VerifyDigests : public VerifySignature, public ::testing::WithParamInterface<DigestCase> {};

TEST_P(VerifyDigests, ErasedOnlyWhenTheFamilyBecomesF) {
  const DigestCase &Case = GetParam();
  Platform->FlashService->VerifyFlags |= 0x02;
  Sim.SetPcd(gPlatformPcdTokenSpace2Guid, kBiosVersionTagToken, reinterpret_cast<UINT64>(Case.InstalledTag));
  const std::vector<uint8_t> Digest = PseudoRandomBytes(kDigestArea1Size, 3);
  for (const UINT32 Area : {kDigestArea1Address, kDigestArea3Address}) {
    Platform->Flash.Load(static_cast<UINT32>(Area - Platform->FlashBaseAddress), Digest.data(), kDigestArea1Size);
  }
  StartWith();
  SignedImage New = NewSignedImage(Case.NewFamily);
  ASSERT_EQ(Verify(New.Image, New.Signature), EFI_SUCCESS);

  std::vector<uint8_t> Area1 = Digest;
  if (Case.Erased) {
    std::fill(Area1.begin(), Area1.begin() + kAuthVarDigestMarkBytes, 0xFF);
  }
  EXPECT_EQ(Flash(kDigestArea1Address, kDigestArea1Size), Area1);
  EXPECT_EQ(Flash(kDigestArea3Address, kDigestArea3Size),
            Case.Erased ? std::vector<uint8_t>(kDigestArea3Size, 0xFF) : Digest);
}

INSTANTIATE_TEST_SUITE_P(Table, VerifyDigests,
                         ::testing::Values(DigestCase{"IntoFamilyF", u"E1.07", 'F', true},
                                           DigestCase{"AlreadyF", u"F1.07", 'F', false},
                                           DigestCase{"StaysE", u"E1.07", 'E', false},
                                           DigestCase{"TagTooLongCountsAsEmpty", u"F1.07.2024", 'F', true}),
                         [](const ::testing::TestParamInfo<DigestCase> &Info) { return std::string(Info.param.Name); });

}  // namespace
