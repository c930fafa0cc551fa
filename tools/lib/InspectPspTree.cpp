// The PSP and BIOS directory trees as the driver's directory code sees them on the
// platform's SoC: level 1 through the EFS search, the A/B copies through the A/B summary
// (or a level-1 pair, or entry 0x40), each copy's "$PL2" and the "$BL2" it leads to, and
// "$BHD" with its "$BL2". Every directory is read into a directory buffer and validated by
// the driver before its entries are listed; addresses are translated as the lookups do.
#include <cstring>

#include "../../src/base/ByteView.h"
#include "../../src/driver/Config.h"
#include "../../src/psp/PspDirectory.h"
#include "../../src/psp/RomAccess.h"
#include "InspectStructures.h"

namespace {

std::string CookieText(UINT32 Cookie) {
  std::string Text;
  for (int Shift = 0; Shift < 32; Shift += 8) {
    const char Byte = static_cast<char>((Cookie >> Shift) & 0xFF);
    Text += Byte >= 0x20 && Byte < 0x7F ? Byte : '.';
  }
  return Text;
}

using Buffer = std::vector<UINT8>;

// The entries of a validated directory; Resolve(location) gives where the lookups go.
template <typename Resolver>
void ListEntries(const UINT8 *Directory, bool Bios, Resolver Resolve, DirectoryInfo &Info) {
  const ByteView View(Directory, kDirectoryBufferSize);
  UINT32 Count = 0;
  View.Read32(offsetof(DirectoryHeader, Count), Count);
  const UINTN Stride = Bios ? sizeof(BiosDirectoryEntry) : sizeof(PspDirectoryEntry);
  for (UINT32 Index = 0; Index < Count; Index++) {
    const UINTN At = sizeof(DirectoryHeader) + Index * Stride;
    DirectoryEntryInfo Entry;
    if (!View.Read32(At, Entry.TypeWord) || !View.Read32(At + 4, Entry.Size) || !View.Read64(At + 8, Entry.Location) ||
        (Bios && !View.Read64(At + offsetof(BiosDirectoryEntry, Destination), Entry.Destination))) {
      break;
    }
    Entry.Resolved = Resolve(Entry.Location);
    Info.Entries.push_back(Entry);
  }
}

// Reads and validates the directory at Location; a failure is a finding.
bool ReadValidated(UINT64 Location, UINT32 Cookie, bool Bios, Buffer &Bytes, DirectoryInfo &Info,
                   std::vector<std::string> &Findings) {
  Bytes.assign(kDirectoryBufferSize, 0);
  Info.Cookie = CookieText(Cookie);
  Info.Address = Location;
  const bool Read = ReadDirectory(Location, Bytes.data());
  Info.Valid = Read && (Bios ? ValidateBiosDirectory(Bytes.data(), Cookie)
                             : ValidatePspDirectory(Bytes.data(), Cookie, FALSE));
  if (Info.Valid) {
    Info.Status = "valid";
    return true;
  }
  UINT32 Found = 0;
  std::memcpy(&Found, Bytes.data(), sizeof(Found));
  Info.Status = !Read            ? "cannot be read (outside the flash windows)"
                : Found != Cookie ? "no \"" + Info.Cookie + "\" there (found \"" + CookieText(Found) + "\")"
                                  : "fails validation: checksum or entry count wrong";
  Findings.push_back("\"" + Info.Cookie + "\" directory" + (Info.Copy.empty() ? "" : " of copy " + Info.Copy) +
                     " at " + HexText(Location) + ": " + Info.Status);
  return false;
}

// A "$PL2" and the "$BL2" its entry 0x49 names (entry sources relative to the copy's slot).
void AddLevel2Copy(UINT64 Location, const std::string &Copy, PspTreeInfo &Tree, std::vector<std::string> &Findings) {
  Buffer Bytes;
  DirectoryInfo Psp2;
  Psp2.Level = 2;
  Psp2.Copy = Copy;
  const bool Valid = ReadValidated(Location, kPspLevel2Cookie, false, Bytes, Psp2, Findings);
  if (Valid) {
    ListEntries(Bytes.data(), false, [&](UINT64 At) { return TranslateEntryAddress(At, Location, Location); }, Psp2);
  }
  Tree.Directories.push_back(Psp2);
  if (!Valid) {
    return;
  }
  for (const DirectoryEntryInfo &Entry : Psp2.Entries) {
    if (!EntryTypeMatches(Entry.TypeWord, kPspBiosLevel2Type)) {
      continue;
    }
    DirectoryInfo Bios2;
    Bios2.Level = 2;
    Bios2.Copy = Copy;
    if (ReadValidated(Entry.Resolved, kBiosLevel2Cookie, true, Bytes, Bios2, Findings)) {
      const UINT64 BiosLevel2 = Entry.Resolved;
      ListEntries(Bytes.data(), true, [&](UINT64 At) { return TranslateEntryAddress(At, BiosLevel2, Location); },
                  Bios2);
    }
    Tree.Directories.push_back(Bios2);
    return;
  }
}

// Where the level-1 directory the driver found sits: the EFS's directory or its alternate.
UINT64 Level1Location(const UINT8 *Level1) {
  EmbeddedFirmwareStructure Efs;
  if (!ReadRom(gConfig.EfsAddress, &Efs, sizeof(Efs))) {
    return 0;
  }
  Buffer Bytes(kDirectoryBufferSize);
  for (UINT32 Candidate : {Efs.PspDirectory, Efs.AlternatePspDirectory}) {
    if (ReadDirectory(Candidate, Bytes.data()) && std::memcmp(Bytes.data(), Level1, kDirectoryBufferSize) == 0) {
      return Candidate;
    }
  }
  return 0;  // reached through a combo directory
}

DirectoryInfo Level1Info(const char *Cookie, UINT64 Address, const UINT8 *Directory, bool Bios) {
  DirectoryInfo Info;
  Info.Cookie = Cookie;
  Info.Address = Address;
  Info.Valid = true;
  Info.Status = "valid";
  ListEntries(Directory, Bios, [](UINT64 At) { return PspDirectoryDetail::ForceMapped(At); }, Info);
  return Info;
}

}  // namespace

