// The build's test signing keys: PEM private keys generated into the build directory (never
// committed) for key selectors 1 and 0, and a third key the platform does not know. Host
// tests install the first two into the emulated verifier with OpenSSL as its RSA check.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "../../emu/EmuPlatform.h"

enum class TestSigningKey { Selector1, Selector0, Foreign };

// Path of the key's PEM file in the build's key directory.
std::string TestSigningKeyPath(TestSigningKey Key);
// Signs Image with one of the build's keys (embedded signatures written into it); FALSE with
// Error when the image cannot be signed.
bool SignWithTestKey(std::vector<uint8_t> &Image, std::vector<uint8_t> &Signature, std::string &Error,
                     TestSigningKey Key = TestSigningKey::Selector1);
// Loads the selector keys (once per process) into Platform's verifier and makes it check with
// OpenSSL; FALSE with Error when a key file cannot be read.
bool InstallTestSignatureKeys(EmuPlatform &Platform, std::string &Error);
