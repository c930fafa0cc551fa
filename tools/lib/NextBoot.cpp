#include "NextBoot.h"

#include <cstring>

#include "../../src/psp/PspDirectory.h"
#include "../../src/psp/PspDirectoryFormat.h"

namespace {

const UINT8 *At(const EmuPlatform &Platform, uint64_t Address, uint64_t Length) {
  UINT32 Offset = 0;
  return Platform.FlashOffset(Address, Length, Offset) ? Platform.Flash.Bytes() + Offset : nullptr;
}

uint32_t Read32(const UINT8 *Bytes) {
  uint32_t Value = 0;
  memcpy(&Value, Bytes, sizeof(Value));
  return Value;
}

// A directory block the security processor accepts: its cookie and a checksum that holds.
bool DirectoryUsable(const EmuPlatform &Platform, uint32_t Address) {
  const UINT8 *Block = At(Platform, Address, EmuFlashLayout::kPspL1DirectorySize);
  if (Block == nullptr || Read32(Block) != kPspDirectoryCookie) {
    return false;
  }
  const uint32_t Count = Read32(Block + offsetof(DirectoryHeader, Count));
  const uint64_t Covered = 8 + static_cast<uint64_t>(Count) * sizeof(PspDirectoryEntry);
  if (Covered > EmuFlashLayout::kPspL1DirectorySize - 8) {
    return false;
  }
  return Fletcher32(Block + offsetof(DirectoryHeader, Count), Covered / 2) ==
         Read32(Block + offsetof(DirectoryHeader, Checksum));
}

}  // namespace

const char *BootCopyName(BootCopy Copy) {
  switch (Copy) {
  case BootCopy::Primary:
    return "primary";
  case BootCopy::Recovery:
    return "recovery";
  case BootCopy::None:
    break;
  }
  return "none";
}

BootCopy BootCopyOf(const EmuPlatform &Platform) {
  const UINT8 *Efs = At(Platform, EmuFlashLayout::kEfsAddress, EmuFlashLayout::kEfsSize);
  if (Efs == nullptr || Read32(Efs) != kEfsSignature) {
    return BootCopy::None;
  }
  const uint32_t Primary = Read32(Efs + offsetof(EmbeddedFirmwareStructure, PspDirectory)) + EmuFlashLayout::kMappedBase;
  if (DirectoryUsable(Platform, Primary)) {
    return BootCopy::Primary;
  }
  return DirectoryUsable(Platform, EmuFlashLayout::kPspL1BackupDirectoryAddress) ? BootCopy::Recovery : BootCopy::None;
}

NextBootPlan PlanNextBoot(EmuPlatform &Platform, const NvVariables &Variables, const BootScenario &Base) {
  Platform.Flash.RestorePower();
  // Memory does not survive: the pool buffer the platform handed the dead boot is gone.
  Platform.CompletionPoolBuffer = nullptr;
  NextBootPlan Plan;
  Plan.Copy = BootCopyOf(Platform);
  Plan.Scenario = Base;
  if (Plan.Copy == BootCopy::Recovery) {
    Plan.Scenario.BootMode = BOOT_IN_RECOVERY_MODE;
  }
  Plan.Scenario.Resume.reset();
  UINT8 Byte = 0;
  if (Platform.UpdateLogStore.ResumeHobByte(Byte)) {
    Plan.Scenario.Resume = Byte;
  }
  Plan.Scenario.Variables = Variables;
  return Plan;
}
