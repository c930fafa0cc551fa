#include "ImageSigner.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>

#include "../../src/base/Guids.h"
#include "../../src/base/PiFirmwareVolume.h"
#include "../../src/driver/Config.h"

namespace {

// ---- Keys ---------------------------------------------------------------------------------

struct KeyDeleter {
  void operator()(EVP_PKEY *Key) const { EVP_PKEY_free(Key); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyDeleter>;
struct DigestContextDeleter {
  void operator()(EVP_MD_CTX *Context) const { EVP_MD_CTX_free(Context); }
};
using DigestContextPtr = std::unique_ptr<EVP_MD_CTX, DigestContextDeleter>;

std::string OpenSslError() {
  const unsigned long Code = ERR_get_error();
  ERR_clear_error();
  char Text[256] = "unknown libcrypto error";
  if (Code != 0) {
    ERR_error_string_n(Code, Text, sizeof(Text));
  }
  return Text;
}

bool PemText(const std::string &KeyPem, std::string &Text, std::string &Error) {
  if (KeyPem.find("-----BEGIN") != std::string::npos) {
    Text = KeyPem;
    return true;
  }
  std::ifstream File(KeyPem, std::ios::binary);
  if (!File) {
    Error = "cannot read key file " + KeyPem;
    return false;
  }
  Text.assign(std::istreambuf_iterator<char>(File), std::istreambuf_iterator<char>());
  return true;
}

// An RSA key from PEM text or a PEM file: a private key, or (when Private is false) also a
// public key.
KeyPtr LoadRsaKey(const std::string &KeyPem, bool Private, std::string &Error) {
  std::string Text;
  if (!PemText(KeyPem, Text, Error)) {
    return nullptr;
  }
  auto Read = [&](bool AsPrivate) {
    BIO *Bio = BIO_new_mem_buf(Text.data(), static_cast<int>(Text.size()));
    EVP_PKEY *Key = nullptr;
    if (Bio != nullptr) {
      Key = AsPrivate ? PEM_read_bio_PrivateKey(Bio, nullptr, nullptr, nullptr)
                      : PEM_read_bio_PUBKEY(Bio, nullptr, nullptr, nullptr);
      BIO_free(Bio);
    }
    return KeyPtr(Key);
  };
  KeyPtr Key = Read(true);
  if (!Key && !Private) {
    ERR_clear_error();
    Key = Read(false);
  }
  if (!Key) {
    Error = std::string("not a PEM ") + (Private ? "private" : "RSA") + " key: " + OpenSslError();
    return nullptr;
  }
  if (EVP_PKEY_is_a(Key.get(), "RSA") != 1) {
    Error = "the key is not an RSA key";
    return nullptr;
  }
  return Key;
}

// ---- Byte access with bounds --------------------------------------------------------------

bool Fits(uint64_t Offset, uint64_t Length, uint64_t Size) { return Offset <= Size && Length <= Size - Offset; }

uint64_t ReadLe(const std::vector<uint8_t> &Image, size_t Offset, size_t Bytes) {
  uint64_t Value = 0;
  for (size_t Index = 0; Index < Bytes; Index++) {
    Value |= static_cast<uint64_t>(Image[Offset + Index]) << (8 * Index);
  }
  return Value;
}

bool GuidAt(const std::vector<uint8_t> &Image, uint64_t Offset, const EFI_GUID &Guid) {
  return Fits(Offset, sizeof(EFI_GUID), Image.size()) && std::memcmp(Image.data() + Offset, &Guid, sizeof(Guid)) == 0;
}

// ---- Firmware-volume signature ------------------------------------------------------------

constexpr uint8_t kFvImageFileType = 0x0B;
constexpr size_t kFileHeaderSize = sizeof(EFI_FFS_FILE_HEADER);
constexpr size_t kSectionHeaderSize = sizeof(EFI_COMMON_SECTION_HEADER);

struct FvSignatureSite {
  std::optional<size_t> SignedFile;  // image offset of its header
  uint32_t SignedFileSize = 0;       // header included
  std::optional<size_t> SignatureFile;
  uint32_t SignatureFileSize = 0;
};

// The driver's walk: volumes with an FFS2/FFS3 file system, found on 16-byte steps; within a
// volume, files 8-byte aligned; a later file with the same name replaces an earlier one, and
// the scan ends after the volume in which both files have been seen. A volume whose length
// is below its header or runs past the image end is not walked.
FvSignatureSite FindFvSignature(const std::vector<uint8_t> &Image) {
  FvSignatureSite Site;
  const size_t Size = Image.size();
  size_t Position = 0;
  while (Position < Size) {
    const bool IsVolume = Fits(Position, sizeof(EFI_FIRMWARE_VOLUME_HEADER), Size) &&
                          ReadLe(Image, Position + offsetof(EFI_FIRMWARE_VOLUME_HEADER, Signature), 4) == kFvSignature &&
                          (GuidAt(Image, Position + 16, gEfiFirmwareFileSystem2Guid) ||
                           GuidAt(Image, Position + 16, gEfiFirmwareFileSystem3Guid));
    const uint64_t Length = IsVolume ? ReadLe(Image, Position + offsetof(EFI_FIRMWARE_VOLUME_HEADER, FvLength), 8) : 0;
    const uint64_t HeaderLength =
        IsVolume ? ReadLe(Image, Position + offsetof(EFI_FIRMWARE_VOLUME_HEADER, HeaderLength), 2) : 0;
    if (!IsVolume || Length < HeaderLength || Length == 0 || !Fits(Position, Length, Size)) {
      Position += 16;
      continue;
    }
    const size_t End = Position + Length;
    for (size_t File = Position + HeaderLength; File < End && Fits(File, kFileHeaderSize, End);) {
      const uint8_t Type = Image[File + offsetof(EFI_FFS_FILE_HEADER, Type)];
      const uint32_t FileSize = static_cast<uint32_t>(ReadLe(Image, File + offsetof(EFI_FFS_FILE_HEADER, Size), 3));
      if (FileSize < kFileHeaderSize) {
        break;
      }
      if (Type == kFvImageFileType && GuidAt(Image, File, gSignedFvFileGuid)) {
        Site.SignedFile = File;
        Site.SignedFileSize = FileSize;
      } else if (Type == EFI_FV_FILETYPE_FREEFORM && GuidAt(Image, File, gFvSignatureFileGuid)) {
        Site.SignatureFile = File;
        Site.SignatureFileSize = FileSize;
      }
      File = (File + FileSize + 7) & ~static_cast<size_t>(7);
    }
    if (Site.SignedFile && Site.SignatureFile) {
      break;
    }
    Position += Length;
  }
  return Site;
}

// Keeps a signature file's data checksum valid after its data changed.
void ResealFileChecksum(std::vector<uint8_t> &Image, size_t File, uint32_t FileSize) {
  if ((Image[File + offsetof(EFI_FFS_FILE_HEADER, Attributes)] & FFS_ATTRIB_CHECKSUM) == 0) {
    return;
  }
  uint8_t Sum = 0;
  for (size_t Offset = File + kFileHeaderSize; Offset < File + FileSize; Offset++) {
    Sum = static_cast<uint8_t>(Sum + Image[Offset]);
  }
  Image[File + offsetof(EFI_FFS_FILE_HEADER, FileChecksum)] = static_cast<uint8_t>(0x100 - Sum);
}

enum class Step { Signed, Skipped, Failed };

Step SignFirmwareVolume(std::vector<uint8_t> &Image, const std::string &Key, size_t SignatureSize,
                        std::string &Note, std::string &Error) {
  const FvSignatureSite Site = FindFvSignature(Image);
  if (!Site.SignedFile || !Site.SignatureFile) {
    Note = !Site.SignedFile ? "no signed firmware-volume file" : "no firmware-volume signature file";
    return Step::Skipped;
  }
  if (!Fits(*Site.SignedFile, Site.SignedFileSize, Image.size()) ||
      !Fits(*Site.SignatureFile, Site.SignatureFileSize, Image.size()) ||
      Site.SignatureFileSize < kFileHeaderSize + kSectionHeaderSize) {
    Error = "the signed firmware-volume file or the signature file runs past the image end";
    return Step::Failed;
  }
  const size_t Section = *Site.SignatureFile + kFileHeaderSize;
  const uint32_t SectionSize = static_cast<uint32_t>(ReadLe(Image, Section, 3));
  if (SectionSize < kSectionHeaderSize || SectionSize - kSectionHeaderSize != SignatureSize ||
      !Fits(Section, SectionSize, *Site.SignatureFile + Site.SignatureFileSize)) {
    Error = "the firmware-volume signature section holds " +
            std::to_string(SectionSize < kSectionHeaderSize ? 0 : SectionSize - kSectionHeaderSize) +
            " bytes; the key makes " + std::to_string(SignatureSize) + "-byte signatures";
    return Step::Failed;
  }
  const std::vector<uint8_t> Signed(Image.begin() + static_cast<ptrdiff_t>(*Site.SignedFile),
                                    Image.begin() + static_cast<ptrdiff_t>(*Site.SignedFile + Site.SignedFileSize));
  std::vector<uint8_t> Signature;
  if (!RsaSignSha256(Signed, Key, Signature, Error)) {
    return Step::Failed;
  }
  std::memcpy(Image.data() + Section + kSectionHeaderSize, Signature.data(), Signature.size());
  ResealFileChecksum(Image, *Site.SignatureFile, Site.SignatureFileSize);
  return Step::Signed;
}

// ---- Flash-map signature ------------------------------------------------------------------

constexpr uint32_t kFlashMapMagic = 0x4D444651;  // "QFDM"
constexpr size_t kFlashMapProbeStep = 0x1000;
constexpr size_t kEntryOffsetField = 32;
constexpr size_t kEntrySizeField = 40;
constexpr size_t kEntryFieldsEnd = 48;
constexpr size_t kRecordLengthField = 24;
constexpr size_t kRecordSignature = 28;

Step SignFlashMap(std::vector<uint8_t> &Image, const std::string &Key, size_t SignatureSize, std::string &Note,
                  std::string &Error) {
  const size_t Size = Image.size();
  std::optional<size_t> Map;
  for (size_t Offset = 0; Offset < Size && Fits(Offset, 4, Size); Offset += kFlashMapProbeStep) {
    if (ReadLe(Image, Offset, 4) == kFlashMapMagic) {
      Map = Offset;
      break;
    }
  }
  if (!Map || *Map == 0) {
    Note = !Map ? "no \"QFDM\" flash map record" : "the \"QFDM\" record is at image offset 0";
    return Step::Skipped;
  }

  // Six entries within the first Map positions of the record: index 0 the signature entry,
  // 1..5 the signed regions. A later match replaces an earlier one until all six are seen.
  const EFI_GUID *const RegionGuids[] = {&gSignedRegion1Guid, &gSignedRegion2Guid, &gSignedRegion3Guid,
                                         &gSignedRegion4Guid, &gSignedRegion5Guid};
  std::optional<size_t> Entries[6];
  auto AllSeen = [&] {
    for (const auto &Entry : Entries) {
      if (!Entry) {
        return false;
      }
    }
    return true;
  };
  for (size_t Index = 0; Index < *Map && !AllSeen(); Index++) {
    const size_t Position = *Map + Index;
    if (!Fits(Position, kEntryFieldsEnd, Size)) {
      break;
    }
    if (GuidAt(Image, Position, gQfdmSignatureEntryGuid) && GuidAt(Image, Position + 16, gQfdmSignatureEntryTypeGuid)) {
      Entries[0] = Position;
    }
    for (size_t Region = 0; Region < 5; Region++) {
      if (GuidAt(Image, Position, *RegionGuids[Region])) {
        Entries[1 + Region] = Position;
      }
    }
  }
  if (!AllSeen()) {
    Note = !Entries[0] ? "no flash-map signature entry" : "a signed-region entry of the flash map is missing";
    return Step::Skipped;
  }

  const uint64_t AreaOffset = ReadLe(Image, *Entries[0] + kEntryOffsetField, 8);
  const uint64_t AreaSize = ReadLe(Image, *Entries[0] + kEntrySizeField, 8);
  const uint64_t AreaStart = static_cast<uint64_t>(kReferenceConfig.ImageFlashOffset) + AreaOffset;
  std::optional<size_t> Record;
  for (uint64_t Index = 0; Index < AreaSize && AreaStart <= Size && Index < Size - AreaStart; Index++) {
    if (GuidAt(Image, AreaStart + Index, gQfdmSignatureRecordGuid)) {
      Record = static_cast<size_t>(AreaStart + Index);
      break;
    }
  }
  if (!Record) {
    Note = "no flash-map signature record in the signature entry's area";
    return Step::Skipped;
  }
  const uint64_t RecordLength =
      Fits(*Record, kRecordSignature, Size) ? ReadLe(Image, *Record + kRecordLengthField, 3) : 0;
  if (RecordLength < 4 || RecordLength - 4 != SignatureSize || !Fits(*Record + kRecordSignature, SignatureSize, Size)) {
    Error = "the flash-map signature record holds " + std::to_string(RecordLength < 4 ? 0 : RecordLength - 4) +
            " bytes; the key makes " + std::to_string(SignatureSize) + "-byte signatures";
    return Step::Failed;
  }

  // Z1 bytes from O1; 2 x Z2 from O2; Z3 + Z4 from O3; Z5 from O5 (region 4 adds only its size).
  uint64_t O[6], Z[6];
  for (size_t Region = 1; Region <= 5; Region++) {
    O[Region] = ReadLe(Image, *Entries[Region] + kEntryOffsetField, 8);
    Z[Region] = ReadLe(Image, *Entries[Region] + kEntrySizeField, 8);
    if (Z[Region] > Size) {
      Error = "signed region " + std::to_string(Region) + " is larger than the image";
      return Step::Failed;
    }
  }
  const struct {
    uint64_t Offset, Length;
  } Pieces[] = {{O[1], Z[1]}, {O[2], 2 * Z[2]}, {O[3], Z[3] + Z[4]}, {O[5], Z[5]}};
  std::vector<uint8_t> Signed;
  for (const auto &Piece : Pieces) {
    if (!Fits(Piece.Offset, Piece.Length, Size)) {
      Error = "a signed region of the flash map lies outside the image";
      return Step::Failed;
    }
    Signed.insert(Signed.end(), Image.begin() + static_cast<ptrdiff_t>(Piece.Offset),
                  Image.begin() + static_cast<ptrdiff_t>(Piece.Offset + Piece.Length));
  }
  std::vector<uint8_t> Signature;
  if (!RsaSignSha256(Signed, Key, Signature, Error)) {
    return Step::Failed;
  }
  std::memcpy(Image.data() + *Record + kRecordSignature, Signature.data(), Signature.size());
  return Step::Signed;
}

}  // namespace

bool RsaSignSha256(const std::vector<uint8_t> &Data, const std::string &PrivateKeyPem,
                   std::vector<uint8_t> &Signature, std::string &Error) {
  KeyPtr Key = LoadRsaKey(PrivateKeyPem, true, Error);
  DigestContextPtr Context(EVP_MD_CTX_new());
  size_t Length = 0;
  if (!Key || !Context) {
    return false;
  }
  if (EVP_DigestSignInit(Context.get(), nullptr, EVP_sha256(), nullptr, Key.get()) != 1 ||
      EVP_DigestSign(Context.get(), nullptr, &Length, Data.data(), Data.size()) != 1) {
    Error = "cannot sign: " + OpenSslError();
    return false;
  }
  Signature.resize(Length);
  if (EVP_DigestSign(Context.get(), Signature.data(), &Length, Data.data(), Data.size()) != 1) {
    Error = "cannot sign: " + OpenSslError();
    return false;
  }
  Signature.resize(Length);
  return true;
}

bool RsaVerifySha256(const std::vector<uint8_t> &Data, const std::string &KeyPem,
                     const std::vector<uint8_t> &Signature, std::string &Error) {
  KeyPtr Key = LoadRsaKey(KeyPem, false, Error);
  DigestContextPtr Context(EVP_MD_CTX_new());
  if (!Key || !Context) {
    return false;
  }
  if (EVP_DigestVerifyInit(Context.get(), nullptr, EVP_sha256(), nullptr, Key.get()) != 1) {
    Error = "cannot verify: " + OpenSslError();
    return false;
  }
  const bool Good = EVP_DigestVerify(Context.get(), Signature.data(), Signature.size(), Data.data(), Data.size()) == 1;
  ERR_clear_error();
  return Good;
}

size_t RsaSignatureSize(const std::string &KeyPem, std::string &Error) {
  KeyPtr Key = LoadRsaKey(KeyPem, false, Error);
  return Key ? static_cast<size_t>(EVP_PKEY_get_size(Key.get())) : 0;
}

bool RsaPublicKeyFromPem(const std::string &KeyPem, EmuRsaPublicKey &Key, std::string &Error) {
  KeyPtr Pkey = LoadRsaKey(KeyPem, false, Error);
  if (!Pkey) {
    return false;
  }
  BIGNUM *N = nullptr;
  BIGNUM *E = nullptr;
  bool Done = false;
  if (EVP_PKEY_get_bn_param(Pkey.get(), OSSL_PKEY_PARAM_RSA_N, &N) == 1 &&
      EVP_PKEY_get_bn_param(Pkey.get(), OSSL_PKEY_PARAM_RSA_E, &E) == 1) {
    uint8_t Modulus[kEmuRsaMaxModulusSize];
    const int Size = BN_num_bytes(N);
    const BN_ULONG Exponent = BN_get_word(E);
    Done = Size <= static_cast<int>(sizeof(Modulus)) && Exponent <= 0xFFFFFFFFu && BN_bn2bin(N, Modulus) == Size &&
           EmuRsaSetPublicKey(Key, Modulus, static_cast<UINT32>(Size), static_cast<UINT32>(Exponent));
    Error = Done ? "" : "the key's modulus (" + std::to_string(Size * 8) + " bits) or exponent is not supported";
  } else {
    Error = "cannot read the RSA key's parameters: " + OpenSslError();
  }
  BN_free(N);
  BN_free(E);
  return Done;
}

bool DetachedSignatureInput(const std::vector<uint8_t> &Image, std::vector<uint8_t> &Input, std::string &Error) {
  const uint64_t Offset =
      static_cast<uint32_t>(kReferenceConfig.SignatureExcludedBase - kReferenceConfig.PcdFlashBase) +
      static_cast<uint64_t>(kReferenceConfig.ImageFlashOffset);
  if (!Fits(Offset, kReferenceConfig.SignatureExcludedSize, Image.size())) {
    Error = "the image (" + std::to_string(Image.size()) + " bytes) does not contain the signature's excluded area";
    return false;
  }
  Input = Image;
  std::memset(Input.data() + Offset, 0xFF, kReferenceConfig.SignatureExcludedSize);
  return true;
}

bool SignImage(std::vector<uint8_t> &Image, const std::string &PrivateKeyPem, std::vector<uint8_t> &DetachedSignature,
               std::string &Error, SignImageReport *Report) {
  SignImageReport Local;
  SignImageReport &Result = Report != nullptr ? *Report : Local;
  Result = {};
  Error.clear();
  std::vector<uint8_t> Signed = Image;  // the caller's image changes only when every step succeeds
  std::vector<uint8_t> Input;
  if (!LoadRsaKey(PrivateKeyPem, true, Error) || !DetachedSignatureInput(Signed, Input, Error)) {
    return false;
  }
  const size_t SignatureSize = RsaSignatureSize(PrivateKeyPem, Error);

  std::string Note;
  switch (SignFirmwareVolume(Signed, PrivateKeyPem, SignatureSize, Note, Error)) {
  case Step::Failed:
    return false;
  case Step::Skipped:
    Result.Skipped += "firmware-volume signature skipped: " + Note + "\n";
    break;
  case Step::Signed:
    Result.FvSignatureWritten = true;
    break;
  }
  switch (SignFlashMap(Signed, PrivateKeyPem, SignatureSize, Note, Error)) {
  case Step::Failed:
    return false;
  case Step::Skipped:
    Result.Skipped += "flash-map signature skipped: " + Note + "\n";
    break;
  case Step::Signed:
    Result.FlashMapSignatureWritten = true;
    break;
  }
  if (!DetachedSignatureInput(Signed, Input, Error) || !RsaSignSha256(Input, PrivateKeyPem, DetachedSignature, Error)) {
    return false;
  }
  Image = std::move(Signed);
  return true;
}
