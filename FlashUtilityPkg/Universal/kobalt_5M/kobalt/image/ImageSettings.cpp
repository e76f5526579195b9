// Where the settings of a run come from when it starts: platform.ini beside the tool (which may
// name another image through its multi-image rules), else the INI slot of a secure image, and
// for the capsule run the driver's own INI slot. Reading the text is the INI reader's.
#include "config/Config.h"
#include "FileLayer.h"
#include "image/ImageInternal.h"
#include "output/Output.h"

namespace {

constexpr CHAR16 kReasonAllocateFailed[] = u"Allocate memory failed";
constexpr CHAR16 kGetCfgSecureName[] = u"GetCfg_Secure";
constexpr CHAR16 kSecureEmpty[] = u"Error:\r\nSettings buffer is empty!\r\n";
constexpr CHAR16 kSecureAllocateFailed[] = u"Error:\r\nAllocate memory failed (0x%X)\r\n";
// The slot's size field is filled by the packing step; one that claims more than the slot holds
// is refused rather than read past the slot.
constexpr CHAR16 kSecureTooLarge[] = u"Error:\r\nSettings size 0x%X exceeds its slot (0x%X)!\r\n";
constexpr CHAR16 kFromCapsule[] = u"Reference configure from capsule\r\n";
constexpr CHAR16 kReasonSecureEmpty[] = u"ini in capsule is empty";
constexpr CHAR16 kReasonSecureTooLarge[] = u"ini in capsule exceeds its slot";


constexpr CHAR16 kPlatformIniName[] = u"platform.ini";
constexpr CHAR16 kFormalExternal[] = u"formal ref. configure | ext|\r\n";
constexpr CHAR16 kFormalImage[] = u"formal ref. configure | FD|\r\n";
constexpr CHAR16 kPackageExternal[] = u"ref. configure | ext|\r\n";
constexpr CHAR16 kNoMultiFdMatch[] = u"No match file in Multi-FD.\r\n";
constexpr CHAR16 kImageNotFound[] = u"\r\n    Error:\r\n    the FD file not found. (%s)\r\n\r\n";
constexpr UINTN kMatchedNameCharacters = 40;

VOID ReportImageNotFound(const CHAR16* imageName) {
  PrintBanner(true);
  Print(kImageNotFound, imageName);
}

}  // namespace

Bool GetCfg_Secure() {
  TraceScope trace(kGetCfgSecureName);
  ImageView ini = {};
  if (!OwnSlotData(OwnSlot::Ini, &ini)) {
    Print(kSecureTooLarge, ini.length, OwnSlotCapacity(OwnSlot::Ini));
    return trace.Fail(kReasonSecureTooLarge);
  }
  UINT32 size = ini.length;
  if (size == 0) {
    Print(kSecureEmpty);
    return trace.Fail(kReasonSecureEmpty);
  }
  CHAR8* buffer = static_cast<CHAR8*>(AllocateZeroPool((UINTN)size + 16));
  if (buffer == nullptr) {
    Print(kSecureAllocateFailed, size);
    return trace.Fail(kReasonAllocateFailed);
  }
  CopyMem(buffer, ini.data, size);
  LoadOption(buffer, &size, false);
  FreePoolAndNull(buffer);
  LogPrint(kLogDetail, kFromCapsule);
  return true;
}

Bool LoadConfiguration(CHAR16* imageName) {
  return IsPackageMode() ? LoadConfigPackage() : LoadConfigFormal(imageName);
}

namespace {

// A legacy image brings no settings; a secure one brings its own, over what stands so far.
Bool LoadSettingsOfImage(const UINT8* image, UINT32 length) {
  return AnalyzeImage(image, length) ? LoadImageConfig(image, length) : true;
}

}  // namespace

// The package's own settings stand first; its image is the one the multi-image rules chose.
Bool LoadConfigPackage() {
  const UINT8* packed = nullptr;
  UINT32 packedSize = 0;
  if (!GetPackedIni(&packed, &packedSize)) {
    return false;
  }
  if (packedSize != 0) {
    LogPrint(kLogSettings, kPackageExternal);
    // LoadOption rewrites its text in place and keeps its own copy, so it gets a copy.
    PoolBuffer text(packedSize + 1);
    if (!text) {
      return false;
    }
    CopyMem(text.Data(), packed, packedSize);
    CHAR8* iniText = reinterpret_cast<CHAR8*>(text.Data());
    UINT32 textSize = packedSize;
    LoadOption(iniText, &textSize, true);
    if (Settings()->multiFd.flag != 1) {
      SaveCfg_Variable(iniText, textSize);
      return true;
    }
    if (!IsCondi_match()) {
      PrintBanner(true);
      Print(kNoMultiFdMatch);
      return false;
    }
  }
  UINT8* image = nullptr;
  UINT32 length = 0;
  if (!LoadPackageFD(&image, &length)) {
    return false;
  }
  PoolBuffer owner;
  owner.Adopt(image, length);
  return LoadSettingsOfImage(image, length);
}

Bool LoadConfigFormal(CHAR16* imageName) {
  UINT8* text = nullptr;
  UINT32 textSize = 0;
  // LoadOption keeps its own copy of the normal form, so the file's buffer goes back at once.
  if (ReadFile(kPlatformIniName, &text, &textSize)) {
    LogPrint(kLogSettings, kFormalExternal);
    CHAR8* iniText = reinterpret_cast<CHAR8*>(text);
    LoadOption(iniText, &textSize, true);
    Bool singleImage = Settings()->multiFd.flag != 1;
    if (singleImage) {
      SaveCfg_Variable(iniText, textSize);
    }
    FreePoolAndNull(text);
    if (singleImage) {
      return true;
    }
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
  Bool loaded = LoadSettingsOfImage(image, length);
  FreePoolAndNull(image);
  return loaded;
}
