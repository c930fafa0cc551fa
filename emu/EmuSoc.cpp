#include "EmuSoc.h"

#include "EmuPlatform.h"

namespace {
constexpr UINT32 kExtendedSignatureLeaf = 0x80000001;
constexpr UINT64 kWideWindowBase = 0xFD00000000ull;
constexpr UINT64 kWideWindowSize = 0x04000000ull;
constexpr UINT32 kRecoveryFlagRegister = 0x03810570;
constexpr UINT32 kRecoveryFlagRegisterAlternate = 0x03810970;
constexpr UINT32 kSimulatorEscapeLeaf = 0xBACCD00B;
constexpr UINT32 kSimulatorAnswer = 1;
}  // namespace

void EmuSoc::Select(EmuPlatform &Platform, UINT32 NewSignature) {
  Signature = NewSignature;
  Platform.SetCpuid(kExtendedSignatureLeaf, 0, NewSignature, 0, 0, 0);
}

BOOLEAN EmuSoc::HasWideFlashWindow() const {
  UINT32 F = Family();
  return (F == 0x17 && (ExtendedModel() == 3 || ExtendedModel() >= 6)) || F == 0x19 || F == 0x1A;
}

const UINT8 *EmuSoc::WideWindow(const EmuFlashChip &Flash, UINT64 Address, UINT64 Length) const {
  if (!HasWideFlashWindow() || Address < kWideWindowBase || Address - kWideWindowBase > kWideWindowSize ||
      Length > kWideWindowSize - (Address - kWideWindowBase)) {
    return nullptr;
  }
  UINT64 Offset = Address - kWideWindowBase;
  if (Offset > Flash.Size() || Length > Flash.Size() - Offset) {
    return nullptr;
  }
  return Flash.Bytes() + Offset;
}

void EmuSoc::NoteWindowRequest(UINT64 Address, UINT64 Length) {
  LastWindowAddress = Address;
  LastWindowLength = Length;
  WindowRequests++;
}

void EmuSoc::SetSmn(UINT32 Address, UINT32 Value) {
  for (UINTN Index = 0; Index < SmnCount; Index++) {
    if (Smn[Index].Address == Address) {
      Smn[Index].Value = Value;
      return;
    }
  }
  if (SmnCount < kSmnCapacity) {
    Smn[SmnCount++] = {Address, Value};
  }
}

UINT32 EmuSoc::GetSmn(UINT32 Address) const {
  for (UINTN Index = 0; Index < SmnCount; Index++) {
    if (Smn[Index].Address == Address) {
      return Smn[Index].Value;
    }
  }
  return 0;
}

UINT32 EmuSoc::RecoveryFlagRegister() const {
  UINT32 Key = Signature & 0x0FFF0F00;
  bool Alternate = Key == 0x00B00F00 || Key == 0x00B10F00 || Key == 0x00B20F00 || Key == 0x00B70F00;
  return Alternate ? kRecoveryFlagRegisterAlternate : kRecoveryFlagRegister;
}

void EmuSoc::SetBootedFromRecovery(BOOLEAN Recovery) {
  UINT32 Register = RecoveryFlagRegister();
  UINT32 Value = GetSmn(Register) & ~kRecoveryFlagBit;
  SetSmn(Register, Recovery ? Value | kRecoveryFlagBit : Value);
}

UINT32 EmuSoc::PciRead(UINT64 Address) {
  PciAccesses++;
  if (Address == kPciExpressBase + kSmnIndexRegister) {
    return SmnIndex;
  }
  if (Address == kPciExpressBase + kSmnDataRegister) {
    SmnDataReads++;
    return GetSmn(SmnIndex);
  }
  return 0xFFFFFFFF;  // nothing else of configuration space is emulated
}

void EmuSoc::PciWrite(UINT64 Address, UINT32 Value) {
  PciAccesses++;
  if (Address == kPciExpressBase + kSmnIndexRegister) {
    SmnIndex = Value;
  } else if (Address == kPciExpressBase + kSmnDataRegister) {
    SetSmn(SmnIndex, Value);
  }
}

UINT32 EmuSoc::AnswerEscape(UINT32 Leaf, UINT32 Ebx, UINT32 Esi) {
  if (Leaf != kSimulatorEscapeLeaf) {
    return Esi;
  }
  EscapeCount++;
  LastEscapeEbx = Ebx;
  return AnswersSimulatorEscape ? kSimulatorAnswer : Esi;
}
