// The compact RSA check against OpenSSL, one case per way a signature is refused, on keys of
// several sizes and exponents: both must give the expected verdict. Blocks are raised to the
// private exponent (s = block^d mod n), so each fault reaches the block comparison. Random
// blocks and lengths are the fuzz harness RsaVerifyFuzz's part. A signature at or above the
// modulus has no row: its refusal does not depend on the check below the modulus (the power
// of such a value never matches the expected block), so no row could tell that check apart.
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "emu/EmuRsa.h"
#include "emu/host/EmuHostRsa.h"

namespace {

using Bytes = std::vector<uint8_t>;

const uint8_t kSha256Prefix[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                 0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
const uint8_t kSha1Prefix[] = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14};

struct TestKey {
  std::string Name;
  EmuRsaPublicKey Public{};
  std::shared_ptr<BIGNUM> N, D;
};

TestKey MakeKey(unsigned Bits, unsigned Exponent) {
  EVP_PKEY_CTX *Context = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
  BIGNUM *E = BN_new();
  BN_set_word(E, Exponent);
  EVP_PKEY *Pkey = nullptr;
  EVP_PKEY_keygen_init(Context);
  EVP_PKEY_CTX_set_rsa_keygen_bits(Context, static_cast<int>(Bits));
  EVP_PKEY_CTX_set1_rsa_keygen_pubexp(Context, E);
  EVP_PKEY_generate(Context, &Pkey);
  TestKey Key{std::to_string(Bits) + "-bit e=" + std::to_string(Exponent)};
  BIGNUM *N = nullptr, *D = nullptr;
  EVP_PKEY_get_bn_param(Pkey, OSSL_PKEY_PARAM_RSA_N, &N);
  EVP_PKEY_get_bn_param(Pkey, OSSL_PKEY_PARAM_RSA_D, &D);
  Key.N.reset(N, BN_free);
  Key.D.reset(D, BN_free);
  Bytes Modulus(static_cast<size_t>(BN_num_bytes(N)));
  BN_bn2bin(N, Modulus.data());
  EXPECT_TRUE(EmuRsaSetPublicKey(Key.Public, Modulus.data(), static_cast<UINT32>(Modulus.size()), Exponent));
  BN_free(E);
  EVP_PKEY_free(Pkey);
  EVP_PKEY_CTX_free(Context);
  return Key;
}

const std::vector<TestKey> &Keys() {
  static const std::vector<TestKey> All = {MakeKey(1024, 3), MakeKey(1028, 65537), MakeKey(2047, 17)};
  return All;
}

Bytes Sha256(const Bytes &Message) {
  Bytes Digest(32);
  unsigned Length = 0;
  EVP_Digest(Message.data(), Message.size(), Digest.data(), &Length, EVP_sha256(), nullptr);
  return Digest;
}

// 00 01 FF..FF 00 Prefix Digest, filling the modulus length.
Bytes Block(const TestKey &Key, const uint8_t *Prefix, size_t PrefixSize, const Bytes &Digest) {
  Bytes Out(Key.Public.ModulusSize, 0xFF);
  Out[0] = 0x00;
  Out[1] = 0x01;
  Out[Out.size() - PrefixSize - Digest.size() - 1] = 0x00;
  Out.erase(Out.end() - static_cast<ptrdiff_t>(PrefixSize + Digest.size()), Out.end());
  Out.insert(Out.end(), Prefix, Prefix + PrefixSize);
  Out.insert(Out.end(), Digest.begin(), Digest.end());
  return Out;
}

// The raw private operation: the signature whose public operation yields Value.
Bytes RaiseToD(const TestKey &Key, const Bytes &Value) {
  BN_CTX *Context = BN_CTX_new();
  BIGNUM *M = BN_bin2bn(Value.data(), static_cast<int>(Value.size()), nullptr);
  BIGNUM *S = BN_new();
  BN_mod_exp(S, M, Key.D.get(), Key.N.get(), Context);
  Bytes Out(Key.Public.ModulusSize);
  BN_bn2binpad(S, Out.data(), static_cast<int>(Out.size()));
  BN_free(M);
  BN_free(S);
  BN_CTX_free(Context);
  return Out;
}

// The PKCS#1 v1.5 signature of Message, its block first changed by Damage.
Bytes Sign(const TestKey &Key, const Bytes &Message, const std::function<void(Bytes &)> &Damage = [](Bytes &) {}) {
  Bytes Em = Block(Key, kSha256Prefix, sizeof(kSha256Prefix), Sha256(Message));
  Damage(Em);
  return RaiseToD(Key, Em);
}

Bytes WithLeadingZero(Bytes Signature) {
  Signature.insert(Signature.begin(), 0x00);
  return Signature;
}

TEST(RsaDifferential, EachRefusalAndTheAcceptanceAgreeWithOpenSsl) {
  const Bytes Message(77, 0xA7);
  const struct {
    const char *Name;
    bool Valid;
    std::function<Bytes(const TestKey &)> Signature;
  } Rows[] = {
      {"well-formed block", true, [&](auto &K) { return Sign(K, Message); }},
      {"block type 02", false, [&](auto &K) { return Sign(K, Message, [](Bytes &E) { E[1] = 0x02; }); }},
      {"SHA-1 DigestInfo", false,
       [&](auto &K) { return RaiseToD(K, Block(K, kSha1Prefix, sizeof(kSha1Prefix), Sha256(Message))); }},
      {"hash last byte flipped", false, [&](auto &K) { return Sign(K, Message, [](Bytes &E) { E.back() ^= 1; }); }},
      {"one byte longer than the modulus", false, [&](auto &K) { return WithLeadingZero(Sign(K, Message)); }},
  };
  for (const TestKey &Key : Keys()) {
    for (const auto &R : Rows) {
      const Bytes S = R.Signature(Key);
      const BOOLEAN Compact = EmuRsaVerifySha256(Key.Public, Message.data(), Message.size(), S.data(), S.size());
      const BOOLEAN Reference = EmuHostRsaVerifySha256(Key.Public, Message.data(), Message.size(), S.data(), S.size());
      EXPECT_EQ(Reference, R.Valid ? TRUE : FALSE) << Key.Name << ": " << R.Name << " (OpenSSL)";
      EXPECT_EQ(Compact, Reference) << Key.Name << ": " << R.Name << " (compact differs from OpenSSL)";
    }
  }
}

}  // namespace
