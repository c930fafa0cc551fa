// bios-inspect: what is inside an update image, read with the driver's own parsers.
// usage: bios-inspect FILE [--key KEY.pem] [--signature FILE.sig] [--json]
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/lib/ImageInspector.h"
#include "tools/lib/ImageSigner.h"
#include "tools/lib/TestSigningKeys.h"
#include "tools/lib/ToolSupport.h"

namespace {

constexpr const char *kUsage =
    "usage: bios-inspect FILE [--key KEY.pem] [--signature FILE.sig] [--json]\n"
    "  Lists what the update image FILE holds, found with the driver's own parsers: \"$BID\" and\n"
    "  \"$BVDT\", the flash map, the firmware volumes and their files, the variable stores and\n"
    "  their variables, the PSP and BIOS directory trees, the update regions the driver builds\n"
    "  for the image, and the embedded signatures with whether each verifies against KEY (a PEM\n"
    "  public or private key; default: the build's test key for key selector 1). --signature\n"
    "  also checks a detached signature. --json prints one JSON object instead of text.\n"
    "  FILE must be the 16 MiB image mapped at 0xFF000000.\n"
    "  Exit status: 0 every structure found; 1 something missing or malformed (listed);\n"
    "  2 bad arguments, an unreadable file or key, or a file of the wrong size.\n";

int Fail(const std::string &Message) {
  std::fprintf(stderr, "bios-inspect: %s\n", Message.c_str());
  return 2;
}

}  // namespace

int main(int argc, char **argv) {
  const char *File = nullptr;
  const char *SignatureFile = nullptr;
  bool Json = false;
  InspectOptions Options;
  for (int Index = 1; Index < argc; Index++) {
    const char *Argument = argv[Index];
    const bool HasValue = Index + 1 < argc;
    if (std::strcmp(Argument, "--help") == 0) {
      std::printf("%s", kUsage);
      return 0;
    } else if (std::strcmp(Argument, "--json") == 0) {
      Json = true;
    } else if (std::strcmp(Argument, "--key") == 0 && HasValue) {
      Options.KeyPem = Options.KeyDescription = argv[++Index];
    } else if (std::strcmp(Argument, "--signature") == 0 && HasValue) {
      SignatureFile = argv[++Index];
    } else if (File == nullptr && Argument[0] != '-') {
      File = Argument;
    } else {
      std::fprintf(stderr, "%s", kUsage);
      return Fail(std::string("unexpected argument ") + Argument);
    }
  }
  if (File == nullptr) {
    std::fprintf(stderr, "%s", kUsage);
    return Fail("no image file given");
  }
  std::string Error;
  const std::string Key = Options.KeyPem.empty() ? TestSigningKeyPath(TestSigningKey::Selector1) : Options.KeyPem;
  if (RsaSignatureSize(Key, Error) == 0) {
    return Fail("cannot use the key " + Key + ": " + Error);
  }
  std::vector<uint8_t> Image;
  if (!ReadWholeFile(File, Image)) {
    return Fail(std::string("cannot read ") + File);
  }
  if (SignatureFile != nullptr) {
    std::vector<uint8_t> Signature;
    if (!ReadWholeFile(SignatureFile, Signature)) {
      return Fail(std::string("cannot read ") + SignatureFile);
    }
    Options.DetachedSignature = Signature;
  }
  if (Image.size() != kInspectedImageSize) {
    return Fail(std::string(File) + " is not an image: " + std::to_string(Image.size()) + " bytes, an image is the " +
                std::to_string(kInspectedImageSize) + " bytes mapped at 0xFF000000");
  }
  const ImageInspection Inspection = InspectImage(Image, Options);
  if (Json) {
    std::printf("%s\n", InspectionJson(Inspection).c_str());
  } else {
    std::printf("File: %s\n", File);
    std::fputs(InspectionText(Inspection).c_str(), stdout);
  }
  if (!Inspection.Recognized()) {
    std::fprintf(stderr, "bios-inspect: %s is not a sound image: %s%s\n", File, Inspection.Findings.front().c_str(),
                 Inspection.Findings.size() > 1 ? " (and more, listed above)" : "");
    return 1;
  }
  return 0;
}
