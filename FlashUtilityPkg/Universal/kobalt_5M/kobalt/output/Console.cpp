// What the user sees on the text console: Print and PrintLong with their limits, the banners,
// the message table lookup, the red warning bar and the key wait. The format dialect lives in
// PrintFormat.cpp; the message table text itself is read by the config folder.
#include "config/Config.h"
#include "oblis/Oblis.h"
#include "output/Output.h"

namespace {

// PrintLong's block: 0x2000 bytes, that is 4095 characters and the terminator.
constexpr UINTN kLongBlockBytes = 0x2000;
constexpr UINTN kLongSliceCharacters = 300;

constexpr CHAR16 kToolVersion[] = u"1.3k";
constexpr CHAR16 kToolBuild[] = u"00";
constexpr CHAR16 kSecureVersion[] = u"1.00.43";
constexpr CHAR16 kSecureBuild[] = u"00";
constexpr CHAR16 kVersionJoin[] = u"%s.%s";
constexpr CHAR16 kBannerTitle[] = u"\n\n                Dovrin ZAPROM (Flash Firmware Tool) Version %s\n";
constexpr CHAR16 kBannerRights[] = u"         Copyright (c) 2026 Dovrin Systems. All rights reserved.";
constexpr CHAR16 kBannerEnd[] = u"\n\n\n";

constexpr CHAR8 kMessageSection[] = "MessageStringTable";
constexpr CHAR16 kAcWarningDefault[] = u"Please do not remove the AC power!";
constexpr CHAR16 kPauseDefault[] = u"Press any key to continue...";
constexpr CHAR16 kPausePrompt[] = u"\n                           %s ";

constexpr UINTN kBarRowsBelow = 6;
// The bar's edges: 79 blanks and a line end.
constexpr CHAR16 kBarEdge[] =
    u"                                                                               \n";
static_assert(sizeof(kBarEdge) / sizeof(CHAR16) == 79 + 2, "the bar edge is 79 blanks and LF");

constexpr UINT32 kHookBeforeDialog = 5;
constexpr UINT32 kHookAfterDialog = 6;
constexpr UINTN kScreenWidth = 80;

struct ConsoleState {
  // The value of a [MessageStringTable] key; a message longer than the text field does not fit.
  CHAR8 messageValue[kIniTextBytes];
};
constinit ConsoleState gConsole = {};

EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* ConsoleOut() { return gST != nullptr ? gST->ConOut : nullptr; }

UINTN PrintV(const CHAR16* format, va_list args) {
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* out = ConsoleOut();
  if (out == nullptr) {
    return 0;
  }
  CHAR16* block = static_cast<CHAR16*>(AllocateZeroPool((kPrintLimit + 1) * sizeof(CHAR16)));
  if (block == nullptr) {
    return 0;
  }
  UINTN length = FormatTextV(block, kPrintLimit + 1, format, args);
  EFI_STATUS status = out->OutputString(out, block);
  FreePoolAndNull(block);
  return EFI_ERROR(status) ? 0 : length;
}

// Replaces every two-character sequence backslash-letter by one character, in place.
VOID ReplaceEscape(CHAR8* text, CHAR8 letter, CHAR8 replacement) {
  UINTN to = 0;
  for (UINTN from = 0; text[from] != 0; from++) {
    if (text[from] == '\\' && text[from + 1] == letter) {
      text[to++] = replacement;
      from++;
    } else {
      text[to++] = text[from];
    }
  }
  text[to] = 0;
}

Bool IsLineEnd(CHAR16 c) { return c == u'\r' || c == u'\n'; }

}  // namespace

VOID SetConsoleAttribute(UINTN attribute) {
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* out = ConsoleOut();
  if (out != nullptr && out->SetAttribute != nullptr) {
    out->SetAttribute(out, attribute);
  }
}

UINTN Print(const CHAR16* format, ...) {
  va_list args;
  va_start(args, format);
  UINTN length = PrintV(format, args);
  va_end(args);
  return length;
}

VOID PrintLong(const CHAR16* format, ...) {
  CHAR16* block = static_cast<CHAR16*>(AllocateZeroPool(kLongBlockBytes));
  if (block == nullptr) {
    return;
  }
  va_list args;
  va_start(args, format);
  UINTN length = FormatTextV(block, kLongBlockBytes / sizeof(CHAR16), format, args);
  va_end(args);
  // Each slice is cut off by a terminator put in for the moment of its Print.
  for (UINTN start = 0; start < length; start += kLongSliceCharacters) {
    UINTN end = start + kLongSliceCharacters < length ? start + kLongSliceCharacters : length;
    CHAR16 kept = block[end];
    block[end] = 0;
    Print(u"%s", block + start);
    block[end] = kept;
  }
  FreePoolAndNull(block);
}

static VOID PrintBannerText(const CHAR16* versionText) {
  Print(kBannerTitle, versionText);
  Print(kBannerRights);
  Print(kBannerEnd);
}

// The long forms join version and build as "%s.%s".
static VOID PrintBannerJoined(const CHAR16* version, const CHAR16* build) {
  CHAR16 versionText[32];
  FormatText(versionText, sizeof(versionText) / sizeof(versionText[0]), kVersionJoin, version, build);
  PrintBannerText(versionText);
}

