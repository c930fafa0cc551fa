// Arbitrary bytes as the records of a store, selected into a destination of a capacity the
// input chooses: no read outside the store, no write past the capacity.
#include <cstdint>
#include <vector>

#include "src/driver/Config.h"
#include "src/verify/PreservedVariables.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  if (Size < 2) {
    return 0;
  }
  gConfig.PolicyVariablesDropped = (Data[0] & 1) != 0;
  gConfig.VssSignatureFormat = (Data[0] & 2) != 0;
  std::vector<uint8_t> Store(Data + 2, Data + Size);
  Store.shrink_to_fit();
  // Capacity from none to the whole store, in 256ths.
  std::vector<uint8_t> Destination(Store.size() * Data[1] / 255);
  Destination.shrink_to_fit();
  UINT64 Length = 0;
  UINT8 Empty = 0;
  SelectPreservedVariables(Store.empty() ? &Empty : Store.data(), Store.data() + Store.size(),
                           Destination.empty() ? &Empty : Destination.data(), Destination.size(), &Length);
  ResetConfigForTest();
  return 0;
}
