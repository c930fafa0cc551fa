// Firmware binding of the hardware interface: real instructions and identity-mapped
// physical addresses. Linked only into the production driver image.
#include "../Globals.h"
#include "../Hardware.h"

namespace Hw {
namespace {
UINT64 mTscFrequency = 0;
}

UINT8 IoRead8(UINT16 Port) {
  UINT8 Value;
  __asm__ __volatile__("inb %w1, %b0" : "=a"(Value) : "Nd"(Port));
  return Value;
}
UINT16 IoRead16(UINT16 Port) {
  UINT16 Value;
  __asm__ __volatile__("inw %w1, %w0" : "=a"(Value) : "Nd"(Port));
  return Value;
}
UINT32 IoRead32(UINT16 Port) {
  UINT32 Value;
  __asm__ __volatile__("inl %w1, %0" : "=a"(Value) : "Nd"(Port));
  return Value;
}
void IoWrite8(UINT16 Port, UINT8 Value) { __asm__ __volatile__("outb %b0, %w1" : : "a"(Value), "Nd"(Port)); }
void IoWrite16(UINT16 Port, UINT16 Value) { __asm__ __volatile__("outw %w0, %w1" : : "a"(Value), "Nd"(Port)); }
void IoWrite32(UINT16 Port, UINT32 Value) { __asm__ __volatile__("outl %0, %w1" : : "a"(Value), "Nd"(Port)); }

CpuidResult Cpuid(UINT32 Leaf, UINT32 SubLeaf) {
  CpuidResult Result;
  __asm__ __volatile__("cpuid"
                       : "=a"(Result.Eax), "=b"(Result.Ebx), "=c"(Result.Ecx), "=d"(Result.Edx)
                       : "a"(Leaf), "c"(SubLeaf));
  return Result;
}

UINT32 CpuidEscape(UINT32 Leaf, UINT32 Ebx, UINT32 Esi) {
  UINT32 Eax = Leaf, Ecx = 0, Edx;
  __asm__ __volatile__("cpuid" : "+a"(Eax), "+b"(Ebx), "+c"(Ecx), "=d"(Edx), "+S"(Esi));
  return Esi;
}

UINT64 IdtBase() {
  struct __attribute__((packed)) {
    UINT16 Limit;
    UINT64 Base;
  } Register;
  __asm__ __volatile__("sidt %0" : "=m"(Register));
  return Register.Base;
}

UINTN ReadFlags() {
  UINTN Flags;
  __asm__ __volatile__("pushfq; popq %0" : "=r"(Flags));
  return Flags;
}
void DisableInterrupts() { __asm__ __volatile__("cli" ::: "memory"); }
void EnableInterrupts() { __asm__ __volatile__("sti" ::: "memory"); }

UINT64 ReadTimeStampCounter() {
  UINT32 Low, High;
  __asm__ __volatile__("rdtsc" : "=a"(Low), "=d"(High));
  return (static_cast<UINT64>(High) << 32) | Low;
}

UINT64 TscFrequency() {
  if (mTscFrequency == 0 && gBS != nullptr) {
    // Measured once against the firmware's own timer when nobody published it.
    UINT64 Start = ReadTimeStampCounter();
    gBS->Stall(1000);
    mTscFrequency = (ReadTimeStampCounter() - Start) * 1000;
  }
  return mTscFrequency;
}
void SetTscFrequency(UINT64 TicksPerSecond) { mTscFrequency = TicksPerSecond; }

void MicroSecondDelay(UINTN Microseconds) {
  UINT64 Ticks = TscFrequency() / 1000000 * Microseconds;
  UINT64 Start = ReadTimeStampCounter();
  while (ReadTimeStampCounter() - Start < Ticks) {
    __asm__ __volatile__("pause");
  }
}

const UINT8 *FlashPointer(UINT64 Address, UINT64 Length) {
  auto Inside = [&](UINT64 Base, UINT64 Size) {
    return Address >= Base && Address - Base <= Size && Length <= Size - (Address - Base);
  };
  if (Inside(kFlashWindowBase, kFlashWindowSize) || Inside(kWideFlashWindowBase, kWideFlashWindowSize)) {
    return reinterpret_cast<const UINT8 *>(Address);
  }
  return nullptr;
}

UINT32 PciExpressRead32(UINT64 Address) { return *reinterpret_cast<volatile UINT32 *>(Address); }
void PciExpressWrite32(UINT64 Address, UINT32 Value) { *reinterpret_cast<volatile UINT32 *>(Address) = Value; }

void CpuDeadLoop() {
  for (;;) {
    __asm__ __volatile__("cli; hlt");
  }
}

void CpuDeadLoop(void (*Round)(VOID *Context), VOID *Context) {
  for (;;) {
    Round(Context);
  }
}

}  // namespace Hw
