#include "EmuHostMemory.h"

#include <sys/mman.h>

#include <cstdlib>
#include <utility>
#include <vector>

namespace {
std::vector<std::pair<void *, size_t>> &Mappings() {
  static std::vector<std::pair<void *, size_t>> Blocks;
  return Blocks;
}

VOID *Map(UINTN Size, bool Below4G) {
  size_t Length = (Size + 4095) & ~size_t(4095);
  if (Length == 0) {
    Length = 4096;
  }
  void *Block = mmap(nullptr, Length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | (Below4G ? MAP_32BIT : 0),
                     -1, 0);
  if (Block == MAP_FAILED) {
    return nullptr;
  }
  Mappings().emplace_back(Block, Length);
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
  for (auto &[Block, Length] : Mappings()) {
    munmap(Block, Length);
  }
  Mappings().clear();
}

VOID *EmuHostAllocateBelow4G(UINTN Size) { return Map(Size, true); }
