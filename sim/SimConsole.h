// A text console and a graphics output with configurable modes, for tests that read what
// the screen shows and which modes were set. Install() makes the console the system
// table's ConOut and puts both protocols on a handle, so that LocateProtocol and
// LocateHandleBuffer find them; the destructor gives the system table its ConOut back.
#pragma once
#include <set>
#include <string>
#include <vector>

#include "SimUefi.h"

struct SimTextMode {
  UINTN Columns;
  UINTN Rows;
};

struct SimGraphicsMode {
  UINT32 Width;
  UINT32 Height;
};

// One OutputString: the text and the cursor position it started at.
struct SimConsoleString {
  std::u16string Text;
  INT32 Column;
  INT32 Row;
  bool operator==(const SimConsoleString &) const = default;
};

class SimConsole {
public:
  // Text mode 0 and graphics mode 0 are current at first. No graphics modes: no graphics
  // output protocol is installed.
  SimConsole(SimUefi &Sim, std::vector<SimTextMode> TextModes, std::vector<SimGraphicsMode> GraphicsModes);
  ~SimConsole();
  SimConsole(const SimConsole &) = delete;
  SimConsole &operator=(const SimConsole &) = delete;

  void Install();

  SIMPLE_TEXT_OUTPUT_INTERFACE *TextOut() { return &Text_.Interface; }
  EFI_GRAPHICS_OUTPUT_PROTOCOL *Graphics() { return &Graphics_.Interface; }
  INT32 TextMode() const { return TextMode_.Mode; }
  UINT32 GraphicsMode() const { return GraphicsMode_.Mode; }
  // Row R of the screen as it shows now (blank cells are spaces).
  std::u16string ScreenRow(UINTN Row) const;

  // Mode numbers whose QueryMode fails with EFI_DEVICE_ERROR.
  std::set<UINTN> FailingTextQueries;
  std::set<UINT32> FailingGraphicsQueries;

  // What the driver did, in order.
  std::vector<SimConsoleString> Strings;
  std::vector<UINTN> TextModesSet;
  std::vector<UINT32> GraphicsModesSet;

  // Service implementations (called from the EFIAPI thunks).
  EFI_STATUS DoTextQueryMode(UINTN Mode, UINTN *Columns, UINTN *Rows);
  EFI_STATUS DoTextSetMode(UINTN Mode);
  EFI_STATUS DoClearScreen();
  EFI_STATUS DoSetCursorPosition(UINTN Column, UINTN Row);
  EFI_STATUS DoEnableCursor(BOOLEAN Visible);
  EFI_STATUS DoOutputString(const CHAR16 *Text);
  EFI_STATUS DoGraphicsQueryMode(UINT32 Mode, UINTN *SizeOfInfo, EFI_GRAPHICS_OUTPUT_MODE_INFORMATION **Info);
  EFI_STATUS DoGraphicsSetMode(UINT32 Mode);

private:
  friend struct SimConsoleThunks;
  // The interfaces carry their owner right behind them, so a thunk finds it from This.
  struct TextOutWithOwner {
    SIMPLE_TEXT_OUTPUT_INTERFACE Interface;
    SimConsole *Owner;
  };
  struct GraphicsWithOwner {
    EFI_GRAPHICS_OUTPUT_PROTOCOL Interface;
    SimConsole *Owner;
  };

  SimUefi &Sim_;
  std::vector<SimTextMode> TextModes_;
  std::vector<SimGraphicsMode> GraphicsModes_;
  TextOutWithOwner Text_{};
  SIMPLE_TEXT_OUTPUT_MODE TextMode_{};
  GraphicsWithOwner Graphics_{};
  EFI_GRAPHICS_OUTPUT_PROTOCOL_MODE GraphicsMode_{};
  EFI_GRAPHICS_OUTPUT_MODE_INFORMATION GraphicsInfo_{};
  std::vector<std::u16string> Screen_;
  SIMPLE_TEXT_OUTPUT_INTERFACE *SavedConOut_ = nullptr;
};
