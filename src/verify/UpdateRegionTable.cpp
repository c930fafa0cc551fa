#include "UpdateRegionTable.h"

#include "../base/BaseLib.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/Hardware.h"
#include "../base/Hob.h"
#include "../base/PlatformProtocols.h"
#include "../base/Pool.h"
#include "../base/Print.h"
#include "../driver/Config.h"
#include "../driver/DriverState.h"
#include "../driver/Trace.h"
#include "../flash/FlashState.h"
#include "../psp/PspDirectory.h"

namespace {

// The region addresses are laid out for the 16 MiB flash mapped at 0xFF000000, whatever the
// configuration says about the flash base.
constexpr UINT64 kRegionFlashBase = 0xFF000000;
constexpr UINT64 kRegionFlashSize = 0x1000000;
constexpr UINT64 kProgressPageSize = 4096;

// The five ranges reported to the update log, in this order.
struct UpdateRegionGroup {
  UINT8 First;
  UINT8 Last;
  const char *Name;
};
constexpr UpdateRegionGroup kUpdateRegionGroups[] = {
    {RegionIbb1R, RegionIbb1R, "IBBR(TopSwap)"},
    {RegionIbb2R, RegionIbb4R, "PSPR(TopSwap)"},
    {RegionIbb1, RegionIbb1, "IBB"},
    {RegionIbb2, RegionIbb4, "PSP"},
    {RegionObb, RegionObb3, "OBB"},
};

// BIOS directory entries whose areas the platform rewrites at run time.
constexpr UINT8 kEntryApcbData = 0x60;
constexpr UINT8 kEntryApcbBackup = 0x68;
constexpr UINT8 kEntryApobData = 0x63;
constexpr INT8 kApcbBackupInstances[] = {0, 8};
// In an APCB header: the u32 instance number and the checksum byte.
constexpr UINT64 kApcbInstanceOffset = 12;
constexpr UINT64 kApcbChecksumOffset = 16;

constexpr UINTN kProgressTextSize = 100;

struct FoundEntry {
  BOOLEAN Found = FALSE;
  UINT64 Source = 0;
  UINT32 Size = 0;
};

FoundEntry LookUpBiosEntry(UINT8 Type, INT8 Instance) {
  FoundEntry Entry;
  UINT32 TypeWord = 0;
  UINT64 Destination = 0;
  Entry.Found = GetBiosEntry(Type, Instance, -1, &TypeWord, &Entry.Source, &Entry.Size, &Destination);
  return Entry;
}

// Offset of an entry's area in buffers holding the Size bytes from FlashAddress, when Length
// bytes from there lie inside them.
BOOLEAN AreaOffset(const FoundEntry &Entry, UINT64 FlashAddress, UINT64 Size, UINT64 Length, UINT64 &Offset) {
  if (!Entry.Found) {
    return FALSE;
  }
  Offset = (static_cast<UINT64>(gConfig.PcdFlashBase) | Entry.Source) - FlashAddress;
  return Offset <= Size && Length <= Size - Offset;
}

void MaskVolatileEntries(UINT8 *Flash, UINT8 *Image, UINT64 FlashAddress, UINT64 Size) {
  UINT64 Offset = 0;
  FoundEntry Apcb = LookUpBiosEntry(kEntryApcbData, 0);
  if (Apcb.Found && Apcb.Size != 0 && AreaOffset(Apcb, FlashAddress, Size, Apcb.Size, Offset)) {
    SetMem(Flash + Offset, Apcb.Size, 0xFF);
    SetMem(Image + Offset, Apcb.Size, 0xFF);
  }
  for (INT8 Instance : kApcbBackupInstances) {
    FoundEntry Backup = LookUpBiosEntry(kEntryApcbBackup, Instance);
    if (AreaOffset(Backup, FlashAddress, Size, kApcbChecksumOffset + 1, Offset)) {
      UINT8 *Buffers[] = {Flash, Image};
      for (UINT8 *Buffer : Buffers) {
        WriteUnaligned32(Buffer + Offset + kApcbInstanceOffset, 0);
        Buffer[Offset + kApcbChecksumOffset] = 0;
      }
    }
  }
  // Only the flash copy: an APOB area that the image leaves erased matches whatever the
  // platform has stored there since.
  FoundEntry Apob = LookUpBiosEntry(kEntryApobData, -1);
  if (Apob.Found && Apob.Size != 0 && AreaOffset(Apob, FlashAddress, Size, Apob.Size, Offset)) {
    SetMem(Flash + Offset, Apob.Size, 0xFF);
  }
}

void FillRegions(const UINT8 *Image, const UINT64 (&Sources)[4], UINT64 Ibb1Offset, UINT64 Ibb1Size,
                 UINT64 Ibb2Offset, UINT64 Ibb2Size, UINT64 Ibb3Offset, UINT64 Ibb3Size, UINT64 Ibb4Offset,
                 UINT64 Ibb4Size) {
  const UINT64 Base = gConfig.RecoveryBiosIdBase;
  const UINT64 F = kRegionFlashBase;
  // The image offset of the mapped flash part, a 32-bit sum as the platform reports it.
  const UINT32 L = mFlashInfo.LowerFlashSize + mFlashInfo.EcSize;
  const UINT64 Mapped = reinterpret_cast<UINTN>(Image) + L;
  UpdateRegionTable &T = mUpdateRegionTable;

  T[RegionIbb1R].Address = Base;
  T[RegionIbb1R].Size = Ibb1Size;
  T[RegionIbb1R].Source = Sources[0];
  T[RegionIbb2R].Address = Base + Ibb1Size + Ibb4Size;
  T[RegionIbb2R].Size = Ibb2Size;
  T[RegionIbb2R].Source = Sources[1];
  T[RegionIbb3R].Address = Base + Ibb1Size + Ibb4Size;
  T[RegionIbb3R].Size = Ibb3Size;
  T[RegionIbb3R].Source = Sources[2];
  T[RegionIbb4R].Address = Base + Ibb1Size;
  T[RegionIbb4R].Size = Ibb4Size;
  T[RegionIbb4R].Source = Sources[3];

  T[RegionIbb1] = {F + Ibb1Offset, Ibb1Size, Mapped + Ibb1Offset, 0, 0};
  T[RegionIbb2] = {F + Ibb2Offset, Ibb2Size, Mapped + Ibb2Offset, 0, 0};
  T[RegionIbb3] = {F + Ibb3Offset, Ibb3Size, Mapped + Ibb3Offset, 0, 0};
  T[RegionIbb4] = {F + Ibb4Offset, Ibb4Size, Mapped + Ibb4Offset, 0, 0};

  // OBB and OBB2 keep their build-time addresses.
  T[RegionObb].Size = Ibb4Offset;
  T[RegionObb].Source = Mapped;
  T[RegionObb2].Size = Ibb1Offset - Ibb4Size - Ibb4Offset;
  T[RegionObb2].Source = Mapped + (Base - gConfig.PcdFlashBase);
  T[RegionObb3].Address = F + Ibb2Offset + Ibb2Size;
  T[RegionObb3].Size = kRegionFlashSize - (Ibb2Offset + Ibb2Size);
  T[RegionObb3].Source = Mapped + Ibb2Offset + Ibb2Size;
}

// Regions 0 to 7 are counted in 8 KiB units, regions 8 to 10 in 4 KiB units.
void CountProgressUnits() {
  UpdateRegionTable &T = mUpdateRegionTable;
  for (UpdateRegion &Region : T) {
    Region.Pages = Region.Size >> 12;
  }
  T[0].StartBlock = static_cast<UINT32>(mFlashInfo.LowerFlashSize + mFlashInfo.EcSize) / kProgressPageSize;
  for (UINTN Index = 1; Index < kUpdateRegionCount; Index++) {
    const UpdateRegion &Previous = T[Index - 1];
    T[Index].StartBlock = Previous.StartBlock + (Index <= RegionObb ? Previous.Pages / 2 : Previous.Pages);
  }
}

// A HOB without a data byte is no resume information.
void TakeResumeHob() {
  const EFI_HOB_GUID_TYPE *Hob = GetFirstGuidHob(&gUpdateResumeHobGuid);
  if (Hob == nullptr || GuidHobDataSize(Hob) < 1) {
    return;
  }
  const UINT8 Code = *static_cast<const UINT8 *>(GuidHobData(Hob));
  const UINT32 Region = Code & 0x0F;
  mFirstUpdateRegion = Region < kLastResumeRegion ? Region : kLastResumeRegion;
  if ((Code >> 4) == kResumePhaseB) {
    mResumeUpdateB = TRUE;
  } else {
    mResumeUpdate = TRUE;
  }
}

}  // namespace

