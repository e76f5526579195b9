// The trace log ZAPROM.Log: LogPrint and its on/level rules, the function trace, time stamps,
// hex dumps and the -dbg scan. Opening, appending and deleting the file is the file layer;
// the [Log_file] values are asked of the settings.
#include "FileLayer.h"
#include "output/OutputInternal.h"

namespace {

constexpr CHAR16 kLogFileName[] = u"ZAPROM.Log";
// 16 KiB: 8191 characters of text and the terminator.
constexpr UINTN kLogBufferBytes = 0x4000;
constexpr UINTN kLogBufferCharacters = kLogBufferBytes / sizeof(CHAR16);
constexpr UINT8 kDebugOptionLevel = 4;

constexpr CHAR16 kTraceEnterName[] = u"===> %s ";
constexpr CHAR16 kTraceEnterTime[] = u"[%s]";
constexpr CHAR16 kTraceEnterEnd[] = u"\r\n";
constexpr CHAR16 kTraceLeave[] = u"<=== %s\r\n";
constexpr CHAR16 kTraceLeaveReason[] = u"<=== %s (%s)\r\n";

constexpr UINTN kTimeStampBytes = 64;
constexpr CHAR16 kDateTimeFormat[] = u"%04d/%02d/%02d %02d:%02d:%02d";
constexpr CHAR16 kDateFormat[] = u"%04d/%02d/%02d";
constexpr CHAR16 kTimeFormat[] = u"%02d:%02d:%02d";

constexpr CHAR16 kHexDumpLine[] = u"%04x:  %-48s    %s\r\n";
constexpr UINTN kHexDumpLineCharacters = 128;
constexpr UINT32 kHexDumpBytesPerLine = 16;

constexpr CHAR16 kDebugOptionDash[] = u"-dbg";
constexpr CHAR16 kDebugOptionSlash[] = u"/dbg";

struct LogState {
  CHAR16* buffer;
  Bool debugEnabled;
  UINT8 debugLevel;
  // Set while a line goes to the file. The file layer may trace through LogPrint itself; such a
  // line would overwrite the text being written and could call the file layer again, so it is
  // dropped.
  Bool writing;
};
constinit LogState gLog = {};

Bool LevelPasses(UINT8 level) {
  return level <= gLog.debugLevel || (INT32)level <= LogFileLevel();
}

// Keeps the low byte of each character, in place: byte i is written only after character i,
// which occupies bytes 2i and 2i+1, has been read.
UINT32 NarrowInPlace(CHAR16* text, UINTN length) {
  CHAR8* bytes = reinterpret_cast<CHAR8*>(text);
  for (UINTN i = 0; i < length; i++) {
    bytes[i] = (CHAR8)(text[i] & 0xFF);
  }
  return (UINT32)length;
}

}  // namespace

Bool IsLogEnabled() { return gLog.debugEnabled || LogFileFlag() != 0; }

VOID LogPrint(UINT8 level, const CHAR16* format, ...) {
  if (gLog.writing) {
    return;
  }
  if (gLog.buffer == nullptr) {
    gLog.buffer = static_cast<CHAR16*>(AllocateZeroPool(kLogBufferBytes));
    if (gLog.buffer == nullptr) {
      return;
    }
    // The last run's log goes at the first line of this one, whether this run logs or not.
    // The delete traces through LogPrint; the buffer is set by now, and this call formats its
    // own text only afterwards.
    EfiDeleteFile(kLogFileName);
  }

  // A line that is not written is not formatted either: a block loop traces every call, and
  // most of those lines lie below the level in force.
  if (!IsLogEnabled() || !LevelPasses(level)) {
    return;
  }
  // The formatter ends its text with a zero and reports its length; what lies behind it from an
  // earlier, longer line is never read.
  va_list args;
  va_start(args, format);
  UINTN length = FormatTextV(gLog.buffer, kLogBufferCharacters, format, args);
  va_end(args);
  if (length == 0) {
    return;
  }
  UINT32 size = NarrowInPlace(gLog.buffer, length);
  gLog.writing = true;
  // A failed append only loses this line.
  AppendBufferToFile(kLogFileName, gLog.buffer, size);
  gLog.writing = false;
}

