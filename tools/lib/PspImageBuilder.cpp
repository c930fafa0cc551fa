#include "PspImageBuilder.h"

#include <algorithm>
#include <stdexcept>

#include "../../emu/EmuPlatform.h"

namespace PspImage {
namespace {

void Put32(std::vector<uint8_t> &Bytes, size_t At, uint32_t Value) {
  for (int Index = 0; Index < 4; Index++) {
    Bytes.at(At + Index) = static_cast<uint8_t>(Value >> (8 * Index));
  }
}

void Put64(std::vector<uint8_t> &Bytes, size_t At, uint64_t Value) {
  Put32(Bytes, At, static_cast<uint32_t>(Value));
  Put32(Bytes, At + 4, static_cast<uint32_t>(Value >> 32));
}

void PutCookie(std::vector<uint8_t> &Bytes, const std::string &Cookie) {
  if (Cookie.size() != 4) {
    throw std::invalid_argument("a directory cookie has four characters");
  }
  std::copy(Cookie.begin(), Cookie.end(), Bytes.begin());
}

// Header, then entries; the checksum covers everything from the count on.
std::vector<uint8_t> Directory(const std::string &Cookie, size_t Count, const std::vector<uint8_t> &Entries) {
  std::vector<uint8_t> Bytes(16 + Entries.size(), 0);
  PutCookie(Bytes, Cookie);
  Put32(Bytes, 8, static_cast<uint32_t>(Count));
  std::copy(Entries.begin(), Entries.end(), Bytes.begin() + 16);
  Put32(Bytes, 4, Fletcher32(std::span<const uint8_t>(Bytes).subspan(8)));
  return Bytes;
}

// Recognisable contents for an item (never erased-looking).
std::vector<uint8_t> ItemBytes(uint32_t Size, uint32_t Seed) {
  std::vector<uint8_t> Bytes(Size);
  uint32_t State = Seed * 2654435761u + 1;
  for (auto &Byte : Bytes) {
    State = State * 1103515245u + 12345u;
    Byte = static_cast<uint8_t>((State >> 16) & 0x7F);
  }
  return Bytes;
}

uint32_t RoundUpToBlock(uint32_t Size) { return std::max<uint32_t>(0x1000, (Size + 0xFFF) & ~0xFFFu); }

}  // namespace

uint64_t WithMode(AddressMode Mode, uint64_t Value) {
  return (static_cast<uint64_t>(Mode) << 62) | (Value & ~(3ull << 62));
}

uint32_t BiosTypeWord(uint8_t Type, uint8_t Instance, uint8_t SubProgram) {
  return Type | (static_cast<uint32_t>(Instance & 0xF) << 20) | (static_cast<uint32_t>(SubProgram & 7) << 24);
}

uint32_t Fletcher32(std::span<const uint8_t> Bytes) {
  // Sums kept exactly and reduced modulo 65535 into 1..0xFFFF, the representation that
  // sums starting at 0xFFFF and folded as they grow end with.
  uint64_t Sum1 = 0xFFFF, Sum2 = 0xFFFF;
  for (size_t At = 0; At + 1 < Bytes.size(); At += 2) {
    Sum1 += static_cast<uint64_t>(Bytes[At]) | static_cast<uint64_t>(Bytes[At + 1]) << 8;
    Sum2 += Sum1;
  }
  auto Reduce = [](uint64_t Sum) { return static_cast<uint32_t>((Sum - 1) % 0xFFFF + 1); };
  return Reduce(Sum2) << 16 | Reduce(Sum1);
}

std::vector<uint8_t> PspDirectory(const std::string &Cookie, const std::vector<PspEntry> &Entries) {
  std::vector<uint8_t> Packed(Entries.size() * 16);
  for (size_t Index = 0; Index < Entries.size(); Index++) {
    Put32(Packed, Index * 16, Entries[Index].TypeWord);
    Put32(Packed, Index * 16 + 4, Entries[Index].Size);
    Put64(Packed, Index * 16 + 8, Entries[Index].Location);
  }
  return Directory(Cookie, Entries.size(), Packed);
}

std::vector<uint8_t> BiosDirectory(const std::string &Cookie, const std::vector<BiosEntry> &Entries) {
  std::vector<uint8_t> Packed(Entries.size() * 24);
  for (size_t Index = 0; Index < Entries.size(); Index++) {
    Put32(Packed, Index * 24, Entries[Index].TypeWord);
    Put32(Packed, Index * 24 + 4, Entries[Index].Size);
    Put64(Packed, Index * 24 + 8, Entries[Index].Source);
    Put64(Packed, Index * 24 + 16, Entries[Index].Destination);
  }
  return Directory(Cookie, Entries.size(), Packed);
}

std::vector<uint8_t> ComboDirectory(const std::string &Cookie, const std::vector<ComboEntry> &Entries) {
  std::vector<uint8_t> Bytes(32 + Entries.size() * 16, 0);
  PutCookie(Bytes, Cookie);
  Put32(Bytes, 8, static_cast<uint32_t>(Entries.size()));
  for (size_t Index = 0; Index < Entries.size(); Index++) {
    Put32(Bytes, 32 + Index * 16 + 4, Entries[Index].PspId);
    Put64(Bytes, 32 + Index * 16 + 8, Entries[Index].Location);
  }
  Put32(Bytes, 4, Fletcher32(std::span<const uint8_t>(Bytes).subspan(8)));
  return Bytes;
}

std::vector<uint8_t> AbHeaderKind1(uint32_t Priority, uint32_t Level2Location) {
  std::vector<uint8_t> Bytes(16, 0);
  Put32(Bytes, 0, Priority);
  Put32(Bytes, 12, Level2Location);
  return Bytes;
}

std::vector<uint8_t> AbHeaderKind2(uint32_t Priority, uint32_t Level2Location, uint32_t PspId) {
  std::vector<uint8_t> Bytes(32, 0);
  Put32(Bytes, 4, Priority);
  Put32(Bytes, 16, Level2Location);
  Put32(Bytes, 20, PspId);
  return Bytes;
}

std::vector<uint8_t> Efs(const EfsFields &Fields) {
  std::vector<uint8_t> Bytes(0x1000, 0xFF);
  Put32(Bytes, 0, 0x55AA55AA);
  Put32(Bytes, 0x14, Fields.PspDirectory);
  if (Fields.BiosPointerOffset != 0) {
    Put32(Bytes, Fields.BiosPointerOffset, Fields.BiosDirectory);
  }
  Bytes[0x24] = Fields.Generation;
  if (Fields.ComboBiosDirectory != 0) {
    Put32(Bytes, 0x28, Fields.ComboBiosDirectory);
  }
  if (Fields.AlternatePspDirectory != 0) {
    Put32(Bytes, 0x2C, Fields.AlternatePspDirectory);
  }
  return Bytes;
}

PspImageBuilder &PspImageBuilder::Put(uint32_t Offset, std::span<const uint8_t> Bytes) {
  Pieces_.push_back({Offset, std::vector<uint8_t>(Bytes.begin(), Bytes.end())});
  return *this;
}

void PspImageBuilder::PlaceInto(EmuPlatform &Platform) const {
  for (const Piece &Item : Pieces_) {
    if (Item.Offset > Platform.Flash.Size() || Item.Bytes.size() > Platform.Flash.Size() - Item.Offset) {
      throw std::out_of_range("PSP tree piece outside the flash chip");
    }
    Platform.Flash.Load(Item.Offset, Item.Bytes.data(), static_cast<UINT32>(Item.Bytes.size()));
  }
}

void PspImageBuilder::ApplyTo(std::span<uint8_t> Image, size_t ImageOffsetOfFlashStart) const {
  for (const Piece &Item : Pieces_) {
    size_t At = ImageOffsetOfFlashStart + Item.Offset;
    if (At > Image.size() || Item.Bytes.size() > Image.size() - At) {
      throw std::out_of_range("PSP tree piece outside the image");
    }
    std::copy(Item.Bytes.begin(), Item.Bytes.end(), Image.begin() + static_cast<ptrdiff_t>(At));
  }
}

const PlacedBiosEntry *PspTree::Find(uint8_t Type, bool FromCopyB) const {
  const auto &Entries = FromCopyB ? CopyB : CopyA;
  for (const PlacedBiosEntry &Entry : Entries) {
    if ((Entry.TypeWord & 0xFF) == Type) {
      return &Entry;
    }
  }
  return nullptr;
}

// ---- Whole trees ------------------------------------------------------------------------

namespace {

// Where each part of a tree goes, relative to the tree offset.
struct TreeLayout {
  uint32_t Level1, BiosLevel1, Headers, PspLevel2A, PspLevel2B, BiosLevel2A, BiosLevel2B;
  uint32_t DecoyPsp, OwnPsp, DecoyBios, OwnBios, PspBlobs, DataA, DataB, StaleData;
  explicit TreeLayout(uint32_t Base)
      : Level1(Base), BiosLevel1(Base + 0x2000), Headers(Base + 0x3000), PspLevel2A(Base + 0x4000),
        PspLevel2B(Base + 0x5000), BiosLevel2A(Base + 0x6000), BiosLevel2B(Base + 0x7000), DecoyPsp(Base + 0x8000),
        OwnPsp(Base + 0x9000), DecoyBios(Base + 0xA000), OwnBios(Base + 0xB000), PspBlobs(Base + 0xC000),
        DataA(Base + 0x10000), DataB(Base + 0x20000), StaleData(Base + 0x30000) {}
};

class TreeWriter {
public:
  TreeWriter(const PspTreeOptions &Options, PspTree &Tree)
      : Options_(Options), Tree_(Tree), B_(Tree.Builder), At_(Options.TreeOffset) {}

