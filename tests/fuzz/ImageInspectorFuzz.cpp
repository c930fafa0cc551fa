// Arbitrary bytes through the inspector's own walks (firmware volumes and their files, the
// variable store records it lists): they must stay inside the bytes given and end, and
// every file and record they list must lie inside them.
#include <cstdint>
#include <string>
#include <vector>

#include "src/driver/Config.h"
#include "tools/lib/InspectStructures.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  std::vector<uint8_t> Image(Data, Data + Size);  // exactly sized, so reads past it are caught
  Image.shrink_to_fit();
  std::vector<std::string> Findings;
  const uint64_t End = kInspectedFlashBase + Size;
  for (const VolumeInfo &Volume : InspectVolumes(Image, Findings)) {
    for (const FfsFileInfo &File : Volume.Files) {
      if (File.Address < Volume.Address || File.Address + File.Size > End) {
        __builtin_trap();
      }
    }
  }
  const VariableStoreInfo Store = InspectVariableStore(Image, "live", kInspectedFlashBase, Size, true, Findings);
  for (const VariableInfo &Variable : Store.Variables) {
    if (Variable.Address + 60 + Variable.NameSize + Variable.DataSize > End) {
      __builtin_trap();
    }
  }
  ResetConfigForTest();
  return 0;
}
