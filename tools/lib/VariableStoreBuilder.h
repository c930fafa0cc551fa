// NV store volumes as the variable driver leaves them in flash: a firmware volume header
// (gEfiSystemNvDataFvGuid), the store header in its short ("$VSS") or long (GUID) form, and
// authenticated variable records packed one after the other in any state. A reader lists
// the records of a volume, for tests and tools, without the driver's code.
#pragma once
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "../../src/base/Guids.h"
#include "../../src/base/Uefi.h"
#include "../../src/flash/VariableStoreFormat.h"

enum class StoreHeaderForm { Vss, Guid };

struct VariableRecord {
  std::u16string Name;  // stored with its terminator
  EFI_GUID Vendor = {};
  uint32_t Attributes = 0x7;  // non-volatile, boot-services and runtime access
  std::vector<uint8_t> Data;
  uint8_t State = kVariableAdded;
  uint64_t MonotonicCount = 0;
  uint32_t PubKeyIndex = 0;
  bool BodyWritten = true;  // false: a header-only record whose name and data are still erased
};

// The bytes of one record: the 60-byte header, the UTF-16 name with terminator, the data.
std::vector<uint8_t> VariableRecordBytes(const VariableRecord &Record);
// An authenticated (time-based) record with a time stamp, or a plain one.
VariableRecord AuthenticatedVariable(const std::u16string &Name, const EFI_GUID &Vendor, std::vector<uint8_t> Data);
VariableRecord PlainVariable(const std::u16string &Name, const EFI_GUID &Vendor, std::vector<uint8_t> Data);

class VariableStoreBuilder {
public:
  // A volume of VolumeSize bytes with a healthy store header of the form given; StoreKind is
  // the long form's signature GUID.
  VariableStoreBuilder(uint32_t VolumeSize, StoreHeaderForm Form,
                       const EFI_GUID &StoreKind = gEfiAuthenticatedVariableGuid);
  // Appends a record after the last; throws std::length_error when the store is full.
  VariableStoreBuilder &Add(const VariableRecord &Record);
  VariableStoreBuilder &Add(std::span<const VariableRecord> Records);
  // Bytes written as they are after the last record (torn or hostile records).
  VariableStoreBuilder &AddRaw(std::span<const uint8_t> Bytes);

  // Volume header length + store header size: the first record's offset.
  uint32_t HeadersLength() const { return Headers_; }
  uint32_t RecordsEnd() const { return Next_; }
  std::vector<uint8_t> &Bytes() { return Bytes_; }
  const std::vector<uint8_t> &Bytes() const { return Bytes_; }
  // The store header's bytes, to bend (state, format, signature) in tests.
  std::span<uint8_t> StoreHeader();

private:
  std::vector<uint8_t> Bytes_;
  uint32_t VolumeHeader_ = 0;
  uint32_t Headers_ = 0;
  uint32_t Next_ = 0;
};

// A volume header over an erased store header (a store the variable driver has not formatted).
std::vector<uint8_t> ErasedStoreVolume(uint32_t VolumeSize);

struct ParsedVariable {
  uint32_t Offset;  // from the volume start
  VariableRecord Record;
};
struct ParsedStore {
  bool NvVolume = false;  // "_FVH" with gEfiSystemNvDataFvGuid
  uint32_t HeadersLength = 0;
  uint32_t RecordsEnd = 0;  // where the walk stopped
  std::vector<ParsedVariable> Variables;
};
// Lists the records of a volume: from the first record while a whole record (StartId 0x55AA,
// header, name and data) lies inside the volume.
ParsedStore ParseVariableStore(std::span<const uint8_t> Volume, StoreHeaderForm Form);
// "Name" as text, for messages and listings.
std::string VariableNameText(const std::u16string &Name);

// The live store of the reference image: secure-boot variables (authenticated), boot
// options, platform setup data (not preserved), the preserved plain variables and a few
// records left deleted or half-deleted by earlier writes.
std::vector<VariableRecord> DefaultLiveVariables();
VariableStoreBuilder DefaultLiveStore(StoreHeaderForm Form, uint32_t VolumeSize);
