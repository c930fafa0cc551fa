// The build's test signing keys: PEM private keys generated into the build directory (never
// committed) for key selectors 1 and 0, and a third key the platform does not know. Host
// tests install the first two into the emulated verifier with OpenSSL as its RSA check.
#pragma once
#include <string>

#include "../../emu/EmuPlatform.h"

enum class TestSigningKey { Selector1, Selector0, Foreign };

// Path of the key's PEM file in the build's key directory.
std::string TestSigningKeyPath(TestSigningKey Key);
// Loads the selector keys (once per process) into Platform's verifier and makes it check with
// OpenSSL; FALSE with Error when a key file cannot be read.
bool InstallTestSignatureKeys(EmuPlatform &Platform, std::string &Error);
