#include "Print.h"

#include <type_traits>

#include "BaseLib.h"

namespace {

// Longest text one directive produces from a number: 64-bit decimal with sign, or a GUID.
constexpr UINTN kMaxNumberText = 40;

template <typename OutChar> class BoundedWriter {
public:
  BoundedWriter(OutChar *Buffer, UINTN BufferSize) : Buffer_(Buffer) {
    Capacity_ = (Buffer == nullptr) ? 0 : BufferSize / sizeof(OutChar);
  }

  void Put(UINT32 Character) {
    // One slot stays reserved for the terminating NUL.
    if (Capacity_ != 0 && Count_ + 1 < Capacity_) {
      Buffer_[Count_++] = static_cast<OutChar>(Character);
    }
  }

  UINTN Finish() {
    if (Capacity_ != 0) {
      Buffer_[Count_] = 0;
    }
    return Count_;
  }

private:
  OutChar *Buffer_;
  UINTN Capacity_ = 0;
  UINTN Count_ = 0;
};

template <typename Char> UINT32 AsUnsigned(Char Character) {
  return static_cast<UINT32>(static_cast<std::make_unsigned_t<Char>>(Character));
}

UINTN FormatUnsigned(CHAR8 *Text, UINT64 Value, UINT32 Base, bool UpperCase) {
  const char *Digits = UpperCase ? "0123456789ABCDEF" : "0123456789abcdef";
  CHAR8 Reversed[kMaxNumberText];
  UINTN Length = 0;
  do {
    Reversed[Length++] = static_cast<CHAR8>(Digits[Value % Base]);
    Value /= Base;
  } while (Value != 0);
  for (UINTN Index = 0; Index < Length; Index++) {
    Text[Index] = Reversed[Length - 1 - Index];
  }
  return Length;
}

UINTN FormatGuid(CHAR8 *Text, const EFI_GUID *Guid) {
  // 8-4-4-4-12 lower-case hexadecimal, the registry form.
  UINTN Length = 0;
  auto Hex = [&](UINT64 Value, UINTN Digits) {
    for (UINTN Index = 0; Index < Digits; Index++) {
      UINT32 Nibble = (Value >> (4 * (Digits - 1 - Index))) & 0xF;
      Text[Length++] = static_cast<CHAR8>("0123456789abcdef"[Nibble]);
    }
  };
  Hex(Guid->Data1, 8);
  Text[Length++] = '-';
  Hex(Guid->Data2, 4);
  Text[Length++] = '-';
  Hex(Guid->Data3, 4);
  Text[Length++] = '-';
  Hex(Guid->Data4[0], 2);
  Hex(Guid->Data4[1], 2);
  Text[Length++] = '-';
  for (UINTN Index = 2; Index < 8; Index++) {
    Hex(Guid->Data4[Index], 2);
  }
  return Length;
}

template <typename OutChar, typename FormatChar>
UINTN FormatCore(OutChar *Buffer, UINTN BufferSize, const FormatChar *Format, VA_LIST Marker) {
  BoundedWriter<OutChar> Out(Buffer, BufferSize);
  if (Format == nullptr) {
    return Out.Finish();
  }

  for (const FormatChar *Cursor = Format; *Cursor != 0; Cursor++) {
    if (*Cursor != '%') {
      Out.Put(AsUnsigned(*Cursor));
      continue;
    }

    bool ZeroPad = false;
    bool LeftAlign = false;
    bool Long = false;
    UINTN Width = 0;
    Cursor++;
    for (;; Cursor++) {
      if (*Cursor == '0' && Width == 0) {
        ZeroPad = true;
      } else if (*Cursor == '-') {
        LeftAlign = true;
      } else if (*Cursor >= '1' && *Cursor <= '9') {
        while (*Cursor >= '0' && *Cursor <= '9') {
          Width = Width * 10 + static_cast<UINTN>(*Cursor - '0');
          Cursor++;
        }
        Cursor--;
      } else if (*Cursor == '*') {
        Width = VA_ARG(Marker, UINTN);
      } else if (*Cursor == 'l' || *Cursor == 'L') {
        Long = true;
      } else {
        break;
      }
    }
    if (*Cursor == 0) {
      break;
    }

    CHAR8 Number[kMaxNumberText];
    UINTN NumberLength = 0;
    const CHAR8 *AsciiText = nullptr;
    const CHAR16 *UnicodeText = nullptr;
    bool Negative = false;

    switch (*Cursor) {
    case '%':
      Out.Put('%');
      continue;
    case 'c':
      Number[0] = static_cast<CHAR8>(VA_ARG(Marker, UINTN) & 0xFF);
      NumberLength = 1;
      break;
    case 'a':
      AsciiText = VA_ARG(Marker, const CHAR8 *);
      if (AsciiText == nullptr) {
        AsciiText = reinterpret_cast<const CHAR8 *>("<null string>");
      }
      break;
    case 's':
    case 'S':
      UnicodeText = VA_ARG(Marker, const CHAR16 *);
      if (UnicodeText == nullptr) {
        AsciiText = reinterpret_cast<const CHAR8 *>("<null string>");
      }
      break;
    case 'd':
    case 'i': {
      INT64 Value = Long ? VA_ARG(Marker, INT64) : static_cast<INT32>(VA_ARG(Marker, UINT64) & 0xFFFFFFFFu);
      Negative = Value < 0;
      UINT64 Magnitude = Negative ? (0 - static_cast<UINT64>(Value)) : static_cast<UINT64>(Value);
      NumberLength = FormatUnsigned(Number, Magnitude, 10, false);
      break;
    }
    case 'u': {
      UINT64 Value = Long ? VA_ARG(Marker, UINT64) : (VA_ARG(Marker, UINT64) & 0xFFFFFFFFu);
      NumberLength = FormatUnsigned(Number, Value, 10, false);
      break;
    }
    case 'x':
    case 'X': {
      UINT64 Value = Long ? VA_ARG(Marker, UINT64) : (VA_ARG(Marker, UINT64) & 0xFFFFFFFFu);
      NumberLength = FormatUnsigned(Number, Value, 16, *Cursor == 'X');
      break;
    }
    case 'p':
      NumberLength = FormatUnsigned(Number, reinterpret_cast<UINTN>(VA_ARG(Marker, VOID *)), 16, true);
      ZeroPad = true;
      Width = 16;
      break;
    case 'g': {
      const EFI_GUID *Guid = VA_ARG(Marker, const EFI_GUID *);
      if (Guid == nullptr) {
        AsciiText = reinterpret_cast<const CHAR8 *>("<null guid>");
      } else {
        NumberLength = FormatGuid(Number, Guid);
      }
      break;
    }
    default:
      // An unknown directive is copied as it stands.
      Out.Put('%');
      Out.Put(AsUnsigned(*Cursor));
      continue;
    }

    UINTN TextLength;
    if (AsciiText != nullptr) {
      TextLength = AsciiStrLen(AsciiText);
    } else if (UnicodeText != nullptr) {
      TextLength = StrLen(UnicodeText);
    } else {
      TextLength = NumberLength + (Negative ? 1 : 0);
    }
    UINTN Padding = (Width > TextLength) ? Width - TextLength : 0;
    bool Numeric = AsciiText == nullptr && UnicodeText == nullptr;

    if (!LeftAlign && !(ZeroPad && Numeric)) {
      for (UINTN Index = 0; Index < Padding; Index++) {
        Out.Put(' ');
      }
    }
    if (Negative) {
      Out.Put('-');
    }
    if (!LeftAlign && ZeroPad && Numeric) {
      for (UINTN Index = 0; Index < Padding; Index++) {
        Out.Put('0');
      }
    }
    if (AsciiText != nullptr) {
      for (UINTN Index = 0; Index < TextLength; Index++) {
        Out.Put(static_cast<UINT8>(AsciiText[Index]));
      }
    } else if (UnicodeText != nullptr) {
      for (UINTN Index = 0; Index < TextLength; Index++) {
        Out.Put(UnicodeText[Index]);
      }
    } else {
      for (UINTN Index = 0; Index < NumberLength; Index++) {
        Out.Put(static_cast<UINT8>(Number[Index]));
      }
    }
    if (LeftAlign) {
      for (UINTN Index = 0; Index < Padding; Index++) {
        Out.Put(' ');
      }
    }
  }
  return Out.Finish();
}

}  // namespace

