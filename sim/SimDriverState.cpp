#include "SimDriverState.h"

#include "../src/base/Globals.h"
#include "../src/base/Hob.h"
#include "../src/base/SmmServices.h"
#include "../src/driver/CallbackHub.h"
#include "../src/driver/Config.h"
#include "../src/driver/DriverState.h"
#include "../src/driver/DynamicPcd.h"
#include "../src/driver/FlashMap.h"
#include "../src/driver/PointerRegistration.h"
#include "../src/driver/VariableStorePointers.h"
#include "../src/flash/FlashState.h"
#include "../src/platform/Cmos.h"
#include "../src/psp/PspState.h"
#include "../src/update/CriticalDataAuthVar.h"
#include "../src/verify/SecuritySettings.h"

void ResetEdkLibrariesForTest();

void ResetAllDriverState() {
  ResetConfigForTest();
  ResetDriverStateForTest();
  ResetFlashStateForTest();
  ResetCallbackHubForTest();
  ResetFlashMapForTest();
  ResetPointerRegistrationForTest();
  ResetVariableStorePointersForTest();
  ResetPspStateForTest();
  ResetSecuritySettingsForTest();
  // From here on nothing gives memory back.
  ResetGlobalsForTest();
  ResetHobCacheForTest();
  ResetSmmStateForTest();
  ResetDynamicPcdForTest();
  ResetCmosStateForTest();
  ResetEdkLibrariesForTest();
  ResetCriticalDataAuthVarForTest();
}
