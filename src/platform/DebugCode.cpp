#include "DebugCode.h"

#include "../base/Char16.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/Hardware.h"
#include "../base/Hob.h"
#include "../base/PlatformProtocols.h"
#include "../base/ScopeGuard.h"
#include "../driver/Config.h"
#include "../driver/DriverState.h"
#include "../driver/HookPoints.h"
#include "Cmos.h"

namespace {

constexpr UINT32 kDebugPortMarker = 0x200;
constexpr UINT8 kDebugCodeCmosIndex = 0x73;

// Q42DebugCode: 0 = display off; otherwise on, and bit 4 also fixes the screen modes.
constexpr UINT8 kDisplayOn = 0x01;
constexpr UINT8 kDisplayFixedModes = 0x10;
constexpr UINT32 kDisplayVariableAttributes = EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS;

constexpr UINT32 kDisplayWidth = 1024;
constexpr UINT32 kDisplayHeight = 768;
constexpr UINTN kDisplayColumns = 128;
constexpr UINTN kDisplayRows = 40;

constexpr UINT32 kClosingCodes[] = {0xFB, 0x34};
constexpr UINTN kClosingStallMicroseconds = 5000000;

// "Debug code = " and the two digits: 15 cells ending at the last column of the top row.
constexpr UINTN kDisplayCells = 15;

const CHAR16 *DebugCodeVariableName() { return "Q42DebugCode"_u16; }

EFI_STATUS WriteDisplayVariable(UINT8 Value) {
  return gRT->SetVariable(const_cast<CHAR16 *>(DebugCodeVariableName()), const_cast<EFI_GUID *>(&gPlatformVariableGuid),
                          kDisplayVariableAttributes, sizeof(Value), &Value);
}

BOOLEAN AnyTextConsoleHandle() {
  UINTN Count = 0;
  EFI_HANDLE *Handles = nullptr;
  EFI_STATUS Status = gBS->LocateHandleBuffer(ByProtocol, const_cast<EFI_GUID *>(&gEfiSimpleTextOutProtocolGuid),
                                              nullptr, &Count, &Handles);
  if (Handles != nullptr) {
    gBS->FreePool(Handles);
  }
  return Status == EFI_SUCCESS && Count > 0;
}

// Tells the platform the display starts or ends, when both a text console and the platform
// flash service can be found.
void AnnounceDisplay(BOOLEAN Start) {
  VOID *TextOut = nullptr;
  if (gBS->LocateProtocol(const_cast<EFI_GUID *>(&gEfiSimpleTextOutProtocolGuid), nullptr, &TextOut) != EFI_SUCCESS ||
      TextOut == nullptr) {
    return;
  }
  PlatformFlashServiceProtocol *Service = mPlatformFlashService;
  if (Service == nullptr) {
    VOID *Interface = nullptr;
    if (gBS->LocateProtocol(const_cast<EFI_GUID *>(&gPlatformFlashServiceProtocolGuid), nullptr, &Interface) !=
        EFI_SUCCESS) {
      return;
    }
    Service = static_cast<PlatformFlashServiceProtocol *>(Interface);
  }
  if (Service != nullptr && Service->SetDebugCodeDisplay != nullptr) {
    Service->SetDebugCodeDisplay(TextOut, Start);
  }
}

EFI_GRAPHICS_OUTPUT_PROTOCOL *LocateGraphics() {
  VOID *Interface = nullptr;
  if (gBS->LocateProtocol(const_cast<EFI_GUID *>(&gEfiGraphicsOutputProtocolGuid), nullptr, &Interface) !=
      EFI_SUCCESS) {
    return nullptr;
  }
  auto *Graphics = static_cast<EFI_GRAPHICS_OUTPUT_PROTOCOL *>(Interface);
  return Graphics != nullptr && Graphics->Mode != nullptr ? Graphics : nullptr;
}

// The resolution of a graphics mode; the information buffer the query returns is freed here.
BOOLEAN QueryResolution(EFI_GRAPHICS_OUTPUT_PROTOCOL *Graphics, UINT32 Mode, UINT32 &Width, UINT32 &Height) {
  UINTN InfoSize = 0;
  EFI_GRAPHICS_OUTPUT_MODE_INFORMATION *Info = nullptr;
  EFI_STATUS Status = Graphics->QueryMode(Graphics, Mode, &InfoSize, &Info);
  ScopeGuard FreeInfo([Info] {
    if (Info != nullptr) {
      gBS->FreePool(Info);
    }
  });
  if (Status != EFI_SUCCESS || Info == nullptr) {
    return FALSE;
  }
  Width = Info->HorizontalResolution;
  Height = Info->VerticalResolution;
  return TRUE;
}

void SelectDisplayGraphicsMode() {
  EFI_GRAPHICS_OUTPUT_PROTOCOL *Graphics = LocateGraphics();
  if (Graphics == nullptr) {
    return;
  }
  const EFI_GRAPHICS_OUTPUT_MODE_INFORMATION *Current = Graphics->Mode->Info;
  if (Current != nullptr && Current->HorizontalResolution == kDisplayWidth &&
      Current->VerticalResolution == kDisplayHeight) {
    return;
  }
  for (UINT32 Mode = 0; Mode < Graphics->Mode->MaxMode; Mode++) {
    UINT32 Width = 0, Height = 0;
    if (QueryResolution(Graphics, Mode, Width, Height) && Width == kDisplayWidth && Height == kDisplayHeight) {
      Graphics->SetMode(Graphics, Mode);
      return;
    }
  }
}

void SelectDisplayTextMode(SIMPLE_TEXT_OUTPUT_INTERFACE *Console) {
  for (INT32 Mode = 0; Mode < Console->Mode->MaxMode; Mode++) {
    UINTN Columns = 0, Rows = 0;
    if (Console->QueryMode(Console, static_cast<UINTN>(Mode), &Columns, &Rows) == EFI_SUCCESS) {
      if (Columns == kDisplayColumns && Rows == kDisplayRows) {
        if (Mode != Console->Mode->Mode) {
          Console->SetMode(Console, static_cast<UINTN>(Mode));
        }
        return;
      }
    }
  }
}

void ShowCode(SIMPLE_TEXT_OUTPUT_INTERFACE *Console, UINT32 Code) {
  static constexpr CHAR16 kHexDigits[] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'A', 'B', 'C', 'D', 'E', 'F'};
  Console->EnableCursor(Console, FALSE);
  UINTN Columns = 0, Rows = 0;
  Console->QueryMode(Console, static_cast<UINTN>(Console->Mode->Mode), &Columns, &Rows);
  // A console narrower than the text (or one that cannot tell its width) shows it from column 0.
  Console->SetCursorPosition(Console, Columns >= kDisplayCells ? Columns - kDisplayCells : 0, 0);
  Console->OutputString(Console, const_cast<CHAR16 *>("Debug code = "_u16));
  CHAR16 Digits[3] = {kHexDigits[(Code >> 4) & 0xF], kHexDigits[Code & 0xF], 0};
  Console->OutputString(Console, Digits);
}

