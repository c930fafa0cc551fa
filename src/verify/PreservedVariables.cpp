#include "PreservedVariables.h"

#include "../base/BaseLib.h"
#include "../base/Char16.h"
#include "../base/Guids.h"
#include "../driver/Config.h"
#include "../flash/VariableStore.h"
#include "../flash/VariableStoreFormat.h"

namespace {

struct PreservedVariable {
  const CHAR16 *Name;     // nullptr: every variable of the vendor
  const EFI_GUID *Vendor;  // nullptr: the name under any vendor
};

// Plain variables that survive an update, in the order they are tried.
const PreservedVariable kPreservedVariables[] = {
    {nullptr, &gPreservedVendor1Guid},
    {nullptr, &gPreservedVendor2Guid},
    {"BluetoothPairingInfo"_u16, &gBtPairingVendorGuid},
    {"Q42VtHasBeenEnable"_u16, &gPlatformVariableGuid},
    {"VsmLocalKey2"_u16, &gMicrosoftVendorGuid},
    {"VsmLocalKeyProtector"_u16, &gMicrosoftVendorGuid},
};

AuthenticatedVariableHeader HeaderOf(const UINT8 *Record) {
  AuthenticatedVariableHeader Header;
  CopyMem(&Header, Record, sizeof(Header));
  return Header;
}

// The record's name equals Name, terminator included, within the record's NameSize bytes.
BOOLEAN NameEquals(const UINT8 *Record, const CHAR16 *Name) {
  const UINT64 NameSize = HeaderOf(Record).NameSize;
  const UINT8 *RecordName = Record + kVariableHeaderSize;
  for (UINT64 Index = 0;; Index++) {
    if ((Index + 1) * sizeof(CHAR16) > NameSize) {
      return FALSE;
    }
    const UINT16 Character = ReadUnaligned16(RecordName + Index * sizeof(CHAR16));
    if (Character != Name[Index]) {
      return FALSE;
    }
    if (Character == 0) {
      return TRUE;
    }
  }
}

BOOLEAN IsPolicyVariable(const UINT8 *Record) {
  return NameEquals(Record, "CurrentPolicy"_u16) || NameEquals(Record, "CurrentActivePolicy"_u16);
}

}  // namespace

BOOLEAN IsListedPreservedVariable(const UINT8 *Record) {
  if (Record == nullptr) {
    return FALSE;
  }
  const EFI_GUID Vendor = HeaderOf(Record).VendorGuid;
  for (const PreservedVariable &Entry : kPreservedVariables) {
    if (Entry.Name == nullptr) {
      if (CompareGuid(&Vendor, Entry.Vendor)) {
        return TRUE;
      }
      continue;
    }
    if (Entry.Vendor != nullptr && !CompareGuid(&Vendor, Entry.Vendor)) {
      continue;
    }
    if (NameEquals(Record, Entry.Name)) {
      return TRUE;
    }
  }
  return FALSE;
}

EFI_STATUS SelectPreservedVariables(const UINT8 *FirstRecord, const UINT8 *SourceEnd, UINT8 *Destination,
                                    UINT64 Capacity, UINT64 *Length) {
  if (FirstRecord == nullptr || SourceEnd == nullptr || Destination == nullptr || Length == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  UINT64 Total = 0;
  for (const UINT8 *Record = FirstRecord; IsVariableRecordInStore(Record, SourceEnd);) {
    const UINT8 *Next = GetNextVariable(Record);
    const AuthenticatedVariableHeader Header = HeaderOf(Record);
    const BOOLEAN Live = Header.State == kVariableAdded || Header.State == kVariableInDeletedTransition;
    const BOOLEAN Authenticated = (Header.Attributes & kVariableAuthenticatedAttributes) != 0;
    const BOOLEAN Chosen = Live && (Authenticated || IsListedPreservedVariable(Record)) &&
                           !(gConfig.PolicyVariablesDropped && IsPolicyVariable(Record));
    if (Chosen) {
      const UINT64 RecordLength = static_cast<UINT64>(Next - Record);
      if (Total <= Capacity && RecordLength <= Capacity - Total) {
        CopyMem(Destination + Total, Record, static_cast<UINTN>(RecordLength));
      }
      Total += RecordLength;
    }
    Record = Next;
  }
  *Length = Total;
  return Total > Capacity ? EFI_BUFFER_TOO_SMALL : EFI_SUCCESS;
}
