// The HOBs the earlier boot phase of the scenario leaves for the driver: the firmware's own
// HOB list is copied up to its end HOB, the scenario's GUID HOBs are appended, and the copy
// is published as the HOB-list configuration table before the driver starts.
#pragma once
#include "../../emu/EmuPlatform.h"
#include "../common/RunScenario.h"

EFI_STATUS PublishScenarioHobs(const RunScenario &Scenario, EmuPlatform &Platform);
