// The callback hub as other drivers see it: the registry, nodes created by a first signal,
// dispatch with the stop bit, nesting and deferred removal, and the image hook records. The
// test plays the other drivers: it registers callback entries by their byte offsets.
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "../../src/base/BaseLib.h"
#include "../../src/base/Globals.h"
#include "../../src/base/Guids.h"
#include "../../src/driver/CallbackHub.h"
#include "../../src/driver/Config.h"
#include "../../src/driver/DriverState.h"
#include "../../src/driver/HookPoints.h"
#include "../../src/driver/LibraryList.h"
#include "../support/PlatformFixture.h"

namespace {

// The entry layout as a registering driver writes it.
constexpr size_t kEntryLink = 0x08;
constexpr size_t kEntryCallback = 0x40;
constexpr size_t kEntryRemoved = 0x60;
constexpr size_t kEntryBytes = 0x70;  // 0x61 used; the rest is the registering driver's
constexpr size_t kNodeLists = 0x18;

const EFI_GUID kTestHook = {0x1d6e2a40, 0x5c1b, 0x4f0e, {0x9a, 0x11, 0x42, 0x7c, 0x0b, 0x66, 0x3e, 0x01}};
const EFI_GUID kOtherHook = {0x1d6e2a40, 0x5c1b, 0x4f0e, {0x9a, 0x11, 0x42, 0x7c, 0x0b, 0x66, 0x3e, 0x02}};

struct TestRecord {
  UINT32 Size;
  UINT32 Status;
  UINT64 Payload;
};

class CallbackHubTest;
CallbackHubTest *gTest = nullptr;

// What a callback does when called, by the entry's tag (kept in the registering driver's bytes).
struct Behaviour {
  UINT32 SetStatus = 0;          // OR-ed into the record's Status
  bool SignalNested = false;     // signals the same hook again with NestedRecord
  std::vector<UINT8 *> Remove;  // entries to mark Removed
};

class CallbackHubTest : public PlatformFixture {
protected:
  CallbackHubTest() { gTest = this; }
  ~CallbackHubTest() override { gTest = nullptr; }
  void SetUp() override { ASSERT_EQ(StartDriver(), EFI_SUCCESS); }

  UINT8 *Node(const EFI_GUID &Guid) {
    if (HookFind(&Guid) == nullptr) {
      TestRecord Create = {sizeof(TestRecord), 0, 0};
      EXPECT_EQ(HookSignal(&Guid, &Create), EFI_SUCCESS);
    }
    return reinterpret_cast<UINT8 *>(HookFind(&Guid));
  }

  // Allocates an entry from pool (the hub frees removed entries there) and appends it to a list.
  UINT8 *Register(const EFI_GUID &Guid, size_t List, int Tag) {
    VOID *Memory = nullptr;
    EXPECT_EQ(gBS->AllocatePool(EfiBootServicesData, kEntryBytes, &Memory), EFI_SUCCESS);
    auto *Entry = static_cast<UINT8 *>(Memory);
    std::memset(Entry, 0, kEntryBytes);
    std::memcpy(Entry, &Tag, sizeof(Tag));
    HOOK_CALLBACK Function = &Callback;
    std::memcpy(Entry + kEntryCallback, &Function, sizeof(Function));
    auto *Head = reinterpret_cast<LIST_ENTRY *>(Node(Guid) + kNodeLists + 16 * List);
    auto *Link = reinterpret_cast<LIST_ENTRY *>(Entry + kEntryLink);
    Link->Flink = Head;
    Link->Blink = Head->Blink;
    Head->Blink->Flink = Link;
    Head->Blink = Link;
    return Entry;
  }

  // Entries the hub did not free belong to the registering driver, which outlives the test.
  void TearDown() override { Sim.AdoptLiveAllocations(); }

  static VOID EFIAPI Callback(UINTN First, HookEntry *Entry) {
    auto *Bytes = reinterpret_cast<UINT8 *>(Entry);
    int Tag = 0;
    std::memcpy(&Tag, Bytes, sizeof(Tag));
    HookNode *Current = HookFind(&gTest->Signalled);
    Call Made = {Tag, First, Current->CurrentRecord, Current->Depth, {}};
    const UINT32 Size = ReadUnaligned32(Made.Record);
    std::memcpy(Made.Bytes, Made.Record, Size < sizeof(Made.Bytes) ? Size : sizeof(Made.Bytes));
    gTest->Calls.push_back(Made);
    Behaviour &Do = gTest->Behaviours[Tag];
    for (UINT8 *Target : Do.Remove) {
      Target[kEntryRemoved] = 1;
    }
    if (Do.SignalNested) {
      Do.SignalNested = false;  // once
      VOID *Outer = Current->CurrentRecord;
      EXPECT_EQ(HookSignal(&gTest->Signalled, &gTest->NestedRecord), EFI_SUCCESS);
      EXPECT_EQ(Current->CurrentRecord, Outer) << "the nested signal put the outer record back";
    }
    auto *Status = static_cast<UINT8 *>(Current->CurrentRecord) + 4;
    WriteUnaligned32(Status, ReadUnaligned32(Status) | Do.SetStatus);
  }

