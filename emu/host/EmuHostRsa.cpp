#include "EmuHostRsa.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <cstring>
#include <memory>

namespace {

template <auto Free> struct Deleter {
  template <typename T> void operator()(T *Object) const { Free(Object); }
};
using BignumPtr = std::unique_ptr<BIGNUM, Deleter<BN_free>>;
using ParamBuildPtr = std::unique_ptr<OSSL_PARAM_BLD, Deleter<OSSL_PARAM_BLD_free>>;
using ParamsPtr = std::unique_ptr<OSSL_PARAM, Deleter<OSSL_PARAM_free>>;
using KeyContextPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using DigestContextPtr = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;

KeyPtr PublicKeyOf(const EmuRsaPublicKey &Key) {
  BignumPtr N(BN_bin2bn(Key.Modulus, static_cast<int>(Key.ModulusSize), nullptr));
  BignumPtr E(BN_new());
  ParamBuildPtr Build(OSSL_PARAM_BLD_new());
  if (!N || !E || !Build || BN_set_word(E.get(), Key.Exponent) != 1 ||
      OSSL_PARAM_BLD_push_BN(Build.get(), OSSL_PKEY_PARAM_RSA_N, N.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(Build.get(), OSSL_PKEY_PARAM_RSA_E, E.get()) != 1) {
    return nullptr;
  }
  ParamsPtr Params(OSSL_PARAM_BLD_to_param(Build.get()));
  KeyContextPtr Context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  EVP_PKEY *Raw = nullptr;
  if (!Params || !Context || EVP_PKEY_fromdata_init(Context.get()) != 1 ||
      EVP_PKEY_fromdata(Context.get(), &Raw, EVP_PKEY_PUBLIC_KEY, Params.get()) != 1) {
    return nullptr;
  }
  return KeyPtr(Raw);
}

}  // namespace

BOOLEAN EmuHostRsaVerifySha256(const EmuRsaPublicKey &Key, const UINT8 *Message, UINT64 MessageSize,
                               const UINT8 *Signature, UINT64 SignatureSize) {
  static const UINT8 kEmpty = 0;
  if (Key.ModulusSize == 0 || Key.ModulusSize > kEmuRsaMaxModulusSize || Signature == nullptr ||
      (Message == nullptr && MessageSize != 0)) {
    return FALSE;
  }
  // The last key used is kept: building an OpenSSL key costs more than the verification.
  static EmuRsaPublicKey CachedKey = {};
  static KeyPtr Cached;
  if (!Cached || CachedKey.ModulusSize != Key.ModulusSize || CachedKey.Exponent != Key.Exponent ||
      std::memcmp(CachedKey.Modulus, Key.Modulus, Key.ModulusSize) != 0) {
    Cached = PublicKeyOf(Key);
    CachedKey = Key;
  }
  DigestContextPtr Context(EVP_MD_CTX_new());
  if (!Cached || !Context || EVP_DigestVerifyInit(Context.get(), nullptr, EVP_sha256(), nullptr, Cached.get()) != 1) {
    return FALSE;
  }
  return EVP_DigestVerify(Context.get(), Signature, SignatureSize, MessageSize == 0 ? &kEmpty : Message,
                          MessageSize) == 1
             ? TRUE
             : FALSE;
}
