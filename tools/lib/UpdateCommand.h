// The bios-update command's work, apart from its argument parsing and its terminal: read and
// check the three files, run the whole update over the emulated platform holding the flash
// file, and keep what the summary and the timeline need.
#pragma once
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "UpdateRunner.h"
#include "UpdateTimeline.h"

struct UpdateRequest {
  std::string FlashPath, ImagePath, SignaturePath;
  std::string OutputPath;  // empty: the flash file itself
  bool Recovery = false;    // --mode recovery
  bool Untracked = false;   // --layout untracked
  bool PeiSignCheck = true;  // off with --no-pei-check
  std::optional<uint64_t> PowerCutAt;  // --power-cut N: the Nth erase or program loses power
  bool Resume = false;  // --resume: after the cut, the next boot and the resumed update
};

struct UpdateInputs {
  std::vector<uint8_t> Flash, Image, Signature;
};

// Reads the three files and checks each: present, the platform's image size, an image (it
// carries a flash map), a signature of the signing key's length. False with one message.
bool LoadUpdateInputs(const UpdateRequest &Request, UpdateInputs &Inputs, std::string &Error);

struct UpdateOutcome {
  UpdateReport Report;
  UpdateTimeline Timeline;
  std::vector<uint8_t> FlashAfter;  // what the chip (and the EC store) held at the end
  std::string SetupError;           // the platform could not be made: nothing ran, FlashAfter is empty
  // With --resume after a cut: how the interrupted run ended and how the next boot started;
  // Report and Timeline are then the resumed update's.
  std::string Interruption;
  bool Completed() const;           // every call succeeded, read-back equal, power kept
};

// The whole update as the firmware application runs it: query, verification, every block,
// read-back, SetFlashCompletionStatus(0). Progress is told after each block is written. With
// Request.Resume a run the power cut ends is followed by the next boot (tools/lib/NextBoot.h)
// and the same sequence again, as the application runs it on every boot.
UpdateOutcome RunBiosUpdate(const UpdateRequest &Request, const UpdateInputs &Inputs,
                            const std::function<void(const TimelineCall &, uint32_t Blocks)> &Progress = {});
