// The next boot of an emulated platform after a power cut, as its earlier boot phase would
// start it. One boot model, applied to whatever the cut left:
//   1. The chip gets power back; the non-volatile variables, the CMOS banks and the update
//      log's last progress code are what the interrupted boot left.
//   2. The platform's security processor reads the embedded firmware structure (its
//      signature, then the PSP level-1 directory location at +0x14). When the primary
//      directory there starts with "$PSP" and its Fletcher-32 checksum holds, the platform
//      runs the primary boot-critical code (IBB1, IBB2, IBB4 at their places) in a normal
//      boot. Otherwise it takes the backup directory and runs the recovery (TopSwap) copies,
//      and the earlier phase reports BOOT_IN_RECOVERY_MODE. With neither directory usable,
//      or no embedded firmware structure, the platform does not start. A recovery forced
//      from outside (the base scenario's boot mode and full-recovery HOB) holds on every boot.
//   3. An update resumes when the update log kept a progress code other than the cleared one
//      (0xFE): the earlier phase hands that code over as the resume HOB's byte. Recovery mode
//      alone (no full-recovery HOB) starts the rewrite at OBB; the resume byte moves it back
//      to the region the interrupted update was in.
//   4. The earlier phase hands the flash-map copy over as it finds it, as on every boot.
#pragma once
#include <map>
#include <string>
#include <utility>

#include "UpdateRunner.h"

enum class BootCopy { Primary, Recovery, None };
const char *BootCopyName(BootCopy Copy);

struct NextBootPlan {
  BootCopy Copy = BootCopy::None;
  BootScenario Scenario;  // what the boot hands the driver (meaningless with BootCopy::None)
};

using NvVariables = std::map<std::pair<std::u16string, std::string>, SimVariable>;

// Gives the chip its power back and plans the boot that follows; Base carries the platform's
// fixed choices (region-tracked layout, signature check) over.
NextBootPlan PlanNextBoot(EmuPlatform &Platform, const NvVariables &Variables, const BootScenario &Base = {});
// The copy the platform would start from, without touching it (the chip must have power).
BootCopy BootCopyOf(const EmuPlatform &Platform);
