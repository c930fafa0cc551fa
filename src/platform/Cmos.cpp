#include "Cmos.h"

#include "../base/BaseLib.h"
#include "../base/Char16.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/Hardware.h"
#include "../base/Hob.h"
#include "../base/PlatformProtocols.h"
#include "../base/SmmServices.h"
#include "../driver/Config.h"

namespace {

// Shipped checksum lists: every range holds one index.
constexpr CmosChecksumRange kBank0List[] = {{0x76, 1}, {0x77, 1}, {0x7D, 1}, {0xFF, 0xFF}};
constexpr CmosChecksumRange kBank1List[] = {{0xC6, 1}, {0xE0, 1}, {0xEE, 1}, {0xF7, 1}, {0xF8, 1},
                                            {0xF9, 1}, {0xFA, 1}, {0xFB, 1}, {0xFF, 0xFF}};
constexpr UINTN kBank0RangeLimit = 4;
constexpr UINTN kBank1RangeLimit = 9;
constexpr UINTN kJournalWaitMicroseconds = 50;

EFI_SMM_VARIABLE_PROTOCOL *mSmmVariable = nullptr;
SettingsSmmFlashProtocol *mSmmJournalFlash = nullptr;
PlatformFlashDeviceProtocol *mJournalFlashDevice = nullptr;

// Port accesses run with interrupts masked outside SMM; the flag is restored as found.
template <typename Access> auto WithInterruptsMasked(Access Run) {
  if (IsInSmm()) {
    return Run();
  }
  UINTN Flags = Hw::ReadFlags();
  Hw::DisableInterrupts();
  auto Result = Run();
  if ((Flags & Hw::kInterruptFlag) != 0) {
    Hw::EnableInterrupts();
  }
  return Result;
}


// The image named by Q42CmosToRom. Returns FALSE when the variable cannot be read;
// *Image is then untouched. A readable variable may still name no image (nullptr).
BOOLEAN ReadImageVariable(UINT8 **Image) {
  UINT32 Address = 0;
  UINTN Size = sizeof(Address);
  EFI_STATUS Status;
  if (IsInSmm()) {
    if (mSmmVariable == nullptr && gSmst != nullptr) {
      gSmst->SmmLocateProtocol(const_cast<EFI_GUID *>(&gEfiSmmVariableProtocolGuid), nullptr,
                               reinterpret_cast<VOID **>(&mSmmVariable));
    }
    if (mSmmVariable == nullptr) {
      return FALSE;
    }
    Status = mSmmVariable->SmmGetVariable(const_cast<CHAR16 *>("Q42CmosToRom"_u16),
                                          const_cast<EFI_GUID *>(&gPlatformVariableGuid), nullptr, &Size, &Address);
  } else {
    Status = gRT->GetVariable(const_cast<CHAR16 *>("Q42CmosToRom"_u16), const_cast<EFI_GUID *>(&gPlatformVariableGuid),
                              nullptr, &Size, &Address);
  }
  if (Status != EFI_SUCCESS) {
    return FALSE;
  }
  *Image = reinterpret_cast<UINT8 *>(static_cast<UINTN>(Address));
  return TRUE;
}

UINT8 *HobImage() {
  const EFI_HOB_GUID_TYPE *Hob = GetFirstGuidHob(&gCmosToRomImageHobGuid);
  if (Hob == nullptr || GuidHobDataSize(Hob) < CmosToRomImage::kSize) {
    return nullptr;
  }
  return static_cast<UINT8 *>(GuidHobData(Hob));
}

// The image the mirror works on: the variable's when it can be read, else the HOB's;
// nullptr when that source names no image or one whose bank-1 checksum is wrong.
UINT8 *ValidMirrorImage() {
  UINT8 *Image = nullptr;
  if (!ReadImageVariable(&Image)) {
    Image = HobImage();
  }
  if (Image == nullptr || !IsCmosImageChecksumValid(Image, 1)) {
    return nullptr;
  }
  return Image;
}

EFI_STATUS JournalWrite(UINTN Address, const VOID *Buffer, UINTN Length) {
  LocateCmosJournalFlashService();
  if (mSmmJournalFlash != nullptr && IsInSmm()) {
    return mSmmJournalFlash->Write(Address, Buffer, Length);
  }
  return mJournalFlashDevice != nullptr ? mJournalFlashDevice->FlashDeviceWrite(Address, Buffer, Length)
                                        : EFI_NOT_READY;
}

EFI_STATUS JournalErase(UINTN Address, UINTN Length) {
  LocateCmosJournalFlashService();
  if (mSmmJournalFlash != nullptr && IsInSmm()) {
    return mSmmJournalFlash->Erase(Address, Length);
  }
  return mJournalFlashDevice != nullptr ? mJournalFlashDevice->FlashDeviceErase(Address, Length) : EFI_NOT_READY;
}

UINT32 JournalAreaSize() { return gConfig.CmosJournalHeaderSize + gConfig.CmosJournalDataSize; }

}  // namespace

