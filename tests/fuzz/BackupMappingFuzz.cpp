// Arbitrary images for the backup-area check: the "QFDM" probes and the entry walk stay inside
// the image (as given, and padded to whole 4 KiB steps so that its first bytes are probed).
#include <cstdint>
#include <vector>

#include "src/driver/DriverState.h"
#include "src/flash/VariableStore.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  mFlashBase = 0xFF000000;
  std::vector<uint8_t> Image(Data, Data + Size);
  Image.shrink_to_fit();
  CheckBackupAreaMapping(Image.data(), Image.size());
  const size_t Padded = Size < 0x1000 ? 0x1000 : (Size + 0xFFF) & ~size_t(0xFFF);
  Image.resize(Padded, 0xFF);
  Image.shrink_to_fit();
  CheckBackupAreaMapping(Image.data(), Image.size());
  return 0;
}
