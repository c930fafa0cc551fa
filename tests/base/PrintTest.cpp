// The print subset the driver formats paths and progress text with.
#include "../../src/base/Char16.h"
#include "../../src/base/Print.h"
#include <gtest/gtest.h>

#include <string>

namespace {

std::u16string Wide(const CHAR16 *Text) {
  std::u16string Result;
  while (*Text != 0) {
    Result.push_back(static_cast<char16_t>(*Text++));
  }
  return Result;
}

TEST(Print, DirectivesOfTheDriverFormatAsExpected) {
  CHAR16 Buffer[128];
  UnicodeSPrint(Buffer, sizeof(Buffer), "%s\\BIOS\\New\\%s.bin"_u16, "FS0:"_u16, "ZQ"_u16);
  EXPECT_EQ(Wide(Buffer), u"FS0:\\BIOS\\New\\ZQ.bin");

  CHAR8 Ascii[128];
  AsciiSPrint(Ascii, sizeof(Ascii), "%a=%d%% %x %X %08x %lx %c", "rate", 42, 0xBEEFu, 0xBEEFu, 0x1Fu,
              0x123456789ABCull, 'z');
  EXPECT_STREQ(reinterpret_cast<char *>(Ascii), "rate=42% beef BEEF 0000001f 123456789abc z");

  AsciiSPrint(Ascii, sizeof(Ascii), "%d %d %u", -1, 0x80000000u, 0xFFFFFFFFu);
  EXPECT_STREQ(reinterpret_cast<char *>(Ascii), "-1 -2147483648 4294967295");

  AsciiSPrint(Ascii, sizeof(Ascii), "%a|%s|%q", static_cast<const char *>(nullptr),
              static_cast<const CHAR16 *>(nullptr));
  EXPECT_STREQ(reinterpret_cast<char *>(Ascii), "<null string>|<null string>|%q") << "null strings, unknown directive";
}

TEST(Print, BufferSizeIsInBytesAndOutputAlwaysTerminated) {
  CHAR16 Buffer[8];
  for (CHAR16 &Character : Buffer) {
    Character = 0x5A5A;
  }
  // 10 bytes hold four characters and the terminator.
  UINTN Count = UnicodeSPrint(Buffer, 10, "%a"_u16, "ABCDEFGH");
  EXPECT_EQ(Count, 4u);
  EXPECT_EQ(Wide(Buffer), u"ABCD");
  EXPECT_EQ(Buffer[5], 0x5A5A) << "nothing written past the buffer size";

  CHAR8 Ascii[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(AsciiSPrint(Ascii, 0, "%a", "abc"), 0u);
  EXPECT_EQ(Ascii[0], 'x');
  EXPECT_EQ(AsciiSPrint(Ascii, 1, "%a", "abc"), 0u);
  EXPECT_EQ(Ascii[0], 0);
}

}  // namespace
