// SMM Base2 protocol and the SMM system table (PI specification, volume 4),
// as far as the driver's libraries use them.
#pragma once
#include "Uefi.h"

struct EFI_SMM_SYSTEM_TABLE2;
struct EFI_SMM_BASE2_PROTOCOL;

typedef EFI_STATUS(EFIAPI *EFI_SMM_INSIDE_OUT2)(const EFI_SMM_BASE2_PROTOCOL *This, BOOLEAN *InSmram);
typedef EFI_STATUS(EFIAPI *EFI_SMM_GET_SMST_LOCATION2)(const EFI_SMM_BASE2_PROTOCOL *This,
                                                       EFI_SMM_SYSTEM_TABLE2 **Smst);

struct EFI_SMM_BASE2_PROTOCOL {
  EFI_SMM_INSIDE_OUT2 InSmm;
  EFI_SMM_GET_SMST_LOCATION2 GetSmstLocation;
};

typedef EFI_STATUS(EFIAPI *EFI_SMM_LOCATE_PROTOCOL)(EFI_GUID *Protocol, VOID *Registration, VOID **Interface);
typedef EFI_STATUS(EFIAPI *EFI_SMM_REGISTER_PROTOCOL_NOTIFY)(const EFI_GUID *Protocol, VOID *Function,
                                                            VOID **Registration);

struct EFI_SMM_SYSTEM_TABLE2 {
  EFI_TABLE_HEADER Hdr;
  CHAR16 *SmmFirmwareVendor;
  UINT32 SmmFirmwareRevision;
  VOID *SmmInstallConfigurationTable;
  VOID *SmmIo[4];  // EFI_SMM_CPU_IO2_PROTOCOL: Mem.Read, Mem.Write, Io.Read, Io.Write
  VOID *SmmAllocatePool;
  VOID *SmmFreePool;
  VOID *SmmAllocatePages;
  VOID *SmmFreePages;
  VOID *SmmStartupThisAp;
  UINTN CurrentlyExecutingCpu;
  UINTN NumberOfCpus;
  UINTN *CpuSaveStateSize;
  VOID **CpuSaveState;
  UINTN NumberOfTableEntries;
  VOID *SmmConfigurationTable;
  VOID *SmmInstallProtocolInterface;
  VOID *SmmUninstallProtocolInterface;
  VOID *SmmHandleProtocol;
  EFI_SMM_REGISTER_PROTOCOL_NOTIFY SmmRegisterProtocolNotify;
  VOID *SmmLocateHandle;
  EFI_SMM_LOCATE_PROTOCOL SmmLocateProtocol;
  VOID *SmiManage;
  VOID *SmiHandlerRegister;
  VOID *SmiHandlerUnRegister;
};
static_assert(offsetof(EFI_SMM_SYSTEM_TABLE2, SmmInstallConfigurationTable) == 0x28);
static_assert(offsetof(EFI_SMM_SYSTEM_TABLE2, SmmLocateProtocol) == 0xD0);

// The SMM variable protocol has the runtime-services variable functions in this order.
struct EFI_SMM_VARIABLE_PROTOCOL {
  EFI_GET_VARIABLE SmmGetVariable;
  EFI_GET_NEXT_VARIABLE_NAME SmmGetNextVariableName;
  EFI_SET_VARIABLE SmmSetVariable;
  EFI_QUERY_VARIABLE_INFO SmmQueryVariableInfo;
};
