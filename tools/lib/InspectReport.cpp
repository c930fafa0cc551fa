// The inspection as text for a terminal and as one JSON object; GUID names.
#include <cstdarg>
#include <cstdio>

#include "../../src/base/BaseLib.h"
#include "../../src/base/Guids.h"
#include "../../src/flash/VariableStoreFormat.h"
#include "ImageInspector.h"
#include "ToolSupport.h"

namespace {

struct NamedGuid {
  const EFI_GUID *Guid;
  const char *Name;
};
#define Named(G) NamedGuid{&G, #G}
// The GUIDs of ours that images carry: area types and names, files, stores, variable vendors.
const NamedGuid kNamedGuids[] = {
    Named(gAmdCbsSetupVariableGuid), Named(gAmdPbsSetupVariableGuid), Named(gAuthVarDigestArea2Guid),
    Named(gAuthVarDigestArea3Guid), Named(gAuthVarDigestAreaGuid), Named(gBtPairingVendorGuid),
    Named(gCmosJournalSignatureGuid), Named(gEcFirmwareRegionGuid), Named(gEfiAuthenticatedVariableGuid),
    Named(gEfiFirmwareFileSystem2Guid), Named(gEfiFirmwareFileSystem3Guid), Named(gEfiGenericVariableGuid),
    Named(gEfiGlobalVariableVendorGuid), Named(gEfiImageSecurityDatabaseGuid), Named(gEfiPhysicalPresenceGuid),
    Named(gEfiSystemNvDataFvGuid), Named(gEfiTcg2PhysicalPresenceGuid), Named(gEfiVariableGuid),
    Named(gFlashMapCopyAreaGuid), Named(gFlashMapNamedAreaGuid), Named(gFvSignatureFileGuid),
    Named(gMicrosoftVendorGuid), Named(gNvVariableStoreRegionGuid), Named(gPlatformSetupLayoutGuid),
    Named(gPlatformSetupSmmGuid), Named(gPlatformVariableGuid), Named(gPreservedVendor1Guid),
    Named(gPreservedVendor2Guid), Named(gQfdmSignatureEntryGuid), Named(gQfdmSignatureEntryTypeGuid),
    Named(gQfdmSignatureRecordGuid), Named(gSettingsSmmFlashGuid), Named(gSettingsSmmServiceGuid),
    Named(gSignedFvFileGuid), Named(gSignedRegion1Guid), Named(gSignedRegion2Guid),
    Named(gSignedRegion3Guid), Named(gSignedRegion4Guid), Named(gSignedRegion5Guid),
    Named(gVariableStoreBackupAreaGuid),
};
#undef Named

std::string Format(const char *Pattern, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char *Pattern, ...) {
  char Text[512];
  va_list Arguments;
  va_start(Arguments, Pattern);
  std::vsnprintf(Text, sizeof(Text), Pattern, Arguments);
  va_end(Arguments);
  return Text;
}

unsigned long long U(uint64_t Value) { return Value; }

std::string StateName(uint8_t State) {
  switch (State) {
  case kVariableAdded:
    return "added";
  case kVariableInDeletedTransition:
    return "in deleted transition";
  case kVariableDeleted:
    return "deleted";
  case kVariableHeaderValidOnly:
    return "header only";
  default:
    return Format("0x%02X", State);
  }
}

const char *VerdictName(SignatureVerdict Verdict) {
  switch (Verdict) {
  case SignatureVerdict::Verifies:
    return "verifies";
  case SignatureVerdict::DoesNotVerify:
    return "does not verify";
  case SignatureVerdict::NotChecked:
    return "not checked";
  default:
    return "absent";
  }
}

// Map entries of the signed regions carry no name of their own.
std::string AreaName(const EFI_GUID &Guid) {
  static const EFI_GUID kNone = {};
  return CompareGuid(&Guid, &kNone) ? "-" : GuidName(Guid);
}

std::string DirectoryTitle(const DirectoryInfo &Directory) {
  std::string Where = Directory.Address != 0 ? Format("0x%llX", U(Directory.Address)) : std::string("(via EFS)");
  return Format("level %d%s \"%s\" at %s", Directory.Level,
                Directory.Copy.empty() ? "" : (" copy " + Directory.Copy).c_str(), Directory.Cookie.c_str(),
                Where.c_str());
}

}  // namespace

