// Whether the image in hand may go onto this machine: its model against the platform's (or a
// list in platform.ini), its version against the running firmware's, the anti-theft marker, the
// Dell dialogues that stand in for the fixed refusals, and the two displays of both identities.
// The version texts themselves are compared in VersionCompare.cpp; nothing here touches the flash.
#include "checks/ChecksInternal.h"
#include "config/Config.h"
#include "image/Image.h"
#include "oblis/Oblis.h"
#include "output/Output.h"

namespace {

constexpr UINTN kTextCharacters = 255;  // of a name or a version that takes part in a compare
constexpr UINTN kTextBytes = kTextCharacters + 1;
constexpr UINTN kIdentityCharacters = 64;  // NewImageModel, NewImageVersion: 63 and the terminator
constexpr UINTN kBoxLineCharacters = 320;
// The BVDT fields, from the block's first byte; a '$' in front of a field says it is there.
constexpr UINT32 kBvdtVersionMark = 0x0D;
constexpr UINT32 kBvdtVersionOffset = 0x0E;
constexpr UINT32 kBvdtVersionBytes = 24;
constexpr UINT32 kBvdtModelMark = 0x26;
constexpr UINT32 kBvdtModelOffset = 0x27;
constexpr UINT32 kBvdtModelBytes = 25;
constexpr UINT8 kFieldMark = '$';

constexpr UINT32 kAntiTheftMarkerLength = 4;

constexpr INT32 kCheckOffFlag = 0;
constexpr INT32 kPlatformListFlag = 2;      // [Platform_Check] Flag: the 20 names decide
constexpr INT32 kPlatformFirmwareFlag = 3;  // [Platform_Check] Flag: the firmware's model name check decides
constexpr INT32 kVersionFirmwareFlag = 2;   // [Bios_Version_Check] Flag: the firmware's version check decides
constexpr INT32 kUseVersionListFlag = 1;    // [PlatformVersion] Flag

constexpr UINT8 kConditionalVersionType = 4;
constexpr UINT8 kConditionalTextFormat = 1;


constexpr CHAR16 kFuncPlatformCheck[] = u"Func_PlatformCheck";
constexpr CHAR16 kCheckNewRomFVPlatformInfo[] = u"CheckNewRomFVPlatformInfo";
constexpr CHAR16 kGetPlatformChkStatus[] = u"GetPlatformChkStatus";
constexpr CHAR16 kVersionCmp[] = u"VersionCmp";
constexpr CHAR16 kTraceChecksNeeded[] = u" Check Platform Name %d\r\n Check Version %d\r\n";
constexpr CHAR16 kTraceMultiDisabled[] = u"Multi platform compare (disable)\r\n";
constexpr CHAR16 kTraceAllChecksOff[] = u" Disable all check in Secure flash mode\r\n";
constexpr CHAR16 kTraceVersionResult[] = u" Version compare 0x%08x\r\n";
constexpr CHAR16 kReasonNoMarker[] = u"ATP not found";
constexpr CHAR16 kReasonNoBvdt[] = u"BVDT not found";
constexpr CHAR16 kReasonPlatform[] = u"Platform check failed";
constexpr CHAR16 kReasonVersion[] = u"Version check failed";
constexpr CHAR16 kReasonNoChecks[] = u"No check";
constexpr CHAR16 kReasonRefused[] = u"Refused";

constexpr CHAR16 kMessageModelMismatch[] = u"Model name not match.\r\n";
constexpr CHAR16 kMessageNoListMatch[] = u"No matched ID in [Platform_Check].\r\n";
constexpr CHAR16 kMessageOlder[] = u"The version of ROM file is not newer than current BIOS.\r\n";
constexpr CHAR16 kMessageSameVersion[] = u"The version of ROM file is the same as current BIOS.\r\n";
constexpr CHAR16 kMessageFormatInvalid[] = u"The version format in [BIOSVersionFormat] invalid.\r\n";
constexpr CHAR16 kMessageOblis45h[] = u"OBLIS 45h fail.\r\n";
constexpr CHAR16 kMessageFirmwareRefused[] = u"%a";
constexpr CHAR16 kLineEnd[] = u"\r\n";

// Each 80 characters fill one screen line, so the box carries no line ends of its own.
constexpr CHAR16 kDellRefusalBox[] =
    u"#===================================== ERROR ==================================#"
    u"# %76s #"
    u"# %76s #"
    u"#                                                                              #"
    u"# Rom update not performed.                                                    #"
    u"# press any key to exit.                                                       #"
    u"#==============================================================================#";
constexpr CHAR16 kDellBoxImageModel[] = u"Cannot use a \"%s\" BIOS";
constexpr CHAR16 kDellBoxPlatformModel[] = u"In a \"%s\" ";
constexpr CHAR16 kDellOlder[] =
    u"You are about to flash your BIOS to an older version.\r\n"
    u"Dell does not recommend flashing your BIOS to an older version.\r\n"
    u"Press 'Y' to continue the flash process.\r\n\r\n";
constexpr CHAR16 kDellReplace[] =
    u"About to replace Dell System\r\nPress 'Y' to replace \"%s\" BIOS with \"%s\" BIOS\r\n\r\n";
constexpr CHAR16 kDellSameContents[] =
    u"Flash contents already the same\r\nUpgrade will have no effect\r\nPress 'C' to continue anyway\r\n\r\n";
constexpr CHAR16 kDellCancelled[] = u"ERROR: BIOS update cancelled by user\r\nPress any key to exit\r\n\r\n";
constexpr CHAR16 kDellNotPerformed[] = u"ROM update not performed\r\n\r\n";

constexpr CHAR16 kShowModelNames[] =
    u"                           Current BIOS Model Name: %s\n"
    u"                           New     BIOS Model Name: %s\n";
constexpr CHAR16 kShowVersions[] =
    u"                           Current BIOS Version: %s\n"
    u"                           New     BIOS Version: %s\n";
constexpr CHAR16 kShowUefiIdentities[] =
    u"                           Current BIOS Model Name: %s\n"
    u"                           New     BIOS Model Name: %s\n"
    u"                           Current System BIOS Version: %s\n"
    u"                           New     BIOS  Image Version: %s\n\n";
constexpr CHAR16 kNotAvailable[] = u"N/A";
constexpr CHAR8 kNotAvailableAscii[] = "N/A";

struct PlatformCheckState {
  Bool allChecksOff;
  alignas(2) PlatformInfo platform;  // the latest copy of what function 11h said
};
constinit PlatformCheckState gCheck = {};

// What function 11h said, with both texts terminated within their arrays.
const PlatformInfo& CurrentPlatform() {
  GetPlatformInfo(&gCheck.platform);
  constexpr UINTN kLast = sizeof(gCheck.platform.modelName) / sizeof(CHAR16) - 1;
  gCheck.platform.modelName[kLast] = 0;
  gCheck.platform.modelVersion[kLast] = 0;
  return gCheck.platform;
}

// A name of the [Platform_Check] list against the current model, as whole texts. The name is
// read where the settings hold it, never cut to the length of a model copy: a longer name must
// not match the model it begins with. A name with no terminator in its field matches nothing.
Bool ListNameEquals(const CHAR8* name, const CHAR8* current) {
  for (UINTN i = 0; i < kIniTextBytes; ++i) {
    if (name[i] != current[i]) {
      return false;
    }
    if (name[i] == 0) {
      return true;
    }
  }
  return false;
}

// Whole texts, byte by byte, case-sensitive, nothing trimmed.
Bool TextsEqual(const CHAR8* left, const CHAR8* right) {
  UINTN i = 0;
  while (left[i] != 0 && left[i] == right[i]) {
    ++i;
  }
  return left[i] == right[i];
}

VOID SetShownModel(const CHAR8* text) {
  CHAR16 wide[kIdentityCharacters];
  AsciiToUnicode(wide, kIdentityCharacters, text);
  SetNewImageModel(wide);
}

VOID SetShownVersion(const CHAR8* text) {
  CHAR16 wide[kIdentityCharacters];
  AsciiToUnicode(wide, kIdentityCharacters, text);
  SetNewImageVersion(wide);
}

// The ASCII text of a BVDT field: up to its first zero, the field's end or the image's end.
VOID TakeBvdtText(CHAR8* out, UINTN capacity, const UINT8* image, UINT32 size, UINT32 at, UINT32 offset,
                  UINT32 fieldBytes) {
  out[0] = 0;
  if (offset >= size - at) {
    return;
  }
  UINT32 available = size - at - offset;
  UINT32 limit = fieldBytes < available ? fieldBytes : available;
  const UINT8* text = image + at + offset;
  UINTN length = 0;
  while (length < limit && length + 1 < capacity && text[length] != 0) {
    out[length] = (CHAR8)text[length];
    ++length;
  }
  out[length] = 0;
}

Bool FieldMarked(const UINT8* image, UINT32 size, UINT32 at, UINT32 markOffset) {
  return markOffset < size - at && image[at + markOffset] == kFieldMark;
}

// The image's identity from its BVDT, for the compare: the version goes to version (empty when
// the field is not marked), and both marked fields become the shown identity.
Bool CheckNewRomFVPlatformInfo(const UINT8* image, UINT32 size, CHAR8* version) {
  TraceScope trace(kCheckNewRomFVPlatformInfo);
  version[0] = 0;
  UINT32 at = 0;
  if (image == nullptr || !FindBvdtInImage(image, size, &at) || at >= size) {
    return trace.Fail(kReasonNoBvdt);
  }
  if (FieldMarked(image, size, at, kBvdtModelMark)) {
    CHAR8 model[kTextBytes];
    TakeBvdtText(model, kTextBytes, image, size, at, kBvdtModelOffset, kBvdtModelBytes);
    SetShownModel(model);
  }
  if (FieldMarked(image, size, at, kBvdtVersionMark)) {
    TakeBvdtText(version, kTextBytes, image, size, at, kBvdtVersionOffset, kBvdtVersionBytes);
    SetShownVersion(version);
  }
  return true;
}

// -ec and -ecp update only the EC, whose image carries no marker; on the secure capsule road
// both options count as absent.
Bool EcOptionsInForce() { return (Flags()->ec || Flags()->ecp) && !IsSecureImage(nullptr); }

Bool AntiTheftMarkerPresent(const UINT8* image, UINT32 size) {
  // Composed at run time, through a byte the compiler cannot fold: a secure image carries this
  // driver, and a whole pattern in the driver's own data would always be found.
  volatile UINT8 first = 'p';
  UINT8 marker[kAntiTheftMarkerLength] = {0, 'T', 'A', '$'};
  marker[0] = first;
  return image != nullptr && FindSignature(image, size, marker, kAntiTheftMarkerLength, nullptr);
}

Bool IsKey(CHAR16 key, CHAR16 lower) { return key == lower || key == (CHAR16)(lower - u'a' + u'A'); }

// Dell shows a box and waits for a key instead of the fixed refusal texts.
Bool DellPlatformDecision(INT32 code, const PlatformInfo& platform) {
  if (code == 0) {
    return true;
  }
  CHAR16 imageLine[kBoxLineCharacters];
  CHAR16 platformLine[kBoxLineCharacters];
  FormatText(imageLine, kBoxLineCharacters, kDellBoxImageModel, NewImageModel());
  FormatText(platformLine, kBoxLineCharacters, kDellBoxPlatformModel, platform.modelName);
  SetConsoleAttribute(kAttributeWhiteOnRed);
  PrintLong(kDellRefusalBox, imageLine, platformLine);
  SetConsoleAttribute(kAttributeWhiteOnBlack);
  Print(kLineEnd);
  DialogKey();
  return false;
}

// On Dell the user decides on every version result; only an explicit 'Y' (and 'C' for the same
// contents) lets the update go on.
Bool DellVersionDialogue(INT32 result, const PlatformInfo& platform) {
  if (Flags()->nopause) {
    return true;
  }
  if (result == kCheckOlder) {
    Print(kDellOlder);
    if (IsKey(DialogKey(), u'y')) {
      return true;
    }
  } else {
    Print(kDellReplace, platform.modelVersion, NewImageVersion());
    if (IsKey(DialogKey(), u'y')) {
      if (result != 0) {
        return true;
      }
      Print(kDellSameContents);
      if (IsKey(DialogKey(), u'c')) {
        return true;
      }
    }
  }
  Print(kDellCancelled);
  DialogKey();
  Print(kDellNotPerformed);
  return false;
}

// Every other vendor: a refusal prints its text and ends the update with its own code; a newer
// or equal-and-allowed version, and a version that cannot be compared, pass silently.
INT32 VersionVerdict(INT32 result) {
  switch (result) {
    case kCheckOlder:
      Print(kMessageOlder);
      return result;
    case kCheckSameVersion:
      Print(kMessageSameVersion);
      return result;
    case kCheckFormatInvalid:
      Print(kMessageFormatInvalid);
      return result;
    case kCheckConditionalFailed:
      Print(kMessageOblis45h);
      return result;
    case kCheckFirmwareRefused:
      Print(kMessageFirmwareRefused, Settings()->biosVersionCheck.checkByBiosErrorMessage);
      Print(kLineEnd);
      return result;
    default:
      return 0;
  }
}

}  // namespace

