// RSA public operation s^e mod n by Montgomery multiplication on 32-bit limbs (CIOS form),
// then a byte-for-byte comparison of the recovered block with the one expected for the
// message. Building the expected block and comparing whole is stricter than parsing the
// padding: it pins the FF run length, the separator, the DigestInfo and the hash at once.
#include "EmuRsa.h"

#include "../src/base/BaseLib.h"
#include "../src/verify/Sha256.h"

namespace {

constexpr UINTN kMaxLimbs = kEmuRsaMaxModulusSize / 4;

// DER encoding of the SHA-256 AlgorithmIdentifier and the digest's OCTET STRING header.
constexpr UINT8 kSha256DigestInfo[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                       0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
constexpr UINTN kEncodedDigestSize = sizeof(kSha256DigestInfo) + kSha256DigestSize;

struct Modulus {
  UINT32 N[kMaxLimbs];
  UINTN Limbs;
  UINT32 NegativeInverse;  // -N^-1 mod 2^32
};

UINTN LimbsFor(UINTN Bytes) { return (Bytes + 3) / 4; }

// Little-endian limbs from big-endian bytes; the top limb takes the leftover bytes.
void LoadLimbs(UINT32 *Limbs, UINTN Count, const UINT8 *Bytes, UINTN Size) {
  ZeroMem(Limbs, Count * sizeof(UINT32));
  for (UINTN Index = 0; Index < Size; Index++) {
    const UINTN FromEnd = Size - 1 - Index;
    Limbs[FromEnd / 4] |= static_cast<UINT32>(Bytes[Index]) << (8 * (FromEnd % 4));
  }
}

void StoreLimbs(UINT8 *Bytes, UINTN Size, const UINT32 *Limbs) {
  for (UINTN Index = 0; Index < Size; Index++) {
    const UINTN FromEnd = Size - 1 - Index;
    Bytes[Index] = static_cast<UINT8>(Limbs[FromEnd / 4] >> (8 * (FromEnd % 4)));
  }
}

// -1 if A < B, 0 if equal, 1 if A > B.
INTN CompareLimbs(const UINT32 *A, const UINT32 *B, UINTN Count) {
  for (UINTN Index = Count; Index-- > 0;) {
    if (A[Index] != B[Index]) {
      return A[Index] < B[Index] ? -1 : 1;
    }
  }
  return 0;
}

// A -= B over Count limbs; returns the borrow out.
UINT32 SubtractLimbs(UINT32 *A, const UINT32 *B, UINTN Count) {
  UINT64 Borrow = 0;
  for (UINTN Index = 0; Index < Count; Index++) {
    const UINT64 Difference = static_cast<UINT64>(A[Index]) - B[Index] - Borrow;
    A[Index] = static_cast<UINT32>(Difference);
    Borrow = (Difference >> 32) & 1;
  }
  return static_cast<UINT32>(Borrow);
}

// Out = A * B * 2^(-32 * Limbs) mod N, for A, B < N. Out may be A or B.
void MontgomeryMultiply(UINT32 *Out, const UINT32 *A, const UINT32 *B, const Modulus &M) {
  const UINTN L = M.Limbs;
  UINT32 T[kMaxLimbs + 2];
  ZeroMem(T, sizeof(T));
  for (UINTN I = 0; I < L; I++) {
    UINT64 Carry = 0;
    for (UINTN J = 0; J < L; J++) {
      const UINT64 Sum = static_cast<UINT64>(A[J]) * B[I] + T[J] + Carry;
      T[J] = static_cast<UINT32>(Sum);
      Carry = Sum >> 32;
    }
    UINT64 Sum = static_cast<UINT64>(T[L]) + Carry;
    T[L] = static_cast<UINT32>(Sum);
    T[L + 1] = static_cast<UINT32>(Sum >> 32);

    // Add m * N so that the lowest limb becomes zero, and drop it.
    const UINT32 Factor = T[0] * M.NegativeInverse;
    Carry = (static_cast<UINT64>(Factor) * M.N[0] + T[0]) >> 32;
    for (UINTN J = 1; J < L; J++) {
      Sum = static_cast<UINT64>(Factor) * M.N[J] + T[J] + Carry;
      T[J - 1] = static_cast<UINT32>(Sum);
      Carry = Sum >> 32;
    }
    Sum = static_cast<UINT64>(T[L]) + Carry;
    T[L - 1] = static_cast<UINT32>(Sum);
    T[L] = T[L + 1] + static_cast<UINT32>(Sum >> 32);
  }
  // T < 2N: one conditional subtraction brings it below N.
  if (T[L] != 0 || CompareLimbs(T, M.N, L) >= 0) {
    SubtractLimbs(T, M.N, L);
  }
  CopyMem(Out, T, L * sizeof(UINT32));
}

// X = X * 2^(32 * Limbs) mod N by modular doublings, for X < N.
void ToMontgomery(UINT32 *X, const Modulus &M) {
  for (UINTN Bit = 0; Bit < 32 * M.Limbs; Bit++) {
    UINT32 Carry = 0;
    for (UINTN Index = 0; Index < M.Limbs; Index++) {
      const UINT32 Next = X[Index] >> 31;
      X[Index] = (X[Index] << 1) | Carry;
      Carry = Next;
    }
    if (Carry != 0 || CompareLimbs(X, M.N, M.Limbs) >= 0) {
      SubtractLimbs(X, M.N, M.Limbs);
    }
  }
}

// -N0^-1 mod 2^32 by Newton's iteration (N0 odd): each step doubles the correct low bits.
UINT32 NegativeInverse(UINT32 N0) {
  UINT32 Inverse = N0;  // correct to 3 bits for odd N0
  for (int Step = 0; Step < 5; Step++) {
    Inverse *= 2 - N0 * Inverse;
  }
  return 0u - Inverse;
}

BOOLEAN IsUsableKey(const EmuRsaPublicKey &Key) {
  return Key.ModulusSize >= kEmuRsaMinModulusSize && Key.ModulusSize <= kEmuRsaMaxModulusSize &&
         Key.Modulus[0] != 0 && (Key.Modulus[Key.ModulusSize - 1] & 1) != 0 && Key.Exponent != 0;
}

// The block a signature of Digest must recover to: 00 01 FF..FF 00 DigestInfo Digest.
void BuildExpectedBlock(UINT8 *Block, UINTN Size, const UINT8 *Digest) {
  const UINTN PaddingEnd = Size - kEncodedDigestSize - 1;  // index of the 00 separator
  Block[0] = 0x00;
  Block[1] = 0x01;
  SetMem(Block + 2, PaddingEnd - 2, 0xFF);
  Block[PaddingEnd] = 0x00;
  CopyMem(Block + PaddingEnd + 1, kSha256DigestInfo, sizeof(kSha256DigestInfo));
  CopyMem(Block + Size - kSha256DigestSize, Digest, kSha256DigestSize);
}

}  // namespace

BOOLEAN EmuRsaSetPublicKey(EmuRsaPublicKey &Key, const UINT8 *Modulus, UINT32 ModulusSize, UINT32 Exponent) {
  ZeroMem(&Key, sizeof(Key));
  if (Modulus == nullptr || ModulusSize < kEmuRsaMinModulusSize || ModulusSize > kEmuRsaMaxModulusSize) {
    return FALSE;
  }
  CopyMem(Key.Modulus, Modulus, ModulusSize);
  Key.ModulusSize = ModulusSize;
  Key.Exponent = Exponent;
  if (!IsUsableKey(Key)) {
    ZeroMem(&Key, sizeof(Key));
    return FALSE;
  }
  return TRUE;
}

BOOLEAN EmuRsaVerifySha256(const EmuRsaPublicKey &Key, const UINT8 *Message, UINT64 MessageSize,
                           const UINT8 *Signature, UINT64 SignatureSize) {
  if (!IsUsableKey(Key) || Signature == nullptr || (Message == nullptr && MessageSize != 0) ||
      SignatureSize != Key.ModulusSize) {
    return FALSE;
  }
  const UINTN Size = Key.ModulusSize;

  Modulus M;
  M.Limbs = LimbsFor(Size);
  LoadLimbs(M.N, M.Limbs, Key.Modulus, Size);
  M.NegativeInverse = NegativeInverse(M.N[0]);

  UINT32 Base[kMaxLimbs];
  LoadLimbs(Base, M.Limbs, Signature, Size);
  if (CompareLimbs(Base, M.N, M.Limbs) >= 0) {
    return FALSE;
  }

  // Left-to-right square and multiply in the Montgomery domain.
  ToMontgomery(Base, M);
  UINT32 Power[kMaxLimbs];
  CopyMem(Power, Base, M.Limbs * sizeof(UINT32));
  INTN TopBit = 31;
  while (((Key.Exponent >> TopBit) & 1) == 0) {
    TopBit--;
  }
  for (INTN Bit = TopBit - 1; Bit >= 0; Bit--) {
    MontgomeryMultiply(Power, Power, Power, M);
    if (((Key.Exponent >> Bit) & 1) != 0) {
      MontgomeryMultiply(Power, Power, Base, M);
    }
  }
  UINT32 One[kMaxLimbs];
  ZeroMem(One, sizeof(One));
  One[0] = 1;
  MontgomeryMultiply(Power, Power, One, M);

  UINT8 Recovered[kEmuRsaMaxModulusSize];
  UINT8 Expected[kEmuRsaMaxModulusSize];
  UINT8 Digest[kSha256DigestSize];
  StoreLimbs(Recovered, Size, Power);
  if (!Sha256OfBytes(Message, MessageSize, Digest)) {
    return FALSE;
  }
  BuildExpectedBlock(Expected, Size, Digest);
  return CompareMem(Recovered, Expected, Size) == 0 ? TRUE : FALSE;
}
