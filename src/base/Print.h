// Formatting into caller buffers with the EDK II print-library conventions:
// buffer sizes in bytes, the result always NUL-terminated when the buffer has room
// for one character, the count of characters written (without the NUL) returned.
// Directives: %a (ASCII string), %s (UTF-16 string), %c, %d, %i, %u, %x, %X, %p, %g (GUID), %%;
// flags '0' and '-', a width (digits or '*') and 'l'/'L' for 64-bit integers.
// Without 'l' an integer argument is read as 32 bits, so a 64-bit status prints its low half.
#pragma once
#include "Uefi.h"

UINTN EFIAPI UnicodeSPrint(CHAR16 *StartOfBuffer, UINTN BufferSize, const CHAR16 *FormatString, ...);
UINTN EFIAPI AsciiSPrint(CHAR8 *StartOfBuffer, UINTN BufferSize, const char *FormatString, ...);
UINTN UnicodeVSPrint(CHAR16 *StartOfBuffer, UINTN BufferSize, const CHAR16 *FormatString, VA_LIST Marker);
UINTN AsciiVSPrint(CHAR8 *StartOfBuffer, UINTN BufferSize, const char *FormatString, VA_LIST Marker);
// Unicode output from an ASCII format (used by consoles that print trace formats).
UINTN UnicodeVSPrintAsciiFormat(CHAR16 *StartOfBuffer, UINTN BufferSize, const char *FormatString,
                                VA_LIST Marker);
