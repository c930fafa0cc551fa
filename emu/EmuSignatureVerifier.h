// The platform's image-signature verifier: member 2 of ImageSignatureVerifyProtocol checks a
// detached RSA-2048/SHA-256 PKCS#1 v1.5 signature under the key a selector names (1, then 0
// in the driver's use). The RSA check is a function pointer so that host tests can compare
// with a reference implementation; it defaults to the compact one that also runs in firmware.
#pragma once
#include "../src/base/PlatformProtocols.h"
#include "../src/base/Uefi.h"
#include "EmuRsa.h"

// Member 2 of the emulated verifier: EFI_SUCCESS for a good signature under the selected key,
// EFI_SECURITY_VIOLATION for a bad one, EFI_INVALID_PARAMETER for a null Data or Signature,
// EFI_NOT_FOUND for a selector that has no key.
EFI_STATUS EFIAPI EmuImageSignatureVerify(const VOID *Data, UINT64 DataSize, const VOID *Signature,
                                          UINT64 SignatureSize, UINT32 KeySelector);

struct EmuSignatureKeys {
  static constexpr UINT32 kSelectorCount = 2;
  ImageSignatureVerifyProtocol Protocol = {nullptr, nullptr, EmuImageSignatureVerify};
  EmuRsaPublicKey Keys[kSelectorCount] = {};  // by selector; ModulusSize 0 means no key
  EMU_RSA_VERIFY Check = EmuRsaVerifySha256;
};
