#include "CmosRestore.h"

#include "../base/BaseLib.h"
#include "../base/Guids.h"
#include "../base/Hardware.h"
#include "../base/Hob.h"
#include "../driver/Config.h"
#include "../driver/LibraryList.h"
#include "Cmos.h"

namespace {

constexpr UINTN kBankSize = 256;

BOOLEAN HobPresent(const EFI_GUID &Guid) { return GetFirstGuidHob(&Guid) != nullptr; }

// The image the earlier phase left in its HOB; a HOB too short to hold one is not used.
UINT8 *ImageFromHob() {
  const EFI_HOB_GUID_TYPE *Hob = GetFirstGuidHob(&gCmosToRomImageHobGuid);
  if (Hob == nullptr || GuidHobDataSize(Hob) < CmosToRomImage::kSize) {
    return nullptr;
  }
  return static_cast<UINT8 *>(GuidHobData(Hob));
}

// The mapped journal half at Address when it starts with the signature, else nullptr.
const UINT8 *ActiveJournalHalf(UINT64 Address, UINT32 HalfSize) {
  if (Address == 0 || HalfSize < sizeof(EFI_GUID)) {
    return nullptr;
  }
  const UINT8 *Half = Hw::FlashPointer(Address, HalfSize);
  if (Half == nullptr || CompareMem(Half, &gCmosJournalSignatureGuid, sizeof(EFI_GUID)) != 0) {
    return nullptr;
  }
  return Half;
}

// Applies the (index, value) pairs of Area to the bank, in order, up to the first erased pair;
// a trailing odd byte is not a pair.
void ReplayPairs(const UINT8 *Area, UINT32 Length, UINT8 *Bank) {
  for (UINT32 Offset = 0; CmosJournal::kPairSize <= Length - Offset; Offset += CmosJournal::kPairSize) {
    if (Area[Offset] == 0xFF && Area[Offset + 1] == 0xFF) {
      return;
    }
    Bank[Area[Offset]] = Area[Offset + 1];
  }
}

void ZeroBank(UINT8 *Image, UINTN Bank) {
  ZeroMem(Image + Bank * kBankSize, kBankSize);
  WriteUnaligned16(Image + StoredChecksumOffset(Bank), kCmosChecksumBase);
}

// Keeps a bank whose checksum holds; a bank that only passes the whole-bank sum keeps just
// its listed bytes under a recomputed checksum; anything else is zeroed.
void JudgeBank(UINT8 *Image, UINTN Bank) {
  if (IsCmosImageChecksumValid(Image, Bank)) {
    return;
  }
  if (!IsCmosImageBankSumValid(Image, Bank)) {
    ZeroBank(Image, Bank);
    return;
  }
  for (UINTN Index = 0; Index < kBankSize; Index++) {
    if (!IsChecksummedCmosIndex(Bank, static_cast<UINT8>(Index))) {
      Image[Bank * kBankSize + Index] = 0;
    }
  }
  WriteUnaligned16(Image + StoredChecksumOffset(Bank), CmosImageChecksum(Image, Bank));
}

}  // namespace

VOID CopyLiveCmosToImage(UINT8 *Image, UINTN Bank) {
  if (Image == nullptr || Bank > 1) {
    return;
  }
  ForEachListedIndex(Bank, [&](UINT8 Index) {
    Image[Bank * kBankSize + Index] = Bank == 0 ? ReadCmos(Index) : ReadExtendedCmos(Index);
  });
  const UINT8 High = Bank == 0 ? ReadCmos(kBank0ChecksumHigh) : ReadExtendedCmos(kBank1ChecksumHigh);
  const UINT8 Low = Bank == 0 ? ReadCmos(kBank0ChecksumLow) : ReadExtendedCmos(kBank1ChecksumLow);
  WriteUnaligned16(Image + StoredChecksumOffset(Bank), static_cast<UINT16>(High * 256 + Low));
}

VOID RebuildCmosImageFromJournal(UINT8 *Image, BOOLEAN *NoJournal) {
  if (NoJournal != nullptr) {
    *NoJournal = FALSE;
  }
  const UINT32 Area = gConfig.CmosJournalHeaderSize + gConfig.CmosJournalDataSize;
  const UINT32 Header = gConfig.CmosJournalHeaderSize;
  const UINT32 HalfSize = Area / 2;
  const UINT32 Quarter = Area / 4;
  const UINT64 Base = gConfig.CmosJournalBase;

  const UINT8 *Half = ActiveJournalHalf(Base + HalfSize, HalfSize);
  if (Half == nullptr) {
    Half = ActiveJournalHalf(Base, HalfSize);
  }
  if (Half == nullptr) {
    ZeroBank(Image, 0);
    ZeroBank(Image, 1);
    if (NoJournal != nullptr) {
      *NoJournal = TRUE;
    }
    return;
  }

  // Both pair areas lie inside the half: the bank-0 one after the header up to the quarter,
  // the bank-1 one from the quarter for a quarter (2 x Quarter <= HalfSize).
  if (Header < Quarter) {
    ReplayPairs(Half + Header, Quarter - Header, Image);
  }
  JudgeBank(Image, 0);
  if (Area >= 4) {
    ReplayPairs(Half + Quarter, Quarter, Image + CmosToRomImage::kBank1);
  }
  JudgeBank(Image, 1);
}

VOID RestoreCmosFromImage(const UINT8 *Image) {
  if (!HobPresent(gRtcCmosRestoreSkipHobGuid)) {
    ForEachListedIndex(0, [&](UINT8 Index) { WriteCmos(Index, Image[Index]); });
    const UINT16 Checksum = ReadUnaligned16(Image + CmosToRomImage::kBank0ChecksumOffset);
    WriteCmos(kBank0ChecksumLow, static_cast<UINT8>(Checksum));
    WriteCmos(kBank0ChecksumHigh, static_cast<UINT8>(Checksum >> 8));
  }
  if (!IsExtendedCmosWorking()) {
    return;
  }
  ForEachListedIndex(1, [&](UINT8 Index) {
    WriteCmosPort(kExtendedCmosIndexPort, kExtendedCmosDataPort, Index, Image[CmosToRomImage::kBank1 + Index]);
  });
  WriteExtendedCmosChecksum(ReadUnaligned16(Image + CmosToRomImage::kBank1ChecksumOffset));
}

EFI_STATUS EFIAPI CmosToRomStart(EFI_HANDLE, EFI_SYSTEM_TABLE *) {
  LocateCmosJournalFlashService();  // kept for the mirrored writes that follow

  UINT8 *Image = ImageFromHob();
  if (Image == nullptr) {
    return EFI_SUCCESS;
  }
  if (!HobPresent(gCmosRestoreFromImageHobGuid)) {
    if (!IsExtendedCmosWorking()) {
      return EFI_SUCCESS;
    }
    if (IsCmosLiveChecksumValid(1)) {
      CopyLiveCmosToImage(Image, 1);
      return EFI_SUCCESS;
    }
    BOOLEAN NoJournal = FALSE;  // a missing journal leaves an all-zero image; nothing more to do
    RebuildCmosImageFromJournal(Image, &NoJournal);
    RestoreCmosFromImage(Image);
    return EFI_SUCCESS;
  }
  if (!HobPresent(gCmosRestoreDoneHobGuid)) {
    RestoreCmosFromImage(Image);
  }
  return EFI_SUCCESS;
}
