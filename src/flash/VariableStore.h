// The live variable store and its backup: recognition of store headers, the walk over
// variable records, the backup of the variables that must survive an update (taken before
// the store's flash range is rewritten) and their restore into the live store, and the
// check that a new image places the backup area where the running firmware keeps it.
// Flash is read through the mapped window; writes go through the platform flash service.
#pragma once
#include "../base/ByteView.h"
#include "../base/Uefi.h"

enum VariableStoreStatus : UINT32 {
  VariableStoreRaw = 0,  // erased
  VariableStoreValid = 1,
  VariableStoreInvalid = 2,
};

// Status of the store header at Header (16 or 28 bytes by VssSignatureFormat); a null
// Header is Invalid.
UINT32 GetVariableStoreStatus(const UINT8 *Header);
// 16 with VssSignatureFormat set, else 28.
UINT32 GetVariableStoreHeaderSize();

// A record is bounded when it starts with 0x55AA and store header size + NameSize +
// DataSize (added without wrapping) is at most 0x11000. Reads the 60-byte header.
BOOLEAN IsVariableRecordBounded(const UINT8 *Record);
// The address after a bounded record (header, name, data), else nullptr.
const UINT8 *GetNextVariable(const UINT8 *Record);

// The same walk kept inside a store that ends at StoreEnd: a record whose header, name or
// data would cross StoreEnd is not walkable (the walk ends there).
BOOLEAN IsVariableRecordInStore(const UINT8 *Record, const UINT8 *StoreEnd);
const UINT8 *GetNextVariableInStore(const UINT8 *Record, const UINT8 *StoreEnd);

// An NV store volume: "_FVH", gEfiSystemNvDataFvGuid and a store header that is not
// Invalid (erased passes), all inside Volume. HeadersLength (may be null) receives the
// volume's HeaderLength + the store header size: where the first record starts.
BOOLEAN IsNvStoreVolume(ByteView Volume, UINTN *HeadersLength);

// EFI_SUCCESS when the volume at VariableBackupBase is an NV store volume (with the power-loss
// remedies: and the seal in the area's last sector matches the backup), else EFI_NOT_FOUND.
EFI_STATUS IsBackupStoreValid();
// A backup area (a power-loss remedy) whose last sector holds a seal with "Q42BKSEL", a length
// that stays below that sector and the SHA-256 of the area's first Length bytes.
BOOLEAN IsVariableBackupSealed(ByteView Area);
// Copies the live store's headers and the variables to preserve into the backup area.
// EFI_ALREADY_STARTED (resumed region-tracked update, or a backup is there), EFI_NO_MAPPING
// (the image puts the backup area elsewhere), EFI_NOT_FOUND (no live NV store volume, or the
// selection failed), EFI_OUT_OF_RESOURCES (no pool, or the selection does not fit the
// backup area, less the seal's sector with the remedies), EFI_NOT_READY (no flash service),
// EFI_ACCESS_DENIED (a write failed). With the remedies the seal is written after the backup.
EFI_STATUS BackupVariableStore(const UINT8 *Image, UINT64 ImageSize);
// Writes the backup's variables behind the live store's own headers into the live store.
// EFI_NOT_FOUND (backup or live volume not an NV store volume), EFI_OUT_OF_RESOURCES,
// EFI_NOT_READY (no flash service), or the write's status.
EFI_STATUS RestoreVariableStore();
// Finds the image's flash map record (the lowest "QFDM" at ImageSize - 4096 k) and its last
// entry of the backup-area type: EFI_SUCCESS when that entry's offset is VariableBackupBase -
// mFlashBase, EFI_NO_MAPPING when it differs, EFI_NOT_FOUND when there is no record, no such
// entry, a stride of 0, a first entry after the last, or a last entry outside the image;
// EFI_INVALID_PARAMETER for a null image.
EFI_STATUS CheckBackupAreaMapping(const UINT8 *Image, UINT64 ImageSize);
