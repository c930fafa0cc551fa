// A simulated UEFI environment for host tests: system table, boot and runtime services,
// protocol database with notifications, events and groups, pool and pages with leak and
// double-free detection, variables with attributes, configuration tables, a virtual
// clock and an observable reset. A service that a test did not set up fails the test by
// name instead of crashing.
#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "../src/base/PiPcd.h"
#include "../src/base/PiSmm.h"
#include "../src/base/Uefi.h"

// Thrown by ResetSystem (and by the emulated reset port) to end the current simulated boot.
struct SimResetRequested {
  EFI_RESET_TYPE Type;
  EFI_STATUS Status;
};

struct SimVariable {
  UINT32 Attributes = 0;
  std::vector<uint8_t> Data;
};

class SimUefi {
public:
  SimUefi();
  ~SimUefi();
  SimUefi(const SimUefi &) = delete;
  SimUefi &operator=(const SimUefi &) = delete;

  static SimUefi *Current();

  EFI_SYSTEM_TABLE *SystemTable() { return &SystemTable_; }
  EFI_BOOT_SERVICES *BootServices() { return &BootServices_; }
  EFI_RUNTIME_SERVICES *RuntimeServices() { return &RuntimeServices_; }
  EFI_HANDLE ImageHandle() const { return ImageHandle_; }
  EFI_LOADED_IMAGE *LoadedImage() { return &LoadedImage_; }

  // ---- Protocol database ------------------------------------------------------------------
  EFI_HANDLE NewHandle();
  EFI_STATUS Install(EFI_HANDLE *Handle, const EFI_GUID &Guid, VOID *Interface);
  std::vector<EFI_HANDLE> HandlesWith(const EFI_GUID &Guid) const;
  VOID *InterfaceOn(EFI_HANDLE Handle, const EFI_GUID &Guid) const;
  // Makes the next InstallProtocolInterface of this GUID fail with the status given.
  void FailNextInstall(const EFI_GUID &Guid, EFI_STATUS Status);

  // ---- Pool and pages ----------------------------------------------------------------------
  // Makes the N-th next AllocatePool (1 = the next one) fail with EFI_OUT_OF_RESOURCES.
  void FailAllocationAfter(unsigned Count) { FailAllocationCountdown_ = Count; }
  size_t LiveAllocations() const { return Pool_.size() + Pages_.size(); }
  // Everything allocated so far is owned by the firmware for good (service tables...).
  void AdoptLiveAllocations();
  // Allocations made since the last adoption and not freed; reported at destruction.
  size_t LeakedAllocations() const;

  // ---- Variables ---------------------------------------------------------------------------
  std::map<std::pair<std::u16string, std::string>, SimVariable> &Variables() { return Variables_; }
  void SetVariable(const std::u16string &Name, const EFI_GUID &Guid, UINT32 Attributes, const void *Data, size_t Size);
  const SimVariable *FindVariable(const std::u16string &Name, const EFI_GUID &Guid) const;
  void FailGetVariable(const std::u16string &Name, EFI_STATUS Status) { GetVariableFailures_[Name] = Status; }
  // Drops everything but the non-volatile variables: the next boot.
  void SimulateReboot();

  // ---- Configuration tables, HOB list, PCD protocol, SMM -----------------------------------
  void InstallConfigurationTable(const EFI_GUID &Guid, VOID *Table);
  void SetPcd(const EFI_GUID &TokenSpace, UINTN Token, UINT64 Value);
  void InstallPcdProtocol();
  // Installs gEfiSmmBase2ProtocolGuid answering InSmm with the value given.
  void InstallSmmBase2(BOOLEAN InSmm);
  void InstallSmmProtocol(const EFI_GUID &Guid, VOID *Interface) { SmmProtocols_[GuidKey(Guid)] = Interface; }

  // ---- Events ------------------------------------------------------------------------------
  void SignalEventGroup(const EFI_GUID &Group);
  size_t OpenEvents() const { return Events_.size(); }

  // ---- Clock and reset ---------------------------------------------------------------------
  UINT64 StalledMicroseconds() const { return Stalled_; }
  unsigned ResetCount() const { return ResetCount_; }
  EFI_RESET_TYPE LastResetType() const { return LastResetType_; }

  // ---- Console -----------------------------------------------------------------------------
  std::u16string ConsoleText() const { return Console_; }

