// Emulated binding of the hardware interface: every access goes to the emulated platform.
// Without a platform, reads float high and writes vanish, as on an empty bus.
#include "../src/base/Hardware.h"
#include "EmuPlatform.h"

namespace Hw {

UINT8 IoRead8(UINT16 Port) {
  EmuPlatform *P = EmuActivePlatform();
  return P == nullptr ? 0xFF : static_cast<UINT8>(P->IoRead(Port, 1));
}
UINT16 IoRead16(UINT16 Port) {
  EmuPlatform *P = EmuActivePlatform();
  return P == nullptr ? 0xFFFF : static_cast<UINT16>(P->IoRead(Port, 2));
}
UINT32 IoRead32(UINT16 Port) {
  EmuPlatform *P = EmuActivePlatform();
  return P == nullptr ? 0xFFFFFFFFu : P->IoRead(Port, 4);
}
void IoWrite8(UINT16 Port, UINT8 Value) {
  if (EmuPlatform *P = EmuActivePlatform()) {
    P->IoWrite(Port, 1, Value);
  }
}
void IoWrite16(UINT16 Port, UINT16 Value) {
  if (EmuPlatform *P = EmuActivePlatform()) {
    P->IoWrite(Port, 2, Value);
  }
}
void IoWrite32(UINT16 Port, UINT32 Value) {
  if (EmuPlatform *P = EmuActivePlatform()) {
    P->IoWrite(Port, 4, Value);
  }
}

CpuidResult Cpuid(UINT32 Leaf, UINT32 SubLeaf) {
  if (EmuPlatform *P = EmuActivePlatform()) {
    for (UINTN Index = 0; Index < P->CpuidCount; Index++) {
      const EmuCpuidEntry &Entry = P->Cpuid[Index];
      if (Entry.Leaf == Leaf && Entry.SubLeaf == SubLeaf) {
        return {Entry.Eax, Entry.Ebx, Entry.Ecx, Entry.Edx};
      }
    }
  }
  return {0, 0, 0, 0};
}

UINT32 CpuidEscape(UINT32 Leaf, UINT32 Ebx, UINT32 Esi) {
  EmuPlatform *P = EmuActivePlatform();
  return P == nullptr ? Esi : P->Soc.AnswerEscape(Leaf, Ebx, Esi);
}

UINT64 IdtBase() {
  EmuPlatform *P = EmuActivePlatform();
  return P == nullptr ? 0 : reinterpret_cast<UINT64>(P->Idt);
}

UINTN ReadFlags() {
  EmuPlatform *P = EmuActivePlatform();
  return P == nullptr ? 0 : P->Flags;
}
void DisableInterrupts() {
  if (EmuPlatform *P = EmuActivePlatform()) {
    P->Flags &= ~kInterruptFlag;
    P->InterruptDisableCount++;
  }
}
void EnableInterrupts() {
  if (EmuPlatform *P = EmuActivePlatform()) {
    P->Flags |= kInterruptFlag;
  }
}

UINT64 ReadTimeStampCounter() {
  EmuPlatform *P = EmuActivePlatform();
  return P == nullptr ? 0 : P->TimeStampCounter;
}
void MicroSecondDelay(UINTN Microseconds) {
  if (EmuPlatform *P = EmuActivePlatform()) {
    P->ElapsedMicroseconds += Microseconds;
    P->TimeStampCounter += P->TscFrequency / 1000000 * Microseconds;
  }
}
UINT64 TscFrequency() {
  EmuPlatform *P = EmuActivePlatform();
  return P == nullptr ? 0 : P->TscFrequency;
}
void SetTscFrequency(UINT64 TicksPerSecond) {
  if (EmuPlatform *P = EmuActivePlatform()) {
    P->TscFrequency = TicksPerSecond;
  }
}

const UINT8 *FlashPointer(UINT64 Address, UINT64 Length) {
  EmuPlatform *P = EmuActivePlatform();
  if (P == nullptr) {
    return nullptr;
  }
  P->Soc.NoteWindowRequest(Address, Length);
  return P->MappedFlash(Address, Length);
}

UINT32 PciExpressRead32(UINT64 Address) {
  EmuPlatform *P = EmuActivePlatform();
  return P == nullptr ? 0xFFFFFFFFu : P->Soc.PciRead(Address);
}
void PciExpressWrite32(UINT64 Address, UINT32 Value) {
  if (EmuPlatform *P = EmuActivePlatform()) {
    P->Soc.PciWrite(Address, Value);
  }
}

void CpuDeadLoop() {
  if (EmuPlatform *P = EmuActivePlatform()) {
    P->DeadLoopCount++;
  }
}

void CpuDeadLoop(void (*Round)(VOID *Context), VOID *Context) {
  CpuDeadLoop();
  Round(Context);
}

}  // namespace Hw
