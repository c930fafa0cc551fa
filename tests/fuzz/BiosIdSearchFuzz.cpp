// Arbitrary bytes as the BIOS-ID area read from flash: the "$BID" search must stay inside
// the area whatever it holds, and report only IDs that follow a signature.
#include <cstdint>
#include <cstring>
#include <vector>

#include "src/flash/BiosIdRecord.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  // An exactly sized copy, so that a read past the end is caught.
  std::vector<uint8_t> Area(Data, Data + Size);
  UINT8 Id[kBiosIdLength] = {};
  if (FindBiosId(ByteView(Area.data(), Area.size()), Id)) {
    bool Matched = false;
    for (size_t Offset = 0; Offset + sizeof(BiosIdRecord) <= Area.size(); Offset++) {
      UINT32 Signature;
      std::memcpy(&Signature, Area.data() + Offset, sizeof(Signature));
      Matched |= Signature == kBiosIdSignature && std::memcmp(Area.data() + Offset + 4, Id, kBiosIdLength) == 0;
    }
    if (!Matched) {
      __builtin_trap();
    }
  }
  return 0;
}
