#include "Smn.h"

#include "../base/Hardware.h"
#include "PspAssert.h"
#include "PspConfig.h"
#include "PspDebugPrint.h"
#include "Soc.h"

namespace {

// Host bridge configuration registers; an offset outside the configured space is skipped.
UINT32 HostBridgeRead(UINT32 Register) {
  if (Register >= PcieSize()) {
    return 0xFFFFFFFF;
  }
  return Hw::PciExpressRead32(PcieBaseAddress() + Register);
}

void HostBridgeWrite(UINT32 Register, UINT32 Value) {
  if (Register < PcieSize()) {
    Hw::PciExpressWrite32(PcieBaseAddress() + Register, Value);
  }
}

}  // namespace

VOID SmnRead(UINT32 SmnAddress, UINT32 *Value) {
  UINT32 SavedIndex = HostBridgeRead(kSmnIndexRegister);
  HostBridgeWrite(kSmnIndexRegister, SmnAddress);
  *Value = HostBridgeRead(kSmnDataRegister);
  HostBridgeWrite(kSmnIndexRegister, SavedIndex);
}

BOOLEAN PspRecoveryFlag() {
  if (!PspRecoveryFlagEnabled()) {
    return FALSE;
  }
  const SocInfo *Info = nullptr;
  UINT8 Selector = FindSocInfo(&Info) ? Info->RecoveryFlagSelector : 1;
  UINT32 Value = 0;
  SmnRead(Selector == 2 ? kRecoveryFlagRegisterAlternate : kRecoveryFlagRegister, &Value);
  PspDebugPrint(kPspDebugLevelInfo, "RecoveryFlag %x\n", Value);
  if (Value == 0xFFFFFFFF) {
    AssertReport(kAssertRecoveryFlagUnreadable);
  }
  return (Value & kRecoveryFlagBit) != 0 ? TRUE : FALSE;
}
