// Names of EFI status codes, for what the tools print.
#pragma once
#include <string>

#include "../../src/base/Uefi.h"

// "EFI_SUCCESS", "EFI_SECURITY_VIOLATION", ...; a code without a name prints as
// "EFI error 0x...", "EFI warning 0x...".
std::string EfiStatusName(EFI_STATUS Status);
