#include "VariableStore.h"

#include "../base/BaseLib.h"
#include "../base/Guids.h"
#include "../base/Hardware.h"
#include "../base/Hob.h"
#include "../base/PiFirmwareVolume.h"
#include "../base/Pool.h"
#include "../driver/Config.h"
#include "../driver/DriverState.h"
#include "../driver/FlashMapFormat.h"
#include "../verify/PreservedVariables.h"
#include "../verify/Sha256.h"
#include "VariableStoreFormat.h"

namespace {

constexpr UINT8 kFlashAccessImage = 0;
// The flash map record's header as the backup check reads it (offsets from the record).
constexpr UINTN kMapLastEntryOffset = 4;
constexpr UINTN kMapFirstEntryOffset = 8;
constexpr UINTN kMapStrideOffset = 12;
// What the check reads of an entry: its GUID at 0 and the area's flash offset at 32.
constexpr UINTN kMapEntryOffsetField = 32;
constexpr UINTN kMapEntryReadLength = kMapEntryOffsetField + sizeof(UINT64);

// A store region of the mapped flash, empty when the window does not cover it.
ByteView MappedStore(UINT32 Base, UINT32 Size) { return ByteView(Hw::FlashPointer(Base, Size), Size); }

// The live store and the length of its volume and store headers, when it passes the NV store
// volume test and the flash service is there to write it.
EFI_STATUS LiveStoreForWriting(ByteView &Live, UINTN &Headers) {
  Live = MappedStore(gConfig.VariableStoreBase, gConfig.VariableStoreSize);
  if (!IsNvStoreVolume(Live, &Headers)) {
    return EFI_NOT_FOUND;
  }
  return mPlatformFlashService == nullptr ? EFI_NOT_READY : EFI_SUCCESS;
}

BOOLEAN AllBytesErased(const UINT8 *Bytes, UINTN Length) {
  for (UINTN Index = 0; Index < Length; Index++) {
    if (Bytes[Index] != 0xFF) {
      return FALSE;
    }
  }
  return TRUE;
}

// Where the seal sits in a backup area (its last sector), 0 when the area has no room for it.
UINTN BackupSealOffset(UINTN AreaSize) {
  return AreaSize > kVariableBackupSealSector ? AreaSize - kVariableBackupSealSector : 0;
}

EFI_STATUS WriteBackupSeal(const UINT8 *Backup, UINT32 Length) {
  VariableBackupSeal Seal;
  SetMem(&Seal, sizeof(Seal), 0);
  Seal.Signature = kVariableBackupSealSignature;
  Seal.Length = Length;
  if (!Sha256OfBytes(Backup, Length, Seal.Digest)) {
    return EFI_OUT_OF_RESOURCES;
  }
  const UINT32 SealAddress =
      gConfig.VariableBackupBase + static_cast<UINT32>(BackupSealOffset(gConfig.VariableBackupSize));
  return mPlatformFlashService->WriteFlash(kFlashAccessImage, SealAddress, &Seal, sizeof(Seal));
}

BOOLEAN IsRegionTrackedResume() {
  return mPlatformConfig != nullptr && (mPlatformConfig->Flags & kPlatformConfigAlternativeFlag) != 0 &&
         GetFirstGuidHob(&gUpdateResumeHobGuid) != nullptr;
}

}  // namespace

UINT32 GetVariableStoreHeaderSize() {
  return gConfig.VssSignatureFormat ? sizeof(VariableStoreHeaderVss) : sizeof(VariableStoreHeaderGuid);
}

UINT32 GetVariableStoreStatus(const UINT8 *Header) {
  if (Header == nullptr) {
    return VariableStoreInvalid;
  }
  if (gConfig.VssSignatureFormat) {
    VariableStoreHeaderVss Store;
    CopyMem(&Store, Header, sizeof(Store));
    if (Store.Signature == kVariableStoreSignature) {
      return Store.Format == kVariableStoreFormatted && Store.State == kVariableStoreHealthy ? VariableStoreValid
                                                                                               : VariableStoreInvalid;
    }
    // Signature, Size, Format and State erased.
    return AllBytesErased(Header, offsetof(VariableStoreHeaderVss, Reserved)) ? VariableStoreRaw
                                                                              : VariableStoreInvalid;
  }
  VariableStoreHeaderGuid Store;
  CopyMem(&Store, Header, sizeof(Store));
  const BOOLEAN KnownKind = CompareGuid(&Store.Signature, &gEfiAuthenticatedVariableGuid) ||
                            CompareGuid(&Store.Signature, &gEfiVariableGuid);
  if (KnownKind && Store.Format == kVariableStoreFormatted && Store.State == kVariableStoreHealthy) {
    return VariableStoreValid;
  }
  return AllBytesErased(Header, offsetof(VariableStoreHeaderGuid, Reserved)) ? VariableStoreRaw
                                                                             : VariableStoreInvalid;
}

