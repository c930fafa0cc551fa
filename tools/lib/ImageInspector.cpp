#include "ImageInspector.h"

#include <cstring>
#include <memory>

#include "../../emu/host/EmuHostMemory.h"
#include "../../src/base/ByteView.h"
#include "../../src/base/Globals.h"
#include "../../src/base/Hob.h"
#include "../../src/driver/Config.h"
#include "../../src/driver/LibraryList.h"
#include "../../src/flash/BiosIdRecord.h"
#include "../../src/flash/FlashState.h"
#include "../../src/verify/UpdateRegionTable.h"
#include "../../src/verify/VerifySignature.h"
#include "ImageBuilder.h"
#include "ImageSigner.h"
#include "InspectStructures.h"
#include "TestSigningKeys.h"
#include "UpdateRunner.h"

namespace {

// Where the recovery copy of the boot block keeps its BIOS-ID area (as the query reads it
// when the PSP directory marker is cleared).
constexpr uint32_t kRecoveryBootBlockSize = 0x178000;

FoundText FindBiosIdIn(const std::vector<uint8_t> &Image, uint64_t AreaAddress, uint32_t AreaSize) {
  FoundText Result;
  ByteView Area;
  if (AreaAddress < kInspectedFlashBase ||
      !ByteView(Image.data(), Image.size()).Sub(static_cast<UINTN>(AreaAddress - kInspectedFlashBase), AreaSize, Area)) {
    return Result;
  }
  UINT8 Id[kBiosIdLength] = {};
  if (FindBiosId(Area, Id)) {
    Result.Found = true;
    Result.Address = AreaAddress;
    for (UINT8 Byte : Id) {
      Result.Text += Byte >= 0x20 && Byte < 0x7F ? static_cast<char>(Byte) : '?';
    }
  }
  return Result;
}

// "$BVDT" on a 4 KiB step, as the version-family check probes for it.
constexpr size_t kVersionRecordStep = 4096;
constexpr size_t kVersionFamilyOffset = 14;
constexpr size_t kVersionTextOffset = 6;  // after the signature and the record revision
constexpr size_t kVersionTextMax = 48;

FoundText FindVersionRecord(const std::vector<uint8_t> &Image, char &Family) {
  FoundText Result;
  for (size_t Offset = 0; Offset + kVersionFamilyOffset < Image.size(); Offset += kVersionRecordStep) {
    if (std::memcmp(Image.data() + Offset, "$BVDT", 5) != 0) {
      continue;
    }
    Result.Found = true;
    Result.Address = kInspectedFlashBase + Offset;
    for (size_t Index = kVersionTextOffset; Index < kVersionTextMax && Offset + Index < Image.size(); Index++) {
      const uint8_t Byte = Image[Offset + Index];
      if (Byte < 0x20 || Byte >= 0x7F) {
        break;
      }
      Result.Text += static_cast<char>(Byte);
    }
    Family = static_cast<char>(Image[Offset + kVersionFamilyOffset]);
    return Result;
  }
  return Result;
}

// ---- Embedded signatures: the driver's checks find them, the key verifies them --------------

struct CapturedCheck {
  bool Called = false;
  std::vector<uint8_t> Data;
  const uint8_t *Signature = nullptr;
  uint64_t SignatureSize = 0;
};
CapturedCheck gCaptured;

EFI_STATUS EFIAPI CaptureVerify(const VOID *Data, UINT64 DataSize, const VOID *Signature, UINT64 SignatureSize, UINT32) {
  gCaptured.Called = true;
  gCaptured.Data.assign(static_cast<const uint8_t *>(Data), static_cast<const uint8_t *>(Data) + DataSize);
  gCaptured.Signature = static_cast<const uint8_t *>(Signature);
  gCaptured.SignatureSize = SignatureSize;
  return EFI_SUCCESS;
}

void Verify(const std::vector<uint8_t> &Data, const std::vector<uint8_t> &Signature, const std::string &Key,
            SignatureInfo &Info) {
  Info.SignatureSize = static_cast<uint32_t>(Signature.size());
  Info.SignedBytes = Data.size();
  bool Erased = !Signature.empty();
  for (uint8_t Byte : Signature) {
    Erased = Erased && Byte == 0xFF;
  }
  std::string Error;
  const bool Good = RsaVerifySha256(Data, Key, Signature, Error);
  Info.Verdict = !Error.empty() ? SignatureVerdict::NotChecked
                 : Good         ? SignatureVerdict::Verifies
                                : SignatureVerdict::DoesNotVerify;
  Info.Status = !Error.empty() ? "not checked: " + Error
                : Good         ? "verifies"
                : Erased       ? "does not verify: the signature bytes are erased (not signed)"
                               : "does not verify";
}

using EmbeddedCheck = EFI_STATUS (*)(ImageSignatureVerifyProtocol *, const UINT8 *, UINT64);

SignatureInfo InspectEmbedded(const char *Kind, EmbeddedCheck Check, const std::vector<uint8_t> &Image,
                              const std::string &Key, const char *Missing) {
  SignatureInfo Info;
  Info.Kind = Kind;
  gCaptured = {};
  ImageSignatureVerifyProtocol Verifier{nullptr, nullptr, CaptureVerify};
  const EFI_STATUS Status = Check(&Verifier, Image.data(), Image.size());
  if (!gCaptured.Called) {
    Info.Status = Status == EFI_NOT_FOUND ? Missing : "not checked, status " + HexText(Status);
    return Info;
  }
  Info.SignatureAddress = kInspectedFlashBase + static_cast<uint64_t>(gCaptured.Signature - Image.data());
  Verify(gCaptured.Data, std::vector<uint8_t>(gCaptured.Signature, gCaptured.Signature + gCaptured.SignatureSize), Key,
         Info);
  gCaptured = {};
  return Info;
}

SignatureInfo InspectDetached(const std::vector<uint8_t> &Image, const InspectOptions &Options, const std::string &Key) {
  SignatureInfo Info;
  Info.Kind = "detached";
  if (!Options.DetachedSignature) {
    Info.Status = "not given";
    return Info;
  }
  std::vector<uint8_t> Input;
  std::string Error;
  if (!DetachedSignatureInput(Image, Input, Error)) {
    Info.Status = "not checked: " + Error;
    return Info;
  }
  Verify(Input, *Options.DetachedSignature, Key, Info);
  return Info;
}

// ---- The update regions: the driver started over the image, which it then builds them for ---

constexpr const char *kRegionNames[kUpdateRegionCount] = {"IBB1R", "IBB2R", "IBB3R", "IBB4R", "IBB1", "IBB2",
                                                          "IBB3",  "IBB4",  "OBB",   "OBB2",  "OBB3"};

UpdateRegionsInfo InspectUpdateRegions(EmuPlatform &Platform, const std::vector<uint8_t> &Image,
                                       std::vector<std::string> &Findings) {
  UpdateRegionsInfo Info;
  SimulatedBoot Boot(Platform, BootScenario{});
  const EFI_STATUS Start = Boot.StartDriver();
  BiosImageInterfaceProtocol *Table = Boot.Table(false);
  if (Start != EFI_SUCCESS || Table == nullptr) {
    Info.Status = "not built: the driver did not start over the image, status " + HexText(Start);
    Findings.push_back(Info.Status);
    return Info;
  }
  BiosImageQueryRecord Record = {};
  Table->BiosQueryImage(Table, &Record, 0, 0);  // the flash geometry the progress units count in
  const EFI_STATUS Status = BuildUpdateRegionTable(Image.data(), Image.size());
  if (Status != EFI_SUCCESS) {
    Info.Status = "not built: the platform's layout of the image answers " + HexText(Status);
    Findings.push_back(Info.Status);
    return Info;
  }
  Info.Built = true;
  const auto Base = reinterpret_cast<uint64_t>(Image.data());
  for (size_t Index = 0; Index < kUpdateRegionCount; Index++) {
    const UpdateRegion &Region = mUpdateRegionTable[Index];
    Info.Regions.push_back({kRegionNames[Index], Region.Address, Region.Size, Region.Source - Base,
                            static_cast<uint32_t>(Region.StartBlock), static_cast<uint32_t>(Region.Pages)});
  }
  Info.Status = "as the driver builds them for this image";
  return Info;
}

}  // namespace

