#include "EmuPlatform.h"

#include "../src/base/BaseLib.h"
#include "../src/base/Globals.h"
#include "../src/base/Guids.h"
#include "../src/base/Print.h"
#include "../src/driver/Trace.h"

EmuPlatform *gEmuPlatform = nullptr;

namespace {

constexpr UINT16 kResetControlPort = 0xCF9;
constexpr UINT8 kResetControlResetCpu = 0x04;

UINTN EFIAPI EmuDebugPrint(VOID *Service, const char *Format, VA_LIST Arguments) {
  auto *Area = static_cast<EmuDebugServiceArea *>(Service);
  auto *Platform = reinterpret_cast<EmuPlatform *>(static_cast<UINTN>(Area->Platform));
  CHAR8 Line[512];
  UINTN Length = AsciiVSPrint(Line, sizeof(Line), Format, Arguments);
  Platform->AppendTrace(Line, Length);
  return Length;
}

// An interrupt gate whose handler offset is split over bytes 0-1, 6-7 and 8-11.
void WriteGate(UINT8 *Gate, UINT64 Handler) {
  ZeroMem(Gate, 16);
  WriteUnaligned16(Gate, static_cast<UINT16>(Handler));
  WriteUnaligned16(Gate + 2, 0x38);  // code selector
  Gate[5] = 0x8E;                    // present, interrupt gate
  WriteUnaligned16(Gate + 6, static_cast<UINT16>(Handler >> 16));
  WriteUnaligned32(Gate + 8, static_cast<UINT32>(Handler >> 32));
}

template <typename T> T *AllocateZeroed(VOID *(*Allocate)(UINTN), UINTN Count = 1) {
  VOID *Memory = Allocate(sizeof(T) * Count);
  if (Memory != nullptr) {
    ZeroMem(Memory, sizeof(T) * Count);
  }
  return static_cast<T *>(Memory);
}

}  // namespace

BOOLEAN EmuPlatform::Initialize(const EmuMemory &Memory, const EmuLayout &NewLayout) {
  Layout = NewLayout;
  PortLog = AllocateZeroed<EmuPortAccess>(Memory.Allocate, kPortLogCapacity);
  Calls = AllocateZeroed<EmuCall>(Memory.Allocate, kCallLogCapacity);
  TraceText = AllocateZeroed<CHAR8>(Memory.Allocate, kTraceCapacity);
  Idt = AllocateZeroed<UINT8>(Memory.Allocate, 4 * 16);
  DebugService = AllocateZeroed<EmuDebugServiceArea>(Memory.AllocateBelow4G);
  Config = AllocateZeroed<PlatformConfigProtocol>(Memory.Allocate);
  FlashService = AllocateZeroed<PlatformFlashServiceProtocol>(Memory.Allocate);
  PlatformData = AllocateZeroed<FlashServiceData>(Memory.Allocate);
  FlashDevice = AllocateZeroed<PlatformFlashDeviceProtocol>(Memory.Allocate);
  BootBlockHandler = AllocateZeroed<BootBlockHandlerProtocol>(Memory.Allocate);
  UpdateLog = AllocateZeroed<UpdateLogProtocol>(Memory.Allocate);
  UpdateStatusBlock = AllocateZeroed<UINT8>(Memory.Allocate, kUpdateStatusBlockSize);
  UINT32 ChipSize = Layout.LowerFlashSize + Layout.MappedFlashSize;
  UINT8 *ChipBytes = static_cast<UINT8 *>(Memory.Allocate(ChipSize));  // Attach erases it
  EcStoreSize = Layout.EcStoreSize > Layout.EcSize ? Layout.EcStoreSize : Layout.EcSize;
  EcStore = AllocateZeroed<UINT8>(Memory.Allocate, EcStoreSize == 0 ? 1 : EcStoreSize);
  if (PortLog == nullptr || Calls == nullptr || TraceText == nullptr || Idt == nullptr || DebugService == nullptr ||
      Config == nullptr || FlashService == nullptr || PlatformData == nullptr || FlashDevice == nullptr ||
      BootBlockHandler == nullptr || UpdateLog == nullptr || UpdateStatusBlock == nullptr || ChipBytes == nullptr ||
      EcStore == nullptr) {
    return FALSE;
  }

  Flash.Attach(ChipBytes, ChipSize);
  FlashBaseAddress = 0x100000000ull - ChipSize;
  SetMem(EcStore, EcStoreSize, 0xFF);

  DebugService->PrintFunction = reinterpret_cast<UINT64>(&EmuDebugPrint);
  DebugService->Platform = reinterpret_cast<UINT64>(this);
  DebugService->ServicePointer = static_cast<UINT32>(reinterpret_cast<UINTN>(DebugService));
  DebugService->Marker = kDebugServiceMarker;
  WriteGate(Idt + 3 * 16, reinterpret_cast<UINT64>(DebugService->Handler));

  Soc.Select(*this, kEmuDefaultProcessorSignature);

  PlatformData->CmosIndexPort = 0x72;
  PlatformData->CmosDataPort = 0x73;
  extern void EmuFillProtocols(EmuPlatform & Platform);
  EmuFillProtocols(*this);
  EmuFillFlashPlatform(*this);
  return EmuSettingsInitialize(*this, Memory);
}

