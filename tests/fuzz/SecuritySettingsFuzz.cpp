// Arbitrary bytes as a security-settings record read from flash, and as a platform setup
// record: the seal check answers one of its three statuses and stays inside the 4 KiB block;
// the setup locator always points inside the record.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "src/base/Globals.h"
#include "src/base/Guids.h"
#include "src/verify/PhysicalPresence.h"
#include "src/verify/SecuritySettings.h"
#include "tests/fuzz/FuzzBootServices.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  static EFI_BOOT_SERVICES BootServices = FuzzBootServices();
  gBS = &BootServices;

  // The record exactly as flash would hold it: the input, then erased bytes.
  std::vector<uint8_t> Record(kSecuritySettingsSize, 0xFF);
  std::memcpy(Record.data(), Data, Size < Record.size() ? Size : Record.size());
  EFI_STATUS Status = CheckSecuritySettings(Record.data());
  if (Status != EFI_SUCCESS && Status != EFI_NOT_READY && Status != EFI_SECURITY_VIOLATION) {
    std::abort();
  }

  // A setup record of the newer layout when the input asks for it.
  std::vector<uint8_t> Setup(2048, 0);
  std::memcpy(Setup.data(), Data, Size < Setup.size() ? Size : Setup.size());
  if (Size > 0 && (Data[0] & 1) != 0) {
    std::memcpy(Setup.data(), &gPlatformSetupLayoutGuid, sizeof(EFI_GUID));
  }
  const UINT8 *Setting = PlatformSettingLocator(Setup.data());
  if (Setting == nullptr || Setting < Setup.data() || Setting >= Setup.data() + Setup.size()) {
    std::abort();
  }
  gBS = nullptr;
  return 0;
}