EFI_STATUS BuildUpdateRegionTable(const UINT8 *Image, UINT64 ImageSize) {
  if (mPlatformConfig == nullptr || mPlatformConfig->GetUpdateLayout == nullptr) {
    return EFI_UNSUPPORTED;
  }
  UINT64 Sources[4] = {};
  UINT64 Ibb1Offset = 0, Ibb1Size = 0, Ibb2Offset = 0, Ibb2Size = 0;
  UINT64 Ibb3Offset = 0, Ibb3Size = 0, Ibb4Offset = 0, Ibb4Size = 0;
  EFI_STATUS Status = mPlatformConfig->GetUpdateLayout(Image, ImageSize, &Sources[0], &Sources[1], &Sources[2],
                                                       &Sources[3], &Ibb1Offset, &Ibb1Size, &Ibb2Offset, &Ibb2Size,
                                                       &Ibb3Offset, &Ibb3Size, &Ibb4Offset, &Ibb4Size);
  if (EFI_ERROR(Status)) {
    return Status;
  }
  FillRegions(Image, Sources, Ibb1Offset, Ibb1Size, Ibb2Offset, Ibb2Size, Ibb3Offset, Ibb3Size, Ibb4Offset,
              Ibb4Size);

  const UpdateRegion &Ibb4 = mUpdateRegionTable[RegionIbb4];
  if (mUpdateMode == UpdateModeNormal && IsPspRegionUnchanged(Ibb4.Address, Ibb4.Source, Ibb4.Size)) {
    mSkipIbb4Write = TRUE;
  }
  CountProgressUnits();
  TakeResumeHob();

  for (const UpdateRegionGroup &Group : kUpdateRegionGroups) {
    if (EFI_ERROR(WriteProgressRange(Group.First, Group.Last, reinterpret_cast<const CHAR8 *>(Group.Name)))) {
      TRACE("    Error : Record log failure.");
    }
  }
  return EFI_SUCCESS;
}

