// The end of an update by status and boot: the mirrored CMOS bytes, the platform calls, the
// completion variables, message and marker protocol, and the variable backup's restore and erase.
#include <algorithm>
#include <cstring>

#include "../../emu/host/EmuHostMemory.h"
#include "../../src/driver/Config.h"
#include "../../src/flash/VariableStore.h"
#include "../../src/platform/Cmos.h"
#include "../../src/update/CompletionStatus.h"
#include "../flash/FlashFixture.h"

namespace {

using namespace EmuFlashLayout;

constexpr EFI_STATUS kPlatformAnswer = EFI_DEVICE_ERROR;  // what NotifyUpdatePhase answers
constexpr UINT8 kPlatformState = 0x21;                    // the status block's 0xF9 value
constexpr UINT32 kProgressBefore = 0x34;

struct CompletionCase {
  const char *Name;
  UINT8 Status;
  UINT8 StateBefore;  // CMOS 0xF9
  UINT32 Mode;
  bool RecoveryBoot;
  bool Written;  // mFlashWritten
  bool Backup;   // a valid variable backup at entry
  // Expected:
  UINT8 StateAfter;      // CMOS 0xF9
  UINT8 Marker;          // CMOS 0xEE
  bool EndsUpdate;       // SetUpdateInProgress(0), progress record cleared
  bool Published;        // marker protocol, Q42FlashCompleteAll
  bool Message;          // Q42UpdateToolComplete and the message
  bool Hft;              // HFT written back
  bool DefaultSecurity;  // Q42DefaultSecurityByUefiFlashAll
  bool Restored;         // backup restored into the live store and erased
};

constexpr UINT32 N = UpdateModeNormal, R = UpdateModeRecovery, H = UpdateModeHft;
const CompletionCase kCases[] = {
    {"0 publishes", 0, 5, N, false, true, false, 5, 0, true, true, true, false, false, false},
    {"0 with nothing written", 0, 7, N, false, false, false, 0, 0, true, true, false, false, false, false},
    {"3 clears a kept 5", 3, 5, N, false, true, false, 0, 0, true, false, false, false, false, false},
    {"5 keeps a 5", 5, 5, N, false, true, false, 5, 0, true, false, false, false, false, false},
    {"12 keeps the update going", 12, 7, N, false, true, false, 0, 0, false, false, false, false, false, false},
    {"13 in HFT mode", 13, 5, H, false, true, true, kPlatformState, 0, false, false, false, true, true, true},
    {"13 in normal mode", 13, 0, N, false, true, false, kPlatformState, 0, false, false, false, false, false, false},
    {"1 runs all but the publications", 1, 5, N, false, true, false, 5, 0, true, false, false, false, false, false},
    {"0 with a valid backup", 0, 0, N, false, true, true, 0, 0, true, true, true, false, true, true},
    {"0 in a recovery boot", 0, 0, R, true, true, true, 0, 0x5A, true, true, true, false, false, true},
    {"1 in a recovery boot", 1, 0, R, true, true, true, 0, 0, true, false, false, false, false, true},
};

class CompletionStatus : public FlashFixture {
protected:
  void StartWithPoolBuffer() {
    Install.CompletionPoolBuffer = TRUE;
    Start();
    ASSERT_NE(Platform->CompletionPoolBuffer, nullptr);
    Platform->Config->Flags = kPlatformConfigAlternativeFlag;  // region-tracked
  }

  // A valid CmosToRom image and live extended CMOS holding the same bytes.
  void PublishCmos(UINT8 State) {
    auto *Image = static_cast<UINT8 *>(EmuHostAllocateBelow4G(CmosToRomImage::kSize));
    std::memset(Image, 0, CmosToRomImage::kSize);
    const std::pair<UINT8, UINT8> Bytes[] = {{kCmosCompletionStatusIndex, 0x77}, {kCmosUpdateStateIndex, State},
                                             {kCmosRecoveryMarkerIndex, 0x33}};
    for (auto [Index, Value] : Bytes) {
      Image[CmosToRomImage::kBank1 + Index] = Value;
      Platform->ExtendedCmos[Index] = Value;
    }
    const UINT16 Checksum = CmosImageChecksum(Image, 1);
    std::memcpy(Image + CmosToRomImage::kBank1ChecksumOffset, &Checksum, sizeof(Checksum));
    const UINT32 Address = static_cast<UINT32>(reinterpret_cast<UINTN>(Image));
    Sim.SetVariable(u"Q42CmosToRom", gPlatformVariableGuid, EFI_VARIABLE_BOOTSERVICE_ACCESS, &Address, 4);
  }

