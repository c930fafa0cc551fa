// Builds AMD embedded firmware structures (EFS) and PSP/BIOS directory trees of every shape
// the driver reads: plain level-1 directories, level-2 directories behind entries 0x40 and
// 0x70, "2PSP"/"2BHD" combo directories, A/B copies behind a level-1 pair or behind A/B
// headers of kind 1 and kind 2, 16-bit entry types, and entry locations in each address
// mode, with valid Fletcher-32 checksums. The bytes are kept as pieces at flash offsets
// (offset 0 = first byte of the SPI device), to be loaded into an emulated flash chip or put
// into an image built by ImageBuilder at MappedAddress(offset).
#pragma once
#include <cstdint>
#include <span>
#include <string>
#include <vector>

class EmuPlatform;

namespace PspImage {

// Entry types of the tree.
constexpr uint8_t kTypeApcb = 0x60;
constexpr uint8_t kTypeApcbBackup = 0x68;
constexpr uint8_t kTypeApob = 0x63;
constexpr uint8_t kTypeBiosLevel2 = 0x70;       // "$BHD" entry leading to "$BL2"
constexpr uint32_t kTypePspLevel2 = 0x40;       // "$PSP" entry leading to "$PL2"
constexpr uint32_t kTypeCopyA = 0x48;           // A/B pointer entries of a level-1 "$PSP"
constexpr uint32_t kTypeCopyB = 0x4A;
constexpr uint32_t kTypeBiosFromPsp = 0x49;     // "$PL2" entry leading to "$BL2"
constexpr uint32_t kTypeCopyA16 = 0x13C;        // the same on SoCs with 16-bit entry types
constexpr uint32_t kTypeCopyB16 = 0x13D;
constexpr uint32_t kTypeBiosFromPsp16 = 0x14F;

constexpr uint64_t kMappedBase = 0xFF000000;

// Bits 63:62 of an entry location.
enum class AddressMode : uint8_t { Physical = 0, FlashOffset = 1, DirectoryRelative = 2, SlotRelative = 3 };
uint64_t WithMode(AddressMode Mode, uint64_t Value);

struct PspEntry {
  uint32_t TypeWord;
  uint32_t Size;
  uint64_t Location;
};
struct BiosEntry {
  uint32_t TypeWord;
  uint32_t Size;
  uint64_t Source;
  uint64_t Destination;
};
struct ComboEntry {
  uint32_t PspId;
  uint64_t Location;
};
// Type in bits 7:0, instance in 23:20, sub-program in 26:24.
uint32_t BiosTypeWord(uint8_t Type, uint8_t Instance = 0, uint8_t SubProgram = 0);

// Fletcher-32 over little-endian 16-bit words (sums start at 0xFFFF), as directories use it.
uint32_t Fletcher32(std::span<const uint8_t> Bytes);

// A directory's bytes: header with cookie, checksum over count, reserved word and entries.
std::vector<uint8_t> PspDirectory(const std::string &Cookie, const std::vector<PspEntry> &Entries);
std::vector<uint8_t> BiosDirectory(const std::string &Cookie, const std::vector<BiosEntry> &Entries);
// A "2PSP" or "2BHD" combo directory: 32-byte header, 16-byte entries.
std::vector<uint8_t> ComboDirectory(const std::string &Cookie, const std::vector<ComboEntry> &Entries);
std::vector<uint8_t> AbHeaderKind1(uint32_t Priority, uint32_t Level2Location);
std::vector<uint8_t> AbHeaderKind2(uint32_t Priority, uint32_t Level2Location, uint32_t PspId);

struct EfsFields {
  uint32_t PspDirectory = 0;           // at 0x14
  uint32_t BiosPointerOffset = 0;      // 0: no BIOS directory pointer
  uint32_t BiosDirectory = 0;          // written at BiosPointerOffset
  uint32_t ComboBiosDirectory = 0;     // at 0x28
  uint32_t AlternatePspDirectory = 0;  // at 0x2C
  uint8_t Generation = 0xFE;           // 0xFF: the layout newer processors refuse
};
// The EFS block (one 4 KiB block, erased beyond the fields).
std::vector<uint8_t> Efs(const EfsFields &Fields);

class PspImageBuilder {
public:
  struct Piece {
    uint32_t Offset;
    std::vector<uint8_t> Bytes;
  };

