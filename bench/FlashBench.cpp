// Writing an image through WriteImageRange in 4 KiB ranges, as the update tool's blocks
// reach it, onto the emulated 16 MiB chip holding the reference image. With 10 % of the
// sectors changed, compare-before-write must erase exactly those sectors; the bench checks
// it, and reports the chip's counters and the physical time its timing model gives
// (typical sector-erase and page-program times of a 16 MiB SPI NOR part).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "emu/EmuPlatform.h"
#include "emu/host/EmuHostMemory.h"
#include "src/driver/DriverState.h"
#include "src/flash/FlashAccess.h"
#include "src/flash/FlashState.h"
#include "tools/lib/ImageBuilder.h"

namespace {

constexpr UINT32 kSector = EmuFlashChip::kSectorSize;

// The driver's view of the default platform: its flash service, base and geometry.
struct FlashScene {
  FlashScene() : Platform(std::make_unique<EmuPlatform>()) {
    Platform->Initialize(EmuHostMemory(), kDefaultEmuLayout);
    gEmuPlatform = Platform.get();
    mPlatformFlashService = Platform->FlashService;
    mFlashBase = EmuFlashLayout::kMappedBase;
    Platform->FlashService->GetFlashInfo(&mFlashInfo);
  }
  ~FlashScene() {
    mPlatformFlashService = nullptr;
    mVerifiedImage = nullptr;
    mVerifiedImageSize = 0;
    gEmuPlatform = nullptr;
  }

  // Puts the old image on the chip and makes New the accepted image.
  void Reset(const std::vector<UINT8> &New) {
    LoadImage(*Platform, DefaultImage());
    Platform->Flash.ResetStats();
    Platform->ClearCalls();
    mVerifiedImage = const_cast<UINT8 *>(New.data());
    mVerifiedImageSize = New.size();
  }

  EFI_STATUS WriteAll() {
    EFI_STATUS Last = EFI_SUCCESS;
    for (UINT64 Offset = 0; Offset < mVerifiedImageSize; Offset += kSector) {
      EFI_STATUS Status = WriteImageRange(kSector, Offset, 0);
      if (Status != EFI_SUCCESS) {
        Last = Status;
      }
    }
    return Last;
  }

  std::unique_ptr<EmuPlatform> Platform;
};

// The default image with one byte changed in every tenth sector.
std::vector<UINT8> ImageWithChangedSectors(size_t &Changed) {
  std::vector<UINT8> Image = DefaultImage();
  Changed = 0;
  for (size_t Sector = 3; Sector * kSector < Image.size(); Sector += 10) {
    Image[Sector * kSector + 0x123] ^= 0x5A;
    Changed++;
  }
  return Image;
}

void Report(benchmark::State &State, const EmuPlatform &Platform) {
  const EmuFlashChip::Counters &Stats = Platform.Flash.Stats();
  const EmuFlashChip::Timing &Time = Platform.Flash.Time();
  State.counters["SectorErases"] = static_cast<double>(Stats.SectorErases);
  State.counters["BytesProgrammed"] = static_cast<double>(Stats.BytesProgrammed);
  State.counters["ProgramFaults"] = static_cast<double>(Stats.ProgramFaults);
  State.counters["PhysicalSeconds"] = static_cast<double>(Time.Total()) / 1e9;
}

void WriteImageTenPercentChanged(benchmark::State &State) {
  FlashScene Scene;
  size_t Changed = 0;
  const std::vector<UINT8> Image = ImageWithChangedSectors(Changed);
  for (auto _ : State) {
    State.PauseTiming();
    Scene.Reset(Image);
    State.ResumeTiming();
    benchmark::DoNotOptimize(Scene.WriteAll());
  }
  const EmuFlashChip &Chip = Scene.Platform->Flash;
  const bool Exact = Chip.Stats().SectorErases == Changed && Chip.Stats().ProgramFaults == 0 &&
                     std::equal(Image.begin(), Image.end(), Chip.Bytes());
  static bool Printed = false;  // the library calls the function more than once
  if (!Printed) {
    Printed = true;
    std::printf("FlashBench: %zu of %zu sectors differ; %llu sector erases, %llu bytes programmed, %llu reads; "
              "physical time %.3f s (erase %.3f s, program %.3f s): %s\n",
              Changed, Image.size() / kSector, static_cast<unsigned long long>(Chip.Stats().SectorErases),
              static_cast<unsigned long long>(Chip.Stats().BytesProgrammed),
              static_cast<unsigned long long>(Chip.Stats().Reads), Chip.Time().Total() / 1e9,
              Chip.Time().EraseNanoseconds / 1e9, Chip.Time().ProgramNanoseconds / 1e9,
              Exact ? "exactly the changed sectors were erased" : "MISMATCH");
  }
  if (!Exact) {
    State.SkipWithError("the erased sectors are not exactly the changed ones");
  }
  Report(State, *Scene.Platform);
}
BENCHMARK(WriteImageTenPercentChanged)->Unit(benchmark::kMillisecond);

void WriteImageUnchanged(benchmark::State &State) {
  FlashScene Scene;
  const std::vector<UINT8> &Image = DefaultImage();
  for (auto _ : State) {
    State.PauseTiming();
    Scene.Reset(Image);
    State.ResumeTiming();
    benchmark::DoNotOptimize(Scene.WriteAll());
  }
  if (Scene.Platform->Flash.Stats().SectorErases != 0) {
    State.SkipWithError("an unchanged image erased sectors");
  }
  Report(State, *Scene.Platform);
}
BENCHMARK(WriteImageUnchanged)->Unit(benchmark::kMillisecond);

}  // namespace