CHAR16* TimeStamp(Bool date, Bool time) {
  EFI_TIME now = {};
  if (gRT != nullptr && gRT->GetTime != nullptr) {
    if (EFI_ERROR(gRT->GetTime(&now, nullptr))) {
      now = EFI_TIME{};
    }
  }
  CHAR16* text = static_cast<CHAR16*>(AllocateZeroPool(kTimeStampBytes));
  if (text == nullptr) {
    return nullptr;
  }
  constexpr UINTN capacity = kTimeStampBytes / sizeof(CHAR16);
  if (date && time) {
    FormatText(text, capacity, kDateTimeFormat, (INT32)now.Year, (INT32)now.Month, (INT32)now.Day,
               (INT32)now.Hour, (INT32)now.Minute, (INT32)now.Second);
  } else if (date) {
    FormatText(text, capacity, kDateFormat, (INT32)now.Year, (INT32)now.Month, (INT32)now.Day);
  } else if (time) {
    FormatText(text, capacity, kTimeFormat, (INT32)now.Hour, (INT32)now.Minute, (INT32)now.Second);
  }
  return text;
}

VOID TraceEnter(const CHAR16* name) {
  LogPrint(kLogTrace, kTraceEnterName, name);
  // The block loops enter a trace on every call: a stamp that no line would show is not taken.
  if (!IsLogEnabled() || !LevelPasses(kLogTrace)) {
    return;
  }
  CHAR16* stamp = TimeStamp(false, true);
  LogPrint(kLogTrace, kTraceEnterTime, stamp);
  FreePoolAndNull(stamp);
  LogPrint(kLogTrace, kTraceEnterEnd);
}

VOID TraceLeave(const CHAR16* name, const CHAR16* reason) {
  if (reason == nullptr) {
    LogPrint(kLogTrace, kTraceLeave, name);
  } else {
    LogPrint(kLogTrace, kTraceLeaveReason, name, reason);
  }
}

VOID HexDump(const VOID* data, UINT32 length) {
  static constexpr CHAR16 kHexDigits[] = u"0123456789ABCDEF";
  const UINT8* bytes = static_cast<const UINT8*>(data);
  if (bytes == nullptr) {
    length = 0;
  }
  UINT32 offset = 0;
  // A length of 0 still gives one line, with no bytes.
  do {
    UINT32 count = length - offset < kHexDumpBytesPerLine ? length - offset : kHexDumpBytesPerLine;
    CHAR16 hexPart[kHexDumpBytesPerLine * 3 + 1];
    CHAR16 textPart[kHexDumpBytesPerLine + 1];
    for (UINT32 i = 0; i < count; i++) {
      UINT8 b = bytes[offset + i];
      hexPart[i * 3] = kHexDigits[b >> 4];
      hexPart[i * 3 + 1] = kHexDigits[b & 0x0F];
      hexPart[i * 3 + 2] = (i == 7) ? u'-' : u' ';
      textPart[i] = (b >= 0x20 && b <= 0x7A) ? (CHAR16)b : u'.';
    }
    hexPart[count * 3] = 0;
    textPart[count] = 0;
    CHAR16 line[kHexDumpLineCharacters];
    FormatText(line, kHexDumpLineCharacters, kHexDumpLine, offset, hexPart, textPart);
    LogPrint(kLogDetail, u"%s", line);
    offset += count;
  } while (offset < length);
}

VOID HexDumpFramed(const CHAR16* label, const VOID* data, UINT32 length) {
  LogPrint(kLogDetail, u"%s", label);
  HexDump(data, length);
  LogPrint(kLogDetail, u"%s", label);
}

VOID ScanDebugOption(UINT32 count, CHAR16** arguments) {
  if (arguments == nullptr) {
    return;
  }
  for (UINT32 i = 1; i < count; i++) {
    if (StrEqualNoCase16(arguments[i], kDebugOptionDash) || StrEqualNoCase16(arguments[i], kDebugOptionSlash)) {
      gLog.debugEnabled = true;
      gLog.debugLevel = kDebugOptionLevel;
    }
  }
}

VOID ResetLogState() {
  gLog = {};
}

VOID ResetOutputState() {
  ResetConsoleState();
  ResetLogState();
  ResetProgressState();
}

VOID ReleaseOutputMemory() {
  ReleaseProgressMemory();
  FreePoolAndNull(gLog.buffer);
}