  uint32_t Loc32(uint32_t Offset) const { return static_cast<uint32_t>(B_.Location(Offset)); }

  void Put(uint32_t Offset, const std::vector<uint8_t> &Bytes) { B_.Put(Offset, Bytes); }

  // Ordinary PSP entries (firmware blobs) so that directories are not made of pointers only.
  // Each seed (below 16) has its own four 256-byte slots.
  std::vector<PspEntry> Blobs(uint32_t FirstType, uint32_t Count, uint32_t Seed) {
    std::vector<PspEntry> Entries;
    for (uint32_t Index = 0; Index < Count; Index++) {
      uint32_t Offset = At_.PspBlobs + (Seed * 4 + Index) * 0x100;
      Put(Offset, ItemBytes(0x100, Seed * 16 + Index));
      Entries.push_back({FirstType + Index, 0x100, B_.Location(Offset)});
    }
    return Entries;
  }

  // The items' data at DataBase and the BIOS entries describing them, in the chosen mode.
  // Level-1 entries are reported as stored; level-2 entries as the driver resolves them.
  std::vector<BiosEntry> Items(uint32_t DataBase, uint64_t DirectoryLocation, uint64_t SlotBase, bool Level2,
                               std::vector<PlacedBiosEntry> *Report, uint32_t Seed) {
    std::vector<BiosEntry> Entries;
    uint32_t Offset = DataBase;
    for (const BiosItem &Item : Options_.Items) {
      Put(Offset, ItemBytes(Item.Size, Seed + Item.Type));
      uint64_t Target = B_.Location(Offset);
      uint64_t Raw = 0, Resolved = Target;
      switch (Options_.SourceMode) {
      case AddressMode::Physical:
        Raw = Target;
        break;
      case AddressMode::FlashOffset:
        Raw = WithMode(AddressMode::FlashOffset, Offset);
        Resolved = Offset;
        break;
      case AddressMode::DirectoryRelative:
        Raw = WithMode(AddressMode::DirectoryRelative, Target - DirectoryLocation);
        break;
      case AddressMode::SlotRelative:
        Raw = WithMode(AddressMode::SlotRelative, Target - SlotBase);
        break;
      }
      uint32_t TypeWord = BiosTypeWord(Item.Type, Item.Instance);
      Entries.push_back({TypeWord, Item.Size, Raw, Item.Destination});
      if (Report != nullptr) {
        Report->push_back({TypeWord, Item.Size, Level2 ? Resolved : Raw, Item.Destination, Offset});
      }
      Offset += RoundUpToBlock(Item.Size);
    }
    return Entries;
  }