void EmuPlatform::AppendTrace(const CHAR8 *Line, UINTN Length) {
  if (EchoTracesToConsole && gST != nullptr && gST->ConOut != nullptr) {
    CHAR16 Wide[256];
    UINTN Count = 0;
    for (; Count < Length && Count + 3 < 256; Count++) {
      Wide[Count] = Line[Count];
    }
    Wide[Count++] = '\r';
    Wide[Count++] = '\n';
    Wide[Count] = 0;
    gST->ConOut->OutputString(gST->ConOut, Wide);
  }
  if (TraceLength + Length + 1 >= kTraceCapacity) {
    return;
  }
  CopyMem(TraceText + TraceLength, Line, Length);
  TraceLength += Length;
  TraceText[TraceLength++] = '\n';
  TraceText[TraceLength] = 0;
}

UINT32 EmuPlatform::IoRead(UINT16 Port, UINT8 Width) {
  UINT32 Value = 0xFFFFFFFFu >> (32 - 8 * Width);
  switch (Port) {
  case 0x70:
    Value = CmosIndexRegister;
    break;
  case 0x71:
    Value = Cmos[CmosIndexRegister & 0x7F];
    break;
  case 0x72:
    Value = ExtendedIndexRegister;
    break;
  case 0x73:
    Value = ExtendedCmosWorking ? ExtendedCmos[ExtendedIndexRegister] : 0xFF;
    break;
  default:
    break;
  }
  if (PortLogCount < kPortLogCapacity) {
    PortLog[PortLogCount++] = {Port, Width, FALSE, Value};
  } else {
    PortLogDropped++;
  }
  return Value;
}

void EmuPlatform::IoWrite(UINT16 Port, UINT8 Width, UINT32 Value) {
  if (Flash.PowerLost()) {
    return;  // the platform is off: CMOS keeps what it had at the cut
  }
  if (PortLogCount < kPortLogCapacity) {
    PortLog[PortLogCount++] = {Port, Width, TRUE, Value};
  } else {
    PortLogDropped++;
  }
  UINT8 Byte = static_cast<UINT8>(Value);
  switch (Port) {
  case 0x70:
    CmosIndexRegister = Byte;
    break;
  case 0x71:
    Cmos[CmosIndexRegister & 0x7F] = Byte;
    break;
  case 0x72:
    ExtendedIndexRegister = Byte;
    break;
  case 0x73:
    if (ExtendedCmosWorking) {
      ExtendedCmos[ExtendedIndexRegister] = Byte;
    }
    break;
  case kResetControlPort:
    if ((Byte & kResetControlResetCpu) != 0) {
      ResetCount++;
      if (OnReset != nullptr) {
        OnReset(this);
      }
    }
    break;
  default:
    break;
  }
}

