#include "EmuSignatureVerifier.h"

#include "EmuMembers.h"
#include "EmuPlatform.h"

using namespace emu_members;

EFI_STATUS EFIAPI EmuImageSignatureVerify(const VOID *Data, UINT64 DataSize, const VOID *Signature,
                                          UINT64 SignatureSize, UINT32 KeySelector) {
  P().Record("Verify", Ptr(Data), DataSize, SignatureSize, KeySelector);
  if (Data == nullptr || Signature == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  const EmuSignatureKeys &Keys = P().SignatureKeys;
  if (KeySelector >= EmuSignatureKeys::kSelectorCount || Keys.Keys[KeySelector].ModulusSize == 0) {
    return EFI_NOT_FOUND;
  }
  EMU_RSA_VERIFY Check = Keys.Check != nullptr ? Keys.Check : EmuRsaVerifySha256;
  return Check(Keys.Keys[KeySelector], static_cast<const UINT8 *>(Data), DataSize,
               static_cast<const UINT8 *>(Signature), SignatureSize)
             ? EFI_SUCCESS
             : EFI_SECURITY_VIOLATION;
}
