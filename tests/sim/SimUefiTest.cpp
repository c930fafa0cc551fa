// The simulated firmware is what every driver test stands on: protocol notifications,
// event groups, variables across a reboot, and the detection of leaks and double frees.
#include <gtest/gtest.h>
#include <gtest/gtest-spi.h>

#include "../../sim/SimUefi.h"
#include "../../src/base/Guids.h"

namespace {

int gNotifications = 0;
VOID EFIAPI CountNotification(EFI_EVENT, VOID *Context) {
  gNotifications++;
  (void)Context;
}

TEST(SimUefi, ProtocolNotifyHandsOverEachNewInterfaceOnce) {
  SimUefi Sim;
  EFI_BOOT_SERVICES *Bs = Sim.BootServices();
  gNotifications = 0;
  EFI_EVENT Event = nullptr;
  ASSERT_EQ(Bs->CreateEvent(EVT_NOTIFY_SIGNAL, TPL_CALLBACK, CountNotification, nullptr, &Event), EFI_SUCCESS);
  VOID *Registration = nullptr;
  ASSERT_EQ(Bs->RegisterProtocolNotify(const_cast<EFI_GUID *>(&gCallbackHubProtocolGuid), Event, &Registration),
            EFI_SUCCESS);

  int First = 1, Second = 2;
  EFI_HANDLE Handle = nullptr;
  Sim.Install(&Handle, gCallbackHubProtocolGuid, &First);
  Handle = nullptr;
  Sim.Install(&Handle, gCallbackHubProtocolGuid, &Second);
  EXPECT_EQ(gNotifications, 2);

  VOID *Interface = nullptr;
  EXPECT_EQ(Bs->LocateProtocol(const_cast<EFI_GUID *>(&gCallbackHubProtocolGuid), Registration, &Interface),
            EFI_SUCCESS);
  EXPECT_EQ(Interface, &First);
  EXPECT_EQ(Bs->LocateProtocol(const_cast<EFI_GUID *>(&gCallbackHubProtocolGuid), Registration, &Interface),
            EFI_SUCCESS);
  EXPECT_EQ(Interface, &Second);
  EXPECT_EQ(Bs->LocateProtocol(const_cast<EFI_GUID *>(&gCallbackHubProtocolGuid), Registration, &Interface),
            EFI_NOT_FOUND);
  EXPECT_EQ(Bs->CloseEvent(Event), EFI_SUCCESS);
}

TEST(SimUefi, EventGroupsAndNonVolatileVariablesAcrossAReboot) {
  SimUefi Sim;
  gNotifications = 0;
  EFI_EVENT Event = nullptr;
  ASSERT_EQ(Sim.BootServices()->CreateEventEx(EVT_NOTIFY_SIGNAL, TPL_NOTIFY, CountNotification, nullptr,
                                              &gEfiEventExitBootServicesGuid, &Event),
            EFI_SUCCESS);
  Sim.SignalEventGroup(gEfiEventExitBootServicesGuid);
  EXPECT_EQ(gNotifications, 1);
  Sim.BootServices()->CloseEvent(Event);

  UINT8 Value = 7;
  Sim.SetVariable(u"Kept", gPlatformVariableGuid, EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS, &Value,
                  1);
  Sim.SetVariable(u"Dropped", gPlatformVariableGuid, EFI_VARIABLE_BOOTSERVICE_ACCESS, &Value, 1);
  Sim.SimulateReboot();
  EXPECT_NE(Sim.FindVariable(u"Kept", gPlatformVariableGuid), nullptr);
  EXPECT_EQ(Sim.FindVariable(u"Dropped", gPlatformVariableGuid), nullptr);
}

TEST(SimUefi, LeaksAndDoubleFreesFailTheTest) {
  EXPECT_NONFATAL_FAILURE(
      {
        SimUefi Sim;
        VOID *Buffer = nullptr;
        Sim.BootServices()->AllocatePool(EfiBootServicesData, 16, &Buffer);
      },
      "leaked");
  EXPECT_NONFATAL_FAILURE(
      {
        SimUefi Sim;
        VOID *Buffer = nullptr;
        Sim.BootServices()->AllocatePool(EfiBootServicesData, 16, &Buffer);
        Sim.BootServices()->FreePool(Buffer);
        Sim.BootServices()->FreePool(Buffer);
      },
      "double free");
  EXPECT_NONFATAL_FAILURE(
      {
        SimUefi Sim;
        Sim.BootServices()->LoadImage(FALSE, nullptr, nullptr, nullptr, 0, nullptr);
      },
      "unexpected boot service LoadImage");
}

}  // namespace
