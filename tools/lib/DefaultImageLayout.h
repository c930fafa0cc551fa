// Where the reference image keeps the structures the signature checks and the variable-store
// backup read, beside the flash layout of the emulated platform (EmuFlashLayout). Flash
// addresses in the 16 MiB mapped at 0xFF000000; with the default layout (no EC or lower
// part) an image offset is the address - 0xFF000000.
#pragma once
#include <cstdint>

#include "../../emu/EmuFlashPlatform.h"

namespace DefaultImageLayout {
using namespace EmuFlashLayout;

// The EC firmware (kEcFirmwareAddress, kEcFirmwareSize), the embedded firmware structure and
// the PSP level-1 directory blocks are the platform's: EmuFlashLayout.
// Beside the flash map (0xFF0EA000): the flash-map signature area, the three
// authenticated-variable digest areas (area 3 directly after area 2), the version record.
constexpr uint32_t kMapSignatureAreaAddress = 0xFF0EB000, kMapSignatureAreaSize = 0x1000;
constexpr uint32_t kDigestArea1Address = 0xFF0EC000, kDigestArea1Size = 0x1000;
constexpr uint32_t kDigestArea2Address = 0xFF0ED000, kDigestArea2Size = 0x1000;
constexpr uint32_t kDigestArea3Address = 0xFF0EE000, kDigestArea3Size = 0x1000;
constexpr uint32_t kVersionRecordAddress = 0xFF0EF000, kVersionRecordSize = 0x1000;
// Blanked while the detached signature is checked: nothing signed or parsed lies there.
constexpr uint32_t kSignatureExcludedAddress = 0xFF144700, kSignatureExcludedSize = 0x100;

// The pieces the flash-map signature covers. The check reads Z1 bytes at O1, 2 x Z2 at O2,
// Z3 + Z4 at O3 and Z5 at O5, so region 2 names half of a volume, and regions 3 and 4 are
// the two halves of one volume, 4 directly after 3.
struct SignedRegion {
  uint32_t Address;
  uint32_t Size;
};
constexpr SignedRegion kSignedRegions[5] = {
    {kIbb1Address, kIbb1Size},                          // 1: the boot block
    {kDxeFvAddress, kDxeFvSize / 2},                    // 2: DXE, read twice as long
    {kIbb2Address, 0x200000},                           // 3: IBB2, first part
    {kIbb2Address + 0x200000, kIbb2Size - 0x200000},    // 4: IBB2, the rest
    {kIbb4Address, kIbb4Size},                          // 5: IBB4
};

// The flash-map signature record: GUID, 24-bit length at 24 (signature + 4), signature at 28.
constexpr uint32_t kSignatureLength = 256;
constexpr uint32_t kMapSignatureRecordLengthOffset = 24;
constexpr uint32_t kMapSignatureRecordSignatureOffset = 28;

// The version record: "$BVDT" at a 4 KiB step, the version family at +14.
constexpr uint32_t kVersionFamilyOffset = 14;
constexpr char kDefaultVersionFamily = 'E';
}  // namespace DefaultImageLayout
