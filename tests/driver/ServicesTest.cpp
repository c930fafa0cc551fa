// The services whose behaviour is complete at start-up: version, token and reserved slots,
// reached through both installed tables.
#include "../../src/base/Guids.h"
#include "../../src/driver/Config.h"
#include "../../src/driver/DriverState.h"
#include "../support/PlatformFixture.h"

namespace {

class FixedServices : public PlatformFixture {
protected:
  void SetUp() override { ASSERT_EQ(StartDriver(), EFI_SUCCESS); }

  BiosImageInterfaceProtocol *Table(const EFI_GUID &Guid) {
    VOID *Interface = nullptr;
    EXPECT_EQ(Sim.BootServices()->LocateProtocol(const_cast<EFI_GUID *>(&Guid), nullptr, &Interface), EFI_SUCCESS);
    return static_cast<BiosImageInterfaceProtocol *>(Interface);
  }
};

TEST_F(FixedServices, VersionIsTwoPointZeroAndLoggedAsRecord27WhenThereIsAnUpdateLog) {
  for (const EFI_GUID *Guid : {&gBiosImageInterfaceProtocolGuid, &gBiosImageInterfaceProtocol2Guid}) {
    BiosImageInterfaceProtocol *Services = Table(*Guid);
    UINT8 Major = 0xAA, Minor = 0xAA;
    Platform->ClearCalls();
    EXPECT_EQ(Services->BiosGetDriverVersion(Services, &Major, &Minor), EFI_SUCCESS);
    EXPECT_EQ(Major * 0x100 + Minor, 0x200);
    ASSERT_EQ(Platform->CallCount, 1u);
    EXPECT_STREQ(Platform->Calls[0].Name, "UpdateLogWriteRecord");
    const UINT64 *Arguments = Platform->Calls[0].Arguments;
    EXPECT_EQ(std::vector<UINT64>(Arguments, Arguments + 4),
              (std::vector<UINT64>{reinterpret_cast<UINT64>(Platform->UpdateLog), 27, 0, 0}));
  }
  for (EFI_HANDLE Handle : Sim.HandlesWith(gUpdateLogProtocolGuid)) {
    Sim.BootServices()->UninstallProtocolInterface(Handle, const_cast<EFI_GUID *>(&gUpdateLogProtocolGuid),
                                                   Platform->UpdateLog);
  }
  Platform->ClearCalls();
  BiosImageInterfaceProtocol *Services = Table(gBiosImageInterfaceProtocolGuid);
  UINT8 Major = 0, Minor = 9;
  EnableTraces(true);
  EXPECT_EQ(Services->BiosGetDriverVersion(Services, &Major, &Minor), EFI_SUCCESS);
  EXPECT_EQ(Major * 0x100 + Minor, 0x200);
  EXPECT_EQ(Platform->CountCalls("UpdateLogWriteRecord"), 0u);
  EXPECT_EQ(Traces(), std::vector<std::string>{"  BiosImageInterfaceProtocol->BiosGetDriverVersion Entry"});
}

TEST_F(FixedServices, TokenIsAlwaysZeroAndReservedSlotsTouchNothing) {
  BiosImageInterfaceProtocol *Services = Table(gBiosImageInterfaceProtocol2Guid);
  UINT64 Token = ~0ull;
  Platform->ClearTraces();
  EXPECT_EQ(Services->BiosGetUpdateToken(Services, &Token), EFI_SUCCESS);
  EXPECT_EQ(Token, 0u);
  EXPECT_TRUE(Traces().empty()) << "no entry line without the debug switch";
  EnableTraces(true);
  Services->BiosGetUpdateToken(Services, &Token);
  EXPECT_EQ(Traces(), std::vector<std::string>{"  BiosImageInterfaceProtocol->BiosGetUpdateToken Entry"});

  Platform->ClearCalls();
  Platform->ClearPortLog();
  EXPECT_EQ(Services->Reserved7(Services), EFI_NOT_READY);
  EXPECT_EQ(Services->Reserved8(Services), EFI_NOT_READY);
  EXPECT_EQ(Services->Reserved9(Services), EFI_UNSUPPORTED);
  EXPECT_EQ(Services->Reserved10(Services), EFI_UNSUPPORTED);
  EXPECT_EQ(Platform->CallCount, 0u);
  EXPECT_EQ(Platform->PortLogCount, 0u);
}


}  // namespace
