// Debug codes reach the hook, the debug port, standard CMOS and the on-screen display; the
// display fixes the screen modes while it runs and gives the largest ones back at its end.
#include <tuple>

#include "../../sim/SimConsole.h"
#include "../../src/base/Guids.h"
#include "../../src/driver/CallbackHub.h"
#include "../../src/driver/Config.h"
#include "../../src/platform/DebugCode.h"
#include "../support/PlatformFixture.h"

namespace {

using PortWrites = std::vector<std::tuple<UINT16, UINT8, UINT32>>;  // port, width, value

// Mode 1 is the largest text mode but the end of the display only considers modes from 2
// on; the repeated modes tell "the first one" and "strictly larger" apart.
const std::vector<SimTextMode> kTextModes = {{80, 25}, {200, 64}, {100, 31}, {128, 40}, {160, 50}, {128, 40}};
const std::vector<SimGraphicsMode> kGraphicsModes = {{800, 600},  {1280, 1024}, {1024, 768},
                                                     {1024, 768}, {1920, 1080}, {1920, 1080}};

// A hook of another driver that answers "taken" to every debug code.
VOID EFIAPI TakeCodeOver(UINTN, HookEntry *) {
  static_cast<HookRecordHeader *>(HookFind(&gDebugCodeHookGuid)->CurrentRecord)->Status = 1;
}

class DebugCodeOutput : public PlatformFixture {
protected:
  explicit DebugCodeOutput(std::vector<SimTextMode> TextModes = kTextModes)
      : Console(Sim, std::move(TextModes), kGraphicsModes) {
    UINT8 Present = 1;
    Hobs.AddGuidHob(gDebugCodeDisplayHobGuid, &Present, sizeof(Present));
  }
  void SetUp() override {
    ASSERT_EQ(StartDriver(), EFI_SUCCESS);
    Console.Install();
    Platform->ClearPortLog();
    Platform->ClearCalls();
  }

  PortWrites Writes() const {
    PortWrites Result;
    for (UINTN Index = 0; Index < Platform->PortLogCount; Index++) {
      const EmuPortAccess &Access = Platform->PortLog[Index];
      if (Access.Write) {
        Result.emplace_back(Access.Port, Access.Width, Access.Value);
      }
    }
    return Result;
  }
  // The Start argument of every SetDebugCodeDisplay, checking it was handed the console.
  std::vector<UINT64> DisplayAnnouncements() {
    std::vector<UINT64> Starts;
    for (const EmuCall &Call : CallsNamed("SetDebugCodeDisplay")) {
      EXPECT_EQ(Call.Arguments[0], reinterpret_cast<UINT64>(Console.TextOut()));
      Starts.push_back(Call.Arguments[1]);
    }
    return Starts;
  }
  const SimVariable *DisplayVariable() const { return Sim.FindVariable(u"Q42DebugCode", gPlatformVariableGuid); }

