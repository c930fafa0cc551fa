#include "SimUefi.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "../src/base/Guids.h"

namespace {

SimUefi *gCurrent = nullptr;

SimUefi &S() {
  if (gCurrent == nullptr) {
    std::abort();
  }
  return *gCurrent;
}

// ---- Services a test did not set up fail by name ----------------------------------------
constexpr const char *kBootServiceNames[] = {
    "RaiseTPL", "RestoreTPL", "AllocatePages", "FreePages", "GetMemoryMap", "AllocatePool", "FreePool",
    "CreateEvent", "SetTimer", "WaitForEvent", "SignalEvent", "CloseEvent", "CheckEvent",
    "InstallProtocolInterface", "ReinstallProtocolInterface", "UninstallProtocolInterface", "HandleProtocol",
    "Reserved", "RegisterProtocolNotify", "LocateHandle", "LocateDevicePath", "InstallConfigurationTable",
    "LoadImage", "StartImage", "Exit", "UnloadImage", "ExitBootServices", "GetNextMonotonicCount", "Stall",
    "SetWatchdogTimer", "ConnectController", "DisconnectController", "OpenProtocol", "CloseProtocol",
    "OpenProtocolInformation", "ProtocolsPerHandle", "LocateHandleBuffer", "LocateProtocol",
    "InstallMultipleProtocolInterfaces", "UninstallMultipleProtocolInterfaces", "CalculateCrc32", "CopyMem",
    "SetMem", "CreateEventEx"};
constexpr size_t kBootServiceCount = sizeof(kBootServiceNames) / sizeof(kBootServiceNames[0]);
static_assert(sizeof(EFI_TABLE_HEADER) + kBootServiceCount * 8 == sizeof(EFI_BOOT_SERVICES));

constexpr const char *kRuntimeServiceNames[] = {
    "GetTime", "SetTime", "GetWakeupTime", "SetWakeupTime", "SetVirtualAddressMap", "ConvertPointer",
    "GetVariable", "GetNextVariableName", "SetVariable", "GetNextHighMonotonicCount", "ResetSystem",
    "UpdateCapsule", "QueryCapsuleCapabilities", "QueryVariableInfo"};
constexpr size_t kRuntimeServiceCount = sizeof(kRuntimeServiceNames) / sizeof(kRuntimeServiceNames[0]);
static_assert(sizeof(EFI_TABLE_HEADER) + kRuntimeServiceCount * 8 == sizeof(EFI_RUNTIME_SERVICES));

template <size_t Slot> EFI_STATUS EFIAPI UnexpectedBootService() {
  ADD_FAILURE() << "unexpected boot service " << kBootServiceNames[Slot];
  return EFI_UNSUPPORTED;
}
template <size_t Slot> EFI_STATUS EFIAPI UnexpectedRuntimeService() {
  ADD_FAILURE() << "unexpected runtime service " << kRuntimeServiceNames[Slot];
  return EFI_UNSUPPORTED;
}

template <size_t... Slots> void FillUnexpected(VOID **Table, std::index_sequence<Slots...>, bool Boot) {
  if (Boot) {
    ((Table[Slots] = reinterpret_cast<VOID *>(&UnexpectedBootService<Slots>)), ...);
  } else {
    ((Table[Slots] = reinterpret_cast<VOID *>(&UnexpectedRuntimeService<Slots % kRuntimeServiceCount>)), ...);
  }
}

// ---- Boot services -------------------------------------------------------------------------
EFI_TPL EFIAPI RaiseTpl(EFI_TPL NewTpl) {
  (void)NewTpl;
  return TPL_APPLICATION;
}
VOID EFIAPI RestoreTpl(EFI_TPL OldTpl) { (void)OldTpl; }
EFI_STATUS EFIAPI AllocatePages(EFI_ALLOCATE_TYPE Type, EFI_MEMORY_TYPE MemoryType, UINTN Pages,
                                EFI_PHYSICAL_ADDRESS *Memory) {
  return S().DoAllocatePages(Type, MemoryType, Pages, Memory);
}
EFI_STATUS EFIAPI FreePages(EFI_PHYSICAL_ADDRESS Memory, UINTN Pages) { return S().DoFreePages(Memory, Pages); }
EFI_STATUS EFIAPI AllocatePool(EFI_MEMORY_TYPE Type, UINTN Size, VOID **Buffer) {
  return S().DoAllocatePool(Type, Size, Buffer);
}
EFI_STATUS EFIAPI FreePool(VOID *Buffer) { return S().DoFreePool(Buffer); }
EFI_STATUS EFIAPI CreateEvent(UINT32 Type, EFI_TPL Tpl, EFI_EVENT_NOTIFY Notify, VOID *Context, EFI_EVENT *Event) {
  return S().DoCreateEvent(Type, Tpl, Notify, Context, nullptr, Event);
}
EFI_STATUS EFIAPI CreateEventEx(UINT32 Type, EFI_TPL Tpl, EFI_EVENT_NOTIFY Notify, const VOID *Context,
                                const EFI_GUID *Group, EFI_EVENT *Event) {
  return S().DoCreateEvent(Type, Tpl, Notify, const_cast<VOID *>(Context), Group, Event);
}
EFI_STATUS EFIAPI SignalEvent(EFI_EVENT Event) { return S().DoSignalEvent(Event); }
EFI_STATUS EFIAPI CloseEvent(EFI_EVENT Event) { return S().DoCloseEvent(Event); }
EFI_STATUS EFIAPI InstallProtocolInterface(EFI_HANDLE *Handle, EFI_GUID *Protocol, EFI_INTERFACE_TYPE Type,
                                           VOID *Interface) {
  (void)Type;
  return S().DoInstallProtocolInterface(Handle, Protocol, Interface);
}
EFI_STATUS EFIAPI UninstallProtocolInterface(EFI_HANDLE Handle, EFI_GUID *Protocol, VOID *Interface) {
  return S().DoUninstallProtocolInterface(Handle, Protocol, Interface);
}
EFI_STATUS EFIAPI HandleProtocol(EFI_HANDLE Handle, EFI_GUID *Protocol, VOID **Interface) {
  return S().DoHandleProtocol(Handle, Protocol, Interface);
}
EFI_STATUS EFIAPI RegisterProtocolNotify(EFI_GUID *Protocol, EFI_EVENT Event, VOID **Registration) {
  return S().DoRegisterProtocolNotify(Protocol, Event, Registration);
}
EFI_STATUS EFIAPI InstallConfigurationTable(EFI_GUID *Guid, VOID *Table) {
  return S().DoInstallConfigurationTable(Guid, Table);
}
EFI_STATUS EFIAPI Stall(UINTN Microseconds) { return S().DoStall(Microseconds); }
EFI_STATUS EFIAPI LocateHandleBuffer(EFI_LOCATE_SEARCH_TYPE SearchType, EFI_GUID *Protocol, VOID *SearchKey,
                                     UINTN *Count, EFI_HANDLE **Buffer) {
  (void)SearchKey;
  return S().DoLocateHandleBuffer(SearchType, Protocol, Count, Buffer);
}
EFI_STATUS EFIAPI LocateProtocol(EFI_GUID *Protocol, VOID *Registration, VOID **Interface) {
  return S().DoLocateProtocol(Protocol, Registration, Interface);
}
VOID EFIAPI CopyMemService(VOID *Destination, VOID *Source, UINTN Length) { std::memmove(Destination, Source, Length); }
VOID EFIAPI SetMemService(VOID *Buffer, UINTN Size, UINT8 Value) { std::memset(Buffer, Value, Size); }

// ---- Runtime services ----------------------------------------------------------------------
EFI_STATUS EFIAPI GetVariable(CHAR16 *Name, EFI_GUID *Guid, UINT32 *Attributes, UINTN *DataSize, VOID *Data) {
  return S().DoGetVariable(Name, Guid, Attributes, DataSize, Data);
}
EFI_STATUS EFIAPI SetVariable(CHAR16 *Name, EFI_GUID *Guid, UINT32 Attributes, UINTN DataSize, VOID *Data) {
  return S().DoSetVariable(Name, Guid, Attributes, DataSize, Data);
}
EFI_STATUS EFIAPI GetNextVariableName(UINTN *NameSize, CHAR16 *Name, EFI_GUID *Guid) {
  return S().DoGetNextVariableName(NameSize, Name, Guid);
}
EFI_STATUS EFIAPI ResetSystem(EFI_RESET_TYPE Type, EFI_STATUS Status, UINTN DataSize, CHAR16 *Data) {
  (void)DataSize;
  (void)Data;
  S().DoResetSystem(Type, Status);
}

// ---- Console -------------------------------------------------------------------------------
EFI_STATUS EFIAPI OutputString(SIMPLE_TEXT_OUTPUT_INTERFACE *This, CHAR16 *Text) {
  (void)This;
  return S().DoOutputString(Text);
}

// ---- PCD protocol --------------------------------------------------------------------------
UINT8 EFIAPI PcdGet8(const EFI_GUID *Guid, UINTN Token) {
  return static_cast<UINT8>(S().PcdValue(Guid, Token, "Get8"));
}
UINT16 EFIAPI PcdGet16(const EFI_GUID *Guid, UINTN Token) {
  return static_cast<UINT16>(S().PcdValue(Guid, Token, "Get16"));
}
UINT32 EFIAPI PcdGet32(const EFI_GUID *Guid, UINTN Token) {
  return static_cast<UINT32>(S().PcdValue(Guid, Token, "Get32"));
}
UINT64 EFIAPI PcdGet64(const EFI_GUID *Guid, UINTN Token) { return S().PcdValue(Guid, Token, "Get64"); }
VOID *EFIAPI PcdGetPtr(const EFI_GUID *Guid, UINTN Token) {
  return reinterpret_cast<VOID *>(S().PcdValue(Guid, Token, "GetPtr"));
}
BOOLEAN EFIAPI PcdGetBool(const EFI_GUID *Guid, UINTN Token) {
  return S().PcdValue(Guid, Token, "GetBool") != 0 ? TRUE : FALSE;
}
UINTN EFIAPI PcdGetSize(const EFI_GUID *Guid, UINTN Token) { return S().PcdValue(Guid, Token, "GetSize"); }
EFI_STATUS EFIAPI PcdSet64(const EFI_GUID *Guid, UINTN Token, UINT64 Value) {
  S().SetPcd(*Guid, Token, Value);
  return EFI_SUCCESS;
}

// ---- SMM -----------------------------------------------------------------------------------
EFI_STATUS EFIAPI SmmInSmm(const EFI_SMM_BASE2_PROTOCOL *This, BOOLEAN *InSmram) {
  (void)This;
  *InSmram = S().SmmInSmm();
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI SmmGetSmstLocation(const EFI_SMM_BASE2_PROTOCOL *This, EFI_SMM_SYSTEM_TABLE2 **Smst) {
  (void)This;
  *Smst = S().Smst();
  return EFI_SUCCESS;
}
EFI_STATUS EFIAPI SmmLocateProtocol(EFI_GUID *Protocol, VOID *Registration, VOID **Interface) {
  (void)Registration;
  return S().DoSmmLocateProtocol(Protocol, Interface);
}
EFI_STATUS EFIAPI SmmInstallProtocolInterface(EFI_HANDLE *Handle, EFI_GUID *Protocol, EFI_INTERFACE_TYPE Type,
                                              VOID *Interface) {
  (void)Type;
  return S().DoSmmInstallProtocolInterface(Handle, Protocol, Interface);
}
EFI_STATUS EFIAPI SmmAllocatePool(EFI_MEMORY_TYPE Type, UINTN Size, VOID **Buffer) {
  return S().DoAllocatePool(Type, Size, Buffer);
}
EFI_STATUS EFIAPI SmmFreePool(VOID *Buffer) { return S().DoFreePool(Buffer); }

bool SameGuid(const EFI_GUID &First, const EFI_GUID &Second) { return std::memcmp(&First, &Second, sizeof(EFI_GUID)) == 0; }

std::u16string WideString(const CHAR16 *Text) {
  std::u16string Result;
  while (Text != nullptr && *Text != 0) {
    Result.push_back(static_cast<char16_t>(*Text++));
  }
  return Result;
}

}  // namespace

std::string SimUefi::GuidKey(const EFI_GUID &Guid) {
  return std::string(reinterpret_cast<const char *>(&Guid), sizeof(Guid));
}

SimUefi *SimUefi::Current() { return gCurrent; }

SimUefi::SimUefi() {
  if (gCurrent != nullptr) {
    ADD_FAILURE() << "two simulated UEFI environments at once";
  }
  gCurrent = this;

  FillUnexpected(reinterpret_cast<VOID **>(reinterpret_cast<uint8_t *>(&BootServices_) + sizeof(EFI_TABLE_HEADER)),
                 std::make_index_sequence<kBootServiceCount>(), true);
  FillUnexpected(reinterpret_cast<VOID **>(reinterpret_cast<uint8_t *>(&RuntimeServices_) + sizeof(EFI_TABLE_HEADER)),
                 std::make_index_sequence<kRuntimeServiceCount>(), false);
  BootServices_.Hdr.Signature = EFI_BOOT_SERVICES_SIGNATURE;
  BootServices_.RaiseTPL = RaiseTpl;
  BootServices_.RestoreTPL = RestoreTpl;
  BootServices_.AllocatePages = AllocatePages;
  BootServices_.FreePages = FreePages;
  BootServices_.AllocatePool = AllocatePool;
  BootServices_.FreePool = FreePool;
  BootServices_.CreateEvent = CreateEvent;
  BootServices_.CreateEventEx = reinterpret_cast<EFI_CREATE_EVENT_EX>(CreateEventEx);
  BootServices_.SignalEvent = SignalEvent;
  BootServices_.CloseEvent = CloseEvent;
  BootServices_.InstallProtocolInterface = InstallProtocolInterface;
  BootServices_.UninstallProtocolInterface = UninstallProtocolInterface;
  BootServices_.HandleProtocol = HandleProtocol;
  BootServices_.RegisterProtocolNotify = RegisterProtocolNotify;
  BootServices_.InstallConfigurationTable = ::InstallConfigurationTable;
  BootServices_.Stall = Stall;
  BootServices_.LocateHandleBuffer = LocateHandleBuffer;
  BootServices_.LocateProtocol = LocateProtocol;
  BootServices_.CopyMem = CopyMemService;
  BootServices_.SetMem = SetMemService;

  RuntimeServices_.Hdr.Signature = EFI_RUNTIME_SERVICES_SIGNATURE;
  RuntimeServices_.GetVariable = ::GetVariable;
  RuntimeServices_.SetVariable = ::SetVariable;
  RuntimeServices_.GetNextVariableName = GetNextVariableName;
  RuntimeServices_.ResetSystem = ResetSystem;

  ConOut_.OutputString = OutputString;
  ConOut_.Mode = &ConOutMode_;
  SystemTable_.Hdr.Signature = EFI_SYSTEM_TABLE_SIGNATURE;
  SystemTable_.Hdr.Revision = (2 << 16) | 70;
  SystemTable_.BootServices = &BootServices_;
  SystemTable_.RuntimeServices = &RuntimeServices_;
  SystemTable_.ConOut = &ConOut_;

  Pcd_.Get8 = ::PcdGet8;
  Pcd_.Get16 = ::PcdGet16;
  Pcd_.Get32 = ::PcdGet32;
  Pcd_.Get64 = ::PcdGet64;
  Pcd_.GetPtr = ::PcdGetPtr;
  Pcd_.GetBool = ::PcdGetBool;
  Pcd_.GetSize = ::PcdGetSize;
  Pcd_.Set64 = ::PcdSet64;

  SmmBase2_.InSmm = ::SmmInSmm;
  SmmBase2_.GetSmstLocation = SmmGetSmstLocation;
  Smst_.SmmLocateProtocol = SmmLocateProtocol;
  Smst_.SmmInstallProtocolInterface = reinterpret_cast<VOID *>(&::SmmInstallProtocolInterface);
  Smst_.SmmAllocatePool = reinterpret_cast<VOID *>(&::SmmAllocatePool);
  Smst_.SmmFreePool = reinterpret_cast<VOID *>(&::SmmFreePool);

  ImageHandle_ = NewHandle();
  LoadedImage_.Revision = EFI_IMAGE_INFORMATION_REVISION;
  LoadedImage_.SystemTable = &SystemTable_;
  LoadedImage_.ImageCodeType = EfiBootServicesCode;
  LoadedImage_.ImageDataType = EfiBootServicesData;
  Install(&ImageHandle_, gEfiLoadedImageProtocolGuid, &LoadedImage_);
}

SimUefi::~SimUefi() {
  size_t Leaks = LeakedAllocations();
  EXPECT_EQ(Leaks, 0u) << "pool or page allocations leaked";
  for (auto &[Pointer, Size] : Pool_) {
    std::free(Pointer);
  }
  for (auto &[Address, Pages] : Pages_) {
    std::free(reinterpret_cast<VOID *>(Address));
  }
  gCurrent = nullptr;
}

EFI_HANDLE SimUefi::NewHandle() {
  HandleStorage_.push_back(std::make_unique<uint64_t>(0));
  EFI_HANDLE Handle = HandleStorage_.back().get();
  Handles_[Handle];
  HandleOrder_.push_back(Handle);
  return Handle;
}

EFI_STATUS SimUefi::Install(EFI_HANDLE *Handle, const EFI_GUID &Guid, VOID *Interface) {
  return DoInstallProtocolInterface(Handle, const_cast<EFI_GUID *>(&Guid), Interface);
}

std::vector<EFI_HANDLE> SimUefi::HandlesWith(const EFI_GUID &Guid) const {
  std::vector<EFI_HANDLE> Result;
  for (EFI_HANDLE Handle : HandleOrder_) {
    auto Found = Handles_.find(Handle);
    if (Found == Handles_.end()) {
      continue;
    }
    for (const ProtocolEntry &Entry : Found->second.Protocols) {
      if (SameGuid(Entry.Guid, Guid)) {
        Result.push_back(Handle);
        break;
      }
    }
  }
  return Result;
}

VOID *SimUefi::InterfaceOn(EFI_HANDLE Handle, const EFI_GUID &Guid) const {
  auto Found = Handles_.find(Handle);
  if (Found == Handles_.end()) {
    return nullptr;
  }
  for (const ProtocolEntry &Entry : Found->second.Protocols) {
    if (SameGuid(Entry.Guid, Guid)) {
      return Entry.Interface;
    }
  }
  return nullptr;
}

void SimUefi::FailNextInstall(const EFI_GUID &Guid, EFI_STATUS Status) { InstallFailures_[GuidKey(Guid)] = Status; }

EFI_STATUS SimUefi::DoInstallProtocolInterface(EFI_HANDLE *Handle, EFI_GUID *Protocol, VOID *Interface) {
  if (Handle == nullptr || Protocol == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  auto Failure = InstallFailures_.find(GuidKey(*Protocol));
  if (Failure != InstallFailures_.end()) {
    EFI_STATUS Status = Failure->second;
    InstallFailures_.erase(Failure);
    return Status;
  }
  if (*Handle == nullptr) {
    *Handle = NewHandle();
  } else if (Handles_.find(*Handle) == Handles_.end()) {
    return EFI_INVALID_PARAMETER;
  }
  if (InterfaceOn(*Handle, *Protocol) != nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  Handles_[*Handle].Protocols.push_back({*Protocol, Interface});
  NotifyInstalled(*Protocol, Interface);
  return EFI_SUCCESS;
}

EFI_STATUS SimUefi::DoUninstallProtocolInterface(EFI_HANDLE Handle, EFI_GUID *Protocol, VOID *Interface) {
  auto Found = Handles_.find(Handle);
  if (Found == Handles_.end()) {
    return EFI_NOT_FOUND;
  }
  auto &Protocols = Found->second.Protocols;
  for (auto Entry = Protocols.begin(); Entry != Protocols.end(); ++Entry) {
    if (SameGuid(Entry->Guid, *Protocol) && Entry->Interface == Interface) {
      Protocols.erase(Entry);
      return EFI_SUCCESS;
    }
  }
  return EFI_NOT_FOUND;
}

EFI_STATUS SimUefi::DoHandleProtocol(EFI_HANDLE Handle, EFI_GUID *Protocol, VOID **Interface) {
  if (Interface == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  auto Found = Handles_.find(Handle);
  if (Found == Handles_.end()) {
    return EFI_UNSUPPORTED;
  }
  for (const ProtocolEntry &Entry : Found->second.Protocols) {
    if (SameGuid(Entry.Guid, *Protocol)) {
      *Interface = Entry.Interface;
      return EFI_SUCCESS;
    }
  }
  return EFI_UNSUPPORTED;
}

EFI_STATUS SimUefi::DoLocateProtocol(EFI_GUID *Protocol, VOID *RegistrationKey, VOID **Interface) {
  if (Interface == nullptr || Protocol == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  *Interface = nullptr;
  if (RegistrationKey != nullptr) {
    auto Found = Registrations_.find(RegistrationKey);
    if (Found == Registrations_.end() || Found->second.Pending.empty()) {
      return EFI_NOT_FOUND;
    }
    *Interface = Found->second.Pending.front();
    Found->second.Pending.erase(Found->second.Pending.begin());
    return EFI_SUCCESS;
  }
  std::vector<EFI_HANDLE> Handles = HandlesWith(*Protocol);
  if (Handles.empty()) {
    return EFI_NOT_FOUND;
  }
  *Interface = InterfaceOn(Handles.front(), *Protocol);
  return EFI_SUCCESS;
}

EFI_STATUS SimUefi::DoLocateHandleBuffer(EFI_LOCATE_SEARCH_TYPE SearchType, EFI_GUID *Protocol, UINTN *Count,
                                         EFI_HANDLE **Buffer) {
  if (Count == nullptr || Buffer == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  std::vector<EFI_HANDLE> Handles;
  if (SearchType == AllHandles) {
    Handles = HandleOrder_;
  } else if (SearchType == ByProtocol && Protocol != nullptr) {
    Handles = HandlesWith(*Protocol);
  } else {
    return EFI_INVALID_PARAMETER;
  }
  if (Handles.empty()) {
    return EFI_NOT_FOUND;
  }
  VOID *Memory = nullptr;
  EFI_STATUS Status = DoAllocatePool(EfiBootServicesData, Handles.size() * sizeof(EFI_HANDLE), &Memory);
  if (Status != EFI_SUCCESS) {
    return Status;
  }
  std::memcpy(Memory, Handles.data(), Handles.size() * sizeof(EFI_HANDLE));
  *Count = Handles.size();
  *Buffer = static_cast<EFI_HANDLE *>(Memory);
  return EFI_SUCCESS;
}

EFI_STATUS SimUefi::DoRegisterProtocolNotify(EFI_GUID *Protocol, EFI_EVENT Event, VOID **RegistrationKey) {
  if (Protocol == nullptr || Event == nullptr || RegistrationKey == nullptr || Events_.count(Event) == 0) {
    return EFI_INVALID_PARAMETER;
  }
  RegistrationStorage_.push_back(std::make_unique<uint64_t>(0));
  VOID *Key = RegistrationStorage_.back().get();
  Registrations_[Key] = {GuidKey(*Protocol), Event, {}};
  *RegistrationKey = Key;
  return EFI_SUCCESS;
}

void SimUefi::NotifyInstalled(const EFI_GUID &Guid, VOID *Interface) {
  std::vector<EFI_EVENT> ToSignal;
  for (auto &[Key, Registration] : Registrations_) {
    if (Registration.Guid == GuidKey(Guid) && Events_.count(Registration.Event) != 0) {
      Registration.Pending.push_back(Interface);
      ToSignal.push_back(Registration.Event);
    }
  }
  for (EFI_EVENT Event : ToSignal) {
    DoSignalEvent(Event);
  }
}

EFI_STATUS SimUefi::DoCreateEvent(UINT32 Type, EFI_TPL Tpl, EFI_EVENT_NOTIFY Notify, VOID *Context,
                                  const EFI_GUID *Group, EFI_EVENT *NewEvent) {
  (void)Tpl;
  if (NewEvent == nullptr || ((Type & (EVT_NOTIFY_SIGNAL | EVT_NOTIFY_WAIT)) != 0 && Notify == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }
  EventStorage_.push_back(std::make_unique<uint64_t>(0));
  EFI_EVENT Handle = EventStorage_.back().get();
  Events_[Handle] = {Type, Notify, Context, Group != nullptr ? GuidKey(*Group) : std::string()};
  *NewEvent = Handle;
  return EFI_SUCCESS;
}

EFI_STATUS SimUefi::DoCloseEvent(EFI_EVENT Event) {
  if (Events_.erase(Event) == 0) {
    ADD_FAILURE() << "CloseEvent of an event that is not open";
    return EFI_INVALID_PARAMETER;
  }
  for (auto Registration = Registrations_.begin(); Registration != Registrations_.end();) {
    Registration = Registration->second.Event == Event ? Registrations_.erase(Registration) : std::next(Registration);
  }
  return EFI_SUCCESS;
}

void SimUefi::RunNotify(EFI_EVENT Event) {
  auto Found = Events_.find(Event);
  if (Found != Events_.end() && Found->second.Notify != nullptr && (Found->second.Type & EVT_NOTIFY_SIGNAL) != 0) {
    Found->second.Notify(Event, Found->second.Context);
  }
}

EFI_STATUS SimUefi::DoSignalEvent(EFI_EVENT Event) {
  auto Found = Events_.find(Event);
  if (Found == Events_.end()) {
    return EFI_INVALID_PARAMETER;
  }
  if (!Found->second.Group.empty()) {
    std::string Group = Found->second.Group;
    std::vector<EFI_EVENT> Members;
    for (auto &[Handle, Candidate] : Events_) {
      if (Candidate.Group == Group) {
        Members.push_back(Handle);
      }
    }
    for (EFI_EVENT Member : Members) {
      RunNotify(Member);
    }
    return EFI_SUCCESS;
  }
  Found->second.Signaled = true;
  RunNotify(Event);
  return EFI_SUCCESS;
}

void SimUefi::SignalEventGroup(const EFI_GUID &Group) {
  std::vector<EFI_EVENT> Members;
  for (auto &[Handle, Candidate] : Events_) {
    if (Candidate.Group == GuidKey(Group)) {
      Members.push_back(Handle);
    }
  }
  for (EFI_EVENT Member : Members) {
    RunNotify(Member);
  }
}

EFI_STATUS SimUefi::DoAllocatePool(EFI_MEMORY_TYPE Type, UINTN Size, VOID **Buffer) {
  (void)Type;
  if (Buffer == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  if (FailAllocationCountdown_ != 0 && --FailAllocationCountdown_ == 0) {
    return EFI_OUT_OF_RESOURCES;
  }
  VOID *Memory = std::malloc(Size == 0 ? 1 : Size);
  if (Memory == nullptr) {
    return EFI_OUT_OF_RESOURCES;
  }
  std::memset(Memory, 0xAF, Size);  // pool memory is not zeroed: make reliance on that visible
  Pool_[Memory] = Size;
  *Buffer = Memory;
  return EFI_SUCCESS;
}

EFI_STATUS SimUefi::DoFreePool(VOID *Buffer) {
  auto Found = Pool_.find(Buffer);
  if (Found == Pool_.end()) {
    ADD_FAILURE() << "FreePool of memory that is not allocated (double free?)";
    return EFI_INVALID_PARAMETER;
  }
  std::free(Buffer);
  Pool_.erase(Found);
  AdoptedPool_.erase(Buffer);
  return EFI_SUCCESS;
}

EFI_STATUS SimUefi::DoAllocatePages(EFI_ALLOCATE_TYPE Type, EFI_MEMORY_TYPE MemoryType, UINTN Pages,
                                    EFI_PHYSICAL_ADDRESS *Memory) {
  (void)MemoryType;
  if (Type != AllocateAnyPages || Memory == nullptr) {
    ADD_FAILURE() << "only AllocateAnyPages is simulated";
    return EFI_UNSUPPORTED;
  }
  if (FailAllocationCountdown_ != 0 && --FailAllocationCountdown_ == 0) {
    return EFI_OUT_OF_RESOURCES;
  }
  VOID *Block = std::aligned_alloc(4096, Pages * 4096);
  if (Block == nullptr) {
    return EFI_OUT_OF_RESOURCES;
  }
  *Memory = reinterpret_cast<EFI_PHYSICAL_ADDRESS>(Block);
  Pages_[*Memory] = Pages;
  return EFI_SUCCESS;
}

EFI_STATUS SimUefi::DoFreePages(EFI_PHYSICAL_ADDRESS Memory, UINTN Pages) {
  auto Found = Pages_.find(Memory);
  if (Found == Pages_.end() || Found->second != Pages) {
    ADD_FAILURE() << "FreePages of pages that are not allocated as such";
    return EFI_NOT_FOUND;
  }
  std::free(reinterpret_cast<VOID *>(Memory));
  Pages_.erase(Found);
  AdoptedPages_.erase(Memory);
  return EFI_SUCCESS;
}

void SimUefi::AdoptLiveAllocations() {
  for (auto &[Pointer, Size] : Pool_) {
    AdoptedPool_.insert(Pointer);
  }
  for (auto &[Address, Pages] : Pages_) {
    AdoptedPages_.insert(Address);
  }
}

size_t SimUefi::LeakedAllocations() const {
  size_t Count = 0;
  for (auto &[Pointer, Size] : Pool_) {
    Count += AdoptedPool_.count(Pointer) == 0 ? 1 : 0;
  }
  for (auto &[Address, Pages] : Pages_) {
    Count += AdoptedPages_.count(Address) == 0 ? 1 : 0;
  }
  return Count;
}

EFI_STATUS SimUefi::DoStall(UINTN Microseconds) {
  Stalled_ += Microseconds;
  return EFI_SUCCESS;
}

void SimUefi::InstallConfigurationTable(const EFI_GUID &Guid, VOID *Table) {
  DoInstallConfigurationTable(const_cast<EFI_GUID *>(&Guid), Table);
}

EFI_STATUS SimUefi::DoInstallConfigurationTable(EFI_GUID *Guid, VOID *Table) {
  for (auto Entry = ConfigTables_.begin(); Entry != ConfigTables_.end(); ++Entry) {
    if (SameGuid(Entry->VendorGuid, *Guid)) {
      if (Table == nullptr) {
        ConfigTables_.erase(Entry);
      } else {
        Entry->VendorTable = Table;
      }
      SystemTable_.ConfigurationTable = ConfigTables_.data();
      SystemTable_.NumberOfTableEntries = ConfigTables_.size();
      return EFI_SUCCESS;
    }
  }
  if (Table == nullptr) {
    return EFI_NOT_FOUND;
  }
  ConfigTables_.push_back({*Guid, Table});
  SystemTable_.ConfigurationTable = ConfigTables_.data();
  SystemTable_.NumberOfTableEntries = ConfigTables_.size();
  return EFI_SUCCESS;
}

void SimUefi::SetVariable(const std::u16string &Name, const EFI_GUID &Guid, UINT32 Attributes, const void *Data,
                          size_t Size) {
  SimVariable &Variable = Variables_[{Name, GuidKey(Guid)}];
  Variable.Attributes = Attributes;
  Variable.Data.assign(static_cast<const uint8_t *>(Data), static_cast<const uint8_t *>(Data) + Size);
}

const SimVariable *SimUefi::FindVariable(const std::u16string &Name, const EFI_GUID &Guid) const {
  auto Found = Variables_.find({Name, GuidKey(Guid)});
  return Found == Variables_.end() ? nullptr : &Found->second;
}

EFI_STATUS SimUefi::DoGetVariable(CHAR16 *Name, EFI_GUID *Guid, UINT32 *Attributes, UINTN *DataSize, VOID *Data) {
  if (Name == nullptr || Guid == nullptr || DataSize == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  std::u16string Key = WideString(Name);
  auto Failure = GetVariableFailures_.find(Key);
  if (Failure != GetVariableFailures_.end()) {
    return Failure->second;
  }
  const SimVariable *Variable = FindVariable(Key, *Guid);
  if (Variable == nullptr) {
    return EFI_NOT_FOUND;
  }
  if (*DataSize < Variable->Data.size()) {
    *DataSize = Variable->Data.size();
    return EFI_BUFFER_TOO_SMALL;
  }
  if (Data == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  std::memcpy(Data, Variable->Data.data(), Variable->Data.size());
  *DataSize = Variable->Data.size();
  if (Attributes != nullptr) {
    *Attributes = Variable->Attributes;
  }
  return EFI_SUCCESS;
}

EFI_STATUS SimUefi::DoSetVariable(CHAR16 *Name, EFI_GUID *Guid, UINT32 Attributes, UINTN DataSize, VOID *Data) {
  if (Name == nullptr || Guid == nullptr || *Name == 0) {
    return EFI_INVALID_PARAMETER;
  }
  std::u16string Key = WideString(Name);
  if (DataSize == 0 || Attributes == 0) {
    return Variables_.erase({Key, GuidKey(*Guid)}) != 0 ? EFI_SUCCESS : EFI_NOT_FOUND;
  }
  if (Data == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  SetVariable(Key, *Guid, Attributes, Data, DataSize);
  return EFI_SUCCESS;
}

EFI_STATUS SimUefi::DoGetNextVariableName(UINTN *NameSize, CHAR16 *Name, EFI_GUID *Guid) {
  if (NameSize == nullptr || Name == nullptr || Guid == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  auto Next = Variables_.begin();
  if (Name[0] != 0) {
    Next = Variables_.find({WideString(Name), GuidKey(*Guid)});
    if (Next == Variables_.end()) {
      return EFI_INVALID_PARAMETER;
    }
    ++Next;
  }
  if (Next == Variables_.end()) {
    return EFI_NOT_FOUND;
  }
  const std::u16string &NextName = Next->first.first;
  UINTN Needed = (NextName.size() + 1) * sizeof(CHAR16);
  if (*NameSize < Needed) {
    *NameSize = Needed;
    return EFI_BUFFER_TOO_SMALL;
  }
  std::memcpy(Name, NextName.c_str(), Needed);
  std::memcpy(Guid, Next->first.second.data(), sizeof(EFI_GUID));
  *NameSize = Needed;
  return EFI_SUCCESS;
}

void SimUefi::DoResetSystem(EFI_RESET_TYPE Type, EFI_STATUS Status) {
  ResetCount_++;
  LastResetType_ = Type;
  throw SimResetRequested{Type, Status};
}

void SimUefi::SimulateReboot() {
  for (auto Variable = Variables_.begin(); Variable != Variables_.end();) {
    Variable = (Variable->second.Attributes & EFI_VARIABLE_NON_VOLATILE) == 0 ? Variables_.erase(Variable)
                                                                                : std::next(Variable);
  }
}

EFI_STATUS SimUefi::DoOutputString(CHAR16 *Text) {
  Console_ += WideString(Text);
  return EFI_SUCCESS;
}

void SimUefi::SetPcd(const EFI_GUID &TokenSpace, UINTN Token, UINT64 Value) {
  Pcds_[{GuidKey(TokenSpace), Token}] = Value;
}

void SimUefi::InstallPcdProtocol() {
  if (!PcdInstalled_) {
    EFI_HANDLE Handle = nullptr;
    Install(&Handle, gEfiPcdProtocolGuid, &Pcd_);
    PcdInstalled_ = true;
  }
}

UINT64 SimUefi::PcdValue(const EFI_GUID *TokenSpace, UINTN Token, const char *Getter) {
  auto Found = Pcds_.find({GuidKey(*TokenSpace), Token});
  if (Found == Pcds_.end()) {
    ADD_FAILURE() << "PCD " << Getter << " of an unknown token 0x" << std::hex << Token;
    return 0;
  }
  return Found->second;
}

void SimUefi::InstallSmmBase2(BOOLEAN InSmm) {
  SmmInSmm_ = InSmm;
  EFI_HANDLE Handle = nullptr;
  Install(&Handle, gEfiSmmBase2ProtocolGuid, &SmmBase2_);
}

EFI_STATUS SimUefi::DoSmmInstallProtocolInterface(EFI_HANDLE *Handle, EFI_GUID *Protocol, VOID *Interface) {
  if (Handle == nullptr || Protocol == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  if (SmmProtocols_.count(GuidKey(*Protocol)) != 0) {
    return EFI_INVALID_PARAMETER;
  }
  if (*Handle == nullptr) {
    *Handle = NewHandle();
  }
  SmmProtocols_[GuidKey(*Protocol)] = Interface;
  return EFI_SUCCESS;
}

EFI_STATUS SimUefi::DoSmmLocateProtocol(EFI_GUID *Protocol, VOID **Interface) {
  auto Found = SmmProtocols_.find(GuidKey(*Protocol));
  if (Found == SmmProtocols_.end()) {
    return EFI_NOT_FOUND;
  }
  *Interface = Found->second;
  return EFI_SUCCESS;
}
