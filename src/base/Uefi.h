// The UEFI base the driver is written against: gnu-efi's efi.h plus the few
// EDK II spellings the driver uses. Every driver source includes this first.
#pragma once

#ifndef GNU_EFI_USE_MS_ABI
#define GNU_EFI_USE_MS_ABI 1
#endif
#include <efi.h>

#include <cstddef>
#include <cstdint>

#ifndef CONST
#define CONST const
#endif

// EDK II's boot-mode type (PI volume 1).
typedef UINT32 EFI_BOOT_MODE;
#define BOOT_WITH_FULL_CONFIGURATION 0x00
#define BOOT_WITH_MINIMAL_CONFIGURATION 0x01
#define BOOT_ASSUMING_NO_CONFIGURATION_CHANGES 0x02
#define BOOT_WITH_DEFAULT_SETTINGS 0x04
#define BOOT_ON_S3_RESUME 0x11
#define BOOT_ON_FLASH_UPDATE 0x12
#define BOOT_IN_RECOVERY_MODE 0x20

// Variadic functions that cross the firmware boundary use the Microsoft x64
// variable-argument layout, exactly as EDK II does when built with GCC.
typedef __builtin_ms_va_list VA_LIST;
#define VA_START(Marker, Parameter) __builtin_ms_va_start(Marker, Parameter)
#define VA_END(Marker) __builtin_ms_va_end(Marker)
#define VA_COPY(Dest, Start) __builtin_ms_va_copy(Dest, Start)
// Every argument occupies one 8-byte slot; narrower types are widened.
#define VA_ARG(Marker, TYPE)                                                                   \
  ((sizeof(TYPE) < sizeof(UINTN)) ? (TYPE)(__builtin_va_arg(Marker, UINTN))                \
                                  : (TYPE)(__builtin_va_arg(Marker, TYPE)))

constexpr bool EfiError(EFI_STATUS Status) { return (static_cast<INT64>(Status)) < 0; }

#define SIZE_4KB 0x00001000u
#define SIZE_64KB 0x00010000u

// Host builds expose a few test-only entry points (state resets, mutable configuration).
#if defined(BIOS_HOST_BUILD)
#define HOST_ONLY(x) x
#else
#define HOST_ONLY(x)
#endif
