#include "SimHobList.h"

#include <cstring>

SimHobList::SimHobList(EFI_BOOT_MODE BootMode) {
  Bytes_.reserve(1 << 20);  // never reallocated, so data pointers stay valid
  EFI_HOB_HANDOFF_INFO_TABLE Handoff{};
  Handoff.Header.HobType = EFI_HOB_TYPE_HANDOFF;
  Handoff.Header.HobLength = sizeof(Handoff);
  Handoff.Version = EFI_HOB_HANDOFF_TABLE_VERSION;
  Handoff.BootMode = BootMode;
  const auto *Raw = reinterpret_cast<const uint8_t *>(&Handoff);
  Bytes_.insert(Bytes_.end(), Raw, Raw + sizeof(Handoff));
}

size_t SimHobList::AddGuidHob(const EFI_GUID &Guid, const void *Data, size_t Size) {
  size_t Padded = (Size + 7) & ~size_t(7);
  EFI_HOB_GUID_TYPE Header{};
  Header.Header.HobType = EFI_HOB_TYPE_GUID_EXTENSION;
  Header.Header.HobLength = static_cast<UINT16>(sizeof(Header) + Padded);
  Header.Name = Guid;
  const auto *Raw = reinterpret_cast<const uint8_t *>(&Header);
  Bytes_.insert(Bytes_.end(), Raw, Raw + sizeof(Header));
  size_t Offset = Bytes_.size();
  Bytes_.resize(Bytes_.size() + Padded, 0);
  if (Size != 0) {
    std::memcpy(Bytes_.data() + Offset, Data, Size);
  }
  return Offset;
}

VOID *SimHobList::Finish() {
  if (!Finished_) {
    EFI_HOB_GENERIC_HEADER End{EFI_HOB_TYPE_END_OF_HOB_LIST, sizeof(EFI_HOB_GENERIC_HEADER), 0};
    const auto *Raw = reinterpret_cast<const uint8_t *>(&End);
    Bytes_.insert(Bytes_.end(), Raw, Raw + sizeof(End));
    Handoff()->EfiEndOfHobList = reinterpret_cast<EFI_PHYSICAL_ADDRESS>(Bytes_.data() + Bytes_.size() - sizeof(End));
    Finished_ = true;
  }
  return Bytes_.data();
}

EFI_HOB_HANDOFF_INFO_TABLE *SimHobList::Handoff() {
  return reinterpret_cast<EFI_HOB_HANDOFF_INFO_TABLE *>(Bytes_.data());
}
