#include "CriticalDataAuthVar.h"

#include "../base/BaseLib.h"
#include "../base/ByteView.h"
#include "../base/Char16.h"
#include "../base/Globals.h"
#include "../base/Guids.h"
#include "../base/Hardware.h"
#include "../base/PiFirmwareVolume.h"
#include "../base/PiSmm.h"
#include "../driver/FlashMap.h"
#include "../driver/LibraryList.h"
#include "../driver/ProtocolServices.h"
#include "../driver/Trace.h"
#include "../flash/VariableStore.h"
#include "../flash/VariableStoreFormat.h"
#include "../verify/Sha256.h"
#include "CriticalVariableTable.h"

constinit CriticalVariableTableBlock mCriticalVariableTableBlock = {
    {'$', 'C', 'T', 'C', 'V', 'I', 'F', '$'},
    {
        {"AmdSetupPHX"_u16, &gAmdCbsSetupVariableGuid},
        {"AMD_PBS_SETUP"_u16, &gAmdPbsSetupVariableGuid},
        {nullptr, nullptr},
    },
};

SmmFwBlockServiceProtocol *mSmmFwbService = nullptr;
PlatformFlashDeviceProtocol *mQ42OFCServicePtr = nullptr;
EFI_EVENT mQ42OFCEvent = nullptr;
VOID *mQ42OFCRegistration = nullptr;
VOID *mSmmFwbServiceRegistration = nullptr;

