// Entry lookups across the directory levels: level-2 directories reached through A/B
// pointer entries, a level-1 A/B pair, entry 0x40 of "$PSP" or entry 0x70 of "$BHD".
// The levels are fixed: a lookup follows at most level 1 -> level 2 -> "$BL2", and every
// level checks its own cookie, so a tree that points back at itself ends in FALSE.
#include "../base/ByteView.h"
#include "PspDirectory.h"
#include "Smn.h"
#include "Soc.h"

using namespace PspDirectoryDetail;

namespace {

constexpr UINT32 kBiosInstanceShift = 20;
constexpr UINT32 kBiosSubProgramShift = 24;
constexpr UINT32 kPspSelectorBits = 0x780000;  // bits 22:19
constexpr UINT32 kPspBiosLevel2Type16 = 0x14F;

struct PspEntryFields {
  UINT32 TypeWord;
  UINT32 Size;
  UINT64 Location;
};

struct BiosEntryFields {
  UINT32 TypeWord;
  UINT32 Size;
  UINT64 Source;
  UINT64 Destination;
};

UINT32 DirectoryCount(const UINT8 *Directory) {
  UINT32 Count = 0;
  ByteView(Directory, kDirectoryBufferSize).Read32(offsetof(DirectoryHeader, Count), Count);
  return Count;
}

bool ReadPspEntry(const UINT8 *Directory, UINT32 Index, PspEntryFields &Entry) {
  ByteView View(Directory, kDirectoryBufferSize);
  UINTN At = sizeof(DirectoryHeader) + static_cast<UINTN>(Index) * sizeof(PspDirectoryEntry);
  return View.Read32(At + offsetof(PspDirectoryEntry, TypeWord), Entry.TypeWord) &&
         View.Read32(At + offsetof(PspDirectoryEntry, Size), Entry.Size) &&
         View.Read64(At + offsetof(PspDirectoryEntry, Location), Entry.Location);
}

bool ReadBiosEntry(const UINT8 *Directory, UINT32 Index, BiosEntryFields &Entry) {
  ByteView View(Directory, kDirectoryBufferSize);
  UINTN At = sizeof(DirectoryHeader) + static_cast<UINTN>(Index) * sizeof(BiosDirectoryEntry);
  return View.Read32(At + offsetof(BiosDirectoryEntry, TypeWord), Entry.TypeWord) &&
         View.Read32(At + offsetof(BiosDirectoryEntry, Size), Entry.Size) &&
         View.Read64(At + offsetof(BiosDirectoryEntry, Source), Entry.Source) &&
         View.Read64(At + offsetof(BiosDirectoryEntry, Destination), Entry.Destination);
}

// PSP entries match on the 16-bit type, or on type, sub-program and the selector bits.
bool PspTypeWordMatches(UINT32 EntryWord, UINT32 Wanted, bool SixteenBit) {
  if (SixteenBit) {
    return (EntryWord & 0xFFFF) == (Wanted & 0xFFFF);
  }
  return (EntryWord & 0xFF) == (Wanted & 0xFF) && ((EntryWord >> 8) & 0xFF) == ((Wanted >> 8) & 0xFF) &&
         ((EntryWord ^ Wanted) & kPspSelectorBits) == 0;
}

// The first entry of a PSP directory that matches Wanted.
bool FindPspEntry(const UINT8 *Directory, UINT32 Wanted, PspEntryFields &Found) {
  bool SixteenBit = SocUsesSixteenBitEntryTypes();
  UINT32 Count = DirectoryCount(Directory);
  for (UINT32 Index = 0; Index < Count; Index++) {
    PspEntryFields Entry;
    if (!ReadPspEntry(Directory, Index, Entry)) {
      return false;
    }
    if (PspTypeWordMatches(Entry.TypeWord, Wanted, SixteenBit)) {
      Found = Entry;
      return true;
    }
  }
  return false;
}

bool BiosTypeWordMatches(UINT32 TypeWord, UINT8 Type, INT8 Instance, INT8 SubProgram) {
  if ((TypeWord & 0xFF) != Type) {
    return false;
  }
  bool SubProgramMatches = SubProgram == -1 || static_cast<UINT32>(SubProgram) == ((TypeWord >> kBiosSubProgramShift) & 7);
  if (Instance == -1) {
    return SubProgramMatches;
  }
  return static_cast<UINT32>(Instance) == ((TypeWord >> kBiosInstanceShift) & 0xF) && SubProgramMatches;
}

UINT32 BiosLevel2PointerType() { return SocUsesSixteenBitEntryTypes() ? kPspBiosLevel2Type16 : kPspBiosLevel2Type; }

// The level-2 location an A/B summary selects: B when the PSP booted from recovery.
UINT64 SelectedAbLevel2(const AbInfo &Info) {
  return PspRecoveryFlag() ? Info.Secondary.Level2Location : Info.Primary.Level2Location;
}

void SetOutputs(const BiosEntryFields &Entry, UINT64 ResolvedSource, UINT32 *TypeWord, UINT64 *Source, UINT32 *Size,
                UINT64 *Destination) {
  *TypeWord = Entry.TypeWord;
  *Source = ResolvedSource;
  *Size = Entry.Size;
  *Destination = Entry.Destination;
}

}  // namespace