std::string GuidText(const EFI_GUID &Guid) {
  return Format("%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", Guid.Data1, Guid.Data2, Guid.Data3, Guid.Data4[0],
                Guid.Data4[1], Guid.Data4[2], Guid.Data4[3], Guid.Data4[4], Guid.Data4[5], Guid.Data4[6],
                Guid.Data4[7]);
}

std::string HexText(uint64_t Value) { return Format("0x%llX", U(Value)); }

std::string GuidName(const EFI_GUID &Guid) {
  for (const NamedGuid &Known : kNamedGuids) {
    if (CompareGuid(Known.Guid, &Guid)) {
      return Known.Name;
    }
  }
  return GuidText(Guid);
}

std::string InspectionText(const ImageInspection &I) {
  std::string Out = Format("Image: %zu bytes%s\n", I.ImageSize,
                           I.SizeAccepted ? ", the 16 MiB part mapped at 0xFF000000" : "");
  if (!I.SizeAccepted) {
    return Out + "Result: not an image: " + I.Findings.front() + "\n";
  }
  auto Found = [](const FoundText &What) {
    return What.Found ? Format("\"%s\" (area at 0x%llX)", What.Text.c_str(), U(What.Address)) : std::string("not found");
  };
  Out += "BIOS ID: " + Found(I.BiosId) + "; recovery copy: " + Found(I.RecoveryBiosId) + "\n";
  Out += "Version record: " +
         (I.VersionRecord.Found ? Format("\"$BVDT\" at 0x%llX: \"%s\", family '%c'", U(I.VersionRecord.Address),
                                         I.VersionRecord.Text.c_str(), I.VersionFamily)
                                : std::string("not found")) +
         "\n";

  Out += "\nFlash map: " + I.FlashMap.Status + "\n";
  if (I.FlashMap.Found) {
    Out += Format("  TotalSize 0x%X, entries from +0x%X every %u bytes, BaseAddress 0x%llX\n", I.FlashMap.TotalSize,
                  I.FlashMap.EntriesOffset, I.FlashMap.EntrySize, U(I.FlashMap.BaseAddress));
    for (const FlashMapEntryInfo &E : I.FlashMap.Entries) {
      Out += Format("  %-30s %-30s offset 0x%08llX size 0x%08llX attr 0x%X%s\n", GuidName(E.Type).c_str(),
                    AreaName(E.Name).c_str(), U(E.Offset), U(E.Size), E.Attributes,
                    E.Ignored ? " (ignored)" : E.Address != 0 ? Format(" -> 0x%llX", U(E.Address)).c_str() : "");
    }
  }

  Out += Format("\nFirmware volumes: %zu\n", I.Volumes.size());
  for (const VolumeInfo &V : I.Volumes) {
    Out += Format("  0x%llX +0x%llX %s, %zu files; %s\n", U(V.Address), U(V.Length),
                  GuidName(V.FileSystem) == "gEfiFirmwareFileSystem3Guid" ? "FFS3" : "FFS2", V.Files.size(),
                  V.Status.c_str());
    for (const FfsFileInfo &F : V.Files) {
      if (F.Type == 0xF0) {
        continue;  // pad files
      }
      Out += Format("    0x%llX %-36s type 0x%02X size 0x%X\n", U(F.Address), GuidName(F.Name).c_str(), F.Type, F.Size);
    }
  }

  Out += "\nVariable stores:\n";
  for (const VariableStoreInfo &S : I.Stores) {
    Out += Format("  %s at 0x%llX +0x%llX: %s\n", S.Role.c_str(), U(S.Address), U(S.Size), S.Status.c_str());
    for (const VariableInfo &V : S.Variables) {
      Out += Format("    %-22s %-30s attr 0x%02X %-21s data 0x%X\n", V.Name.c_str(), GuidName(V.Vendor).c_str(),
                    V.Attributes, StateName(V.State).c_str(), V.DataSize);
    }
  }

  Out += "\nPSP and BIOS directories: " + (I.Psp.Found ? I.Psp.Status : I.Psp.Status) + "\n";
  for (const DirectoryInfo &D : I.Psp.Directories) {
    Out += "  " + DirectoryTitle(D) + ": " + D.Status + Format(", %zu entries\n", D.Entries.size());
    for (const DirectoryEntryInfo &E : D.Entries) {
      Out += Format("    type 0x%08X size 0x%08X at 0x%llX", E.TypeWord, E.Size, U(E.Resolved));
      Out += E.Resolved != E.Location ? Format(" (written 0x%llX)", U(E.Location)) : "";
      Out += E.Destination != 0 ? Format(" -> 0x%llX", U(E.Destination)) : "";
      Out += "\n";
    }
  }

  Out += "\nUpdate regions: " + I.UpdateRegions.Status + "\n";
  for (const UpdateRegionInfo &R : I.UpdateRegions.Regions) {
    Out += Format("  %-5s flash 0x%08llX size 0x%06llX from image +0x%06llX, progress block %u, %u pages\n",
                  R.Name.c_str(), U(R.Address), U(R.Size), U(R.ImageOffset), R.StartBlock, R.Pages);
  }

  Out += "\nSignatures (key " + I.KeyDescription + "):\n";
  for (const SignatureInfo &S : I.Signatures) {
    Out += "  " + S.Kind + ": ";
    if (S.Verdict == SignatureVerdict::Absent) {
      Out += S.Status + "\n";
      continue;
    }
    Out += Format("%u-byte signature", S.SignatureSize);
    Out += S.SignatureAddress != 0 ? Format(" at 0x%llX", U(S.SignatureAddress)) : "";
    Out += Format(" over 0x%llX bytes: %s\n", U(S.SignedBytes), S.Status.c_str());
  }

  if (I.Recognized()) {
    return Out + "\nResult: an image; every structure found\n";
  }
  Out += Format("\nResult: not a sound image, %zu findings:\n", I.Findings.size());
  for (const std::string &Finding : I.Findings) {
    Out += "  " + Finding + "\n";
  }
  return Out;
}

