#include "RegionNames.h"

#include "../../src/verify/UpdateRegionTable.h"

namespace {

struct FlashPart {
  UINT32 Address, Size;
  const char *Name;
};

using namespace EmuFlashLayout;
constexpr FlashPart kLayoutParts[] = {
    {kEcFirmwareAddress, kEcFirmwareSize, "EC firmware"},
    {kEfsAddress, kEfsSize, "EFS"},
    {kCmosJournalAddress, kCmosJournalSize, "CMOS journal"},
    {0xFF0EA000, 0x1000, "flash map"},
    {kVariableStoreAddress, kVariableStoreSize, "NVRAM"},
    {kVariableBackupAddress, kVariableBackupSize, "NVRAM backup"},
    {kObbFvAddress, kObbFvSize, "OBB"},
    {kIbb4Address, kIbb4Size, "IBB4"},
    {kRecoveryBase, kIbb1Size, "IBB1R"},
    {kRecoveryBase + kIbb1Size, kIbb4Size, "IBB4R"},
    {kRecoveryBase + kIbb1Size + kIbb4Size, kIbb2Size, "IBB2R"},
    {kDxeFvAddress, kDxeFvSize, "DXE"},
    {kIbb1Address, kIbb1Size, "IBB1 boot block"},
    {kIbb2Address, kIbb2Size, "IBB2"},
    {kPspL1DirectoryAddress, kMappedBase + kMappedSize - kPspL1DirectoryAddress, "PSP directories"},
};

// Reads a decimal number at Text[Index], moving Index past it.
bool ReadNumber(const CHAR8 *Text, UINTN Length, UINTN &Index, UINT32 &Value) {
  const UINTN Start = Index;
  Value = 0;
  while (Index < Length && Text[Index] >= '0' && Text[Index] <= '9' && Value < 100000000) {
    Value = Value * 10 + static_cast<UINT32>(Text[Index++] - '0');
  }
  return Index > Start;
}

// Position just after Marker in Text, or Length when it is not there.
UINTN After(const CHAR8 *Text, UINTN Length, const char *Marker) {
  UINTN MarkerLength = 0;
  while (Marker[MarkerLength] != 0) {
    MarkerLength++;
  }
  for (UINTN Index = 0; Index + MarkerLength <= Length; Index++) {
    UINTN Same = 0;
    while (Same < MarkerLength && Text[Index + Same] == Marker[Same]) {
      Same++;
    }
    if (Same == MarkerLength) {
      return Index + MarkerLength;
    }
  }
  return Length;
}

}  // namespace

void RegionNames::ReadProgressRanges(const EmuUpdateLog &Log) {
  Count_ = 0;
  for (UINTN Index = 0; Index < Log.Count && Count_ < kMaxRanges; Index++) {
    const EmuUpdateLogRecord &Record = Log.Records[Index];
    if (Record.Type != kUpdateLogRecordProgressRange) {
      continue;
    }
    const auto *Text = reinterpret_cast<const CHAR8 *>(Record.Data);
    const UINTN Length = Record.Length < EmuUpdateLogRecord::kDataCapacity ? Record.Length : 0;
    Range &Into = Ranges_[Count_];
    UINTN Name = 0;
    while (Name < Length && Name + 1 < kMaxName && Text[Name] != ':') {
      Into.Name[Name] = Text[Name];
      Name++;
    }
    Into.Name[Name] = 0;
    UINTN Cursor = After(Text, Length, "/Block(");
    if (Name != 0 && ReadNumber(Text, Length, Cursor, Into.FirstBlock) && Cursor < Length && Text[Cursor++] == '-' &&
        ReadNumber(Text, Length, Cursor, Into.LastBlock)) {
      Count_++;
    }
  }
}

const char *RegionNames::ForBlock(UINT32 Block, UINT64 ImageOffset) const {
  const UINT32 Logged = Block + 1;
  for (UINTN Index = 0; Index < Count_; Index++) {
    const Range &Each = Ranges_[Index];
    const bool Last = Index + 1 == Count_;
    if (Logged >= Each.FirstBlock && (Logged < Each.LastBlock || (Last && Logged <= Each.LastBlock))) {
      return reinterpret_cast<const char *>(Each.Name);
    }
  }
  return LayoutPart(ImageOffset);
}

const char *RegionNames::LayoutPart(UINT64 ImageOffset) {
  const UINT64 Address = kMappedBase + ImageOffset;
  for (const FlashPart &Part : kLayoutParts) {
    if (Address >= Part.Address && Address - Part.Address < Part.Size) {
      return Part.Name;
    }
  }
  return "-";
}
