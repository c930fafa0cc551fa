#include "Soc.h"

#include "../base/Hardware.h"

namespace {

constexpr UINT32 kKeyMask = 0x0FFF0F00;           // extended family, extended model, base family
constexpr UINT32 kKeyWithModelMask = 0x0FFF0FF0;  // ... and the base model
constexpr UINT32 kKeyModelBits = 0x000000F0;

constexpr UINT32 N = kSocNone;

}  // namespace

// Searched in order: rows whose key names a base model come before the rows of their family.
const SocDescriptor kSocDescriptors[kSocDescriptorCount] = {
    {0x00A70FC0, 0xBC0D0B00, N, 0, 2, 2, 1},     {0x00B40F00, 0xBC0D0300, N, 0, 2, 2, 1},
    {0x00A70F80, 0xBC0D0B00, N, 0, 2, 2, 1},     {0x00A70F00, 0xBC0D0400, N, 0, 2, 2, 1},
    {0x00A60F00, 0xBC0D0300, N, 0, 2, 2, 1},     {0x00A40F00, 0xBC0D0200, N, 0, 2, 2, 1},
    {0x00A20F00, 0xBC0B0500, 0x20, 0, N, 1, 1},  {0x00A50F00, 0xBC0C0140, 0x28, 1, N, 1, 1},
    {0x00A30F00, 0xBC0B0F00, 0x28, 0, N, N, 1},  {0x00A00F00, 0xBC0B0D00, 0x28, 0, N, N, 1},
    {0x00890F00, 0xBC0B0800, N, 1, 1, 2, 1},     {0x00890F80, 0xBC0B0800, N, 1, 1, 2, 1},
    {0x00860F00, 0xBC0C0000, 0x28, 1, N, 1, 1},  {0x00800F00, 0xBC090000, 0x18, 0, N, N, 1},
    {0x00810F00, 0xBC0A0000, 0x1C, 0, N, N, 1},  {0x00810F80, 0xBC0A0000, 0x1C, 0, N, N, 1},
    {0x00820F00, 0xBC0A0100, 0x1C, 0, N, N, 1},  {0x00870F00, 0xBC0B0500, 0x20, 0, N, N, 1},
    {0x00830F00, 0xBC0B0000, 0x20, 0, N, N, 1},  {0x008A0F00, 0xBC0D0900, N, 0, 2, 2, 1},
    {0x00A10F00, 0xBC0D0111, 0x28, 0, N, N, 1},  {0x00AA0F00, 0xBC0D0111, 0x28, 0, N, N, 1},
    {0x00A80F00, 0xBC0D0600, N, 0, 2, 2, 2},     {0x00A90F00, 0xBC0D0600, N, 0, 2, 2, 2},
    {0x00B00F00, 0xBC0E0000, 0x28, 0, N, N, 1},  {0x00B10F00, 0xBC0E0000, 0x28, 0, N, N, 1},
    {0x00B20F00, 0xBC0E0200, N, 0, 2, 2, 1},     {0x00B70F00, 0xBC0E0900, N, 0, 2, 2, 1},
};

const SocInfo kSocInfos[kSocInfoCount] = {
    {0x00870F00, 0x13E10000, 0, 1, 0x10500, 0x10680}, {0x00830F00, 0x13E10000, 3, 1, 0x10500, 0x10680},
    {0x00A20F00, 0x13E10000, 0, 1, 0x10500, 0x10680}, {0x00B00F00, 0x13B10000, 0, 2, 0x10900, 0x10500},
    {0x00B10F00, 0x13B10000, 0, 2, 0x10900, 0x10500}, {0x00B20F00, 0x13B10000, 0, 2, 0x10900, 0x10500},
    {0x00B70F00, 0x13B10000, 0, 2, 0x10900, 0x10500},
};

ProcessorId IdentifyProcessor() {
  UINT32 Eax = Hw::Cpuid(kCpuidExtendedSignatureLeaf, 0).Eax;
  UINT32 ExtendedModel = (Eax >> 16) & 0xF;
  return {Eax, ((Eax >> 20) & 0xFF) + ((Eax >> 8) & 0xF), ExtendedModel, ExtendedModel * 16 + ((Eax >> 4) & 0xF)};
}

bool ReadsOffsetsThroughWideWindow(const ProcessorId &Cpu) {
  return (Cpu.Family == 0x17 && (Cpu.ExtendedModel == 3 || Cpu.ExtendedModel >= 6)) || Cpu.Family == 0x19 ||
         Cpu.Family == 0x1A;
}

bool MapsWideWindowLocations(const ProcessorId &Cpu) {
  return (Cpu.Family == 0x17 && (Cpu.ExtendedModel == 3 || Cpu.ExtendedModel >= 6)) || Cpu.Family == 0x19;
}

BOOLEAN SocMatches(UINT32 Key) { return Key == (IdentifyProcessor().Signature & kKeyMask) ? TRUE : FALSE; }

BOOLEAN FindSocDescriptor(const SocDescriptor **Descriptor) {
  UINT32 Signature = IdentifyProcessor().Signature;
  for (const SocDescriptor &Row : kSocDescriptors) {
    bool Matches = (Row.CpuKey & kKeyModelBits) != 0 ? Row.CpuKey == (Signature & kKeyWithModelMask)
                                                      : Row.CpuKey == (Signature & kKeyMask);
    if (Matches) {
      *Descriptor = &Row;
      return TRUE;
    }
  }
  return FALSE;
}

BOOLEAN FindSocInfo(const SocInfo **Info) {
  for (const SocInfo &Row : kSocInfos) {
    if (SocMatches(Row.CpuKey)) {
      *Info = &Row;
      return TRUE;
    }
  }
  return FALSE;
}

UINT32 SocInfoWord10() {
  const SocInfo *Info = nullptr;
  return FindSocInfo(&Info) ? Info->Word10 : kSocInfoWord10Default;
}

BOOLEAN SocUsesSixteenBitEntryTypes() {
  const SocDescriptor *Descriptor = nullptr;
  return FindSocDescriptor(&Descriptor) && Descriptor->EntryTypeWidth == 2 ? TRUE : FALSE;
}

BOOLEAN EfsGenerationRejected(const UINT8 *Efs) {
  if (Efs[kEfsGenerationOffset] < 0xFF) {
    return FALSE;
  }
  ProcessorId Cpu = IdentifyProcessor();
  return (Cpu.Family == 0x17 && Cpu.Model >= 0x30) || Cpu.Family >= 0x18 ? TRUE : FALSE;
}
