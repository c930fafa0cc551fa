// The assertion reporter shared by the AMD-derived code: a fault is shown on the POST code
// port; on hardware the platform then stops for good, cycling the code on the display.
#pragma once
#include "../base/Uefi.h"

// Codes reported by the directory and ROM code.
constexpr UINT32 kAssertEntryTypeNotMapped = 0x22010302;    // legacy type without a 16-bit equivalent
constexpr UINT32 kAssertNullPointerDirectory = 0x22010466;  // A/B pointer test of no directory
constexpr UINT32 kAssertNullAbDirectory = 0x22010583;       // A/B summary of no directory
constexpr UINT32 kAssertAbSocUnknown = 0x22010587;
constexpr UINT32 kAssertAbHeaderKind2Unreadable = 0x22010646;
constexpr UINT32 kAssertAbHeaderKind1Unreadable = 0x22010667;
constexpr UINT32 kAssertPspSocUnknown = 0x22011152;
constexpr UINT32 kAssertEfsUnreadable = 0x22011179;
constexpr UINT32 kAssertBiosSocUnknown = 0x22011331;
constexpr UINT32 kAssertBiosDirectoryInvalid = 0x22011388;
constexpr UINT32 kAssertRecoveryFlagUnreadable = 0x22012088;
constexpr UINT32 kAssertHeapBufferUnavailable = 0x00080426;

// Ports and escape of the reporter.
constexpr UINT16 kAssertMarkerPort = 0xE0;
constexpr UINT16 kAssertMarker = 0xDEAD;
constexpr UINT16 kAssertCodePort = 0x80;
constexpr UINT32 kSimulatorEscapeLeaf = 0xBACCD00B;
constexpr UINT32 kSimulatorEscapeAssert = 2;
constexpr UINTN kAssertDisplayStepMicroseconds = 2500000;

VOID AssertReport(UINT32 Code);
