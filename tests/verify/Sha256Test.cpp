// SHA-256: known answers, streaming in arbitrary pieces, agreement with OpenSSL,
// context wiping, exact argument results, and the 4 KiB block helper.
#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "src/base/Globals.h"
#include "src/verify/Sha256.h"

namespace {

using Digest = std::array<UINT8, 32>;

Digest FromHex(const char *Hex) {
  Digest Out{};
  for (size_t Index = 0; Index < Out.size(); Index++) {
    Out[Index] = static_cast<UINT8>(std::stoul(std::string(Hex + 2 * Index, 2), nullptr, 16));
  }
  return Out;
}

std::string ToHex(const Digest &Value) {
  static const char kDigits[] = "0123456789abcdef";
  std::string Out;
  for (UINT8 Byte : Value) {
    Out += kDigits[Byte >> 4];
    Out += kDigits[Byte & 15];
  }
  return Out;
}

Digest OpenSslDigest(const UINT8 *Data, size_t Length) {
  Digest Out{};
  SHA256(Data, Length, Out.data());
  return Out;
}

// A context in caller memory with guard bytes on both sides, placed at an
// arbitrary (also odd) offset.
class GuardedContext {
public:
  static constexpr size_t kGuard = 32;
  static constexpr UINT8 kGuardByte = 0x5C;

