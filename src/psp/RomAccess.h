// Reads of the SPI ROM through the processor's memory-mapped windows. Every read is checked
// against its window and fails, copying nothing, instead of leaving it.
#pragma once
#include "../base/Uefi.h"

constexpr UINT64 kNarrowRomWindowBase = 0xFF000000ull;
constexpr UINT64 kNarrowRomWindowSize = 0x01000000ull;
constexpr UINT64 kWideRomWindowBase = 0xFD00000000ull;
constexpr UINT64 kWideRomWindowSize = 0x04000000ull;

// Offset into the flash device. The window depends on the processor family: the 64 MiB
// window where the processor has one, otherwise the 16 MiB window (offset taken modulo
// 16 MiB). The window is read with naturally aligned 64-bit loads only.
BOOLEAN ReadRomByOffset(UINT32 Offset, VOID *Buffer, UINT32 Length);
// A location below 64 MiB is a flash offset; otherwise a mapped address, read as memory.
BOOLEAN ReadRom(UINT64 Location, VOID *Buffer, UINT32 Length);

// Every PSP or BIOS directory is read as this many bytes: the header and 96 PSP or 64 BIOS
// entries.
constexpr UINT32 kDirectoryBufferSize = 1552;
// Zeroes kDirectoryBufferSize bytes of Buffer, then reads them at Location.
BOOLEAN ReadDirectory(UINT64 Location, VOID *Buffer);
