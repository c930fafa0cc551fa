// The compact RSA check against OpenSSL, one case per way a signature is refused, on keys of
// several sizes and exponents: both must give the expected verdict. Malformed blocks are made
// with the private key (s = block^d mod n), so each fault reaches the block comparison. Moduli
// of 1028 and 2047 bits leave room above the modulus for "signature + modulus". Random blocks
// and lengths are the fuzz harness RsaVerifyFuzz's part.
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <functional>
#include <string>
#include <vector>

#include "emu/EmuRsa.h"
#include "emu/host/EmuHostRsa.h"
#include "tools/lib/ImageSigner.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct TestKey {
  std::string Name;
  std::string Pem;  // private key, PEM text or path
  EmuRsaPublicKey Public{};
  Bytes D;  // private exponent, big-endian
};

const uint8_t kSha256Prefix[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                 0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
const uint8_t kSha1Prefix[] = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14};

Bytes BnBytes(const EVP_PKEY *Key, const char *Name) {
  BIGNUM *Value = nullptr;
  EXPECT_EQ(EVP_PKEY_get_bn_param(Key, Name, &Value), 1);
  Bytes Out(static_cast<size_t>(BN_num_bytes(Value)));
  BN_bn2bin(Value, Out.data());
  BN_free(Value);
  return Out;
}

TestKey MakeKey(const std::string &Name, EVP_PKEY *Key) {
  TestKey Result{Name, "", {}, BnBytes(Key, OSSL_PKEY_PARAM_RSA_D)};
  BIO *Bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PrivateKey(Bio, Key, nullptr, nullptr, 0, nullptr, nullptr);
  char *Text = nullptr;
  const long Length = BIO_get_mem_data(Bio, &Text);
  Result.Pem.assign(Text, static_cast<size_t>(Length));
  BIO_free(Bio);
  std::string Error;
  EXPECT_TRUE(RsaPublicKeyFromPem(Result.Pem, Result.Public, Error)) << Name << ": " << Error;
  return Result;
}

EVP_PKEY *Generate(unsigned Bits, unsigned Exponent) {
  EVP_PKEY_CTX *Context = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
  BIGNUM *E = BN_new();
  BN_set_word(E, Exponent);
  EVP_PKEY *Key = nullptr;
  EVP_PKEY_keygen_init(Context);
  EVP_PKEY_CTX_set_rsa_keygen_bits(Context, static_cast<int>(Bits));
  EVP_PKEY_CTX_set1_rsa_keygen_pubexp(Context, E);
  EVP_PKEY_generate(Context, &Key);
  BN_free(E);
  EVP_PKEY_CTX_free(Context);
  return Key;
}

const std::vector<TestKey> &Keys() {
  static const std::vector<TestKey> All = [] {
    std::vector<TestKey> List;
    const struct {
      unsigned Bits, Exponent;
    } Generated[] = {{1024, 3}, {1028, 65537}, {2047, 17}};
    for (const auto &Spec : Generated) {
      EVP_PKEY *Key = Generate(Spec.Bits, Spec.Exponent);
      List.push_back(MakeKey(std::to_string(Spec.Bits) + "-bit e=" + std::to_string(Spec.Exponent), Key));
      EVP_PKEY_free(Key);
    }
    return List;
  }();
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
  const size_t Tail = PrefixSize + Digest.size();
  Out[Out.size() - Tail - 1] = 0x00;
  std::copy(Prefix, Prefix + PrefixSize, Out.end() - static_cast<ptrdiff_t>(Tail));
  std::copy(Digest.begin(), Digest.end(), Out.end() - static_cast<ptrdiff_t>(Digest.size()));
  return Out;
}

Bytes GoodBlock(const TestKey &Key, const Bytes &Message) {
  return Block(Key, kSha256Prefix, sizeof(kSha256Prefix), Sha256(Message));
}

// The raw private operation: the signature whose public operation yields Value.
Bytes RaiseToD(const TestKey &Key, const Bytes &Value) {
  BN_CTX *Context = BN_CTX_new();
  BIGNUM *N = BN_bin2bn(Key.Public.Modulus, static_cast<int>(Key.Public.ModulusSize), nullptr);
  BIGNUM *D = BN_bin2bn(Key.D.data(), static_cast<int>(Key.D.size()), nullptr);
  BIGNUM *M = BN_bin2bn(Value.data(), static_cast<int>(Value.size()), nullptr);
  BIGNUM *S = BN_new();
  BN_mod_exp(S, M, D, N, Context);
  Bytes Out(Key.Public.ModulusSize);
  BN_bn2binpad(S, Out.data(), static_cast<int>(Out.size()));
  for (BIGNUM *Number : {N, D, M, S}) {
    BN_free(Number);
  }
  BN_CTX_free(Context);
  return Out;
}

