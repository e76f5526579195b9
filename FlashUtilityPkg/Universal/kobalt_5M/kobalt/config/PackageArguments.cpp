// What a package changes on the command line: the application's own file name, the package's two
// option texts (the arguments it adds behind the user's and the options it permits), the check of
// the user's arguments against the permitted list, and -extrFD with its directory. Reading the
// package file itself is the image folder's; it hands the texts in here once it found a package.
#include "config/ConfigInternal.h"
#include "HostSettings.h"
#include "output/Output.h"

namespace {

constexpr UINTN kApplicationNameCharacters = 512;  // 1024 bytes
constexpr UINTN kExtractDirectoryCharacters = 512;
// The list with a blank on either side holds 255 characters; one argument " -%s " 63.
constexpr UINTN kPermittedListBytes = 256;
constexpr UINTN kArgumentWordBytes = 64;
constexpr CHAR16 kEfiSuffix[] = u".efi";
constexpr CHAR16 kExtractFolderSuffix[] = u"_FD";
constexpr CHAR16 kExtrFdOption[] = u"extrFD";

constexpr CHAR16 kTraceSetApplication[] = u" SetApplication (%s)\r\n";
constexpr CHAR16 kTraceFilterList[] = u"Filter CMD (%a)\r\n";
constexpr CHAR16 kTraceFilterArgument[] = u"CMD (%a)\r\n";
constexpr CHAR16 kErrorNotInPackage[] = u"Error command: %s (Not supports on current package)\n";
constexpr CHAR16 kTraceExtractDirectory[] = u"-extrfd |Dir| %s\r\n";

struct PackageArgumentState {
  CHAR16 applicationName[kApplicationNameCharacters];
  Bool packageMode;
  CHAR8 defaultArguments[kPackageDefaultArgumentBytes + 1];
  CHAR8 permittedOptions[kPackagePermittedOptionBytes + 1];
  CHAR16 extractDirectory[kExtractDirectoryCharacters];
};
constinit PackageArgumentState gPackage = {};

constexpr CHAR8 FoldLetter8(CHAR8 c) { return (c >= 'A' && c <= 'Z') ? (CHAR8)(c - 'A' + 'a') : c; }

// Whether text holds literal anywhere, compared as it stands (the ".efi" test minds case).
Bool Contains16(const CHAR16* text, const CHAR16* literal) {
  UINTN length = StrLen16(literal);
  for (UINTN textLength = StrLen16(text); textLength >= length; text++, textLength--) {
    if (CompareMem(text, literal, length * sizeof(CHAR16)) == 0) {
      return true;
    }
  }
  return false;
}

Bool Contains8(const CHAR8* text, const CHAR8* literal) {
  UINTN length = StrLen8(literal);
  for (UINTN textLength = StrLen8(text); textLength >= length && length != 0; text++, textLength--) {
    if (CompareMem(text, literal, length) == 0) {
      return true;
    }
  }
  return false;
}

// " -word " of an argument without its first character, so that '/' and '-' count alike; or the
// list " list ", with every '/' a '-'. Both folded to small letters and cut to their capacity.
VOID BuildWord(CHAR8* out, UINTN capacity, const CHAR8* dash, const CHAR16* text16, const CHAR8* text8) {
  ZeroMem(out, capacity);
  UINTN at = 0;
  auto put = [&](CHAR8 c) {
    if (at + 1 < capacity) {
      out[at++] = c;
    }
  };
  put(' ');
  for (const CHAR8* d = dash; *d != 0; d++) {
    put(*d);
  }
  if (text16 != nullptr) {
    for (; *text16 != 0; text16++) {
      put((CHAR8)*text16);
    }
  } else {
    for (; *text8 != 0; text8++) {
      put(*text8 == '/' ? '-' : *text8);
    }
  }
  put(' ');
  for (UINTN i = 0; i < at; i++) {
    out[i] = FoldLetter8(out[i]);
  }
}

// A field of the package's record may fill its bytes without a terminator.
VOID CopyField(CHAR8* out, UINTN fieldBytes, const CHAR8* field) {
  ZeroMem(out, fieldBytes + 1);
  if (field == nullptr) {
    return;
  }
  for (UINTN i = 0; i < fieldBytes && field[i] != 0; i++) {
    out[i] = field[i];
  }
}

}  // namespace

