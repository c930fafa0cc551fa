#include "TestSigningKeys.h"

#include <array>
#include <optional>

#include "../../emu/host/EmuHostRsa.h"
#include "ImageSigner.h"

#ifndef BIOS_TEST_KEY_DIR
#error "BIOS_TEST_KEY_DIR names the build's key directory"
#endif

std::string TestSigningKeyPath(TestSigningKey Key) {
  const char *Name = Key == TestSigningKey::Selector1   ? "SignKey1.pem"
                     : Key == TestSigningKey::Selector0 ? "SignKey0.pem"
                                                        : "ForeignKey.pem";
  return std::string(BIOS_TEST_KEY_DIR) + "/" + Name;
}

bool SignWithTestKey(std::vector<uint8_t> &Image, std::vector<uint8_t> &Signature, std::string &Error,
                     TestSigningKey Key) {
  return SignImage(Image, TestSigningKeyPath(Key), Signature, Error);
}

bool InstallTestSignatureKeys(EmuPlatform &Platform, std::string &Error) {
  static std::optional<std::array<EmuRsaPublicKey, 2>> Loaded;
  if (!Loaded) {
    std::array<EmuRsaPublicKey, 2> Keys{};
    if (!RsaPublicKeyFromPem(TestSigningKeyPath(TestSigningKey::Selector0), Keys[0], Error) ||
        !RsaPublicKeyFromPem(TestSigningKeyPath(TestSigningKey::Selector1), Keys[1], Error)) {
      return false;
    }
    Loaded = Keys;
  }
  Platform.SignatureKeys.Keys[0] = (*Loaded)[0];
  Platform.SignatureKeys.Keys[1] = (*Loaded)[1];
  Platform.SignatureKeys.Check = EmuHostRsaVerifySha256;
  return true;
}