void EmuPlatform::SetCpuid(UINT32 Leaf, UINT32 SubLeaf, UINT32 Eax, UINT32 Ebx, UINT32 Ecx, UINT32 Edx) {
  for (UINTN Index = 0; Index < CpuidCount; Index++) {
    if (Cpuid[Index].Leaf == Leaf && Cpuid[Index].SubLeaf == SubLeaf) {
      Cpuid[Index] = {Leaf, SubLeaf, Eax, Ebx, Ecx, Edx};
      return;
    }
  }
  if (CpuidCount < kCpuidCapacity) {
    Cpuid[CpuidCount++] = {Leaf, SubLeaf, Eax, Ebx, Ecx, Edx};
  }
}

BOOLEAN EmuPlatform::FlashOffset(UINT64 Address, UINT64 Length, UINT32 &Offset) const {
  if (Address < FlashBaseAddress) {
    return FALSE;
  }
  UINT64 Relative = Address - FlashBaseAddress;
  if (Relative > Flash.Size() || Length > Flash.Size() - Relative) {
    return FALSE;
  }
  Offset = static_cast<UINT32>(Relative);
  return TRUE;
}

const UINT8 *EmuPlatform::MappedFlash(UINT64 Address, UINT64 Length) const {
  if (Flash.PowerLost()) {
    return nullptr;  // a chip without power answers nothing, through no window
  }
  if (const UINT8 *Wide = Soc.WideWindow(Flash, Address, Length)) {
    return Wide;
  }
  // Below 4 GiB only the part at 0xFF000000..0xFFFFFFFF is visible as memory.
  constexpr UINT64 kWindowBase = 0xFF000000ull;
  UINT32 Offset = 0;
  if (Address < kWindowBase || !FlashOffset(Address, Length, Offset)) {
    return nullptr;
  }
  return Flash.Bytes() + Offset;
}

EFI_STATUS EmuPlatform::ProgramFlashAt(UINT64 Address, const VOID *Buffer, UINT64 Length) {
  UINT32 Offset;
  if (!FlashOffset(Address, Length, Offset)) {
    return EFI_INVALID_PARAMETER;
  }
  return Flash.Program(Offset, Buffer, static_cast<UINT32>(Length));
}

EFI_STATUS EmuPlatform::EraseFlashAt(UINT64 Address, UINT64 Length) {
  UINT32 Offset;
  if (!FlashOffset(Address, Length, Offset)) {
    return EFI_INVALID_PARAMETER;
  }
  return Flash.EraseSectors(Offset, static_cast<UINT32>(Length));
}

void EmuPlatform::Record(const char *Name, UINT64 A0, UINT64 A1, UINT64 A2, UINT64 A3) {
  if (CallCount < kCallLogCapacity) {
    Calls[CallCount++] = {Name, {A0, A1, A2, A3}};
  } else {
    CallsDropped++;
  }
}

UINTN EmuPlatform::CountCalls(const char *Name) const {
  UINTN Count = 0;
  for (UINTN Index = 0; Index < CallCount; Index++) {
    if (AsciiStrCmp(reinterpret_cast<const CHAR8 *>(Calls[Index].Name), reinterpret_cast<const CHAR8 *>(Name)) == 0) {
      Count++;
    }
  }
  return Count;
}

EmuPlatform *EmuActivePlatform() {
  if (gEmuPlatform == nullptr && gBS != nullptr) {
    VOID *Interface = nullptr;
    if (gBS->LocateProtocol(const_cast<EFI_GUID *>(&gEmuPlatformProtocolGuid), nullptr, &Interface) == EFI_SUCCESS) {
      gEmuPlatform = static_cast<EmuPlatform *>(Interface);
    }
  }
  return gEmuPlatform;
}
