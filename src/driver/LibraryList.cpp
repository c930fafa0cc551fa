#include "LibraryList.h"

const LibraryStep kLibraryConstructors[kLibraryConstructorCount] = {
    {"UefiBootServicesTableLib", UefiBootServicesTableLibConstructor},
    {"DevicePathLib", DevicePathLibConstructor},
    {"UefiRuntimeServicesTableLib", UefiRuntimeServicesTableLibConstructor},
    {"EmptyLibrary", EmptyLibraryConstructor},
    {"HobLib", HobLibConstructor},
    {"DebugPrintErrorLevelLib", DebugPrintErrorLevelLibConstructor},
    {"SmbusLib", SmbusLibConstructor},
    {"TscTimerLib", TscTimerLibConstructor},
    {"S3BootScriptLib", S3BootScriptLibInitialize},
    {"AmdS3SaveLib", AmdS3SaveLibConstructor},
    {"AmdCfgPcdBufLib", AmdCfgPcdBufLibDxeConstructor},
    {"AmdHeapConfigLib", AmdHeapConfigLibConstructor},
    {"AmdBaseLib", AmdBaseLibConstructor},
    {"CallbackHub", CallbackHubLibConstructor},
    {"PointerRegistration", PointerRegistrationLibConstructor},
    {"FlashMap", FlashMapLibConstructor},
    {"VariableStorePointers", VariableStorePointerLibConstructor},
    {"DxeServicesTableLib", DxeServicesTableLibConstructor},
    {"PlatformPointerRegistration", PlatformPointerRegistrationConstructor},
    {"CmosToRomRestore", CmosToRomStart},
    {"SmmServicesTableLib", SmmServicesTableLibConstructor},
    {"SecuritySettingsLib", SecuritySettingsLibConstructor},
    {"CriticalDataAuthVarLib", CriticalDataAuthVarLibConstructor},
};

const LibraryStep kLibraryDestructors[kLibraryDestructorCount] = {
    {"CriticalDataAuthVarLib", CriticalDataAuthVarLibDestructor},
    {"SecuritySettingsLib", SecuritySettingsLibDestructor},
    {"EmptyLibrary", EmptyLibraryDestructor},
    {"PlatformPointerRegistration", PlatformPointerRegistrationDestructor},
    {"VariableStorePointers", VariableStorePointerLibDestructor},
    {"FlashMap", FlashMapLibDestructor},
    {"PointerRegistration", PointerRegistrationLibDestructor},
    {"AmdS3SaveLib", AmdS3SaveLibDestructor},
    {"S3BootScriptLib", S3BootScriptLibDeinitialize},
    {"DebugPrintErrorLevelLib", DebugPrintErrorLevelLibDestructor},
};

#if defined(BIOS_HOST_BUILD)
void (*gLibraryStepObserver)(const char *Name) = nullptr;
#endif

namespace {
void RunSteps(const LibraryStep *Steps, UINTN Count, EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  for (UINTN Index = 0; Index < Count; Index++) {
#if defined(BIOS_HOST_BUILD)
    if (gLibraryStepObserver != nullptr) {
      gLibraryStepObserver(Steps[Index].Name);
    }
#endif
    // Results are ignored: a library that cannot start leaves its services unavailable.
    Steps[Index].Run(ImageHandle, SystemTable);
  }
}
}  // namespace

void RunLibraryConstructors(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  RunSteps(kLibraryConstructors, kLibraryConstructorCount, ImageHandle, SystemTable);
}

void RunLibraryDestructors(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  RunSteps(kLibraryDestructors, kLibraryDestructorCount, ImageHandle, SystemTable);
}
