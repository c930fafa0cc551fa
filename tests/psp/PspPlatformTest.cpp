// The services the directory code stands on: SMN reads through the host bridge, the PSP's
// recovery flag, the assertion reporter, the PSP debug print and the buffer store.
#include <algorithm>
#include <string>

#include "../../src/base/Guids.h"
#include "../../src/base/Print.h"
#include "../../src/driver/Config.h"
#include "../../src/psp/HeapBuffer.h"
#include "../../src/psp/PspAssert.h"
#include "../../src/psp/PspDebugPrint.h"
#include "../../src/psp/Smn.h"
#include "PspTestSupport.h"

namespace {

// A PSP debug print protocol that keeps what it was asked to print.
struct RecordingPrint {
  PspDebugPrintProtocol Protocol;
  UINT32 LastLevel = 0;
  std::string Text;
};
RecordingPrint *gRecording = nullptr;

EFI_STATUS EFIAPI RecordPrint(UINT32 Level, const CHAR8 *Format, VA_LIST Marker) {
  CHAR8 Line[128];
  AsciiVSPrint(Line, sizeof(Line), reinterpret_cast<const char *>(Format), Marker);
  gRecording->LastLevel = Level;
  gRecording->Text += reinterpret_cast<const char *>(Line);
  return EFI_SUCCESS;
}

class PspServices : public PspFixture {
protected:
  void SetUp() override {
    PspFixture::SetUp();
    Recording.Protocol.Print = RecordPrint;
    gRecording = &Recording;
  }
  void TearDown() override { gRecording = nullptr; }
  void InstallPrint() {
    EFI_HANDLE Handle = nullptr;
    ASSERT_EQ(Sim.Install(&Handle, gPspDebugPrintProtocolGuid, &Recording.Protocol), EFI_SUCCESS);
  }
  RecordingPrint Recording;
};

using PspSmn = PspServices;

TEST_F(PspSmn, ReadGoesThroughIndexAndDataRestoresTheIndexAndSkipsRegistersBeyondTheSpace) {
  Platform->Soc.SetSmn(0x03810570, 0x12345678);
  Platform->Soc.SmnIndex = 0x00ABCDEF;
  UINT32 Value = 0;
  SmnRead(0x03810570, &Value);
  EXPECT_EQ(Value, 0x12345678u);
  EXPECT_EQ(Platform->Soc.SmnIndex, 0x00ABCDEFu);
  EXPECT_EQ(Platform->Soc.SmnDataReads, 1u);

  gConfig.PcdPciExpressBaseSize = 0xB8;  // the index register falls outside
  const auto Accesses = Platform->Soc.PciAccesses;
  SmnRead(0x03810570, &Value);
  EXPECT_EQ(Value, 0xFFFFFFFFu);
  EXPECT_EQ(Platform->Soc.PciAccesses, Accesses);
}

using PspRecovery = PspServices;

TEST_F(PspRecovery, Bit30OfTheRegisterTheSocSelectsWhenSwitchedOn) {
  InstallPrint();
  Platform->Soc.SetBootedFromRecovery(TRUE);
  EXPECT_FALSE(PspRecoveryFlag()) << "switched off";
  EXPECT_EQ(Platform->Soc.PciAccesses, 0u);

  gConfig.PcdPspRecoverySwitch = 1;
  Platform->Soc.SetSmn(0x03810570, 0x40000001);
  Platform->Soc.SetSmn(0x03810970, 0x00000002);
  EXPECT_TRUE(PspRecoveryFlag());
  EXPECT_EQ(Recording.Text, "RecoveryFlag 40000001\n");
  EXPECT_EQ(Recording.LastLevel, 0x80000000u);

  SelectSoc(0x00B20F00);  // information row with selector 2
  Recording.Text.clear();
  EXPECT_FALSE(PspRecoveryFlag());
  EXPECT_EQ(Recording.Text, "RecoveryFlag 2\n");
  Platform->Soc.SetSmn(0x03810970, 0xFFFFFFFF);
  EXPECT_TRUE(PspRecoveryFlag()) << "an unreadable register is reported, its value still used";
  EXPECT_EQ(Assertions(), std::vector<UINT32>{0x22012088});
}

using PspAssertReporter = PspServices;

TEST_F(PspAssertReporter, SilentUntilTheDriverStartEnablesIt) {
  ResetPspStateForTest();
  AssertReport(0x22011152);
  EXPECT_EQ(Platform->PortLogCount, 0u);
  ASSERT_EQ(StartDriver(), EFI_SUCCESS);
  EXPECT_EQ(mPspAssertEnabled, 1);
}

TEST_F(PspAssertReporter, ASimulatorAnswersTheEscapeHardwareCyclesTheCodeOnThePortDisplay) {
  AssertReport(0x22011152);
  EXPECT_EQ(Assertions(), std::vector<UINT32>{0x22011152});
  EXPECT_EQ((std::vector<UINT64>{Platform->PortLogCount, Platform->Soc.EscapeCount, Platform->Soc.LastEscapeEbx,
                                 Platform->DeadLoopCount}),
            (std::vector<UINT64>{2, 1, 2, 0}));

  Platform->ClearPortLog();
  Platform->Soc.AnswersSimulatorEscape = FALSE;
  AssertReport(0x22011152);
  EXPECT_EQ(Platform->DeadLoopCount, 1u);
  // One turn: the 64-bit value DEAD 2201 1152 0000 scrolled a byte at a time, 2.5 s apiece.
  std::vector<UINT32> Shown;
  for (UINTN Index = 0; Index < Platform->PortLogCount; Index++) {
    Shown.push_back(Platform->PortLog[Index].Value | (Platform->PortLog[Index].Port == 0x80 ? 0 : 0xE00000u));
  }
  EXPECT_EQ(Shown, (std::vector<UINT32>{0xE0DEAD, 0x22011152, 0x520000DE, 0x0000DEAD, 0x00DEAD22, 0xDEAD2201,
                                         0xAD220111, 0x22011152}));
  EXPECT_EQ(Platform->ElapsedMicroseconds, 6u * 2500000u);
}

using PspHeapBuffer = PspServices;

TEST_F(PspHeapBuffer, HandlesKeepTheirZeroFilledBuffers) {
  VOID *First = nullptr, *Again = nullptr, *Other = nullptr;
  ASSERT_TRUE(GetHeapBuffer(41015, 1552, &First));
  const auto *Bytes = static_cast<UINT8 *>(First);
  EXPECT_TRUE(std::all_of(Bytes, Bytes + 1552, [](UINT8 Byte) { return Byte == 0; }));
  ASSERT_TRUE(GetHeapBuffer(41015, 1552, &Again));
  EXPECT_EQ(First, Again);
  ASSERT_TRUE(GetHeapBuffer(41016, 104, &Other));
  EXPECT_NE(First, Other);
  EXPECT_TRUE(GetHeapBuffer(41016, 16, &Again)) << "a smaller request is served by the registered buffer";
  EXPECT_FALSE(GetHeapBuffer(41016, 105, &Again)) << "a larger one would be overrun";
  EXPECT_TRUE(Assertions().empty());
}

TEST_F(PspHeapBuffer, CreationFailureAndAFullStoreAreReported) {
  VOID *Buffer = nullptr;
  Sim.FailAllocationAfter(1);
  EXPECT_FALSE(GetHeapBuffer(1, 104, &Buffer));
  EXPECT_EQ(Assertions(), std::vector<UINT32>{0x80426});
  for (UINT32 Handle = 1; Handle <= kHeapBufferCapacity; Handle++) {
    ASSERT_TRUE(GetHeapBuffer(Handle, 8, &Buffer)) << "the next request creates it";
  }
  EXPECT_FALSE(GetHeapBuffer(1000, 8, &Buffer));
  EXPECT_EQ(Assertions(), (std::vector<UINT32>{0x80426, 0x80426}));
}

}  // namespace
