// What the emulated platform holds when it starts: the scenario from the boot volume, the
// installed image in its flash chip (or, after an interrupted run, the chip and the
// non-volatile state that run saved), and the scenario's CMOS bytes.
#pragma once
#include "../../emu/EmuPlatform.h"
#include "../common/RunScenario.h"

// EFI_SUCCESS also when the volume holds no scenario (the chip then stays erased); an error
// for a scenario or image that is there but not usable.
EFI_STATUS LoadStartingState(EmuPlatform &Platform, RunScenario &Scenario);
