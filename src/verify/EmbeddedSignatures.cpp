// The two signatures an image carries inside itself: one over a firmware-volume file, one
// over pieces its flash map names. Every probe, scan and copy stays inside the image: a
// structure that would reach past its end is treated as absent.
#include "../base/BaseLib.h"
#include "../base/ByteView.h"
#include "../base/Guids.h"
#include "../base/Hob.h"
#include "../base/PiFirmwareVolume.h"
#include "../base/Pool.h"
#include "../driver/Config.h"
#include "../driver/FlashMapFormat.h"
#include "VerifySignature.h"

namespace {

constexpr UINTN kFfsFileHeaderSize = 24;
constexpr UINTN kSectionHeaderSize = 4;
constexpr UINTN kVolumeScanStep = 16;
constexpr UINTN kFlashMapProbeStep = 4096;

UINT32 Read24(const UINT8 *Bytes) { return Bytes[0] | (Bytes[1] << 8) | (static_cast<UINT32>(Bytes[2]) << 16); }

bool IsFfsVolumeAt(const ByteView &Image, UINTN Offset, UINT64 &Length, UINT16 &HeaderLength) {
  UINT32 Signature = 0;
  EFI_GUID FileSystem;
  if (!Image.Read32(Offset + offsetof(EFI_FIRMWARE_VOLUME_HEADER, Signature), Signature) || Signature != kFvSignature ||
      !Image.ReadGuid(Offset + offsetof(EFI_FIRMWARE_VOLUME_HEADER, FileSystemGuid), FileSystem) ||
      !(CompareGuid(&FileSystem, &gEfiFirmwareFileSystem2Guid) || CompareGuid(&FileSystem, &gEfiFirmwareFileSystem3Guid))) {
    return false;
  }
  // A length of zero would not advance the scan; such a header is not taken as a volume.
  return Image.Read64(Offset + offsetof(EFI_FIRMWARE_VOLUME_HEADER, FvLength), Length) &&
         Image.Read16(Offset + offsetof(EFI_FIRMWARE_VOLUME_HEADER, HeaderLength), HeaderLength) && Length != 0;
}

struct FvSignatureParts {
  const UINT8 *SignedFile = nullptr;  // header included
  UINT32 SignedFileSize = 0;
  const UINT8 *Signature = nullptr;
  UINT32 SignatureSize = 0;
};

// Walks the files of the volume at Volume (HeaderLength, Length) and notes the signed file
// and the signature file; a later file of the same name replaces an earlier one.
void WalkVolumeFiles(const ByteView &Image, UINTN Volume, UINT64 Length, UINT16 HeaderLength, FvSignatureParts &Parts) {
  const UINTN ImageEnd = Image.Size();
  const UINTN VolumeEnd = Length < ImageEnd - Volume ? Volume + static_cast<UINTN>(Length) : ImageEnd;
  const UINTN Base = reinterpret_cast<UINTN>(Image.Data());
  UINTN File = Volume + HeaderLength;
  while (File < VolumeEnd) {
    const UINT8 *Header = Image.At(File, kFfsFileHeaderSize);
    if (Header == nullptr || File + kFfsFileHeaderSize > VolumeEnd) {
      return;
    }
    const UINT32 Size = Read24(Header + offsetof(EFI_FFS_FILE_HEADER, Size));
    if (Size < kFfsFileHeaderSize || Size > VolumeEnd - File) {
      return;  // free space, a broken header or a file cut by the volume's end
    }
    EFI_GUID Name;
    CopyMem(&Name, Header, sizeof(Name));
    const UINT8 Type = Header[offsetof(EFI_FFS_FILE_HEADER, Type)];
    if (Type == EFI_FV_FILETYPE_FIRMWARE_VOLUME_IMAGE && CompareGuid(&Name, &gSignedFvFileGuid)) {
      Parts.SignedFile = Header;
      Parts.SignedFileSize = Size;
    } else if (Type == EFI_FV_FILETYPE_FREEFORM && CompareGuid(&Name, &gFvSignatureFileGuid) &&
               Size >= kFfsFileHeaderSize + kSectionHeaderSize) {
      const UINT8 *Section = Header + kFfsFileHeaderSize;
      const UINT32 SectionSize = Read24(Section);
      if (SectionSize >= kSectionHeaderSize && SectionSize <= Size - kFfsFileHeaderSize) {
        Parts.Signature = Section + kSectionHeaderSize;
        Parts.SignatureSize = SectionSize - kSectionHeaderSize;
      }
    }
    // Files are 8-byte aligned in memory: the next one starts on the absolute address.
    const UINTN Next = ((Base + File + Size + 7) & ~static_cast<UINTN>(7)) - Base;
    if (Next <= File) {
      return;
    }
    File = Next;
  }
}

// The first 4 KiB step of the image holding "QFDM", or ImageSize when there is none.
UINTN FindFlashMapRecord(const ByteView &Image) {
  for (UINTN Offset = 0; Offset < Image.Size(); Offset += kFlashMapProbeStep) {
    UINT32 Magic = 0;
    if (Image.Read32(Offset, Magic) && Magic == kFlashMapSignature) {
      return Offset;
    }
  }
  return Image.Size();
}

// An entry of the record: a GUID at 0 (and the signature entry's type GUID at 16), the
// image offset at 32 and the size at 40.
constexpr UINTN kEntryOffsetField = 32;
constexpr UINTN kEntrySizeField = 40;
constexpr UINTN kEntryBytes = 48;
struct NamedEntry {
  const EFI_GUID *Name;
  const EFI_GUID *Type;  // checked at entry offset 16 when not null
  UINT64 Offset = 0;
  UINT64 Size = 0;
  bool Seen = false;
};

// The signature record inside the signature area: GUID at 0, 24-bit length at 24, the
// signature (length - 4 bytes) from 28.
constexpr UINTN kRecordLengthField = 24;
constexpr UINTN kRecordSignatureOffset = 28;
constexpr UINTN kRecordLengthOverhead = 4;

bool ImageRange(const ByteView &Image, UINT64 Offset, UINT64 Length) {
  return Offset <= Image.Size() && Length <= Image.Size() - Offset;
}

}  // namespace

