#include "SimConsole.h"

#include <gtest/gtest.h>

#include "../src/base/Guids.h"

struct SimConsoleThunks {
  static SimConsole &Text(SIMPLE_TEXT_OUTPUT_INTERFACE *This) {
    return *reinterpret_cast<SimConsole::TextOutWithOwner *>(This)->Owner;
  }
  static SimConsole &Gop(EFI_GRAPHICS_OUTPUT_PROTOCOL *This) {
    return *reinterpret_cast<SimConsole::GraphicsWithOwner *>(This)->Owner;
  }

  static EFI_STATUS EFIAPI Reset(SIMPLE_TEXT_OUTPUT_INTERFACE *This, BOOLEAN) { return Text(This).DoClearScreen(); }
  static EFI_STATUS EFIAPI OutputString(SIMPLE_TEXT_OUTPUT_INTERFACE *This, CHAR16 *String) {
    return Text(This).DoOutputString(String);
  }
  static EFI_STATUS EFIAPI TestString(SIMPLE_TEXT_OUTPUT_INTERFACE *, CHAR16 *) { return EFI_SUCCESS; }
  static EFI_STATUS EFIAPI QueryMode(SIMPLE_TEXT_OUTPUT_INTERFACE *This, UINTN Mode, UINTN *Columns, UINTN *Rows) {
    return Text(This).DoTextQueryMode(Mode, Columns, Rows);
  }
  static EFI_STATUS EFIAPI SetMode(SIMPLE_TEXT_OUTPUT_INTERFACE *This, UINTN Mode) {
    return Text(This).DoTextSetMode(Mode);
  }
  static EFI_STATUS EFIAPI SetAttribute(SIMPLE_TEXT_OUTPUT_INTERFACE *This, UINTN Attribute) {
    This->Mode->Attribute = static_cast<INT32>(Attribute);
    return EFI_SUCCESS;
  }
  static EFI_STATUS EFIAPI ClearScreen(SIMPLE_TEXT_OUTPUT_INTERFACE *This) { return Text(This).DoClearScreen(); }
  static EFI_STATUS EFIAPI SetCursorPosition(SIMPLE_TEXT_OUTPUT_INTERFACE *This, UINTN Column, UINTN Row) {
    return Text(This).DoSetCursorPosition(Column, Row);
  }
  static EFI_STATUS EFIAPI EnableCursor(SIMPLE_TEXT_OUTPUT_INTERFACE *This, BOOLEAN Visible) {
    return Text(This).DoEnableCursor(Visible);
  }
  static EFI_STATUS EFIAPI GopQueryMode(EFI_GRAPHICS_OUTPUT_PROTOCOL *This, UINT32 Mode, UINTN *SizeOfInfo,
                                        EFI_GRAPHICS_OUTPUT_MODE_INFORMATION **Info) {
    return Gop(This).DoGraphicsQueryMode(Mode, SizeOfInfo, Info);
  }
  static EFI_STATUS EFIAPI GopSetMode(EFI_GRAPHICS_OUTPUT_PROTOCOL *This, UINT32 Mode) {
    return Gop(This).DoGraphicsSetMode(Mode);
  }
  static EFI_STATUS EFIAPI GopBlt(EFI_GRAPHICS_OUTPUT_PROTOCOL *, EFI_GRAPHICS_OUTPUT_BLT_PIXEL *,
                                  EFI_GRAPHICS_OUTPUT_BLT_OPERATION, UINTN, UINTN, UINTN, UINTN, UINTN, UINTN, UINTN) {
    return EFI_UNSUPPORTED;
  }
};

SimConsole::SimConsole(SimUefi &Sim, std::vector<SimTextMode> TextModes, std::vector<SimGraphicsMode> GraphicsModes)
    : Sim_(Sim), TextModes_(std::move(TextModes)), GraphicsModes_(std::move(GraphicsModes)) {
  static_assert(offsetof(TextOutWithOwner, Interface) == 0 && offsetof(GraphicsWithOwner, Interface) == 0);

  SIMPLE_TEXT_OUTPUT_INTERFACE &Text = Text_.Interface;
  Text.Reset = SimConsoleThunks::Reset;
  Text.OutputString = SimConsoleThunks::OutputString;
  Text.TestString = SimConsoleThunks::TestString;
  Text.QueryMode = SimConsoleThunks::QueryMode;
  Text.SetMode = SimConsoleThunks::SetMode;
  Text.SetAttribute = SimConsoleThunks::SetAttribute;
  Text.ClearScreen = SimConsoleThunks::ClearScreen;
  Text.SetCursorPosition = SimConsoleThunks::SetCursorPosition;
  Text.EnableCursor = SimConsoleThunks::EnableCursor;
  Text.Mode = &TextMode_;
  Text_.Owner = this;
  TextMode_.MaxMode = static_cast<INT32>(TextModes_.size());
  TextMode_.CursorVisible = TRUE;
  DoClearScreen();

  EFI_GRAPHICS_OUTPUT_PROTOCOL &Gop = Graphics_.Interface;
  Gop.QueryMode = SimConsoleThunks::GopQueryMode;
  Gop.SetMode = SimConsoleThunks::GopSetMode;
  Gop.Blt = SimConsoleThunks::GopBlt;
  Gop.Mode = &GraphicsMode_;
  Graphics_.Owner = this;
  GraphicsMode_.MaxMode = static_cast<UINT32>(GraphicsModes_.size());
  GraphicsMode_.Info = &GraphicsInfo_;
  GraphicsMode_.SizeOfInfo = sizeof(GraphicsInfo_);
  if (!GraphicsModes_.empty()) {
    GraphicsInfo_.HorizontalResolution = GraphicsModes_[0].Width;
    GraphicsInfo_.VerticalResolution = GraphicsModes_[0].Height;
  }
}

