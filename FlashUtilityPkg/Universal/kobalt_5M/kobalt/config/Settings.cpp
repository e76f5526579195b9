// The settings record FlashSettings: its start values (InitialIniStructure) and the reading of
// every section out of the working text (LoadAllSections). How the text is searched is the INI
// reader's; where it comes from is the configuration sources'.
#include "config/ConfigInternal.h"
#include "output/Output.h"

namespace {

constinit FlashSettings flashSettings = {};

constexpr CHAR16 kInitialIniStructureName[] = u"InitialIniStructure";
// The message key of the power warnings and of the dock warning; the message itself is looked
// up when it is shown.
constexpr CHAR8 kAcWarningMessageKey[] = "messagestringA02";
constexpr CHAR8 kDockWarningMessageKey[] = "messagestringA04";
constexpr CHAR8 kLogFileNameStart[] = "ZAPROM.Log";
constexpr INT32 kHighestLogLevel = 4;

constexpr CHAR8 kCommonFlashSection[] = "CommonFlash";
constexpr CHAR8 kMultiFdSection[] = "MULTI_FD";
constexpr CHAR8 kUiSection[] = "UI";
constexpr CHAR8 kAcAdapterSection[] = "AC_Adapter";
constexpr CHAR8 kPlatformCheckSection[] = "Platform_Check";
constexpr CHAR8 kPlatformVersionSection[] = "PlatformVersion";
constexpr CHAR8 kBiosVersionCheckSection[] = "Bios_Version_Check";
constexpr CHAR8 kBiosVersionFormatSection[] = "BIOSVersionFormat";
constexpr CHAR8 kFlashCompleteSection[] = "FlashComplete";
constexpr CHAR8 kFlashSecureBiosOverrideSection[] = "FlashSecureBIOSOverride";
constexpr CHAR8 kForceFlashSection[] = "ForceFlash";
constexpr CHAR8 kRegionSection[] = "Region";
constexpr CHAR8 kUpdateEcSection[] = "UpdateEC";
constexpr CHAR8 kUpdateOemMeSection[] = "UpdateOEMME";
constexpr CHAR8 kLogFileSection[] = "Log_file";
constexpr CHAR8 kReturnErrorCodeSection[] = "ReturnErrorCode";
constexpr CHAR8 kOthersSection[] = "Others";
constexpr CHAR8 kFactoryCopySection[] = "FactoryCopy";
constexpr CHAR8 kSecurityFlashFactoryUpdateSection[] = "SecurityFlashFactoryUpdate";
constexpr CHAR8 kEngineeringErrorDisableSection[] = "EngineeringErrorDisable";
constexpr CHAR8 kSecureUpdateSection[] = "SecureUpdate";
constexpr CHAR8 kAutoWakeupSection[] = "AutoWakeup";

// The start values of the [CommonFlash] error messages that have one, by number.
struct ErrorMessageStart {
  UINT8 number;
  const CHAR8* text;
};
constexpr ErrorMessageStart kErrorMessageStarts[] = {
    {0x00, "No error!"},
    {0x01, "AC detect error!"},
    {0x02, "DC detect error!"},
    {0x03, "DC gas gauge under xx%!"},
    {0x04, "BIOS version compare error!"},
    {0x05, "Model name compare error!"},
    {0x10, "Not support this version of Flash Common Interface!"},
    {0x11, "Show BIOS version string length more then xx bytes."},
    {0x12, "Show model name string length more then xx bytes."},
};

constexpr UINTN kKeyNameBytes = 32;

VOID CopyText8(CHAR8* destination, UINTN capacity, const CHAR8* source) {
  UINTN i = 0;
  for (; source[i] != 0 && i + 1 < capacity; i++) {
    destination[i] = source[i];
  }
  destination[i] = 0;
}

// "prefix" followed by number, in decimal or lower-case hexadecimal, with at least digits digits.
VOID BuildNumberedKey(CHAR8* key, const CHAR8* prefix, UINT32 number, UINT32 base, UINT32 digits) {
  constexpr CHAR8 kDigits[] = "0123456789abcdef";
  UINTN length = 0;
  for (; prefix[length] != 0 && length + 1 < kKeyNameBytes; length++) {
    key[length] = prefix[length];
  }
  CHAR8 reversed[12];
  UINT32 count = 0;
  do {
    reversed[count++] = kDigits[number % base];
    number /= base;
  } while (number != 0 && count < sizeof(reversed));
  while (count < digits && count < sizeof(reversed)) {
    reversed[count++] = '0';
  }
  while (count > 0 && length + 1 < kKeyNameBytes) {
    key[length++] = reversed[--count];
  }
  key[length] = 0;
}

Bool ReadBool(const CHAR8* section, const CHAR8* key, INT32 defaultValue) {
  return GetIniInt(section, key, defaultValue) == 1;
}

VOID ReadText(const CHAR8* section, const CHAR8* key, CHAR8* field) {
  GetIniString(section, key, field, kIniTextBytes);
}

// One function per section: start true sets the start values, false reads the working text.

VOID CommonFlashSection(Bool start) {
  auto& s = flashSettings.commonFlash;
  if (start) {
    s.present = false;
    s.switchString[0] = 0;
    for (UINTN i = 0; i < kCommonFlashErrorMessages; i++) {
      s.errorMsg[i][0] = 0;
    }
    for (const ErrorMessageStart& entry : kErrorMessageStarts) {
      CopyText8(s.errorMsg[entry.number], kIniTextBytes, entry.text);
    }
    return;
  }
  s.present = IniSectionExists(kCommonFlashSection, GetIniText(), GetIniTextSize());
  ReadText(kCommonFlashSection, "SwitchString", s.switchString);
  if (!s.present) {
    return;
  }
  CHAR8 key[kKeyNameBytes];
  for (UINT32 i = 0; i < kCommonFlashErrorMessages; i++) {
    BuildNumberedKey(key, "ErrorMsg", i, 16, 2);
    ReadText(kCommonFlashSection, key, s.errorMsg[i]);
  }
}

VOID MultiFdSection(Bool start) {
  auto& s = flashSettings.multiFd;
  if (start) {
    s.flag = 0;
    for (UINTN i = 0; i < kMultiFdEntries; i++) {
      s.fd[i][0] = 0;
    }
    return;
  }
  s.flag = GetIniInt(kMultiFdSection, "Flag", 0);
  if (s.flag == 0) {
    return;
  }
  CHAR8 key[kKeyNameBytes];
  for (UINT32 i = 0; i < kMultiFdEntries; i++) {
    BuildNumberedKey(key, "FD#", i, 10, 2);
    ReadText(kMultiFdSection, key, s.fd[i]);
  }
}

VOID UiSection(Bool start) { flashSettings.ui.elapse = start ? false : ReadBool(kUiSection, "Elapse", 0); }

VOID AcAdapterSection(Bool start) {
  auto& s = flashSettings.acAdapter;
  if (start) {
    s.flag = 1;
    s.batteryCheck = 0;
    s.batteryBound = 0xFF;
    CopyText8(s.launcherAcWarning, kIniTextBytes, kAcWarningMessageKey);
    CopyText8(s.securityAcWarning, kIniTextBytes, kAcWarningMessageKey);
    return;
  }
  s.flag = GetIniInt(kAcAdapterSection, "Flag", 1);
  s.batteryCheck = GetIniInt(kAcAdapterSection, "BatteryCheck", 0);
  if (s.batteryCheck == 1) {
    s.batteryBound = GetIniInt(kAcAdapterSection, "BatteryBound", 0xFF);
  }
  ReadText(kAcAdapterSection, "LauncherAcWarning", s.launcherAcWarning);
  ReadText(kAcAdapterSection, "SecurityAcWarning", s.securityAcWarning);
}

// The names list of [Platform_Check] and the versions of [PlatformVersion]: key1 to key20.
VOID ReadNumberedList(const CHAR8* section, const CHAR8* prefix, CHAR8 (*list)[kIniTextBytes]) {
  CHAR8 key[kKeyNameBytes];
  for (UINT32 i = 0; i < kCheckListEntries; i++) {
    BuildNumberedKey(key, prefix, i + 1, 10, 1);
    ReadText(section, key, list[i]);
  }
}

VOID PlatformCheckSection(Bool start) {
  auto& s = flashSettings.platformCheck;
  if (start) {
    s.flag = 3;
    for (UINTN i = 0; i < kCheckListEntries; i++) {
      s.platformName[i][0] = 0;
    }
    return;
  }
  s.flag = GetIniInt(kPlatformCheckSection, "Flag", 3);
  if (s.flag == 2) {
    ReadNumberedList(kPlatformCheckSection, "PlatformName", s.platformName);
  }
}

VOID PlatformVersionSection(Bool start) {
  auto& s = flashSettings.platformVersion;
  if (start) {
    s.flag = 0;
    for (UINTN i = 0; i < kCheckListEntries; i++) {
      s.version[i][0] = 0;
    }
    return;
  }
  s.flag = GetIniInt(kPlatformVersionSection, "Flag", 0);
  if (s.flag != 0) {
    ReadNumberedList(kPlatformVersionSection, "Version", s.version);
  }
}

// Leading and trailing '"' go, so that the message can stand in quotes in the text.
VOID StripQuotes(CHAR8* text) {
  UINTN first = 0;
  UINTN end = StrLen8(text);
  while (first < end && text[first] == '"') {
    first++;
  }
  while (end > first && text[end - 1] == '"') {
    end--;
  }
  UINTN length = end - first;
  for (UINTN i = 0; i < length; i++) {
    text[i] = text[first + i];
  }
  text[length] = 0;
}

VOID BiosVersionCheckSection(Bool start) {
  auto& s = flashSettings.biosVersionCheck;
  if (start) {
    s.flag = 2;
    s.checkByBios = false;
    s.checkByBiosErrorMessage[0] = 0;
    return;
  }
  s.flag = GetIniInt(kBiosVersionCheckSection, "Flag", 2);
  s.checkByBios = ReadBool(kBiosVersionCheckSection, "CheckByBios", 0);
  if (s.checkByBios) {
    ReadText(kBiosVersionCheckSection, "CheckByBiosErrorMessage", s.checkByBiosErrorMessage);
    StripQuotes(s.checkByBiosErrorMessage);
  }
}

VOID BiosVersionFormatSection(Bool start) {
  auto& s = flashSettings.biosVersionFormat;
  if (start) {
    s.biosVfEnable = false;
    s.versionFormat[0] = 0;
    return;
  }
  s.biosVfEnable = ReadBool(kBiosVersionFormatSection, "BIOSVFEnable", 0);
  if (s.biosVfEnable) {
    ReadText(kBiosVersionFormatSection, "VersionFormat", s.versionFormat);
  }
}

VOID FlashCompleteSection(Bool start) {
  auto& s = flashSettings.flashComplete;
  if (start) {
    s.action = 2;  // reboot
    s.pause = false;
    s.pauseWarning[0] = 0;
    return;
  }
  s.action = GetIniInt(kFlashCompleteSection, "Action", 2);
  s.pause = ReadBool(kFlashCompleteSection, "Pause", 0);
  if (s.pause) {
    ReadText(kFlashCompleteSection, "PauseWarning", s.pauseWarning);
  }
}

VOID FlashSecureBiosOverrideSection(Bool start) {
  auto& s = flashSettings.flashSecureBiosOverride;
  if (start) {
    s.enable = false;
    s.action = 1;
    return;
  }
  s.enable = ReadBool(kFlashSecureBiosOverrideSection, "EnableFlashSecureBIOSOverride", 0);
  s.action = GetIniInt(kFlashSecureBiosOverrideSection, "Action", 1);
}

VOID ForceFlashSection(Bool start) {
  auto& s = flashSettings.forceFlash;
  if (start) {
    s = {};
    return;
  }
  s.all = ReadBool(kForceFlashSection, "ALL", 0);
  s.bbPei = ReadBool(kForceFlashSection, "BB_PEI", 0);
  s.cpuMicrocode = ReadBool(kForceFlashSection, "CPU_Microcode", 0);
  s.variable = ReadBool(kForceFlashSection, "Variable", 0);
  s.dxe = ReadBool(kForceFlashSection, "DXE", 0);
  s.ec = ReadBool(kForceFlashSection, "EC", 0);
  s.password = ReadBool(kForceFlashSection, "Password", 0);
  s.oemNvs = ReadBool(kForceFlashSection, "OEM_NVS", 0);
  s.logo = ReadBool(kForceFlashSection, "Logo", 0);
  // The named keys first; a Type# key can then only add an entry, never clear one.
  s.forceTypes[0x00] = s.bbPei;
  s.forceTypes[0x01] = s.cpuMicrocode;
  s.forceTypes[0x02] = s.variable;
  s.forceTypes[0x03] = s.dxe;
  s.forceTypes[0x04] = s.ec;
  s.forceTypes[0x05] = s.logo;
  s.forceTypes[0x0F] = s.password;
  s.forceTypes[0x10] = s.oemNvs;
  // 255 lookups through the whole text are skipped when the section names no type at all.
  CHAR8 key[kKeyNameBytes];
  const UINT32 types = IniSectionMentions(kForceFlashSection, "Type#") ? kForceTypeCount : 0;
  for (UINT32 type = 0; type < types; type++) {
    BuildNumberedKey(key, "Type#", type, 16, 2);
    if (GetIniInt(kForceFlashSection, key, 0) == 1) {
      s.forceTypes[type] = true;
    }
  }
  s.alp = ReadBool(kForceFlashSection, "ALP", 0);
  s.useBvdtRomMap = ReadBool(kForceFlashSection, "UseBvdtRomMap", 0);
}

VOID RegionSection(Bool start) {
  auto& s = flashSettings.region;
  if (start) {
    s = {};
    return;
  }
  s.bios = ReadBool(kRegionSection, "BIOS", 0);
  s.gbe = ReadBool(kRegionSection, "GbE", 0);
  s.me = ReadBool(kRegionSection, "ME", 0);
  s.desc = ReadBool(kRegionSection, "DESC", 0);
  s.platformData = ReadBool(kRegionSection, "Platform_Data", 0);
}

VOID UpdateEcSection(Bool start) {
  auto& s = flashSettings.updateEc;
  if (start) {
    s = {};
    s.progressBar = true;
    CopyText8(s.ecDockWarning, kIniTextBytes, kDockWarningMessageKey);
    s.ecBlockSize = 0x40;
    return;
  }
  s.progressBar = ReadBool(kUpdateEcSection, "Progress_Bar", 1);
  ReadText(kUpdateEcSection, "EC_DockWarning", s.ecDockWarning);
  s.ignore21h = ReadBool(kUpdateEcSection, "Ignore_21h", 0);
  s.action20h = ReadBool(kUpdateEcSection, "Action_20h", 0);
  s.ecBlockSize = (UINT8)GetIniInt(kUpdateEcSection, "EC_BlockSize", 0x40);
  s.enableEcProtectMask = ReadBool(kUpdateEcSection, "EnableECProtectMask", 0);
  s.protectMaskBitCount = (UINT8)GetIniInt(kUpdateEcSection, "ProtectMaskBitCount", 0);
  CHAR8 key[kKeyNameBytes];
  for (UINT32 i = 0; i < kEcMaskBytes; i++) {
    BuildNumberedKey(key, "MaskByte", i, 10, 1);
    s.maskByte[i] = (UINT8)GetIniHex(kUpdateEcSection, key, 0);
  }
}

VOID UpdateOemMeSection(Bool start) {
  auto& s = flashSettings.updateOemMe;
  if (start) {
    s.meFileName[0] = 0;
    s.command[0] = 0;
    return;
  }
  ReadText(kUpdateOemMeSection, "MEFileName", s.meFileName);
  ReadText(kUpdateOemMeSection, "Command", s.command);
}

VOID LogFileSection(Bool start) {
  auto& s = flashSettings.logFile;
  if (start) {
    s.flag = 0;
    s.level = 0;
    CopyText8(s.fileName, kIniTextBytes, kLogFileNameStart);
    return;
  }
  s.flag = GetIniInt(kLogFileSection, "Flag", 0);
  ReadText(kLogFileSection, "FileName", s.fileName);
  INT32 level = GetIniInt(kLogFileSection, "Level", 0);
  s.level = level > kHighestLogLevel ? kHighestLogLevel : level;
}

VOID ReturnErrorCodeSection(Bool start) {
  auto& s = flashSettings.returnErrorCode;
  // Start value and value on load are the same constants.
  s.fileNotFound = start ? 3 : GetIniInt(kReturnErrorCodeSection, "FileNotFound", 3);
  s.errorBeforeFlash = start ? 4 : GetIniInt(kReturnErrorCodeSection, "ErrorBeforeFlash", 4);
  s.batteryNotConnect = start ? 4 : GetIniInt(kReturnErrorCodeSection, "BatteryNotConnect", 4);
  s.batteryCapacityNotEnough = start ? 4 : GetIniInt(kReturnErrorCodeSection, "BatteryCapacityNotEnough", 4);
  s.writeRomFail = start ? 5 : GetIniInt(kReturnErrorCodeSection, "WriteROMFail", 5);
  s.writeEcFail = start ? 6 : GetIniInt(kReturnErrorCodeSection, "WriteECFail", 6);
  s.writeExtraDataFail = start ? 7 : GetIniInt(kReturnErrorCodeSection, "WriteExtraDataFail", 7);
}

VOID OthersSection(Bool start) {
  auto& s = flashSettings.others;
  s.disableCompare = start ? 0 : GetIniInt(kOthersSection, "DisableCompare", 0);
  s.disableVerify = start ? 0 : GetIniInt(kOthersSection, "DisableVerify", 0);
  s.verifyErrorRetry = start ? 3 : GetIniInt(kOthersSection, "VerifyErrorRetry", 3);
  s.smiErrorRetryDelay = start ? 100 : GetIniInt(kOthersSection, "SMIErrorRetryDelay", 100);
  s.smiErrorRetry = start ? 5 : GetIniInt(kOthersSection, "SMIErrorRetry", 5);
  s.disableSecureCapsuleFlash = start ? false : ReadBool(kOthersSection, "DisableSecureCapsuleFlash", 0);
}

VOID FactoryCopySection(Bool start) {
  flashSettings.factoryCopy.restore = start ? false : ReadBool(kFactoryCopySection, "Restore", 0);
}

VOID SecurityFlashFactoryUpdateSection(Bool start) {
  auto& s = flashSettings.securityFlashFactoryUpdate;
  s.updateNvStorage = start ? false : ReadBool(kSecurityFlashFactoryUpdateSection, "UpdateNvStorage", 0);
  s.updateFactoryCopy = start ? false : ReadBool(kSecurityFlashFactoryUpdateSection, "UpdateFactoryCopy", 0);
}

VOID EngineeringErrorDisableSection(Bool start) {
  flashSettings.engineeringErrorDisable.skipSecureBootProtectionCheck =
      start ? false : ReadBool(kEngineeringErrorDisableSection, "SkipSecureBootProtectionCheck", 0);
}

VOID SecureUpdateSection(Bool start) {
  flashSettings.secureUpdate.viaEsp = start ? false : ReadBool(kSecureUpdateSection, "viaESP", 0);
}

VOID AutoWakeupSection(Bool start) {
  auto& s = flashSettings.autoWakeup;
  s.flag = start ? false : ReadBool(kAutoWakeupSection, "Flag", 0);
  s.interval = start ? 120 : GetIniInt(kAutoWakeupSection, "interval", 120);
}

// The sections after [MULTI_FD], in the order of both InitialIniStructure and LoadAllSections;
// [Log_file] is among them only for the start values, since a load reads it first.
using SectionFunction = VOID (*)(Bool start);
constexpr SectionFunction kSectionsAfterMultiFd[] = {
    UiSection,           AcAdapterSection,      PlatformCheckSection,   PlatformVersionSection,
    BiosVersionCheckSection, BiosVersionFormatSection, FlashCompleteSection, FlashSecureBiosOverrideSection,
    ForceFlashSection,   RegionSection,         UpdateEcSection,        UpdateOemMeSection,
    LogFileSection,      ReturnErrorCodeSection, OthersSection,         FactoryCopySection,
    SecurityFlashFactoryUpdateSection, EngineeringErrorDisableSection, SecureUpdateSection, AutoWakeupSection,
};

}  // namespace

const FlashSettings* Settings() { return &flashSettings; }

VOID InitialIniStructure() {
  TraceScope trace(kInitialIniStructureName);
  CommonFlashSection(true);
  MultiFdSection(true);
  for (SectionFunction section : kSectionsAfterMultiFd) {
    section(true);
  }
}

VOID LoadAllSections(Bool withMultiFd) {
  // [Log_file] first, so that every later value is already traced by its rules.
  LogFileSection(false);
  CommonFlashSection(false);
  if (withMultiFd) {
    MultiFdSection(false);
  }
  for (SectionFunction section : kSectionsAfterMultiFd) {
    if (section != LogFileSection) {
      section(false);
    }
  }
}

VOID ResetSettingsState() {
  flashSettings = {};
}
