// SHA-256 (FIPS 180-4): core on a caller-provided context, boolean interface, and
// the 4 KiB block helper. No allocation except the context of Sha256OfBlock.
#include "Sha256.h"

#include "../base/BaseLib.h"
#include "../base/Pool.h"

namespace {

constexpr UINT32 kInitialHash[8] = {
    0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19,
};

constexpr UINT32 kRoundConstants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
};

constexpr INT32 kBlockSize = static_cast<INT32>(kSha256BlockSize);
constexpr INT32 kLengthOffset = 56;  // where the bit count starts in the last block
// The interface feeds the core at most this many bytes per call (a multiple of the block size).
constexpr UINT64 kMaxCorePiece = 0x40000000;

[[gnu::always_inline]] inline UINT32 Rotr(UINT32 Value, unsigned Count) {
  return (Value >> Count) | (Value << (32 - Count));
}

[[gnu::always_inline]] inline UINT32 LoadBe32(const UINT8 *Bytes) {
  return (static_cast<UINT32>(Bytes[0]) << 24) | (static_cast<UINT32>(Bytes[1]) << 16) |
         (static_cast<UINT32>(Bytes[2]) << 8) | static_cast<UINT32>(Bytes[3]);
}

[[gnu::always_inline]] inline void StoreBe32(UINT8 *Bytes, UINT32 Value) {
  Bytes[0] = static_cast<UINT8>(Value >> 24);
  Bytes[1] = static_cast<UINT8>(Value >> 16);
  Bytes[2] = static_cast<UINT8>(Value >> 8);
  Bytes[3] = static_cast<UINT8>(Value);
}

[[gnu::always_inline]] inline void StoreBe64(UINT8 *Bytes, UINT64 Value) {
  StoreBe32(Bytes, static_cast<UINT32>(Value >> 32));
  StoreBe32(Bytes + 4, static_cast<UINT32>(Value));
}

[[gnu::always_inline]] inline UINT32 BigSigma0(UINT32 X) { return Rotr(Rotr(Rotr(X, 9) ^ X, 11) ^ X, 2); }
[[gnu::always_inline]] inline UINT32 BigSigma1(UINT32 X) { return Rotr(Rotr(Rotr(X, 14) ^ X, 5) ^ X, 6); }
[[gnu::always_inline]] inline UINT32 SmallSigma0(UINT32 X) { return Rotr(X, 7) ^ Rotr(X, 18) ^ (X >> 3); }
[[gnu::always_inline]] inline UINT32 SmallSigma1(UINT32 X) { return Rotr(X, 17) ^ Rotr(X, 19) ^ (X >> 10); }

// One round. The eight working variables are renamed from round to round instead of
// being shifted: only D (becoming the next E) and H (becoming the next A) change.
// Maj(A, B, C) is computed as B ^ ((A ^ B) & (B ^ C)); this round's A ^ B is the next
// round's B ^ C, so it is carried in BC and C itself is never read.
[[gnu::always_inline]] inline void Round(UINT32 A, UINT32 B, UINT32 &D, UINT32 E, UINT32 F, UINT32 G, UINT32 &H,
                                         UINT32 KPlusW, UINT32 &BC) {
  const UINT32 T1 = H + BigSigma1(E) + (G ^ (E & (F ^ G))) + KPlusW;
  const UINT32 AB = A ^ B;
  const UINT32 T2 = BigSigma0(A) + (B ^ (AB & BC));
  BC = AB;
  D += T1;
  H = T1 + T2;
}

// Sixteen rounds; round j uses the variable names rotated by j mod 8. WORD(j)
// yields the message schedule word for the round.
#define SHA256_ROUNDS_16(WORD)                       \
  Round(A, B, D, E, F, G, H, K[0] + WORD(0), BC);    \
  Round(H, A, C, D, E, F, G, K[1] + WORD(1), BC);    \
  Round(G, H, B, C, D, E, F, K[2] + WORD(2), BC);    \
  Round(F, G, A, B, C, D, E, K[3] + WORD(3), BC);    \
  Round(E, F, H, A, B, C, D, K[4] + WORD(4), BC);    \
  Round(D, E, G, H, A, B, C, K[5] + WORD(5), BC);    \
  Round(C, D, F, G, H, A, B, K[6] + WORD(6), BC);    \
  Round(B, C, E, F, G, H, A, K[7] + WORD(7), BC);    \
  Round(A, B, D, E, F, G, H, K[8] + WORD(8), BC);    \
  Round(H, A, C, D, E, F, G, K[9] + WORD(9), BC);    \
  Round(G, H, B, C, D, E, F, K[10] + WORD(10), BC);  \
  Round(F, G, A, B, C, D, E, K[11] + WORD(11), BC);  \
  Round(E, F, H, A, B, C, D, K[12] + WORD(12), BC);  \
  Round(D, E, G, H, A, B, C, K[13] + WORD(13), BC);  \
  Round(C, D, F, G, H, A, B, K[14] + WORD(14), BC);  \
  Round(B, C, E, F, G, H, A, K[15] + WORD(15), BC)

