// CMOS RAM in its two banks, the per-bank checksums, and the CmosToRom mirror:
// a 512-byte image of both banks in memory plus a journal in flash that every
// mirrored write is appended to.
#pragma once
#include "../base/Uefi.h"

constexpr UINT16 kCmosIndexPort = 0x70;
constexpr UINT16 kCmosDataPort = 0x71;
constexpr UINT16 kExtendedCmosIndexPort = 0x72;
constexpr UINT16 kExtendedCmosDataPort = 0x73;
constexpr UINT8 kCmosNmiMask = 0x80;

constexpr UINT16 kCmosChecksumBase = 0x109;  // 265: the checksum of a bank whose listed bytes are 0
constexpr UINT8 kBank0ChecksumLow = 0x4E;
constexpr UINT8 kBank0ChecksumHigh = 0x4F;
constexpr UINT8 kBank1ChecksumLow = 0xC2;
constexpr UINT8 kBank1ChecksumHigh = 0xC3;
// CmosToRomImage: both banks in memory, byte i of bank 0 at offset i and byte i of bank 1
// at 256 + i, so the stored checksums sit where they sit in CMOS.
namespace CmosToRomImage {
constexpr UINTN kSize = 512;
constexpr UINTN kBank1 = 256;
constexpr UINTN kBank0ChecksumOffset = 78;   // 0x4E
constexpr UINTN kBank1ChecksumOffset = 450;  // 256 + 0xC2
}  // namespace CmosToRomImage

// CmosJournal: the flash area at CmosJournalBase of header + data bytes, in two halves; a
// half is active when it starts with gCmosJournalSignatureGuid. After a half's header come
// its bank-0 records, then (from a quarter of the area) its bank-1 records: 2-byte
// (index, value) pairs, 0xFFFF marking the first free pair.
namespace CmosJournal {
constexpr UINTN kPairSize = 2;
constexpr UINTN kChecksummedRecordSize = 6;  // the pair, then the two checksum pairs
}  // namespace CmosJournal

#pragma pack(push, 1)
// One checksummed range: start index and count, 9 bytes; {0xFF, 0xFF} ends a list.
struct CmosChecksumRange {
  UINT8 Start;
  UINT64 Count;
};
#pragma pack(pop)
static_assert(sizeof(CmosChecksumRange) == 9);
static_assert(offsetof(CmosChecksumRange, Count) == 1);

UINT8 ReadCmos(UINT8 Index);
VOID WriteCmos(UINT8 Index, UINT8 Value);
UINT8 ReadExtendedCmos(UINT8 Index);
UINT8 ReadCmosPort(UINT8 IndexPort, UINT8 DataPort, UINT8 Index);
VOID WriteCmosPort(UINT8 IndexPort, UINT8 DataPort, UINT8 Index, UINT8 Value);
VOID WriteExtendedCmosChecksum(UINT16 Checksum);
BOOLEAN IsExtendedCmosWorking();

UINT16 CmosImageChecksum(const UINT8 *Image, UINTN Bank);
UINT16 CmosLiveChecksum(UINTN Bank);
BOOLEAN IsCmosImageChecksumValid(const UINT8 *Image, UINTN Bank);
BOOLEAN IsCmosImageBankSumValid(const UINT8 *Image, UINTN Bank);
BOOLEAN IsCmosLiveChecksumValid(UINTN Bank);
BOOLEAN IsChecksummedCmosIndex(UINTN Bank, UINT8 Index);
// The bank's checksummed ranges, ending with the {0xFF, 0xFF} range.
const CmosChecksumRange *CmosChecksumList(UINTN Bank);
UINTN CmosChecksumListLimit(UINTN Bank);

// Calls Visitor with every CMOS index the bank's checksum list names, in list order.
template <typename Visit> void ForEachListedIndex(UINTN Bank, Visit Visitor) {
  const CmosChecksumRange *List = CmosChecksumList(Bank);
  const UINTN Limit = CmosChecksumListLimit(Bank);
  for (UINTN Range = 0; List != nullptr && Range < Limit; Range++) {
    if (List[Range].Start == 0xFF && List[Range].Count == 0xFF) {
      break;  // the list's end
    }
    for (UINT64 Step = 0; Step < List[Range].Count && List[Range].Start + Step <= 0xFF; Step++) {
      Visitor(static_cast<UINT8>(List[Range].Start + Step));
    }
  }
}

// Where a CmosToRom image keeps the bank's stored checksum.
inline UINTN StoredChecksumOffset(UINTN Bank) {
  return Bank == 0 ? CmosToRomImage::kBank0ChecksumOffset : CmosToRomImage::kBank1ChecksumOffset;
}

UINT8 ReadCmosToRom(UINT8 Index);
VOID WriteCmosToRom(UINT8 Index, UINT8 Value);
VOID AppendCmosJournal(UINT8 Index, UINT8 Value, const UINT16 *Checksum);
VOID MoveCmosJournalBack();

// The journal's flash service (SMM or not), located once and kept; TRUE when one is there.
BOOLEAN LocateCmosJournalFlashService();

HOST_ONLY(void ResetCmosStateForTest();)
