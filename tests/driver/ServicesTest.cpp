// The services whose behaviour is complete at start-up: the version query is logged when
// there is an update log, and both small services trace their entry. Their statuses and
// answers for every argument stand in HostileInputTest.
#include "../../src/base/Guids.h"
#include "../../src/driver/DriverState.h"
#include "../support/PlatformFixture.h"

namespace {

class FixedServices : public PlatformFixture {
protected:
  void SetUp() override { ASSERT_EQ(StartDriver(), EFI_SUCCESS); }
};

TEST_F(FixedServices, VersionIsLoggedAsRecord27WhenThereIsAnUpdateLogAndBothServicesTraceTheirEntry) {
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
  EnableTraces(true);
  UINT64 Token = 1;
  EXPECT_EQ(Services->BiosGetDriverVersion(Services, &Major, &Minor), EFI_SUCCESS);
  EXPECT_EQ(Services->BiosGetUpdateToken(Services, &Token), EFI_SUCCESS);
  EXPECT_EQ(Platform->CountCalls("UpdateLogWriteRecord"), 0u);
  EXPECT_EQ(Traces(), (std::vector<std::string>{"  BiosImageInterfaceProtocol->BiosGetDriverVersion Entry",
                                                "  BiosImageInterfaceProtocol->BiosGetUpdateToken Entry"}));
}

}  // namespace
