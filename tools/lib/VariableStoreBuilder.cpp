#include "VariableStoreBuilder.h"

#include <cstring>
#include <stdexcept>

#include "../../src/base/Guids.h"
#include "ImageBuilder.h"

namespace {

uint32_t StoreHeaderSize(StoreHeaderForm Form) {
  return Form == StoreHeaderForm::Vss ? sizeof(VariableStoreHeaderVss) : sizeof(VariableStoreHeaderGuid);
}

std::vector<uint8_t> Text(const char *Ascii) { return std::vector<uint8_t>(Ascii, Ascii + std::strlen(Ascii)); }

}  // namespace

std::vector<uint8_t> VariableRecordBytes(const VariableRecord &Record) {
  const uint32_t NameSize = static_cast<uint32_t>((Record.Name.size() + 1) * sizeof(char16_t));
  AuthenticatedVariableHeader Header = {};
  Header.StartId = kVariableStartId;
  Header.State = Record.State;
  Header.Attributes = Record.Attributes;
  Header.MonotonicCount = Record.MonotonicCount;
  Header.PubKeyIndex = Record.PubKeyIndex;
  Header.NameSize = NameSize;
  Header.DataSize = static_cast<uint32_t>(Record.Data.size());
  Header.VendorGuid = Record.Vendor;
  if ((Record.Attributes & kVariableAuthenticatedAttributes) != 0) {
    // EFI_TIME of 2024-01-02 03:04:05.
    const uint8_t Time[16] = {0xE8, 0x07, 1, 2, 3, 4, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    std::memcpy(Header.TimeStamp, Time, sizeof(Time));
  }
  std::vector<uint8_t> Bytes(sizeof(Header) + NameSize + Record.Data.size(), 0xFF);
  std::memcpy(Bytes.data(), &Header, sizeof(Header));
  if (Record.BodyWritten) {
    for (size_t Index = 0; Index <= Record.Name.size(); Index++) {
      const char16_t Character = Index < Record.Name.size() ? Record.Name[Index] : u'\0';
      Bytes[sizeof(Header) + Index * 2] = static_cast<uint8_t>(Character);
      Bytes[sizeof(Header) + Index * 2 + 1] = static_cast<uint8_t>(Character >> 8);
    }
    if (!Record.Data.empty()) {
      std::memcpy(Bytes.data() + sizeof(Header) + NameSize, Record.Data.data(), Record.Data.size());
    }
  }
  return Bytes;
}

VariableRecord AuthenticatedVariable(const std::u16string &Name, const EFI_GUID &Vendor, std::vector<uint8_t> Data) {
  VariableRecord Record;
  Record.Name = Name;
  Record.Vendor = Vendor;
  Record.Attributes = 0x27;  // non-volatile, boot-services, runtime, time-based authenticated
  Record.Data = std::move(Data);
  return Record;
}

VariableRecord PlainVariable(const std::u16string &Name, const EFI_GUID &Vendor, std::vector<uint8_t> Data) {
  VariableRecord Record;
  Record.Name = Name;
  Record.Vendor = Vendor;
  Record.Data = std::move(Data);
  return Record;
}

VariableStoreBuilder::VariableStoreBuilder(uint32_t VolumeSize, StoreHeaderForm Form, const EFI_GUID &StoreKind) {
  const FirmwareVolumeBuilder Volume(gEfiSystemNvDataFvGuid, VolumeSize);
  Bytes_ = Volume.Bytes();
  const uint32_t VolumeHeader = Volume.HeaderLength();
  VolumeHeader_ = VolumeHeader;
  const uint32_t StoreSize = VolumeSize - VolumeHeader;
  if (Form == StoreHeaderForm::Vss) {
    VariableStoreHeaderVss Header = {kVariableStoreSignature, StoreSize, kVariableStoreFormatted,
                                     kVariableStoreHealthy, {}};
    std::memcpy(Bytes_.data() + VolumeHeader, &Header, sizeof(Header));
  } else {
    VariableStoreHeaderGuid Header = {StoreKind, StoreSize, kVariableStoreFormatted, kVariableStoreHealthy, {}};
    std::memcpy(Bytes_.data() + VolumeHeader, &Header, sizeof(Header));
  }
  Headers_ = VolumeHeader + StoreHeaderSize(Form);
  Next_ = Headers_;
}

std::span<uint8_t> VariableStoreBuilder::StoreHeader() {
  return std::span<uint8_t>(Bytes_).subspan(VolumeHeader_, Headers_ - VolumeHeader_);
}

VariableStoreBuilder &VariableStoreBuilder::AddRaw(std::span<const uint8_t> Bytes) {
  if (Bytes.size() > Bytes_.size() - Next_) {
    throw std::length_error("the variable store is full");
  }
  std::memcpy(Bytes_.data() + Next_, Bytes.data(), Bytes.size());
  Next_ += static_cast<uint32_t>(Bytes.size());
  return *this;
}

VariableStoreBuilder &VariableStoreBuilder::Add(const VariableRecord &Record) {
  return AddRaw(VariableRecordBytes(Record));
}

VariableStoreBuilder &VariableStoreBuilder::Add(std::span<const VariableRecord> Records) {
  for (const VariableRecord &Record : Records) {
    Add(Record);
  }
  return *this;
}

std::vector<uint8_t> ErasedStoreVolume(uint32_t VolumeSize) {
  return FirmwareVolumeBuilder(gEfiSystemNvDataFvGuid, VolumeSize).Bytes();
}

ParsedStore ParseVariableStore(std::span<const uint8_t> Volume, StoreHeaderForm Form) {
  ParsedStore Store;
  EFI_FIRMWARE_VOLUME_HEADER Header;
  if (Volume.size() < sizeof(Header)) {
    return Store;
  }
  std::memcpy(&Header, Volume.data(), sizeof(Header));
  Store.NvVolume = Header.Signature == kFvSignature &&
                   std::memcmp(&Header.FileSystemGuid, &gEfiSystemNvDataFvGuid, sizeof(EFI_GUID)) == 0;
  size_t Offset = static_cast<size_t>(Header.HeaderLength) + StoreHeaderSize(Form);
  if (!Store.NvVolume || Offset > Volume.size()) {
    return Store;
  }
  Store.HeadersLength = static_cast<uint32_t>(Offset);
  while (Volume.size() - Offset >= sizeof(AuthenticatedVariableHeader)) {
    AuthenticatedVariableHeader Record;
    std::memcpy(&Record, Volume.data() + Offset, sizeof(Record));
    const uint64_t Body = uint64_t{Record.NameSize} + Record.DataSize;
    if (Record.StartId != kVariableStartId || Body > Volume.size() - Offset - sizeof(Record)) {
      break;
    }
    ParsedVariable Variable{static_cast<uint32_t>(Offset), {}};
    VariableRecord &Parsed = Variable.Record;
    const uint8_t *Name = Volume.data() + Offset + sizeof(Record);
    for (uint32_t Index = 0; Index + 1 < Record.NameSize; Index += 2) {
      const char16_t Character = static_cast<char16_t>(Name[Index] | Name[Index + 1] << 8);
      if (Character == 0) {
        break;
      }
      Parsed.Name.push_back(Character);
    }
    Parsed.Vendor = Record.VendorGuid;
    Parsed.Attributes = Record.Attributes;
    Parsed.State = Record.State;
    Parsed.MonotonicCount = Record.MonotonicCount;
    Parsed.PubKeyIndex = Record.PubKeyIndex;
    Parsed.Data.assign(Name + Record.NameSize, Name + Record.NameSize + Record.DataSize);
    Store.Variables.push_back(std::move(Variable));
    Offset += sizeof(Record) + Body;
  }
  Store.RecordsEnd = static_cast<uint32_t>(Offset);
  return Store;
}

std::string VariableNameText(const std::u16string &Name) {
  std::string Text;
  for (char16_t Character : Name) {
    Text.push_back(Character < 0x80 ? static_cast<char>(Character) : '?');
  }
  return Text;
}

std::vector<VariableRecord> DefaultLiveVariables() {
  auto Deleted = [](VariableRecord Record, uint8_t State) {
    Record.State = State;
    return Record;
  };
  const std::vector<uint8_t> Certificate = PseudoRandomBytes(0x3A0, 0x5EC0);
  std::vector<VariableRecord> Records = {
      // Secure boot: authenticated, kept whatever their vendor.
      AuthenticatedVariable(u"PK", gEfiGlobalVariableVendorGuid, Certificate),
      AuthenticatedVariable(u"KEK", gEfiGlobalVariableVendorGuid, PseudoRandomBytes(0x5C4, 0x5EC1)),
      AuthenticatedVariable(u"db", gEfiImageSecurityDatabaseGuid, PseudoRandomBytes(0xC8E, 0x5EC2)),
      AuthenticatedVariable(u"dbx", gEfiImageSecurityDatabaseGuid, PseudoRandomBytes(0x1E4C, 0x5EC3)),
      AuthenticatedVariable(u"CurrentPolicy", gMicrosoftVendorGuid, PseudoRandomBytes(0x40, 0x5EC4)),
      // Boot options: plain, not kept; an older BootOrder was deleted.
      Deleted(PlainVariable(u"BootOrder", gEfiGlobalVariableVendorGuid, {0, 0}), kVariableDeleted),
      PlainVariable(u"Boot0000", gEfiGlobalVariableVendorGuid, PseudoRandomBytes(0x7E, 0xB000)),
      PlainVariable(u"Boot0001", gEfiGlobalVariableVendorGuid, PseudoRandomBytes(0x5A, 0xB001)),
      PlainVariable(u"BootOrder", gEfiGlobalVariableVendorGuid, {0, 0, 1, 0}),
      PlainVariable(u"Timeout", gEfiGlobalVariableVendorGuid, {5, 0}),
      PlainVariable(u"PlatformLang", gEfiGlobalVariableVendorGuid, Text("en-US")),
      // Platform setup data: plain, rebuilt by the new firmware.
      PlainVariable(u"Setup", gPlatformSetupLayoutGuid, PseudoRandomBytes(0x600, 0x5E7)),
      PlainVariable(u"AmdSetupPHX", gAmdCbsSetupVariableGuid, PseudoRandomBytes(0x800, 0xA3D)),
      PlainVariable(u"AMD_PBS_SETUP", gAmdPbsSetupVariableGuid, PseudoRandomBytes(0x100, 0xBB5)),
      PlainVariable(u"Q42DebugCode", gPlatformVariableGuid, {0}),
      // The preserved plain variables; one pairing record is half-way through its replacement.
      PlainVariable(u"OemHardwareConfig", gPreservedVendor1Guid, PseudoRandomBytes(0x90, 0x0E1)),
      Deleted(PlainVariable(u"BluetoothPairingInfo", gBtPairingVendorGuid, PseudoRandomBytes(0x120, 0xB71)),
              kVariableInDeletedTransition),
      PlainVariable(u"BluetoothPairingInfo", gBtPairingVendorGuid, PseudoRandomBytes(0x120, 0xB72)),
      Deleted(PlainVariable(u"Q42VtHasBeenEnable", gPlatformVariableGuid, {0}), kVariableDeleted),
      PlainVariable(u"Q42VtHasBeenEnable", gPlatformVariableGuid, {1}),
      PlainVariable(u"VsmLocalKey2", gMicrosoftVendorGuid, PseudoRandomBytes(0x44, 0x5A2)),
      // Not listed under this vendor: dropped.
      PlainVariable(u"VsmLocalKey2", gPlatformVariableGuid, PseudoRandomBytes(0x44, 0x5A3)),
  };
  return Records;
}

VariableStoreBuilder DefaultLiveStore(StoreHeaderForm Form, uint32_t VolumeSize) {
  VariableStoreBuilder Store(VolumeSize, Form);
  Store.Add(DefaultLiveVariables());
  return Store;
}
