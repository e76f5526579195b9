// Where the settings of a run come from: platform.ini beside the tool, the INI slot of a secure
// image, the variable FlashINISettings that bridges a shell run and the capsule run after it, and
// the driver's own INI slot. Reading the text is the INI reader's; the choice among several
// images is the multi-image rules'; what an image is, the image analysis'.
#include "config/Config.h"
#include "frame/FileLayer.h"
#include "image/Image.h"
#include "output/Output.h"

namespace {

constexpr CHAR16 kVariableName[] = u"FlashINISettings";
constexpr EFI_GUID kVariableGuid = {0x382AF2BB, 0xFFFF, 0xABCD, {0xAA, 0xEE, 0xCC, 0xE0, 0x99, 0x33, 0x88, 0x77}};
// Non-volatile, boot-service and run-time access.
constexpr UINT32 kVariableAttributes = 7;

constexpr CHAR16 kClearFailed[] = u"ClearCfg_variable() |fail|\r\n";

constexpr CHAR16 kSaveHeader[] = u" Variable FlashINISettings()\r\n-----+---------------------------\r\n";
constexpr CHAR16 kSaveDropped[] = u"       %a\r\n";
// Sections that a capsule run must not take over from the shell run that stored the text,
// matched as case-insensitive prefixes of the section name.
constexpr const CHAR8* kSectionsNotStored[] = {
    "Version",         "FDFile",          "BackupROM",          "UpdateBlock",         "FlashSecureBIOSOverride",
    "Option",          "ReturnErrorCode", "UpdateExtraData",    "ReturnCodeDefinition", "VARIABLE",
    "MULTI_FD",        "PermitFlashVersion", "PasswordCheck",
};

constexpr CHAR16 kGetCfgVariableName[] = u"GetCfg_Variable";
constexpr CHAR16 kGetVariableFailed[] = u"GetCfg_Variable failed %r\r\n";
constexpr CHAR16 kVariableSize[] = u"FlashINISettings size 0x%X\r\n";
constexpr CHAR16 kFromVariable[] = u"Reference configure from Variable\r\n";
constexpr CHAR16 kReasonSizeFailed[] = u"Get variable size failed";
constexpr CHAR16 kReasonAllocateFailed[] = u"Allocate memory failed";
constexpr CHAR16 kReasonGetFailed[] = u"Get variable failed";
constexpr CHAR16 kReasonClearFailed[] = u"Clear variable failed";

constexpr CHAR16 kGetCfgSecureName[] = u"GetCfg_Secure";
constexpr CHAR16 kSecureEmpty[] = u"Error:\r\nSettings buffer is empty!\r\n";
constexpr CHAR16 kSecureAllocateFailed[] = u"Error:\r\nAllocate memory failed (0x%X)\r\n";
// The slot's size field is filled by the packing step; one that claims more than the slot holds
// is refused rather than read past the slot.
constexpr CHAR16 kSecureTooLarge[] = u"Error:\r\nSettings size 0x%X exceeds its slot (0x%X)!\r\n";
constexpr CHAR16 kFromCapsule[] = u"Reference configure from capsule\r\n";
constexpr CHAR16 kReasonSecureEmpty[] = u"ini in capsule is empty";
constexpr CHAR16 kReasonSecureTooLarge[] = u"ini in capsule exceeds its slot";

// The INI slot in the driver's own chain: its header at a fixed offset from the chain's first
// byte, the size field 20 bytes into the header, the data behind the 24-byte header.
constexpr UINT32 kChainIniSlot = 0x500048;
constexpr UINT32 kChainIniSizeField = kChainIniSlot + 20;
constexpr UINT32 kChainIniData = kChainIniSlot + 24;
constexpr UINT32 kChainIniCapacity = 0x10000;

constexpr CHAR16 kPlatformIniName[] = u"platform.ini";
constexpr CHAR16 kFormalExternal[] = u"formal ref. configure | ext|\r\n";
constexpr CHAR16 kFormalImage[] = u"formal ref. configure | FD|\r\n";
constexpr CHAR16 kNoMultiFdMatch[] = u"No match file in Multi-FD.\r\n";
constexpr CHAR16 kImageNotFound[] = u"\r\n    Error:\r\n    the FD file not found. (%s)\r\n\r\n";
constexpr UINTN kMatchedNameCharacters = 40;

CHAR8 LowerCase(CHAR8 c) { return (c >= 'A' && c <= 'Z') ? (CHAR8)(c - 'A' + 'a') : c; }

Bool StartsWithNoCase(const CHAR8* text, UINT32 length, const CHAR8* prefix) {
  UINT32 i = 0;
  for (; prefix[i] != 0; i++) {
    if (i >= length || LowerCase(text[i]) != LowerCase(prefix[i])) {
      return false;
    }
  }
  return true;
}

const CHAR8* NotStoredSection(const CHAR8* piece, UINT32 length) {
  for (const CHAR8* name : kSectionsNotStored) {
    if (StartsWithNoCase(piece, length, name)) {
      return name;
    }
  }
  return nullptr;
}

VOID ReportImageNotFound(const CHAR16* imageName) {
  PrintBanner(true);
  Print(kImageNotFound, imageName);
}

}  // namespace

