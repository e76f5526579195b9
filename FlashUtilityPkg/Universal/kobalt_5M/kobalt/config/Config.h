// What the config folder offers: FlashSettings with its start values, the INI lookups, and
// CommandFlags, the state the command line sets. Only this folder writes either record.
#pragma once

#include "KobaltBase.h"

constexpr UINTN kIniTextBytes = 1024;

constexpr UINTN kCommonFlashErrorMessages = 20;  // ErrorMsg00 to ErrorMsg13
constexpr UINTN kMultiFdEntries = 100;            // FD#00 to FD#99
constexpr UINTN kCheckListEntries = 20;           // PlatformName1.., Version1..
constexpr UINTN kForceTypeCount = 255;            // Type#00 to Type#fe
constexpr UINTN kEcMaskBytes = 32;                // MaskByte0 to MaskByte31

// One group of fields per platform.ini section. bool fields are 1 only for a value of exactly 1;
// text fields are terminated.
struct FlashSettings {
  struct {
    Bool present;  // the section header stands in the text
    CHAR8 switchString[kIniTextBytes];
    CHAR8 errorMsg[kCommonFlashErrorMessages][kIniTextBytes];
  } commonFlash;
  struct {
    INT32 flag;
    CHAR8 fd[kMultiFdEntries][kIniTextBytes];
  } multiFd;
  struct {
    Bool elapse;
  } ui;
  struct {
    INT32 flag;
    INT32 batteryCheck;
    INT32 batteryBound;
    CHAR8 launcherAcWarning[kIniTextBytes];
    CHAR8 securityAcWarning[kIniTextBytes];
  } acAdapter;
  struct {
    INT32 flag;
    CHAR8 platformName[kCheckListEntries][kIniTextBytes];  // PlatformName1 at index 0
  } platformCheck;
  struct {
    INT32 flag;
    CHAR8 version[kCheckListEntries][kIniTextBytes];  // Version1 at index 0
  } platformVersion;
  struct {
    INT32 flag;
    Bool checkByBios;
    CHAR8 checkByBiosErrorMessage[kIniTextBytes];
  } biosVersionCheck;
  struct {
    Bool biosVfEnable;
    CHAR8 versionFormat[kIniTextBytes];
  } biosVersionFormat;
  struct {
    INT32 action;  // 0 nothing, 1 shutdown, 2 reboot
    Bool pause;
    CHAR8 pauseWarning[kIniTextBytes];
  } flashComplete;
  struct {
    Bool enable;  // EnableFlashSecureBIOSOverride
    INT32 action;
  } flashSecureBiosOverride;
  struct {
    Bool all;
    Bool bbPei;
    Bool cpuMicrocode;
    Bool variable;
    Bool dxe;
    Bool ec;
    Bool password;
    Bool oemNvs;
    Bool logo;
    Bool forceTypes[kForceTypeCount];  // the meaning of CommandFlags::typeFlags
    Bool alp;
    Bool useBvdtRomMap;
  } forceFlash;
  struct {
    Bool bios;
    Bool gbe;
    Bool me;
    Bool desc;
    Bool platformData;
  } region;
  struct {
    Bool progressBar;  // 1 block by block, 0 a single block
    CHAR8 ecDockWarning[kIniTextBytes];
    Bool ignore21h;
    Bool action20h;
    UINT8 ecBlockSize;
    Bool enableEcProtectMask;
    UINT8 protectMaskBitCount;
    UINT8 maskByte[kEcMaskBytes];
  } updateEc;
  struct {
    CHAR8 meFileName[kIniTextBytes];
    CHAR8 command[kIniTextBytes];
  } updateOemMe;
  struct {
    INT32 flag;
    INT32 level;  // 0 to 4
    CHAR8 fileName[kIniTextBytes];  // read, never used: the log keeps its own name
  } logFile;
  struct {
    INT32 fileNotFound;
    INT32 errorBeforeFlash;
    INT32 batteryNotConnect;
    INT32 batteryCapacityNotEnough;
    INT32 writeRomFail;
    INT32 writeEcFail;
    INT32 writeExtraDataFail;
  } returnErrorCode;  // read, never used: a main returns only a Bool
  struct {
    INT32 disableCompare;
    INT32 disableVerify;
    INT32 verifyErrorRetry;
    INT32 smiErrorRetryDelay;  // milliseconds
    INT32 smiErrorRetry;
    Bool disableSecureCapsuleFlash;
  } others;
  struct {
    Bool restore;
  } factoryCopy;
  struct {
    Bool updateNvStorage;
    Bool updateFactoryCopy;
  } securityFlashFactoryUpdate;
  struct {
    Bool skipSecureBootProtectionCheck;
  } engineeringErrorDisable;
  struct {
    Bool viaEsp;
  } secureUpdate;
  struct {
    Bool flag;
    INT32 interval;  // seconds
  } autoWakeup;
};

// The settings record; every other folder only reads it.
const FlashSettings* Settings();
VOID InitialIniStructure();

// ---- INI reader and settings ----
// Rewrites text in place into its normal form, keeps it as the working text, reads all
// sections into FlashSettings and lets the firmware's filter put settings back.
VOID LoadOption(CHAR8* text, UINT32* size, Bool withMultiFd);

// ---- configuration sources ----
VOID ClearCfg_variable();
// Stores a normal-form text, less the sections a capsule run must not take over, in the
// variable FlashINISettings.
VOID SaveCfg_Variable(const CHAR8* text, UINT32 size);