// Rounds 0..15 read the block; later rounds extend the schedule in place in a
// 16-word ring: W[j] becomes W[t] from W[t-16] (itself), W[t-15], W[t-7] and W[t-2].
#define SHA256_LOAD_WORD(j) (W[j] = LoadBe32(Block + 4 * (j)))
#define SHA256_NEXT_WORD(j) \
  (W[j] += SmallSigma1(W[((j) + 14) & 15]) + W[((j) + 9) & 15] + SmallSigma0(W[((j) + 1) & 15]))

// The block function over Count consecutive 64-byte blocks; the state stays in
// registers from one block to the next.
void Compress(Sha256Context *Context, const UINT8 *Block, UINTN Count) {
  UINT32 State[8];
  for (UINTN Index = 0; Index < 8; Index++) {
    State[Index] = Context->State[Index];
  }

  for (; Count != 0; Count--, Block += kSha256BlockSize) {
    UINT32 W[16];
    UINT32 A = State[0], B = State[1], C = State[2], D = State[3];
    UINT32 E = State[4], F = State[5], G = State[6], H = State[7];
    UINT32 BC = B ^ C;

    const UINT32 *K = kRoundConstants;
    SHA256_ROUNDS_16(SHA256_LOAD_WORD);
    for (UINTN Group = 1; Group < 4; Group++) {
      K += 16;
      SHA256_ROUNDS_16(SHA256_NEXT_WORD);
    }

    State[0] += A;
    State[1] += B;
    State[2] += C;
    State[3] += D;
    State[4] += E;
    State[5] += F;
    State[6] += G;
    State[7] += H;
  }

  for (UINTN Index = 0; Index < 8; Index++) {
    Context->State[Index] = State[Index];
  }
}

#undef SHA256_NEXT_WORD
#undef SHA256_LOAD_WORD
#undef SHA256_ROUNDS_16

bool IsBufferIndexValid(const Sha256Context *Context) {
  return Context->BufferIndex >= 0 && Context->BufferIndex < kBlockSize;
}

VOID WipeContext(Sha256Context *Context) { Sha256FillBytes(Context, 0, static_cast<INT32>(kSha256ContextSize)); }

}  // namespace

INT32 Sha256CopyBytes(VOID *Destination, const VOID *Source, INT32 Length) {
  if (Destination == nullptr || Source == nullptr) {
    return SHA256_ERROR_NULL;
  }
  if (Length >= 1) {
    CopyMem(Destination, Source, static_cast<UINTN>(Length));
  }
  return SHA256_SUCCESS;
}

INT32 Sha256FillBytes(VOID *Buffer, UINT8 Value, INT32 Length) {
  if (Buffer == nullptr) {
    return SHA256_ERROR_NULL;
  }
  if (Length > 0) {
    SetMem(Buffer, static_cast<UINTN>(Length), Value);
  }
  return SHA256_SUCCESS;
}

INT32 Sha256CoreInit(Sha256Context *Context) {
  if (Context == nullptr) {
    return SHA256_ERROR_NULL;
  }
  for (UINTN Index = 0; Index < 8; Index++) {
    Context->State[Index] = kInitialHash[Index];
  }
  Context->ByteCount = 0;
  Context->BufferIndex = 0;
  return SHA256_SUCCESS;
}

