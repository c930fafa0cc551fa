// The critical-variable digest: which records are gathered, what lands in the critical-data
// block and through which flash service, when nothing is written, and how the library finds
// its service at start (boot services or a later installation).
#include <openssl/sha.h>

#include <set>
#include <string>
#include <vector>

#include "../../emu/EmuSmmFwBlock.h"
#include "../../src/base/Globals.h"
#include "../../src/driver/Config.h"
#include "../../src/driver/LibraryList.h"
#include "../../src/update/CriticalDataAuthVar.h"
#include "../../src/update/CriticalVariableTable.h"
#include "../../tools/lib/VariableStoreBuilder.h"
#include "../flash/FlashFixture.h"

namespace {

using namespace EmuFlashLayout;
using Bytes = std::vector<uint8_t>;

constexpr UINT32 kBlock = 0xFF0E9000;

Bytes Sha256Of(const Bytes &Data) {
  Bytes Digest(32);
  SHA256(Data.data(), Data.size(), Digest.data());
  return Digest;
}

class CriticalDigest : public FlashFixture {
protected:
  void SetUp() override {
    Start();
    EnableTraces(true);
  }

  // Puts a live store holding Records into the chip; returns the digest the block must get
  // when the records named in Counted are gathered in store order (zeros when none is).
  Bytes LoadStore(const std::vector<VariableRecord> &Records,
                  const std::set<std::u16string> &Counted = {u"AmdSetupPHX", u"AMD_PBS_SETUP"}) {
    VariableStoreBuilder Store(kVariableStoreSize, StoreHeaderForm::Vss);
    Store.Add(Records);
    Platform->Flash.Load(kVariableStoreAddress - kMappedBase, Store.Bytes().data(), kVariableStoreSize);
    Bytes Gathered;
    for (const VariableRecord &Record : Records) {
      const Bytes One = Counted.count(Record.Name) != 0 ? VariableRecordBytes(Record) : Bytes();
      Gathered.insert(Gathered.end(), One.begin(), One.end());
    }
    return Gathered.empty() ? Bytes(32, 0) : Sha256Of(Gathered);
  }
  Bytes Flash(UINT32 Address, UINT32 Length) const {
    const UINT8 *At = Platform->MappedFlash(Address, Length);
    return Bytes(At, At + Length);
  }
};

TEST_F(CriticalDigest, RewritesOnlyTheDigestOnceThenWritesNothingEvenWithoutAService) {
  const Bytes Expected = LoadStore(DefaultLiveVariables());
  const Bytes Before = Flash(kBlock, 0x1000);
  ASSERT_EQ(Q42CriticalDataAuthVar(), EFI_SUCCESS);
  Bytes After = Flash(kBlock, 0x1000);
  EXPECT_EQ(Bytes(After.begin() + 32, After.begin() + 64), Expected);
  std::copy(Before.begin() + 32, Before.begin() + 64, After.begin() + 32);
  EXPECT_EQ(After, Before) << "bytes outside 32..63 changed";

  Platform->ClearCalls();
  mQ42OFCServicePtr = nullptr;
  EXPECT_EQ(Q42CriticalDataAuthVar(), EFI_SUCCESS);
  EXPECT_EQ(Platform->CallCount, 0u);
}

// Which records are gathered: added and in-deleted-transition records under their own vendor.
TEST_F(CriticalDigest, GathersLiveCriticalRecordsOnly) {
  auto With = [](auto Change) {
    std::vector<VariableRecord> Records = DefaultLiveVariables();
    for (VariableRecord &Record : Records) {
      if (Record.Name == u"AmdSetupPHX") {
        Change(Record);
      }
    }
    return Records;
  };
  struct Row {
    const char *Name;
    std::vector<VariableRecord> Records;
    std::set<std::u16string> Counted;
  } Rows[] = {
      {"deleted", With([](VariableRecord &R) { R.State = 0x3C; }), {u"AMD_PBS_SETUP"}},
      {"in deleted transition", With([](VariableRecord &R) { R.State = 0x3E; }), {u"AmdSetupPHX", u"AMD_PBS_SETUP"}},
      {"other vendor", With([](VariableRecord &R) { R.Vendor = gPlatformVariableGuid; }), {u"AMD_PBS_SETUP"}},
      {"none", {PlainVariable(u"Timeout", gEfiGlobalVariableVendorGuid, {5, 0})}, {}},
  };
  for (const Row &R : Rows) {
    const Bytes Expected = LoadStore(R.Records, R.Counted);
    EXPECT_EQ(Q42CriticalDataAuthVar(), EFI_SUCCESS) << R.Name;
    EXPECT_EQ(Flash(kBlock + 32, 32), Expected) << R.Name;
  }
}

// A record cut by the store's end is not gathered; a store too large for the buffer writes nothing.
TEST_F(CriticalDigest, BufferTooSmallWritesNothingAndTheWalkStopsAtTheStoreEnd) {
  const Bytes Phx = VariableRecordBytes(PlainVariable(u"AmdSetupPHX", gAmdCbsSetupVariableGuid, Bytes(0x40, 1)));
  const Bytes Pbs = VariableRecordBytes(PlainVariable(u"AMD_PBS_SETUP", gAmdPbsSetupVariableGuid, Bytes(0x20, 2)));
  Bytes Store = Phx;
  Store.insert(Store.end(), Pbs.begin(), Pbs.end());
  Bytes Buffer(Store.size(), 0xEE);
  UINT64 Total = 0;
  UINT8 Digest[32];
  EXPECT_EQ(Q42CriticalDataCopyCriticalVar(Store.data(), Store.data() + Store.size() - 1, Store.size(),
                                           Buffer.data(), &Total, Digest),
            EFI_SUCCESS);
  EXPECT_EQ(Total, Phx.size());
  EXPECT_EQ(Bytes(Digest, Digest + 32), Sha256Of(Phx));

  LoadStore(DefaultLiveVariables());
  gConfig.VariableStoreSize = 0x800;  // AmdSetupPHX alone is larger
  EXPECT_EQ(Q42CriticalDataAuthVar(), EFI_BUFFER_TOO_SMALL);
  const auto Lines = Traces();
  EXPECT_NE(std::find(Lines.begin(), Lines.end(), "[Q42CriticalDataAuthVar]Q42CriticalDataCopyCriticalVar error"),
            Lines.end());
  EXPECT_EQ(Platform->CallCount, 0u);
}

// Rows in SMM come last: once the SMM base protocol answers TRUE the library stays in SMM.
TEST_F(CriticalDigest, WritesThroughTheServiceOfItsPhaseOrFails) {
  struct Row {
    const char *Name;
    bool Smm, Service;
    UINT64 FailingOperation;  // 1 the erase, 2 the write
    bool Enabled;
    EFI_STATUS Status;
    std::vector<std::string> Calls;
  };
  // Where they land is seen in the block's bytes.
  const std::string kErase = "FlashDeviceErase", kWrite = "FlashDeviceWrite";
  const std::string kSmmErase = "SmmFwBlockEraseBlocks", kSmmWrite = "SmmFwBlockWrite";
  const Row Rows[] = {
      {"boot services", false, true, 0, true, EFI_SUCCESS, {kErase, kWrite}},
      {"no flash device", false, false, 0, true, EFI_PROTOCOL_ERROR, {}},
      {"erase fails", false, true, 1, true, EFI_DEVICE_ERROR, {kErase}},
      {"write fails", false, true, 2, true, EFI_DEVICE_ERROR, {kErase, kWrite}},
      {"switched off", false, true, 0, false, EFI_UNSUPPORTED, {}},
      {"SMM", true, true, 0, true, EFI_SUCCESS, {kSmmErase, kSmmWrite}},
      {"no SMM service", true, false, 0, true, EFI_PROTOCOL_ERROR, {}},
  };
  const Bytes Erased(32, 0xFF);
  for (const Row &R : Rows) {
    if (R.Smm && gSmst == nullptr) {
      Sim.InstallSmmBase2(TRUE);
      Sim.InstallSmmProtocol(gSmmFwBlockServiceProtocolGuid, EmuSmmFwBlockService());
      ResetCriticalDataAuthVarForTest();
      ASSERT_EQ(CriticalDataAuthVarLibConstructor(Sim.ImageHandle(), Sim.SystemTable()), EFI_SUCCESS);
    }
    mSmmFwbService = R.Smm && R.Service ? EmuSmmFwBlockService() : nullptr;
    mQ42OFCServicePtr = !R.Smm && R.Service ? Platform->FlashDevice : nullptr;
    gConfig.CriticalDataAuthVarEnabled = R.Enabled;
    Platform->Flash.Load(kBlock + 32 - kMappedBase, Erased.data(), 32);  // a digest that differs
    Platform->Flash.ClearFaults();
    Platform->Flash.FailOperation(R.FailingOperation);
    Platform->ClearCalls();
    EXPECT_EQ(Q42CriticalDataAuthVar(), R.Status) << R.Name;
    EXPECT_EQ(CallNames(), R.Calls) << R.Name;
    EXPECT_EQ(Flash(kBlock + 32, 32) != Erased, R.Status == EFI_SUCCESS) << R.Name;
  }
  Platform->Flash.ClearFaults();
}

// Without the flash device at start only a runtime driver image waits for it.
TEST_F(CriticalDigest, FindsItsServiceAtStartOrWhenInstalledLater) {
  EXPECT_EQ(mQ42OFCServicePtr, Platform->FlashDevice);
  EFI_GUID *Device = const_cast<EFI_GUID *>(&gPlatformFlashDeviceProtocolGuid);
  const EFI_HANDLE Holder = Sim.HandlesWith(*Device).at(0);
  ASSERT_EQ(gBS->UninstallProtocolInterface(Holder, Device, Platform->FlashDevice), EFI_SUCCESS);

  ResetCriticalDataAuthVarForTest();
  ASSERT_EQ(CriticalDataAuthVarLibConstructor(Sim.ImageHandle(), Sim.SystemTable()), EFI_SUCCESS);
  EXPECT_EQ(mQ42OFCServicePtr, nullptr);
  EXPECT_EQ(mQ42OFCEvent, nullptr) << "a boot-service driver image registers nothing";

  Sim.LoadedImage()->ImageCodeType = EfiRuntimeServicesCode;
  ASSERT_EQ(CriticalDataAuthVarLibConstructor(Sim.ImageHandle(), Sim.SystemTable()), EFI_SUCCESS);
  const size_t OpenEvents = Sim.OpenEvents();
  EFI_HANDLE Handle = nullptr;
  ASSERT_EQ(gBS->InstallProtocolInterface(&Handle, Device, EFI_NATIVE_INTERFACE, Platform->FlashDevice), EFI_SUCCESS);
  EXPECT_EQ(mQ42OFCServicePtr, Platform->FlashDevice);
  EXPECT_EQ(Sim.OpenEvents(), OpenEvents - 1) << "the callback closes its event";
  EXPECT_EQ(CriticalDataAuthVarLibDestructor(Sim.ImageHandle(), Sim.SystemTable()), EFI_SUCCESS);
}
}  // namespace
