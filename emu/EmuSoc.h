// The emulated AMD SoC: the processor signature CPUID 0x80000001 answers, the 64 MiB flash
// window at 0xFD00000000 of the families that have one, the SMN index/data registers behind
// the host bridge's PCI Express configuration (with the PSP's recovery flag), and the
// simulator escape of the assertion reporter. Fixed-capacity state, freestanding code.
#pragma once
#include "../src/base/Uefi.h"

class EmuPlatform;
class EmuFlashChip;

struct EmuSmnRegister {
  UINT32 Address;
  UINT32 Value;
};

// Family 0x19, model 0x74, stepping 1: the SoC of the reference platform.
constexpr UINT32 kEmuDefaultProcessorSignature = 0x00A70F41;

class EmuSoc {
public:
  static constexpr UINTN kSmnCapacity = 32;
  static constexpr UINT64 kPciExpressBase = 0xE0000000ull;
  static constexpr UINT32 kSmnIndexRegister = 0xB8;
  static constexpr UINT32 kSmnDataRegister = 0xBC;
  static constexpr UINT32 kRecoveryFlagBit = 1u << 30;

  // Sets the signature CPUID 0x80000001 answers (any row of the driver's SoC tables).
  void Select(EmuPlatform &Platform, UINT32 Signature);
  UINT32 Signature = 0;
  UINT32 Family() const { return ((Signature >> 20) & 0xFF) + ((Signature >> 8) & 0xF); }
  UINT32 ExtendedModel() const { return (Signature >> 16) & 0xF; }
  BOOLEAN HasWideFlashWindow() const;
  // The chip's bytes behind [Address, Address + Length) of the 64 MiB window: window offset
  // 0 is chip offset 0. nullptr when the SoC has no such window or the range leaves the chip.
  const UINT8 *WideWindow(const EmuFlashChip &Flash, UINT64 Address, UINT64 Length) const;
  // The last range the driver asked the flash windows for, and how many times it asked.
  UINT64 LastWindowAddress = 0;
  UINT64 LastWindowLength = 0;
  UINT64 WindowRequests = 0;
  void NoteWindowRequest(UINT64 Address, UINT64 Length);

  // ---- SMN registers behind bus 0, device 0, function 0 ----------------------------------
  EmuSmnRegister Smn[kSmnCapacity] = {};
  UINTN SmnCount = 0;
  UINT32 SmnIndex = 0;
  UINT32 SmnDataReads = 0;
  UINT32 PciAccesses = 0;
  void SetSmn(UINT32 Address, UINT32 Value);
  UINT32 GetSmn(UINT32 Address) const;  // 0 for a register never written
  // The register the PSP reports its boot copy in: the alternate one on the SoCs whose
  // information row selects it (family 0x1A models 0x00-0x2F and 0x70-0x7F).
  UINT32 RecoveryFlagRegister() const;
  void SetBootedFromRecovery(BOOLEAN Recovery);
  UINT32 PciRead(UINT64 Address);
  void PciWrite(UINT64 Address, UINT32 Value);

  // ---- Simulator escape (CPUID 0xBACCD00B) -----------------------------------------------
  BOOLEAN AnswersSimulatorEscape = TRUE;  // FALSE: behave like silicon, which does not answer
  UINT32 EscapeCount = 0;
  UINT32 LastEscapeEbx = 0;
  UINT32 AnswerEscape(UINT32 Leaf, UINT32 Ebx, UINT32 Esi);
};