VOID ClearCfg_variable() {
  EFI_STATUS status = gRT->SetVariable(kVariableName, &kVariableGuid, kVariableAttributes, 0, nullptr);
  if (EFI_ERROR(status)) {
    LogPrint(kLogDetail, kClearFailed);
  }
}

VOID SaveCfg_Variable(const CHAR8* text, UINT32 size) {
  if (text == nullptr) {
    return;
  }
  CHAR8* buffer = static_cast<CHAR8*>(AllocateZeroPool((UINTN)size + 1));
  if (buffer == nullptr) {
    return;
  }
  LogPrint(kLogSettings, kSaveHeader);
  // Pieces run from one '[' to the next. The piece in front of the first '[' is no section. A
  // '[' inside a value cuts too; its piece is kept with its '[' put back, so the text stays whole.
  // Counts are 32-bit: a section of any length is stored, and what is kept never exceeds size.
  UINT32 stored = 0;
  UINT32 at = 0;
  while (at < size && text[at] != '[') {
    at++;
  }
  while (at < size) {
    UINT32 pieceStart = at + 1;
    UINT32 next = pieceStart;
    while (next < size && text[next] != '[') {
      next++;
    }
    UINT32 pieceLength = next - pieceStart;
    const CHAR8* dropped = NotStoredSection(text + pieceStart, pieceLength);
    if (dropped != nullptr) {
      LogPrint(kLogSettings, kSaveDropped, dropped);
    } else {
      buffer[stored++] = '[';
      CopyMem(buffer + stored, text + pieceStart, pieceLength);
      stored += pieceLength;
    }
    at = next;
  }
  gRT->SetVariable(kVariableName, &kVariableGuid, kVariableAttributes, StrLen8(buffer), buffer);
  FreePoolAndNull(buffer);
}

