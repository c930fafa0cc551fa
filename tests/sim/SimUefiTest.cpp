// The simulated firmware's own checks, which every driver test relies on without tripping
// them: leaks, double frees and unexpected boot services fail the test.
#include <gtest/gtest.h>
#include <gtest/gtest-spi.h>

#include "../../sim/SimUefi.h"

namespace {

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
