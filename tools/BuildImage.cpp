// Writes the reference platform's update image to a file: the image the platform is
// installed with, or with --new the image of a later release (chosen regions changed).
// usage: BuildImage OUTPUT [--bios-id XXXXX] [--family C] [--new [--changed PERCENT]]
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/lib/ImageBuilder.h"
#include "tools/lib/NewImageBuilder.h"
#include "tools/lib/ToolSupport.h"

namespace {

constexpr const char *kUsage =
    "usage: BuildImage OUTPUT [--bios-id XXXXX] [--family C] [--new [--changed PERCENT]]\n"
    "  Writes the reference platform's 16 MiB image to OUTPUT. --new writes the image of a\n"
    "  later release instead: PERCENT (default 10) of the 4 KiB sectors of its DXE and OBB\n"
    "  volumes changed. --family sets the version family in the \"$BVDT\" record. The image\n"
    "  is not signed: see SignImage.\n";

int Usage(const char *Message) {
  std::fprintf(stderr, "BuildImage: %s\n%s", Message, kUsage);
  return 2;
}

}  // namespace

int main(int argc, char **argv) {
  NewImageOptions Options;
  const char *Output = nullptr;
  bool New = false;
  for (int Index = 1; Index < argc; Index++) {
    const char *Argument = argv[Index];
    const bool HasValue = Index + 1 < argc;
    if (std::strcmp(Argument, "--help") == 0) {
      std::printf("%s", kUsage);
      return 0;
    } else if (std::strcmp(Argument, "--bios-id") == 0 && HasValue) {
      const char *Id = argv[++Index];
      if (std::strlen(Id) != kBiosIdLength) {
        return Usage("a BIOS ID has 5 characters");
      }
      std::memcpy(Options.Base.BiosId, Id, kBiosIdLength);
    } else if (std::strcmp(Argument, "--family") == 0 && HasValue) {
      const char *Family = argv[++Index];
      if (std::strlen(Family) != 1) {
        return Usage("a version family is one character");
      }
      Options.Base.VersionFamily = Family[0];
    } else if (std::strcmp(Argument, "--new") == 0) {
      New = true;
    } else if (std::strcmp(Argument, "--changed") == 0 && HasValue) {
      char *End = nullptr;
      const unsigned long Percent = std::strtoul(argv[++Index], &End, 10);
      if (*End != '\0' || Percent > 100) {
        return Usage("--changed takes a percentage from 0 to 100");
      }
      Options.ChangedSectorPercent = static_cast<unsigned>(Percent);
    } else if (Output == nullptr && Argument[0] != '-') {
      Output = Argument;
    } else {
      return Usage((std::string("unexpected argument ") + Argument).c_str());
    }
  }
  if (Output == nullptr) {
    return Usage("no output file");
  }
  const ImageBuilder Image = BuildDefaultImage(Options.Base);
  const std::vector<uint8_t> Bytes = New ? BuildNewImage(Options).Bytes : Image.Bytes();
  if (!WriteWholeFile(Output, Bytes)) {
    std::fprintf(stderr, "BuildImage: cannot write %s\n", Output);
    return 1;
  }
  std::printf("%s: %zu bytes%s\n", Output, Bytes.size(), New ? " (new release)" : "");
  for (const ImageBuilder::Region &Region : Image.Regions()) {
    std::printf("  %-12s 0x%08llx +0x%x\n", Region.Name.c_str(), static_cast<unsigned long long>(Region.Address),
                Region.Size);
  }
  return 0;
}
