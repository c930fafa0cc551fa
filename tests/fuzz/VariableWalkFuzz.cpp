// Arbitrary bytes as an NV store volume: header recognition in both forms and the record walk
// must stay inside the bytes given and end; as a backup area, its seal check too.
#include <cstdint>
#include <vector>

#include "src/base/ByteView.h"
#include "src/driver/Config.h"
#include "src/flash/VariableStore.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  std::vector<uint8_t> Volume(Data, Data + Size);  // exactly sized, so reads past it are caught
  Volume.shrink_to_fit();
  const UINT8 *End = Volume.data() + Volume.size();
  UINT64 Sum = 0;
  for (BOOLEAN Vss : {TRUE, FALSE}) {
    gConfig.VssSignatureFormat = Vss;
    if (Size >= GetVariableStoreHeaderSize()) {
      Sum += GetVariableStoreStatus(Volume.data());
    }
    UINTN Headers = 0;
    const UINT8 *Record = Volume.data();
    if (IsNvStoreVolume(ByteView(Volume.data(), Volume.size()), &Headers)) {
      Record += Headers;
    }
    for (; Record != nullptr; Record = GetNextVariableInStore(Record, End)) {
      Sum++;
    }
  }
  Sum += IsVariableBackupSealed(ByteView(Volume.data(), Volume.size()));
  ResetConfigForTest();
  volatile UINT64 Sink = Sum;
  (void)Sink;
  return 0;
}
