// Compact RSA public-key verification of PKCS#1 v1.5 signatures over SHA-256, for the
// emulation driver inside firmware that offers no crypto service of its own. Freestanding:
// the big numbers live in fixed arrays on the stack, SHA-256 is the driver's own.
#pragma once
#include "../src/base/Uefi.h"

constexpr UINT32 kEmuRsaMinModulusSize = 128;  // bytes: 1024 bits
constexpr UINT32 kEmuRsaMaxModulusSize = 512;  // bytes: 4096 bits

struct EmuRsaPublicKey {
  UINT8 Modulus[kEmuRsaMaxModulusSize];  // big-endian, the first ModulusSize bytes
  UINT32 ModulusSize;                    // bytes; 0 for "no key"
  UINT32 Exponent;                       // public exponent, 65537 typically
};

// Fills Key from a big-endian modulus and the exponent; FALSE (Key emptied) when the size is
// outside 1024..4096 bits, the first byte is zero, or the modulus is even.
BOOLEAN EmuRsaSetPublicKey(EmuRsaPublicKey &Key, const UINT8 *Modulus, UINT32 ModulusSize, UINT32 Exponent);

// TRUE when Signature is the RSASSA-PKCS1-v1_5 SHA-256 signature of Message under Key: the
// length equals the modulus length, the value is below the modulus, and the recovered block
// is exactly 00 01 FF..FF 00 DigestInfo(SHA-256) hash.
BOOLEAN EmuRsaVerifySha256(const EmuRsaPublicKey &Key, const UINT8 *Message, UINT64 MessageSize,
                           const UINT8 *Signature, UINT64 SignatureSize);

// The check a platform uses; host tests may swap in another implementation.
typedef BOOLEAN (*EMU_RSA_VERIFY)(const EmuRsaPublicKey &Key, const UINT8 *Message, UINT64 MessageSize,
                                  const UINT8 *Signature, UINT64 SignatureSize);
