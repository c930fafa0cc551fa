// Builds a HOB list as the PEI phase would leave it: the hand-off HOB first, GUID HOBs,
// and the end HOB. The list lives in memory that stays put while the test runs.
#pragma once
#include <cstdint>
#include <vector>

#include "../src/base/PiHob.h"

class SimHobList {
public:
  explicit SimHobList(EFI_BOOT_MODE BootMode = BOOT_WITH_FULL_CONFIGURATION);
  // Appends a GUID HOB; the data is padded to a multiple of 8 bytes. Returns its data's
  // offset so that Data() + offset reaches it once the list is finished.
  size_t AddGuidHob(const EFI_GUID &Guid, const void *Data, size_t Size);
  // Seals the list with the end HOB and returns its address (stable for the object's life).
  VOID *Finish();
  EFI_HOB_HANDOFF_INFO_TABLE *Handoff();
  uint8_t *Data() { return Bytes_.data(); }

private:
  std::vector<uint8_t> Bytes_;
  bool Finished_ = false;
};
