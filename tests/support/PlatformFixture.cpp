#include "PlatformFixture.h"

#include "../../emu/host/EmuHostMemory.h"
#include "../../sim/SimDriverState.h"
#include "../../src/base/Globals.h"
#include "../../src/base/Guids.h"
#include "../../src/driver/Config.h"
#include "../../src/driver/Entry.h"
#include "../../src/driver/FlashMap.h"
#include "../../tools/lib/TestSigningKeys.h"

namespace {
PlatformFixture *gRecordingFixture = nullptr;
EFI_ALLOCATE_POOL gSimAllocatePool = nullptr;
EFI_CREATE_EVENT gSimCreateEvent = nullptr;
EFI_CREATE_EVENT_EX gSimCreateEventEx = nullptr;
}  // namespace

struct PlatformFixtureRecorder {
  static EFI_STATUS EFIAPI AllocatePool(EFI_MEMORY_TYPE Type, UINTN Size, VOID **Buffer) {
    EFI_STATUS Status = gSimAllocatePool(Type, Size, Buffer);
    if (Status == EFI_SUCCESS) {
      gRecordingFixture->PoolTypes[*Buffer] = Type;
    }
    return Status;
  }
  static EFI_STATUS EFIAPI CreateEvent(UINT32 Type, EFI_TPL Tpl, EFI_EVENT_NOTIFY Notify, VOID *Context,
                                       EFI_EVENT *Event) {
    EFI_STATUS Status = gSimCreateEvent(Type, Tpl, Notify, Context, Event);
    if (Status == EFI_SUCCESS) {
      gRecordingFixture->EventTpls[*Event] = Tpl;
    }
    return Status;
  }
  static EFI_STATUS EFIAPI CreateEventEx(UINT32 Type, EFI_TPL Tpl, EFI_EVENT_NOTIFY Notify, const VOID *Context,
                                         const EFI_GUID *Group, EFI_EVENT *Event) {
    EFI_STATUS Status = gSimCreateEventEx(Type, Tpl, Notify, Context, Group, Event);
    if (Status == EFI_SUCCESS) {
      gRecordingFixture->EventTpls[*Event] = Tpl;
    }
    return Status;
  }
};

PlatformFixture::PlatformFixture() {
  ResetAllDriverState();
  gRecordingFixture = this;
  gSimAllocatePool = Sim.BootServices()->AllocatePool;
  gSimCreateEvent = Sim.BootServices()->CreateEvent;
  gSimCreateEventEx = Sim.BootServices()->CreateEventEx;
  Sim.BootServices()->AllocatePool = PlatformFixtureRecorder::AllocatePool;
  Sim.BootServices()->CreateEvent = PlatformFixtureRecorder::CreateEvent;
  Sim.BootServices()->CreateEventEx = PlatformFixtureRecorder::CreateEventEx;
  PlatformStorage_ = std::make_unique<EmuPlatform>();
  Platform = PlatformStorage_.get();
  if (!Platform->Initialize(EmuHostMemory(), kDefaultEmuLayout)) {
    ADD_FAILURE() << "emulated platform could not be built";
  }
  gEmuPlatform = Platform;
  std::string KeyError;
  if (!InstallTestSignatureKeys(*Platform, KeyError)) {
    ADD_FAILURE() << "test signing keys: " << KeyError;
  }
  Sim.SetPcd(gPlatformPcdTokenSpaceGuid, 0x0A04, Platform->PcdBootBlockUpdateEnabled);
  Sim.SetPcd(gAmdPcdTokenSpaceGuid, 0x95940054, Platform->PcdAmdLibrarySetting);
  Sim.SetPcd(gFlashMapTokenSpaceGuid, kFlashMapAddressToken, Platform->PcdFlashMapAddress);
  Sim.SetPcd(gFlashMapTokenSpaceGuid, kFlashMapSizeToken, Platform->PcdFlashMapSize);
}

PlatformFixture::~PlatformFixture() {
  gEmuPlatform = nullptr;
  gRecordingFixture = this;
  ResetAllDriverState();
  PlatformStorage_.reset();
  EmuHostMemoryReleaseAll();
  gRecordingFixture = nullptr;
}

void PlatformFixture::PrepareBoot() {
  if (Prepared_) {
    return;
  }
  Prepared_ = true;
  if (PublishHobList) {
    Sim.InstallConfigurationTable(gEfiHobListGuid, Hobs.Finish());
  }
  Sim.InstallPcdProtocol();
  EmuInstallProtocols(*Platform, Sim.BootServices(), Install);
}

EFI_STATUS PlatformFixture::StartDriver() {
  PrepareBoot();
  EFI_STATUS Status = _ModuleEntryPoint(Sim.ImageHandle(), Sim.SystemTable());
  Sim.AdoptLiveAllocations();  // the service tables live for the firmware's life
  return Status;
}

std::vector<std::string> PlatformFixture::Traces() const {
  const std::string Text(reinterpret_cast<const char *>(Platform->TraceText), Platform->TraceLength);
  std::vector<std::string> Lines;
  for (size_t Start = 0, End; (End = Text.find('\n', Start)) != std::string::npos; Start = End + 1) {
    Lines.push_back(Text.substr(Start, End - Start));
  }
  return Lines;
}

void PlatformFixture::EnableTraces(bool On) { gConfig.PcdBiosImageInterfaceDebug = On ? TRUE : FALSE; }

std::vector<std::string> PlatformFixture::CallNames() const {
  std::vector<std::string> Names;
  for (UINTN Index = 0; Index < Platform->CallCount; Index++) {
    Names.push_back(Platform->Calls[Index].Name);
  }
  return Names;
}

std::vector<EmuCall> PlatformFixture::CallsNamed(const char *Name) const {
  std::vector<EmuCall> Found;
  for (UINTN Index = 0; Index < Platform->CallCount; Index++) {
    if (std::string(Platform->Calls[Index].Name) == Name) {
      Found.push_back(Platform->Calls[Index]);
    }
  }
  return Found;
}
