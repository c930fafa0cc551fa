// Progress records and the primary PSP directory's signature: what reaches the update log,
// the marker's invalidation and restoration with their read-back loop, the marker test the
// image query makes, and the BIOS ID the query then reads from the recovery copy.
#include <string>
#include <vector>

#include "../../src/driver/Config.h"
#include "../../src/flash/BiosIdRecord.h"
#include "../../src/flash/ImageQuery.h"
#include "../../src/update/UpdateProgress.h"
#include "../flash/FlashFixture.h"

namespace {

using namespace EmuFlashLayout;
using Record = std::pair<UINT32, std::string>;  // type, data bytes

class UpdateProgress : public FlashFixture {
protected:
  void SetUp() override { Start(); }

  std::vector<Record> LogRecords() const {
    std::vector<Record> Found;
    for (UINTN Index = 0; Index < Platform->UpdateLogStore.Count; Index++) {
      const EmuUpdateLogRecord &R = Platform->UpdateLogStore.Records[Index];
      Found.emplace_back(R.Type, std::string(reinterpret_cast<const char *>(R.Data), R.Length));
    }
    return Found;
  }
  std::string FlashAt(UINT32 Address, UINT32 Length) const {
    return std::string(reinterpret_cast<const char *>(Platform->MappedFlash(Address, Length)), Length);
  }
  void ZeroPrimaryCookie() {
    const UINT32 Zero = 0;
    Platform->Flash.Load(kPspL1DirectoryAddress - kMappedBase, &Zero, sizeof(Zero));
  }
  size_t Writes() const { return Platform->CountCalls("WriteFlash"); }
};

std::string Le32(UINT32 Value) { return std::string(reinterpret_cast<const char *>(&Value), 4); }

TEST_F(UpdateProgress, RecordsTheCodeAndItsRegionNameAndClearingRecordsOnlyTheCode) {
  const std::vector<std::pair<UINT32, std::string>> Rows = {
      {0x00, "IBB1R"}, {0xB4, "IBB1"}, {0x0A, "OBB3"}, {0x0B, "Undefine"}};
  for (const auto &[Code, Name] : Rows) {
    Platform->UpdateLogStore.ClearRecords();
    EXPECT_EQ(SetUpdateProgress(Code), EFI_SUCCESS);
    EXPECT_EQ(LogRecords(), (std::vector<Record>{{33, Le32(Code)}, {35, Name}})) << Code;
  }
  Platform->UpdateLogStore.ClearRecords();
  EXPECT_EQ(ClearUpdateProgressRecord(), EFI_SUCCESS);
  EXPECT_EQ(LogRecords(), (std::vector<Record>{{33, Le32(0xFE)}}));
}

// The marker is the primary directory's "$PSP": the EFS names it at 0xFFF80000.
TEST_F(UpdateProgress, InvalidatesAndRestoresOnlyTheSignature) {
  const std::string Block = FlashAt(kPspL1DirectoryAddress, 0x1000);
  ASSERT_EQ(Block.substr(0, 4), "$PSP");
  struct Row {
    const char *Name;
    BOOLEAN Invalidate;
    EFI_STATUS Status;
    size_t Writes;
    std::string Cookie;  // afterwards
  } Rows[] = {
      {"invalidate an intact block", TRUE, EFI_SUCCESS, 1, std::string(4, '\0')},
      {"invalidate an invalid block", TRUE, EFI_NOT_FOUND, 0, std::string(4, '\0')},
      {"restore an invalid block", FALSE, EFI_SUCCESS, 1, "$PSP"},
      {"restore an intact block", FALSE, EFI_SUCCESS, 0, "$PSP"},
  };
  for (const Row &R : Rows) {
    Platform->ClearCalls();
    EXPECT_EQ(SetPspDirectorySignature(R.Invalidate), R.Status) << R.Name;
    EXPECT_EQ(Writes(), R.Writes) << R.Name;
    EXPECT_EQ(FlashAt(kPspL1DirectoryAddress, 0x1000), R.Cookie + Block.substr(4)) << R.Name;
    EXPECT_EQ(IsPspDirectoryInvalidated(), R.Cookie != "$PSP") << R.Name;
  }
}

// A chip that never reads back what was written: every read of the block shows one byte changed.
EFI_STATUS EFIAPI ReadFlashCorrupted(UINT8 Type, VOID *Buffer, UINT32 Address, UINT32 Length);
PLATFORM_READ_FLASH gOriginalReadFlash = nullptr;
EFI_STATUS EFIAPI ReadFlashCorrupted(UINT8 Type, VOID *Buffer, UINT32 Address, UINT32 Length) {
  EFI_STATUS Status = gOriginalReadFlash(Type, Buffer, Address, Length);
  if (Length > 0x100) {
    static_cast<UINT8 *>(Buffer)[0x100] ^= 0x01;
  }
  return Status;
}

TEST_F(UpdateProgress, MarkerWriteIsRetriedUntilItReadsBackAndGivesUpAfterAHundredAttempts) {
  Platform->Flash.FailOperation(1);  // the first write's erase fails; the second attempt holds
  EXPECT_EQ(SetPspDirectorySignature(TRUE), EFI_SUCCESS);
  EXPECT_EQ(Writes(), 2u);
  EXPECT_TRUE(IsPspDirectoryInvalidated());

  Platform->ClearCalls();
  gOriginalReadFlash = Platform->FlashService->ReadFlash;
  Platform->FlashService->ReadFlash = ReadFlashCorrupted;
  EXPECT_EQ(SetPspDirectorySignature(FALSE), EFI_DEVICE_ERROR);
  Platform->FlashService->ReadFlash = gOriginalReadFlash;
  EXPECT_EQ(Writes(), 100u);
  EXPECT_EQ(Platform->CountCalls("ReadFlash"), 101u);
}

TEST_F(UpdateProgress, AnUnreadableEfsShowsNoMarkerAndIsNotTouched) {
  ZeroPrimaryCookie();
  gConfig.EfsAddress = 0xFFFFFFEA;  // its location word would end past the flash window
  EXPECT_FALSE(IsPspDirectoryInvalidated());
  EXPECT_EQ(SetPspDirectorySignature(FALSE), EFI_ACCESS_DENIED);
  EXPECT_EQ(Writes(), 0u);
}

TEST_F(UpdateProgress, ClearingAtCompletionRestoresTheMarkerEvenWhenTheLogFails) {
  EnableTraces(true);
  ZeroPrimaryCookie();
  Platform->UpdateLogStore.Answer = EFI_DEVICE_ERROR;
  EXPECT_EQ(Q42ClearUpdateProgress(), EFI_SUCCESS);
  EXPECT_FALSE(IsPspDirectoryInvalidated());
  EXPECT_EQ(Traces(), std::vector<std::string>{"  Q42ClearUpdateProgress fail!!"});
}

// The query reads the BIOS ID from the recovery copy (RecoveryBiosIdBase - S + 0x178000) only
// on a region-tracked platform whose primary directory has lost its signature.
TEST_F(UpdateProgress, QueryReadsTheRecoveryBiosIdWhileTheMarkerIsSet) {
  const UINT32 RecoveryArea = gConfig.RecoveryBiosIdBase - kBiosIdAreaSize + 0x178000;
  const UINT8 Id[kBiosIdLength] = {'R', 'E', 'C', 'O', 'V'};
  const std::vector<UINT8> IdRecord = BiosIdRecordBytes(Id);
  Platform->Flash.Load(RecoveryArea + 0xFFF0 - kMappedBase, IdRecord.data(), static_cast<UINT32>(IdRecord.size()));
  struct Row {
    bool RegionTracked, MarkerSet;
    std::string Id;
  } Rows[] = {{true, true, "RECOV"}, {true, false, "ZQ42A"}, {false, true, "ZQ42A"}};
  for (const Row &R : Rows) {
    Platform->Config->Flags = R.RegionTracked ? kPlatformConfigAlternativeFlag : 0;
    if (R.MarkerSet) {
      ZeroPrimaryCookie();
    } else {
      ASSERT_EQ(SetPspDirectorySignature(FALSE), EFI_SUCCESS);
    }
    BiosImageQueryRecord Query;
    ASSERT_EQ(mBiosImageInterface->BiosQueryImage(mBiosImageInterface, &Query, 0, 0), EFI_SUCCESS);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(Query.BiosId), kBiosIdLength), R.Id);
  }
}

}  // namespace