  explicit GuardedContext(size_t Misalign = 0) : Misalign_(Misalign) {
    std::memset(Storage_, kGuardByte, sizeof(Storage_));
    std::memset(Get(), 0xA5, kSha256ContextSize);  // stale content from an earlier user
  }
  VOID *Get() { return Storage_ + kGuard + Misalign_; }
  Sha256Context *Fields() { return static_cast<Sha256Context *>(Get()); }
  bool IsAllZero() {
    const auto *Bytes = static_cast<const UINT8 *>(Get());
    for (size_t Index = 0; Index < kSha256ContextSize; Index++) {
      if (Bytes[Index] != 0) {
        return false;
      }
    }
    return true;
  }
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

Digest HashInPieces(const UINT8 *Data, size_t Length, size_t Piece) {
  GuardedContext Context;
  Digest Out{};
  EXPECT_TRUE(Sha256Init(Context.Get()));
  for (size_t Offset = 0; Offset < Length; Offset += Piece) {
    const size_t Size = Length - Offset < Piece ? Length - Offset : Piece;
    EXPECT_TRUE(Sha256Update(Context.Get(), Data + Offset, Size));
  }
  EXPECT_TRUE(Sha256Final(Context.Get(), Out.data()));
  EXPECT_TRUE(Context.GuardsIntact());
  return Out;
}

Digest HashAtOnce(const void *Data, size_t Length) {
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

// ---------------------------------------------------------------------------
// Known answers

struct KnownAnswer {
  const char *Name;
  std::string Message;
  const char *DigestHex;
};

TEST(Sha256KnownAnswers, PublishedExamplesAndBlockBoundaryMessages) {
  const KnownAnswer kCases[] = {
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
  };
  for (const auto &Case : kCases) {
    SCOPED_TRACE(Case.Name);
    const Digest Expected = FromHex(Case.DigestHex);
    // A non-null pointer for the empty message: the interface refuses a null Data.
    EXPECT_EQ(ToHex(HashAtOnce(Case.Message.c_str(), Case.Message.size())), ToHex(Expected));
  }
}

TEST(Sha256KnownAnswers, OneMillionLettersA) {
  const std::string Thousand(1000, 'a');
  GuardedContext Context;
  Digest Out{};
  ASSERT_TRUE(Sha256Init(Context.Get()));
  for (int Index = 0; Index < 1000; Index++) {
    ASSERT_TRUE(Sha256Update(Context.Get(), Thousand.data(), Thousand.size()));
  }
  ASSERT_TRUE(Sha256Final(Context.Get(), Out.data()));
  EXPECT_EQ(ToHex(Out), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

// ---------------------------------------------------------------------------
// Streaming: how the input is cut never changes the digest

TEST(Sha256Streaming, PiecesOfOneSixtyThreeSixtyFourSixtyFiveMatchOneCall) {
  for (size_t Length : {0u, 1u, 55u, 56u, 63u, 64u, 65u, 127u, 128u, 129u, 1000u, 4096u}) {
    const auto Message = RandomBytes(Length, Length + 1);
    const Digest Whole = HashAtOnce(Message.data(), Message.size());
    EXPECT_EQ(ToHex(Whole), ToHex(OpenSslDigest(Message.data(), Message.size()))) << "length " << Length;
    for (size_t Piece : {1u, 63u, 64u, 65u}) {
      EXPECT_EQ(ToHex(HashInPieces(Message.data(), Message.size(), Piece)), ToHex(Whole))
          << "length " << Length << ", pieces of " << Piece;
    }
  }
}

TEST(Sha256Streaming, PartlyFilledBufferFollowedByManyWholeBlocks) {
  // 5 buffered bytes, then a run that first tops the buffer up and then goes
  // straight through whole blocks, leaving a tail; zero-length updates in between.
  const auto Message = RandomBytes(5 + 59 + 640 + 17 + 3, 77);
  GuardedContext Context;
  Digest Out{};
  ASSERT_TRUE(Sha256Init(Context.Get()));
  ASSERT_TRUE(Sha256Update(Context.Get(), Message.data(), 5));
  ASSERT_TRUE(Sha256Update(Context.Get(), Message.data() + 5, 0));
  ASSERT_TRUE(Sha256Update(Context.Get(), Message.data() + 5, 59 + 640 + 17));
  ASSERT_TRUE(Sha256Update(Context.Get(), Message.data() + 721, 0));
  ASSERT_TRUE(Sha256Update(Context.Get(), Message.data() + 721, 3));
  ASSERT_TRUE(Sha256Final(Context.Get(), Out.data()));
  EXPECT_EQ(ToHex(Out), ToHex(OpenSslDigest(Message.data(), Message.size())));
  EXPECT_TRUE(Context.GuardsIntact());
}

// ---------------------------------------------------------------------------
// Agreement with OpenSSL

TEST(Sha256MatchesOpenSsl, EveryLengthUpToFiveBlocksAtOnceAndByteByByte) {
  const auto Message = RandomBytes(320, 1);
  for (size_t Length = 0; Length <= Message.size(); Length++) {
    const Digest Expected = OpenSslDigest(Message.data(), Length);
    ASSERT_EQ(ToHex(HashAtOnce(Message.data(), Length)), ToHex(Expected)) << "length " << Length;
    ASSERT_EQ(ToHex(HashInPieces(Message.data(), Length, 1)), ToHex(Expected)) << "length " << Length;
  }
}

TEST(Sha256MatchesOpenSsl, RandomLengthsOffsetsAndSplits) {
  constexpr size_t kMaxLength = 384 * 1024;
  const auto Source = RandomBytes(kMaxLength + 64, 2);
  std::mt19937_64 Rng(0x5A256);

  for (int Trial = 0; Trial < 3000; Trial++) {
    // Half short messages, half spread evenly over the orders of magnitude up to the maximum.
    size_t Length;
    if (Trial % 2 == 0) {
      Length = Rng() % 1025;
    } else {
      const double Exponent = std::uniform_real_distribution<double>(0.0, 18.58)(Rng);
      Length = static_cast<size_t>(std::exp2(Exponent));
      Length = Length > kMaxLength ? kMaxLength : Length;
    }
    const size_t Offset = Rng() % 64;  // data at any alignment
    const UINT8 *Data = Source.data() + Offset;
    SCOPED_TRACE("trial " + std::to_string(Trial) + ", length " + std::to_string(Length) + ", offset " +
                 std::to_string(Offset));

    GuardedContext Context(Trial % 8);
    Digest Out{};
    ASSERT_TRUE(Sha256Init(Context.Get()));
    if (Trial % 3 == 0) {
      ASSERT_TRUE(Sha256Update(Context.Get(), Data, Length));
    } else {
      size_t Done = 0;
      while (Done < Length) {
        size_t Piece;
        switch (Rng() % 4) {
          case 0: Piece = Rng() % 8; break;
          case 1: Piece = Rng() % 130; break;
          case 2: Piece = Rng() % 5000; break;
          default: Piece = Rng() % (Length + 1); break;
        }
        Piece = Piece > Length - Done ? Length - Done : Piece;
        ASSERT_TRUE(Sha256Update(Context.Get(), Data + Done, Piece));
        Done += Piece;
      }
    }
    ASSERT_TRUE(Sha256Final(Context.Get(), Out.data()));
    ASSERT_EQ(ToHex(Out), ToHex(OpenSslDigest(Data, Length)));
    ASSERT_TRUE(Context.GuardsIntact());
  }
}

// ---------------------------------------------------------------------------
// Context lifetime: size, wiping, reuse

TEST(Sha256Context, CallerProvidesTheReportedSizeAndNothingBeyondItIsTouched) {
  EXPECT_EQ(Sha256GetContextSize(), 112u);
  const auto Message = RandomBytes(1000, 3);
  for (size_t Misalign : {0u, 1u, 3u, 7u}) {
    GuardedContext Context(Misalign);
    Digest Out{};
    ASSERT_TRUE(Sha256Init(Context.Get()));
    ASSERT_TRUE(Sha256Update(Context.Get(), Message.data(), 999));
    ASSERT_TRUE(Sha256Final(Context.Get(), Out.data()));
    EXPECT_EQ(ToHex(Out), ToHex(OpenSslDigest(Message.data(), 999))) << "misaligned by " << Misalign;
    EXPECT_TRUE(Context.GuardsIntact()) << "misaligned by " << Misalign;
  }
}

TEST(Sha256Context, FinalLeavesAllBytesZeroWhenItSucceeds) {
  const auto Message = RandomBytes(100, 4);
  GuardedContext Context;  // starts out full of stale 0xA5 bytes, reserved tail included
  Digest Out{};
  ASSERT_TRUE(Sha256Init(Context.Get()));
  ASSERT_TRUE(Sha256Update(Context.Get(), Message.data(), Message.size()));
  ASSERT_TRUE(Sha256Final(Context.Get(), Out.data()));
  EXPECT_TRUE(Context.IsAllZero());
}

TEST(Sha256Context, FinalWithNullDigestFailsAndStillLeavesAllBytesZero) {
  const auto Message = RandomBytes(100, 5);
  GuardedContext Context;
  ASSERT_TRUE(Sha256Init(Context.Get()));
  ASSERT_TRUE(Sha256Update(Context.Get(), Message.data(), Message.size()));
  EXPECT_FALSE(Sha256Final(Context.Get(), nullptr));
  EXPECT_TRUE(Context.IsAllZero());
  EXPECT_TRUE(Context.GuardsIntact());

  GuardedContext CoreContext;
  ASSERT_EQ(Sha256CoreInit(CoreContext.Fields()), SHA256_SUCCESS);
  EXPECT_EQ(Sha256CoreFinal(CoreContext.Fields(), nullptr), SHA256_ERROR_NULL);
  EXPECT_TRUE(CoreContext.IsAllZero());
}

TEST(Sha256Context, ContextWithBufferIndexOutOfRangeIsRefusedWithoutWritingOutsideIt) {
  const auto Message = RandomBytes(200, 6);
  for (INT32 BadIndex : {64, 65, -1, 0x7FFFFFFF, static_cast<INT32>(0x80000000)}) {
    SCOPED_TRACE(BadIndex);
    GuardedContext Context;
    ASSERT_TRUE(Sha256Init(Context.Get()));
    Context.Fields()->BufferIndex = BadIndex;
    EXPECT_EQ(Sha256CoreUpdate(Context.Fields(), Message.data(), 200), SHA256_ERROR_INVALID);
    EXPECT_FALSE(Sha256Update(Context.Get(), Message.data(), 200));
    Digest Out{};
    Digest Before = Out;
    EXPECT_FALSE(Sha256Final(Context.Get(), Out.data()));
    EXPECT_EQ(Out, Before);
    EXPECT_TRUE(Context.IsAllZero());
    EXPECT_TRUE(Context.GuardsIntact());
  }
}

TEST(Sha256Context, WipedContextCanStartAFreshDigest) {
  const auto First = RandomBytes(300, 7);
  const auto Second = RandomBytes(77, 8);
  GuardedContext Context;
  Digest Out{};
  ASSERT_TRUE(Sha256Init(Context.Get()));
  ASSERT_TRUE(Sha256Update(Context.Get(), First.data(), First.size()));
  ASSERT_TRUE(Sha256Final(Context.Get(), Out.data()));
  ASSERT_TRUE(Sha256Init(Context.Get()));
  ASSERT_TRUE(Sha256Update(Context.Get(), Second.data(), Second.size()));
  ASSERT_TRUE(Sha256Final(Context.Get(), Out.data()));
  EXPECT_EQ(ToHex(Out), ToHex(OpenSslDigest(Second.data(), Second.size())));
}

// ---------------------------------------------------------------------------
// Arguments: exact results, and a refused call leaves the digest in progress intact

TEST(Sha256Arguments, InterfaceRefusesNullPointersWithoutDisturbingTheDigest) {
  const auto Message = RandomBytes(70, 9);
  GuardedContext Context;
  Digest Out{};

  EXPECT_FALSE(Sha256Init(nullptr));
  EXPECT_FALSE(Sha256Update(nullptr, Message.data(), 1));
  EXPECT_FALSE(Sha256Update(nullptr, Message.data(), 0));
  EXPECT_FALSE(Sha256Final(nullptr, Out.data()));
  EXPECT_FALSE(Sha256Final(nullptr, nullptr));

  ASSERT_TRUE(Sha256Init(Context.Get()));
  ASSERT_TRUE(Sha256Update(Context.Get(), Message.data(), 40));
  EXPECT_FALSE(Sha256Update(Context.Get(), nullptr, 5));
  // A null Data with a zero length reaches the core, which refuses it.
  EXPECT_FALSE(Sha256Update(Context.Get(), nullptr, 0));
  ASSERT_TRUE(Sha256Update(Context.Get(), Message.data() + 40, 30));
  ASSERT_TRUE(Sha256Final(Context.Get(), Out.data()));
  EXPECT_EQ(ToHex(Out), ToHex(OpenSslDigest(Message.data(), Message.size())));
}

TEST(Sha256Arguments, CoreReturnsExactCodes) {
  const auto Message = RandomBytes(70, 10);
  GuardedContext Context;
  Digest Out{};

  EXPECT_EQ(SHA256_ERROR_NULL, -6001);
  EXPECT_EQ(Sha256CoreInit(nullptr), -6001);
  EXPECT_EQ(Sha256CoreUpdate(nullptr, Message.data(), 1), -6001);
  EXPECT_EQ(Sha256CoreFinal(nullptr, Out.data()), -6001);
  EXPECT_EQ(Sha256CoreFinal(nullptr, nullptr), -6001);

  ASSERT_EQ(Sha256CoreInit(Context.Fields()), 0);
  EXPECT_EQ(Sha256CoreUpdate(Context.Fields(), nullptr, 0), -6001);
  EXPECT_EQ(Sha256CoreUpdate(Context.Fields(), nullptr, 8), -6001);
  EXPECT_EQ(Sha256CoreUpdate(Context.Fields(), Message.data(), -1), SHA256_ERROR_INVALID);
  EXPECT_EQ(Sha256CoreUpdate(Context.Fields(), Message.data(), 0), 0);
  EXPECT_EQ(Sha256CoreUpdate(Context.Fields(), Message.data(), 70), 0);
  EXPECT_EQ(Sha256CoreFinal(Context.Fields(), Out.data()), 0);
  EXPECT_EQ(ToHex(Out), ToHex(OpenSslDigest(Message.data(), Message.size())));
}

TEST(Sha256Arguments, ByteCopyAndFillRefuseNullAndIgnoreLengthsBelowOne) {
  const UINT8 Source[4] = {1, 2, 3, 4};
  UINT8 Target[6] = {9, 9, 9, 9, 9, 9};

  EXPECT_EQ(Sha256CopyBytes(nullptr, Source, 4), -6001);
  EXPECT_EQ(Sha256CopyBytes(Target, nullptr, 4), -6001);
  EXPECT_EQ(Sha256CopyBytes(nullptr, Source, 0), -6001);
  EXPECT_EQ(Sha256CopyBytes(Target, Source, 0), 0);
  EXPECT_EQ(Sha256CopyBytes(Target, Source, -1), 0);
  EXPECT_EQ(Sha256CopyBytes(Target, Source, static_cast<INT32>(0x80000000)), 0);
  EXPECT_EQ((std::array<UINT8, 6>{9, 9, 9, 9, 9, 9}), std::to_array(Target));
  EXPECT_EQ(Sha256CopyBytes(Target + 1, Source, 3), 0);
  EXPECT_EQ((std::array<UINT8, 6>{9, 1, 2, 3, 9, 9}), std::to_array(Target));

  EXPECT_EQ(Sha256FillBytes(nullptr, 0, 4), -6001);
  EXPECT_EQ(Sha256FillBytes(nullptr, 0, 0), -6001);
  EXPECT_EQ(Sha256FillBytes(Target, 0, 0), 0);
  EXPECT_EQ(Sha256FillBytes(Target, 0, -5), 0);
  EXPECT_EQ((std::array<UINT8, 6>{9, 1, 2, 3, 9, 9}), std::to_array(Target));
  EXPECT_EQ(Sha256FillBytes(Target + 2, 0x7E, 3), 0);
  EXPECT_EQ((std::array<UINT8, 6>{9, 1, 0x7E, 0x7E, 0x7E, 9}), std::to_array(Target));
}

// ---------------------------------------------------------------------------
// Sha256OfBlock with a pool that records what it hands out

struct PoolRecord {
  bool Fail = false;
  int Allocations = 0;
  int Frees = 0;
  UINTN LastSize = 0;
  bool FreedMemoryWasZero = false;
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
  gPool.FreedMemoryWasZero = true;
  for (UINTN Index = 0; Index < gPool.LastSize; Index++) {
    gPool.FreedMemoryWasZero = gPool.FreedMemoryWasZero && Bytes[Index] == 0;
  }
  gPool.Frees++;
  std::free(Buffer);
  return EFI_SUCCESS;
}

class Sha256OfBlockTest : public ::testing::Test {
protected:
  void SetUp() override {
    gPool = PoolRecord{};
    std::memset(&Services_, 0, sizeof(Services_));
    Services_.AllocatePool = RecordingAllocatePool;
    Services_.FreePool = RecordingFreePool;
    Saved_ = gBS;
    gBS = &Services_;
  }
  void TearDown() override { gBS = Saved_; }

  EFI_BOOT_SERVICES Services_;
  EFI_BOOT_SERVICES *Saved_ = nullptr;
};

TEST_F(Sha256OfBlockTest, HashesExactlyTheFirst4096BytesAndReleasesAWipedContext) {
  const auto Data = RandomBytes(8192, 11);
  Digest Out{};
  ASSERT_TRUE(Sha256OfBlock(Data.data(), Out.data()));
  EXPECT_EQ(ToHex(Out), ToHex(OpenSslDigest(Data.data(), 4096)));
  EXPECT_EQ(gPool.Allocations, 1);
  EXPECT_EQ(gPool.LastSize, 112u);
  EXPECT_EQ(gPool.Frees, 1);
  EXPECT_TRUE(gPool.FreedMemoryWasZero);
}

TEST_F(Sha256OfBlockTest, NullDigestOrDataFailsAndStillReleasesAWipedContext) {
  const auto Data = RandomBytes(4096, 12);
  EXPECT_FALSE(Sha256OfBlock(Data.data(), nullptr));
  EXPECT_EQ(gPool.Frees, 1);
  EXPECT_TRUE(gPool.FreedMemoryWasZero);

  gPool = PoolRecord{};
  Digest Out{};
  Out.fill(0x3C);
  const Digest Before = Out;
  EXPECT_FALSE(Sha256OfBlock(nullptr, Out.data()));
  EXPECT_EQ(Out, Before);
  EXPECT_EQ(gPool.Allocations, 1);
  EXPECT_EQ(gPool.Frees, 1);
  EXPECT_TRUE(gPool.FreedMemoryWasZero);
}

TEST_F(Sha256OfBlockTest, ExhaustedPoolFailsAndLeavesTheDigestAsItWas) {
  const auto Data = RandomBytes(4096, 13);
  Digest Out{};
  Out.fill(0x3C);
  const Digest Before = Out;

  gPool.Fail = true;
  EXPECT_FALSE(Sha256OfBlock(Data.data(), Out.data()));
  EXPECT_EQ(Out, Before);
  EXPECT_EQ(gPool.Frees, 0);

  gBS = nullptr;  // before the boot services are known
  EXPECT_FALSE(Sha256OfBlock(Data.data(), Out.data()));
  EXPECT_EQ(Out, Before);
}

}  // namespace