EFI_STATUS CheckFvSignature(ImageSignatureVerifyProtocol *Verifier, const UINT8 *Image, UINT64 ImageSize) {
  const BOOLEAN Enforce =
      GetFirstGuidHob(&gFvSignatureEnforceHobGuid) != nullptr && GetFirstGuidHob(&gFvSignatureWaiverHobGuid) == nullptr;
  if (ImageSize == 0 || Image == nullptr) {
    return EFI_NOT_FOUND;
  }
  const ByteView View(Image, ImageSize);
  FvSignatureParts Parts;
  UINTN Position = 0;
  while (Position < View.Size()) {
    UINT64 Length = 0;
    UINT16 HeaderLength = 0;
    if (!IsFfsVolumeAt(View, Position, Length, HeaderLength)) {
      Position += kVolumeScanStep;
      continue;
    }
    WalkVolumeFiles(View, Position, Length, HeaderLength, Parts);
    if (Parts.SignedFile != nullptr && Parts.Signature != nullptr) {
      break;
    }
    if (Length >= View.Size() - Position) {
      break;
    }
    Position += static_cast<UINTN>(Length);
  }
  if (Parts.SignedFile == nullptr || Parts.Signature == nullptr) {
    return EFI_NOT_FOUND;
  }
  EFI_STATUS Status = Verifier->Verify(Parts.SignedFile, Parts.SignedFileSize, Parts.Signature, Parts.SignatureSize,
                                       kVerifyKeySelectorPrimary);
  return Enforce ? Status : EFI_SUCCESS;
}

