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

// ---- INI reader and settings ----
// Rewrites text in place into its normal form, keeps it as the working text, reads all
// sections into FlashSettings and lets the firmware's filter put settings back.
VOID LoadOption(CHAR8* text, UINT32* size, Bool withMultiFd);
INT32 GetIniInt(const CHAR8* section, const CHAR8* key, INT32 defaultValue);
INT32 GetIniHex(const CHAR8* section, const CHAR8* key, INT32 defaultValue);

// ---- configuration sources ----
VOID ClearCfg_variable();
Bool GetCfg_Variable();
Bool GetCfg_Secure();
// imageName holds 128 characters; the multi-image road may replace it.
Bool LoadConfiguration(CHAR16* imageName);

// ---- command line and filters ----
constexpr UINTN kImageNameCharacters = 128;
constexpr UINTN kCommandTextCharacters = 512;
Bool ParseCommandLine(CHAR16* imageName, CHAR16* commandText);
VOID DisplayUsage();
Bool ChkFilterArg(const CHAR16* commandText);
// Runs at the end of every load of a settings text.
VOID ChkFilterTblIni();

// ---- multi-image selection ----
Bool IsMultiFdMode();
Bool IsCondi_match();
// Copies the matched image's name into 40 characters.
VOID GetMatchedImageName(CHAR16* name);

struct CommandFlags {
  Bool debug;       // -dbg
  Bool reboot;      // -r
  Bool shutdown;    // -s
  Bool nothing;     // -n
  Bool skipSbp;     // -skipsbp
};
const CommandFlags* Flags();
