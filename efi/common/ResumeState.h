// What an interrupted run keeps for the next boot, beside the chip's bytes: the non-volatile
// state the emulated platform would keep on a real board (the update log's progress code and
// both CMOS banks). Written by the update application when the power fails, read by the
// emulation driver on the next boot.
#pragma once
#include "../../src/base/Uefi.h"

#pragma pack(push, 1)
struct ResumeStateFile {
  UINT8 Magic[8];  // kResumeStateMagic
  UINT8 ProgressCodeKept;
  UINT8 Reserved[3];
  UINT32 ProgressCode;
  UINT8 Cmos[128];
  UINT8 ExtendedCmos[256];
};
#pragma pack(pop)
static_assert(offsetof(ResumeStateFile, ProgressCodeKept) == 8);
static_assert(offsetof(ResumeStateFile, ProgressCode) == 12);
static_assert(offsetof(ResumeStateFile, Cmos) == 16);
static_assert(offsetof(ResumeStateFile, ExtendedCmos) == 144);
static_assert(sizeof(ResumeStateFile) == 400);

constexpr UINT8 kResumeStateMagic[8] = {'E', 'M', 'U', 'R', 'E', 'S', 'U', 'M'};
