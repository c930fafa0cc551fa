// Validation and the level-1 directories: the EFS search, "$PSP" and "$BHD" (through combo
// directories where the SoC has them) and the A/B summary.
#include "PspDirectory.h"

#include "../base/BaseLib.h"
#include "../base/ByteView.h"
#include "HeapBuffer.h"
#include "PspAssert.h"
#include "PspConfig.h"
#include "Soc.h"

using namespace PspDirectoryDetail;

namespace {

constexpr UINTN kFletcherBlockWords = 359;
constexpr UINT32 kSixteenBitTypeMask = 0xFFFF;
constexpr UINT32 kMappedWindowBits = 0xFF000000;

constexpr UINT32 kEfsBases[] = {0x0000000, 0x1000000, 0x2000000, 0x3000000};
constexpr UINT32 kEfsOffsets[] = {0x020000, 0x820000, 0xC20000, 0xE20000, 0xF20000, 0xFA0000};

ByteView DirectoryView(const UINT8 *Directory) { return ByteView(Directory, kDirectoryBufferSize); }

// The checksummed part of a directory: Count and the reserved word, then Count entries.
// FALSE when that part does not fit the buffer (a directory too large to have been read whole).
bool ValidateDirectory(const UINT8 *Directory, UINT32 Cookie, UINTN EntrySize) {
  ByteView View = DirectoryView(Directory);
  UINT32 Found = 0, Checksum = 0, Count = 0;
  if (!View.Read32(offsetof(DirectoryHeader, Cookie), Found) || Found != Cookie ||
      !View.Read32(offsetof(DirectoryHeader, Checksum), Checksum) ||
      !View.Read32(offsetof(DirectoryHeader, Count), Count) || Count > kMaxDirectoryCount) {
    return false;
  }
  UINTN Covered = Count * EntrySize + 8;
  const UINT8 *Words = View.At(offsetof(DirectoryHeader, Count), Covered);
  return Words != nullptr && Fletcher32(Words, Covered / 2) == Checksum;
}

// The first 60 bytes of the EFS: the first candidate with the signature whose generation
// this processor accepts.
bool FindEfs(const SocDescriptor &Soc, EmbeddedFirmwareStructure &Efs, bool ReportUnreadable) {
  UINTN OffsetCount = Soc.EntryTypeWidth == 2 ? 1 : sizeof(kEfsOffsets) / sizeof(kEfsOffsets[0]);
  for (UINT32 Base : kEfsBases) {
    for (UINTN Index = 0; Index < OffsetCount; Index++) {
      if (!ReadRomByOffset(Base + kEfsOffsets[Index], &Efs, sizeof(Efs))) {
        if (ReportUnreadable) {
          AssertReport(kAssertEfsUnreadable);
        }
        return false;
      }
      if (Efs.Signature == kEfsSignature && !EfsGenerationRejected(reinterpret_cast<const UINT8 *>(&Efs))) {
        return true;
      }
    }
  }
  return false;
}

// The directory location a "2PSP"/"2BHD" combo directory gives for this SoC.
bool FindComboEntry(const UINT8 *Combo, UINT32 PspId, UINT64 &Location) {
  ByteView View = DirectoryView(Combo);
  UINT32 Count = 0;
  View.Read32(offsetof(ComboDirectoryHeader, Count), Count);
  for (UINT32 Index = 0; Index < Count; Index++) {
    UINTN Entry = sizeof(ComboDirectoryHeader) + static_cast<UINTN>(Index) * sizeof(ComboDirectoryEntry);
    UINT32 Id = 0, Low = 0;
    if (!View.Read32(Entry + offsetof(ComboDirectoryEntry, PspId), Id) ||
        !View.Read32(Entry + offsetof(ComboDirectoryEntry, Location), Low)) {
      return false;
    }
    if (Id == PspId) {
      Location = Low;
      return true;
    }
  }
  return false;
}

bool IsComboWithEntries(const UINT8 *Directory, UINT32 ComboCookie) {
  ByteView View = DirectoryView(Directory);
  UINT32 Cookie = 0, Count = 0;
  return View.Read32(offsetof(ComboDirectoryHeader, Cookie), Cookie) && Cookie == ComboCookie &&
         View.Read32(offsetof(ComboDirectoryHeader, Count), Count) && Count > 0;
}

bool AddToList(UINT8 &Count, UINT8 (&List)[kAbListCapacity], UINT32 Index) {
  if (Count >= kAbListCapacity) {
    return false;
  }
  List[Count++] = static_cast<UINT8>(Index);
  return true;
}

bool AbInfoUsable(const UINT8 *Info) {
  return Info != nullptr && ReadUnaligned32(Info + offsetof(AbInfo, PointerEntryCount)) != 0 &&
         Info[offsetof(AbInfo, ActiveCount)] != 0;
}

}  // namespace

