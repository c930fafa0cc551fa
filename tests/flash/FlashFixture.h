// The flash scenarios: the default platform holding the reference image, with the HOBs of
// an allowed and authorized update (tests switch each off before Start()).
#pragma once
#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <tuple>
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

  // The default image for a layout, built once per process.
  static const std::vector<uint8_t> &ImageFor(const EmuLayout &Layout) {
    static std::map<std::tuple<UINT32, UINT32, UINT32>, std::vector<uint8_t>> Built;
    auto Key = std::make_tuple(Layout.EcSize, Layout.LowerFlashSize, Layout.MappedFlashSize);
    auto Found = Built.find(Key);
    if (Found == Built.end()) {
      DefaultImageOptions Options;
      Options.Layout = Layout;
      Found = Built.emplace(Key, BuildDefaultImage(Options).Bytes()).first;
    }
    return Found->second;
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

  // Makes a pool copy of what the platform holds (EC store and chip) the accepted image,
  // every byte XORed with Flip, with the platform's own geometry in mFlashInfo.
  void AcceptFlashCopy(UINT8 Flip) {
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
  }

  EFI_STATUS Query(BiosImageInterfaceProtocol *Table, BiosImageQueryRecord &Record) {
    return Table->BiosQueryImage(Table, &Record, 0, 0);
  }

  bool UpdateAllowedHob = true;
  bool BootBlockUpdateHob = true;
  bool UpdateAuthorizedHob = true;
  bool FullRecoveryHob = false;
};
