#include "RunScenario.h"

namespace {

struct Cursor {
  const CHAR8 *At;
  const CHAR8 *End;
};

bool IsBlank(CHAR8 Char) { return Char == ' ' || Char == '\t' || Char == '\r'; }

// The next word of the line, or an empty word at its end.
struct Word {
  const CHAR8 *Text;
  UINTN Length;
  bool Is(const char *Literal) const {
    UINTN Index = 0;
    for (; Literal[Index] != 0; Index++) {
      if (Index >= Length || Text[Index] != Literal[Index]) {
        return false;
      }
    }
    return Index == Length;
  }
};

Word NextWord(Cursor &Line) {
  while (Line.At < Line.End && IsBlank(*Line.At)) {
    Line.At++;
  }
  Word Result = {Line.At, 0};
  while (Line.At < Line.End && !IsBlank(*Line.At)) {
    Line.At++;
    Result.Length++;
  }
  return Result;
}

bool Number(const Word &Text, UINT32 Base, UINT64 Limit, UINT64 &Value) {
  if (Text.Length == 0 || Text.Length > 16) {
    return false;
  }
  Value = 0;
  for (UINTN Index = 0; Index < Text.Length; Index++) {
    CHAR8 Char = Text.Text[Index];
    UINT32 Digit = Char >= '0' && Char <= '9'   ? static_cast<UINT32>(Char - '0')
                   : Char >= 'a' && Char <= 'f' ? static_cast<UINT32>(Char - 'a' + 10)
                   : Char >= 'A' && Char <= 'F' ? static_cast<UINT32>(Char - 'A' + 10)
                                                : 99;
    if (Digit >= Base) {
      return false;
    }
    Value = Value * Base + Digit;
  }
  return Value <= Limit;
}

bool Flag(const Word &Text, const char *Yes, const char *No, BOOLEAN &Value) {
  if (Text.Is(Yes)) {
    Value = TRUE;
    return true;
  }
  if (Text.Is(No)) {
    Value = FALSE;
    return true;
  }
  return false;
}

bool ParseLine(Cursor Line, RunScenario &Scenario) {
  const Word Key = NextWord(Line);
  if (Key.Length == 0 || Key.Text[0] == '#') {
    return true;
  }
  const Word Value = NextWord(Line);
  bool Understood = false;
  if (Key.Is("mode")) {
    Understood = Flag(Value, "recovery", "normal", Scenario.Recovery);
  } else if (Key.Is("layout")) {
    Understood = Flag(Value, "tracked", "untracked", Scenario.RegionTracked);
  } else if (Key.Is("image")) {
    Understood = Flag(Value, "tampered", "new", Scenario.Tampered);
  } else if (Key.Is("staging")) {
    Understood = Flag(Value, "1", "0", Scenario.Staging);
  } else if (Key.Is("power-cut")) {
    Understood = Number(Value, 10, 0xFFFFFFFFull, Scenario.PowerCutAt);
  } else if (Key.Is("ext-cmos")) {
    UINT64 Index = 0, Byte = 0;
    Understood = Scenario.ExtendedCmosCount < RunScenario::kMaxCmosBytes && Number(Value, 16, 0xFF, Index) &&
                 Number(NextWord(Line), 16, 0xFF, Byte);
    if (Understood) {
      Scenario.ExtendedCmos[Scenario.ExtendedCmosCount++] = {static_cast<UINT8>(Index), static_cast<UINT8>(Byte)};
    }
  }
  return Understood && NextWord(Line).Length == 0;
}

}  // namespace

BOOLEAN ParseRunScenario(const CHAR8 *Text, UINTN Size, RunScenario &Scenario, UINTN &BadLine) {
  const CHAR8 *End = Text + Size;
  UINTN LineNumber = 0;
  for (const CHAR8 *Start = Text; Start < End;) {
    const CHAR8 *Stop = Start;
    while (Stop < End && *Stop != '\n') {
      Stop++;
    }
    LineNumber++;
    if (!ParseLine({Start, Stop}, Scenario)) {
      BadLine = LineNumber;
      return FALSE;
    }
    Start = Stop + 1;
  }
  return TRUE;
}