BOOLEAN IsPspRegionUnchanged(UINT64 FlashAddress, UINT64 Source, UINT64 Size) {
  if (Size == 0 || Source == FlashAddress) {
    return TRUE;
  }
  const UINT64 Pages = Size / SIZE_4KB + (Size % SIZE_4KB != 0 ? 1 : 0);
  PageBuffer Flash = PageBuffer::Allocate(Pages);
  if (!Flash) {
    return FALSE;
  }
  PageBuffer Image = PageBuffer::Allocate(Pages);
  if (!Image) {
    return FALSE;
  }
  const UINT8 *Mapped = Hw::FlashPointer(FlashAddress, Size);
  if (Mapped == nullptr) {
    return FALSE;
  }
  CopyMem(Flash.Data(), Mapped, Size);
  CopyMem(Image.Data(), reinterpret_cast<const VOID *>(static_cast<UINTN>(Source)), Size);
  MaskVolatileEntries(Flash.Data(), Image.Data(), FlashAddress, Size);
  return CompareMem(Flash.Data(), Image.Data(), Size) == 0;
}

EFI_STATUS WriteProgressRange(UINT8 First, UINT8 Last, const CHAR8 *Name) {
  if (First >= kUpdateRegionCount || Last >= kUpdateRegionCount || Name == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  UpdateLogProtocol *Log = nullptr;
  EFI_STATUS Status = gBS->LocateProtocol(const_cast<EFI_GUID *>(&gUpdateLogProtocolGuid), nullptr,
                                          reinterpret_cast<VOID **>(&Log));
  if (EFI_ERROR(Status)) {
    return Status;
  }
  if (Log == nullptr) {
    return EFI_NOT_FOUND;
  }
  // Signed arithmetic as the log's readers expect; a block below 4 KiB (2 GiB and up read
  // as negative) or an empty image would leave no unit to count in.
  const INT32 Unit = static_cast<INT32>(mFlashInfo.BlockSize) / 4096;
  const INT64 Total = mFlashInfo.BlockCount;
  if (Unit <= 0 || Total == 0) {
    return EFI_BAD_BUFFER_SIZE;
  }
  const UpdateRegion &Start = mUpdateRegionTable[First];
  const UpdateRegion &End = mUpdateRegionTable[Last];
  const INT64 FirstBlock = static_cast<INT64>(Start.StartBlock) / Unit + 1;
  const INT64 LastBlock =
      Last == RegionObb3 ? Total : static_cast<INT64>(End.Pages / 2 + End.StartBlock) / Unit + 1;

  CHAR8 Text[kProgressTextSize];
  AsciiSPrint(Text, sizeof(Text), "%a:Percentage(%d%%-%d%%)/Block(%d-%d)", Name,
              static_cast<INT32>(FirstBlock * 100 / Total), static_cast<INT32>(LastBlock * 100 / Total),
              static_cast<INT32>(FirstBlock), static_cast<INT32>(LastBlock));
  return Log->WriteRecord(Log, kUpdateLogRecordProgressRange, AsciiStrLen(Text), Text);
}
