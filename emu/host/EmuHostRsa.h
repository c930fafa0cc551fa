// OpenSSL's (libcrypto's) RSA-SHA256 PKCS#1 v1.5 verification in the shape of the emulated
// platform's RSA check, so that host tests verify with the reference implementation.
#pragma once
#include "../EmuRsa.h"

BOOLEAN EmuHostRsaVerifySha256(const EmuRsaPublicKey &Key, const UINT8 *Message, UINT64 MessageSize,
                               const UINT8 *Signature, UINT64 SignatureSize);