namespace {

// gSmst is set by the constructor only when the library runs in SMM.
BOOLEAN RunsInSmm() { return gSmst != nullptr; }

// Pool of the phase the library runs in, freed on every path.
class LibraryPool {
public:
  explicit LibraryPool(UINTN Size) : Data_(static_cast<UINT8 *>(Services().Allocate(EfiBootServicesData, Size))) {}
  LibraryPool(const LibraryPool &) = delete;
  LibraryPool &operator=(const LibraryPool &) = delete;
  ~LibraryPool() {
    if (Data_ != nullptr) {
      Services().Free(Data_);
    }
  }
  explicit operator bool() const { return Data_ != nullptr; }
  UINT8 *Data() const { return Data_; }

private:
  static ProtocolServices Services() { return ProtocolServices{RunsInSmm()}; }
  UINT8 *Data_;
};

EFI_STATUS SmmLocateFwbService() {
  if (gSmst == nullptr || gSmst->SmmLocateProtocol == nullptr) {
    return EFI_NOT_FOUND;
  }
  VOID *Found = nullptr;
  EFI_STATUS Status =
      gSmst->SmmLocateProtocol(const_cast<EFI_GUID *>(&gSmmFwBlockServiceProtocolGuid), nullptr, &Found);
  if (Status == EFI_SUCCESS && Found == nullptr) {
    Status = EFI_NOT_FOUND;
  }
  if (Status == EFI_SUCCESS) {
    mSmmFwbService = static_cast<SmmFwBlockServiceProtocol *>(Found);
  }
  return Status;
}

EFI_STATUS EFIAPI OnSmmFwbServiceInstalled(const EFI_GUID *Protocol, VOID *Interface, EFI_HANDLE Handle) {
  (void)Protocol;
  (void)Interface;
  (void)Handle;
  SmmLocateFwbService();
  return EFI_SUCCESS;
}

EFI_STATUS LocateFlashDevice() {
  VOID *Found = nullptr;
  EFI_STATUS Status = gBS->LocateProtocol(const_cast<EFI_GUID *>(&gPlatformFlashDeviceProtocolGuid), nullptr, &Found);
  if (Status == EFI_SUCCESS && Found == nullptr) {
    Status = EFI_NOT_FOUND;
  }
  if (Status == EFI_SUCCESS) {
    mQ42OFCServicePtr = static_cast<PlatformFlashDeviceProtocol *>(Found);
  }
  return Status;
}

BOOLEAN IsRuntimeDriverImage(EFI_HANDLE ImageHandle) {
  EFI_LOADED_IMAGE *LoadedImage = nullptr;
  return gBS->HandleProtocol(ImageHandle, const_cast<EFI_GUID *>(&gEfiLoadedImageProtocolGuid),
                             reinterpret_cast<VOID **>(&LoadedImage)) == EFI_SUCCESS &&
         LoadedImage != nullptr && LoadedImage->ImageCodeType == EfiRuntimeServicesCode;
}

// UTF-16 name comparison up to the table name's terminator, never past the record's NameSize.
BOOLEAN NameMatches(const UINT8 *RecordName, UINT32 NameSize, const CHAR16 *Name) {
  for (UINTN Index = 0;; Index++) {
    if ((Index + 1) * sizeof(CHAR16) > NameSize) {
      return FALSE;
    }
    const UINT16 Stored = static_cast<UINT16>(RecordName[Index * 2] | (RecordName[Index * 2 + 1] << 8));
    if (Stored != static_cast<UINT16>(Name[Index])) {
      return FALSE;
    }
    if (Name[Index] == 0) {
      return TRUE;
    }
  }
}

// Where the live store's records begin and end, through the flash map; FALSE when the store
// is not in the map or not in mapped flash, or its headers do not fit it.
BOOLEAN FindLiveStore(const UINT8 *&First, const UINT8 *&End) {
  const UINT64 Address = FlashMapGetAddress(&gNvVariableStoreRegionGuid, 1);
  const UINT64 Size = FlashMapGetSize(&gNvVariableStoreRegionGuid, 1);
  if (Address == 0) {
    return FALSE;
  }
  const ByteView Store(Hw::FlashPointer(Address, Size), static_cast<UINTN>(Size));
  UINT16 HeaderLength = 0;
  if (!Store.Read16(offsetof(EFI_FIRMWARE_VOLUME_HEADER, HeaderLength), HeaderLength)) {
    return FALSE;
  }
  const UINT8 *Records = Store.At(UINTN{HeaderLength} + GetVariableStoreHeaderSize(), 0);
  if (Records == nullptr) {
    return FALSE;
  }
  First = Records;
  End = Store.Data() + Store.Size();
  return TRUE;
}

EFI_STATUS WriteBlockThroughSmm(UINT8 *Block) {
  if (mSmmFwbService == nullptr || mSmmFwbService->EraseBlocks == nullptr || mSmmFwbService->Write == nullptr) {
    TRACE("[Q42CriticalDataAuthVar] mSmmFwbService fault");
    return EFI_PROTOCOL_ERROR;
  }
  UINTN EraseSize = gConfig.CriticalDataSize;
  EFI_STATUS Status = mSmmFwbService->EraseBlocks(mSmmFwbService, gConfig.CriticalDataBase, &EraseSize);
  if (EfiError(Status)) {
    TRACE("[Q42CriticalDataAuthVar] EraseBlocks fault");
    return Status;
  }
  UINTN WriteSize = kCriticalDataBlockSize;
  Status = mSmmFwbService->Write(mSmmFwbService, gConfig.CriticalDataBase, &WriteSize, Block);
  if (EfiError(Status)) {
    TRACE("[Q42CriticalDataAuthVar] Write fault");
  }
  return Status;
}

EFI_STATUS WriteBlockThroughFlashDevice(const UINT8 *Block) {
  if (mQ42OFCServicePtr == nullptr || mQ42OFCServicePtr->FlashDeviceErase == nullptr ||
      mQ42OFCServicePtr->FlashDeviceWrite == nullptr) {
    TRACE("[Q42CriticalDataAuthVar] mQ42OFCServicePtr fault");
    return EFI_PROTOCOL_ERROR;
  }
  EFI_STATUS Status = mQ42OFCServicePtr->FlashDeviceErase(gConfig.CriticalDataBase, gConfig.CriticalDataSize);
  if (EfiError(Status)) {
    TRACE("[Q42CriticalDataAuthVar] EraseBlocks fault");
    return Status;
  }
  Status = mQ42OFCServicePtr->FlashDeviceWrite(gConfig.CriticalDataBase, Block, kCriticalDataBlockSize);
  if (EfiError(Status)) {
    TRACE("[Q42CriticalDataAuthVar] Write fault");
  }
  return Status;
}

}  // namespace