VOID SetAllChecksOff() {
  gCheck.allChecksOff = true;
  LogPrint(kLogDetail, kTraceAllChecksOff);
}

Bool AllChecksOff() { return gCheck.allChecksOff; }

Bool PlatformNameCheckNeeded() {
  if (gCheck.allChecksOff || Flags()->mc) {
    return false;
  }
  INT32 flag = Settings()->platformCheck.flag;
  if (flag == kCheckOffFlag) {
    return false;
  }
  if (flag == kPlatformFirmwareFlag) {
    return CurrentPlatform().modelNameCheck;
  }
  return true;
}

Bool VersionCheckNeeded() {
  if (gCheck.allChecksOff || Flags()->mc) {
    return false;
  }
  INT32 flag = Settings()->biosVersionCheck.flag;
  if (flag == kCheckOffFlag) {
    return false;
  }
  if (flag == kVersionFirmwareFlag) {
    return CurrentPlatform().modelVersionCheck;
  }
  return true;
}

INT32 PlatformCmp(const CHAR8* newModel, const CHAR8* currentModel, INT32* matchIndex) {
  const CHAR8* current = currentModel != nullptr ? currentModel : "";
  const FlashSettings* settings = Settings();
  if (settings->platformCheck.flag != kPlatformListFlag) {
    return TextsEqual(newModel != nullptr ? newModel : "", current) ? 0 : kCheckModelMismatch;
  }
  // The list alone decides; the image's own model plays no part.
  for (UINTN index = 0; index < kCheckListEntries; ++index) {
    const CHAR8* name = settings->platformCheck.platformName[index];
    if (name[0] == 0) {
      continue;
    }
    if (matchIndex != nullptr) {
      *matchIndex = (INT32)index;
    }
    if (ListNameEquals(name, current)) {
      return 0;
    }
  }
  return kCheckNoListMatch;
}

