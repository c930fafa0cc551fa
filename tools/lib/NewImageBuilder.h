// "The new image": the default image as a later firmware release would differ from it. Chosen
// regions get a share of their 4 KiB sectors changed (inside file payloads, with the file
// checksums made right again), the BIOS ID and the "$BVDT" version family can differ, and the
// recovery copies are taken again. Signature placeholders stay as they are: the signing tool
// fills them.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "ImageBuilder.h"

struct NewImageOptions {
  DefaultImageOptions Base;  // BIOS ID, version family, layout, store header form
  std::vector<std::string> ChangedRegions = {"DXE", "OBB"};
  unsigned ChangedSectorPercent = 10;  // of each chosen region's sectors
  uint32_t Seed = 1;
};

struct NewImage {
  std::vector<uint8_t> Bytes;
  size_t ChangedSectors = 0;  // 4 KiB sectors that differ from the unchanged build, copies included
};

// Throws std::invalid_argument for a region name the default image does not have.
NewImage BuildNewImage(const NewImageOptions &Options = {});