BOOLEAN GetPspL2Entry(UINT32 TypeWord, UINT64 Level2Location, UINT64 *Location, UINT32 *Size) {
  const UINT8 *Directory = CacheBuffer(kHandlePspLevel2Cache, kDirectoryBufferSize);
  if (Directory == nullptr || !ValidatePspDirectory(Directory, kPspLevel2Cookie, FALSE)) {
    UINT8 *Scratch = ScratchBuffer(kHandleLevel2Scratch, kDirectoryBufferSize);
    if (Scratch == nullptr) {
      return FALSE;
    }
    ReadDirectory(Level2Location, Scratch);
    if (!ValidatePspDirectory(Scratch, kPspLevel2Cookie, FALSE)) {
      return FALSE;
    }
    Directory = StoreInCache(kHandlePspLevel2Cache, Scratch, kDirectoryBufferSize);
  }
  PspEntryFields Entry;
  if (!FindPspEntry(Directory, TypeWord, Entry)) {
    return FALSE;
  }
  *Location = TranslateEntryAddress(Entry.Location, Level2Location, Level2Location);
  *Size = Entry.Size;
  return TRUE;
}

BOOLEAN GetPspEntry(UINT32 TypeWord, UINT64 *Location, UINT32 *Size) {
  const UINT8 *Directory = nullptr;
  if (!GetPspDirectory(&Directory)) {
    return FALSE;
  }
  bool TryLevel2Directory = true;  // step through entry 0x40 unless an A/B pair settled it
  if (IsAbPointerDirectory(Directory)) {
    const AbInfo *Info = nullptr;
    if (BuildAbInfo(Directory, &Info)) {
      UINT64 Level2 = SelectedAbLevel2(*Info);
      if (Level2 != 0 && GetPspL2Entry(TypeWord, Level2, Location, Size)) {
        return TRUE;
      }
      TryLevel2Directory = false;
    }
  } else {
    UINT64 ACopy = 0, BCopy = 0;
    if (FindAbPair(Directory, &ACopy, &BCopy)) {
      if (GetPspL2Entry(TypeWord, PspRecoveryFlag() ? BCopy : ACopy, Location, Size)) {
        return TRUE;
      }
      TryLevel2Directory = false;
    }
  }

  if (TryLevel2Directory && TypeWord != kPspLevel2DirectoryType) {
    UINT64 Level2 = 0;
    UINT32 Level2Size = 0;
    if (GetPspEntry(kPspLevel2DirectoryType, &Level2, &Level2Size) && Level2 != 0 &&
        GetPspL2Entry(TypeWord, Level2, Location, Size)) {
      return TRUE;
    }
  }

  PspEntryFields Entry;
  if (!FindPspEntry(Directory, TypeWord, Entry)) {
    return FALSE;
  }
  *Location = ForceMapped(Entry.Location);
  *Size = Entry.Size;
  return TRUE;
}

BOOLEAN GetBiosL2Directory(UINT64 Location, const UINT8 **Directory) {
  const UINT8 *Cached = CacheBuffer(kHandleBiosLevel2Cache, kDirectoryBufferSize);
  if (Cached != nullptr && ValidateBiosDirectory(Cached, kBiosLevel2Cookie)) {
    *Directory = Cached;
    return TRUE;
  }
  UINT8 *Scratch = ScratchBuffer(kHandleLevel2Scratch, kDirectoryBufferSize);
  if (Scratch == nullptr) {
    return FALSE;
  }
  ReadDirectory(Location, Scratch);
  if (!ValidateBiosDirectory(Scratch, kBiosLevel2Cookie)) {
    return FALSE;
  }
  *Directory = StoreInCache(kHandleBiosLevel2Cache, Scratch, kDirectoryBufferSize);
  return TRUE;
}

