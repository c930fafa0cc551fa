// The digest of the critical authenticated variables, kept in the critical-data block in
// flash and refreshed when a flash completes. The block is written through the SMM firmware
// block service when the library runs in SMM, otherwise through the platform flash device
// protocol; which one is settled by the library constructor.
#pragma once
#include "../base/PlatformProtocols.h"
#include "../base/Uefi.h"

// Library state (null at load).
extern SmmFwBlockServiceProtocol *mSmmFwbService;
extern PlatformFlashDeviceProtocol *mQ42OFCServicePtr;
extern EFI_EVENT mQ42OFCEvent;
extern VOID *mQ42OFCRegistration;         // boot-services notification for the flash device
extern VOID *mSmmFwbServiceRegistration;  // SMM notification for the firmware block service

// Gathers the critical variables of the live store, digests them and rewrites the
// critical-data block when its digest differs. EFI_UNSUPPORTED (switched off),
// EFI_OUT_OF_RESOURCES, EFI_NOT_FOUND (no live store volume in the flash map, or the store
// or the block not in mapped flash), the gathering's error, EFI_PROTOCOL_ERROR (a write is
// needed and there is no flash service), or the erase's or write's status.
EFI_STATUS Q42CriticalDataAuthVar();

// Copies every critical record from First up to StoreEnd (the walk stops at the first record
// that is not whole inside the store) into Buffer, in store order, and digests the copied
// bytes. *Total receives the bytes the critical records take, also when they do not fit:
// then EFI_BUFFER_TOO_SMALL with a zero digest. Nothing gathered gives a zero digest.
// EFI_INVALID_PARAMETER for a null pointer.
EFI_STATUS Q42CriticalDataCopyCriticalVar(const UINT8 *First, const UINT8 *StoreEnd, UINT64 BufferSize,
                                          UINT8 *Buffer, UINT64 *Total, UINT8 *Digest);

// An added (0x3F) or in-deleted-transition (0x3E) record whose vendor GUID and name match an
// entry of CriticalVariableTable. The record's header and its NameSize name bytes must be
// readable (a record the store-bounded walk accepted).
BOOLEAN IsCriticalVariable(const UINT8 *Record);

// Picks up the platform flash device protocol once it is installed, then closes its event.
VOID EFIAPI Q42OFCCallback(EFI_EVENT Event, VOID *Context);

HOST_ONLY(void ResetCriticalDataAuthVarForTest();)