// ---- Shared helpers ------------------------------------------------------------------------

UINT64 PspDirectoryDetail::ForceMapped(UINT64 Location) {
  if (PspForceMappedAddress() && (Location & kMappedWindowBits) != kMappedWindowBits) {
    Location |= kMappedWindowBits;
  }
  return Location;
}

UINT8 *PspDirectoryDetail::CacheBuffer(UINT32 Handle, UINT32 Size) {
  if (!PspDirectoryCacheEnabled()) {
    return nullptr;
  }
  VOID *Buffer = nullptr;
  return GetHeapBuffer(Handle, Size, &Buffer) ? static_cast<UINT8 *>(Buffer) : nullptr;
}

const UINT8 *PspDirectoryDetail::StoreInCache(UINT32 Handle, const UINT8 *Fresh, UINT32 Size) {
  UINT8 *Cache = CacheBuffer(Handle, Size);
  if (Cache == nullptr) {
    return Fresh;
  }
  ZeroMem(Cache, Size);
  CopyMem(Cache, Fresh, Size);
  return Cache;
}

UINT8 *PspDirectoryDetail::ScratchBuffer(UINT32 Handle, UINT32 Size) {
  VOID *Buffer = nullptr;
  return GetHeapBuffer(Handle, Size, &Buffer) ? static_cast<UINT8 *>(Buffer) : nullptr;
}

BOOLEAN PspDirectoryDetail::FindAbPair(const UINT8 *Level1, UINT64 *ACopy, UINT64 *BCopy) {
  ByteView View = DirectoryView(Level1);
  UINT32 Count = 0;
  View.Read32(offsetof(DirectoryHeader, Count), Count);
  bool SeenA = false, SeenB = false;
  for (UINT32 Index = 0; Index < Count && !(SeenA && SeenB); Index++) {
    UINTN Entry = sizeof(DirectoryHeader) + static_cast<UINTN>(Index) * sizeof(PspDirectoryEntry);
    UINT32 TypeWord = 0;
    UINT64 Location = 0;
    if (!View.Read32(Entry, TypeWord) || !View.Read64(Entry + offsetof(PspDirectoryEntry, Location), Location)) {
      break;
    }
    if (EntryTypeMatches(TypeWord, kPspAbPointerA)) {
      *ACopy = ForceMapped(Location);
      SeenA = true;
    } else if (EntryTypeMatches(TypeWord, kPspAbPointerB)) {
      *BCopy = ForceMapped(Location);
      SeenB = true;
    }
  }
  return SeenA && SeenB ? TRUE : FALSE;
}

// ---- Validation ----------------------------------------------------------------------------

UINT32 Fletcher32(const UINT8 *Data, UINTN WordCount) {
  UINT32 Sum1 = 0xFFFF, Sum2 = 0xFFFF;
  while (WordCount > 0) {
    UINTN Block = WordCount > kFletcherBlockWords ? kFletcherBlockWords : WordCount;
    WordCount -= Block;
    for (; Block > 0; Block--, Data += 2) {
      Sum1 += ReadUnaligned16(Data);
      Sum2 += Sum1;
    }
    Sum1 = (Sum1 & 0xFFFF) + (Sum1 >> 16);
    Sum2 = (Sum2 & 0xFFFF) + (Sum2 >> 16);
  }
  return ((Sum2 + (Sum2 >> 16)) << 16) | ((Sum1 >> 16) + (Sum1 & 0xFFFF));
}

