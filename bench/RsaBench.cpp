// RSA-2048 PKCS#1 v1.5 SHA-256 verification of a short message with the build's selector-1
// key: the compact check the emulation driver runs in firmware against OpenSSL's (through the
// same wrapper the host tests install, which builds the public key on each call).
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "emu/EmuRsa.h"
#include "emu/host/EmuHostRsa.h"
#include "tools/lib/ImageSigner.h"
#include "tools/lib/TestSigningKeys.h"

namespace {

struct Fixture {
  EmuRsaPublicKey Key{};
  std::vector<uint8_t> Message = std::vector<uint8_t>(64, 0x42);
  std::vector<uint8_t> Signature;
  bool Ready = false;
};

const Fixture &Signed() {
  static const Fixture Made = [] {
    Fixture F;
    std::string Error;
    const std::string Pem = TestSigningKeyPath(TestSigningKey::Selector1);
    F.Ready = RsaPublicKeyFromPem(Pem, F.Key, Error) && RsaSignSha256(F.Message, Pem, F.Signature, Error);
    return F;
  }();
  return Made;
}

template <EMU_RSA_VERIFY Check> void Verify(benchmark::State &State) {
  const Fixture &F = Signed();
  if (!F.Ready) {
    State.SkipWithError("build's test key missing");
    return;
  }
  for (auto _ : State) {
    BOOLEAN Good = Check(F.Key, F.Message.data(), F.Message.size(), F.Signature.data(), F.Signature.size());
    benchmark::DoNotOptimize(Good);
  }
}

void RsaVerifyCompact(benchmark::State &State) { Verify<EmuRsaVerifySha256>(State); }
void RsaVerifyOpenSsl(benchmark::State &State) { Verify<EmuHostRsaVerifySha256>(State); }

}  // namespace

BENCHMARK(RsaVerifyCompact)->Unit(benchmark::kMicrosecond);
BENCHMARK(RsaVerifyOpenSsl)->Unit(benchmark::kMicrosecond);
