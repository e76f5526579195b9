// The settings record FlashSettings and its start values (InitialIniStructure). Reading the
// sections of a loaded platform.ini text over it is the loader's part; the record is written
// only from this folder.
#include "config/Config.h"
#include "output/Output.h"

namespace {

constinit FlashSettings flashSettings = {};

constexpr CHAR16 kInitialIniStructureName[] = u"InitialIniStructure";
// The message key of the power warnings; the message itself is looked up when it is shown.
constexpr CHAR8 kAcWarningMessageKey[] = "messagestringA02";

VOID CopyText8(CHAR8* destination, UINTN capacity, const CHAR8* source) {
  UINTN i = 0;
  for (; source[i] != 0 && i + 1 < capacity; i++) {
    destination[i] = source[i];
  }
  destination[i] = 0;
}

// One start-value function per section, in the order of InitialIniStructure.
VOID StartAcAdapter() {
  CopyText8(flashSettings.acAdapter.launcherAcWarning, kIniTextBytes, kAcWarningMessageKey);
  CopyText8(flashSettings.acAdapter.securityAcWarning, kIniTextBytes, kAcWarningMessageKey);
}

VOID StartFlashComplete() {
  flashSettings.flashComplete.action = 2;  // reboot
  flashSettings.flashComplete.pause = false;
  flashSettings.flashComplete.pauseWarning[0] = 0;
}

VOID StartFlashSecureBiosOverride() {
  flashSettings.flashSecureBiosOverride.enable = false;
  flashSettings.flashSecureBiosOverride.action = 1;
}

VOID StartLogFile() {
  flashSettings.logFile.flag = 0;
  flashSettings.logFile.level = 0;
}

VOID StartOthers() {
  flashSettings.others.smiErrorRetryDelay = 100;  // milliseconds
  flashSettings.others.smiErrorRetry = 5;
}

VOID StartEngineeringErrorDisable() { flashSettings.engineeringErrorDisable.skipSecureBootProtectionCheck = false; }

}  // namespace

const FlashSettings* Settings() { return &flashSettings; }

VOID InitialIniStructure() {
  TraceEnter(kInitialIniStructureName);
  StartAcAdapter();
  StartFlashComplete();
  StartFlashSecureBiosOverride();
  StartLogFile();
  StartOthers();
  StartEngineeringErrorDisable();
  TraceLeave(kInitialIniStructureName, nullptr);
}
