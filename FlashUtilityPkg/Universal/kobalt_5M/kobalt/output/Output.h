// What the output folder offers: the print dialect, console messages and the trace log.
// Console text goes only through Print/PrintLong; log lines only through LogPrint.
#pragma once

#include "KobaltBase.h"

constexpr UINTN kPrintLimit = 320;

// Formats in the print dialect into buffer (capacity in characters, terminator included).
// Returns the characters written, not counting the terminator; the rest of a long text falls away.
UINTN FormatTextV(CHAR16* buffer, UINTN capacity, const CHAR16* format, va_list args);
UINTN FormatText(CHAR16* buffer, UINTN capacity, const CHAR16* format, ...);

// Console.
UINTN Print(const CHAR16* format, ...);
VOID PrintLong(const CHAR16* format, ...);
VOID PrintBanner(Bool longBanner);
VOID PrintSecureBanner();
// A new pool text owned by the caller when the key gave one, else defaultText itself.
// FreeMessageText frees only what GetMessageText allocated.
const CHAR16* GetMessageText(const CHAR8* key, const CHAR16* defaultText);
VOID FreeMessageText(const CHAR16* text, const CHAR16* defaultText);
VOID ShowAcWarning(const CHAR8* key);
VOID PrintWarningBar(const CHAR16* text);
// A console without attributes still shows the text, in its normal colours.
VOID SetConsoleAttribute(UINTN attribute);
// Reads text without changing it; a line longer than width is cut to width.
CHAR16* CenterLines(UINT16 width, const CHAR16* text);
CHAR16 WaitKey();
VOID FlashCompletePause();

// Trace and log.
constexpr UINT8 kLogSettings = 0;
constexpr UINT8 kLogTrace = 2;
constexpr UINT8 kLogDetail = 4;
VOID LogPrint(UINT8 level, const CHAR16* format, ...);
VOID TraceEnter(const CHAR16* name);
VOID TraceLeave(const CHAR16* name, const CHAR16* reason);

// A function's trace from its first line to every return: "===> Name [time]" when it is made,
// "<=== Name" when it goes out of scope, or "<=== Name (reason)" once a reason is set. The close
// sits in one place, so no return can forget it and no helper needs to close its caller's trace.
// Stack-only: no copies, no heap.
class TraceScope {
 public:
  explicit TraceScope(const CHAR16* name) : name_(name), reason_(nullptr) { TraceEnter(name); }
  ~TraceScope() { TraceLeave(name_, reason_); }
  TraceScope(const TraceScope&) = delete;
  TraceScope& operator=(const TraceScope&) = delete;
  static void* operator new(decltype(sizeof(0))) = delete;

  // For `return trace.Fail(reason);`: the close names the reason and the function answers false.
  Bool Fail(const CHAR16* reason) {
    reason_ = reason;
    return false;
  }
  // The close names a reason whatever the function answers; null takes it back.
  VOID SetReason(const CHAR16* reason) { reason_ = reason; }
  const CHAR16* Name() const { return name_; }

 private:
  const CHAR16* name_;
  const CHAR16* reason_;
};
VOID HexDump(const VOID* data, UINT32 length);
// Dumps data between two label lines, as every "===== ... =====" dump of the trace does. The
// label is a whole line with its CR LF; it is written as it is, at level 4 like the dump.
VOID HexDumpFramed(const CHAR16* label, const VOID* data, UINT32 length);
VOID ScanDebugOption();
Bool IsLogEnabled();
// A new 64-byte pool text owned by the caller.
CHAR16* TimeStamp(Bool date, Bool time);

// Progress of the block writer: the bar on row 21 and the block map in the trace.
VOID StartProgressTimer();
VOID ShowProgress(UINT8 percent);
VOID AddBlockMark(UINT32 address, UINT16 mark);

// State. Each file of the folder keeps its state in one record; ResetOutputState() puts them
// all back as a fresh load leaves them. Host builds and tests only: the firmware loads the
// driver fresh. Pool blocks are forgotten, not freed: the environment that handed them out
// takes them back.
VOID ResetOutputState();
VOID ResetConsoleState();
VOID ResetLogState();
VOID ResetProgressState();