SimConsole::~SimConsole() {
  if (SavedConOut_ != nullptr) {
    Sim_.SystemTable()->ConOut = SavedConOut_;
  }
}

void SimConsole::Install() {
  SavedConOut_ = Sim_.SystemTable()->ConOut;
  Sim_.SystemTable()->ConOut = TextOut();
  EFI_HANDLE Handle = nullptr;
  EXPECT_EQ(Sim_.Install(&Handle, gEfiSimpleTextOutProtocolGuid, TextOut()), EFI_SUCCESS);
  if (!GraphicsModes_.empty()) {
    EXPECT_EQ(Sim_.Install(&Handle, gEfiGraphicsOutputProtocolGuid, Graphics()), EFI_SUCCESS);
  }
}

std::u16string SimConsole::ScreenRow(UINTN Row) const { return Row < Screen_.size() ? Screen_[Row] : u""; }

EFI_STATUS SimConsole::DoTextQueryMode(UINTN Mode, UINTN *Columns, UINTN *Rows) {
  if (Mode >= TextModes_.size()) {
    return EFI_UNSUPPORTED;
  }
  if (FailingTextQueries.count(Mode) != 0) {
    return EFI_DEVICE_ERROR;
  }
  *Columns = TextModes_[Mode].Columns;
  *Rows = TextModes_[Mode].Rows;
  return EFI_SUCCESS;
}

EFI_STATUS SimConsole::DoTextSetMode(UINTN Mode) {
  if (Mode >= TextModes_.size()) {
    return EFI_UNSUPPORTED;
  }
  TextModesSet.push_back(Mode);
  TextMode_.Mode = static_cast<INT32>(Mode);
  return DoClearScreen();
}

EFI_STATUS SimConsole::DoClearScreen() {
  Screen_.clear();
  if (!TextModes_.empty()) {
    const SimTextMode &Current = TextModes_[static_cast<size_t>(TextMode_.Mode)];
    Screen_.assign(Current.Rows, std::u16string(Current.Columns, u' '));
  }
  TextMode_.CursorColumn = 0;
  TextMode_.CursorRow = 0;
  return EFI_SUCCESS;
}

EFI_STATUS SimConsole::DoSetCursorPosition(UINTN Column, UINTN Row) {
  if (Row >= Screen_.size() || Column >= Screen_[Row].size()) {
    return EFI_UNSUPPORTED;
  }
  TextMode_.CursorColumn = static_cast<INT32>(Column);
  TextMode_.CursorRow = static_cast<INT32>(Row);
  return EFI_SUCCESS;
}

EFI_STATUS SimConsole::DoEnableCursor(BOOLEAN Visible) {
  TextMode_.CursorVisible = Visible;
  return EFI_SUCCESS;
}

// Characters land at the cursor and move it right; past the last column the line wraps.
EFI_STATUS SimConsole::DoOutputString(const CHAR16 *Text) {
  SimConsoleString Record = {u"", TextMode_.CursorColumn, TextMode_.CursorRow};
  for (; *Text != 0; Text++) {
    Record.Text.push_back(static_cast<char16_t>(*Text));
    auto Row = static_cast<size_t>(TextMode_.CursorRow);
    auto Column = static_cast<size_t>(TextMode_.CursorColumn);
    if (Row >= Screen_.size()) {
      continue;
    }
    Screen_[Row][Column] = static_cast<char16_t>(*Text);
    if (++TextMode_.CursorColumn >= static_cast<INT32>(Screen_[Row].size())) {
      TextMode_.CursorColumn = 0;
      TextMode_.CursorRow++;
    }
  }
  Strings.push_back(Record);
  return EFI_SUCCESS;
}

EFI_STATUS SimConsole::DoGraphicsQueryMode(UINT32 Mode, UINTN *SizeOfInfo, EFI_GRAPHICS_OUTPUT_MODE_INFORMATION **Info) {
  if (SizeOfInfo == nullptr || Info == nullptr || Mode >= GraphicsModes_.size()) {
    return EFI_INVALID_PARAMETER;
  }
  if (FailingGraphicsQueries.count(Mode) != 0) {
    return EFI_DEVICE_ERROR;
  }
  VOID *Memory = nullptr;
  EFI_STATUS Status = Sim_.DoAllocatePool(EfiBootServicesData, sizeof(EFI_GRAPHICS_OUTPUT_MODE_INFORMATION), &Memory);
  if (Status != EFI_SUCCESS) {
    return Status;
  }
  auto *Result = static_cast<EFI_GRAPHICS_OUTPUT_MODE_INFORMATION *>(Memory);
  *Result = {};
  Result->HorizontalResolution = GraphicsModes_[Mode].Width;
  Result->VerticalResolution = GraphicsModes_[Mode].Height;
  Result->PixelsPerScanLine = GraphicsModes_[Mode].Width;
  Result->PixelFormat = PixelBlueGreenRedReserved8BitPerColor;
  *SizeOfInfo = sizeof(*Result);
  *Info = Result;
  return EFI_SUCCESS;
}

EFI_STATUS SimConsole::DoGraphicsSetMode(UINT32 Mode) {
  if (Mode >= GraphicsModes_.size()) {
    return EFI_UNSUPPORTED;
  }
  GraphicsModesSet.push_back(Mode);
  GraphicsMode_.Mode = Mode;
  GraphicsInfo_.HorizontalResolution = GraphicsModes_[Mode].Width;
  GraphicsInfo_.VerticalResolution = GraphicsModes_[Mode].Height;
  GraphicsInfo_.PixelsPerScanLine = GraphicsModes_[Mode].Width;
  return EFI_SUCCESS;
}