Bool GetCfg_Variable() {
  TraceEnter(kGetCfgVariableName);
  UINTN size = 0;
  EFI_STATUS status = gRT->GetVariable(kVariableName, &kVariableGuid, nullptr, &size, nullptr);
  if (status != EFI_BUFFER_TOO_SMALL) {
    LogPrint(kLogDetail, kGetVariableFailed, status);
    TraceLeave(kGetCfgVariableName, kReasonSizeFailed);
    return false;
  }
  LogPrint(kLogDetail, kVariableSize, (UINT32)size);
  CHAR8* buffer = static_cast<CHAR8*>(AllocateZeroPool(size + 16));
  if (buffer == nullptr) {
    TraceLeave(kGetCfgVariableName, kReasonAllocateFailed);
    return false;
  }
  status = gRT->GetVariable(kVariableName, &kVariableGuid, nullptr, &size, buffer);
  if (EFI_ERROR(status)) {
    FreePoolAndNull(buffer);
    TraceLeave(kGetCfgVariableName, kReasonGetFailed);
    return false;
  }
  UINT32 textSize = (UINT32)size;
  LoadOption(buffer, &textSize, false);
  FreePoolAndNull(buffer);
  LogPrint(kLogDetail, kFromVariable);
  // The settings are for one capsule run only.
  status = gRT->SetVariable(kVariableName, &kVariableGuid, kVariableAttributes, 0, nullptr);
  TraceLeave(kGetCfgVariableName, EFI_ERROR(status) ? kReasonClearFailed : nullptr);
  return true;
}

Bool GetCfg_Secure() {
  TraceEnter(kGetCfgSecureName);
  const UINT8* chain = DriverSlotChain();
  UINT32 size = ReadU32(chain + kChainIniSizeField);
  if (size == 0) {
    Print(kSecureEmpty);
    TraceLeave(kGetCfgSecureName, kReasonSecureEmpty);
    return false;
  }
  if (size > kChainIniCapacity || kChainIniData + size > DriverSlotChainSize()) {
    Print(kSecureTooLarge, size, kChainIniCapacity);
    TraceLeave(kGetCfgSecureName, kReasonSecureTooLarge);
    return false;
  }
  CHAR8* buffer = static_cast<CHAR8*>(AllocateZeroPool((UINTN)size + 16));
  if (buffer == nullptr) {
    Print(kSecureAllocateFailed, size);
    TraceLeave(kGetCfgSecureName, kReasonAllocateFailed);
    return false;
  }
  CopyMem(buffer, chain + kChainIniData, size);
  LoadOption(buffer, &size, false);
  FreePoolAndNull(buffer);
  LogPrint(kLogDetail, kFromCapsule);
  TraceLeave(kGetCfgSecureName, nullptr);
  return true;
}

Bool LoadConfiguration(CHAR16* imageName) {
  // PACKAGE ROAD: in package mode the settings come from the package (LoadConfigPackage). Reading
  // packages is not built yet, so every run takes the formal road until it is.
  return LoadConfigFormal(imageName);
}

Bool LoadConfigFormal(CHAR16* imageName) {
  UINT8* text = nullptr;
  UINT32 textSize = 0;
  // LoadOption keeps its own copy of the normal form, so the file's buffer goes back at once.
  if (ReadFile(kPlatformIniName, &text, &textSize)) {
    LogPrint(kLogSettings, kFormalExternal);
    CHAR8* iniText = reinterpret_cast<CHAR8*>(text);
    LoadOption(iniText, &textSize, true);
    if (Settings()->multiFd.flag != 1) {
      SaveCfg_Variable(iniText, textSize);
      FreePoolAndNull(text);
      return true;
    }
    FreePoolAndNull(text);
    if (!IsCondi_match()) {
      PrintBanner(true);
      Print(kNoMultiFdMatch);
      return false;
    }
    // The matched name replaces the one from the command line; its own buffer holds 40.
    CHAR16 matched[kMatchedNameCharacters + 1] = {};
    GetMatchedImageName(matched);
    matched[kMatchedNameCharacters] = 0;
    StrCopy16(imageName, kImageNameCharacters, matched);
  }

  UINT8* image = nullptr;
  UINT32 length = 0;
  if (!ReadFile(imageName, &image, &length)) {
    ReportImageNotFound(imageName);
    return false;
  }
  LogPrint(kLogSettings, kFormalImage);
  if (!AnalyzeImage(image, length)) {
    // A legacy image brings no settings: what stands so far stays.
    FreePoolAndNull(image);
    return true;
  }
  Bool loaded = LoadImageConfig(image, length);
  FreePoolAndNull(image);
  return loaded;
}
