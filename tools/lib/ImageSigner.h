// Signing of update images with RSA PKCS#1 v1.5 over SHA-256 (libcrypto). An image carries
// three signatures, made in this order because each later one covers the earlier:
//  1. the firmware-volume signature: over the signed FV file (gSignedFvFileGuid, header
//     included), stored in the data of the first section of the signature file
//     (gFvSignatureFileGuid), found by the same volume walk the driver does;
//  2. the flash-map signature: over the five signed regions named by the "QFDM" record,
//     concatenated as the driver does, stored in the gQfdmSignatureRecordGuid record inside
//     the flash map's signature entry area;
//  3. the detached signature: over the whole image with the excluded area read as 0xFF.
// Keys are PEM text or the path of a PEM file (anything not starting with "-----BEGIN").
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "../../emu/EmuRsa.h"

struct SignImageReport {
  bool FvSignatureWritten = false;
  bool FlashMapSignatureWritten = false;
  std::string Skipped;  // why a step found nothing to sign, one line per skipped step
};

// Writes the embedded signatures into Image and makes the detached signature. A step whose
// structure the image does not carry is skipped (reported in Report) and the others go on;
// FALSE with Error for a bad key, a structure that is present but malformed (signature room
// of the wrong length, regions outside the image) or an image too short for the excluded area.
bool SignImage(std::vector<uint8_t> &Image, const std::string &PrivateKeyPem, std::vector<uint8_t> &DetachedSignature,
               std::string &Error, SignImageReport *Report = nullptr);

bool RsaSignSha256(const std::vector<uint8_t> &Data, const std::string &PrivateKeyPem,
                   std::vector<uint8_t> &Signature, std::string &Error);
// TRUE when Signature is good for Data under the key (a PEM public or private key); a bad
// signature leaves Error empty, a key that cannot be used sets it.
bool RsaVerifySha256(const std::vector<uint8_t> &Data, const std::string &KeyPem,
                     const std::vector<uint8_t> &Signature, std::string &Error);
// The public half of a PEM key (public or private) as the emulated verifier holds it.
bool RsaPublicKeyFromPem(const std::string &KeyPem, EmuRsaPublicKey &Key, std::string &Error);
// Bytes of a signature made with the key (the modulus length); 0 with Error when unusable.
size_t RsaSignatureSize(const std::string &KeyPem, std::string &Error);

// The detached signature's input: a copy of Image with the excluded area set to 0xFF.
// FALSE when the area does not lie inside the image.
bool DetachedSignatureInput(const std::vector<uint8_t> &Image, std::vector<uint8_t> &Input, std::string &Error);