BOOLEAN IsVariableRecordBounded(const UINT8 *Record) {
  if (Record == nullptr) {
    return FALSE;
  }
  AuthenticatedVariableHeader Header;
  CopyMem(&Header, Record, sizeof(Header));
  if (Header.StartId != kVariableStartId) {
    return FALSE;
  }
  const UINT64 Extent = UINT64{GetVariableStoreHeaderSize()} + Header.DataSize + Header.NameSize;
  return Extent <= kVariableRecordBound;
}

const UINT8 *GetNextVariable(const UINT8 *Record) {
  if (!IsVariableRecordBounded(Record)) {
    return nullptr;
  }
  AuthenticatedVariableHeader Header;
  CopyMem(&Header, Record, sizeof(Header));
  return Record + kVariableHeaderSize + Header.NameSize + Header.DataSize;
}

BOOLEAN IsVariableRecordInStore(const UINT8 *Record, const UINT8 *StoreEnd) {
  if (Record == nullptr || StoreEnd == nullptr || Record > StoreEnd ||
      static_cast<UINTN>(StoreEnd - Record) < kVariableHeaderSize || !IsVariableRecordBounded(Record)) {
    return FALSE;
  }
  AuthenticatedVariableHeader Header;
  CopyMem(&Header, Record, sizeof(Header));
  // Bounded records are small, so the sum cannot wrap.
  return UINT64{Header.NameSize} + Header.DataSize <= static_cast<UINT64>(StoreEnd - Record) - kVariableHeaderSize;
}

const UINT8 *GetNextVariableInStore(const UINT8 *Record, const UINT8 *StoreEnd) {
  return IsVariableRecordInStore(Record, StoreEnd) ? GetNextVariable(Record) : nullptr;
}

BOOLEAN IsNvStoreVolume(ByteView Volume, UINTN *HeadersLength) {
  UINT32 Signature = 0;
  UINT16 HeaderLength = 0;
  if (!Volume.Read32(offsetof(EFI_FIRMWARE_VOLUME_HEADER, Signature), Signature) || Signature != kFvSignature ||
      !Volume.Equals(offsetof(EFI_FIRMWARE_VOLUME_HEADER, FileSystemGuid), &gEfiSystemNvDataFvGuid,
                     sizeof(EFI_GUID)) ||
      !Volume.Read16(offsetof(EFI_FIRMWARE_VOLUME_HEADER, HeaderLength), HeaderLength)) {
    return FALSE;
  }
  const UINT8 *StoreHeader = Volume.At(HeaderLength, GetVariableStoreHeaderSize());
  if (StoreHeader == nullptr || GetVariableStoreStatus(StoreHeader) == VariableStoreInvalid) {
    return FALSE;
  }
  if (HeadersLength != nullptr) {
    *HeadersLength = HeaderLength + GetVariableStoreHeaderSize();
  }
  return TRUE;
}

EFI_STATUS IsBackupStoreValid() {
  const ByteView Area = MappedStore(gConfig.VariableBackupBase, gConfig.VariableBackupSize);
  if (!IsNvStoreVolume(Area, nullptr)) {
    return EFI_NOT_FOUND;
  }
  // The header alone is written first: with the remedies a backup also needs its seal.
  return !gConfig.PowerLossRemedies || IsVariableBackupSealed(Area) ? EFI_SUCCESS : EFI_NOT_FOUND;
}

BOOLEAN IsVariableBackupSealed(ByteView Area) {
  // A cut anywhere in the backup's own write comes before the seal is written, and a cut in
  // the seal's write leaves no match.
  const UINTN SealOffset = BackupSealOffset(Area.Size());
  VariableBackupSeal Seal;
  if (SealOffset == 0 || !Area.ReadBytes(SealOffset, &Seal, sizeof(Seal)) ||
      Seal.Signature != kVariableBackupSealSignature || Seal.Length > SealOffset) {
    return FALSE;
  }
  UINT8 Digest[kSha256DigestSize];
  return Sha256OfBytes(Area.Data(), Seal.Length, Digest) && CompareMem(Digest, Seal.Digest, sizeof(Digest)) == 0;
}

