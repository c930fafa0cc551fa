#include "WholeUpdate.h"

#include "../../src/base/BaseLib.h"
#include "../../src/base/Globals.h"
#include "../../src/base/ScopeGuard.h"
#include "../../src/verify/UpdateRegionTable.h"
#include "../common/ConsolePrint.h"
#include "ProgressBar.h"
#include "RegionNames.h"
#include "Stopwatch.h"

namespace {

UINT64 ChipOperations(const EmuPlatform &Platform) {
  return Platform.Flash.Stats().SectorErases + Platform.Flash.Stats().Programs;
}

bool InSkipRegion(const BiosImageQueryRecord &Record, UINT64 Offset) {
  const UINTN Count = Record.SkipRegionCount < kMaxSkipRegions ? Record.SkipRegionCount : kMaxSkipRegions;
  for (UINTN Index = 0; Index < Count; Index++) {
    const SkipRegion &Region = Record.SkipRegions[Index];
    if (Offset >= Region.Start && Offset - Region.Start < static_cast<UINT64>(Region.Pages) * kSkipRegionPageSize) {
      return true;
    }
  }
  return false;
}

// The chip against the image outside what the query protected, and against the installed
// image inside it when that is given (the EC part of an image is not on the chip).
void CheckChip(const EmuPlatform &Platform, const UpdateImages &Images, UpdateSummary &Summary) {
  const UINT32 EcSize = Platform.Layout.EcSize;
  const UINTN Size = EcSize + static_cast<UINTN>(Platform.Flash.Size());
  if (Images.ImageSize != Size || (Images.Installed != nullptr && Images.InstalledSize != Size)) {
    return;
  }
  const UINT8 *Chip = Platform.Flash.Bytes();
  for (UINT64 Offset = EcSize; Offset < Size; Offset++) {
    const bool Protected = InSkipRegion(Summary.Record, Offset);
    if (Protected && Images.Installed == nullptr) {
      continue;
    }
    const UINT8 Expected = Protected ? Images.Installed[Offset] : Images.Image[Offset];
    if (Chip[Offset - EcSize] != Expected && Summary.ChipDifferences++ == 0) {
      Summary.ChipFirstDifference = Offset;
    }
  }
  Summary.ChipChecked = TRUE;
  Summary.SkipRegionsChecked = Images.Installed != nullptr;
}

void WriteEveryBlock(BiosImageInterfaceProtocol *Services, EmuPlatform &Platform, const RunScenario &Scenario,
                     UpdateSummary &Summary) {
  RegionNames Names;
  Names.ReadProgressRanges(Platform.UpdateLogStore);
  ProgressBar Bar;
  const UINT32 Blocks = Summary.Record.BlockCount;
  if (Scenario.PowerCutAt != 0) {
    Platform.Flash.CutPowerAtOperation(Scenario.PowerCutAt);
  }
  Summary.Write = EFI_SUCCESS;
  for (UINT32 Block = 0; Block < Blocks; Block++) {
    BiosWriteRequest Request = {};
    Request.BlockNumber = static_cast<UINT16>(Block);
    Request.BlockNumberEx = static_cast<UINT16>(Block);
    Request.ImageOffset = static_cast<UINT64>(Block) * Summary.Record.BlockSize;
    Bar.Show(Block, Blocks, Names.ForBlock(Block, Request.ImageOffset));
    const UINT64 Before = ChipOperations(Platform);
    const EFI_STATUS Status = Services->BiosWriteImage(Services, &Summary.Record, &Request);
    Summary.BlocksAttempted++;
    if (EfiError(Status)) {
      Summary.BlocksFailed++;
      Summary.Write = Summary.Write == EFI_SUCCESS ? Status : Summary.Write;
    } else if (ChipOperations(Platform) == Before) {
      Summary.BlocksUnchanged++;
    } else {
      Summary.BlocksWritten++;
    }
    if (Platform.Flash.PowerLost()) {
      Summary.Interrupted = TRUE;
      Bar.Interrupt();
      return;
    }
  }
  Bar.Finish(Blocks);
}

}  // namespace

