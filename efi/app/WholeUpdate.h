// The whole update as the update application drives it, in the order the host's update
// runner uses: query, verification, every block in order (with a progress bar), read-back
// and its comparison, the check of the emulated chip against the image, and the completion
// status. Each step's status and the chip's figures end up in the summary.
#pragma once
#include "../../emu/EmuPlatform.h"
#include "../../src/driver/BiosImageInterface.h"
#include "../../src/flash/FlashRecords.h"
#include "../common/RunScenario.h"

struct UpdateSummary {
  EFI_STATUS Query = EFI_NOT_STARTED, Verify = EFI_NOT_STARTED, Write = EFI_NOT_STARTED;
  EFI_STATUS Read = EFI_NOT_STARTED, Completion = EFI_NOT_STARTED;
  BiosImageQueryRecord Record = {};
  UINT32 BlocksAttempted = 0, BlocksWritten = 0, BlocksUnchanged = 0, BlocksFailed = 0;
  BOOLEAN ReadBackEqual = FALSE;
  UINT64 ReadBackFirstDifference = 0;
  BOOLEAN ChipChecked = FALSE, SkipRegionsChecked = FALSE;
  UINT64 ChipDifferences = 0, ChipFirstDifference = 0;  // bytes outside the skip regions
  BOOLEAN Interrupted = FALSE;  // the chip lost power part way
  static constexpr UINTN kMaxProgressCodes = 16;
  UINT32 ProgressCodes[kMaxProgressCodes] = {};  // as the driver logged them during this boot
  UINTN ProgressCodeCount = 0;
  EmuFlashChip::Counters Chip = {};
  EmuFlashChip::Timing Time = {};
  UINT64 ElapsedMicroseconds = 0;
};

struct UpdateImages {
  UINT8 *Image;  // left as it was given (the verification puts back what it blanks)
  UINTN ImageSize;
  UINT8 *Signature;
  UINTN SignatureSize;
  // What the chip started with, which the protected regions keep; nullptr where the driver
  // itself rewrites one of them (a recovery update backs the variables up into one).
  const UINT8 *Installed;
  UINTN InstalledSize;
};

void RunWholeUpdate(BiosImageInterfaceProtocol *Services, EmuPlatform &Platform, const RunScenario &Scenario,
                    const UpdateImages &Images, UpdateSummary &Summary);

void PrintSummary(const UpdateSummary &Summary);
// A region-tracked update resumed after a power cut starts over at the region the kept
// progress code names (at most OBB): TRUE when the first code this boot logged says so.
BOOLEAN ResumedAtKeptRegion(const UpdateSummary &Summary, UINT32 KeptProgressCode);
// The scenario's verdict: a whole update lands and reads back equal; a tampered image is
// refused with nothing erased or programmed.
BOOLEAN UpdatePassed(const RunScenario &Scenario, const UpdateSummary &Summary);
