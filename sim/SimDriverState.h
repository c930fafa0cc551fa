// Puts every piece of the driver's module state back to how the firmware loads it, freeing
// what it holds, so that one host process can run boot after boot (tests, tools, benches).
#pragma once

// Must run while the simulated boot services are still in place: several resets give pool
// memory back.
void ResetAllDriverState();