void RunWholeUpdate(BiosImageInterfaceProtocol *Services, EmuPlatform &Platform, const RunScenario &Scenario,
                    const UpdateImages &Images, UpdateSummary &Summary) {
  UINT8 *Image = Images.Image;
  const UINTN ImageSize = Images.ImageSize;
  Stopwatch Clock;
  Clock.Start();
  Platform.Flash.ResetStats();
  const auto Finish = [&] {
    const EmuUpdateLog &Log = Platform.UpdateLogStore;
    for (UINTN Index = 0; Index < Log.Count && Summary.ProgressCodeCount < UpdateSummary::kMaxProgressCodes; Index++) {
      if (Log.Records[Index].Type == EmuUpdateLog::kTypeProgressCode) {
        Summary.ProgressCodes[Summary.ProgressCodeCount++] = ReadUnaligned32(Log.Records[Index].Data);
      }
    }
    Summary.Chip = Platform.Flash.Stats();
    Summary.Time = Platform.Flash.Time();
    Summary.ElapsedMicroseconds = Clock.ElapsedMicroseconds();
  };

  Summary.Query = Services->BiosQueryImage(Services, &Summary.Record, 0, 0);
  ConsolePrint("BiosQueryImage: %lx, %d blocks of %d bytes, %d skip regions\r\n", Summary.Query,
               Summary.Record.BlockCount, Summary.Record.BlockSize, Summary.Record.SkipRegionCount);
  if (EfiError(Summary.Query)) {
    Finish();
    return;
  }
  for (UINTN Index = 0; Index < Summary.Record.SkipRegionCount && Index < kMaxSkipRegions; Index++) {
    const SkipRegion &Region = Summary.Record.SkipRegions[Index];
    ConsolePrint("  skip region %x + %x pages (%a)\r\n", Region.Start, Region.Pages,
                 RegionNames::LayoutPart(Region.Start));
  }
  Summary.Verify = Services->BiosVerifySignature(Services, Image, ImageSize, Images.Signature, Images.SignatureSize);
  ConsolePrint("BiosVerifySignature (%ld bytes, %a image): %lx\r\n", static_cast<UINT64>(ImageSize),
               Scenario.Tampered ? "tampered" : "signed", Summary.Verify);
  if (EfiError(Summary.Verify)) {
    Finish();
    return;
  }
  WriteEveryBlock(Services, Platform, Scenario, Summary);
  if (Summary.Interrupted) {
    Finish();
    return;
  }
  VOID *ReadBack = nullptr;
  Summary.Read = Services->BiosReadImage(Services, 0, &ReadBack);
  if (ReadBack != nullptr) {
    ScopeGuard Free([ReadBack] { gBS->FreePool(ReadBack); });
    const auto *Bytes = static_cast<const UINT8 *>(ReadBack);
    Summary.ReadBackEqual = TRUE;
    for (UINTN Offset = 0; Offset < ImageSize; Offset++) {
      if (Bytes[Offset] != Image[Offset]) {
        Summary.ReadBackEqual = FALSE;
        Summary.ReadBackFirstDifference = Offset;
        break;
      }
    }
  }
  ConsolePrint("BiosReadImage: %lx, %a\r\n", Summary.Read, Summary.ReadBackEqual ? "equal to the image" : "DIFFERENT");
  // The chip is checked before the completion, which rewrites the variable store with the
  // variables it preserves.
  CheckChip(Platform, Images, Summary);
  Summary.Completion = Services->SetFlashCompletionStatus(Services, 0);
  ConsolePrint("SetFlashCompletionStatus(0): %lx\r\n", Summary.Completion);
  Finish();
}