BOOLEAN ValidatePspDirectory(const UINT8 *Directory, UINT32 Cookie, BOOLEAN CheckPointers) {
  if (Directory == nullptr || !ValidateDirectory(Directory, Cookie, sizeof(PspDirectoryEntry))) {
    return FALSE;
  }
  if (CheckPointers && IsAbPointerDirectory(Directory)) {
    UINT32 Count = ReadUnaligned32(Directory + offsetof(DirectoryHeader, Count));
    return Count >= 1 && Count <= kMaxAbPointerEntries ? TRUE : FALSE;
  }
  return TRUE;
}

BOOLEAN ValidateBiosDirectory(const UINT8 *Directory, UINT32 Cookie) {
  return Directory != nullptr && ValidateDirectory(Directory, Cookie, sizeof(BiosDirectoryEntry)) ? TRUE : FALSE;
}

BOOLEAN EntryTypeMatches(UINT32 TypeWord, UINT32 LegacyType) {
  if (!SocUsesSixteenBitEntryTypes()) {
    return (TypeWord & 0xFF) == LegacyType ? TRUE : FALSE;
  }
  UINT32 Mapped = 0;
  switch (LegacyType) {
  case kPspAbPointerA:
    Mapped = 0x13C;
    break;
  case kPspAbPointerB:
    Mapped = 0x13D;
    break;
  case kPspBiosLevel2Type:
    Mapped = 0x14F;
    break;
  default:
    AssertReport(kAssertEntryTypeNotMapped);
    return FALSE;
  }
  return (TypeWord & kSixteenBitTypeMask) == Mapped ? TRUE : FALSE;
}

BOOLEAN IsAbPointerDirectory(const UINT8 *Directory) {
  if (Directory == nullptr) {
    AssertReport(kAssertNullPointerDirectory);
    return FALSE;
  }
  ByteView View = DirectoryView(Directory);
  UINT32 Count = 0;
  if (!View.Read32(offsetof(DirectoryHeader, Count), Count) || Count == 0) {
    return FALSE;
  }
  for (UINT32 Index = 0; Index < Count; Index++) {
    UINT32 TypeWord = 0;
    if (!View.Read32(sizeof(DirectoryHeader) + static_cast<UINTN>(Index) * sizeof(PspDirectoryEntry), TypeWord)) {
      return FALSE;  // entries beyond the buffer: not a directory this code can use
    }
    if (!EntryTypeMatches(TypeWord, kPspAbPointerA) && !EntryTypeMatches(TypeWord, kPspAbPointerB)) {
      return FALSE;
    }
  }
  return TRUE;
}

UINT64 TranslateEntryAddress(UINT64 Location, UINT64 Base1, UINT64 Base2) {
  constexpr UINT64 kBit62 = 1ull << 62;
  constexpr UINT64 kBit63 = 1ull << 63;
  switch (Location >> kAddressModeShift) {
  case kAddressModeFlashOffset:
    Location &= ~kBit62;
    break;
  case kAddressModeDirectoryRelative:
    Location = (Location & ~kBit63) + Base1;
    break;
  case kAddressModeSlotRelative:
    Location = (Location & ~(kBit63 | kBit62)) + Base2;
    break;
  default:
    break;
  }
  return ForceMapped(Location);
}

// ---- Level-1 directories -------------------------------------------------------------------

