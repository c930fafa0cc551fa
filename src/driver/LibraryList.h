// The libraries the driver is built from, started and stopped in a fixed order by the
// entry point. Later libraries rely on globals that earlier ones set (gBS, gST, gRT, the
// HOB list, the PCD and SMM pointers).
#pragma once
#include "../base/Uefi.h"

typedef EFI_STATUS(EFIAPI *LIBRARY_CONSTRUCTOR)(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable);
typedef EFI_STATUS(EFIAPI *LIBRARY_DESTRUCTOR)(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable);

struct LibraryStep {
  const char *Name;
  LIBRARY_CONSTRUCTOR Run;
};

constexpr UINTN kLibraryConstructorCount = 23;
constexpr UINTN kLibraryDestructorCount = 10;
extern const LibraryStep kLibraryConstructors[kLibraryConstructorCount];
extern const LibraryStep kLibraryDestructors[kLibraryDestructorCount];

void RunLibraryConstructors(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable);
void RunLibraryDestructors(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable);

#if defined(BIOS_HOST_BUILD)
// Tests watch the order in which the steps run.
extern void (*gLibraryStepObserver)(const char *Name);
#endif

// ---- Constructors and destructors, each defined with its library ------------------------
EFI_STATUS EFIAPI UefiBootServicesTableLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI DevicePathLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI UefiRuntimeServicesTableLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI EmptyLibraryConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI HobLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI DebugPrintErrorLevelLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI SmbusLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI TscTimerLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI S3BootScriptLibInitialize(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI AmdS3SaveLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI AmdCfgPcdBufLibDxeConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI AmdHeapConfigLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI AmdBaseLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI CallbackHubLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI PointerRegistrationLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI FlashMapLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI VariableStorePointerLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI DxeServicesTableLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI PlatformPointerRegistrationConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI CmosToRomStart(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI SmmServicesTableLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI SecuritySettingsLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI CriticalDataAuthVarLibConstructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);

EFI_STATUS EFIAPI CriticalDataAuthVarLibDestructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI SecuritySettingsLibDestructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI EmptyLibraryDestructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI PlatformPointerRegistrationDestructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI VariableStorePointerLibDestructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI FlashMapLibDestructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI PointerRegistrationLibDestructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI AmdS3SaveLibDestructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI S3BootScriptLibDeinitialize(EFI_HANDLE, EFI_SYSTEM_TABLE *);
EFI_STATUS EFIAPI DebugPrintErrorLevelLibDestructor(EFI_HANDLE, EFI_SYSTEM_TABLE *);
