// Arbitrary bytes as the CmosToRom journal in flash: replaying it into the mirror image, the
// write-back to CMOS and a mirrored write (its free-pair scan and the move of the second half
// back) must stay inside the 512-byte image and the journal area, and end. The area ends at
// the top of the flash, where a read past it faults. With a sector-aligned area, the
// journal's own writes must not change a byte outside it.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "emu/EmuPlatform.h"
#include "emu/host/EmuHostMemory.h"
#include "src/base/BaseLib.h"
#include "src/base/Globals.h"
#include "src/base/Guids.h"
#include "src/driver/Config.h"
#include "src/platform/Cmos.h"
#include "src/platform/CmosRestore.h"
#include "tests/fuzz/FuzzBootServices.h"

namespace {

constexpr uint32_t kChipSize = 0x10000;
constexpr uint64_t kFlashTop = 0x100000000ull;
constexpr uint32_t kSector = 0x1000;

// Control byte.
constexpr uint8_t kSignFirstHalf = 0x01;
constexpr uint8_t kSignSecondHalf = 0x02;
constexpr uint8_t kFreeGeometry = 0x04;  // header, data size and base as the input says
constexpr uint8_t kWithChecksum = 0x08;

EmuPlatform &Platform() {
  static EmuPlatform *Instance = [] {
    auto *Created = new EmuPlatform();
    if (!Created->Initialize(EmuHostMemory(), EmuLayout{0, 0, kChipSize, kSector})) {
      std::abort();
    }
    return Created;
  }();
  return *Instance;
}

EFI_STATUS EFIAPI LocateFlashDevice(EFI_GUID *Protocol, VOID *, VOID **Interface) {
  *Interface = CompareGuid(Protocol, &gPlatformFlashDeviceProtocolGuid) ? Platform().FlashDevice : nullptr;
  return *Interface != nullptr ? EFI_SUCCESS : EFI_NOT_FOUND;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  static EFI_BOOT_SERVICES BootServices = [] {
    EFI_BOOT_SERVICES Services = FuzzBootServices();
    Services.LocateProtocol = LocateFlashDevice;
    return Services;
  }();
  EmuPlatform &P = Platform();
  gEmuPlatform = &P;
  gBS = &BootServices;
  ResetCmosStateForTest();
  P.ClearCalls();

  FuzzInput In{Data, Size};
  const uint8_t Control = In.Take<uint8_t>();
  const uint16_t Header = In.Take<uint16_t>();
  const uint16_t DataSize = In.Take<uint16_t>();
  const uint32_t Base = In.Take<uint32_t>();
  const uint8_t Index = In.Take<uint8_t>();
  const uint8_t Value = In.Take<uint8_t>();
  const UINT16 Checksum = In.Take<UINT16>();

  // The shipped shape (two sector-sized halves or more, ending at the flash top) unless the
  // input asks for its own; then the area ends at the top when it fits the chip.
  uint32_t Area = 0;
  if ((Control & kFreeGeometry) != 0) {
    gConfig.CmosJournalHeaderSize = Header;
    gConfig.CmosJournalDataSize = DataSize;
    Area = static_cast<uint32_t>(Header) + DataSize;
    gConfig.CmosJournalBase = (Base & 1) != 0 || Area > kChipSize ? Base : static_cast<UINT32>(kFlashTop - Area);
  } else {
    Area = 2 * kSector * (1 + (DataSize & 3));
    gConfig.CmosJournalHeaderSize = Header % (Area / 4 + 1);
    gConfig.CmosJournalDataSize = Area - gConfig.CmosJournalHeaderSize;
    gConfig.CmosJournalBase = static_cast<UINT32>(kFlashTop - Area - (Base % 4) * kSector);
  }
  const bool Checked = (Control & kFreeGeometry) == 0;
  const uint64_t ChipBase = kFlashTop - kChipSize;

  // The chip erased, the journal area tiled with the input (so that a short input can fill
  // every pair), the halves signed on request.
  std::memset(P.Flash.Bytes(), 0xFF, kChipSize);
  uint8_t *Journal = nullptr;
  if (gConfig.CmosJournalBase >= ChipBase && gConfig.CmosJournalBase + static_cast<uint64_t>(Area) <= kFlashTop) {
    Journal = P.Flash.Bytes() + (gConfig.CmosJournalBase - ChipBase);
    for (uint32_t Offset = 0; In.Size != 0 && Offset < Area; Offset += static_cast<uint32_t>(In.Size)) {
      std::memcpy(Journal + Offset, In.Data, In.Size < Area - Offset ? In.Size : Area - Offset);  // tiled
    }
    const uint32_t Half = Area / 2;
    if ((Control & kSignFirstHalf) != 0 && Half >= sizeof(EFI_GUID)) {
      std::memcpy(Journal, &gCmosJournalSignatureGuid, sizeof(EFI_GUID));
    }
    if ((Control & kSignSecondHalf) != 0 && Half >= sizeof(EFI_GUID)) {
      std::memcpy(Journal + Half, &gCmosJournalSignatureGuid, sizeof(EFI_GUID));
    }
  }

  auto *Image = static_cast<UINT8 *>(std::malloc(CmosToRomImage::kSize));  // ASan watches its ends
  std::memset(Image, Control, CmosToRomImage::kSize);
  BOOLEAN NoJournal = FALSE;
  RebuildCmosImageFromJournal(Image, &NoJournal);
  RestoreCmosFromImage(Image);
  AppendCmosJournal(Index, Value, (Control & kWithChecksum) != 0 ? &Checksum : nullptr);
  std::free(Image);

  if (Checked && Journal != nullptr) {
    const uint8_t *Bytes = P.Flash.Bytes();
    const size_t Before = static_cast<size_t>(Journal - Bytes);
    for (size_t Offset = 0; Offset < kChipSize; Offset++) {
      if ((Offset < Before || Offset >= Before + Area) && Bytes[Offset] != 0xFF) {
        std::abort();  // a journal write landed outside the journal
      }
    }
  }
  ResetConfigForTest();
  return 0;
}
