// The critical-variable list as it sits in the driver's data: the 8-byte signature "$CTCVIF$"
// and directly behind it {Name, VendorGuid} pairs ended by a pair whose Name is null, so that
// a platform build tool can find the list in the image and change it. The block is constant
// data (no start-up initialisation) but writable, and the code reads it through its symbol,
// so a patched image is honoured.
#pragma once
#include <type_traits>

#include "../base/Uefi.h"

struct CriticalVariableEntry {
  const CHAR16 *Name;  // null ends the table
  const EFI_GUID *VendorGuid;
};

// The shipped pairs plus the terminating one.
constexpr UINTN kCriticalVariableTableEntries = 3;

struct CriticalVariableTableBlock {
  CHAR8 Signature[8];  // 0: "$CTCVIF$", no terminator
  CriticalVariableEntry CriticalVariableTable[kCriticalVariableTableEntries];  // 8
};
static_assert(sizeof(CriticalVariableEntry) == 16);
static_assert(offsetof(CriticalVariableTableBlock, CriticalVariableTable) == 8);
static_assert(sizeof(CriticalVariableTableBlock) == 8 + 16 * kCriticalVariableTableEntries);
static_assert(std::is_trivially_copyable_v<CriticalVariableTableBlock>);

constexpr CHAR8 kCriticalVariableTableSignature[8] = {'$', 'C', 'T', 'C', 'V', 'I', 'F', '$'};

extern CriticalVariableTableBlock mCriticalVariableTableBlock;

// The critical-data block in flash: 4096 bytes whose bytes 32..63 hold the digest; the rest
// belongs to the platform and is written back as it was.
constexpr UINTN kCriticalDataBlockSize = 0x1000;
constexpr UINTN kCriticalVariableDigestOffset = 32;
constexpr UINTN kCriticalVariableDigestSize = 32;
static_assert(kCriticalVariableDigestOffset + kCriticalVariableDigestSize <= kCriticalDataBlockSize);