  // Service implementations (called from the EFIAPI thunks).
  EFI_STATUS DoInstallProtocolInterface(EFI_HANDLE *Handle, EFI_GUID *Protocol, VOID *Interface);
  EFI_STATUS DoUninstallProtocolInterface(EFI_HANDLE Handle, EFI_GUID *Protocol, VOID *Interface);
  EFI_STATUS DoHandleProtocol(EFI_HANDLE Handle, EFI_GUID *Protocol, VOID **Interface);
  EFI_STATUS DoLocateProtocol(EFI_GUID *Protocol, VOID *Registration, VOID **Interface);
  EFI_STATUS DoLocateHandleBuffer(EFI_LOCATE_SEARCH_TYPE SearchType, EFI_GUID *Protocol, UINTN *Count,
                                  EFI_HANDLE **Buffer);
  EFI_STATUS DoRegisterProtocolNotify(EFI_GUID *Protocol, EFI_EVENT Event, VOID **Registration);
  EFI_STATUS DoCreateEvent(UINT32 Type, EFI_TPL Tpl, EFI_EVENT_NOTIFY Notify, VOID *Context, const EFI_GUID *Group,
                           EFI_EVENT *Event);
  EFI_STATUS DoCloseEvent(EFI_EVENT Event);
  EFI_STATUS DoSignalEvent(EFI_EVENT Event);
  EFI_STATUS DoAllocatePool(EFI_MEMORY_TYPE Type, UINTN Size, VOID **Buffer);
  EFI_STATUS DoFreePool(VOID *Buffer);
  EFI_STATUS DoAllocatePages(EFI_ALLOCATE_TYPE Type, EFI_MEMORY_TYPE MemoryType, UINTN Pages,
                             EFI_PHYSICAL_ADDRESS *Memory);
  EFI_STATUS DoFreePages(EFI_PHYSICAL_ADDRESS Memory, UINTN Pages);
  EFI_STATUS DoStall(UINTN Microseconds);
  EFI_STATUS DoInstallConfigurationTable(EFI_GUID *Guid, VOID *Table);
  EFI_STATUS DoGetVariable(CHAR16 *Name, EFI_GUID *Guid, UINT32 *Attributes, UINTN *DataSize, VOID *Data);
  EFI_STATUS DoSetVariable(CHAR16 *Name, EFI_GUID *Guid, UINT32 Attributes, UINTN DataSize, VOID *Data);
  EFI_STATUS DoGetNextVariableName(UINTN *NameSize, CHAR16 *Name, EFI_GUID *Guid);
  [[noreturn]] void DoResetSystem(EFI_RESET_TYPE Type, EFI_STATUS Status);
  EFI_STATUS DoOutputString(CHAR16 *Text);
  UINT64 PcdValue(const EFI_GUID *TokenSpace, UINTN Token, const char *Getter);
  EFI_STATUS DoSmmLocateProtocol(EFI_GUID *Protocol, VOID **Interface);
  // The SMM protocol database holds one interface per GUID.
  EFI_STATUS DoSmmInstallProtocolInterface(EFI_HANDLE *Handle, EFI_GUID *Protocol, VOID *Interface);
  VOID *SmmInterface(const EFI_GUID &Guid) const {
    auto Found = SmmProtocols_.find(GuidKey(Guid));
    return Found == SmmProtocols_.end() ? nullptr : Found->second;
  }
  BOOLEAN SmmInSmm() const { return SmmInSmm_; }
  EFI_SMM_SYSTEM_TABLE2 *Smst() { return &Smst_; }

  static std::string GuidKey(const EFI_GUID &Guid);

private:
  struct ProtocolEntry {
    EFI_GUID Guid;
    VOID *Interface;
  };
  struct Handle {
    std::vector<ProtocolEntry> Protocols;
  };
  struct Event {
    UINT32 Type;
    EFI_EVENT_NOTIFY Notify;
    VOID *Context;
    std::string Group;
    bool Signaled = false;
  };
  struct Registration {
    std::string Guid;
    EFI_EVENT Event;
    std::vector<VOID *> Pending;  // interfaces installed since the last LocateProtocol
  };

  void NotifyInstalled(const EFI_GUID &Guid, VOID *Interface);
  void RunNotify(EFI_EVENT Event);

  EFI_SYSTEM_TABLE SystemTable_{};
  EFI_BOOT_SERVICES BootServices_{};
  EFI_RUNTIME_SERVICES RuntimeServices_{};
  SIMPLE_TEXT_OUTPUT_INTERFACE ConOut_{};
  SIMPLE_TEXT_OUTPUT_MODE ConOutMode_{};
  std::vector<EFI_CONFIGURATION_TABLE> ConfigTables_;

  std::map<EFI_HANDLE, Handle> Handles_;
  std::vector<EFI_HANDLE> HandleOrder_;
  std::vector<std::unique_ptr<uint64_t>> HandleStorage_;
  EFI_HANDLE ImageHandle_ = nullptr;
  EFI_LOADED_IMAGE LoadedImage_{};
  std::map<std::string, EFI_STATUS> InstallFailures_;

  std::map<EFI_EVENT, Event> Events_;
  std::vector<std::unique_ptr<uint64_t>> EventStorage_;
  std::map<VOID *, Registration> Registrations_;
  std::vector<std::unique_ptr<uint64_t>> RegistrationStorage_;

  std::map<VOID *, size_t> Pool_;
  std::map<EFI_PHYSICAL_ADDRESS, size_t> Pages_;
  std::set<VOID *> AdoptedPool_;
  std::set<EFI_PHYSICAL_ADDRESS> AdoptedPages_;
  unsigned FailAllocationCountdown_ = 0;

  std::map<std::pair<std::u16string, std::string>, SimVariable> Variables_;
  std::map<std::u16string, EFI_STATUS> GetVariableFailures_;

  std::map<std::pair<std::string, UINTN>, UINT64> Pcds_;
  EFI_PCD_PROTOCOL Pcd_{};
  bool PcdInstalled_ = false;

  EFI_SMM_BASE2_PROTOCOL SmmBase2_{};
  EFI_SMM_SYSTEM_TABLE2 Smst_{};
  BOOLEAN SmmInSmm_ = FALSE;
  std::map<std::string, VOID *> SmmProtocols_;

  UINT64 Stalled_ = 0;
  unsigned ResetCount_ = 0;
  EFI_RESET_TYPE LastResetType_ = EfiResetCold;
  std::u16string Console_;
};
