// SHA-256 throughput: the driver's implementation against OpenSSL's on 4 KiB (the
// security settings block) and 1 MiB inputs. Sha256OursToOpenSsl times both on the
// same input in alternation and reports the ratio ours/openssl as a counter.
#include <benchmark/benchmark.h>
#include <openssl/sha.h>

#include <chrono>
#include <random>
#include <vector>

#include "src/verify/Sha256.h"

namespace {

std::vector<UINT8> MakeInput(size_t Size) {
  std::mt19937_64 Rng(Size);
  std::vector<UINT8> Bytes(Size);
  for (auto &Byte : Bytes) {
    Byte = static_cast<UINT8>(Rng());
  }
  return Bytes;
}

void HashOurs(const UINT8 *Data, size_t Size, UINT8 *Digest) {
  Sha256Context Context;
  Sha256Init(&Context);
  Sha256Update(&Context, Data, Size);
  Sha256Final(&Context, Digest);
}

void HashOpenSsl(const UINT8 *Data, size_t Size, UINT8 *Digest) { SHA256(Data, Size, Digest); }

template <void (*Hash)(const UINT8 *, size_t, UINT8 *)> void Throughput(benchmark::State &State) {
  const auto Size = static_cast<size_t>(State.range(0));
  const auto Input = MakeInput(Size);
  UINT8 Digest[32];
  for (auto _ : State) {
    Hash(Input.data(), Size, Digest);
    benchmark::DoNotOptimize(Digest);
    benchmark::ClobberMemory();
  }
  State.SetBytesProcessed(static_cast<int64_t>(State.iterations()) * static_cast<int64_t>(Size));
}

void Sha256Ours(benchmark::State &State) { Throughput<HashOurs>(State); }
void Sha256OpenSsl(benchmark::State &State) { Throughput<HashOpenSsl>(State); }

// Each iteration hashes at least 256 KiB with each implementation, one after the other,
// so that both see the same machine conditions.
void Sha256OursToOpenSsl(benchmark::State &State) {
  using Clock = std::chrono::steady_clock;
  const auto Size = static_cast<size_t>(State.range(0));
  const auto Input = MakeInput(Size);
  const size_t Repeats = Size >= (256u << 10) ? 1 : (256u << 10) / Size;
  UINT8 Digest[32];
  double OursSeconds = 0;
  double OpenSslSeconds = 0;
  for (auto _ : State) {
    auto Start = Clock::now();
    for (size_t Index = 0; Index < Repeats; Index++) {
      HashOurs(Input.data(), Size, Digest);
      benchmark::DoNotOptimize(Digest);
    }
    auto Middle = Clock::now();
    for (size_t Index = 0; Index < Repeats; Index++) {
      HashOpenSsl(Input.data(), Size, Digest);
      benchmark::DoNotOptimize(Digest);
    }
    auto End = Clock::now();
    OursSeconds += std::chrono::duration<double>(Middle - Start).count();
    OpenSslSeconds += std::chrono::duration<double>(End - Middle).count();
  }
  const double Bytes = static_cast<double>(State.iterations()) * static_cast<double>(Repeats * Size);
  State.counters["ours_MBps"] = Bytes / OursSeconds / 1e6;
  State.counters["openssl_MBps"] = Bytes / OpenSslSeconds / 1e6;
  State.counters["ours/openssl"] = OpenSslSeconds / OursSeconds;
}

}  // namespace

BENCHMARK(Sha256Ours)->Arg(4 << 10)->Arg(1 << 20);
BENCHMARK(Sha256OpenSsl)->Arg(4 << 10)->Arg(1 << 20);
BENCHMARK(Sha256OursToOpenSsl)->Arg(4 << 10)->Arg(1 << 20);

// bios_bench links the benchmark library without its main; this one is weak so that a
// main defined by another benchmark file of the binary takes its place.
extern "C" __attribute__((weak)) int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