  uint32_t TypeA() const { return Options_.SixteenBitTypes ? kTypeCopyA16 : kTypeCopyA; }
  uint32_t TypeB() const { return Options_.SixteenBitTypes ? kTypeCopyB16 : kTypeCopyB; }
  uint32_t TypeBiosFromPsp() const { return Options_.SixteenBitTypes ? kTypeBiosFromPsp16 : kTypeBiosFromPsp; }

  // "$PL2" with a blob and the entry leading to "$BL2", and that "$BL2" with the items. The
  // "$BL2" entry is written in the items' mode; both relative modes count from the "$PL2".
  void Copy(uint32_t PspLevel2, uint32_t BiosLevel2, uint32_t Data, uint64_t SlotBase,
            std::vector<PlacedBiosEntry> &Report, uint32_t Seed) {
    std::vector<PspEntry> Level2 = Blobs(0x02, 2, 4 + Seed / 0x100);
    const uint64_t Target = B_.Location(BiosLevel2), Self = B_.Location(PspLevel2);
    uint64_t Pointer = Target;
    switch (Options_.SourceMode) {
    case AddressMode::Physical:
      break;
    case AddressMode::FlashOffset:
      Pointer = WithMode(AddressMode::FlashOffset, BiosLevel2);
      break;
    case AddressMode::DirectoryRelative:
    case AddressMode::SlotRelative:
      Pointer = WithMode(Options_.SourceMode, Target - Self);
      break;
    }
    Level2.push_back({TypeBiosFromPsp(), 0x400, Pointer});
    Put(PspLevel2, PspDirectory("$PL2", Level2));
    Put(BiosLevel2, BiosDirectory("$BL2", Items(Data, B_.Location(BiosLevel2), SlotBase, true, &Report, Seed)));
  }