ImageInspection InspectImage(const std::vector<uint8_t> &Image, const InspectOptions &Options) {
  ImageInspection Result;
  Result.ImageSize = Image.size();
  if (Image.size() != kInspectedImageSize) {
    Result.Findings.push_back("wrong size: " + std::to_string(Image.size()) + " bytes; an image is the " +
                              std::to_string(kInspectedImageSize) + " bytes mapped at 0xFF000000");
    return Result;
  }
  Result.SizeAccepted = true;
  const std::string Key = Options.KeyPem.empty() ? TestSigningKeyPath(TestSigningKey::Selector1) : Options.KeyPem;
  Result.KeyDescription = !Options.KeyDescription.empty() ? Options.KeyDescription : Key;
  auto Platform = std::make_unique<EmuPlatform>();
  if (!Platform->Initialize(EmuHostMemory(), kDefaultEmuLayout) || !LoadImage(*Platform, Image)) {
    Result.Findings.push_back("the emulated platform cannot hold the image");
    return Result;
  }
  std::vector<std::string> &Findings = Result.Findings;

  const PlatformConfigProtocol &Config = *Platform->Config;
  Result.BiosId = FindBiosIdIn(Image, Config.BiosIdAreaAddress, Config.BiosIdAreaSize);
  if (!Result.BiosId.Found) {
    Findings.push_back("no \"$BID\" in the BIOS-ID area at " + HexText(Config.BiosIdAreaAddress));
  }
  {
    SimulatedBoot Boot(*Platform, BootScenario{});
    gBS = Boot.Sim.BootServices();
    gST = Boot.Sim.SystemTable();
    CacheHobList(gST);
    AmdCfgPcdBufLibDxeConstructor(Boot.Sim.ImageHandle(), gST);

    Result.RecoveryBiosId = FindBiosIdIn(
        Image, gConfig.RecoveryBiosIdBase - Config.BiosIdAreaSize + kRecoveryBootBlockSize, Config.BiosIdAreaSize);
    Result.VersionRecord = FindVersionRecord(Image, Result.VersionFamily);
    if (!Result.VersionRecord.Found) {
      Findings.push_back("no \"$BVDT\" version record on a 4 KiB step");
    }
    Result.FlashMap = InspectFlashMap(Findings);
    Result.Volumes = InspectVolumes(Image, Findings);
    Result.Stores.push_back(InspectVariableStore(Image, "live", gConfig.VariableStoreBase, gConfig.VariableStoreSize,
                                                 false, Findings));
    Result.Stores.push_back(InspectVariableStore(Image, "backup", gConfig.VariableBackupBase,
                                                 gConfig.VariableBackupSize, true, Findings));
    Result.Psp = InspectPspTree(Findings);

    Result.Signatures.push_back(InspectEmbedded("firmware volume", CheckFvSignature, Image, Key,
                                                "no signed firmware-volume file or no signature file"));
    Result.Signatures.push_back(InspectEmbedded("flash map", CheckFlashMapSignature, Image, Key,
                                                "no flash map with the five signed regions and a signature record"));
    for (const SignatureInfo &Signature : Result.Signatures) {
      if (Signature.Verdict == SignatureVerdict::Absent) {
        Findings.push_back(Signature.Kind + " signature: " + Signature.Status);
      }
    }
    Result.Signatures.push_back(InspectDetached(Image, Options, Key));
  }
  Result.UpdateRegions = InspectUpdateRegions(*Platform, Image, Findings);
  return Result;
}