  SimConsole Console;
};

class DebugCodeOnTwoModeConsole : public DebugCodeOutput {
protected:
  DebugCodeOnTwoModeConsole() : DebugCodeOutput({{80, 25}, {128, 40}}) {}
};

TEST_F(DebugCodeOutput, EachCodeGoesToThePortAsAWordToCmosAsItsLowByteAndOnScreen) {
  struct Case {
    UINT32 Code;
    UINT32 PortValue;
    UINT8 CmosValue;
    const char16_t *Shown;
  };
  for (const Case &Row : {Case{0xF1, 0x2F1, 0xF1, u"F1"}, Case{0x1F0, 0x3F0, 0xF0, u"F0"}, Case{0x0A, 0x20A, 0x0A, u"0A"}}) {
    SCOPED_TRACE(Row.Code);
    Platform->ClearPortLog();
    Platform->CmosIndexRegister = 0x80;  // the NMI mask is not kept for this copy
    EXPECT_EQ(OutputDebugCode(Row.Code), Row.Code);
    EXPECT_EQ(Writes(), (PortWrites{{0x80, 4, Row.PortValue}, {0x70, 1, 0x73}, {0x71, 1, Row.CmosValue}}));
    ASSERT_FALSE(Console.Strings.empty());
    EXPECT_EQ(Console.Strings.back().Text, Row.Shown);
  }

  gConfig.DebugCodeCmosCopyEnabled = FALSE;
  gConfig.DebugCodePort = 0x84;
  Platform->ClearPortLog();
  OutputDebugCode(0xE1);
  EXPECT_EQ(Writes(), (PortWrites{{0x84, 4, 0x2E1}}));
}

TEST_F(DebugCodeOutput, AHookThatTakesTheCodeLeavesEveryOtherSinkAlone) {
  gConfig.DebugCodeHookEnabled = TRUE;
  OutputDebugCode(0xF0);  // the first signal creates the hook point, and nobody answers yet
  EXPECT_EQ(Writes().size(), 3u);

  HookEntry Entry = {};
  Entry.Callback = TakeCodeOver;
  LIST_ENTRY &Head = HookFind(&gDebugCodeHookGuid)->Lists[0];
  Entry.Link = {&Head, &Head};
  Head.Flink = Head.Blink = &Entry.Link;
  Platform->ClearPortLog();
  size_t Shown = Console.Strings.size();

  EXPECT_EQ(OutputDebugCode(0xFB), 0xFBu);
  Head.Flink = Head.Blink = &Head;
  EXPECT_TRUE(Writes().empty());
  EXPECT_EQ(Console.Strings.size(), Shown);
  EXPECT_EQ(DisplayVariable()->Data, std::vector<uint8_t>{0x11}) << "the closing code never arrived";
  EXPECT_EQ(Sim.StalledMicroseconds(), 0u);
}

TEST_F(DebugCodeOutput, DisplayFixesTheModesShowsTopRightAndGivesTheLargestModesBackAtItsEnd) {
  Console.FailingGraphicsQueries = {0};
  Console.FailingTextQueries = {4};
  OutputDebugCode(0xF0);
  ASSERT_NE(DisplayVariable(), nullptr);
  EXPECT_EQ(DisplayVariable()->Attributes, EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS);
  EXPECT_EQ(DisplayVariable()->Data, std::vector<uint8_t>{0x11});
  EXPECT_EQ(DisplayAnnouncements(), std::vector<UINT64>{TRUE});
  EXPECT_EQ(Console.GraphicsModesSet, std::vector<UINT32>{2}) << "the first 1024 x 768 mode";
  EXPECT_EQ(Console.TextModesSet, std::vector<UINTN>{3}) << "128 x 40";
  EXPECT_EQ(Console.ScreenRow(0), std::u16string(113, u' ') + u"Debug code = F0");
  EXPECT_FALSE(Console.TextOut()->Mode->CursorVisible);

  OutputDebugCode(0xE0);
  EXPECT_EQ(Console.GraphicsModesSet.size() + Console.TextModesSet.size(), 2u) << "modes already right are left alone";
  EXPECT_EQ(Console.ScreenRow(0).substr(113), u"Debug code = E0");

  OutputDebugCode(0xFB);
  EXPECT_EQ(DisplayVariable()->Data, std::vector<uint8_t>{0});
  EXPECT_EQ(Sim.StalledMicroseconds(), 5000000u);
  EXPECT_EQ(DisplayAnnouncements(), (std::vector<UINT64>{TRUE, FALSE}));
  EXPECT_EQ(Console.GraphicsModesSet, (std::vector<UINT32>{2, 4})) << "1920 x 1080";
  EXPECT_EQ(Console.TextModesSet, (std::vector<UINTN>{3, 3})) << "the largest from mode 2 on that answers";
  EXPECT_EQ(Console.Strings.back().Text, u"FB") << "the closing code is shown before the display ends";

  size_t Shown = Console.Strings.size();
  OutputDebugCode(0xF1);
  EXPECT_EQ(Console.Strings.size(), Shown) << "the display stays off for the rest of the boot";
}

TEST_F(DebugCodeOnTwoModeConsole, ClosingCode34GoesBackToTextModeZero) {
  OutputDebugCode(0x34);
  EXPECT_EQ(Console.TextModesSet, (std::vector<UINTN>{1, 0}));
  EXPECT_EQ(Console.Strings.back().Text, u"34");
  EXPECT_EQ(Sim.StalledMicroseconds(), 5000000u);
  EXPECT_EQ(DisplayAnnouncements(), (std::vector<UINT64>{TRUE, FALSE}));
}

}  // namespace
