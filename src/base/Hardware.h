// The one door to hardware. Driver code reaches ports, CPUID, the IDT register, the
// interrupt flag, the time-stamp counter, the memory-mapped flash and PCI Express
// configuration only through these functions. Two bindings exist: the firmware one
// (real instructions, identity-mapped physical addresses) and the emulated platform's.
#pragma once
#include "Uefi.h"

namespace Hw {

UINT8 IoRead8(UINT16 Port);
UINT16 IoRead16(UINT16 Port);
UINT32 IoRead32(UINT16 Port);
void IoWrite8(UINT16 Port, UINT8 Value);
void IoWrite16(UINT16 Port, UINT16 Value);
void IoWrite32(UINT16 Port, UINT32 Value);

struct CpuidResult {
  UINT32 Eax, Ebx, Ecx, Edx;
};
CpuidResult Cpuid(UINT32 Leaf, UINT32 SubLeaf);
// CPUID with EBX and ESI loaded too (ECX 0): the escape a simulator answers in ESI, which a
// real processor leaves as it was. Returns ESI after the instruction.
UINT32 CpuidEscape(UINT32 Leaf, UINT32 Ebx, UINT32 Esi);

// Base address of the interrupt descriptor table (SIDT).
UINT64 IdtBase();

constexpr UINTN kInterruptFlag = 1u << 9;
UINTN ReadFlags();
void DisableInterrupts();
void EnableInterrupts();

UINT64 ReadTimeStampCounter();
// Busy wait on the time-stamp counter.
void MicroSecondDelay(UINTN Microseconds);
// Ticks per second of the time-stamp counter; the timer constructor may set it.
UINT64 TscFrequency();
void SetTscFrequency(UINT64 TicksPerSecond);

// The memory-mapped flash: [Address, Address + Length) inside 0xFF000000..0xFFFFFFFF or the
// 64 MiB window at 0xFD00000000 becomes a pointer; anything outside what exists is nullptr.
constexpr UINT64 kFlashWindowBase = 0xFF000000ull;
constexpr UINT64 kFlashWindowSize = 0x01000000ull;
constexpr UINT64 kWideFlashWindowBase = 0xFD00000000ull;
constexpr UINT64 kWideFlashWindowSize = 0x04000000ull;
const UINT8 *FlashPointer(UINT64 Address, UINT64 Length);

// PCI Express configuration space by ECAM address.
UINT32 PciExpressRead32(UINT64 Address);
void PciExpressWrite32(UINT64 Address, UINT32 Value);

// Stops the processor for good (assertion reports on hardware). The emulated
// binding records the request and returns.
void CpuDeadLoop();
// The same stop, running Round over and over (a fatal-error display); the emulated binding
// records the request, runs Round once and returns.
void CpuDeadLoop(void (*Round)(VOID *Context), VOID *Context);

}  // namespace Hw
