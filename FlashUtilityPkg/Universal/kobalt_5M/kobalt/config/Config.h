// What the config folder offers: FlashSettings with its start values, the INI lookups, and
// CommandFlags, the state the command line sets. Only this folder writes either record.
#pragma once

#include "KobaltBase.h"

constexpr UINTN kIniTextBytes = 1024;

struct FlashSettings {
  struct {
    INT32 flag;
    INT32 level;
  } logFile;
  struct {
    INT32 action;
    Bool pause;
    CHAR8 pauseWarning[kIniTextBytes];
  } flashComplete;
  struct {
    Bool enable;
    INT32 action;
  } flashSecureBiosOverride;
  struct {
    CHAR8 launcherAcWarning[kIniTextBytes];
    CHAR8 securityAcWarning[kIniTextBytes];
  } acAdapter;
  struct {
    INT32 smiErrorRetryDelay;
    INT32 smiErrorRetry;
  } others;
  struct {
    Bool skipSecureBootProtectionCheck;
  } engineeringErrorDisable;
};

// The settings record; every other folder only reads it.
const FlashSettings* Settings();
VOID InitialIniStructure();

// Looks a key up in the loaded platform.ini text. False while no text is loaded or the key is
// missing or empty; out always holds a terminated text.
Bool GetIniString(const CHAR8* section, const CHAR8* key, CHAR8* out, UINTN capacity);

struct CommandFlags {
  Bool debug;       // -dbg
  Bool reboot;      // -r
  Bool shutdown;    // -s
  Bool nothing;     // -n
  Bool skipSbp;     // -skipsbp
};
const CommandFlags* Flags();
