// Loading the emulated platform and the driver from the application's volume, and finding
// what they install.
#pragma once
#include "../../emu/EmuPlatform.h"
#include "../../src/driver/BiosImageInterface.h"

// Connects every controller to its drivers, so that disks the boot path did not need (a USB
// stick) have their file systems.
void ConnectAllControllers();
EFI_STATUS LoadDriver(EFI_HANDLE ImageHandle, EFI_FILE_HANDLE Root, const char *Path);
BiosImageInterfaceProtocol *LocateServices(const EFI_GUID &Guid);
EmuPlatform *LocateEmuPlatform();
// Prints the version, token and reserved slots of one installation; TRUE when they are the
// driver's.
BOOLEAN ReportServiceTable(const char *Name, BiosImageInterfaceProtocol *Services);