VOID MultiPlatformCompare(const CHAR16** newModel, const CHAR16** newVersion) {
  const FlashSettings* settings = Settings();
  if (settings->platformCheck.flag != kPlatformListFlag) {
    LogPrint(kLogDetail, kTraceMultiDisabled);
  } else {
    // The shown identity follows the walk: the matching pair, else the last non-empty one.
    CHAR8 current[kTextBytes];
    UnicodeToAscii(current, kTextBytes, CurrentPlatform().modelName);
    for (UINTN index = 0; index < kCheckListEntries; ++index) {
      const CHAR8* name = settings->platformCheck.platformName[index];
      if (name[0] == 0) {
        continue;
      }
      SetShownModel(name);
      if (settings->platformVersion.flag == kUseVersionListFlag) {
        SetShownVersion(settings->platformVersion.version[index]);
      }
      if (ListNameEquals(name, current)) {
        break;
      }
    }
  }
  if (newModel != nullptr) {
    *newModel = NewImageModel();
  }
  if (newVersion != nullptr) {
    *newVersion = NewImageVersion();
  }
}

Bool GetPlatformChkStatus() {
  TraceScope trace(kGetPlatformChkStatus);
  const PlatformInfo& platform = CurrentPlatform();
  CHAR8 current[kTextBytes];
  CHAR8 newer[kTextBytes];
  UnicodeToAscii(current, kTextBytes, platform.modelName);
  UnicodeToAscii(newer, kTextBytes, NewImageModel());
  INT32 matchIndex = -1;
  INT32 code = PlatformCmp(newer, current, &matchIndex);
  Bool pass = true;
  if (IsVendor(kVendorDell)) {
    pass = DellPlatformDecision(code, platform);
  } else {
    const FlashSettings* settings = Settings();
    if (settings->platformVersion.flag == kUseVersionListFlag && matchIndex >= 0 &&
        (UINTN)matchIndex < kCheckListEntries) {
      SetShownVersion(settings->platformVersion.version[matchIndex]);
    }
    if (code == kCheckModelMismatch) {
      Print(kMessageModelMismatch);
      pass = false;
    } else if (code == kCheckNoListMatch) {
      Print(kMessageNoListMatch);
      pass = false;
    }
  }
  if (!pass) {
    trace.SetReason(kReasonRefused);
  }
  return pass;
}

