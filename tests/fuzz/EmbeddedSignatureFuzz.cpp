// Arbitrary bytes as an update image: the firmware-volume walk and the flash-map scans of
// the embedded-signature checks must stay inside the image whatever it holds, and hand the
// verifier only ranges that lie inside it (or inside the pieces buffer they built).
#include <cstdint>
#include <vector>

#include "src/base/Globals.h"
#include "src/verify/VerifySignature.h"
#include "tests/fuzz/FuzzBootServices.h"

namespace {

const uint8_t *gImageStart = nullptr;
size_t gImageSize = 0;

bool InsideImage(const void *Data, uint64_t Size) {
  const auto *Bytes = static_cast<const uint8_t *>(Data);
  return Bytes >= gImageStart && Bytes <= gImageStart + gImageSize &&
         Size <= static_cast<uint64_t>(gImageStart + gImageSize - Bytes);
}

EFI_STATUS EFIAPI CheckedVerify(const VOID *Data, UINT64 DataSize, const VOID *Signature, UINT64 SignatureSize,
                                UINT32) {
  // The signature always comes from the image; the data either from it or from a pool buffer.
  if (!InsideImage(Signature, SignatureSize)) {
    __builtin_trap();
  }
  volatile uint8_t Sum = 0;
  for (uint64_t Index = 0; Index < DataSize; Index++) {
    Sum += static_cast<const uint8_t *>(Data)[Index];  // ASan catches a range past its buffer
  }
  return EFI_SECURITY_VIOLATION;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  static EFI_BOOT_SERVICES BootServices = FuzzBootServices();  // no PCD protocol: no installed version tag
  gBS = &BootServices;
  // An exactly sized copy, so that a read past the end is caught.
  std::vector<uint8_t> Image(Data, Data + Size);
  gImageStart = Image.data();
  gImageSize = Image.size();
  ImageSignatureVerifyProtocol Verifier{nullptr, nullptr, CheckedVerify};
  CheckFvSignature(&Verifier, Image.data(), Image.size());
  CheckFlashMapSignature(&Verifier, Image.data(), Image.size());
  IsVersionFamilyChange(Image.data(), Image.size());
  return 0;
}