UINT8 ReadCmos(UINT8 Index) {
  return WithInterruptsMasked([&] {
    Hw::IoWrite8(kCmosIndexPort, static_cast<UINT8>((Hw::IoRead8(kCmosIndexPort) & kCmosNmiMask) | Index));
    return Hw::IoRead8(kCmosDataPort);
  });
}

VOID WriteCmos(UINT8 Index, UINT8 Value) {
  WithInterruptsMasked([&] {
    Hw::IoWrite8(kCmosIndexPort, static_cast<UINT8>((Hw::IoRead8(kCmosIndexPort) & kCmosNmiMask) | Index));
    Hw::IoWrite8(kCmosDataPort, Value);
    return 0;
  });
}

UINT8 ReadExtendedCmos(UINT8 Index) { return ReadCmosPort(kExtendedCmosIndexPort, kExtendedCmosDataPort, Index); }

UINT8 ReadCmosPort(UINT8 IndexPort, UINT8 DataPort, UINT8 Index) {
  return WithInterruptsMasked([&] {
    Hw::IoWrite8(IndexPort, Index);
    return Hw::IoRead8(DataPort);
  });
}

VOID WriteCmosPort(UINT8 IndexPort, UINT8 DataPort, UINT8 Index, UINT8 Value) {
  WithInterruptsMasked([&] {
    Hw::IoWrite8(IndexPort, Index);
    Hw::IoWrite8(DataPort, Value);
    return 0;
  });
}

VOID WriteExtendedCmosChecksum(UINT16 Checksum) {
  WriteCmosPort(kExtendedCmosIndexPort, kExtendedCmosDataPort, kBank1ChecksumLow, static_cast<UINT8>(Checksum));
  WriteCmosPort(kExtendedCmosIndexPort, kExtendedCmosDataPort, kBank1ChecksumHigh, static_cast<UINT8>(Checksum >> 8));
}

BOOLEAN IsExtendedCmosWorking() {
  WriteCmosPort(kExtendedCmosIndexPort, kExtendedCmosDataPort, 0xC0, 0x88);
  WriteCmosPort(kExtendedCmosIndexPort, kExtendedCmosDataPort, 0xC1, 0x77);
  return ReadExtendedCmos(0xC0) == 0x88;
}

const CmosChecksumRange *CmosChecksumList(UINTN Bank) {
  return Bank == 0 ? kBank0List : (Bank == 1 ? kBank1List : nullptr);
}

UINTN CmosChecksumListLimit(UINTN Bank) { return Bank == 0 ? kBank0RangeLimit : kBank1RangeLimit; }

UINT16 CmosImageChecksum(const UINT8 *Image, UINTN Bank) {
  UINT32 Sum = kCmosChecksumBase;
  ForEachListedIndex(Bank, [&](UINT8 Index) { Sum += Image[Bank * 256 + Index]; });
  return static_cast<UINT16>(Sum);
}

UINT16 CmosLiveChecksum(UINTN Bank) {
  if (Bank > 1) {
    return 0;
  }
  UINT32 Sum = kCmosChecksumBase;
  ForEachListedIndex(Bank, [&](UINT8 Index) { Sum += Bank == 0 ? ReadCmos(Index) : ReadExtendedCmos(Index); });
  return static_cast<UINT16>(Sum);
}

BOOLEAN IsCmosImageChecksumValid(const UINT8 *Image, UINTN Bank) {
  if (Image == nullptr || Bank > 1) {
    return FALSE;
  }
  return CmosImageChecksum(Image, Bank) == ReadUnaligned16(Image + StoredChecksumOffset(Bank));
}

BOOLEAN IsCmosImageBankSumValid(const UINT8 *Image, UINTN Bank) {
  if (Image == nullptr || Bank > 1) {
    return FALSE;
  }
  UINTN ChecksumOffset = StoredChecksumOffset(Bank);
  UINT32 Sum = kCmosChecksumBase;
  for (UINTN Offset = Bank * 256; Offset < Bank * 256 + 256; Offset++) {
    if (Offset != ChecksumOffset && Offset != ChecksumOffset + 1) {
      Sum += Image[Offset];
    }
  }
  return static_cast<UINT16>(Sum) == ReadUnaligned16(Image + ChecksumOffset);
}

BOOLEAN IsCmosLiveChecksumValid(UINTN Bank) {
  UINT16 Stored;
  if (Bank == 0) {
    Stored = static_cast<UINT16>(ReadCmos(kBank0ChecksumHigh) * 256 + ReadCmos(kBank0ChecksumLow));
  } else if (Bank == 1) {
    Stored = static_cast<UINT16>(ReadExtendedCmos(kBank1ChecksumHigh) * 256 + ReadExtendedCmos(kBank1ChecksumLow));
  } else {
    return FALSE;
  }
  return CmosLiveChecksum(Bank) == Stored;
}

