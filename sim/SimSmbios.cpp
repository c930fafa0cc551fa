#include "SimSmbios.h"

#include <gtest/gtest.h>

#include <cstring>

#include "../src/base/Guids.h"

namespace {

struct ProtocolLayout {
  EFI_SMBIOS_PROTOCOL Protocol;
  SimSmbios *Owner;
};

EFI_STATUS EFIAPI GetNext(const EFI_SMBIOS_PROTOCOL *This, EFI_SMBIOS_HANDLE *Handle, EFI_SMBIOS_TYPE *Type,
                          EFI_SMBIOS_TABLE_HEADER **Record, EFI_HANDLE *Producer) {
  return reinterpret_cast<const ProtocolLayout *>(This)->Owner->DoGetNext(Handle, Type, Record, Producer);
}

EFI_STATUS EFIAPI UnexpectedSmbiosService() {
  ADD_FAILURE() << "unexpected SMBIOS service (Add, UpdateString or Remove)";
  return EFI_UNSUPPORTED;
}

constexpr EFI_SMBIOS_HANDLE kFirstHandle = 0x0100;

}  // namespace

SimSmbios::SimSmbios(SimUefi &Sim) {
  static_assert(sizeof(Layout) == sizeof(ProtocolLayout));
  Protocol_.Protocol.Add = reinterpret_cast<EFI_SMBIOS_ADD>(reinterpret_cast<void (*)()>(&UnexpectedSmbiosService));
  Protocol_.Protocol.UpdateString = reinterpret_cast<EFI_SMBIOS_UPDATE_STRING>(reinterpret_cast<void (*)()>(&UnexpectedSmbiosService));
  Protocol_.Protocol.Remove = reinterpret_cast<EFI_SMBIOS_REMOVE>(reinterpret_cast<void (*)()>(&UnexpectedSmbiosService));
  Protocol_.Protocol.GetNext = GetNext;
  Protocol_.Protocol.MajorVersion = 3;
  Protocol_.Protocol.MinorVersion = 4;
  Protocol_.Owner = this;
  Sim.Install(&Handle_, gEfiSmbiosProtocolGuid, &Protocol_.Protocol);
}

EFI_SMBIOS_HANDLE SimSmbios::AddRecord(std::vector<uint8_t> Record) {
  EXPECT_GE(Record.size(), sizeof(EFI_SMBIOS_TABLE_HEADER));
  EFI_SMBIOS_HANDLE Handle = static_cast<EFI_SMBIOS_HANDLE>(kFirstHandle + Records_.size());
  std::memcpy(Record.data() + offsetof(EFI_SMBIOS_TABLE_HEADER, Handle), &Handle, sizeof(Handle));
  if (Record.size() <= Record[1]) {
    Record.resize(Record[1] + 2, 0);  // no strings: the double zero ends the structure
  }
  Records_.push_back(std::move(Record));
  return Handle;
}

EFI_SMBIOS_HANDLE SimSmbios::AddBiosInformation(UINT64 Characteristics) {
  std::vector<uint8_t> Record(0x18, 0);
  Record[0] = 0;     // BIOS Information
  Record[1] = 0x18;  // formatted length
  std::memcpy(Record.data() + kSmbiosBiosCharacteristicsOffset, &Characteristics, sizeof(Characteristics));
  Record[0x09] = 0xFF;  // ROM size: see extended size
  return AddRecord(std::move(Record));
}

EFI_STATUS SimSmbios::DoGetNext(EFI_SMBIOS_HANDLE *Handle, const EFI_SMBIOS_TYPE *Type,
                                EFI_SMBIOS_TABLE_HEADER **Record, EFI_HANDLE *Producer) {
  if (Handle == nullptr || Record == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  if (GetNextFailure_ != EFI_SUCCESS) {
    return GetNextFailure_;
  }
  size_t Next = 0;
  if (*Handle != SMBIOS_HANDLE_PI_RESERVED) {
    if (*Handle < kFirstHandle || size_t{*Handle} - kFirstHandle >= Records_.size()) {
      return EFI_NOT_FOUND;
    }
    Next = *Handle - kFirstHandle + 1;
  }
  for (; Next < Records_.size(); Next++) {
    if (Type == nullptr || Records_[Next][0] == *Type) {
      *Handle = static_cast<EFI_SMBIOS_HANDLE>(kFirstHandle + Next);
      *Record = reinterpret_cast<EFI_SMBIOS_TABLE_HEADER *>(Records_[Next].data());
      if (Producer != nullptr) {
        *Producer = Handle_;
      }
      return EFI_SUCCESS;
    }
  }
  *Handle = SMBIOS_HANDLE_PI_RESERVED;
  return EFI_NOT_FOUND;
}