UINTN UnicodeVSPrint(CHAR16 *StartOfBuffer, UINTN BufferSize, const CHAR16 *FormatString, VA_LIST Marker) {
  return FormatCore(StartOfBuffer, BufferSize, FormatString, Marker);
}

UINTN AsciiVSPrint(CHAR8 *StartOfBuffer, UINTN BufferSize, const char *FormatString, VA_LIST Marker) {
  return FormatCore(StartOfBuffer, BufferSize, FormatString, Marker);
}

UINTN UnicodeVSPrintAsciiFormat(CHAR16 *StartOfBuffer, UINTN BufferSize, const char *FormatString,
                                VA_LIST Marker) {
  return FormatCore(StartOfBuffer, BufferSize, FormatString, Marker);
}

UINTN EFIAPI UnicodeSPrint(CHAR16 *StartOfBuffer, UINTN BufferSize, const CHAR16 *FormatString, ...) {
  VA_LIST Marker;
  VA_START(Marker, FormatString);
  UINTN Count = UnicodeVSPrint(StartOfBuffer, BufferSize, FormatString, Marker);
  VA_END(Marker);
  return Count;
}

UINTN EFIAPI AsciiSPrint(CHAR8 *StartOfBuffer, UINTN BufferSize, const char *FormatString, ...) {
  VA_LIST Marker;
  VA_START(Marker, FormatString);
  UINTN Count = AsciiVSPrint(StartOfBuffer, BufferSize, FormatString, Marker);
  VA_END(Marker);
  return Count;
}
