// Traces reach the debug service behind vector 3 only when the switch is on and the
// service is really there; otherwise they vanish without a trace of their own.
#include "../../src/base/BaseLib.h"
#include "../../src/driver/Config.h"
#include "../../src/driver/Trace.h"
#include "../support/PlatformFixture.h"

namespace {

class TraceOutput : public PlatformFixture {
protected:
  void SetUp() override { PrepareBoot(); }
};

TEST_F(TraceOutput, OnlyTheSwitchOnHandsFormatAndArgumentsToTheService) {
  EnableTraces(false);
  TRACE("  mFlashBase = %x", 0xFF000000u);
  EXPECT_TRUE(Traces().empty()) << "switch off: nothing, even with a service present";

  EnableTraces(true);
  TRACE("  mFlashBase = %x", 0xFF000000u);
  TRACE("[Q42CriticalDataAuthVar]Entry %a %d %x", "ok", -5, EFI_NOT_FOUND);
  EXPECT_EQ(Traces(), (std::vector<std::string>{"  mFlashBase = ff000000",
                                                "[Q42CriticalDataAuthVar]Entry ok -5 e"}))
      << "a 64-bit status printed with %x shows its low 32 bits";
}

TEST_F(TraceOutput, HandlerWithoutMarkerOrWithServicePointerZeroDropsTraces) {
  EnableTraces(true);
  const UINT32 Marker = Platform->DebugService->Marker;
  Platform->DebugService->Marker = 0x44656268;
  TRACE("  dropped");
  EXPECT_TRUE(Traces().empty());
  Platform->DebugService->Marker = Marker;
  Platform->DebugService->ServicePointer = 0;
  TRACE("  dropped");
  EXPECT_TRUE(Traces().empty());
}

TEST_F(TraceOutput, HandlerAddressIsAssembledFromAllThreeOffsetFields) {
  EnableTraces(true);
  // A handler far above 4 GiB whose preamble names the same (low) service structure.
  std::vector<UINT8> Preamble(64, 0);
  UINT8 *Handler = Preamble.data() + 40;
  UINT64 Address = reinterpret_cast<UINT64>(Handler);
  ASSERT_NE(Address >> 32, 0u) << "the host heap lies above 4 GiB";
  WriteUnaligned32(Handler - 24, Platform->DebugService->ServicePointer);
  WriteUnaligned32(Handler - 16, kDebugServiceMarker);
  Platform->DebugService->Marker = 0;  // the original handler no longer qualifies

  UINT8 *Gate = Platform->Idt + 3 * 16;
  WriteUnaligned16(Gate, static_cast<UINT16>(Address));
  WriteUnaligned16(Gate + 6, static_cast<UINT16>(Address >> 16));
  WriteUnaligned32(Gate + 8, static_cast<UINT32>(Address >> 32));
  TRACE("  through the moved handler %d", 7);
  EXPECT_EQ(Traces(), std::vector<std::string>{"  through the moved handler 7"});
}

}  // namespace
