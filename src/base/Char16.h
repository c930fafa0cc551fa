// UTF-16 strings from ASCII literals: "ZQ_TOOLS"_u16 is a constant CHAR16 array
// in read-only data (no dynamic initialisation, no casts at call sites).
#pragma once
#include "Uefi.h"

namespace detail {
template <UINTN N> struct AsciiLiteral {
  char Text[N];
  constexpr AsciiLiteral(const char (&Source)[N]) {
    for (UINTN Index = 0; Index < N; Index++) {
      Text[Index] = Source[Index];
    }
  }
};

template <AsciiLiteral Literal> struct Utf16Literal {
  static constexpr UINTN Length = sizeof(Literal.Text);
  static constexpr auto Make() {
    struct Array {
      CHAR16 Chars[Length];
    } Result{};
    for (UINTN Index = 0; Index < Length; Index++) {
      Result.Chars[Index] = static_cast<CHAR16>(static_cast<unsigned char>(Literal.Text[Index]));
    }
    return Result;
  }
  static constexpr auto Storage = Make();
};
}  // namespace detail

template <detail::AsciiLiteral Literal> constexpr const CHAR16 *operator""_u16() {
  return detail::Utf16Literal<Literal>::Storage.Chars;
}