// Gives the screen back: the largest graphics mode, and the largest text mode from mode 2 on.
void RestoreLargestModes(SIMPLE_TEXT_OUTPUT_INTERFACE *Console) {
  if (EFI_GRAPHICS_OUTPUT_PROTOCOL *Graphics = LocateGraphics()) {
    BOOLEAN Found = FALSE;
    UINT32 Best = 0;
    UINT64 BestArea = 0;
    for (UINT32 Mode = 0; Mode < Graphics->Mode->MaxMode; Mode++) {
      UINT32 Width = 0, Height = 0;
      if (QueryResolution(Graphics, Mode, Width, Height) &&
          (!Found || static_cast<UINT64>(Width) * Height > BestArea)) {
        Found = TRUE;
        Best = Mode;
        BestArea = static_cast<UINT64>(Width) * Height;
      }
    }
    if (Found && Best != Graphics->Mode->Mode) {
      Graphics->SetMode(Graphics, Best);
    }
  }

  UINTN Best = 0;
  if (Console->Mode->MaxMode >= 3) {
    UINTN BestArea = 0;
    BOOLEAN Found = FALSE;
    for (INT32 Mode = 2; Mode < Console->Mode->MaxMode; Mode++) {
      UINTN Columns = 0, Rows = 0;
      if (Console->QueryMode(Console, static_cast<UINTN>(Mode), &Columns, &Rows) == EFI_SUCCESS &&
          (!Found || Columns * Rows > BestArea)) {
        Found = TRUE;
        Best = static_cast<UINTN>(Mode);
        BestArea = Columns * Rows;
      }
    }
  }
  Console->SetMode(Console, Best);
}

BOOLEAN IsClosingCode(UINT32 Code) {
  for (UINT32 Closing : kClosingCodes) {
    if (Code == Closing) {
      return TRUE;
    }
  }
  return FALSE;
}

}  // namespace

UINT32 OutputDebugCode(UINT32 Code) {
  UINT32 Handled = 0;
  SignalDebugCodeHook(Code, &Handled);
  if (Handled == kHookAnswerTaken) {
    return Code;
  }
  Hw::IoWrite32(gConfig.DebugCodePort, Code | kDebugPortMarker);
  if (gConfig.DebugCodeCmosCopyEnabled) {
    // The index goes out as is: the NMI mask bit is not kept for this copy.
    WriteCmosPort(static_cast<UINT8>(kCmosIndexPort), static_cast<UINT8>(kCmosDataPort), kDebugCodeCmosIndex,
                  static_cast<UINT8>(Code));
  }
  DisplayDebugCode(Code);
  return Code;
}

void DisplayDebugCode(UINT32 Code) {
  if (gBS == nullptr || gRT == nullptr || GetFirstGuidHob(&gDebugCodeDisplayHobGuid) == nullptr) {
    return;
  }
  UINT8 Display = 0;
  UINTN Size = sizeof(Display);
  if (gRT->GetVariable(const_cast<CHAR16 *>(DebugCodeVariableName()), const_cast<EFI_GUID *>(&gPlatformVariableGuid),
                       nullptr, &Size, &Display) != EFI_SUCCESS) {
    Display = 0;
    if (AnyTextConsoleHandle()) {
      Display = kDisplayFixedModes | kDisplayOn;
      WriteDisplayVariable(Display);
      AnnounceDisplay(TRUE);
    }
  }
  SIMPLE_TEXT_OUTPUT_INTERFACE *Console = gST != nullptr ? gST->ConOut : nullptr;
  if (Display == 0 || Console == nullptr || Console->Mode == nullptr) {
    return;
  }

  if ((Display & kDisplayFixedModes) != 0) {
    SelectDisplayGraphicsMode();
    SelectDisplayTextMode(Console);
  }
  ShowCode(Console, Code);

  if (IsClosingCode(Code)) {
    WriteDisplayVariable(0);
    gBS->Stall(kClosingStallMicroseconds);
    AnnounceDisplay(FALSE);
    RestoreLargestModes(Console);
  }
}
