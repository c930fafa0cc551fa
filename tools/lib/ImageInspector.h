// What is inside an update image, found with the driver's own parsers: the image is put
// into an emulated platform's flash and the driver's flash-map lookups, PSP directory code,
// variable-store walk, "$BID" search, embedded-signature checks and update-region table run
// over it. Every section ends in a status line; what a section did not find or found
// malformed becomes a finding, and an image without findings is recognised. Used by the
// bios-inspect command and its tests.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "../../src/base/Uefi.h"

// An image is the 16 MiB part mapped at 0xFF000000; nothing else is parsed.
constexpr size_t kInspectedImageSize = 0x1000000;
constexpr uint64_t kInspectedFlashBase = 0xFF000000;

struct FoundText {
  bool Found = false;
  uint64_t Address = 0;  // flash address
  std::string Text;
};

struct FlashMapEntryInfo {
  EFI_GUID Type = {}, Name = {};
  uint64_t Offset = 0, Size = 0;
  uint32_t Attributes = 0;
  bool Ignored = false;  // attribute bit 1: every lookup passes over it
  uint64_t Address = 0;  // BaseAddress + Offset as the driver's lookup answers it (0: not found by it)
};

struct FlashMapInfo {
  bool Found = false;
  std::string Status;
  uint64_t Address = 0;
  uint32_t TotalSize = 0, EntriesOffset = 0, EntrySize = 0;
  uint64_t BaseAddress = 0;
  std::vector<FlashMapEntryInfo> Entries;
};

struct FfsFileInfo {
  EFI_GUID Name = {};
  uint8_t Type = 0;
  uint64_t Address = 0;
  uint32_t Size = 0;  // header included
};

struct VolumeInfo {
  uint64_t Address = 0, Length = 0;
  uint16_t HeaderLength = 0;
  EFI_GUID FileSystem = {};
  std::vector<FfsFileInfo> Files;
  std::string Status;  // how the file walk ended
};

struct VariableInfo {
  std::string Name;
  EFI_GUID Vendor = {};
  uint32_t Attributes = 0;
  uint8_t State = 0;
  uint32_t NameSize = 0, DataSize = 0;
  uint64_t Address = 0;
};

struct VariableStoreInfo {
  std::string Role;  // "live" or "backup"
  uint64_t Address = 0, Size = 0;
  bool Found = false;
  std::string Status;
  std::string HeaderForm;  // "$VSS" or "GUID"
  std::vector<VariableInfo> Variables;
};

struct DirectoryEntryInfo {
  uint32_t TypeWord = 0, Size = 0;
  uint64_t Location = 0;     // as written (address mode in bits 63:62)
  uint64_t Resolved = 0;     // where the driver's address translation puts it
  uint64_t Destination = 0;  // BIOS entries only
};

struct DirectoryInfo {
  std::string Cookie;  // "$PSP", "$PL2", "$BHD", "$BL2"
  int Level = 1;
  std::string Copy;    // "A" or "B" below an A/B pair, else empty
  uint64_t Address = 0;
  bool Valid = false;
  std::string Status;
  std::vector<DirectoryEntryInfo> Entries;
};

struct PspTreeInfo {
  bool Found = false;
  std::string Status;
  std::vector<DirectoryInfo> Directories;
};

struct UpdateRegionInfo {
  std::string Name;
  uint64_t Address = 0, Size = 0, ImageOffset = 0;
  uint32_t StartBlock = 0, Pages = 0;
};

struct UpdateRegionsInfo {
  bool Built = false;
  std::string Status;
  std::vector<UpdateRegionInfo> Regions;
};

enum class SignatureVerdict { Absent, Verifies, DoesNotVerify, NotChecked };

struct SignatureInfo {
  std::string Kind;  // "firmware volume", "flash map", "detached"
  SignatureVerdict Verdict = SignatureVerdict::Absent;
  uint64_t SignedBytes = 0;      // the length of what the signature covers
  uint64_t SignatureAddress = 0; // flash address of the signature (0 for the detached one)
  uint32_t SignatureSize = 0;
  std::string Status;
};

struct ImageInspection {
  size_t ImageSize = 0;
  bool SizeAccepted = false;
  FoundText BiosId, RecoveryBiosId, VersionRecord;
  char VersionFamily = 0;
  FlashMapInfo FlashMap;
  std::vector<VolumeInfo> Volumes;
  std::vector<VariableStoreInfo> Stores;
  PspTreeInfo Psp;
  UpdateRegionsInfo UpdateRegions;
  std::vector<SignatureInfo> Signatures;
  std::string KeyDescription;
  // What was not found or found malformed, one line each; empty for a recognised image.
  std::vector<std::string> Findings;
  bool Recognized() const { return SizeAccepted && Findings.empty(); }
};

struct InspectOptions {
  std::string KeyPem;        // a PEM key or its path; empty: the build's selector-1 test key
  std::string KeyDescription;
  std::optional<std::vector<uint8_t>> DetachedSignature;
};

ImageInspection InspectImage(const std::vector<uint8_t> &Image, const InspectOptions &Options = {});

// The report as text for a terminal, and as one JSON object.
std::string InspectionText(const ImageInspection &Inspection);
std::string InspectionJson(const ImageInspection &Inspection);

// Shared by the inspector's parts: the name of one of this platform's GUIDs (Guids.h) or the
// registry form of any other.
std::string GuidName(const EFI_GUID &Guid);
std::string GuidText(const EFI_GUID &Guid);
// "0x..." in upper-case hexadecimal.
std::string HexText(uint64_t Value);
