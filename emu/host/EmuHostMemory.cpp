#include "EmuHostMemory.h"

#include <sys/mman.h>

#include <cstring>
#include <vector>

namespace {
struct Mapping {
  void *Block;
  size_t Length;
  bool Below4G;
};

// Mappings in use by the current platform, and released ones kept for the next test: a
// fresh 16 MiB mapping per test costs thousands of page faults, a reused one a memset.
std::vector<Mapping> &Live() {
  static std::vector<Mapping> Blocks;
  return Blocks;
}
std::vector<Mapping> &Spare() {
  static std::vector<Mapping> Blocks;
  return Blocks;
}

VOID *Map(UINTN Size, bool Below4G) {
  size_t Length = ((Size == 0 ? 1 : Size) + 4095) & ~size_t(4095);
  auto &Free = Spare();
  for (auto Candidate = Free.begin(); Candidate != Free.end(); ++Candidate) {
    if (Candidate->Length == Length && Candidate->Below4G == Below4G) {
      Mapping Reused = *Candidate;
      Free.erase(Candidate);
      std::memset(Reused.Block, 0, Reused.Length);  // as fresh anonymous memory would be
      Live().push_back(Reused);
      return Reused.Block;
    }
  }
  // One inaccessible page follows each mapping, so that a read past its end faults at once
  // (the sanitizer does not watch mapped memory).
  void *Block = mmap(nullptr, Length + 4096, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | (Below4G ? MAP_32BIT : 0), -1, 0);
  if (Block == MAP_FAILED) {
    return nullptr;
  }
  mprotect(static_cast<char *>(Block) + Length, 4096, PROT_NONE);
  Live().push_back({Block, Length, Below4G});
  return Block;
}

VOID *Allocate(UINTN Size) { return Map(Size, false); }
VOID *AllocateBelow4G(UINTN Size) { return Map(Size, true); }
}  // namespace

const EmuMemory &EmuHostMemory() {
  static const EmuMemory Memory = {Allocate, AllocateBelow4G};
  return Memory;
}

void EmuHostMemoryReleaseAll() {
  auto &Free = Spare();
  Free.insert(Free.end(), Live().begin(), Live().end());
  Live().clear();
}

VOID *EmuHostAllocateBelow4G(UINTN Size) { return Map(Size, true); }