PspTreeInfo InspectPspTree(std::vector<std::string> &Findings) {
  PspTreeInfo Tree;
  const UINT8 *Level1 = nullptr;
  if (!GetPspDirectory(&Level1)) {
    Tree.Status = "no PSP directory found: no EFS, or its \"$PSP\" fails validation";
    Findings.push_back(Tree.Status);
    return Tree;
  }
  Tree.Found = true;
  // The lookups below reuse the driver's level-1 buffer: keep a copy.
  const Buffer Psp(Level1, Level1 + kDirectoryBufferSize);
  Tree.Directories.push_back(Level1Info("$PSP", Level1Location(Psp.data()), Psp.data(), false));
  const std::vector<DirectoryEntryInfo> Entries = Tree.Directories.front().Entries;  // the list grows below

  if (IsAbPointerDirectory(Psp.data())) {
    const AbInfo *Info = nullptr;
    if (!BuildAbInfo(Psp.data(), &Info)) {
      Findings.push_back("\"$PSP\" holds only A/B pointers, but no A/B header is usable");
    } else {
      const AbInfo Summary = *Info;
      auto CopyName = [&](UINT8 Index) {
        return Index < Entries.size() && EntryTypeMatches(Entries[Index].TypeWord, kPspAbPointerB) ? "B" : "A";
      };
      if (Summary.PrimaryIndex != kAbNoEntry) {
        AddLevel2Copy(Summary.Primary.Level2Location, CopyName(Summary.PrimaryIndex), Tree, Findings);
      }
      if (Summary.SecondaryIndex != kAbNoEntry) {
        AddLevel2Copy(Summary.Secondary.Level2Location, CopyName(Summary.SecondaryIndex), Tree, Findings);
      }
    }
  } else {
    UINT64 ACopy = 0, BCopy = 0;
    if (PspDirectoryDetail::FindAbPair(Psp.data(), &ACopy, &BCopy)) {
      AddLevel2Copy(ACopy, "A", Tree, Findings);
      AddLevel2Copy(BCopy, "B", Tree, Findings);
    } else {
      for (const DirectoryEntryInfo &Entry : Entries) {
        if ((Entry.TypeWord & 0xFF) == kPspLevel2DirectoryType) {
          AddLevel2Copy(Entry.Resolved, "", Tree, Findings);
          break;
        }
      }
    }
  }

  // "$BHD": trees whose BIOS entries all live in the copies' "$BL2" need none.
  const UINT8 *Bios = nullptr;
  if (GetBiosDirectory(&Bios)) {
    Tree.Directories.push_back(Level1Info("$BHD", 0, Bios, true));
    for (const DirectoryEntryInfo &Entry : std::vector<DirectoryEntryInfo>(Tree.Directories.back().Entries)) {
      if ((Entry.TypeWord & 0xFF) != kBiosLevel2DirectoryType) {
        continue;
      }
      Buffer Bytes;
      DirectoryInfo Bios2;
      Bios2.Level = 2;
      if (ReadValidated(Entry.Resolved, kBiosLevel2Cookie, true, Bytes, Bios2, Findings)) {
        const UINT64 BiosLevel2 = Entry.Resolved;
        ListEntries(Bytes.data(), true, [&](UINT64 At) { return TranslateEntryAddress(At, BiosLevel2, 0); }, Bios2);
      }
      Tree.Directories.push_back(Bios2);
      break;
    }
  }
  size_t EntryCount = 0;
  for (const DirectoryInfo &Directory : Tree.Directories) {
    EntryCount += Directory.Entries.size();
  }
  Tree.Status = std::to_string(Tree.Directories.size()) + " directories, " + std::to_string(EntryCount) + " entries";
  if (Bios == nullptr && Tree.Directories.size() == 1) {
    Tree.Status += "; no BIOS directory (neither \"$BHD\" nor a \"$BL2\" below \"$PSP\")";
  }
  return Tree;
}
