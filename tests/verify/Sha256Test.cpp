// SHA-256: known answers, streaming in arbitrary pieces, agreement with OpenSSL,
// context wiping, exact argument results, and the 4 KiB block helper.
#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "src/base/Globals.h"
#include "src/verify/Sha256.h"

namespace {

using Digest = std::array<UINT8, 32>;

std::string ToHex(const Digest &Value) {
  static const char kDigits[] = "0123456789abcdef";
  std::string Out;
  for (UINT8 Byte : Value) {
    Out += kDigits[Byte >> 4];
    Out += kDigits[Byte & 15];
  }
  return Out;
}

std::string OpenSslHex(const UINT8 *Data, size_t Length) {
  Digest Out{};
  SHA256(Data, Length, Out.data());
  return ToHex(Out);
}

// A context in caller memory, full of stale bytes, with guard bytes on both sides, placed
// at an arbitrary (also odd) offset.
class GuardedContext {
public:
  static constexpr size_t kGuard = 32;
  static constexpr UINT8 kGuardByte = 0x5C;

  explicit GuardedContext(size_t Misalign = 0) : Misalign_(Misalign) {
    std::memset(Storage_, kGuardByte, sizeof(Storage_));
    std::memset(Get(), 0xA5, kSha256ContextSize);
  }
  UINT8 *Get() { return Storage_ + kGuard + Misalign_; }
  Sha256Context *Fields() { return reinterpret_cast<Sha256Context *>(Get()); }
  bool IsAllZero() { return std::all_of(Get(), Get() + kSha256ContextSize, [](UINT8 Byte) { return Byte == 0; }); }
  bool GuardsIntact() const {
    for (size_t Index = 0; Index < sizeof(Storage_); Index++) {
      const bool InContext = Index >= kGuard + Misalign_ && Index < kGuard + Misalign_ + kSha256ContextSize;
      if (!InContext && Storage_[Index] != kGuardByte) {
        return false;
      }
    }
    return true;
  }

private:
  size_t Misalign_;
  alignas(16) UINT8 Storage_[kGuard + 8 + kSha256ContextSize + kGuard];
};

std::string HashInPieces(const UINT8 *Data, size_t Length, size_t Piece) {
  GuardedContext Context;
  Digest Out{};
  EXPECT_TRUE(Sha256Init(Context.Get()));
  for (size_t Offset = 0; Offset < Length; Offset += Piece) {
    EXPECT_TRUE(Sha256Update(Context.Get(), Data + Offset, std::min(Piece, Length - Offset)));
  }
  EXPECT_TRUE(Sha256Final(Context.Get(), Out.data()));
  EXPECT_TRUE(Context.GuardsIntact());
  return ToHex(Out);
}

std::string HashAtOnce(const void *Data, size_t Length) {
  return HashInPieces(static_cast<const UINT8 *>(Data), Length, Length == 0 ? 1 : Length);
}

std::vector<UINT8> RandomBytes(size_t Size, UINT64 Seed) {
  std::mt19937_64 Rng(Seed);
  std::vector<UINT8> Bytes(Size);
  for (auto &Byte : Bytes) {
    Byte = static_cast<UINT8>(Rng());
  }
  return Bytes;
}

TEST(Sha256KnownAnswers, PublishedExamplesAndBlockBoundaryMessages) {
  const struct {
    const char *Name;
    std::string Message;
    const char *DigestHex;
  } kCases[] = {
      {"empty", "", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      // 56 bytes: the 0x80 and the bit count no longer fit, an extra padding block follows.
      {"56 bytes", "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      // Exactly one block of data, padding entirely in a second block.
      {"64 bytes", "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmno",
       "2ff100b36c386c65a1afc462ad53e25479bec9498ed00aa5a04de584bc25301b"},
      {"112 bytes",
       "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu",
       "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
      {"one million a", std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
  };
  for (const auto &Case : kCases) {
    // A non-null pointer for the empty message: the interface refuses a null Data.
    EXPECT_EQ(HashAtOnce(Case.Message.c_str(), Case.Message.size()), Case.DigestHex) << Case.Name;
  }
}

// How the input is cut never changes the digest: every length up to five blocks, at once
// and in pieces of 1, 63, 64 and 65 bytes, and a few longer ones.
TEST(Sha256MatchesOpenSsl, EveryShortLengthInOneCallAndInPieces) {
  const auto Message = RandomBytes(4096, 1);
  std::vector<size_t> Lengths(321);
  std::iota(Lengths.begin(), Lengths.end(), size_t{0});
  Lengths.insert(Lengths.end(), {1000, 4096});
  for (size_t Length : Lengths) {
    const std::string Expected = OpenSslHex(Message.data(), Length);
    ASSERT_EQ(HashAtOnce(Message.data(), Length), Expected) << "length " << Length;
    for (size_t Piece : {1u, 63u, 64u, 65u}) {
      ASSERT_EQ(HashInPieces(Message.data(), Length, Piece), Expected) << "length " << Length << ", pieces " << Piece;
    }
  }
}

TEST(Sha256MatchesOpenSsl, RandomLengthsOffsetsAndSplits) {
  constexpr size_t kMaxLength = 384 * 1024;
  const auto Source = RandomBytes(kMaxLength + 64, 2);
  std::mt19937_64 Rng(0x5A256);

  for (int Trial = 0; Trial < 3000; Trial++) {
    // Half short messages, half spread evenly over the orders of magnitude up to the maximum.
    size_t Length = Rng() % 1025;
    if (Trial % 2 != 0) {
      const double Exponent = std::uniform_real_distribution<double>(0.0, 18.58)(Rng);
      Length = std::min(kMaxLength, static_cast<size_t>(std::exp2(Exponent)));
    }
    const size_t Offset = Rng() % 64;  // data at any alignment
    const UINT8 *Data = Source.data() + Offset;
    SCOPED_TRACE(::testing::Message() << "trial " << Trial << ", length " << Length << ", offset " << Offset);

    GuardedContext Context(Trial % 8);
    Digest Out{};
    ASSERT_TRUE(Sha256Init(Context.Get()));
    // One call, or pieces (zero-length ones included) that top up a partly filled buffer,
    // run through whole blocks and leave a tail.
    for (size_t Done = 0; Done < Length;) {
      const size_t Limits[] = {8, 130, 5000, Length + 1};
      const size_t Limit = Limits[Rng() % 4];
      const size_t Piece = Trial % 3 == 0 ? Length : std::min(Length - Done, size_t(Rng() % Limit));
      ASSERT_TRUE(Sha256Update(Context.Get(), Data + Done, Piece));
      Done += Piece;
    }
    ASSERT_TRUE(Sha256Final(Context.Get(), Out.data()));
    ASSERT_EQ(ToHex(Out), OpenSslHex(Data, Length));
    ASSERT_TRUE(Context.GuardsIntact());
  }
}

// ---- Context lifetime: wiped by the final step on every path ------------------------------

TEST(Sha256Context, FinalWipesTheContextWhetherItSucceedsOrNot) {
  EXPECT_EQ(Sha256GetContextSize(), 112u);
  const auto First = RandomBytes(300, 7);
  const auto Second = RandomBytes(77, 8);
  GuardedContext Context;  // starts out full of stale 0xA5 bytes, reserved tail included
  Digest Out{};
  ASSERT_TRUE(Sha256Init(Context.Get()));
  ASSERT_TRUE(Sha256Update(Context.Get(), First.data(), First.size()));
  ASSERT_TRUE(Sha256Final(Context.Get(), Out.data()));
  EXPECT_TRUE(Context.IsAllZero());

  ASSERT_TRUE(Sha256Init(Context.Get())) << "a wiped context starts a fresh digest";
  ASSERT_TRUE(Sha256Update(Context.Get(), Second.data(), Second.size()));
  ASSERT_TRUE(Sha256Final(Context.Get(), Out.data()));
  EXPECT_EQ(ToHex(Out), OpenSslHex(Second.data(), Second.size()));

  ASSERT_TRUE(Sha256Init(Context.Get()));
  ASSERT_TRUE(Sha256Update(Context.Get(), First.data(), 100));
  EXPECT_FALSE(Sha256Final(Context.Get(), nullptr));
  EXPECT_TRUE(Context.IsAllZero()) << "a null digest still wipes";
  EXPECT_TRUE(Context.GuardsIntact());

  GuardedContext CoreContext;
  ASSERT_EQ(Sha256CoreInit(CoreContext.Fields()), SHA256_SUCCESS);
  EXPECT_EQ(Sha256CoreFinal(CoreContext.Fields(), nullptr), SHA256_ERROR_NULL);
  EXPECT_TRUE(CoreContext.IsAllZero());
}

TEST(Sha256Context, ContextWithBufferIndexOutOfRangeIsRefusedWithoutWritingOutsideIt) {
  const auto Message = RandomBytes(200, 6);
  for (INT32 BadIndex : {64, 65, -1, 0x7FFFFFFF, static_cast<INT32>(0x80000000)}) {
    GuardedContext Context;
    ASSERT_TRUE(Sha256Init(Context.Get()));
    Context.Fields()->BufferIndex = BadIndex;
    EXPECT_EQ(Sha256CoreUpdate(Context.Fields(), Message.data(), 200), SHA256_ERROR_INVALID) << BadIndex;
    EXPECT_FALSE(Sha256Update(Context.Get(), Message.data(), 200)) << BadIndex;
    Digest Out{};
    EXPECT_FALSE(Sha256Final(Context.Get(), Out.data())) << BadIndex;
    EXPECT_EQ(Out, Digest{}) << BadIndex;
    EXPECT_TRUE(Context.IsAllZero()) << BadIndex;
    EXPECT_TRUE(Context.GuardsIntact()) << BadIndex;
  }
}

// ---- Arguments: exact results, and a refused call leaves the digest in progress intact ----

TEST(Sha256Arguments, RefusedCallsOfBothLayersLeaveTheDigestInProgressIntact) {
  const auto Message = RandomBytes(70, 9);
  Digest Out{};
  EXPECT_FALSE(Sha256Init(nullptr));
  EXPECT_FALSE(Sha256Update(nullptr, Message.data(), 0));
  EXPECT_FALSE(Sha256Final(nullptr, Out.data()));
  EXPECT_FALSE(Sha256Final(nullptr, nullptr));
  EXPECT_EQ(Sha256CoreInit(nullptr), -6001);
  EXPECT_EQ(Sha256CoreUpdate(nullptr, Message.data(), 1), -6001);
  EXPECT_EQ(Sha256CoreFinal(nullptr, Out.data()), -6001);
  EXPECT_EQ(Sha256CoreFinal(nullptr, nullptr), -6001);

  GuardedContext Context;
  ASSERT_TRUE(Sha256Init(Context.Get()));
  ASSERT_TRUE(Sha256Update(Context.Get(), Message.data(), 40));
  EXPECT_FALSE(Sha256Update(Context.Get(), nullptr, 5));
  EXPECT_FALSE(Sha256Update(Context.Get(), nullptr, 0)) << "a null Data with length 0 reaches the core";
  EXPECT_EQ(Sha256CoreUpdate(Context.Fields(), nullptr, 8), -6001);
  EXPECT_EQ(Sha256CoreUpdate(Context.Fields(), Message.data(), -1), SHA256_ERROR_INVALID);
  EXPECT_EQ(Sha256CoreUpdate(Context.Fields(), Message.data(), 0), 0);
  EXPECT_EQ(Sha256CoreUpdate(Context.Fields(), Message.data() + 40, 30), 0);
  EXPECT_EQ(Sha256CoreFinal(Context.Fields(), Out.data()), 0);
  EXPECT_EQ(ToHex(Out), OpenSslHex(Message.data(), Message.size()));
}

TEST(Sha256Arguments, ByteCopyAndFillRefuseNullAndIgnoreLengthsBelowOne) {
  const UINT8 Source[4] = {1, 2, 3, 4};
  UINT8 Target[6] = {9, 9, 9, 9, 9, 9};
  EXPECT_EQ(Sha256CopyBytes(nullptr, Source, 4), -6001);
  EXPECT_EQ(Sha256CopyBytes(Target, nullptr, 4), -6001);
  EXPECT_EQ(Sha256CopyBytes(nullptr, Source, 0), -6001);
  EXPECT_EQ(Sha256CopyBytes(Target, Source, -1), 0);
  EXPECT_EQ(Sha256CopyBytes(Target, Source, static_cast<INT32>(0x80000000)), 0);
  EXPECT_EQ(Sha256CopyBytes(Target + 1, Source, 3), 0);
  EXPECT_EQ((std::array<UINT8, 6>{9, 1, 2, 3, 9, 9}), std::to_array(Target));

  EXPECT_EQ(Sha256FillBytes(nullptr, 0, 4), -6001);
  EXPECT_EQ(Sha256FillBytes(nullptr, 0, 0), -6001);
  EXPECT_EQ(Sha256FillBytes(Target, 0, 0), 0);
  EXPECT_EQ(Sha256FillBytes(Target, 0, -5), 0);
  EXPECT_EQ(Sha256FillBytes(Target + 2, 0x7E, 3), 0);
  EXPECT_EQ((std::array<UINT8, 6>{9, 1, 0x7E, 0x7E, 0x7E, 9}), std::to_array(Target));
}

// ---- Sha256OfBlock with a pool that records what it hands out ------------------------------

struct PoolRecord {
  bool Fail = false;
  int Allocations = 0;
  int Frees = 0;
  UINTN LastSize = 0;
  bool FreedMemoryWasZero = true;  // every freed context was zero
};
PoolRecord gPool;

EFI_STATUS EFIAPI RecordingAllocatePool(EFI_MEMORY_TYPE, UINTN Size, VOID **Buffer) {
  if (gPool.Fail) {
    return EFI_OUT_OF_RESOURCES;
  }
  *Buffer = std::malloc(Size);
  std::memset(*Buffer, 0xCC, Size);
  gPool.Allocations++;
  gPool.LastSize = Size;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI RecordingFreePool(VOID *Buffer) {
  const auto *Bytes = static_cast<const UINT8 *>(Buffer);
  gPool.FreedMemoryWasZero &= std::all_of(Bytes, Bytes + gPool.LastSize, [](UINT8 Byte) { return Byte == 0; });
  gPool.Frees++;
  std::free(Buffer);
  return EFI_SUCCESS;
}

class Sha256OfBlockTest : public ::testing::Test {
protected:
  void SetUp() override {
    gPool = PoolRecord{};
    Services_.AllocatePool = RecordingAllocatePool;
    Services_.FreePool = RecordingFreePool;
    Saved_ = gBS;
    gBS = &Services_;
  }
  void TearDown() override { gBS = Saved_; }

  EFI_BOOT_SERVICES Services_{};
  EFI_BOOT_SERVICES *Saved_ = nullptr;
};

TEST_F(Sha256OfBlockTest, HashesExactlyTheFirst4096BytesAndReleasesAWipedContext) {
  const auto Data = RandomBytes(8192, 11);
  Digest Out{};
  ASSERT_TRUE(Sha256OfBlock(Data.data(), Out.data()));
  EXPECT_EQ(ToHex(Out), OpenSslHex(Data.data(), 4096));
  EXPECT_EQ(gPool.Allocations, 1);
  EXPECT_EQ(gPool.LastSize, 112u);
  EXPECT_EQ(gPool.Frees, 1);
  EXPECT_TRUE(gPool.FreedMemoryWasZero);
}

TEST_F(Sha256OfBlockTest, FailuresLeaveTheDigestAsItWasAndReleaseAWipedContext) {
  const auto Data = RandomBytes(4096, 12);
  Digest Out{};
  Out.fill(0x3C);
  const Digest Before = Out;
  EXPECT_FALSE(Sha256OfBlock(Data.data(), nullptr));
  EXPECT_FALSE(Sha256OfBlock(nullptr, Out.data()));
  EXPECT_EQ(Out, Before);
  EXPECT_EQ(gPool.Allocations, 2);
  EXPECT_EQ(gPool.Frees, 2);
  EXPECT_TRUE(gPool.FreedMemoryWasZero);

  gPool.Fail = true;
  EXPECT_FALSE(Sha256OfBlock(Data.data(), Out.data()));
  EXPECT_EQ(Out, Before);
  EXPECT_EQ(gPool.Frees, 2);
  gBS = nullptr;  // before the boot services are known
  EXPECT_FALSE(Sha256OfBlock(Data.data(), Out.data()));
  EXPECT_EQ(Out, Before);
}

}  // namespace
