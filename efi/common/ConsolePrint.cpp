#include "ConsolePrint.h"

#include "../../src/base/Globals.h"
#include "../../src/base/Print.h"

void ConsolePrint(const char *Format, ...) {
  CHAR16 Line[512];
  VA_LIST Arguments;
  VA_START(Arguments, Format);
  UnicodeVSPrintAsciiFormat(Line, sizeof(Line), Format, Arguments);
  VA_END(Arguments);
  gST->ConOut->OutputString(gST->ConOut, Line);
}
