// The four C library routines the compiler may emit calls to in a freestanding
// build (structure copies and clears). Only linked into firmware images.
#include <cstddef>

extern "C" {
void *memcpy(void *Destination, const void *Source, size_t Length) {
  auto *Out = static_cast<unsigned char *>(Destination);
  const auto *In = static_cast<const unsigned char *>(Source);
  while (Length-- != 0) {
    *Out++ = *In++;
  }
  return Destination;
}

void *memmove(void *Destination, const void *Source, size_t Length) {
  auto *Out = static_cast<unsigned char *>(Destination);
  const auto *In = static_cast<const unsigned char *>(Source);
  if (Out < In) {
    while (Length-- != 0) {
      *Out++ = *In++;
    }
  } else {
    while (Length-- != 0) {
      Out[Length] = In[Length];
    }
  }
  return Destination;
}

void *memset(void *Buffer, int Value, size_t Length) {
  auto *Out = static_cast<unsigned char *>(Buffer);
  while (Length-- != 0) {
    *Out++ = static_cast<unsigned char>(Value);
  }
  return Buffer;
}

int memcmp(const void *First, const void *Second, size_t Length) {
  const auto *Left = static_cast<const unsigned char *>(First);
  const auto *Right = static_cast<const unsigned char *>(Second);
  for (size_t Index = 0; Index < Length; Index++) {
    if (Left[Index] != Right[Index]) {
      return Left[Index] - Right[Index];
    }
  }
  return 0;
}
}