BOOLEAN IsChecksummedCmosIndex(UINTN Bank, UINT8 Index) {
  BOOLEAN Listed = FALSE;
  ForEachListedIndex(Bank, [&](UINT8 Candidate) { Listed = Listed || Candidate == Index; });
  return Listed;
}

UINT8 ReadCmosToRom(UINT8 Index) {
  UINT8 *Image = ValidMirrorImage();
  return Image == nullptr ? 0 : Image[CmosToRomImage::kBank1 + Index];
}

VOID WriteCmosToRom(UINT8 Index, UINT8 Value) {
  if (ReadCmosToRom(Index) == Value) {
    return;
  }
  UINT8 *Image = ValidMirrorImage();
  if (Image == nullptr) {
    return;
  }
  Image[CmosToRomImage::kBank1 + Index] = Value;
  UINT16 Checksum = CmosImageChecksum(Image, 1);
  WriteUnaligned16(Image + CmosToRomImage::kBank1ChecksumOffset, Checksum);

  WriteCmosPort(kExtendedCmosIndexPort, kExtendedCmosDataPort, Index, Value);
  WriteExtendedCmosChecksum(Checksum);
  if (LocateCmosJournalFlashService()) {
    AppendCmosJournal(Index, Value, &Checksum);
  }
}

BOOLEAN LocateCmosJournalFlashService() {
  if (IsInSmm()) {
    if (mSmmJournalFlash == nullptr && gSmst != nullptr) {
      gSmst->SmmLocateProtocol(const_cast<EFI_GUID *>(&gSettingsSmmFlashGuid), nullptr,
                               reinterpret_cast<VOID **>(&mSmmJournalFlash));
    }
    return mSmmJournalFlash != nullptr;
  }
  if (mJournalFlashDevice == nullptr && gBS != nullptr &&
      gBS->LocateProtocol(const_cast<EFI_GUID *>(&gPlatformFlashDeviceProtocolGuid), nullptr,
                          reinterpret_cast<VOID **>(&mJournalFlashDevice)) != EFI_SUCCESS) {
    mJournalFlashDevice = nullptr;
  }
  return mJournalFlashDevice != nullptr;
}

VOID AppendCmosJournal(UINT8 Index, UINT8 Value, const UINT16 *Checksum) {
  if (gConfig.CmosJournalBase == 0) {
    return;
  }
  MoveCmosJournalBack();

  const UINT32 Quarter = JournalAreaSize() / 4;
  const UINT64 AreaStart = static_cast<UINT64>(gConfig.CmosJournalBase) + Quarter;
  const UINT8 *Area = Hw::FlashPointer(AreaStart, Quarter);
  if (Area == nullptr) {
    return;
  }
  UINT32 Free = Quarter;
  for (UINT32 Offset = 0; Offset + CmosJournal::kPairSize <= Quarter; Offset += CmosJournal::kPairSize) {
    if (Area[Offset] == 0xFF && Area[Offset + 1] == 0xFF) {
      Free = Offset;
      break;
    }
  }
  if (Free == Quarter) {
    return;
  }

  UINT8 Record[CmosJournal::kChecksummedRecordSize] = {Index, Value, 0, 0, 0, 0};
  UINT32 Length = CmosJournal::kPairSize;
  if (Checksum != nullptr) {
    Record[2] = kBank1ChecksumLow;
    Record[3] = static_cast<UINT8>(*Checksum);
    Record[4] = kBank1ChecksumHigh;
    Record[5] = static_cast<UINT8>(*Checksum >> 8);
    Length = CmosJournal::kChecksummedRecordSize;
  }
  if (Length > Quarter - Free) {
    return;
  }
  JournalWrite(static_cast<UINTN>(AreaStart + Free), Record, Length);
  Hw::MicroSecondDelay(kJournalWaitMicroseconds);
}

VOID MoveCmosJournalBack() {
  const UINT32 Half = JournalAreaSize() / 2;
  const UINT64 First = gConfig.CmosJournalBase;
  const UINT64 Second = First + Half;
  const UINT8 *SecondHalf = Half < sizeof(EFI_GUID) ? nullptr : Hw::FlashPointer(Second, Half);
  if (SecondHalf == nullptr || CompareMem(SecondHalf, &gCmosJournalSignatureGuid, sizeof(EFI_GUID)) != 0) {
    return;
  }
  JournalErase(static_cast<UINTN>(First), Half);
  Hw::MicroSecondDelay(kJournalWaitMicroseconds);
  JournalWrite(static_cast<UINTN>(First), SecondHalf, Half);
  Hw::MicroSecondDelay(kJournalWaitMicroseconds);
  JournalErase(static_cast<UINTN>(Second), Half);
  Hw::MicroSecondDelay(kJournalWaitMicroseconds);
}

#if defined(BIOS_HOST_BUILD)
void ResetCmosStateForTest() {
  mSmmVariable = nullptr;
  mSmmJournalFlash = nullptr;
  mJournalFlashDevice = nullptr;
}
#endif
