// The pointer-registration service, located at start or awaited, is inert for a boot-service
// image and live for a runtime image, which also registers the platform flash service pointers.
#include "../../src/base/Globals.h"
#include "../../src/base/Guids.h"
#include "../../src/driver/LibraryList.h"
#include "../../src/driver/PointerRegistration.h"
#include "../support/PlatformFixture.h"

namespace {

class PointerRegistrationTest : public PlatformFixture {
protected:
  bool Recorded(const char *Name, const void *Variable) {
    for (const EmuCall &Call : CallsNamed(Name)) {
      if (Call.Arguments[0] == reinterpret_cast<UINT64>(Variable)) {
        return true;
      }
    }
    return false;
  }

  void MakeRuntimeImage() { Sim.LoadedImage()->ImageCodeType = EfiRuntimeServicesCode; }
};

TEST_F(PointerRegistrationTest, RuntimeImageRegistersItsOwnAndThePlatformPointersUntilItsDestructorsRun) {
  MakeRuntimeImage();
  ASSERT_EQ(StartDriver(), EFI_SUCCESS);
  EXPECT_EQ(mRuntimeFlashService, Platform->FlashService);
  EXPECT_EQ(mRuntimeFlashServiceData, Platform->PlatformData);
  const void *Registered[] = {&mPointerRegistration, &mRuntimeFlashService, &mRuntimeFlashServiceData};
  for (const void *Variable : Registered) {
    EXPECT_TRUE(Recorded("PointerRegister", Variable));
  }
  RunLibraryDestructors(Sim.ImageHandle(), Sim.SystemTable());
  for (const void *Variable : Registered) {
    EXPECT_TRUE(Recorded("PointerUnregister", Variable));
  }
}

// A late service is taken when it appears; only a runtime image registers anything through it.
class PointerRegistrationLate : public PointerRegistrationTest, public ::testing::WithParamInterface<bool> {};

TEST_P(PointerRegistrationLate, AbsentServiceIsAwaitedAndTakenWhenItAppears) {
  const bool Runtime = GetParam();
  if (Runtime) {
    MakeRuntimeImage();
  }
  Install.PointerRegistration = FALSE;
  ASSERT_EQ(StartDriver(), EFI_SUCCESS);
  EXPECT_EQ(mPointerRegistration, nullptr);
  ASSERT_NE(mPointerRegistrationEvent, nullptr);
  VOID *Variable = nullptr;
  EXPECT_EQ(PointerRegister(&Variable), EFI_ABORTED) << "absent service";
  size_t EventsBefore = Sim.OpenEvents();
  Platform->Hub.Initialize();
  EFI_HANDLE Handle = nullptr;
  ASSERT_EQ(Sim.Install(&Handle, gPointerRegistrationProtocolGuid, &Platform->Hub.PointerRegistration), EFI_SUCCESS);
  EXPECT_EQ(mPointerRegistration, &Platform->Hub.PointerRegistration);
  EXPECT_EQ(Recorded("PointerRegister", &mPointerRegistration), Runtime);
  EXPECT_EQ(Sim.OpenEvents(), EventsBefore - 1) << "the notification closed its event";
  EXPECT_EQ(PointerUnregister(&Variable), Runtime ? EFI_SUCCESS : EFI_ABORTED);
  EXPECT_EQ(Platform->CountCalls("PointerUnregister"), Runtime ? 1u : 0u);
}
INSTANTIATE_TEST_SUITE_P(BootOrRuntimeImage, PointerRegistrationLate, ::testing::Bool());

}  // namespace
