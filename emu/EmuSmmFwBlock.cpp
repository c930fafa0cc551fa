#include "EmuSmmFwBlock.h"

#include "EmuMembers.h"

using namespace emu_members;

namespace {

// Write(This, Address, *Size, Source): programs *Size bytes at the flash address.
EFI_STATUS EFIAPI SmmFwBlockWrite(SmmFwBlockServiceProtocol *This, UINTN Address, UINTN *Size, UINT8 *Source) {
  P().Record("SmmFwBlockWrite", Address, Ptr(Source), Size != nullptr ? *Size : 0, Ptr(This));
  if (Size == nullptr || Source == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  return P().ProgramFlashAt(Address, Source, *Size);
}

// EraseBlocks(This, Address, *Size): erases every sector the range touches.
EFI_STATUS EFIAPI SmmFwBlockEraseBlocks(SmmFwBlockServiceProtocol *This, UINTN Address, UINTN *Size) {
  P().Record("SmmFwBlockEraseBlocks", Address, Size != nullptr ? *Size : 0, Ptr(This));
  if (Size == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  return P().EraseFlashAt(Address, *Size);
}

SmmFwBlockServiceProtocol mEmuSmmFwBlockService = {nullptr, nullptr, SmmFwBlockWrite, SmmFwBlockEraseBlocks};

}  // namespace

SmmFwBlockServiceProtocol *EmuSmmFwBlockService() { return &mEmuSmmFwBlockService; }
