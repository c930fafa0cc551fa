#include "SecuritySettings.h"

#include "../base/ByteView.h"
#include "../base/Char16.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/Hardware.h"
#include "../base/Pool.h"
#include "../driver/DriverState.h"
#include "PhysicalPresence.h"
#include "SettingsServices.h"
#include "Sha256.h"

using namespace SecuritySettingsLib;

UINT8 *mSecuritySettingsCopy = nullptr;

namespace {

// The library waits for the platform flash service at this notify level when it is not
// there yet at start.
constexpr EFI_TPL kFlashServiceNotifyTpl = 7;

EFI_EVENT mFlashServiceEvent = nullptr;
VOID *mFlashServiceRegistration = nullptr;

// The blocks are read as memory: the flash is mapped below 4 GiB.
const UINT8 *LiveBlock() { return Hw::FlashPointer(SecuritySettingsBlock, kSecuritySettingsSize); }
const UINT8 *BackupBlock() { return Hw::FlashPointer(SecuritySettingsBackup, kSecuritySettingsSize); }

BOOLEAN HasBackupMagic(const UINT8 *Record) {
  return ByteView(Record, kSecuritySettingsSize)
      .Equals(kBackupMagicOffset, kSecuritySettingsBackupMagic, sizeof(kSecuritySettingsBackupMagic));
}

UINT16 WordSum(const UINT8 *Record) {
  UINT16 Sum = 0;
  for (UINTN Word = 0; Word < kSecuritySettingsWordCount; Word++) {
    Sum = static_cast<UINT16>(Sum + ReadUnaligned16(Record + Word * 2));
  }
  return Sum;
}

// Whether Record lies in the mapped flash, where memory writes change nothing. Found by
// mapping the address Record would have relative to the live block back to a pointer.
BOOLEAN LiesInMappedFlash(const UINT8 *Record) {
  const UINT8 *Live = LiveBlock();
  if (Live == nullptr) {
    return FALSE;
  }
  UINT64 Address = SecuritySettingsBlock + (reinterpret_cast<UINTN>(Record) - reinterpret_cast<UINTN>(Live));
  if (Address < Hw::kFlashWindowBase || Address >= Hw::kFlashWindowBase + Hw::kFlashWindowSize) {
    return FALSE;
  }
  return Hw::FlashPointer(Address, 1) == Record;
}

// Seals with a SHA-256 digest under DigestProtection, else with the word checksum.
// FALSE when the digest cannot be computed (pool exhausted).
BOOLEAN SealRecord(UINT8 *Record) {
  if (DigestProtection) {
    WriteUnaligned16(Record + kIntegrityFormatOffset, kIntegritySha256);
    ZeroMem(Record + kSettingsDigestOffset, kSettingsDigestSize);
    UINT8 Digest[kSha256DigestSize];
    if (!Sha256OfBlock(Record, Digest)) {
      return FALSE;
    }
    CopyMem(Record + kSettingsDigestOffset, Digest, kSettingsDigestSize);
    return TRUE;
  }
  WriteUnaligned16(Record + kSettingsChecksumOffset, 0);
  WriteUnaligned16(Record + kIntegrityFormatOffset, kIntegrityWordChecksum);
  WriteUnaligned16(Record + kSettingsChecksumOffset, static_cast<UINT16>(0x10000 - WordSum(Record)));
  return TRUE;
}

// Erase, wait, program; up to 100 attempts while the last step failed. The caller reports
// success whatever this gives.
EFI_STATUS ProgramLiveBlock(const SettingsFlash &Flash, const UINT8 *Data) {
  EFI_STATUS Status = EFI_NOT_STARTED;
  for (UINTN Attempt = 0; Attempt < kSettingsFlashAttempts && EfiError(Status); Attempt++) {
    Status = Flash.Erase(SecuritySettingsBlock, kSecuritySettingsSize);
    Flash.Delay(kSettingsFlashDelayUnits);
    if (!EfiError(Status)) {
      Status = Flash.Write(SecuritySettingsBlock, Data, kSecuritySettingsSize);
    }
  }
  return Status;
}

VOID SetFailFlag(UINT8 Value) {
  SettingsSetVariable("Q42SaftyProtectedCheckSumFailFlag"_u16, gPlatformVariableGuid, kSettingsFailFlagAttributes,
                      sizeof(Value), &Value);
}

VOID EFIAPI OnFlashServiceInstalled(EFI_EVENT Event, VOID *Context) {
  (void)Event;
  (void)Context;
  VOID *Interface = nullptr;
  if (gBS->LocateProtocol(const_cast<EFI_GUID *>(&gPlatformFlashServiceProtocolGuid), nullptr, &Interface) !=
          EFI_SUCCESS ||
      Interface == nullptr) {
    return;
  }
  if (mPlatformFlashService == nullptr) {
    mPlatformFlashService = static_cast<PlatformFlashServiceProtocol *>(Interface);
  }
  ReadSettingsFlags(static_cast<PlatformFlashServiceProtocol *>(Interface));
}

}  // namespace

