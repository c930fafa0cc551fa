// Writes the reference platform's update image to a file.
// usage: BuildImage OUTPUT [--bios-id XXXXX]
#include <cstdio>
#include <cstring>
#include <fstream>

#include "tools/lib/ImageBuilder.h"

int main(int argc, char **argv) {
  DefaultImageOptions Options;
  const char *Output = nullptr;
  for (int Index = 1; Index < argc; Index++) {
    if (std::strcmp(argv[Index], "--bios-id") == 0 && Index + 1 < argc) {
      const char *Id = argv[++Index];
      if (std::strlen(Id) != kBiosIdLength) {
        std::fprintf(stderr, "BuildImage: a BIOS ID has %zu characters\n", kBiosIdLength);
        return 2;
      }
      std::memcpy(Options.BiosId, Id, kBiosIdLength);
    } else if (Output == nullptr && argv[Index][0] != '-') {
      Output = argv[Index];
    } else {
      Output = nullptr;
      break;
    }
  }
  if (Output == nullptr) {
    std::fprintf(stderr, "usage: BuildImage OUTPUT [--bios-id XXXXX]\n");
    return 2;
  }
  const ImageBuilder Image = BuildDefaultImage(Options);
  std::ofstream File(Output, std::ios::binary);
  File.write(reinterpret_cast<const char *>(Image.Bytes().data()), static_cast<std::streamsize>(Image.Size()));
  if (!File) {
    std::fprintf(stderr, "BuildImage: cannot write %s\n", Output);
    return 1;
  }
  std::printf("%s: %zu bytes\n", Output, Image.Size());
  for (const ImageBuilder::Region &Region : Image.Regions()) {
    std::printf("  %-10s 0x%08llx +0x%x\n", Region.Name.c_str(), static_cast<unsigned long long>(Region.Address),
                Region.Size);
  }
  return 0;
}
