// SHA-256 (FIPS 180-4) in two layers.
//
// The core works on a caller-provided 112-byte context and returns integer codes
// (0 or a negative SHA256_ERROR_* value). The interface above it returns booleans
// and is the only layer the rest of the driver calls: the security settings seal
// and the critical-variable digest.
//
// Every successful or failed final step leaves the whole context zeroed, so no
// hash state survives in caller memory.
#pragma once
#include <type_traits>

#include "../base/Uefi.h"

constexpr INT32 SHA256_SUCCESS = 0;
// A null context, data, digest, or byte copy/fill pointer.
constexpr INT32 SHA256_ERROR_NULL = -6001;
// A negative length, or a context whose BufferIndex lies outside 0..63 (never
// initialised, or overwritten). The core refuses rather than write outside Buffer.
constexpr INT32 SHA256_ERROR_INVALID = -6002;

constexpr UINTN kSha256DigestSize = 32;
constexpr UINTN kSha256BlockSize = 64;
constexpr UINTN kSha256ContextSize = 112;
// Sha256OfBlock always hashes this many bytes.
constexpr UINTN kSha256OfBlockLength = 4096;

#pragma pack(push, 1)
// The caller owns the 112 bytes; the fields use the first 108. Byte-packed so that
// a context at any address works.
struct Sha256Context {
  UINT32 State[8];     // H0..H7
  UINT64 ByteCount;    // bytes hashed so far; the final step turns it into the bit count
  INT32 BufferIndex;   // bytes waiting in Buffer, 0..63
  UINT8 Buffer[64];    // the pending partial block
  UINT8 Reserved[4];
};
#pragma pack(pop)
static_assert(sizeof(Sha256Context) == kSha256ContextSize);
static_assert(offsetof(Sha256Context, State) == 0);
static_assert(offsetof(Sha256Context, ByteCount) == 32);
static_assert(offsetof(Sha256Context, BufferIndex) == 40);
static_assert(offsetof(Sha256Context, Buffer) == 44);
static_assert(offsetof(Sha256Context, Reserved) == 108);
static_assert(std::is_trivially_copyable_v<Sha256Context>);

// ---- Core layer: 0 on success, SHA256_ERROR_* otherwise ----

INT32 Sha256CoreInit(Sha256Context *Context);
// Length is at most 2^31 - 1; a null Data is refused even when Length is 0.
INT32 Sha256CoreUpdate(Sha256Context *Context, const UINT8 *Data, INT32 Length);
// Writes 32 bytes to Digest and zeroes the context; a null Digest or a damaged
// context also zeroes it (a null context has nothing to clear).
INT32 Sha256CoreFinal(Sha256Context *Context, UINT8 *Digest);
// Byte copy and fill used by the core: SHA256_ERROR_NULL for a null pointer
// (whatever the length), nothing done for a length below 1.
INT32 Sha256CopyBytes(VOID *Destination, const VOID *Source, INT32 Length);
INT32 Sha256FillBytes(VOID *Buffer, UINT8 Value, INT32 Length);

// ---- Interface layer: TRUE on success ----

UINTN Sha256GetContextSize();
BOOLEAN Sha256Init(VOID *Context);
// FALSE for a null Context, or a null Data (also with Length 0). Lengths beyond the
// core's signed 32-bit limit are fed to it in pieces.
BOOLEAN Sha256Update(VOID *Context, const VOID *Data, UINT64 Length);
// FALSE for a null Context or Digest; with a non-null Context the context is zeroed
// in both cases.
BOOLEAN Sha256Final(VOID *Context, UINT8 *Digest);

// SHA-256 of exactly kSha256OfBlockLength bytes at Data, through a context taken
// from pool and released (zeroed) before returning. FALSE when the pool is exhausted
// (Digest left as it was) or a step fails.
BOOLEAN Sha256OfBlock(const UINT8 *Data, UINT8 *Digest);
// SHA-256 of Length bytes at Data (any Data when Length is 0) through a context on the stack,
// wiped on every path. FALSE when a step fails (a null Data with Length above 0, a null Digest).
BOOLEAN Sha256OfBytes(const VOID *Data, UINT64 Length, UINT8 *Digest);
