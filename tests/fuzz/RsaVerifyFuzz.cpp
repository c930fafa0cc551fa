// The compact RSA check against OpenSSL on fuzzer-made signatures: either raw signature bytes
// of any length, or a fuzzer-made block raised to the private exponent, so that the padding
// check sees every shape of block (with the right DigestInfo and hash put in on request).
// Both must agree on every input.
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "emu/EmuRsa.h"
#include "emu/host/EmuHostRsa.h"

namespace {

struct FuzzKey {
  EmuRsaPublicKey Public{};
  BIGNUM *N = nullptr;
  BIGNUM *D = nullptr;
};

// One 1024-bit key per run: large enough for the padding, cheap enough for many iterations.
const FuzzKey &Key() {
  static const FuzzKey Made = [] {
    FuzzKey K;
    EVP_PKEY *Pkey = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(1024));
    EVP_PKEY_get_bn_param(Pkey, OSSL_PKEY_PARAM_RSA_N, &K.N);
    EVP_PKEY_get_bn_param(Pkey, OSSL_PKEY_PARAM_RSA_D, &K.D);
    uint8_t Modulus[128];
    BN_bn2binpad(K.N, Modulus, sizeof(Modulus));
    if (!EmuRsaSetPublicKey(K.Public, Modulus, sizeof(Modulus), 65537)) {
      std::abort();
    }
    EVP_PKEY_free(Pkey);
    return K;
  }();
  return Made;
}

const uint8_t kDigestInfo[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                               0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  if (Size < 2) {
    return 0;
  }
  const FuzzKey &K = Key();
  const size_t ModulusSize = K.Public.ModulusSize;
  const uint8_t Mode = Data[0];
  const size_t SignaturePart = Mode & 1 ? ModulusSize : Data[1] % (ModulusSize + 3);
  const size_t Take = SignaturePart < Size - 2 ? SignaturePart : Size - 2;
  std::vector<uint8_t> Signature(Data + 2, Data + 2 + Take);
  const std::vector<uint8_t> Message(Data + 2 + Take, Data + Size);

  if (Mode & 1) {
    // A block of the fuzzer's bytes, below the modulus, optionally ending in the right digest.
    std::vector<uint8_t> Block(ModulusSize, 0);
    if (!Signature.empty()) {
      std::memcpy(Block.data(), Signature.data(), Signature.size());
    }
    Block[0] = 0;
    if (Mode & 2) {
      uint8_t Digest[32];
      SHA256(Message.data(), Message.size(), Digest);
      std::memcpy(Block.data() + ModulusSize - 32, Digest, 32);
      std::memcpy(Block.data() + ModulusSize - 32 - sizeof(kDigestInfo), kDigestInfo, sizeof(kDigestInfo));
    }
    BN_CTX *Context = BN_CTX_new();
    BIGNUM *M = BN_bin2bn(Block.data(), static_cast<int>(Block.size()), nullptr);
    BIGNUM *S = BN_new();
    BN_mod_exp(S, M, K.D, K.N, Context);
    Signature.resize(ModulusSize);
    BN_bn2binpad(S, Signature.data(), static_cast<int>(ModulusSize));
    BN_free(M);
    BN_free(S);
    BN_CTX_free(Context);
  }
  const BOOLEAN Compact =
      EmuRsaVerifySha256(K.Public, Message.data(), Message.size(), Signature.data(), Signature.size());
  const BOOLEAN Reference =
      EmuHostRsaVerifySha256(K.Public, Message.data(), Message.size(), Signature.data(), Signature.size());
  if (Compact != Reference) {
    std::abort();
  }
  return 0;
}