std::string InspectionJson(const ImageInspection &I) {
  JsonWriter J;
  J.BeginObject().Key("size").Number(I.ImageSize).Key("recognized").Bool(I.Recognized());
  J.Key("findings").BeginArray();
  for (const std::string &Finding : I.Findings) {
    J.String(Finding);
  }
  J.EndArray();
  if (!I.SizeAccepted) {
    return J.EndObject().Text();
  }
  auto Found = [&J](const char *Name, const FoundText &What) {
    J.Key(Name);
    if (!What.Found) {
      J.Null();
      return;
    }
    J.BeginObject().Key("text").String(What.Text).Key("address").Hex(What.Address).EndObject();
  };
  Found("biosId", I.BiosId);
  Found("recoveryBiosId", I.RecoveryBiosId);
  Found("versionRecord", I.VersionRecord);
  if (I.VersionRecord.Found) {
    J.Key("versionFamily").String(std::string(1, I.VersionFamily));
  }

  J.Key("flashMap").BeginObject().Key("found").Bool(I.FlashMap.Found).Key("status").String(I.FlashMap.Status);
  if (I.FlashMap.Found) {
    J.Key("address").Hex(I.FlashMap.Address).Key("totalSize").Number(I.FlashMap.TotalSize);
    J.Key("baseAddress").Hex(I.FlashMap.BaseAddress).Key("entries").BeginArray();
    for (const FlashMapEntryInfo &E : I.FlashMap.Entries) {
      J.BeginObject().Key("type").String(GuidName(E.Type)).Key("name").String(GuidName(E.Name));
      J.Key("offset").Hex(E.Offset).Key("size").Hex(E.Size).Key("attributes").Hex(E.Attributes);
      J.Key("ignored").Bool(E.Ignored).Key("address").Hex(E.Address).EndObject();
    }
    J.EndArray();
  }
  J.EndObject();

  J.Key("volumes").BeginArray();
  for (const VolumeInfo &V : I.Volumes) {
    J.BeginObject().Key("address").Hex(V.Address).Key("length").Hex(V.Length);
    J.Key("fileSystem").String(GuidName(V.FileSystem)).Key("status").String(V.Status).Key("files").BeginArray();
    for (const FfsFileInfo &F : V.Files) {
      J.BeginObject().Key("name").String(GuidName(F.Name)).Key("type").Number(F.Type);
      J.Key("address").Hex(F.Address).Key("size").Number(F.Size).EndObject();
    }
    J.EndArray().EndObject();
  }
  J.EndArray();

  J.Key("variableStores").BeginArray();
  for (const VariableStoreInfo &S : I.Stores) {
    J.BeginObject().Key("role").String(S.Role).Key("address").Hex(S.Address).Key("size").Hex(S.Size);
    J.Key("found").Bool(S.Found).Key("status").String(S.Status).Key("headerForm").String(S.HeaderForm);
    J.Key("variables").BeginArray();
    for (const VariableInfo &V : S.Variables) {
      J.BeginObject().Key("name").String(V.Name).Key("vendor").String(GuidName(V.Vendor));
      J.Key("attributes").Hex(V.Attributes).Key("state").String(StateName(V.State));
      J.Key("dataSize").Number(V.DataSize).Key("address").Hex(V.Address).EndObject();
    }
    J.EndArray().EndObject();
  }
  J.EndArray();

  J.Key("pspTree").BeginObject().Key("found").Bool(I.Psp.Found).Key("status").String(I.Psp.Status);
  J.Key("directories").BeginArray();
  for (const DirectoryInfo &D : I.Psp.Directories) {
    J.BeginObject().Key("cookie").String(D.Cookie).Key("level").Number(D.Level).Key("copy").String(D.Copy);
    J.Key("address").Hex(D.Address).Key("valid").Bool(D.Valid).Key("status").String(D.Status);
    J.Key("entries").BeginArray();
    for (const DirectoryEntryInfo &E : D.Entries) {
      J.BeginObject().Key("type").Hex(E.TypeWord).Key("size").Hex(E.Size).Key("location").Hex(E.Location);
      J.Key("resolved").Hex(E.Resolved).Key("destination").Hex(E.Destination).EndObject();
    }
    J.EndArray().EndObject();
  }
  J.EndArray().EndObject();

  J.Key("updateRegions").BeginObject().Key("built").Bool(I.UpdateRegions.Built);
  J.Key("status").String(I.UpdateRegions.Status).Key("regions").BeginArray();
  for (const UpdateRegionInfo &R : I.UpdateRegions.Regions) {
    J.BeginObject().Key("name").String(R.Name).Key("address").Hex(R.Address).Key("size").Hex(R.Size);
    J.Key("imageOffset").Hex(R.ImageOffset).Key("startBlock").Number(R.StartBlock).Key("pages").Number(R.Pages);
    J.EndObject();
  }
  J.EndArray().EndObject();

  J.Key("key").String(I.KeyDescription).Key("signatures").BeginArray();
  for (const SignatureInfo &S : I.Signatures) {
    J.BeginObject().Key("kind").String(S.Kind).Key("verdict").String(VerdictName(S.Verdict));
    J.Key("status").String(S.Status).Key("signedBytes").Number(S.SignedBytes);
    J.Key("signatureAddress").Hex(S.SignatureAddress).Key("signatureSize").Number(S.SignatureSize).EndObject();
  }
  J.EndArray();
  return J.EndObject().Text();
}