  void Build() {
    EfsFields Efs;
    Efs.PspDirectory = Loc32(At_.Level1);
    Tree_.PspDirectory = B_.Location(At_.Level1);
    switch (Options_.Shape) {
    case TreeShape::Plain: {
      Put(At_.Level1, PspDirectory("$PSP", Blobs(0x01, 3, 1)));
      Put(At_.BiosLevel1, BiosDirectory("$BHD", Items(At_.DataA, B_.Location(At_.BiosLevel1), 0, false,
                                                      &Tree_.CopyA, 0x100)));
      Efs.BiosPointerOffset = Options_.BiosPointerOffset;
      Efs.BiosDirectory = Loc32(At_.BiosLevel1);
      Tree_.BiosDirectory = B_.Location(At_.BiosLevel1);
      break;
    }
    case TreeShape::PlainLevel2: {
      std::vector<PspEntry> Level1 = Blobs(0x01, 2, 1);
      Level1.push_back({kTypePspLevel2, 0x400, B_.Location(At_.PspLevel2A)});
      Put(At_.Level1, PspDirectory("$PSP", Level1));
      Put(At_.PspLevel2A, PspDirectory("$PL2", Blobs(0x02, 2, 2)));
      // "$BHD" keeps stale copies of the items; the level-2 ones are what counts.
      std::vector<BiosEntry> Bios = Items(At_.StaleData, B_.Location(At_.BiosLevel1), 0, false, nullptr, 0x300);
      Bios.push_back({kTypeBiosLevel2, 0x400, B_.Location(At_.BiosLevel2A), 0});
      Put(At_.BiosLevel1, BiosDirectory("$BHD", Bios));
      Put(At_.BiosLevel2A,
          BiosDirectory("$BL2", Items(At_.DataA, B_.Location(At_.BiosLevel2A), 0, true, &Tree_.CopyA, 0x100)));
      Efs.BiosPointerOffset = Options_.BiosPointerOffset;
      Efs.BiosDirectory = Loc32(At_.BiosLevel1);
      Tree_.BiosDirectory = B_.Location(At_.BiosLevel1);
      Tree_.PspLevel2A = B_.Location(At_.PspLevel2A);
      Tree_.BiosLevel2A = B_.Location(At_.BiosLevel2A);
      break;
    }
    case TreeShape::Combo: {
      uint32_t OtherId = Options_.PspId == 0xBC0A0100 ? 0xBC0B0500 : 0xBC0A0100;
      Put(At_.Level1, ComboDirectory("2PSP", {{OtherId, B_.Location(At_.DecoyPsp)},
                                              {Options_.PspId, B_.Location(At_.OwnPsp)}}));
      Put(At_.DecoyPsp, PspDirectory("$PSP", Blobs(0x01, 1, 3)));
      Put(At_.OwnPsp, PspDirectory("$PSP", Blobs(0x01, 3, 1)));
      Put(At_.BiosLevel1, ComboDirectory("2BHD", {{OtherId, B_.Location(At_.DecoyBios)},
                                                  {Options_.PspId, B_.Location(At_.OwnBios)}}));
      Put(At_.DecoyBios, BiosDirectory("$BHD", Items(At_.StaleData, B_.Location(At_.DecoyBios), 0, false,
                                                     nullptr, 0x300)));
      Put(At_.OwnBios, BiosDirectory("$BHD", Items(At_.DataA, B_.Location(At_.OwnBios), 0, false,
                                                   &Tree_.CopyA, 0x100)));
      Efs.ComboBiosDirectory = Loc32(At_.BiosLevel1);
      Tree_.PspDirectory = B_.Location(At_.OwnPsp);
      Tree_.BiosDirectory = B_.Location(At_.OwnBios);
      break;
    }
    case TreeShape::AbPair: {
      std::vector<PspEntry> Level1 = Blobs(0x01, 1, 1);
      Level1.push_back({TypeA(), 0x400, B_.Location(At_.PspLevel2A)});
      Level1.push_back({0x03, 0x100, B_.Location(At_.PspBlobs)});
      Level1.push_back({TypeB(), 0x400, B_.Location(At_.PspLevel2B)});
      Put(At_.Level1, PspDirectory("$PSP", Level1));
      Copy(At_.PspLevel2A, At_.BiosLevel2A, At_.DataA, 0, Tree_.CopyA, 0x100);
      Copy(At_.PspLevel2B, At_.BiosLevel2B, At_.DataB, 0, Tree_.CopyB, 0x200);
      SetLevel2Locations();
      break;
    }
    case TreeShape::AbKind1:
    case TreeShape::AbKind2: {
      bool Kind2 = Options_.Shape == TreeShape::AbKind2;
      uint32_t HeaderA = At_.Headers, HeaderB = At_.Headers + 0x100;
      Put(At_.Level1, PspDirectory("$PSP", {{TypeA(), Kind2 ? 32u : 16u, B_.Location(HeaderA)},
                                            {TypeB(), Kind2 ? 32u : 16u, B_.Location(HeaderB)}}));
      if (Kind2) {
        Put(HeaderA, AbHeaderKind2(1, Loc32(At_.PspLevel2A), Options_.PspId));
        Put(HeaderB, AbHeaderKind2(1, Loc32(At_.PspLevel2B), Options_.PspId));
      } else {
        Put(HeaderA, AbHeaderKind1(Options_.KindOnePriorityA, Loc32(At_.PspLevel2A)));
        Put(HeaderB, AbHeaderKind1(Options_.KindOnePriorityB, Loc32(At_.PspLevel2B)));
      }
      // Slot-relative sources count from the "$PL2" of their copy.
      Copy(At_.PspLevel2A, At_.BiosLevel2A, At_.DataA, B_.Location(At_.PspLevel2A), Tree_.CopyA, 0x100);
      Copy(At_.PspLevel2B, At_.BiosLevel2B, At_.DataB, B_.Location(At_.PspLevel2B), Tree_.CopyB, 0x200);
      SetLevel2Locations();
      break;
    }
    }
    Put(Options_.EfsOffset, PspImage::Efs(Efs));
  }

private:
  void SetLevel2Locations() {
    Tree_.PspLevel2A = B_.Location(At_.PspLevel2A);
    Tree_.PspLevel2B = B_.Location(At_.PspLevel2B);
    Tree_.BiosLevel2A = B_.Location(At_.BiosLevel2A);
    Tree_.BiosLevel2B = B_.Location(At_.BiosLevel2B);
  }

  const PspTreeOptions &Options_;
  PspTree &Tree_;
  PspImageBuilder &B_;
  TreeLayout At_;
};

}  // namespace

PspTree BuildPspTree(const PspTreeOptions &Options) {
  PspTree Tree{PspImageBuilder(Options.LocationsAsOffsets)};
  TreeWriter(Options, Tree).Build();
  return Tree;
}

}  // namespace PspImage
