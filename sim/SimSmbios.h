// The SMBIOS protocol over records a test adds: GetNext walks them in order of addition,
// optionally filtered by type. Add, UpdateString and Remove are not simulated.
#pragma once
#include <cstdint>
#include <vector>

#include "../src/base/Smbios.h"
#include "SimUefi.h"

class SimSmbios {
public:
  // Installs gEfiSmbiosProtocolGuid on a new handle of Sim.
  explicit SimSmbios(SimUefi &Sim);
  SimSmbios(const SimSmbios &) = delete;
  SimSmbios &operator=(const SimSmbios &) = delete;

  // A formatted area (its header's Handle is assigned here) followed by its string set;
  // an empty string set gets the two terminating zero bytes.
  EFI_SMBIOS_HANDLE AddRecord(std::vector<uint8_t> Record);
  // A BIOS Information record (type 0, SMBIOS 3.x length 0x18) with the characteristics given.
  EFI_SMBIOS_HANDLE AddBiosInformation(UINT64 Characteristics);
  // The next GetNext calls fail with Status.
  void FailGetNext(EFI_STATUS Status) { GetNextFailure_ = Status; }

  EFI_STATUS DoGetNext(EFI_SMBIOS_HANDLE *Handle, const EFI_SMBIOS_TYPE *Type, EFI_SMBIOS_TABLE_HEADER **Record,
                       EFI_HANDLE *Producer);

private:
  struct Layout {
    EFI_SMBIOS_PROTOCOL Protocol;
    SimSmbios *Owner;
  } Protocol_{};
  EFI_HANDLE Handle_ = nullptr;
  std::vector<std::vector<uint8_t>> Records_;
  EFI_STATUS GetNextFailure_ = EFI_SUCCESS;
};

constexpr size_t kSmbiosBiosCharacteristicsOffset = 0x0A;