INT32 Sha256CoreUpdate(Sha256Context *Context, const UINT8 *Data, INT32 Length) {
  if (Context == nullptr || Data == nullptr) {
    return SHA256_ERROR_NULL;
  }
  if (Length < 0 || !IsBufferIndexValid(Context)) {
    return SHA256_ERROR_INVALID;
  }
  Context->ByteCount += static_cast<UINT64>(Length);

  if (Context->BufferIndex > 0) {
    const INT32 Room = kBlockSize - Context->BufferIndex;
    const INT32 Taken = Length < Room ? Length : Room;
    Sha256CopyBytes(Context->Buffer + Context->BufferIndex, Data, Taken);
    Context->BufferIndex += Taken;
    Data += Taken;
    Length -= Taken;
    if (Context->BufferIndex == kBlockSize) {
      Compress(Context, Context->Buffer, 1);
      Context->BufferIndex = 0;
    }
  }

  const INT32 WholeBlocks = Length / kBlockSize;
  if (WholeBlocks > 0) {
    Compress(Context, Data, static_cast<UINTN>(WholeBlocks));
    Data += WholeBlocks * kBlockSize;
    Length -= WholeBlocks * kBlockSize;
  }

  // Only reached with bytes left when the buffer was empty or has just been emptied.
  if (Length > 0) {
    Sha256CopyBytes(Context->Buffer + Context->BufferIndex, Data, Length);
    Context->BufferIndex += Length;
  }
  return SHA256_SUCCESS;
}

INT32 Sha256CoreFinal(Sha256Context *Context, UINT8 *Digest) {
  if (Context == nullptr) {
    return SHA256_ERROR_NULL;
  }
  if (Digest == nullptr) {
    WipeContext(Context);
    return SHA256_ERROR_NULL;
  }
  if (!IsBufferIndexValid(Context)) {
    WipeContext(Context);
    return SHA256_ERROR_INVALID;
  }

  INT32 Index = Context->BufferIndex;
  Context->Buffer[Index++] = 0x80;
  if (Index > kLengthOffset) {
    Sha256FillBytes(Context->Buffer + Index, 0, kBlockSize - Index);
    Compress(Context, Context->Buffer, 1);
    Index = 0;
  }
  Sha256FillBytes(Context->Buffer + Index, 0, kLengthOffset - Index);
  Context->ByteCount *= 8;
  StoreBe64(Context->Buffer + kLengthOffset, Context->ByteCount);
  Compress(Context, Context->Buffer, 1);

  for (UINTN Word = 0; Word < 8; Word++) {
    StoreBe32(Digest + 4 * Word, Context->State[Word]);
  }
  WipeContext(Context);
  return SHA256_SUCCESS;
}

UINTN Sha256GetContextSize() { return kSha256ContextSize; }

BOOLEAN Sha256Init(VOID *Context) {
  if (Context == nullptr) {
    return FALSE;
  }
  return Sha256CoreInit(static_cast<Sha256Context *>(Context)) == SHA256_SUCCESS;
}

BOOLEAN Sha256Update(VOID *Context, const VOID *Data, UINT64 Length) {
  if (Context == nullptr || (Data == nullptr && Length != 0)) {
    return FALSE;
  }
  auto *Sha = static_cast<Sha256Context *>(Context);
  const auto *Bytes = static_cast<const UINT8 *>(Data);
  // A zero length still goes to the core, which refuses a null Data.
  do {
    const UINT64 Piece = Length < kMaxCorePiece ? Length : kMaxCorePiece;
    if (Sha256CoreUpdate(Sha, Bytes, static_cast<INT32>(Piece)) != SHA256_SUCCESS) {
      return FALSE;
    }
    Bytes += Piece;
    Length -= Piece;
  } while (Length != 0);
  return TRUE;
}

BOOLEAN Sha256Final(VOID *Context, UINT8 *Digest) {
  if (Context == nullptr) {
    return FALSE;
  }
  // A null Digest goes to the core too, which clears the context before refusing.
  return Sha256CoreFinal(static_cast<Sha256Context *>(Context), Digest) == SHA256_SUCCESS;
}

BOOLEAN Sha256OfBlock(const UINT8 *Data, UINT8 *Digest) {
  PoolBuffer Context = PoolBuffer::Allocate(Sha256GetContextSize());
  if (!Context) {
    return FALSE;
  }
  if (!Sha256Init(Context.Data()) || !Sha256Update(Context.Data(), Data, kSha256OfBlockLength)) {
    WipeContext(Context.As<Sha256Context>());
    return FALSE;
  }
  return Sha256Final(Context.Data(), Digest);
}

BOOLEAN Sha256OfBytes(const VOID *Data, UINT64 Length, UINT8 *Digest) {
  static constexpr UINT8 kEmpty = 0;  // the update step refuses a null pointer even for 0 bytes
  Sha256Context Context;
  if (!Sha256Init(&Context) || !Sha256Update(&Context, Length == 0 ? &kEmpty : Data, Length)) {
    WipeContext(&Context);
    return FALSE;
  }
  return Sha256Final(&Context, Digest);
}