INT32 VersionCmp(const CHAR8* newVersion, const CHAR8* currentVersion) {
  TraceScope trace(kVersionCmp);
  const CHAR8* newer = newVersion != nullptr ? newVersion : "";
  const CHAR8* current = currentVersion != nullptr ? currentVersion : "";
  const FlashSettings* settings = Settings();
  // The firmware hears of the version first, even of an empty one; allowing it does not end the
  // check, refusing it does.
  if (settings->biosVersionCheck.checkByBios) {
    UINT16 length = 0;
    while (length < kTextCharacters && newer[length] != 0) {
      ++length;
    }
    UINT8 allow = 0;
    INT32 refusal = 0;
    if (!SMI_CheckConditionalData(kConditionalVersionType, kConditionalTextFormat, length,
                                  reinterpret_cast<const UINT8*>(newer), &allow)) {
      refusal = kCheckConditionalFailed;
    } else if (allow == 0) {
      refusal = kCheckFirmwareRefused;
    }
    if (refusal != 0) {
      LogPrint(kLogDetail, kTraceVersionResult, (UINT32)refusal);
      trace.SetReason(kReasonRefused);
      return refusal;
    }
  }
  INT32 result = kCheckNoVersion;
  if (newer[0] != 0 && !TextsEqual(current, kNotAvailableAscii)) {
    result = settings->biosVersionFormat.biosVfEnable
                 ? BiosVerFmtCmp(settings->biosVersionFormat.versionFormat, newer, current)
                 : BiosVerCmp(newer, current);
    Bool allowSame = CurrentPlatform().allowSameVersion || gCheck.allChecksOff;
    if (result == 0 && !allowSame) {
      result = kCheckSameVersion;
    }
  }
  LogPrint(kLogDetail, kTraceVersionResult, (UINT32)result);
  return result;
}