BOOLEAN GetPspDirectory(const UINT8 **Directory) {
  const SocDescriptor *Soc = nullptr;
  if (!FindSocDescriptor(&Soc)) {
    AssertReport(kAssertPspSocUnknown);
    return FALSE;
  }
  const UINT8 *Cached = CacheBuffer(kHandlePspCache, kDirectoryBufferSize);
  if (Cached != nullptr && ValidatePspDirectory(Cached, kPspDirectoryCookie, TRUE)) {
    *Directory = Cached;
    return TRUE;
  }

  EmbeddedFirmwareStructure Efs;
  UINT8 *Buffer = ScratchBuffer(kHandleLevel1Scratch, kDirectoryBufferSize);
  if (!FindEfs(*Soc, Efs, true) || Buffer == nullptr) {
    return FALSE;
  }
  // A failed read leaves the buffer zeroed, which then fails validation.
  ReadDirectory(Efs.PspDirectory, Buffer);
  UINT64 SocDirectory = 0;
  if (IsComboWithEntries(Buffer, kPspComboCookie) && FindComboEntry(Buffer, Soc->PspId, SocDirectory)) {
    ReadDirectory(SocDirectory, Buffer);
  }
  if (!ValidatePspDirectory(Buffer, kPspDirectoryCookie, TRUE)) {
    if (Soc->AbKind != 2) {
      return FALSE;
    }
    ReadDirectory(Efs.AlternatePspDirectory, Buffer);
    if (!ValidatePspDirectory(Buffer, kPspDirectoryCookie, TRUE)) {
      return FALSE;
    }
  }
  *Directory = StoreInCache(kHandlePspCache, Buffer, kDirectoryBufferSize);
  return TRUE;
}

BOOLEAN GetBiosDirectory(const UINT8 **Directory) {
  const SocDescriptor *Soc = nullptr;
  if (!FindSocDescriptor(&Soc)) {
    AssertReport(kAssertBiosSocUnknown);
    return FALSE;
  }
  const UINT8 *Cached = CacheBuffer(kHandleBiosCache, kDirectoryBufferSize);
  if (Cached != nullptr && ValidateBiosDirectory(Cached, kBiosDirectoryCookie)) {
    *Directory = Cached;
    return TRUE;
  }

  EmbeddedFirmwareStructure Efs;
  UINT8 *Buffer = ScratchBuffer(kHandleLevel1Scratch, kDirectoryBufferSize);
  if (!FindEfs(*Soc, Efs, false) || Buffer == nullptr) {
    return FALSE;
  }
  // SoCs without a BIOS pointer in the EFS reach their BIOS directory only through a combo
  // directory; without one they have no BIOS directory here.
  UINT32 Location = 0;
  bool HaveLocation = Soc->BiosPointerOffset != kSocNone &&
                      ByteView(&Efs, sizeof(Efs)).Read32(Soc->BiosPointerOffset, Location);
  if ((Soc->ComboBiosDirectory & 0xFF) != 0) {
    if (!ReadDirectory(Efs.ComboBiosDirectory, Buffer)) {
      return FALSE;
    }
    UINT64 SocDirectory = 0;
    if (IsComboWithEntries(Buffer, kBiosComboCookie) && FindComboEntry(Buffer, Soc->PspId, SocDirectory)) {
      Location = static_cast<UINT32>(SocDirectory);
      HaveLocation = true;
    }
  }
  if (!HaveLocation) {
    return FALSE;
  }
  ReadDirectory(Location, Buffer);
  if (!ValidateBiosDirectory(Buffer, kBiosDirectoryCookie)) {
    AssertReport(kAssertBiosDirectoryInvalid);
    return FALSE;
  }
  *Directory = StoreInCache(kHandleBiosCache, Buffer, kDirectoryBufferSize);
  return TRUE;
}

// ---- A/B summary ---------------------------------------------------------------------------

