// Arbitrary bytes over a PSP/BIOS directory tree in an emulated flash: every lookup must
// end and stay inside its buffers and the flash windows, whatever the directories say.
// Input: byte 0 picks a tree shape (and its SoC), byte 1 the switches, and the rest is
// XORed onto the flash from the EFS on, so that an empty input is a sound tree.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "emu/EmuPlatform.h"
#include "emu/host/EmuHostMemory.h"
#include "src/base/Globals.h"
#include "src/driver/Config.h"
#include "src/driver/LibraryList.h"
#include "src/psp/PspDirectory.h"
#include "src/psp/PspState.h"
#include "tests/fuzz/FuzzBootServices.h"
#include "tools/lib/PspImageBuilder.h"

namespace {

constexpr uint32_t kChipSize = 0x200000;  // 2 MiB keeps each input cheap
constexpr uint32_t kEfsOffset = 0x20000;
constexpr uint32_t kTreeOffset = 0x21000;
constexpr uint32_t kTreeEnd = kTreeOffset + 0x40000;

struct Shape {
  uint32_t Signature;
  PspImage::TreeShape Tree;
  uint32_t PspId;
  bool SixteenBit;
};

// SoCs whose flash offsets go through the 64 MiB window, which maps the small chip from 0.
const Shape kShapes[] = {
    {0x00A00F10, PspImage::TreeShape::Plain, 0xBC0B0D00, false},
    {0x00A00F10, PspImage::TreeShape::PlainLevel2, 0xBC0B0D00, false},
    {0x00A50F00, PspImage::TreeShape::Combo, 0xBC0C0140, false},
    {0x00A00F10, PspImage::TreeShape::AbPair, 0xBC0B0D00, false},
    {0x00890F00, PspImage::TreeShape::AbKind1, 0xBC0B0800, false},
    {0x00A70F41, PspImage::TreeShape::AbKind2, 0xBC0D0400, false},
    {0x00A80F00, PspImage::TreeShape::AbKind2, 0xBC0D0600, true},
};
constexpr size_t kShapeCount = sizeof(kShapes) / sizeof(kShapes[0]);

struct World {
  EmuPlatform *Platform = nullptr;
  EFI_BOOT_SERVICES BootServices = {};
  std::vector<uint8_t> Baseline[kShapeCount];
};

World &TheWorld() {
  static World *Instance = [] {
    auto *W = new World;
    W->Platform = new EmuPlatform;
    if (!W->Platform->Initialize(EmuHostMemory(), EmuLayout{0, 0, kChipSize, 0x1000})) {
      std::abort();
    }
    W->BootServices = FuzzBootServices();
    for (size_t Index = 0; Index < kShapeCount; Index++) {
      PspImage::PspTreeOptions Options;
      Options.Shape = kShapes[Index].Tree;
      Options.PspId = kShapes[Index].PspId;
      Options.SixteenBitTypes = kShapes[Index].SixteenBit;
      Options.LocationsAsOffsets = true;
      Options.SourceMode = static_cast<PspImage::AddressMode>(Index % 4);
      Options.EfsOffset = kEfsOffset;
      Options.TreeOffset = kTreeOffset;
      W->Baseline[Index].assign(kTreeEnd, 0xFF);
      PspImage::BuildPspTree(Options).Builder.ApplyTo(W->Baseline[Index]);
    }
    return W;
  }();
  return *Instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  World &W = TheWorld();
  gEmuPlatform = W.Platform;
  gBS = &W.BootServices;
  size_t ShapeIndex = Size > 0 ? Data[0] % kShapeCount : kShapeCount - 2;
  uint8_t Switches = Size > 1 ? Data[1] : 0x01;

  EmuPlatform &P = *W.Platform;
  P.Flash.Load(0, W.Baseline[ShapeIndex].data(), kTreeEnd);
  for (size_t Index = 2; Index < Size && kEfsOffset + (Index - 2) < kTreeEnd; Index++) {
    P.Flash.Bytes()[kEfsOffset + Index - 2] ^= Data[Index];
  }
  P.Soc.Select(P, kShapes[ShapeIndex].Signature);
  P.Soc.SetBootedFromRecovery((Switches & 0x04) != 0);
  P.ClearPortLog();
  gConfig.PcdPspDirectorySwitch = Switches & 0x01;
  gConfig.PcdPspRecoverySwitch = (Switches >> 1) & 0x01;
  gConfig.PcdPspRomAddressFixup = (Switches >> 3) & 0x01;
  AmdCfgPcdBufLibDxeConstructor(nullptr, nullptr);

  UINT32 Word = 0, EntrySize = 0;
  UINT64 Source = 0, Destination = 0, Location = 0;
  for (UINT8 Type : {0x60, 0x68, 0x63, 0x70}) {
    GetBiosEntry(Type, -1, -1, &Word, &Source, &EntrySize, &Destination);
  }
  GetBiosEntry(0x60, 1, -1, &Word, &Source, &EntrySize, &Destination);
  GetPspEntry(0x02, &Location, &EntrySize);
  GetPspEntry(0x40, &Location, &EntrySize);
  const UINT8 *Directory = nullptr;
  const AbInfo *Info = nullptr;
  if (GetPspDirectory(&Directory)) {
    BuildAbInfo(Directory, &Info);
  }
  GetBiosDirectory(&Directory);

  ResetPspStateForTest();  // frees the buffer store: the next input is a new boot
  ResetConfigForTest();
  return 0;
}
