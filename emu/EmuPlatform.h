// The emulated platform: CMOS banks and the I/O port bus, the debug service behind
// interrupt vector 3, CPUID answers, the flash chip and the EC store, and the platform's
// closed protocols with their byte layouts. Every port access and platform call is
// recorded in order. The code is freestanding so that the same emulation runs in host
// tests and inside OVMF as the emulation driver.
#pragma once
#include "../src/base/PlatformProtocols.h"
#include "../src/base/Uefi.h"
#include "EmuFlashChip.h"
#include "EmuFlashPlatform.h"
#include "EmuSoc.h"
#include "EmuHub.h"
#include "EmuSettings.h"
#include "EmuSignatureVerifier.h"
#include "EmuUpdateLayout.h"
#include "EmuUpdateLog.h"

struct EmuPortAccess {
  UINT16 Port;
  UINT8 Width;  // 1, 2 or 4 bytes
  BOOLEAN Write;
  UINT32 Value;
};

struct EmuCall {
  const char *Name;
  UINT64 Arguments[4];
};

struct EmuCpuidEntry {
  UINT32 Leaf;
  UINT32 SubLeaf;
  UINT32 Eax, Ebx, Ecx, Edx;
};

#pragma pack(push, 1)
// The debug service left behind vector 3: the service structure (print function at 16),
// then the 32-bit service pointer at handler - 24 and the marker at handler - 16.
struct EmuDebugServiceArea {
  UINT64 Reserved0;
  UINT64 Reserved1;
  UINT64 PrintFunction;  // service + 16
  UINT64 Platform;       // back-pointer for the print function
  UINT32 ServicePointer;  // handler - 24
  UINT32 Reserved2;
  UINT32 Marker;  // handler - 16
  UINT8 Reserved3[12];
  UINT8 Handler[16];
};
#pragma pack(pop)
static_assert(offsetof(EmuDebugServiceArea, PrintFunction) == 16);
static_assert(offsetof(EmuDebugServiceArea, Handler) - offsetof(EmuDebugServiceArea, ServicePointer) == 24);
static_assert(offsetof(EmuDebugServiceArea, Handler) - offsetof(EmuDebugServiceArea, Marker) == 16);

// Where the emulation gets its memory: ordinary memory, and memory below 4 GiB for the
// structures that firmware reaches through 32-bit addresses.
struct EmuMemory {
  VOID *(*Allocate)(UINTN Size);
  VOID *(*AllocateBelow4G)(UINTN Size);
};

struct EmuLayout {
  UINT32 EcSize;          // bytes of the image's EC part (kept in the EC store at the same offsets)
  UINT32 LowerFlashSize;  // flash part just below the mapped window
  UINT32 MappedFlashSize;  // part mapped below 4 GiB, ending at 0xFFFFFFFF
  UINT32 EcStoreSize;     // bytes of the EC firmware store; at least EcSize
};

// The reference platform: the image is the 16 MiB mapped at 0xFF000000 (no EC part, no
// lower part); the EC keeps its own 128 KiB firmware store.
constexpr EmuLayout kDefaultEmuLayout = {0x0, 0x0, EmuFlashLayout::kMappedSize, EmuFlashLayout::kEcStoreSize};

class EmuPlatform {
public:
  static constexpr UINTN kPortLogCapacity = 8192;
  static constexpr UINTN kCallLogCapacity = 4096;
  static constexpr UINTN kTraceCapacity = 1u << 20;
  static constexpr UINTN kCpuidCapacity = 16;

  // Builds the platform in memory from Memory; FALSE when memory runs out.
  BOOLEAN Initialize(const EmuMemory &Memory, const EmuLayout &Layout);

  // ---- I/O ports -------------------------------------------------------------------------
  UINT32 IoRead(UINT16 Port, UINT8 Width);
  void IoWrite(UINT16 Port, UINT8 Width, UINT32 Value);
  UINTN PortLogCount = 0;
  UINTN PortLogDropped = 0;
  EmuPortAccess *PortLog = nullptr;
  void ClearPortLog() { PortLogCount = PortLogDropped = 0; }

  // ---- CMOS: standard bank (0x70/0x71, 128 bytes) and extended bank (0x72/0x73) ----------
  UINT8 Cmos[128] = {};
  UINT8 ExtendedCmos[256] = {};
  UINT8 CmosIndexRegister = 0;  // what port 0x70 holds, NMI bit included
  UINT8 ExtendedIndexRegister = 0;
  BOOLEAN ExtendedCmosWorking = TRUE;  // a broken bank reads 0xFF and drops writes

  // ---- Reset port 0xCF9, processor flags, time --------------------------------------------
  UINT32 ResetCount = 0;
  void (*OnReset)(EmuPlatform *Platform) = nullptr;  // host tests end the simulated boot here
  UINTN Flags = 0x202;  // interrupt flag set
  UINT64 InterruptDisableCount = 0;
  UINT64 ElapsedMicroseconds = 0;
  UINT64 TscFrequency = 1000000000;  // 1 GHz virtual counter
  UINT64 TimeStampCounter = 0;
  UINT32 DeadLoopCount = 0;

  // ---- Interrupt descriptor table and the debug service behind vector 3 -------------------
  UINT8 *Idt = nullptr;  // 4 gates of 16 bytes; nullptr makes IdtBase() report 0
  EmuDebugServiceArea *DebugService = nullptr;
  CHAR8 *TraceText = nullptr;  // every printed trace, one per line
  UINTN TraceLength = 0;
  BOOLEAN EchoTracesToConsole = FALSE;  // firmware builds may copy traces to ConOut
  void ClearTraces() { TraceLength = 0; }
  void AppendTrace(const CHAR8 *Line, UINTN Length);

