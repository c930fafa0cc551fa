// The emulated ImageSignatureVerifyProtocol as the driver finds it: each selector answers for
// its own key only, a third key is refused under both, and the compact RSA check (the one the
// emulation driver runs in firmware) answers exactly as the OpenSSL check host tests install.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "emu/host/EmuHostRsa.h"
#include "src/base/Guids.h"
#include "tests/support/PlatformFixture.h"
#include "tools/lib/ImageSigner.h"
#include "tools/lib/TestSigningKeys.h"

namespace {

class SignatureVerifierTest : public PlatformFixture {
protected:
  static std::vector<uint8_t> SignWith(TestSigningKey Key, const std::vector<uint8_t> &Data) {
    std::vector<uint8_t> Signature;
    std::string Error;
    EXPECT_TRUE(RsaSignSha256(Data, TestSigningKeyPath(Key), Signature, Error)) << Error;
    return Signature;
  }
};

TEST_F(SignatureVerifierTest, EachSelectorAcceptsOnlyItsOwnKeyWithEitherRsaCheck) {
  PrepareBoot();
  ImageSignatureVerifyProtocol *Verifier = nullptr;
  ASSERT_EQ(Sim.BootServices()->LocateProtocol(const_cast<EFI_GUID *>(&gImageSignatureVerifyProtocolGuid), nullptr,
                                               reinterpret_cast<VOID **>(&Verifier)),
            EFI_SUCCESS);
  const std::vector<uint8_t> Data(5000, 0x5A);
  const struct {
    TestSigningKey Signer;
    UINT32 Selector;
    EFI_STATUS Expected;
  } Rows[] = {
      {TestSigningKey::Selector1, 1, EFI_SUCCESS},
      {TestSigningKey::Selector1, 0, EFI_SECURITY_VIOLATION},
      {TestSigningKey::Selector0, 0, EFI_SUCCESS},
      {TestSigningKey::Foreign, 1, EFI_SECURITY_VIOLATION},
      {TestSigningKey::Selector1, 2, EFI_NOT_FOUND},
  };
  for (EMU_RSA_VERIFY Check : {EmuHostRsaVerifySha256, EmuRsaVerifySha256}) {
    Platform->SignatureKeys.Check = Check;
    const char *CheckName = Check == EmuRsaVerifySha256 ? "compact" : "OpenSSL";
    for (const auto &Row : Rows) {
      const std::vector<uint8_t> Signature = SignWith(Row.Signer, Data);
      EXPECT_EQ(Verifier->Verify(Data.data(), Data.size(), Signature.data(), Signature.size(), Row.Selector),
                Row.Expected)
          << CheckName << " check, key " << TestSigningKeyPath(Row.Signer) << ", selector " << Row.Selector;
    }
  }
}

}  // namespace