void PrintSummary(const UpdateSummary &Summary) {
  const UINT64 Elapsed = Summary.ElapsedMicroseconds / 1000;
  const UINT64 Physical = Summary.Time.Total() / 1000000;
  ConsolePrint("---- summary ----\r\n");
  ConsolePrint("  statuses         query %lx, verify %lx, write %lx, read-back %lx, completion %lx\r\n",
               Summary.Query, Summary.Verify, Summary.Write, Summary.Read, Summary.Completion);
  ConsolePrint("  blocks           %d of %d: %d written, %d left as they were, %d failed\r\n", Summary.BlocksAttempted,
               Summary.Record.BlockCount, Summary.BlocksWritten, Summary.BlocksUnchanged, Summary.BlocksFailed);
  ConsolePrint("  chip             %ld sectors erased, %ld bytes programmed in %ld programs, %ld program faults\r\n",
               Summary.Chip.SectorErases, Summary.Chip.BytesProgrammed, Summary.Chip.Programs,
               Summary.Chip.ProgramFaults);
  ConsolePrint("  physical time    %ld.%03ld s (erase %ld ms, program %ld ms, read %ld ms) "
               "by the chip's timing model\r\n",
               Physical / 1000, Physical % 1000, Summary.Time.EraseNanoseconds / 1000000,
               Summary.Time.ProgramNanoseconds / 1000000, Summary.Time.ReadNanoseconds / 1000000);
  ConsolePrint("  elapsed time     %ld.%03ld s inside OVMF\r\n", Elapsed / 1000, Elapsed % 1000);
  if (Summary.ProgressCodeCount != 0) {
    ConsolePrint("  progress codes  ");
    for (UINTN Index = 0; Index < Summary.ProgressCodeCount; Index++) {
      ConsolePrint(" %x", Summary.ProgressCodes[Index]);
    }
    ConsolePrint(" (update log)\r\n");
  }
  if (Summary.Read != EFI_NOT_STARTED) {
    if (Summary.ReadBackEqual) {
      ConsolePrint("  read-back        equal to the image\r\n");
    } else {
      ConsolePrint("  read-back        differs from byte %lx\r\n", Summary.ReadBackFirstDifference);
    }
  }
  if (Summary.ChipChecked) {
    if (Summary.ChipDifferences == 0) {
      ConsolePrint(Summary.SkipRegionsChecked
                       ? "  chip vs image    the new image outside the skip regions, the installed one inside\r\n"
                       : "  chip vs image    the new image outside the skip regions\r\n");
    } else {
      ConsolePrint("  chip vs image    %ld bytes differ, first at %lx\r\n",
                   Summary.ChipDifferences, Summary.ChipFirstDifference);
    }
  }
}

BOOLEAN ResumedAtKeptRegion(const UpdateSummary &Summary, UINT32 KeptProgressCode) {
  const UINT32 Kept = KeptProgressCode & 0x0F;
  const UINT32 Expected = Kept < kLastResumeRegion ? Kept : kLastResumeRegion;
  return Summary.ProgressCodeCount != 0 && (Summary.ProgressCodes[0] & 0x0F) == Expected;
}

BOOLEAN UpdatePassed(const RunScenario &Scenario, const UpdateSummary &Summary) {
  if (Scenario.Tampered) {
    return Summary.Verify == EFI_SECURITY_VIOLATION && Summary.Chip.SectorErases == 0 && Summary.Chip.Programs == 0;
  }
  return Summary.Query == EFI_SUCCESS && Summary.Verify == EFI_SUCCESS && Summary.Write == EFI_SUCCESS &&
         Summary.BlocksFailed == 0 && Summary.Read == EFI_SUCCESS && Summary.ReadBackEqual && Summary.ChipChecked &&
         Summary.ChipDifferences == 0 && Summary.Chip.ProgramFaults == 0 && Summary.Completion == EFI_SUCCESS &&
         !Summary.Interrupted;
}