EFI_STATUS BackupVariableStore(const UINT8 *Image, UINT64 ImageSize) {
  // A resumed update relies on the backup the interrupted one took. With the remedies a backup
  // without its seal is not relied on but taken again: either the power failed while it was
  // written, before any of the image was, or after the completion had begun to erase it,
  // when the completion had already put the variables back into the live store.
  if (IsBackupStoreValid() == EFI_SUCCESS || (IsRegionTrackedResume() && !gConfig.PowerLossRemedies)) {
    return EFI_ALREADY_STARTED;  // a backup is already there, or trusted to be
  }
  if (EfiError(CheckBackupAreaMapping(Image, ImageSize))) {
    return EFI_NO_MAPPING;
  }
  ByteView Live;
  UINTN Headers = 0;
  const EFI_STATUS LiveStatus = LiveStoreForWriting(Live, Headers);
  if (EfiError(LiveStatus)) {
    return LiveStatus;
  }
  PoolBuffer Backup = PoolBuffer::Allocate(Live.Size());
  if (!Backup) {
    return EFI_OUT_OF_RESOURCES;
  }
  SetMem(Backup.Data(), Backup.Size(), 0xFF);
  CopyMem(Backup.Data(), Live.Data(), Headers);

  // The selection reads only the live store and writes only the rest of the buffer.
  UINT64 Selected = 0;
  if (EfiError(SelectPreservedVariables(Live.Data() + Headers, Live.Data() + Live.Size(), Backup.Data() + Headers,
                                        Backup.Size() - Headers, &Selected))) {
    return EFI_NOT_FOUND;
  }
  // The selection alone must fit the backup area, and so must what is written.
  // With the remedies the seal's sector must stay clear of it too.
  const UINT64 Room =
      gConfig.PowerLossRemedies ? BackupSealOffset(gConfig.VariableBackupSize) : gConfig.VariableBackupSize;
  if (Selected > Room || Headers + Selected > Room) {
    return EFI_OUT_OF_RESOURCES;
  }
  const UINT32 Length = static_cast<UINT32>(Headers + Selected);
  EFI_STATUS Status = mPlatformFlashService->WriteFlash(kFlashAccessImage, gConfig.VariableBackupBase, Backup.Data(),
                                                        Length);
  if (!EfiError(Status) && gConfig.PowerLossRemedies) {
    Status = WriteBackupSeal(Backup.Data(), Length);
  }
  return EfiError(Status) ? EFI_ACCESS_DENIED : EFI_SUCCESS;
}

EFI_STATUS RestoreVariableStore() {
  const ByteView BackupArea = MappedStore(gConfig.VariableBackupBase, gConfig.VariableBackupSize);
  if (!IsNvStoreVolume(BackupArea, nullptr)) {
    return EFI_NOT_FOUND;
  }
  // The whole live range is written: a backup area smaller than the store (a configuration
  // the platform rules out) leaves the rest erased instead of reading past the copy.
  const UINTN StoreSize = gConfig.VariableStoreSize;
  PoolBuffer Buffer = PoolBuffer::Allocate(StoreSize > BackupArea.Size() ? StoreSize : BackupArea.Size());
  if (!Buffer) {
    return EFI_OUT_OF_RESOURCES;
  }
  SetMem(Buffer.Data(), Buffer.Size(), 0xFF);
  CopyMem(Buffer.Data(), BackupArea.Data(), BackupArea.Size());

  ByteView Live;
  UINTN Headers = 0;
  const EFI_STATUS LiveStatus = LiveStoreForWriting(Live, Headers);
  if (EfiError(LiveStatus)) {
    return LiveStatus;
  }
  // The live headers stay; the variables come from the backup.
  CopyMem(Buffer.Data(), Live.Data(), Headers);
  return mPlatformFlashService->WriteFlash(kFlashAccessImage, gConfig.VariableStoreBase, Buffer.Data(),
                                           gConfig.VariableStoreSize);
}

EFI_STATUS CheckBackupAreaMapping(const UINT8 *Image, UINT64 ImageSize) {
  if (Image == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  const ByteView View(Image, static_cast<UINTN>(ImageSize));
  // The probes are ImageSize - 4096, ImageSize - 8192, ...; the lowest hit is the record,
  // so the probes are made from the bottom up and the first hit ends the search.
  UINT64 Record = 0;
  BOOLEAN Found = FALSE;
  for (UINT64 Probe = ImageSize % kFlashMapScanStep; ImageSize >= kFlashMapScanStep &&
                                                     Probe <= ImageSize - kFlashMapScanStep;
       Probe += kFlashMapScanStep) {
    UINT32 Magic = 0;
    if (View.Read32(Probe, Magic) && Magic == kFlashMapSignature) {
      Record = Probe;
      Found = TRUE;
      break;
    }
  }
  UINT32 Last = 0, First = 0, Stride = 0;
  if (!Found || !View.Read32(Record + kMapLastEntryOffset, Last) ||
      !View.Read32(Record + kMapFirstEntryOffset, First) || !View.Read32(Record + kMapStrideOffset, Stride)) {
    return EFI_NOT_FOUND;
  }
  // Every entry walked lies at or before the last one, which must lie inside the image.
  if (Stride == 0 || First > Last || !View.Contains(Record + Last, kMapEntryReadLength)) {
    return EFI_NOT_FOUND;
  }
  const UINT8 *Match = nullptr;
  for (UINT64 Entry = First; Entry <= Last; Entry += Stride) {
    const UINT8 *Where = View.At(Record + Entry, kMapEntryReadLength);
    if (Where != nullptr && CompareMem(Where, &gVariableStoreBackupAreaGuid, sizeof(EFI_GUID)) == 0) {
      Match = Where;  // the later entry wins
    }
  }
  if (Match == nullptr) {
    return EFI_NOT_FOUND;
  }
  const UINT32 Expected = gConfig.VariableBackupBase - mFlashBase;
  return ReadUnaligned64(Match + kMapEntryOffsetField) == Expected ? EFI_SUCCESS : EFI_NO_MAPPING;
}
