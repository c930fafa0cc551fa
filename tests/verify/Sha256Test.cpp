// SHA-256: published answers, agreement with OpenSSL however the input is cut and aligned,
// context wiping and refusals with their exact results, and the 4 KiB block helper.
#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "src/base/Globals.h"
#include "src/verify/Sha256.h"
#include "tools/lib/ImageBuilder.h"

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

// A context in caller memory, full of stale bytes, between guard bytes, at any offset.
struct GuardedContext {
  explicit GuardedContext(size_t Misalign = 0) : Misalign(Misalign) {
    Storage.fill(0x5C);
    std::memset(Get(), 0xA5, kSha256ContextSize);
  }
  UINT8 *Get() { return Storage.data() + 32 + Misalign; }
  Sha256Context *Fields() { return reinterpret_cast<Sha256Context *>(Get()); }
  bool IsAllZero() { return std::all_of(Get(), Get() + kSha256ContextSize, [](UINT8 Byte) { return Byte == 0; }); }
  bool GuardsIntact() {
    auto Guard = [](UINT8 Byte) { return Byte == 0x5C; };
    return std::all_of(Storage.data(), Get(), Guard) && std::all_of(Get() + kSha256ContextSize, Storage.end(), Guard);
  }
  size_t Misalign;
  alignas(16) std::array<UINT8, 32 + 8 + kSha256ContextSize + 32> Storage;
};

// Hashes Data cut into pieces of at most Piece bytes (0: random pieces, empty ones included).
std::string Hash(const UINT8 *Data, size_t Length, size_t Piece, std::mt19937_64 &Rng, size_t Misalign = 0) {
  GuardedContext Context(Misalign);
  Digest Out{};
  EXPECT_TRUE(Sha256Init(Context.Get()));
  size_t Done = 0;
  do {
    const size_t Take = std::min(Length - Done, Piece != 0 ? Piece : size_t(Rng() % 200));
    EXPECT_TRUE(Sha256Update(Context.Get(), Data + Done, Take));
    Done += Take;
  } while (Done < Length);
  EXPECT_TRUE(Sha256Final(Context.Get(), Out.data()));
  EXPECT_TRUE(Context.GuardsIntact());
  EXPECT_TRUE(Context.IsAllZero()) << "the final step wipes the context";
  return ToHex(Out);
}

TEST(Sha256, PublishedAnswersAndBlockBoundaryMessages) {
  const struct {
    std::string Message;
    const char *DigestHex;
  } kCases[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      // 56 bytes: the bit count no longer fits, an extra padding block follows.
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
  };
  std::mt19937_64 Rng(1);
  for (const auto &Case : kCases) {
    const auto *Data = reinterpret_cast<const UINT8 *>(Case.Message.c_str());  // never null, even when empty
    EXPECT_EQ(Hash(Data, Case.Message.size(), Case.Message.size() + 1, Rng), Case.DigestHex) << Case.Message.size();
  }
}

TEST(Sha256, MatchesOpenSslForEveryShortLengthAndRandomCutsAndAlignments) {
  const auto Source = PseudoRandomBytes(200 * 1024 + 64, 2);
  std::mt19937_64 Rng(0x5A256);
  for (size_t Length = 0; Length <= 320; Length++) {
    for (size_t Piece : {size_t(1), size_t(63), size_t(64), size_t(65), Length + 1}) {
      ASSERT_EQ(Hash(Source.data(), Length, Piece, Rng), OpenSslHex(Source.data(), Length)) << Length << "/" << Piece;
    }
  }
  for (int Trial = 0; Trial < 400; Trial++) {
    const size_t Length = Trial % 2 == 0 ? Rng() % 1025 : Rng() % (200 * 1024);
    const UINT8 *Data = Source.data() + Rng() % 64;
    ASSERT_EQ(Hash(Data, Length, Trial % 3 == 0 ? Length + 1 : 0, Rng, Trial % 8), OpenSslHex(Data, Length))
        << "trial " << Trial;
  }
}

TEST(Sha256, RefusalsGiveTheirExactResultAndNeverWriteOutsideTheContext) {
  const auto Message = PseudoRandomBytes(200, 9);
  Digest Out{};
  EXPECT_FALSE(Sha256Init(nullptr) || Sha256Update(nullptr, Message.data(), 0) || Sha256Final(nullptr, Out.data()));

  // Refused updates leave the digest in progress intact.
  GuardedContext Context;
  ASSERT_TRUE(Sha256Init(Context.Get()));
  ASSERT_TRUE(Sha256Update(Context.Get(), Message.data(), 40));
  EXPECT_FALSE(Sha256Update(Context.Get(), nullptr, 0)) << "a null Data with length 0 reaches the core";
  EXPECT_EQ(Sha256CoreUpdate(Context.Fields(), Message.data(), -1), SHA256_ERROR_INVALID);
  EXPECT_EQ(Sha256CoreUpdate(Context.Fields(), Message.data() + 40, 30), SHA256_SUCCESS);
  EXPECT_EQ(Sha256CoreFinal(Context.Fields(), Out.data()), SHA256_SUCCESS);
  EXPECT_EQ(ToHex(Out), OpenSslHex(Message.data(), 70));

  // A null digest, or a buffer index outside 0..63, is refused and still wipes the context.
  ASSERT_TRUE(Sha256Init(Context.Get()));
  EXPECT_FALSE(Sha256Final(Context.Get(), nullptr));
  EXPECT_TRUE(Context.IsAllZero());
  for (INT32 BadIndex : {64, -1}) {
    ASSERT_TRUE(Sha256Init(Context.Get()));
    Context.Fields()->BufferIndex = BadIndex;
    EXPECT_EQ(Sha256CoreUpdate(Context.Fields(), Message.data(), 200), SHA256_ERROR_INVALID) << BadIndex;
    Out = Digest{};
    EXPECT_FALSE(Sha256Final(Context.Get(), Out.data())) << BadIndex;
    EXPECT_TRUE(Out == Digest{} && Context.IsAllZero() && Context.GuardsIntact()) << BadIndex;
  }
}

bool gFreedContextsWiped = true;

EFI_STATUS EFIAPI StaleAllocatePool(EFI_MEMORY_TYPE, UINTN Size, VOID **Buffer) {
  *Buffer = std::malloc(Size);
  std::memset(*Buffer, 0xCC, Size);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI CheckingFreePool(VOID *Buffer) {
  const auto *Bytes = static_cast<const UINT8 *>(Buffer);
  gFreedContextsWiped &= std::all_of(Bytes, Bytes + kSha256ContextSize, [](UINT8 Byte) { return Byte == 0; });
  std::free(Buffer);
  return EFI_SUCCESS;
}

TEST(Sha256, OfBlockHashesTheFirst4096BytesAndWipesItsPoolContextOnEveryPath) {
  EFI_BOOT_SERVICES Services{};
  Services.AllocatePool = StaleAllocatePool;
  Services.FreePool = CheckingFreePool;
  EFI_BOOT_SERVICES *Saved = gBS;
  gBS = &Services;
  const auto Data = PseudoRandomBytes(8192, 11);
  Digest Out{};
  ASSERT_TRUE(Sha256OfBlock(Data.data(), Out.data()));
  EXPECT_EQ(ToHex(Out), OpenSslHex(Data.data(), 4096));
  EXPECT_FALSE(Sha256OfBlock(nullptr, Out.data())) << "refused by the update step";
  EXPECT_FALSE(Sha256OfBlock(Data.data(), nullptr)) << "refused by the final step";
  EXPECT_TRUE(gFreedContextsWiped);
  gBS = Saved;
}

}  // namespace