// ---- OEM parameters (function 19h) ----
constexpr UINTN kOemListBytes = 256;
// Adds a word (upper-cased in place) to the list; a word that does not fit is left out whole.
VOID AddOemParameter(CHAR16* word);
// Ends the list for the firmware: 0xFF behind the words, each word's '#' turned into its zero,
// so that an empty list goes out as 00 FF.
VOID CloseOemList();
// The list's kOemListBytes bytes; the conditional check sends them and keeps the answer there.
CHAR8* OemParameterList();

// The name of a region type of the platform ROM map ("Undefined" for an unknown type).
const CHAR16* RegionTypeName(UINT8 type);

// ---- command line and filters ----
constexpr UINTN kImageNameCharacters = 128;
constexpr UINTN kCommandTextCharacters = 512;
Bool ParseCommandLine(CHAR16* imageName, CHAR16* commandText);
// The help; pageKey waits for the key between screens (the caller tells the firmware of it).
VOID DisplayUsage(CHAR16 (*pageKey)());
// Blanks and tabs, one "0x", then hex digits up to the first other character.
UINT32 ParseHex(const CHAR16* text);
Bool ChkFilterArg(const CHAR16* commandText);
// The firmware's command filter as the filters read it: the entries and their count.
struct CommandFilter {
  UINT8* record;  // the firmware's record with its head; null without a filter
  UINT32 count;   // entry bytes behind the head
};
// Takes the firmware's filter record (a pool block, its length field the record's length) from
// the 10h wrapper; it is freed when another comes or the driver unloads.
VOID KeepFirmwareFilter(UINT8* record, UINT32 length);

// ---- package mode on the command line ----
// The two option texts of a package's first record: the fields' sizes, a text may fill them.
constexpr UINTN kPackageDefaultArgumentBytes = 49;
constexpr UINTN kPackagePermittedOptionBytes = 256;
// Argument 0: the application's file name behind any volume prefix, ".efi" added when missing.
VOID SetApplication(const CHAR16* argument0);
const CHAR16* ApplicationName();
// The package reader found a package: the run is in package mode from here on, with these texts.
VOID EnterPackageMode(const CHAR8* defaultArguments, const CHAR8* permittedOptions);
Bool IsPackageMode();
// Either out-argument may be null; the texts are empty outside package mode.
VOID GetPackageCommands(const CHAR8** defaultArguments, const CHAR8** permittedOptions);
// -extrFD's directory (empty until the option was read).
const CHAR16* ExtractDirectory();

// ---- multi-image selection ----
Bool IsMultiFdMode();
Bool IsCondi_match();
// Copies the matched image's name into 40 characters.
VOID GetMatchedImageName(CHAR16* name);
// One [MULTI_FD] rule by its number (0 to 99) into rule (capacity bytes, terminated); false
// when the rule is missing or empty. IsCondi_match walks the rules held in FlashSettings.
typedef Bool (*MultiFdRuleReader)(UINTN number, CHAR8* rule, UINTN capacity);
// The model name the ID rule compares with; function 11h hands it over (at most 255 characters
// are kept).
constexpr UINTN kModelNameCharacters = 256;
VOID KeepModelName(const CHAR16* name);

constexpr UINTN kTypeFlagCount = 255;  // types 0 to 0xFE
constexpr UINTN kEdtEntries = 9;
constexpr UINTN kEdtEntryCharacters = 128;
constexpr UINT8 kDefaultRtCount = 5;
constexpr UINT32 kDefaultVrtCount = 3;

struct CommandFlags {
  Bool debug;       // -dbg
  Bool reboot;      // -r
  Bool shutdown;    // -s
  Bool nothing;     // -n
  Bool skipSbp;     // -skipsbp
  Bool help;        // -h, -?
  Bool ab;
  Bool ac;
  Bool acb;
  Bool all;
  Bool alp;
  Bool bios;
  Bool dc;
  Bool desc;
  Bool di;
  Bool e;           // -e:, with eOffset, eSize, eAddress
  Bool ecbp;
  Bool ecp;
  Bool ecb;
  Bool ec;
  Bool ecCrisis;    // -ec_crisis
  Bool eob;
  Bool extrFD;      // set by the package's own argument scan
  Bool forceit;
  Bool g;
  Bool gbe;
  Bool mc;
  Bool me;
  Bool mfg;
  Bool nopause;
  Bool pdr;
  Bool pi;
  Bool pq;
  Bool pr;
  Bool priv;        // -priv, -ppriv
  Bool rt;          // -rt:, with rtCount, rtDelay
  Bool u;
  Bool ufc;
  Bool unvs;
  Bool v;
  Bool vrt;         // -vrt:, with vrtCount
  Bool typeFlags[kTypeFlagCount];
  UINT8 rtCount;
  UINT32 rtDelay;
  UINT32 vrtCount;
  UINT32 eOffset;
  UINT32 eSize;
  UINT32 eAddress;
  CHAR16 edtList[kEdtEntries][kEdtEntryCharacters];
  UINT32 edtCount;
};
const CommandFlags* Flags();

// State. Each file of the folder keeps its state in one record; ResetConfigState() puts them
// all back as a fresh load leaves them. Host builds and tests only: the firmware loads the
// driver fresh. Pool blocks are forgotten, not freed: the environment that handed them out
// takes them back.
VOID ResetConfigState();
// Frees the pool memory the folder keeps for the whole run; called when the driver unloads.
VOID ReleaseConfigMemory();

// ---- used by the capsule run ----
Bool GetCfg_Variable();