  struct Call {
    int Tag;
    UINTN First;
    VOID *Record;
    UINT64 Depth;
    UINT8 Bytes[24];  // the record as the callback saw it
  };
  std::vector<int> Tags() const {
    std::vector<int> Result;
    for (const Call &Made : Calls) {
      Result.push_back(Made.Tag);
    }
    return Result;
  }

  EFI_GUID Signalled = kTestHook;
  TestRecord NestedRecord = {sizeof(TestRecord), 0, 2};
  std::vector<Call> Calls;
  Behaviour Behaviours[16];
};

TEST_F(CallbackHubTest, FirstSignalCreatesTheNodeAtTheTailOfTheSharedRegistryAndCallsNothing) {
  EXPECT_EQ(mCallbackHub, &Platform->Hub.Registry) << "the registry another driver published";
  EXPECT_EQ(Sim.HandlesWith(gCallbackHubProtocolGuid).size(), 1u) << "nothing published a second time";
  TestRecord First = {sizeof(TestRecord), 0, 0};
  EXPECT_EQ(HookSignal(&kOtherHook, &First), EFI_SUCCESS);
  EXPECT_EQ(HookSignal(&kTestHook, &First), EFI_SUCCESS);
  HookNode *Hook = HookFind(&kTestHook);
  ASSERT_NE(Hook, nullptr);
  EXPECT_EQ(Platform->Hub.Registry.Blink, &Hook->Link) << "appended at the tail";
}

TEST_F(CallbackHubTest, ListsAreDispatchedInOrderWithTheRecordCurrentUntilAStopBit) {
  Register(kTestHook, 2, 4);
  Register(kTestHook, 0, 1);
  Register(kTestHook, 4, 5);
  Register(kTestHook, 0, 2);
  Register(kTestHook, 1, 3);
  TestRecord Record = {sizeof(TestRecord), 0, 0x1234};
  EXPECT_EQ(HookSignal(&kTestHook, &Record), EFI_SUCCESS);
  EXPECT_EQ(Tags(), (std::vector<int>{1, 2, 3, 4, 5}));
  for (const Call &Made : Calls) {
    EXPECT_TRUE(Made.First == 0 && Made.Record == &Record && Made.Depth == 1);
  }

  // The stop bit ends the whole dispatch, its own list's rest included, and is cleared; an
  // answer without it lets the others run.
  for (UINT32 Answer : {0x81u, 0x01u}) {
    Calls.clear();
    Record.Status = 0;
    Behaviours[1].SetStatus = Answer;
    EXPECT_EQ(HookSignal(&kTestHook, &Record), EFI_SUCCESS);
    EXPECT_EQ(Tags(), Answer == 0x81 ? std::vector<int>{1} : (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(Record.Status, 1u) << "the signaller sees the answer without the stop bit";
  }
}

// An entry marked during a nested signal is freed only when the outermost signal ends: the
// outer walk still holds it (a free inside the nested signal is a use after free under ASan).
TEST_F(CallbackHubTest, NestedSignalRestoresTheOuterRecordAndDefersTheSweep) {
  Register(kTestHook, 0, 1);
  Register(kTestHook, 1, 2);
  UINT8 *Marked = Register(kTestHook, 2, 3);
  Behaviours[1].SignalNested = true;
  Behaviours[2].Remove = {Marked};
  TestRecord Outer = {sizeof(TestRecord), 0, 1};
  size_t Before = Sim.LiveAllocations();
  EXPECT_EQ(HookSignal(&kTestHook, &Outer), EFI_SUCCESS);

  // Outer: 1 -> nested (1, 2; 3 is skipped once 2 marked it) -> back in outer: 2.
  ASSERT_EQ(Tags(), (std::vector<int>{1, 1, 2, 2}));
  EXPECT_TRUE(Calls[1].Record == &NestedRecord && Calls[1].Depth == 2);
  EXPECT_TRUE(Calls[3].Record == &Outer && Calls[3].Depth == 1);
  HookNode *Hook = HookFind(&kTestHook);
  EXPECT_TRUE(Hook->SignalCount == 3 && Hook->Depth == 0 && Hook->CurrentRecord == nullptr) << "idle again";
  EXPECT_EQ(Sim.LiveAllocations(), Before - 1) << "freed when the outermost signal ended";
}

TEST_F(CallbackHubTest, NullArgumentsAndANodeThatCannotBeAllocatedCreateNothing) {
  TestRecord Record = {sizeof(TestRecord), 0, 0};
  EXPECT_EQ(HookSignal(&kTestHook, nullptr), EFI_INVALID_PARAMETER);
  Sim.FailAllocationAfter(1);
  EXPECT_EQ(HookSignal(&kTestHook, &Record), EFI_OUT_OF_RESOURCES);
  EXPECT_EQ(HookFind(&kTestHook), nullptr);
}

EFI_STATUS SignalAccept(UINT32 *Verdict) { return SignalImageAcceptHook(Verdict); }
EFI_STATUS SignalWrite(UINT32 *) { return SignalWriteStartHook(); }
EFI_STATUS SignalIbb(UINT32 *) { return SignalIbbUpdateHook(); }
EFI_STATUS SignalComplete(UINT32 *) { return SignalFlashCompleteHook(); }

TEST_F(CallbackHubTest, ImageHooksHandTheVerifiedImageOverIn24BytesOnlyWhenTheirGateIsOn) {
  const struct {
    const EFI_GUID *Hook;
    BOOLEAN DriverConfig::*Gate;
    EFI_STATUS (*Signal)(UINT32 *Verdict);
  } kHooks[] = {{&gImageAcceptHookGuid, &DriverConfig::ImageAcceptHookEnabled, SignalAccept},
                {&gBiosWriteStartHookGuid, &DriverConfig::WriteStartHookEnabled, SignalWrite},
                {&gIbbUpdateHookGuid, &DriverConfig::IbbUpdateHookEnabled, SignalIbb},
                {&gFlashCompleteHookGuid, &DriverConfig::FlashCompleteHookEnabled, SignalComplete}};
  UINT8 Image[64] = {};
  mVerifiedImage = Image;
  mVerifiedImageSize = sizeof(Image);
  Behaviours[1].SetStatus = kHookAnswerTaken;
  for (const auto &Hook : kHooks) {
    UINT32 Answer = 7;
    gConfig.*(Hook.Gate) = FALSE;
    EXPECT_EQ(Hook.Signal(&Answer), EFI_SUCCESS);
    EXPECT_EQ(HookFind(Hook.Hook), nullptr) << "gate off: not even the node is created";
    EXPECT_EQ(Answer, Hook.Hook == &gImageAcceptHookGuid ? 0u : 7u);

    gConfig.*(Hook.Gate) = TRUE;
    Signalled = *Hook.Hook;
    Register(Signalled, 0, 1);
    Calls.clear();
    EXPECT_EQ(Hook.Signal(&Answer), EFI_SUCCESS);
    ASSERT_EQ(Calls.size(), 1u);
    UINT64 Fields[3] = {};  // Size and Verdict (0 before a hook gives one), address, length
    std::memcpy(Fields, Calls[0].Bytes, sizeof(Fields));
    EXPECT_EQ(std::to_array(Fields), (std::array<UINT64, 3>{24, reinterpret_cast<UINT64>(Image), sizeof(Image)}));
    EXPECT_EQ(Answer, Hook.Hook == &gImageAcceptHookGuid ? kHookAnswerTaken : 7u) << "only accept has a verdict";
  }
  mVerifiedImage = nullptr;
}

class CallbackHubStart : public PlatformFixture {
protected:
  EFI_STATUS RunConstructor() {
    PrepareBoot();
    UefiBootServicesTableLibConstructor(Sim.ImageHandle(), Sim.SystemTable());
    return CallbackHubLibConstructor(Sim.ImageHandle(), Sim.SystemTable());
  }
};

TEST_F(CallbackHubStart, FirstDriverCreatesAndPublishesAnEmptyRegistry) {
  Install.CallbackHub = FALSE;
  PrepareBoot();
  Sim.FailAllocationAfter(1);
  EXPECT_EQ(RunConstructor(), EFI_OUT_OF_RESOURCES);
  TestRecord Record = {sizeof(TestRecord), 0, 0};
  EXPECT_EQ(HookSignal(&kTestHook, &Record), EFI_NOT_READY) << "no registry, no signals";

  EXPECT_EQ(RunConstructor(), EFI_SUCCESS);
  auto Handles = Sim.HandlesWith(gCallbackHubProtocolGuid);
  ASSERT_EQ(Handles.size(), 1u);
  EXPECT_EQ(Sim.InterfaceOn(Handles[0], gCallbackHubProtocolGuid), mCallbackHub);
  EXPECT_TRUE(mCallbackHub->Flink == mCallbackHub && mCallbackHub->Blink == mCallbackHub);
}

}  // namespace