BOOLEAN GetBiosL2Entry(UINT8 Type, INT8 Instance, INT8 SubProgram, BOOLEAN Level2Given, UINT64 Location,
                       UINT32 *TypeWord, UINT64 *Source, UINT32 *Size, UINT64 *Destination) {
  UINT64 BiosLevel2 = Location;
  UINT64 SlotBase = 0;
  if (!Level2Given) {
    UINT32 PointerSize = 0;
    if (!GetPspL2Entry(BiosLevel2PointerType(), Location, &BiosLevel2, &PointerSize)) {
      return FALSE;
    }
    SlotBase = Location;
  }
  const UINT8 *Directory = nullptr;
  if (!GetBiosL2Directory(BiosLevel2, &Directory)) {
    return FALSE;
  }
  UINT32 Count = DirectoryCount(Directory);
  for (UINT32 Index = 0; Index < Count; Index++) {
    BiosEntryFields Entry;
    if (!ReadBiosEntry(Directory, Index, Entry)) {
      return FALSE;
    }
    if (BiosTypeWordMatches(Entry.TypeWord, Type, Instance, SubProgram)) {
      SetOutputs(Entry, TranslateEntryAddress(Entry.Source, BiosLevel2, SlotBase), TypeWord, Source, Size,
                 Destination);
      return TRUE;
    }
  }
  return FALSE;
}

BOOLEAN GetBiosEntry(UINT8 Type, INT8 Instance, INT8 SubProgram, UINT32 *TypeWord, UINT64 *Source, UINT32 *Size,
                     UINT64 *Destination) {
  (void)SubProgram;
  const UINT8 *Psp = nullptr;
  if (!GetPspDirectory(&Psp)) {
    return FALSE;
  }
  // Trees with A and B copies keep the BIOS entries in the "$BL2" of the selected copy.
  if (IsAbPointerDirectory(Psp)) {
    const AbInfo *Info = nullptr;
    if (BuildAbInfo(Psp, &Info)) {
      UINT64 Level2 = SelectedAbLevel2(*Info);
      if (Level2 == 0) {
        return FALSE;
      }
      return GetBiosL2Entry(Type, Instance, -1, FALSE, Level2, TypeWord, Source, Size, Destination);
    }
  } else {
    UINT64 ACopy = 0, BCopy = 0;
    if (FindAbPair(Psp, &ACopy, &BCopy)) {
      UINT64 BiosLevel2 = 0;
      UINT32 PointerSize = 0;
      if (!GetPspEntry(BiosLevel2PointerType(), &BiosLevel2, &PointerSize) || BiosLevel2 == 0) {
        return FALSE;
      }
      return GetBiosL2Entry(Type, Instance, -1, TRUE, BiosLevel2, TypeWord, Source, Size, Destination);
    }
  }

  const UINT8 *Bios = nullptr;
  if (!GetBiosDirectory(&Bios)) {
    return FALSE;
  }
  if (Type != kBiosLevel2DirectoryType) {
    UINT32 PointerWord = 0, PointerSize = 0;
    UINT64 BiosLevel2 = 0, PointerDestination = 0;
    if (GetBiosEntry(kBiosLevel2DirectoryType, -1, -1, &PointerWord, &BiosLevel2, &PointerSize,
                     &PointerDestination) &&
        BiosLevel2 != 0 &&
        GetBiosL2Entry(Type, Instance, -1, TRUE, BiosLevel2, TypeWord, Source, Size, Destination)) {
      return TRUE;
    }
    // The nested lookups reuse the level-1 scratch buffer: take "$BHD" again.
    if (!GetBiosDirectory(&Bios)) {
      return FALSE;
    }
  }
  UINT32 Count = DirectoryCount(Bios);
  for (UINT32 Index = 0; Index < Count; Index++) {
    BiosEntryFields Entry;
    if (!ReadBiosEntry(Bios, Index, Entry)) {
      return FALSE;
    }
    if ((Entry.TypeWord & 0xFF) == Type &&
        (Instance == -1 || static_cast<UINT32>(Instance) == ((Entry.TypeWord >> kBiosInstanceShift) & 0xF))) {
      SetOutputs(Entry, ForceMapped(Entry.Source), TypeWord, Source, Size, Destination);
      return TRUE;
    }
  }
  return FALSE;
}