  // A 1-byte variable as (attributes << 8 | value), or -1 when it is not there.
  int ByteVariable(const std::u16string &Name) const {
    const SimVariable *Found = Sim.FindVariable(Name, gPlatformVariableGuid);
    return Found == nullptr || Found->Data.size() != 1 ? -1 : int(Found->Attributes << 8 | Found->Data[0]);
  }
  bool HasMarker() const {
    const auto Handles = Sim.HandlesWith(gFlashCompleteProtocolGuid);
    return std::find(Handles.begin(), Handles.end(), Sim.ImageHandle()) != Handles.end();
  }
  bool FlashWrittenAt(UINT32 Address, UINT32 Length) const {
    for (const EmuCall &Call : CallsNamed("WriteFlash")) {
      if (Call.Arguments[1] == Address && Call.Arguments[3] == Length) {
        return true;
      }
    }
    return false;
  }
};

TEST_F(CompletionStatus, EachStatusAndBootEndsTheUpdateAsItsRowSays) {
  StartWithPoolBuffer();
  for (const CompletionCase &Case : kCases) {
    SCOPED_TRACE(Case.Name);
    Sim.Variables().clear();
    PublishCmos(Case.StateBefore);
    if (Case.Backup != (IsBackupStoreValid() == EFI_SUCCESS)) {
      ASSERT_EQ(Case.Backup ? BackupVariableStore(DefaultImage().data(), DefaultImage().size()) : EraseVariableBackup(),
                EFI_SUCCESS);
    }
    mUpdateMode = Case.Mode;
    mBootMode = Case.RecoveryBoot ? BOOT_IN_RECOVERY_MODE : BOOT_WITH_FULL_CONFIGURATION;
    mFlashWritten = Case.Written;
    mHftValue = 0x6C;
    Platform->UpdateStatusBlock[kUpdateStatusBlockCmosValue] = kPlatformState;
    Platform->NotifyUpdatePhaseStatus = kPlatformAnswer;
    Platform->UpdateLogStore.ProgressCode = kProgressBefore;
    Platform->SentMessageCount = 0;
    Platform->ClearCalls();
    if (HasMarker()) {
      ASSERT_EQ(Sim.BootServices()->UninstallProtocolInterface(
                    Sim.ImageHandle(), const_cast<EFI_GUID *>(&gFlashCompleteProtocolGuid), nullptr),
                EFI_SUCCESS);
    }

    EXPECT_EQ(mBiosImageInterface->SetFlashCompletionStatus(mBiosImageInterface, Case.Status), kPlatformAnswer);

    EXPECT_EQ(Platform->ExtendedCmos[kCmosCompletionStatusIndex], Case.Status);
    EXPECT_EQ(Platform->ExtendedCmos[kCmosUpdateStateIndex], Case.StateAfter);
    EXPECT_EQ(Platform->ExtendedCmos[kCmosRecoveryMarkerIndex], Case.Marker);
    EXPECT_EQ(CallsNamed("CompletionNotify").size(), 1u);
    EXPECT_EQ(CallsNamed("SetUpdateInProgress").size(), Case.EndsUpdate ? 1u : 0u);
    EXPECT_EQ(Platform->UpdateLogStore.ProgressCode, Case.EndsUpdate ? EmuUpdateLog::kProgressCleared : kProgressBefore);

    EXPECT_EQ(ByteVariable(u"Q42FlashCompleteAll"), Case.Published ? 0x700 : -1);
    EXPECT_EQ(HasMarker(), Case.Published);
    EXPECT_EQ(ByteVariable(u"Q42UpdateToolComplete"), Case.Message ? 0x601 : -1) << "volatile";
    EXPECT_EQ(Platform->SentMessageCount, Case.Message ? 1u : 0u);
    const UINT8 Finished[13] = {'$', 'F', 'I', 'N', 'I', 'S', 'H', 'I', 13, 0, 0, 0, 1};
    EXPECT_TRUE(!Case.Message || std::memcmp(Platform->SentMessage, Finished, sizeof(Finished)) == 0);
    EXPECT_EQ(ByteVariable(u"HFT"), Case.Hft ? 0x76C : -1);
    EXPECT_EQ(ByteVariable(u"Q42DefaultSecurityByUefiFlashAll"), Case.DefaultSecurity ? 0x76C : -1);
    EXPECT_EQ(FlashWrittenAt(kVariableStoreAddress, kVariableStoreSize), Case.Restored) << "restore";
    EXPECT_EQ(FlashWrittenAt(kVariableBackupAddress, kVariableBackupSize), Case.Restored) << "erase";
    EXPECT_EQ(IsBackupStoreValid(), Case.Backup && !Case.Restored ? EFI_SUCCESS : EFI_NOT_FOUND);
  }
}

TEST_F(CompletionStatus, FreesThePlatformPoolBufferOnceAndTracesTheStatusInHex) {
  StartWithPoolBuffer();
  PublishCmos(0);
  EnableTraces(true);
  const UINT64 Stalled = Sim.StalledMicroseconds();
  mBiosImageInterface->SetFlashCompletionStatus(mBiosImageInterface, 13);
  EXPECT_EQ(Platform->CompletionPoolBuffer, nullptr);
  EXPECT_GE(Sim.StalledMicroseconds() - Stalled, 5000u);
  const auto Lines = Traces();
  EXPECT_NE(std::find(Lines.begin(), Lines.end(), "  BiosImageInterfaceProtocol->SetFlashCompletionStatus Entry [d]"),
            Lines.end());

  // The platform leaves another buffer; it goes back to the pool once, and a repeated call
  // finds nothing to free and its marker installation fails unexamined.
  ASSERT_EQ(Sim.BootServices()->AllocatePool(EfiBootServicesData, 16, &Platform->CompletionPoolBuffer), EFI_SUCCESS);
  const size_t Live = Sim.LiveAllocations();
  EXPECT_EQ(mBiosImageInterface->SetFlashCompletionStatus(mBiosImageInterface, 0), EFI_SUCCESS);
  EXPECT_EQ(mBiosImageInterface->SetFlashCompletionStatus(mBiosImageInterface, 0), EFI_SUCCESS);
  EXPECT_EQ(Sim.LiveAllocations(), Live - 1);
  EXPECT_EQ(Sim.HandlesWith(gFlashCompleteProtocolGuid).size(), 1u);
}

}  // namespace
