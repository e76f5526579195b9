// The launcher's own small helpers: pool memory, byte loops and the one print it needs. The
// launcher carries the driver instead of linking it, so it keeps copies of these few things.
#include <stdarg.h>

#include "LauncherInternal.h"

namespace launcher {

constinit LauncherState gLauncher = {};

namespace {

// What one call of Print can put on the screen.
constexpr UINT32 kPrintLimit = 320;

constexpr const CHAR16* kWarningTexts[] = {
    u"Success", u"Warning Unknown Glyph", u"Warning Delete Failure", u"Warning Write Failure", u"Warning Buffer Too Small",
};
// Errors 1 to 24, by the number without the top bit.
constexpr const CHAR16* kErrorTexts[] = {
    u"Load Error",       u"Invalid Parameter", u"Unsupported",      u"Bad Buffer Size",
    u"Buffer Too Small", u"Not Ready",         u"Device Error",     u"Write Protected",
    u"Out of Resources", u"Volume Corrupt",    u"Volume Full",      u"No Media",
    u"Media changed",    u"Not Found",         u"Access Denied",    u"No Response",
    u"No mapping",       u"Time out",          u"Not started",      u"Already started",
    u"Aborted",          u"ICMP Error",        u"TFTP Error",       u"Protocol Error",
};
constexpr UINTN kWarningCount = sizeof(kWarningTexts) / sizeof(kWarningTexts[0]);
constexpr UINTN kErrorCount = sizeof(kErrorTexts) / sizeof(kErrorTexts[0]);

struct Line {
  CHAR16 text[kPrintLimit + 1];
  UINT32 used;
};

VOID Put(Line& line, CHAR16 c) {
  if (line.used < kPrintLimit) {
    line.text[line.used++] = c;
  }
}

VOID PutText(Line& line, const CHAR16* text) {
  for (; *text != 0; text++) {
    Put(line, *text);
  }
}

// A status without a name shows as the upper-case hex digits of its native width, as "%08X"
// shows the failed statuses that the launcher prints, whose top bit is set.
VOID PutStatus(Line& line, EFI_STATUS status) {
  if (status < kWarningCount) {
    PutText(line, kWarningTexts[status]);
    return;
  }
  UINTN code = status & ~kEfiErrorBit;
  if (EFI_ERROR(status) && code >= 1 && code <= kErrorCount) {
    PutText(line, kErrorTexts[code - 1]);
    return;
  }
  for (int shift = (int)(sizeof(EFI_STATUS) * 8) - 4; shift >= 0; shift -= 4) {
    UINTN nibble = (status >> shift) & 0xF;
    Put(line, (CHAR16)(nibble < 10 ? u'0' + nibble : u'A' + (nibble - 10)));
  }
}

}  // namespace

UINT8* AllocateBytes(EFI_MEMORY_TYPE type, UINT32 size) {
  VOID* block = nullptr;
  if (EFI_ERROR(gLauncher.bootServices->AllocatePool(type, size, &block))) {
    return nullptr;
  }
  return static_cast<UINT8*>(block);
}

VOID FreeBytes(UINT8*& block) {
  if (block != nullptr) {
    gLauncher.bootServices->FreePool(block);
    block = nullptr;
  }
}

VOID CopyBytes(UINT8* to, const UINT8* from, UINT32 count) {
  for (UINT32 i = 0; i < count; i++) {
    to[i] = from[i];
  }
}

VOID FillBytes(UINT8* to, UINT32 count, UINT8 value) {
  for (UINT32 i = 0; i < count; i++) {
    to[i] = value;
  }
}

Bool SameBytes(const UINT8* left, const UINT8* right, UINT32 count) {
  for (UINT32 i = 0; i < count; i++) {
    if (left[i] != right[i]) {
      return false;
    }
  }
  return true;
}

VOID Print(const CHAR16* format, ...) {
  Line line;
  line.used = 0;
  va_list items;
  va_start(items, format);
  for (const CHAR16* p = format; *p != 0; p++) {
    if (*p != u'%' || p[1] == 0) {
      Put(line, *p);
      continue;
    }
    p++;
    if (*p == u'r') {
      PutStatus(line, va_arg(items, EFI_STATUS));
    } else {
      Put(line, *p);
    }
  }
  va_end(items);
  line.text[line.used] = 0;
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* console = gLauncher.systemTable->ConOut;
  if (console != nullptr) {
    console->OutputString(console, line.text);
  }
}

}  // namespace launcher