VOID SetApplication(const CHAR16* argument0) {
  if (argument0 == nullptr || argument0[0] == 0) {
    return;
  }
  // A volume prefix ("fs0:") falls away; the shell may start the file without its extension.
  const CHAR16* name = argument0;
  for (const CHAR16* c = argument0; *c != 0; c++) {
    if (*c == u':') {
      name = c + 1;
      break;
    }
  }
  StrCopy16(gPackage.applicationName, kApplicationNameCharacters, name);
  if (!Contains16(gPackage.applicationName, kEfiSuffix)) {
    StrCat16(gPackage.applicationName, kApplicationNameCharacters, kEfiSuffix);
  }
  LogPrint(kLogDetail, kTraceSetApplication, gPackage.applicationName);
}

const CHAR16* ApplicationName() { return gPackage.applicationName; }

VOID EnterPackageMode(const CHAR8* defaultArguments, const CHAR8* permittedOptions) {
  gPackage.packageMode = true;
  CopyField(gPackage.defaultArguments, kPackageDefaultArgumentBytes, defaultArguments);
  CopyField(gPackage.permittedOptions, kPackagePermittedOptionBytes, permittedOptions);
}

Bool IsPackageMode() { return gPackage.packageMode; }

VOID GetPackageCommands(const CHAR8** defaultArguments, const CHAR8** permittedOptions) {
  if (defaultArguments != nullptr) {
    *defaultArguments = gPackage.defaultArguments;
  }
  if (permittedOptions != nullptr) {
    *permittedOptions = gPackage.permittedOptions;
  }
}

// Every argument the user wrote must stand as a whole word in the package's list. The package's
// own default arguments are added later and are not checked here.
Bool ChkFilterArg_pkg(CHAR16** arguments, UINT32 count) {
  const CHAR8* permitted = gPackage.permittedOptions;
  if (permitted[0] == 0) {
    if (count <= 1) {
      return true;
    }
    Print(kErrorNotInPackage, arguments[1] != nullptr ? arguments[1] : u"");
    return false;
  }
  CHAR8 list[kPermittedListBytes];
  BuildWord(list, sizeof(list), "", nullptr, permitted);
  LogPrint(kLogDetail, kTraceFilterList, list);
  for (UINT32 i = 1; i < count; i++) {
    const CHAR16* argument = arguments[i];
    if (argument == nullptr || argument[0] == 0) {
      continue;
    }
    CHAR8 word[kArgumentWordBytes];
    BuildWord(word, sizeof(word), "-", argument + 1, nullptr);
    LogPrint(kLogDetail, kTraceFilterArgument, word);
    if (!Contains8(list, word)) {
      Print(kErrorNotInPackage, argument);
      return false;
    }
  }
  return true;
}

// -extrFD writes into "<current directory>\<application's base name>_FD" unless the next
// argument names a directory; that argument is then blanked so the option reader never sees it.
VOID ParseExtrFD(CHAR16** arguments, UINT32 count) {
  for (UINT32 i = 1; i < count; i++) {
    const CHAR16* argument = arguments[i];
    if (!IsOptionArgument(argument, kExtrFdOption)) {
      continue;
    }
    SetCommandFlag(&CommandFlags::extrFD);
    CHAR16* directory = gPackage.extractDirectory;
    CHAR16* next = i + 1 < count ? arguments[i + 1] : nullptr;
    if (next != nullptr && next[0] != 0 && next[0] != u'/' && next[0] != u'-') {
      StrCopy16(directory, kExtractDirectoryCharacters, next);
      next[0] = 0;
      i++;
    } else {
      const CHAR16* base = gPackage.applicationName;
      for (const CHAR16* c = base; *c != 0; c++) {
        if (*c == u'\\') {
          base = c + 1;
        }
      }
      StrCopy16(directory, kExtractDirectoryCharacters, GetCurrentDirectory());
      StrCat16(directory, kExtractDirectoryCharacters, u"\\");
      UINTN at = StrLen16(directory);
      for (; *base != 0 && *base != u'.' && at + 1 < kExtractDirectoryCharacters; base++) {
        directory[at++] = *base;
      }
      directory[at] = 0;
      StrCat16(directory, kExtractDirectoryCharacters, kExtractFolderSuffix);
    }
    UINTN length = StrLen16(directory);
    if (length != 0 && directory[length - 1] == u'\\') {
      directory[length - 1] = 0;
    }
    LogPrint(kLogDetail, kTraceExtractDirectory, directory);
  }
}

const CHAR16* ExtractDirectory() { return gPackage.extractDirectory; }

VOID ResetPackageArgumentState() { gPackage = {}; }
