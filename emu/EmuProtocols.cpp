// Members of the platform's closed protocols, backed by the emulated flash chip and EC
// store. Each member records its call with its arguments before it acts.
#include "../src/base/BaseLib.h"
#include "../src/base/Guids.h"
#include "EmuPlatform.h"
#include "EmuMembers.h"

using namespace emu_members;

namespace {

constexpr UINTN kCompletionPoolBufferSize = 0x100;

// ---- Flash device interface ----------------------------------------------------------------
EFI_STATUS EFIAPI FlashDeviceWrite(UINTN Address, const VOID *Buffer, UINTN Length) {
  P().Record("FlashDeviceWrite", Address, Ptr(Buffer), Length);
  return P().ProgramFlashAt(Address, Buffer, Length);
}

EFI_STATUS EFIAPI FlashDeviceErase(UINTN Address, UINTN Length) {
  P().Record("FlashDeviceErase", Address, Length);
  return P().EraseFlashAt(Address, Length);
}

EFI_STATUS EFIAPI FlashDeviceDelay(UINTN Units) {
  P().Record("FlashDeviceDelay", Units);
  P().ElapsedMicroseconds += Units;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FlashDevicePrepareSetupData(VOID *This) {
  P().Record("FlashDevicePrepareSetupData", Ptr(This));
  EmuSettingsPrepareSetupData(P());
  return EFI_SUCCESS;
}

// ---- Platform flash service --------------------------------------------------------------
EFI_STATUS EFIAPI ReadFlash(UINT8 Type, VOID *Buffer, UINT32 Address, UINT32 Length) {
  P().Record("ReadFlash", Type, Ptr(Buffer), Address, Length);
  UINT32 Offset;
  if (!P().FlashOffset(Address, Length, Offset)) {
    return EFI_INVALID_PARAMETER;
  }
  return P().Flash.Read(Offset, Buffer, Length);
}

VOID EFIAPI SetFlashAccessType(UINT8 Type) { P().Record("SetFlashAccessType", Type); }

// Erases every sector the range touches and programs the range; the bytes of those
// sectors outside the range are put back, as the platform's service does.
EFI_STATUS EFIAPI WriteFlash(UINT8 Type, UINT32 Address, const VOID *Buffer, UINT32 Length) {
  P().Record("WriteFlash", Type, Address, Ptr(Buffer), Length);
  UINT32 Offset;
  if (!P().FlashOffset(Address, Length, Offset) || (Buffer == nullptr && Length != 0)) {
    return EFI_INVALID_PARAMETER;
  }
  const UINT8 *Source = static_cast<const UINT8 *>(Buffer);
  EmuFlashChip &Chip = P().Flash;
  UINT32 End = Offset + Length;
  for (UINT32 Sector = Offset & ~(EmuFlashChip::kSectorSize - 1); Sector < End; Sector += EmuFlashChip::kSectorSize) {
    UINT8 Merged[EmuFlashChip::kSectorSize];
    CopyMem(Merged, Chip.Bytes() + Sector, EmuFlashChip::kSectorSize);
    UINT32 From = Sector < Offset ? Offset : Sector;
    UINT32 To = End < Sector + EmuFlashChip::kSectorSize ? End : Sector + EmuFlashChip::kSectorSize;
    CopyMem(Merged + (From - Sector), Source + (From - Offset), To - From);
    EFI_STATUS Status = Chip.EraseSectors(Sector, EmuFlashChip::kSectorSize);
    if (Status == EFI_SUCCESS) {
      Status = Chip.Program(Sector, Merged, EmuFlashChip::kSectorSize);
    }
    if (Status != EFI_SUCCESS) {
      return Status;
    }
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ReadEc(VOID *Buffer, UINT32 Offset, UINT32 Length) {
  P().Record("ReadEc", Ptr(Buffer), Offset, Length);
  UINT32 Size = P().EcStoreSize;
  if (Offset > Size || Length > Size - Offset || (Buffer == nullptr && Length != 0)) {
    return EFI_INVALID_PARAMETER;
  }
  CopyMem(Buffer, P().EcStore + Offset, Length);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI WriteEc(const VOID *Buffer, UINT32 Length, UINT32 Offset) {
  P().Record("WriteEc", Ptr(Buffer), Length, Offset);
  UINT32 Size = P().EcStoreSize;
  if (Offset > Size || Length > Size - Offset || (Buffer == nullptr && Length != 0)) {
    return EFI_INVALID_PARAMETER;
  }
  // A source in the flash window (the EC region itself) is read from the chip.
  const VOID *Source = Buffer;
  if (const UINT8 *Mapped = P().MappedFlash(Ptr(Buffer), Length); Length != 0 && Mapped != nullptr) {
    Source = Mapped;
  }
  CopyMem(P().EcStore + Offset, Source, Length);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SetUpdateInProgress(UINT8 Value) {
  P().Record("SetUpdateInProgress", Value);
  return EFI_SUCCESS;
}

// Records the byte it is handed and its address.
EFI_STATUS EFIAPI CompletionNotify(UINT8 *Value) {
  P().Record("CompletionNotify", Value == nullptr ? 0x100 : *Value, Ptr(Value));
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FlashServiceMember51C(UINT64 Argument) {
  P().Record("FlashServiceMember51C", Argument);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SetDebugCodeDisplay(VOID *TextOut, BOOLEAN Start) {
  P().Record("SetDebugCodeDisplay", Ptr(TextOut), Start);
  return EFI_SUCCESS;
}

// ---- Configuration block operations ------------------------------------------------------
EFI_STATUS EFIAPI ConfigNotifyUpdatePhase(UINT64 First, UINT64 Second) {
  P().Record("NotifyUpdatePhase", First, Second);
  return P().NotifyUpdatePhaseStatus;
}

EFI_STATUS EFIAPI ConfigCheckImage(const VOID *Image, UINT64 ImageSize) {
  P().Record("CheckImage", Ptr(Image), ImageSize);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ConfigGetMessageBuffer(VOID **Buffer, UINTN *Size) {
  P().Record("GetMessageBuffer", Ptr(Buffer), Ptr(Size));
  if (Buffer == nullptr || Size == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  *Buffer = P().MessageBuffer;
  *Size = EmuPlatform::kMessageBufferSize;
  return EFI_SUCCESS;
}

// Keeps the bytes of the platform's own buffer; any other buffer is only recorded.
EFI_STATUS EFIAPI ConfigSendMessage(VOID *Buffer) {
  P().Record("SendMessage", Ptr(Buffer));
  if (Buffer != P().MessageBuffer) {
    return EFI_INVALID_PARAMETER;
  }
  CopyMem(P().SentMessage, Buffer, EmuPlatform::kMessageBufferSize);
  P().SentMessageCount++;
  return EFI_SUCCESS;
}

// Answers from the layout of the image handed over (the platform's image layout).
EFI_STATUS EFIAPI ConfigGetUpdateLayout(const VOID *Image, UINT64 ImageSize, UINT64 *Source0, UINT64 *Source1,
                                        UINT64 *Source2, UINT64 *Source3, UINT64 *Ibb1Offset, UINT64 *Ibb1Size,
                                        UINT64 *Ibb2Offset, UINT64 *Ibb2Size, UINT64 *Ibb3Offset, UINT64 *Ibb3Size,
                                        UINT64 *Ibb4Offset, UINT64 *Ibb4Size) {
  P().Record("GetUpdateLayout", Ptr(Image), ImageSize);
  UINT64 *Sources[4] = {Source0, Source1, Source2, Source3};
  UINT64 *Values[8] = {Ibb1Offset, Ibb1Size, Ibb2Offset, Ibb2Size, Ibb3Offset, Ibb3Size, Ibb4Offset, Ibb4Size};
  return P().UpdateLayout.Answer(P().Layout, Image, ImageSize, Sources, Values);
}

// ---- Boot-block handler and update log ---------------------------------------------------
EFI_STATUS EFIAPI BootBlockMember0() {
  P().Record("BootBlockMember0");
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI BootBlockHandleMarker() {
  P().Record("BootBlockHandleMarker");
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI UpdateLogWriteRecord(UpdateLogProtocol *This, UINT32 RecordType, UINT64 Length, const VOID *Data) {
  P().Record("UpdateLogWriteRecord", Ptr(This), RecordType, Length, Ptr(Data));
  if (P().Flash.PowerLost()) {
    return EFI_DEVICE_ERROR;  // the platform is off: its log keeps what it had at the cut
  }
  return P().UpdateLogStore.Write(RecordType, Length, Data);
}

EFI_STATUS Install(EFI_BOOT_SERVICES *BootServices, const EFI_GUID &Guid, VOID *Interface) {
  EFI_HANDLE Handle = nullptr;
  return BootServices->InstallProtocolInterface(&Handle, const_cast<EFI_GUID *>(&Guid), EFI_NATIVE_INTERFACE,
                                                Interface);
}

}  // namespace

void EmuFillProtocols(EmuPlatform &Platform) {
  PlatformFlashDeviceProtocol &Device = *Platform.FlashDevice;
  Device.FlashDeviceWrite = FlashDeviceWrite;
  Device.FlashDeviceErase = FlashDeviceErase;
  Device.FlashDeviceDelay = FlashDeviceDelay;
  Device.PrepareSetupData = FlashDevicePrepareSetupData;

  PlatformFlashServiceProtocol &Service = *Platform.FlashService;
  Service.PlatformData = Platform.PlatformData;
  Platform.PlatformData->PoolBufferLocation = &Platform.CompletionPoolBuffer;
  Service.ReadFlash = ReadFlash;
  Service.SetFlashAccessType = SetFlashAccessType;
  Service.WriteFlash = WriteFlash;
  Service.ReadEc = ReadEc;
  Service.WriteEc = WriteEc;
  Service.SetUpdateInProgress = SetUpdateInProgress;
  Service.CompletionNotify = CompletionNotify;
  Service.SetDebugCodeDisplay = SetDebugCodeDisplay;
  Service.Member51C = FlashServiceMember51C;

  PlatformConfigProtocol &Config = *Platform.Config;
  Config.NotifyUpdatePhase = ConfigNotifyUpdatePhase;
  Config.CheckImage = ConfigCheckImage;
  Config.UpdateStatusBlock = Platform.UpdateStatusBlock;
  Config.GetMessageBuffer = ConfigGetMessageBuffer;
  Config.SendMessage = ConfigSendMessage;
  Config.GetUpdateLayout = ConfigGetUpdateLayout;
  // FlashDevice (0xAD) stays empty: the driver fills it at entry.

  Platform.BootBlockHandler->Member0 = BootBlockMember0;
  Platform.BootBlockHandler->HandleBootBlockMarker = BootBlockHandleMarker;
  Platform.UpdateLog->WriteRecord = UpdateLogWriteRecord;
}

EFI_STATUS EmuInstallProtocols(EmuPlatform &Platform, EFI_BOOT_SERVICES *BootServices,
                               const EmuInstallOptions &Options) {
  struct Entry {
    BOOLEAN Wanted;
    const EFI_GUID *Guid;
    VOID *Interface;
  } Entries[] = {
      {Options.PlatformHandle, &gEmuPlatformProtocolGuid, &Platform},
      {Options.PlatformConfig, &gPlatformConfigProtocolGuid, Platform.Config},
      {Options.FlashService, &gPlatformFlashServiceProtocolGuid, Platform.FlashService},
      {Options.FlashDevice, &gPlatformFlashDeviceProtocolGuid, Platform.FlashDevice},
      {Options.BootBlockHandler, &gBootBlockHandlerProtocolGuid, Platform.BootBlockHandler},
      {Options.UpdateLog, &gUpdateLogProtocolGuid, Platform.UpdateLog},
      {Options.QueryNotify, &gQueryNotifyProtocolGuid, &Platform.FlashPlatform.QueryNotify},
      {Options.LowerFlashAccess, &gLowerFlashAccessProtocolGuid, &Platform.FlashPlatform.LowerFlashAccess},
      {Options.PostQuery, &gPostQueryProtocolGuid, &Platform.FlashPlatform.PostQuery},
      {Options.CallbackHub, &gCallbackHubProtocolGuid, &Platform.Hub.Registry},
      {Options.PointerRegistration, &gPointerRegistrationProtocolGuid, &Platform.Hub.PointerRegistration},
      {Options.SignatureVerifier, &gImageSignatureVerifyProtocolGuid, &Platform.SignatureKeys.Protocol},
  };
  Platform.Hub.Initialize();
  if (Options.CompletionPoolBuffer && Platform.CompletionPoolBuffer == nullptr &&
      BootServices->AllocatePool(EfiBootServicesData, kCompletionPoolBufferSize, &Platform.CompletionPoolBuffer) !=
          EFI_SUCCESS) {
    Platform.CompletionPoolBuffer = nullptr;
  }
  for (const Entry &Item : Entries) {
    if (Item.Wanted) {
      EFI_STATUS Status = Install(BootServices, *Item.Guid, Item.Interface);
      if (Status != EFI_SUCCESS) {
        return Status;
      }
    }
  }
  return EFI_SUCCESS;
}