  // ---- CPUID ------------------------------------------------------------------------------
  EmuCpuidEntry Cpuid[kCpuidCapacity] = {};
  UINTN CpuidCount = 0;
  void SetCpuid(UINT32 Leaf, UINT32 SubLeaf, UINT32 Eax, UINT32 Ebx, UINT32 Ecx, UINT32 Edx);
  EmuSoc Soc;  // processor signature, wide flash window, SMN registers, simulator escape

  // ---- Flash: one chip covering the lower part and the mapped part, plus the EC store ------
  EmuLayout Layout = {};
  EmuFlashChip Flash;
  UINT64 FlashBaseAddress = 0;  // flash address of chip offset 0
  UINT8 *EcStore = nullptr;
  UINT32 EcStoreSize = 0;  // the larger of the layout's EcSize and EcStoreSize
  EmuFlashPlatform FlashPlatform;  // geometry, protected-region lists, query protocols
  // Chip offset of a flash address range, or FALSE when it is not on the chip.
  BOOLEAN FlashOffset(UINT64 Address, UINT64 Length, UINT32 &Offset) const;
  const UINT8 *MappedFlash(UINT64 Address, UINT64 Length) const;
  // Program or erase by flash address, as every flash interface of the platform does;
  // EFI_INVALID_PARAMETER when the range is not on the chip.
  EFI_STATUS ProgramFlashAt(UINT64 Address, const VOID *Buffer, UINT64 Length);
  EFI_STATUS EraseFlashAt(UINT64 Address, UINT64 Length);

  // ---- Platform protocols -----------------------------------------------------------------
  PlatformConfigProtocol *Config = nullptr;
  PlatformFlashServiceProtocol *FlashService = nullptr;
  FlashServiceData *PlatformData = nullptr;
  PlatformFlashDeviceProtocol *FlashDevice = nullptr;
  BootBlockHandlerProtocol *BootBlockHandler = nullptr;
  UpdateLogProtocol *UpdateLog = nullptr;
  // What the configuration block points to at 0xED; the driver marks an accepted image at 5324.
  static constexpr UINTN kUpdateStatusBlockSize = 0x2000;
  UINT8 *UpdateStatusBlock = nullptr;
  EmuSettings Settings;                // setup data, security setup and the SMM settings services
  EmuUpdateLayout UpdateLayout = kDefaultEmuUpdateLayout;  // what GetUpdateLayout reports
  EmuUpdateLog UpdateLogStore;  // the update log's records and its non-volatile progress code

  // Values the platform's dynamic PCDs answer.
  BOOLEAN PcdBootBlockUpdateEnabled = TRUE;
  UINT8 PcdAmdLibrarySetting = 0;
  // Where the platform keeps a copy of the flash map (gFlashMapTokenSpaceGuid 0x30000017/18).
  UINT64 PcdFlashMapAddress = 0xFF0EA000;
  UINT64 PcdFlashMapSize = 0x1000;
  EmuHubServices Hub;  // the callback-hub registry and the pointer-registration service
  EmuSignatureKeys SignatureKeys;  // the image-signature verifier: its protocol, keys by selector, RSA check

  // ---- Call log of every platform protocol member -----------------------------------------
  EmuCall *Calls = nullptr;
  UINTN CallCount = 0;
  UINTN CallsDropped = 0;
  void Record(const char *Name, UINT64 A0 = 0, UINT64 A1 = 0, UINT64 A2 = 0, UINT64 A3 = 0);
  UINTN CountCalls(const char *Name) const;
  void ClearCalls() { CallCount = CallsDropped = 0; }

  // ---- The end of an update ---------------------------------------------------------------
  // GetMessageBuffer hands out MessageBuffer; SendMessage keeps a copy of its bytes.
  static constexpr UINTN kMessageBufferSize = 64;
  UINT8 MessageBuffer[kMessageBufferSize] = {};
  UINT8 SentMessage[kMessageBufferSize] = {};
  UINTN SentMessageCount = 0;
  // The location FlashServiceData names at 0x3C2: a pool buffer the platform allocated
  // (EmuInstallOptions::CompletionPoolBuffer) until the driver frees it.
  VOID *CompletionPoolBuffer = nullptr;
  EFI_STATUS NotifyUpdatePhaseStatus = EFI_SUCCESS;  // what NotifyUpdatePhase answers
};

// The platform the emulated hardware binding and the protocol members work on.
extern EmuPlatform *gEmuPlatform;
// Finds the platform: the one set, else the one published under gEmuPlatformProtocolGuid.
EmuPlatform *EmuActivePlatform();

// Installs the platform protocols (each on its own new handle) and gEmuPlatformProtocolGuid.
struct EmuInstallOptions {
  BOOLEAN PlatformConfig = TRUE;
  BOOLEAN FlashService = TRUE;
  BOOLEAN FlashDevice = TRUE;
  BOOLEAN BootBlockHandler = TRUE;
  BOOLEAN UpdateLog = TRUE;
  BOOLEAN QueryNotify = TRUE;
  BOOLEAN LowerFlashAccess = TRUE;
  BOOLEAN PostQuery = TRUE;
  BOOLEAN PlatformHandle = TRUE;
  BOOLEAN CallbackHub = TRUE;          // a registry another driver already created
  BOOLEAN PointerRegistration = TRUE;  // the runtime core's pointer-registration service
  BOOLEAN SignatureVerifier = TRUE;    // ImageSignatureVerifyProtocol
  // Allocates the platform's pool buffer that the completion service frees (host fixtures
  // that never start the driver would see it as a leak, so it is asked for).
  BOOLEAN CompletionPoolBuffer = FALSE;
};
EFI_STATUS EmuInstallProtocols(EmuPlatform &Platform, EFI_BOOT_SERVICES *BootServices,
                               const EmuInstallOptions &Options);
