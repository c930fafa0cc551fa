// The flash scenarios: the default platform holding the reference image, with the HOBs of
// an allowed and authorized update (tests switch each off before Start()).
#pragma once
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "../../emu/host/EmuHostMemory.h"
#include "../../src/base/Globals.h"
#include "../../src/base/Guids.h"
#include "../../src/driver/DriverState.h"
#include "../../src/flash/FlashRecords.h"
#include "../../src/flash/FlashState.h"
#include "../../tools/lib/ImageBuilder.h"
#include "../support/PlatformFixture.h"

class FlashFixture : public PlatformFixture {
protected:
  FlashFixture() { EXPECT_TRUE(LoadImage(*Platform, DefaultImage())); }

  // Rebuilds the platform with another layout, holding the default image built for it.
  void UseLayout(const EmuLayout &Layout) {
    ASSERT_TRUE(Platform->Initialize(EmuHostMemory(), Layout));
    ASSERT_TRUE(LoadImage(*Platform, ImageFor(Layout)));
  }

  static std::vector<uint8_t> ImageFor(const EmuLayout &Layout) {
    DefaultImageOptions Options;
    Options.Layout = Layout;
    return BuildDefaultImage(Options).Bytes();
  }

  void Start() {
    for (const auto &[On, Guid] : {std::pair{UpdateAllowedHob, &gUpdateAllowedHobGuid},
                                   {BootBlockUpdateHob, &gBootBlockUpdateHobGuid},
                                   {UpdateAuthorizedHob, &gUpdateAuthorizedHobGuid},
                                   {FullRecoveryHob, &gFullRecoveryHobGuid}}) {
      if (On) {
        Hobs.AddGuidHob(*Guid, nullptr, 0);
      }
    }
    ASSERT_EQ(StartDriver(), EFI_SUCCESS);
    Platform->ClearCalls();
    Platform->ClearTraces();
  }

  // Starts the driver with a pool copy of what the platform holds (EC store and chip) as the
  // accepted image, every byte XORed with Flip, and the platform's own geometry in mFlashInfo.
  void StartWithCopy(UINT8 Flip) {
    Start();
    ASSERT_EQ(Platform->FlashService->GetFlashInfo(&mFlashInfo), EFI_SUCCESS);
    const UINT32 Ec = Platform->Layout.EcSize;
    const UINTN Size = Ec + Platform->Flash.Size();
    VOID *Copy = nullptr;
    ASSERT_EQ(gBS->AllocatePool(EfiBootServicesData, Size, &Copy), EFI_SUCCESS);
    mVerifiedImage = static_cast<UINT8 *>(Copy);
    mVerifiedImageSize = Size;
    std::copy_n(Platform->EcStore, Ec, mVerifiedImage);
    std::copy_n(Platform->Flash.Bytes(), Platform->Flash.Size(), mVerifiedImage + Ec);
    for (UINTN Index = 0; Index < Size; Index++) {
      mVerifiedImage[Index] ^= Flip;
    }
    Platform->ClearCalls();
    Platform->Flash.ResetStats();
  }

  EFI_STATUS Query(BiosImageInterfaceProtocol *Table, BiosImageQueryRecord &Record) {
    return Table->BiosQueryImage(Table, &Record, 0, 0);
  }

  bool UpdateAllowedHob = true;
  bool BootBlockUpdateHob = true;
  bool UpdateAuthorizedHob = true;
  bool FullRecoveryHob = false;
};