BOOLEAN IsCriticalVariable(const UINT8 *Record) {
  if (Record == nullptr) {
    return FALSE;
  }
  AuthenticatedVariableHeader Header;
  CopyMem(&Header, Record, sizeof(Header));
  if (Header.State != kVariableAdded && Header.State != kVariableInDeletedTransition) {
    return FALSE;
  }
  for (const CriticalVariableEntry *Entry = mCriticalVariableTableBlock.CriticalVariableTable; Entry->Name != nullptr;
       Entry++) {
    if (Entry->VendorGuid != nullptr && CompareGuid(Entry->VendorGuid, &Header.VendorGuid) &&
        NameMatches(Record + kVariableHeaderSize, Header.NameSize, Entry->Name)) {
      return TRUE;
    }
  }
  return FALSE;
}

EFI_STATUS Q42CriticalDataCopyCriticalVar(const UINT8 *First, const UINT8 *StoreEnd, UINT64 BufferSize,
                                          UINT8 *Buffer, UINT64 *Total, UINT8 *Digest) {
  if (Buffer == nullptr || Total == nullptr || First == nullptr || StoreEnd == nullptr || Digest == nullptr) {
    return EFI_INVALID_PARAMETER;
  }
  UINT64 Gathered = 0;
  for (const UINT8 *Record = First; IsVariableRecordInStore(Record, StoreEnd);) {
    const UINT8 *Next = GetNextVariableInStore(Record, StoreEnd);
    if (IsCriticalVariable(Record)) {
      const UINT64 Length = static_cast<UINT64>(Next - Record);
      if (Length <= BufferSize && Gathered <= BufferSize - Length) {
        CopyMem(Buffer + Gathered, Record, static_cast<UINTN>(Length));
      }
      Gathered += Length;
    }
    Record = Next;
  }
  *Total = Gathered;
  ZeroMem(Digest, kSha256DigestSize);
  if (Gathered > BufferSize) {
    return EFI_BUFFER_TOO_SMALL;
  }
  if (Gathered == 0) {
    return EFI_SUCCESS;
  }
  LibraryPool Context(Sha256GetContextSize());
  if (!Context) {
    return EFI_OUT_OF_RESOURCES;
  }
  if (!Sha256Init(Context.Data()) || !Sha256Update(Context.Data(), Buffer, Gathered) ||
      !Sha256Final(Context.Data(), Digest)) {
    ZeroMem(Digest, kSha256DigestSize);
    return EFI_ABORTED;
  }
  return EFI_SUCCESS;
}

EFI_STATUS Q42CriticalDataAuthVar() {
  TRACE("[Q42CriticalDataAuthVar]Entry");
  if (!gConfig.CriticalDataAuthVarEnabled) {
    return EFI_UNSUPPORTED;
  }
  UINT8 Digest[kSha256DigestSize];
  {
    LibraryPool Gathering(gConfig.VariableStoreSize);
    if (!Gathering) {
      TRACE("[Q42CriticalDataAuthVar]Allocate authenticated variable backup buffer error");
      return EFI_OUT_OF_RESOURCES;
    }
    const UINT8 *First = nullptr;
    const UINT8 *StoreEnd = nullptr;
    if (!FindLiveStore(First, StoreEnd)) {
      return EFI_NOT_FOUND;
    }
    TRACE("[Q42CriticalDataAuthVar]OnboardVariableHeader = %x", reinterpret_cast<UINTN>(First));
    UINT64 Total = 0;
    const EFI_STATUS Status =
        Q42CriticalDataCopyCriticalVar(First, StoreEnd, gConfig.VariableStoreSize, Gathering.Data(), &Total, Digest);
    if (EfiError(Status)) {
      TRACE("[Q42CriticalDataAuthVar]Q42CriticalDataCopyCriticalVar error");
      return Status;
    }
  }

  const UINT8 *Stored = Hw::FlashPointer(gConfig.CriticalDataBase, kCriticalDataBlockSize);
  if (Stored == nullptr) {
    return EFI_NOT_FOUND;
  }
  if (CompareMem(Stored + kCriticalVariableDigestOffset, Digest, kCriticalVariableDigestSize) == 0) {
    return EFI_SUCCESS;
  }
  LibraryPool Block(kCriticalDataBlockSize);
  if (!Block) {
    return EFI_OUT_OF_RESOURCES;
  }
  CopyMem(Block.Data(), Stored, kCriticalDataBlockSize);
  CopyMem(Block.Data() + kCriticalVariableDigestOffset, Digest, kCriticalVariableDigestSize);
  return RunsInSmm() ? WriteBlockThroughSmm(Block.Data()) : WriteBlockThroughFlashDevice(Block.Data());
}

