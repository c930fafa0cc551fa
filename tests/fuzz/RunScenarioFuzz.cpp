// Arbitrary bytes as the scenario file of an OVMF run: the parser reads only the bytes it is
// given (the buffer holds no terminator), keeps at most its capacity of CMOS bytes, and a
// file it accepts parses to the same scenario a second time.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "efi/common/RunScenario.cpp"

namespace {
bool Same(const RunScenario &A, const RunScenario &B) {
  if (A.Recovery != B.Recovery || A.RegionTracked != B.RegionTracked || A.Tampered != B.Tampered ||
      A.Staging != B.Staging || A.PowerCutAt != B.PowerCutAt || A.ExtendedCmosCount != B.ExtendedCmosCount) {
    return false;
  }
  for (UINTN Index = 0; Index < A.ExtendedCmosCount; Index++) {
    if (A.ExtendedCmos[Index].Index != B.ExtendedCmos[Index].Index ||
        A.ExtendedCmos[Index].Value != B.ExtendedCmos[Index].Value) {
      return false;
    }
  }
  return true;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  const std::vector<CHAR8> Text(Data, Data + Size);  // exactly Size bytes, so ASan sees overreads
  RunScenario First, Second;
  UINTN BadLine = 0;
  const BOOLEAN Accepted = ParseRunScenario(Text.data(), Text.size(), First, BadLine);
  if (First.ExtendedCmosCount > RunScenario::kMaxCmosBytes || (!Accepted && BadLine == 0)) {
    abort();
  }
  if (Accepted && (!ParseRunScenario(Text.data(), Text.size(), Second, BadLine) ||
                   !Same(First, Second))) {
    abort();
  }
  return 0;
}
