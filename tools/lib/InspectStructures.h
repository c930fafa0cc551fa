// The inspector's walks over one structure each. Those that read through the flash window
// (flash map, PSP tree) need the emulated platform holding the image and boot services in
// place; the others read the image bytes directly. Findings are appended to Findings.
#pragma once
#include <string>
#include <vector>

#include "ImageInspector.h"

FlashMapInfo InspectFlashMap(std::vector<std::string> &Findings);
std::vector<VolumeInfo> InspectVolumes(const std::vector<uint8_t> &Image, std::vector<std::string> &Findings);
VariableStoreInfo InspectVariableStore(const std::vector<uint8_t> &Image, const std::string &Role, uint64_t Address,
                                       uint64_t Size, bool ErasedIsExpected, std::vector<std::string> &Findings);
PspTreeInfo InspectPspTree(std::vector<std::string> &Findings);
