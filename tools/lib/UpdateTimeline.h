// What one update did over time, call by call, on the flash chip's clock (its timing model,
// not this machine's): every call into the driver with the chip's work during it, the update
// region being written, and the debug codes (port 0x80) and progress codes (update log) it
// left. Recorded through UpdateOptions::AfterCall; drawn as an SVG for people.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "UpdateRunner.h"

struct TimelineCall {
  std::string Service;
  uint32_t Block = 0;        // BiosWriteImage only
  uint64_t ImageOffset = 0;  // BiosWriteImage only
  EFI_STATUS Status = EFI_SUCCESS;
  uint64_t Begin = 0, End = 0;  // chip nanoseconds since the update began
  uint64_t EraseNanoseconds = 0, ProgramNanoseconds = 0, ReadNanoseconds = 0;
  uint64_t SectorErases = 0, Programs = 0, BytesProgrammed = 0;
  std::string Region;       // BiosWriteImage: the update region the block belongs to ("" when none)
  bool PowerLost = false;   // the chip lost its power during this call
  bool ChangedFlash() const { return SectorErases != 0 || Programs != 0; }
};

struct TimelineCode {
  uint64_t At;      // chip nanoseconds: the end of the call that emitted it
  uint32_t Code;
  std::string Name;  // progress codes: the region the driver named with it
};

struct UpdateTimeline {
  std::vector<TimelineCall> Calls;
  std::vector<TimelineCode> DebugCodes;     // port 0x80 writes
  std::vector<TimelineCode> ProgressCodes;  // the update log's progress records
  // The call during which the chip lost its power, or nullptr.
  const TimelineCall *PowerCut() const;
  uint64_t Duration() const { return Calls.empty() ? 0 : Calls.back().End; }
};

// Samples the platform after every call. Create it before RunUpdate and hand Record to
// UpdateOptions::AfterCall.
class TimelineRecorder {
public:
  explicit TimelineRecorder(EmuPlatform &Platform);
  // Records Call; false once the chip has lost its power, which ends the update there.
  bool Record(const ServiceCall &Call);
  const UpdateTimeline &Timeline() const { return Timeline_; }

private:
  // The region of a block: in a region-tracked update the one the driver last named in its
  // update log (it names each as it enters it), else the smallest update region holding it.
  std::string RegionOf(uint64_t ImageOffset) const;

  EmuPlatform &Platform_;
  UpdateTimeline Timeline_;
  EmuFlashChip::Counters Stats_ = {};
  EmuFlashChip::Timing Time_ = {};
  UINTN PortLogSeen_ = 0;
  UINTN LogRecordsSeen_ = 0;
  std::string NamedRegion_;
};

// The timeline as a standalone SVG document: lanes for the services, the regions being
// written, erases, programs and reads, the debug and progress codes, and a power cut.
std::string TimelineSvg(const UpdateTimeline &Timeline);
