// A whole region-tracked update of the reference platform, old image to new, with none, a
// tenth and all of the code sectors changed (IBB1, IBB2, IBB4, OBB and DXE, and with them the
// recovery copies). For each case: sectors erased, bytes programmed, the physical time by the
// chip's timing model, the driver's time on this machine, and the floor: the physical time of
// erasing and programming only the sectors whose content differs between the flash before
// and after, plus reading those sectors once. The ratio to the floor shows what the design
// adds above the physical minimum.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "emu/host/EmuHostMemory.h"
#include "tools/lib/ImageBuilder.h"
#include "tools/lib/NewImageBuilder.h"
#include "tools/lib/TestSigningKeys.h"
#include "tools/lib/UpdateRunner.h"

namespace {

constexpr size_t kSector = EmuFlashChip::kSectorSize;
constexpr size_t kPage = 256;

struct Floor {
  size_t Sectors = 0;
  size_t Pages = 0;  // pages of those sectors that hold anything but erased bytes
  double Seconds() const {
    return (Sectors * static_cast<double>(EmuFlashChip::kSectorEraseNanoseconds) +
            Pages * static_cast<double>(EmuFlashChip::kPageProgramNanoseconds) +
            Sectors * kSector * static_cast<double>(EmuFlashChip::kReadNanosecondsPerByte)) /
           1e9;
  }
};

Floor FloorBetween(const std::vector<uint8_t> &Before, const UINT8 *After) {
  Floor Result;
  for (size_t Sector = 0; Sector < Before.size(); Sector += kSector) {
    if (std::equal(Before.begin() + Sector, Before.begin() + Sector + kSector, After + Sector)) {
      continue;
    }
    Result.Sectors++;
    for (size_t Page = Sector; Page < Sector + kSector; Page += kPage) {
      Result.Pages += std::any_of(After + Page, After + Page + kPage, [](UINT8 Byte) { return Byte != 0xFF; });
    }
  }
  return Result;
}

// The installed firmware: the reference image as it was signed for its release.
const std::vector<uint8_t> &Installed() {
  static const std::vector<uint8_t> Signed = [] {
    std::vector<uint8_t> Image = DefaultImage();
    std::vector<uint8_t> Signature;
    std::string Error;
    SignWithTestKey(Image, Signature, Error);
    return Image;
  }();
  return Signed;
}

void WholeUpdate(benchmark::State &State) {
  const unsigned Percent = static_cast<unsigned>(State.range(0));
  NewImageOptions Options;
  Options.ChangedRegions = {"IBB1", "IBB2", "IBB4", "OBB", "DXE"};
  Options.ChangedSectorPercent = Percent;
  std::vector<uint8_t> Image = Percent == 0 ? Installed() : BuildNewImage(Options).Bytes;
  std::vector<uint8_t> Signature;
  std::string Error;
  if (!SignWithTestKey(Image, Signature, Error)) {
    State.SkipWithError(Error.c_str());
    return;
  }
  UpdateReport Report;
  Floor Minimum;
  for (auto _ : State) {
    State.PauseTiming();
    std::unique_ptr<EmuPlatform> Platform = MakeInstalledPlatform(Installed());
    State.ResumeTiming();
    Report = RunUpdate(*Platform, Image, Signature);
    State.PauseTiming();
    Minimum = FloorBetween(Installed(), Platform->Flash.Bytes());
    Platform.reset();
    EmuHostMemoryReleaseAll();
    State.ResumeTiming();
  }
  if (!Report.Completed()) {
    State.SkipWithError("the update did not complete");
    return;
  }
  const double Physical = Report.Time.Total() / 1e9;
  State.counters["SectorErases"] = static_cast<double>(Report.Chip.SectorErases);
  State.counters["BytesProgrammed"] = static_cast<double>(Report.Chip.BytesProgrammed);
  State.counters["PhysicalSeconds"] = Physical;
  State.counters["FloorSeconds"] = Minimum.Seconds();
  State.counters["DriverMilliseconds"] = Report.HostTime.count() / 1e6;
  std::printf("UpdateBench %3u%%: %zu sectors differ; %llu erased, %llu bytes programmed; physical %.2f s "
              "(floor %.2f s, ratio %.2f); driver %.0f ms on this machine\n",
              Percent, Minimum.Sectors, static_cast<unsigned long long>(Report.Chip.SectorErases),
              static_cast<unsigned long long>(Report.Chip.BytesProgrammed), Physical, Minimum.Seconds(),
              Minimum.Seconds() > 0 ? Physical / Minimum.Seconds() : 0.0, Report.HostTime.count() / 1e6);
}
BENCHMARK(WholeUpdate)->Arg(0)->Arg(10)->Arg(100)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