INT32 Func_PlatformCheck(const UINT8* image, UINT32 size) {
  TraceScope trace(kFuncPlatformCheck);
  if (AntiTheftMarkerRequired() && !EcOptionsInForce() && !AntiTheftMarkerPresent(image, size)) {
    trace.SetReason(kReasonNoMarker);
    return kCheckNoAntiTheftMarker;
  }
  Bool platformCheck = PlatformNameCheckNeeded();
  Bool versionCheck = VersionCheckNeeded();
  LogPrint(kLogDetail, kTraceChecksNeeded, (INT32)platformCheck, (INT32)versionCheck);
  if (!platformCheck && !versionCheck) {
    trace.SetReason(kReasonNoChecks);
    return 0;
  }
  CHAR8 newVersion[kTextBytes];
  if (!CheckNewRomFVPlatformInfo(image, size, newVersion)) {
    trace.SetReason(kReasonNoBvdt);
    return kCheckNoBvdt;
  }
  const PlatformInfo& platform = CurrentPlatform();
  CHAR8 currentVersion[kTextBytes];
  UnicodeToAscii(currentVersion, kTextBytes, platform.modelVersion);
  // The platform comes first: a refused platform hides any version result.
  if (platformCheck && !GetPlatformChkStatus()) {
    trace.SetReason(kReasonPlatform);
    return kCheckOlder;
  }
  if (versionCheck) {
    INT32 result = VersionCmp(newVersion, currentVersion);
    // On Dell the user decides on the result; elsewhere the fixed verdicts apply.
    INT32 verdict = IsVendor(kVendorDell) ? (DellVersionDialogue(result, CurrentPlatform()) ? 0 : kCheckOlder)
                                          : VersionVerdict(result);
    if (verdict != 0) {
      trace.SetReason(kReasonVersion);
      return verdict;
    }
  }
  return 0;
}

VOID ShowImageVersionInfo() {
  const CHAR16* newModel = nullptr;
  const CHAR16* newVersion = nullptr;
  MultiPlatformCompare(&newModel, &newVersion);
  const PlatformInfo& platform = CurrentPlatform();
  const CHAR16* currentModel = platform.modelName;
  const CHAR16* currentVersion = platform.modelVersion;
  if (Flags()->mc) {
    // With every model check skipped, no identity is shown as if it had been checked.
    SetNewImageModel(kNotAvailable);
    SetNewImageVersion(kNotAvailable);
    currentModel = kNotAvailable;
    currentVersion = kNotAvailable;
  }
  if (!Flags()->di && !platform.disableDisplayName) {
    Print(kShowModelNames, currentModel, newModel);
  }
  if (!platform.disableDisplayVersion) {
    Print(kShowVersions, currentVersion, newVersion);
  }
}

VOID ShowUefiVersionInfo() {
  const CHAR16* newModel = nullptr;
  const CHAR16* newVersion = nullptr;
  MultiPlatformCompare(&newModel, &newVersion);
  const PlatformInfo& platform = CurrentPlatform();
  if (Settings()->platformCheck.flag == kPlatformListFlag) {
    newModel = platform.modelName;
  }
  Print(kShowUefiIdentities, platform.modelName, newModel, platform.modelVersion, newVersion);
}

VOID ResetPlatformCheckState() {
  gCheck = {};
}

VOID ResetChecksState() {
  ResetCommonFlashState();
  ResetConditionalState();
  ResetPlatformCheckState();
  ResetPowerState();
  ResetSecurityGatesState();
}
