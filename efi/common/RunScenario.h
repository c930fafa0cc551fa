// The scenario of one run inside OVMF, shared by the emulation driver (what the earlier boot
// phase leaves behind) and the update application (which image it flashes and how): a small
// text file on the boot volume, one "key value" pair a line, '#' starting a comment.
//   mode recovery|normal        boot mode in the hand-off HOB
//   layout tracked|untracked    region-tracked configuration flag
//   image new|tampered          which image the application verifies
//   power-cut N                 the chip loses power at its Nth erase or program of the update
//   ext-cmos IDX VAL            extended CMOS byte at start (hex), at most kMaxCmosBytes lines
//   staging 1                   verification is expected to stage the files and reset
#pragma once
#include "../../src/base/Uefi.h"

struct RunScenario {
  static constexpr UINTN kMaxCmosBytes = 8;
  struct CmosByte {
    UINT8 Index;
    UINT8 Value;
  };
  BOOLEAN Recovery = FALSE;
  BOOLEAN RegionTracked = TRUE;
  BOOLEAN Tampered = FALSE;
  BOOLEAN Staging = FALSE;
  UINT64 PowerCutAt = 0;  // 0: the power holds
  CmosByte ExtendedCmos[kMaxCmosBytes] = {};
  UINTN ExtendedCmosCount = 0;
};

// Parses Text (not terminated; Size bytes). FALSE, with the 1-based line number in BadLine,
// when a line is not understood; Scenario keeps what was read before it.
BOOLEAN ParseRunScenario(const CHAR8 *Text, UINTN Size, RunScenario &Scenario, UINTN &BadLine);

// Where the files of a run live on the boot volume.
#define RUN_SCENARIO_PATH "\\scenario.txt"
#define RUN_INSTALLED_IMAGE_PATH "\\installed.bin"
#define RUN_RESUME_DIRECTORY "\\resume"
#define RUN_RESUME_STATE_PATH "\\resume\\state.bin"
#define RUN_RESUME_FLASH_PATH "\\resume\\flash.bin"
