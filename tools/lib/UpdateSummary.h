// The summary of one bios-update run, as text for people and as one JSON object for
// machines: the status of every call into the driver (numbers and names), the blocks by
// status and by whether they changed the flash, the chip's counters, the physical time by
// the chip's timing model, the host time, the read-back verdict, the skip regions, where a
// power cut struck, and one result line.
#pragma once
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "UpdateCommand.h"

struct BlockTally {
  uint32_t Written = 0;    // blocks during which the chip erased or programmed
  uint32_t Unchanged = 0;  // blocks that left the flash as it was
  uint32_t NotReached = 0;  // blocks of the query's count never written (the update ended before)
  std::map<EFI_STATUS, uint32_t> ByStatus;
  std::optional<uint32_t> FirstFailedBlock;
  EFI_STATUS FirstFailure = EFI_SUCCESS;
};
BlockTally TallyBlocks(const UpdateOutcome &Outcome);

// "update completed", or why not (refused by a service, power cut, failed blocks, read-back).
std::string UpdateResultLine(const UpdateOutcome &Outcome);

std::string UpdateSummaryJson(const UpdateRequest &Request, const UpdateInputs &Inputs, const UpdateOutcome &Outcome);
std::string UpdateSummaryText(const UpdateRequest &Request, const UpdateInputs &Inputs, const UpdateOutcome &Outcome);