VOID PrintBanner(Bool longBanner) {
  if (longBanner) {
    PrintBannerJoined(kToolVersion, kToolBuild);
  } else {
    PrintBannerText(kToolVersion);
  }
}

VOID PrintSecureBanner() { PrintBannerJoined(kSecureVersion, kSecureBuild); }

const CHAR16* GetMessageText(const CHAR8* key, const CHAR16* defaultText) {
  if (key == nullptr || key[0] == 0) {
    return defaultText;
  }
  if (!GetIniString(kMessageSection, key, gConsole.messageValue, sizeof(gConsole.messageValue)) || gConsole.messageValue[0] == 0) {
    return defaultText;
  }
  // platform.ini writes line ends as backslash-r and backslash-n.
  ReplaceEscape(gConsole.messageValue, 'r', '\r');
  ReplaceEscape(gConsole.messageValue, 'n', '\n');

  UINTN first = 0;
  UINTN end = StrLen8(gConsole.messageValue);
  while (first < end && gConsole.messageValue[first] == '"') {
    first++;
  }
  while (end > first && gConsole.messageValue[end - 1] == '"') {
    end--;
  }
  gConsole.messageValue[end] = 0;

  UINTN capacity = (end - first) + 3;  // the text, CR LF and the terminator
  CHAR16* text = static_cast<CHAR16*>(AllocateZeroPool(capacity * sizeof(CHAR16)));
  if (text == nullptr) {
    return defaultText;
  }
  AsciiToUnicode(text, capacity, gConsole.messageValue + first);
  StrCat16(text, capacity, u"\r\n");
  return text;
}

VOID FreeMessageText(const CHAR16* text, const CHAR16* defaultText) {
  if (text != nullptr && text != defaultText) {
    FreePoolAndNull(text);
  }
}

CHAR16* CenterLines(UINT16 width, const CHAR16* text) {
  if (text == nullptr) {
    return nullptr;
  }
  // Lines are the runs between line ends; any number of CR and LF in a row is one end.
  UINTN lineCount = 0;
  for (UINTN i = 0; text[i] != 0; i++) {
    if (!IsLineEnd(text[i]) && (i == 0 || IsLineEnd(text[i - 1]))) {
      lineCount++;
    }
  }
  UINTN total = (UINTN)width * lineCount;
  CHAR16* centred = static_cast<CHAR16*>(AllocateZeroPool((total + 1) * sizeof(CHAR16)));
  if (centred == nullptr) {
    return nullptr;
  }
  for (UINTN i = 0; i < total; i++) {
    centred[i] = u' ';
  }
  UINTN line = 0;
  UINTN i = 0;
  while (text[i] != 0) {
    while (IsLineEnd(text[i])) {
      i++;
    }
    if (text[i] == 0) {
      break;
    }
    UINTN start = i;
    while (text[i] != 0 && !IsLineEnd(text[i])) {
      i++;
    }
    UINTN length = i - start;
    // A line longer than the block is cut to the width rather than started before the block.
    if (length > width) {
      length = width;
    }
    CHAR16* block = centred + line * width;
    CopyMem(block + (width - length) / 2, text + start, length * sizeof(CHAR16));
    if (width > 0) {
      block[width - 1] = u'\n';
    }
    line++;
  }
  return centred;
}

VOID PrintWarningBar(const CHAR16* text) {
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* out = ConsoleOut();
  if (out == nullptr) {
    return;
  }
  out->ClearScreen(out);
  SetConsoleAttribute(kAttributeWhiteOnRed);
  Print(kBarEdge);
  Print(text);
  Print(kBarEdge);
  out->SetCursorPosition(out, 0, kBarRowsBelow);
  SetConsoleAttribute(kAttributeWhiteOnBlack);
}

VOID ShowAcWarning(const CHAR8* key) {
  const CHAR16* text = GetMessageText(key, kAcWarningDefault);
  CHAR16* centred = CenterLines((UINT16)kScreenWidth, text);
  PrintWarningBar(centred);
  FreePoolAndNull(centred);
  FreeMessageText(text, kAcWarningDefault);
}

CHAR16 WaitKey() {
  SMI_ApHookPoint(kHookBeforeDialog);
  EFI_INPUT_KEY key = {0, 0};
  if (gST != nullptr && gST->ConIn != nullptr) {
    EFI_STATUS status;
    do {
      status = gST->ConIn->ReadKeyStroke(gST->ConIn, &key);
    } while (status == EFI_NOT_READY);
  }
  SMI_ApHookPoint(kHookAfterDialog);
  return key.UnicodeChar;
}

VOID FlashCompletePause() {
  if (!Settings()->flashComplete.pause) {
    return;
  }
  const CHAR16* text = GetMessageText(Settings()->flashComplete.pauseWarning, kPauseDefault);
  Print(kPausePrompt, text);
  FreeMessageText(text, kPauseDefault);
  WaitKey();
}

VOID ResetConsoleState() {
  gConsole = {};
}