BOOLEAN BuildAbInfo(const UINT8 *Level1, const AbInfo **Info) {
  if (Level1 == nullptr) {
    AssertReport(kAssertNullAbDirectory);
    return FALSE;
  }
  const SocDescriptor *Soc = nullptr;
  if (!FindSocDescriptor(&Soc)) {
    AssertReport(kAssertAbSocUnknown);
    return FALSE;
  }
  if (Soc->AbKind == kSocNone) {
    return FALSE;
  }
  const UINT8 *Cached = CacheBuffer(kHandleAbInfoCache, sizeof(AbInfo));
  if (AbInfoUsable(Cached)) {
    *Info = reinterpret_cast<const AbInfo *>(Cached);
    return TRUE;
  }
  UINT8 *Scratch = ScratchBuffer(kHandleAbInfoScratch, sizeof(AbInfo));
  if (Scratch == nullptr) {
    return FALSE;
  }
  AbInfo &Result = *reinterpret_cast<AbInfo *>(Scratch);
  ZeroMem(&Result, sizeof(Result));
  Result.PrimaryIndex = kAbNoEntry;
  Result.SecondaryIndex = kAbNoEntry;

  ByteView View = DirectoryView(Level1);
  UINT32 Count = 0;
  View.Read32(offsetof(DirectoryHeader, Count), Count);
  for (UINT32 Index = 0; Index < Count; Index++) {
    UINTN Entry = sizeof(DirectoryHeader) + static_cast<UINTN>(Index) * sizeof(PspDirectoryEntry);
    UINT32 TypeWord = 0;
    UINT64 Location = 0;
    if (!View.Read32(Entry, TypeWord) || !View.Read64(Entry + offsetof(PspDirectoryEntry, Location), Location)) {
      return FALSE;
    }
    bool IsA = EntryTypeMatches(TypeWord, kPspAbPointerA);
    if (!IsA && !EntryTypeMatches(TypeWord, kPspAbPointerB)) {
      continue;
    }
    Result.PointerEntryCount++;
    Location = ForceMapped(Location);

    AbHeaderCopy Copy = {};
    if (Soc->AbKind == 2) {
      AbHeaderKind2 Header;
      if (!ReadRom(Location, &Header, sizeof(Header))) {
        AssertReport(kAssertAbHeaderKind2Unreadable);
        return FALSE;
      }
      if (Header.PspId != Soc->PspId) {
        if (!AddToList(Result.InactiveCount, Result.Inactive, Index)) {
          return FALSE;
        }
        continue;
      }
      Copy = {Header.Priority, Header.Word, Header.Byte, Header.Level2Location};
    } else {
      AbHeaderKind1 Header;
      if (!ReadRom(Location, &Header, sizeof(Header))) {
        AssertReport(kAssertAbHeaderKind1Unreadable);
        return FALSE;
      }
      Copy = {Header.Priority, Header.Word1, Header.Word2, Header.Level2Location};
    }
    bool Listed = Copy.Priority != 0 ? AddToList(Result.ActiveCount, Result.Active, Index)
                                     : AddToList(Result.InactiveCount, Result.Inactive, Index);
    if (!Listed) {
      return FALSE;
    }
    Copy.Level2Location = static_cast<UINT32>(ForceMapped(Copy.Level2Location));

    if (Soc->AbKind == 2) {
      // Kind 2 names its copies: the 0x48 entry is A, the primary.
      if (IsA) {
        Result.PrimaryIndex = static_cast<UINT8>(Index);
        Result.Primary = Copy;
      } else {
        Result.SecondaryIndex = static_cast<UINT8>(Index);
        Result.Secondary = Copy;
      }
    } else if (Copy.Priority > Result.Primary.Priority) {
      // Kind 1 ranks by priority: the highest is primary, the one it displaced secondary.
      if (Result.Primary.Priority != 0) {
        Result.SecondaryIndex = Result.PrimaryIndex;
        Result.Secondary = Result.Primary;
      }
      Result.PrimaryIndex = static_cast<UINT8>(Index);
      Result.Primary = Copy;
    } else {
      Result.SecondaryIndex = static_cast<UINT8>(Index);
      Result.Secondary = Copy;
    }
  }
  if (Result.ActiveCount == 0) {
    return FALSE;
  }
  *Info = reinterpret_cast<const AbInfo *>(StoreInCache(kHandleAbInfoCache, Scratch, sizeof(AbInfo)));
  return TRUE;
}