Bytes Modulus(const TestKey &Key) { return Bytes(Key.Public.Modulus, Key.Public.Modulus + Key.Public.ModulusSize); }

// Big-endian A + B over A's length (carry out dropped; callers check it fits).
Bytes Add(Bytes A, const Bytes &B) {
  unsigned Carry = 0;
  for (size_t Index = A.size(); Index-- > 0;) {
    const unsigned Sum = A[Index] + B[Index] + Carry;
    A[Index] = static_cast<uint8_t>(Sum);
    Carry = Sum >> 8;
  }
  return Carry == 0 ? A : Bytes(A.size(), 0xFF);
}

struct Case {
  Bytes Message;
  Bytes Signature;
};
using MakeCase = std::function<Case(const TestKey &, const Bytes &Message)>;

Case Forged(const TestKey &Key, const Bytes &Message, const std::function<void(Bytes &)> &Damage) {
  Bytes Em = GoodBlock(Key, Message);
  Damage(Em);
  return {Message, RaiseToD(Key, Em)};
}

Case Signed(const TestKey &Key, const Bytes &Message) {
  Bytes Signature;
  std::string Error;
  EXPECT_TRUE(RsaSignSha256(Message, Key.Pem, Signature, Error)) << Error;
  return {Message, Signature};
}

size_t SeparatorIndex(const TestKey &Key) { return Key.Public.ModulusSize - sizeof(kSha256Prefix) - 32 - 1; }

struct Row {
  std::string Name;
  bool Valid;
  MakeCase Make;
};

std::vector<Row> Rows() {
  return {
      {"OpenSSL signature", true, Signed},
      {"forged well-formed block", true, [](auto &K, auto &M) { return Forged(K, M, [](Bytes &) {}); }},
      {"block type 02", false, [](auto &K, auto &M) { return Forged(K, M, [](Bytes &E) { E[1] = 0x02; }); }},
      {"separator FF", false,
       [](auto &K, auto &M) { return Forged(K, M, [&](Bytes &E) { E[SeparatorIndex(K)] = 0xFF; }); }},
      {"SHA-1 DigestInfo", false,
       [](auto &K, auto &M) { return Case{M, RaiseToD(K, Block(K, kSha1Prefix, sizeof(kSha1Prefix), Sha256(M)))}; }},
      {"DigestInfo byte changed", false,
       [](auto &K, auto &M) { return Forged(K, M, [&](Bytes &E) { E[SeparatorIndex(K) + 5] ^= 0x01; }); }},
      {"hash last byte flipped", false, [](auto &K, auto &M) { return Forged(K, M, [](Bytes &E) { E.back() ^= 1; }); }},
      {"signed for another message", false,
       [](auto &K, auto &M) { return Case{M, Signed(K, Bytes(M.size(), 0)).Signature}; }},
      {"signature one byte longer than the modulus", false,
       [](auto &K, auto &M) {
         Case C = Signed(K, M);
         C.Signature.insert(C.Signature.begin(), 0x00);
         return C;
       }},
      {"signature plus the modulus", false,
       [](auto &K, auto &M) { return Case{M, Add(Signed(K, M).Signature, Modulus(K))}; }},
  };
}

void ExpectAgreement(const TestKey &Key, const Case &C, bool Valid, const std::string &What) {
  const BOOLEAN Compact =
      EmuRsaVerifySha256(Key.Public, C.Message.data(), C.Message.size(), C.Signature.data(), C.Signature.size());
  const BOOLEAN Reference =
      EmuHostRsaVerifySha256(Key.Public, C.Message.data(), C.Message.size(), C.Signature.data(), C.Signature.size());
  EXPECT_EQ(Reference, Valid ? TRUE : FALSE) << Key.Name << ": " << What << " (OpenSSL)";
  EXPECT_EQ(Compact, Reference) << Key.Name << ": " << What << " (compact differs from OpenSSL)";
}

TEST(RsaDifferential, EachRefusalAndTheAcceptanceAgreeWithOpenSsl) {
  const Bytes Message(77, 0xA7);
  const std::vector<Row> Table = Rows();
  for (const TestKey &Key : Keys()) {
    ASSERT_NE(Key.Public.ModulusSize, 0u) << Key.Name;
    for (const Row &R : Table) {
      ExpectAgreement(Key, R.Make(Key, Message), R.Valid, R.Name);
    }
  }
}

}  // namespace
