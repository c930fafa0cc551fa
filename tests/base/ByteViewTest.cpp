// The checked view every parser of untrusted bytes reads through.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "../../src/base/ByteView.h"

namespace {

TEST(ByteView, ReadsInsideAndRefusesOutsideWithoutTouchingTheResult) {
  const UINT8 Bytes[] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99};
  ByteView View(Bytes, sizeof(Bytes));

  UINT32 Value32 = 0;
  EXPECT_TRUE(View.Read32(1, Value32));
  EXPECT_EQ(Value32, 0x55443322u) << "little-endian and unaligned";

  constexpr UINTN kMax = std::numeric_limits<UINTN>::max();
  for (UINTN Offset : {UINTN(6), UINTN(9), UINTN(10), kMax - 3, kMax}) {
    Value32 = 0xDEADBEEF;
    EXPECT_FALSE(View.Read32(Offset, Value32)) << Offset;
    EXPECT_EQ(Value32, 0xDEADBEEFu) << "a failed read changes nothing";
  }
  EXPECT_FALSE(View.Contains(1, kMax)) << "no wrap-around of offset + length";

  ByteView Inner;
  EXPECT_TRUE(View.Sub(2, 4, Inner));
  UINT8 Byte = 0;
  EXPECT_TRUE(Inner.Read8(3, Byte));
  EXPECT_EQ(Byte, 0x66);
  EXPECT_FALSE(Inner.Read8(4, Byte)) << "a sub-view is bounded by its own size";

  EXPECT_TRUE(ByteView(nullptr, 100).Empty()) << "no data means no size";
}

}  // namespace
