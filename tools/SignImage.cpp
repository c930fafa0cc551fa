// Signs an update image: writes the firmware-volume and flash-map signatures into the image
// and the detached signature beside it.
// usage: SignImage --key KEY.pem --image IN.bin [--out OUT.bin] --signature OUT.sig
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/lib/ImageSigner.h"
#include "tools/lib/ToolSupport.h"

namespace {

constexpr const char *kUsage =
    "usage: SignImage --key KEY.pem --image IN.bin [--out OUT.bin] --signature OUT.sig\n"
    "  Signs IN.bin with the RSA private key KEY.pem (PKCS#1 v1.5, SHA-256): the signed\n"
    "  firmware-volume file and the flash map's signed regions get their embedded signatures,\n"
    "  written to OUT.bin (IN.bin itself when --out is not given); the detached signature of the\n"
    "  whole image, its excluded area read as 0xFF, goes to OUT.sig. A structure the image does\n"
    "  not carry is reported and skipped. Exit status 0 on success, 1 on failure, 2 on bad usage.\n";

int Fail(const std::string &Message, int Status = 1) {
  std::fprintf(stderr, "SignImage: %s\n", Message.c_str());
  return Status;
}

}  // namespace

int main(int argc, char **argv) {
  std::string Key, Input, Output, SignaturePath;
  for (int Index = 1; Index < argc; Index++) {
    const char *Option = argv[Index];
    if (std::strcmp(Option, "--help") == 0 || std::strcmp(Option, "-h") == 0) {
      std::fputs(kUsage, stdout);
      return 0;
    }
    std::string *Target = std::strcmp(Option, "--key") == 0         ? &Key
                          : std::strcmp(Option, "--image") == 0     ? &Input
                          : std::strcmp(Option, "--out") == 0       ? &Output
                          : std::strcmp(Option, "--signature") == 0 ? &SignaturePath
                                                                    : nullptr;
    if (Target == nullptr) {
      return Fail(std::string("unknown argument ") + Option + "\n" + kUsage, 2);
    }
    if (Index + 1 >= argc) {
      return Fail(std::string(Option) + " needs a value", 2);
    }
    *Target = argv[++Index];
  }
  if (Key.empty() || Input.empty() || SignaturePath.empty()) {
    return Fail(std::string("--key, --image and --signature are required\n") + kUsage, 2);
  }
  if (Output.empty()) {
    Output = Input;
  }

  std::vector<uint8_t> Image;
  if (!ReadWholeFile(Input, Image)) {
    return Fail("cannot read the image " + Input);
  }
  std::vector<uint8_t> Detached;
  std::string Error;
  SignImageReport Report;
  if (!SignImage(Image, Key, Detached, Error, &Report)) {
    return Fail(Error);
  }
  if (!WriteWholeFile(Output, Image)) {
    return Fail("cannot write the image " + Output);
  }
  if (!WriteWholeFile(SignaturePath, Detached)) {
    return Fail("cannot write the signature " + SignaturePath);
  }
  std::fputs(Report.Skipped.c_str(), stdout);
  std::printf("%s: %zu bytes, firmware-volume signature %s, flash-map signature %s\n%s: %zu-byte detached signature\n",
              Output.c_str(), Image.size(), Report.FvSignatureWritten ? "written" : "skipped",
              Report.FlashMapSignatureWritten ? "written" : "skipped", SignaturePath.c_str(), Detached.size());
  return 0;
}