  // Locations written into the tree are mapped addresses (0xFF000000 + offset), or flash
  // offsets when LocationsAsOffsets.
  explicit PspImageBuilder(bool LocationsAsOffsets = false) : LocationsAsOffsets_(LocationsAsOffsets) {}

  uint64_t Location(uint32_t Offset) const { return LocationsAsOffsets_ ? Offset : kMappedBase + Offset; }
  static uint64_t MappedAddress(uint32_t Offset) { return kMappedBase + Offset; }

  PspImageBuilder &Put(uint32_t Offset, std::span<const uint8_t> Bytes);
  const std::vector<Piece> &Pieces() const { return Pieces_; }

  // Loads every piece into the chip (chip offset = flash offset) without counting it.
  void PlaceInto(EmuPlatform &Platform) const;
  // Copies every piece into an image whose byte ImageOffsetOfFlashStart is flash offset 0.
  void ApplyTo(std::span<uint8_t> Image, size_t ImageOffsetOfFlashStart = 0) const;

private:
  bool LocationsAsOffsets_;
  std::vector<Piece> Pieces_;
};

// ---- Whole trees ------------------------------------------------------------------------

enum class TreeShape {
  Plain,        // EFS -> "$PSP" and "$BHD" (BIOS pointer in the EFS); entries in "$BHD"
  PlainLevel2,  // as Plain, with "$PSP" 0x40 -> "$PL2" and "$BHD" 0x70 -> "$BL2" (stale copies in "$BHD")
  Combo,        // EFS -> "2PSP"/"2BHD" listing another SoC first, then this SoC's "$PSP"/"$BHD"
  AbPair,       // "$PSP" with ordinary entries and a 0x48/0x4A pair -> "$PL2" A/B, 0x49 -> "$BL2" A/B
  AbKind1,      // "$PSP" of 0x48/0x4A only -> 16-byte A/B headers -> "$PL2" A/B -> 0x49 -> "$BL2" A/B
  AbKind2,      // the same with 32-byte A/B headers naming the SoC
};

struct BiosItem {
  uint8_t Type;
  uint8_t Instance;
  uint32_t Size;
  uint64_t Destination;
};

struct PspTreeOptions {
  TreeShape Shape = TreeShape::AbKind2;
  bool SixteenBitTypes = false;        // 0x13C/0x13D/0x14F instead of 0x48/0x4A/0x49
  uint32_t PspId = 0xBC0D0400;         // this SoC in combo directories and kind-2 headers
  uint32_t BiosPointerOffset = 0x28;   // EFS offset of the "$BHD" location (Plain, PlainLevel2)
  bool LocationsAsOffsets = false;     // directory locations as flash offsets instead of addresses
  AddressMode SourceMode = AddressMode::Physical;  // how the items and the "$PL2" -> "$BL2" entry are written
  uint32_t KindOnePriorityA = 2;       // A/B kind 1 header priorities
  uint32_t KindOnePriorityB = 1;
  uint32_t EfsOffset = 0x20000;
  uint32_t TreeOffset = 0xF80000;      // "$PSP" (or "2PSP"); the tree and its data follow
  std::vector<BiosItem> Items = {
      {kTypeApcb, 0, 0x2000, 0},
      {kTypeApcbBackup, 0, 0x2000, 0},
      {kTypeApob, 0, 0x1000, 0x0A200000},
  };
};

// One BIOS entry as GetBiosEntry reports it.
struct PlacedBiosEntry {
  uint32_t TypeWord;
  uint32_t Size;
  uint64_t Source;  // after the driver resolves the address mode (level-2 entries only)
  uint64_t Destination;
  uint32_t DataOffset;  // flash offset of the item's bytes
};

struct PspTree {
  PspImageBuilder Builder;
  // What the A (primary) and B copies hold; shapes without copies fill CopyA only.
  std::vector<PlacedBiosEntry> CopyA, CopyB;
  uint64_t PspDirectory = 0, BiosDirectory = 0;
  uint64_t PspLevel2A = 0, PspLevel2B = 0, BiosLevel2A = 0, BiosLevel2B = 0;
  const PlacedBiosEntry *Find(uint8_t Type, bool FromCopyB = false) const;
};

PspTree BuildPspTree(const PspTreeOptions &Options = {});

}  // namespace PspImage
