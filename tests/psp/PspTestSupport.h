// The scenario the PSP suites start from: the default emulated platform (16 MiB chip, the
// reference SoC), the buffer store and the assertion reporter on as the libraries leave them.
#pragma once
#include <algorithm>
#include <array>
#include <vector>

#include "../../src/base/Globals.h"
#include "../../src/driver/LibraryList.h"
#include "../../src/psp/PspState.h"
#include "../../src/psp/RomAccess.h"
#include "../../tools/lib/PspImageBuilder.h"
#include "../support/PlatformFixture.h"

// Processor signatures of SoC descriptor rows used by the suites.
constexpr UINT32 kSigRow3Kind2 = 0x00A70F41;       // family 0x19 model 0x74, A/B kind 2 (the default)
constexpr UINT32 kSigRow9Plain = 0x00A00F10;       // family 0x19 model 0x01, BIOS pointer 0x28
constexpr UINT32 kSigRow7Combo = 0x00A50F00;       // family 0x19 model 0x50, combo, BIOS pointer 0x28
constexpr UINT32 kSigRow10Kind1 = 0x00890F00;      // family 0x17 model 0x90, A/B kind 1, combo
constexpr UINT32 kSigRow13Narrow = 0x00800F12;     // family 0x17 model 0x01, BIOS pointer 0x18, 16 MiB window
constexpr UINT32 kSigRow22Sixteen = 0x00A80F00;    // family 0x19 model 0x80, kind 2, 16-bit entry types
constexpr UINT32 kSigFamily1A = 0x00B40F00;        // family 0x1A model 0x40 (row 1)
constexpr UINT32 kSigNoSoc = 0x00600F20;           // family 0x15: no descriptor

// A directory as the driver holds it: in a zeroed buffer of the directory size, cut at its end.
inline std::array<UINT8, kDirectoryBufferSize> HeldDirectory(const std::vector<uint8_t> &Bytes) {
  std::array<UINT8, kDirectoryBufferSize> Out{};
  std::copy_n(Bytes.begin(), std::min(Bytes.size(), Out.size()), Out.begin());
  return Out;
}

// Count ordinary PSP entries (types 0x01 up) and count APCB entries from Source, 4 KiB apart.
inline std::vector<PspImage::PspEntry> Blobs(size_t Count) {
  std::vector<PspImage::PspEntry> Entries;
  for (size_t Index = 0; Index < Count; Index++) {
    Entries.push_back({static_cast<uint32_t>(0x01 + Index % 0x30), 0x100, 0xFFF8C000 + Index * 0x100});
  }
  return Entries;
}
inline std::vector<PspImage::BiosEntry> Apcbs(size_t Count, uint64_t Source) {
  std::vector<PspImage::BiosEntry> Entries;
  for (size_t Index = 0; Index < Count; Index++) {
    Entries.push_back({0x60, 0x1000, Source + Index * 0x1000, 0});
  }
  return Entries;
}

class PspFixture : public PlatformFixture {
protected:
  void SetUp() override {
    gBS = Sim.BootServices();
    gST = Sim.SystemTable();
    AmdCfgPcdBufLibDxeConstructor(Sim.ImageHandle(), Sim.SystemTable());
    Platform->ClearPortLog();
  }

  void SelectSoc(UINT32 Signature) { Platform->Soc.Select(*Platform, Signature); }
  void Place(const PspImage::PspImageBuilder &Builder) { Builder.PlaceInto(*Platform); }
  UINT8 *Chip(UINT32 Offset) { return Platform->Flash.Bytes() + Offset; }

  // A later boot as far as the directory code knows: empty buffer store.
  void ForgetBufferStore() {
    ResetPspStateForTest();
    AmdCfgPcdBufLibDxeConstructor(Sim.ImageHandle(), Sim.SystemTable());
  }

  // Codes the reporter wrote: a 16-bit 0xDEAD to port 0xE0, then the 32-bit code to port 0x80.
  std::vector<UINT32> Assertions() const {
    std::vector<UINT32> Codes;
    for (UINTN Index = 0; Index + 1 < Platform->PortLogCount; Index++) {
      const EmuPortAccess &Marker = Platform->PortLog[Index];
      const EmuPortAccess &Code = Platform->PortLog[Index + 1];
      if (Marker.Write && Marker.Port == 0xE0 && Marker.Width == 2 && Marker.Value == 0xDEAD && Code.Write &&
          Code.Port == 0x80 && Code.Width == 4) {
        Codes.push_back(Code.Value);
      }
    }
    return Codes;
  }
};