EFI_STATUS CheckFlashMapSignature(ImageSignatureVerifyProtocol *Verifier, const UINT8 *Image, UINT64 ImageSize) {
  if (ImageSize == 0 || Image == nullptr) {
    return EFI_NOT_FOUND;
  }
  const ByteView View(Image, ImageSize);
  const UINTN Record = FindFlashMapRecord(View);
  if (Record == 0 || Record >= View.Size()) {
    return EFI_NOT_FOUND;
  }

  NamedEntry Entries[] = {{&gQfdmSignatureEntryGuid, &gQfdmSignatureEntryTypeGuid}, {&gSignedRegion1Guid, nullptr},
                          {&gSignedRegion2Guid, nullptr}, {&gSignedRegion3Guid, nullptr},
                          {&gSignedRegion4Guid, nullptr}, {&gSignedRegion5Guid, nullptr}};
  constexpr UINTN kEntryKinds = sizeof(Entries) / sizeof(Entries[0]);
  UINTN SeenKinds = 0;
  for (UINTN Step = 0; Step < Record && SeenKinds < kEntryKinds; Step++) {
    const UINTN Position = Record + Step;
    if (!View.Contains(Position, kEntryBytes)) {
      break;  // the scan reached the image's end
    }
    for (NamedEntry &Entry : Entries) {
      if (!View.Equals(Position, Entry.Name, sizeof(EFI_GUID)) ||
          (Entry.Type != nullptr && !View.Equals(Position + sizeof(EFI_GUID), Entry.Type, sizeof(EFI_GUID)))) {
        continue;
      }
      View.Read64(Position + kEntryOffsetField, Entry.Offset);
      View.Read64(Position + kEntrySizeField, Entry.Size);
      SeenKinds += Entry.Seen ? 0 : 1;
      Entry.Seen = true;
    }
  }
  if (SeenKinds < kEntryKinds) {
    return EFI_NOT_FOUND;
  }

  // The signature record inside the area the signature entry names.
  const NamedEntry &SignatureEntry = Entries[0];
  const UINT64 Area = static_cast<UINT64>(gConfig.ImageFlashOffset) + SignatureEntry.Offset;
  if (SignatureEntry.Size == 0 || Area < SignatureEntry.Offset || !ImageRange(View, Area, 0)) {
    return EFI_NOT_FOUND;
  }
  const UINT8 *Signature = nullptr;
  UINT32 SignatureSize = 0;
  for (UINT64 Step = 0; Step < SignatureEntry.Size && View.Contains(Area + Step, kRecordSignatureOffset); Step++) {
    const UINTN Position = static_cast<UINTN>(Area + Step);
    if (!View.Equals(Position, &gQfdmSignatureRecordGuid, sizeof(EFI_GUID))) {
      continue;
    }
    const UINT32 Length = Read24(View.At(Position + kRecordLengthField, 3));
    if (Length >= kRecordLengthOverhead &&
        View.Contains(Position + kRecordSignatureOffset, Length - kRecordLengthOverhead)) {
      Signature = View.At(Position + kRecordSignatureOffset, Length - kRecordLengthOverhead);
      SignatureSize = Length - kRecordLengthOverhead;
    }
    break;
  }
  if (Signature == nullptr) {
    return EFI_NOT_FOUND;
  }

  // Z1 from O1, 2 x Z2 from O2, Z3 + Z4 from O3 (region 4 lends only its size), Z5 from O5.
  struct Piece {
    UINT64 Offset;
    UINT64 Length;
  };
  const Piece Pieces[] = {{Entries[1].Offset, Entries[1].Size},
                          {Entries[2].Offset, 2 * Entries[2].Size},
                          {Entries[3].Offset, Entries[3].Size + Entries[4].Size},
                          {Entries[5].Offset, Entries[5].Size}};
  // With every size within the image, neither the doubled size nor the sums can wrap.
  for (UINTN Index = 1; Index < kEntryKinds; Index++) {
    if (Entries[Index].Size > View.Size()) {
      return EFI_NOT_FOUND;
    }
  }
  UINT64 Total = 0;
  for (const Piece &Each : Pieces) {
    if (!ImageRange(View, Each.Offset, Each.Length)) {
      return EFI_NOT_FOUND;
    }
    Total += Each.Length;
  }
  PoolBuffer Buffer = PoolBuffer::AllocateZeroed(static_cast<UINTN>(Total));
  if (!Buffer) {
    return EFI_OUT_OF_RESOURCES;
  }
  UINT8 *Cursor = Buffer.Data();
  for (const Piece &Each : Pieces) {
    CopyMem(Cursor, Image + Each.Offset, static_cast<UINTN>(Each.Length));
    Cursor += Each.Length;
  }
  return Verifier->Verify(Buffer.Data(), Total, Signature, SignatureSize, kVerifyKeySelectorPrimary);
}
