// The default scenario every driver test starts from: a simulated UEFI environment with a
// HOB list and the PCD protocol, an emulated platform with its protocols installed, and
// all driver state reset. Tests vary the scenario before they start the driver.
#pragma once
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../../emu/EmuPlatform.h"
#include "../../sim/SimDriverState.h"
#include "../../sim/SimHobList.h"
#include "../../sim/SimUefi.h"


class PlatformFixture : public ::testing::Test {
  friend struct PlatformFixtureRecorder;

protected:
  PlatformFixture();
  ~PlatformFixture() override;

  // Publishes the HOB list, PCDs and platform protocols chosen so far.
  void PrepareBoot();
  // Runs the driver's entry point as the dispatcher would.
  EFI_STATUS StartDriver();

  // Platform calls recorded so far: every name in order, or the calls of one name.
  std::vector<std::string> CallNames() const;
  std::vector<EmuCall> CallsNamed(const char *Name) const;

  // Traces printed so far, one line each.
  std::vector<std::string> Traces() const;
  void EnableTraces(bool On);

  // What the driver asked for when it allocated pool and created events.
  std::map<const VOID *, EFI_MEMORY_TYPE> PoolTypes;
  std::map<EFI_EVENT, EFI_TPL> EventTpls;

  SimUefi Sim;
  SimHobList Hobs;
  bool PublishHobList = true;
  EmuInstallOptions Install;
  EmuPlatform *Platform = nullptr;

private:
  std::unique_ptr<EmuPlatform> PlatformStorage_;
  bool Prepared_ = false;
};