EFI_STATUS CheckSecuritySettings(const UINT8 *Record) {
  if (Record == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  ByteView View(Record, kSecuritySettingsSize);
  if (IsZeroBuffer(Record, kSecuritySettingsSize)) {
    return EFI_NOT_READY;
  }
  UINT16 Format = 0;
  View.Read16(kIntegrityFormatOffset, Format);
  if (Format == kIntegrityWordChecksum) {
    return WordSum(Record) == 0 ? EFI_SUCCESS : EFI_SECURITY_VIOLATION;
  }
  if (Format != kIntegritySha256) {
    return EFI_SECURITY_VIOLATION;
  }
  PoolBuffer Copy = PoolBuffer::AllocateZeroed(kSecuritySettingsSize);
  if (!Copy) {
    return EFI_SECURITY_VIOLATION;
  }
  CopyMem(Copy.Data(), Record, kSecuritySettingsSize);
  ZeroMem(Copy.Data() + kSettingsDigestOffset, kSettingsDigestSize);
  UINT8 Digest[kSha256DigestSize];
  if (!Sha256OfBlock(Copy.Data(), Digest)) {
    return EFI_SECURITY_VIOLATION;
  }
  return View.Equals(kSettingsDigestOffset, Digest, kSettingsDigestSize) ? EFI_SUCCESS : EFI_SECURITY_VIOLATION;
}

EFI_STATUS RecoverSecuritySettings() {
  if (mInSmm) {
    LocateSettingsSmmService();
    EFI_SMM_VARIABLE_PROTOCOL *Variable = nullptr;
    EFI_STATUS Status = LocateSettingsSmmVariable(&Variable);
    if (Status != EFI_SUCCESS) {
      return Status;
    }
  }
  if (!DigestProtection) {
    return EFI_UNSUPPORTED;
  }
  const UINT8 *Live = LiveBlock();
  if (Live == nullptr) {
    return EFI_NOT_FOUND;
  }
  EFI_STATUS Status = CheckSecuritySettings(Live);
  if (Status == EFI_SUCCESS || Status == EFI_NOT_READY) {
    return Status;
  }

  // The backup is mapped flash: Write leaves it unsealed and copies its bytes as they are.
  const UINT8 *Backup = BackupBlock();
  if (Backup != nullptr && HasBackupMagic(Backup) && CheckSecuritySettings(Backup) == EFI_SUCCESS &&
      WriteSecuritySettings(const_cast<UINT8 *>(Backup)) == EFI_SUCCESS) {
    SetFailFlag(kSettingsRestoredFromBackup);
    return EFI_SUCCESS;
  }

  Status = ClearSecuritySettings();
  if (EfiError(Status)) {
    return Status;
  }
  SetFailFlag(kSettingsCleared);
  if (gRT == nullptr) {
    return EFI_NOT_READY;
  }
  gRT->ResetSystem(EfiResetCold, EFI_SUCCESS, 0, nullptr);
  return EFI_DEVICE_ERROR;  // the reset did not happen
}

EFI_STATUS ClearSecuritySettings() {
  SettingsFlash Flash;
  if (!GetSettingsFlash(Flash)) {
    return EFI_PROTOCOL_ERROR;
  }
  PoolBuffer Zeros = PoolBuffer::AllocateZeroed(kSecuritySettingsSize);
  if (!Zeros) {
    return EFI_OUT_OF_RESOURCES;
  }
  ProgramLiveBlock(Flash, Zeros.Data());
  return EFI_SUCCESS;
}

EFI_STATUS SaveSecuritySettings(UINT8 **Copy) {
  if (Copy == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  if (mInSmm) {
    LocateSettingsSmmService();
  }
  if (!SettingsBackupSupported) {
    return EFI_UNSUPPORTED;
  }
  RecoverSecuritySettings();  // may reset the platform; its result is not needed here

  const UINT8 *Live = LiveBlock();
  if (Live == nullptr) {
    return EFI_NOT_FOUND;
  }
  if (*Copy == nullptr) {
    EFI_PHYSICAL_ADDRESS Page = 0;
    if (gBS == nullptr || gBS->AllocatePages(AllocateAnyPages, EfiRuntimeServicesData, 1, &Page) != EFI_SUCCESS ||
        Page == 0) {
      return EFI_OUT_OF_RESOURCES;
    }
    *Copy = reinterpret_cast<UINT8 *>(static_cast<UINTN>(Page));
  }
  CopyMem(*Copy, Live, kSecuritySettingsSize);
  if (!HasBackupMagic(*Copy)) {
    CopyMem(*Copy + kBackupMagicOffset, kSecuritySettingsBackupMagic, sizeof(kSecuritySettingsBackupMagic));
  }
  RecordPhysicalPresenceFlags(*Copy);  // a record without the flags is still worth keeping
  return EFI_SUCCESS;
}

EFI_STATUS WriteSecuritySettings(UINT8 *Record) {
  if (Record == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  SettingsFlash Flash;
  BOOLEAN HaveFlash = GetSettingsFlash(Flash);  // in SMM this also re-reads the flags
  if (!SettingsBackupSupported) {
    return EFI_UNSUPPORTED;
  }
  if (!HaveFlash) {
    return EFI_PROTOCOL_ERROR;
  }
  if (!HasBackupMagic(Record)) {
    return EFI_ACCESS_DENIED;
  }
  const UINT8 *Live = LiveBlock();
  if (Live == nullptr) {
    return EFI_NOT_FOUND;
  }
  if (Record == Live || CompareMem(Record, Live, kSecuritySettingsSize) == 0) {
    return EFI_SUCCESS;
  }
  if (!LiesInMappedFlash(Record) && !SealRecord(Record)) {
    return EFI_OUT_OF_RESOURCES;
  }
  ProgramLiveBlock(Flash, Record);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SecuritySettingsLibConstructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)ImageHandle;
  (void)SystemTable;
  mInSmm = FALSE;
  EFI_SMM_BASE2_PROTOCOL *SmmBase2 = nullptr;
  if (gBS->LocateProtocol(const_cast<EFI_GUID *>(&gEfiSmmBase2ProtocolGuid), nullptr,
                          reinterpret_cast<VOID **>(&SmmBase2)) == EFI_SUCCESS &&
      SmmBase2 != nullptr) {
    BOOLEAN InSmram = FALSE;
    if (SmmBase2->InSmm(SmmBase2, &InSmram) == EFI_SUCCESS) {
      mInSmm = InSmram;
    }
  }
  if (mInSmm) {
    // The flags come from the SMM settings service at every call.
    EFI_SMM_SYSTEM_TABLE2 *Smst = nullptr;
    EFI_STATUS Status = SmmBase2->GetSmstLocation(SmmBase2, &Smst);
    if (EfiError(Status)) {
      return Status;
    }
    gSmst = Smst;
    return EFI_SUCCESS;
  }

  if (mPlatformFlashService == nullptr) {
    VOID *Interface = nullptr;
    if (gBS->LocateProtocol(const_cast<EFI_GUID *>(&gPlatformFlashServiceProtocolGuid), nullptr, &Interface) ==
        EFI_SUCCESS) {
      mPlatformFlashService = static_cast<PlatformFlashServiceProtocol *>(Interface);
    }
  }
  if (mPlatformFlashService != nullptr) {
    ReadSettingsFlags(mPlatformFlashService);
    return EFI_SUCCESS;
  }

  // Not there yet: read the flags when the service is installed.
  SettingsBackupSupported = FALSE;
  DigestProtection = FALSE;
  if (gBS->CreateEvent(EVT_NOTIFY_SIGNAL, kFlashServiceNotifyTpl, OnFlashServiceInstalled, nullptr,
                       &mFlashServiceEvent) != EFI_SUCCESS) {
    mFlashServiceEvent = nullptr;
    return EFI_SUCCESS;
  }
  if (gBS->RegisterProtocolNotify(const_cast<EFI_GUID *>(&gPlatformFlashServiceProtocolGuid), mFlashServiceEvent,
                                  &mFlashServiceRegistration) != EFI_SUCCESS) {
    gBS->CloseEvent(mFlashServiceEvent);
    mFlashServiceEvent = nullptr;
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SecuritySettingsLibDestructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)ImageHandle;
  (void)SystemTable;
  if (mFlashServiceEvent != nullptr) {
    gBS->CloseEvent(mFlashServiceEvent);
    mFlashServiceEvent = nullptr;
    mFlashServiceRegistration = nullptr;
  }
  return EFI_SUCCESS;
}

#if defined(BIOS_HOST_BUILD)
void ResetSecuritySettingsForTest() {
  ResetSettingsServicesForTest();
  if (mSecuritySettingsCopy != nullptr && gBS != nullptr) {
    gBS->FreePages(reinterpret_cast<EFI_PHYSICAL_ADDRESS>(mSecuritySettingsCopy), 1);
  }
  mSecuritySettingsCopy = nullptr;
  mFlashServiceEvent = nullptr;
  mFlashServiceRegistration = nullptr;
}
#endif