VOID EFIAPI Q42OFCCallback(EFI_EVENT Event, VOID *Context) {
  (void)Context;
  if (EfiError(LocateFlashDevice())) {
    TRACE("[Q42OFCCallback] Q42Service locate fail.");
  }
  if (EfiError(gBS->CloseEvent(Event))) {
    TRACE("[Q42OFCCallback] Close event fail.");
  }
  if (Event == mQ42OFCEvent) {
    mQ42OFCEvent = nullptr;
    mQ42OFCRegistration = nullptr;
  }
}

EFI_STATUS EFIAPI CriticalDataAuthVarLibConstructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)SystemTable;
  EFI_SMM_BASE2_PROTOCOL *SmmBase2 = nullptr;
  BOOLEAN InSmram = FALSE;
  if (gBS->LocateProtocol(const_cast<EFI_GUID *>(&gEfiSmmBase2ProtocolGuid), nullptr,
                          reinterpret_cast<VOID **>(&SmmBase2)) == EFI_SUCCESS &&
      SmmBase2 != nullptr && SmmBase2->InSmm(SmmBase2, &InSmram) != EFI_SUCCESS) {
    InSmram = FALSE;
  }

  if (InSmram) {
    const EFI_STATUS Status = SmmBase2->GetSmstLocation(SmmBase2, &gSmst);
    if (EfiError(Status)) {
      return Status;
    }
    if (EfiError(SmmLocateFwbService()) && gSmst->SmmRegisterProtocolNotify != nullptr &&
        EfiError(gSmst->SmmRegisterProtocolNotify(&gSmmFwBlockServiceProtocolGuid,
                                                  reinterpret_cast<VOID *>(&OnSmmFwbServiceInstalled),
                                                  &mSmmFwbServiceRegistration))) {
      mSmmFwbServiceRegistration = nullptr;
    }
    return EFI_SUCCESS;
  }

  // A boot-service driver image gets no later chance: the protocol is there at start or never.
  if (EfiError(LocateFlashDevice()) && IsRuntimeDriverImage(ImageHandle)) {
    if (EfiError(gBS->CreateEvent(EVT_NOTIFY_SIGNAL, TPL_CALLBACK, Q42OFCCallback, nullptr, &mQ42OFCEvent))) {
      mQ42OFCEvent = nullptr;
    } else if (EfiError(gBS->RegisterProtocolNotify(const_cast<EFI_GUID *>(&gPlatformFlashDeviceProtocolGuid),
                                                    mQ42OFCEvent, &mQ42OFCRegistration))) {
      mQ42OFCRegistration = nullptr;
    }
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI CriticalDataAuthVarLibDestructor(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable) {
  (void)ImageHandle;
  (void)SystemTable;
  if (RunsInSmm()) {
    if (mSmmFwbServiceRegistration != nullptr && gSmst->SmmRegisterProtocolNotify != nullptr) {
      gSmst->SmmRegisterProtocolNotify(&gSmmFwBlockServiceProtocolGuid, nullptr, &mSmmFwbServiceRegistration);
    }
    mSmmFwbServiceRegistration = nullptr;
  } else if (mQ42OFCEvent != nullptr) {
    gBS->CloseEvent(mQ42OFCEvent);
    mQ42OFCEvent = nullptr;
    mQ42OFCRegistration = nullptr;
  }
  return EFI_SUCCESS;
}

#if defined(BIOS_HOST_BUILD)
void ResetCriticalDataAuthVarForTest() {
  mSmmFwbService = nullptr;
  mQ42OFCServicePtr = nullptr;
  mQ42OFCEvent = nullptr;
  mQ42OFCRegistration = nullptr;
  mSmmFwbServiceRegistration = nullptr;
}
#endif
