// Formatted text on the firmware console (ConOut): the base library's format directives
// (%a ASCII, %s UTF-16, %d %u %x with l for 64-bit values).
#pragma once
#include "../../src/base/Uefi.h"

void ConsolePrint(const char *Format, ...) __attribute__((ms_abi));
