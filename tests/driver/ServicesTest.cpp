// The version query is logged when there is an update log. The small services' statuses and
// answers for every argument stand in HostileInputTest.
#include "../../src/base/Guids.h"
#include "../../src/driver/DriverState.h"
#include "../support/PlatformFixture.h"

namespace {

using FixedServices = PlatformFixture;

TEST_F(FixedServices, VersionIsLoggedAsRecord27OnlyWhenThereIsAnUpdateLog) {
  ASSERT_EQ(StartDriver(), EFI_SUCCESS);
  BiosImageInterfaceProtocol *Services = mBiosImageInterface2;
  UINT8 Major = 0xAA, Minor = 0xAA;
  Platform->ClearCalls();
  EXPECT_EQ(Services->BiosGetDriverVersion(Services, &Major, &Minor), EFI_SUCCESS);
  EXPECT_EQ(Major * 0x100 + Minor, 0x200);
  ASSERT_EQ(Platform->CallCount, 1u);
  EXPECT_STREQ(Platform->Calls[0].Name, "UpdateLogWriteRecord");
  const UINT64 *Arguments = Platform->Calls[0].Arguments;
  EXPECT_EQ(std::vector<UINT64>(Arguments, Arguments + 4),
            (std::vector<UINT64>{reinterpret_cast<UINT64>(Platform->UpdateLog), 27, 0, 0}));

  for (EFI_HANDLE Handle : Sim.HandlesWith(gUpdateLogProtocolGuid)) {
    Sim.BootServices()->UninstallProtocolInterface(Handle, const_cast<EFI_GUID *>(&gUpdateLogProtocolGuid),
                                                   Platform->UpdateLog);
  }
  Platform->ClearCalls();
  EXPECT_EQ(Services->BiosGetDriverVersion(Services, &Major, &Minor), EFI_SUCCESS);
  EXPECT_EQ(Platform->CountCalls("UpdateLogWriteRecord"), 0u);
}

}  // namespace
