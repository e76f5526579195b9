// What the output folder offers the folders above it: the print dialect, console messages and
// the trace log. Console text goes only through Print/PrintLong; log lines only through LogPrint.
// Output is the lowest folder: it includes no header of a folder above it (the build checks it).
#pragma once

#include "KobaltBase.h"

// Formats in the print dialect into buffer (capacity in characters, terminator included).
// Returns the characters written, not counting the terminator; the rest of a long text falls away.
UINTN FormatTextV(CHAR16* buffer, UINTN capacity, const CHAR16* format, va_list args);
UINTN FormatText(CHAR16* buffer, UINTN capacity, const CHAR16* format, ...);

// Console.
UINTN Print(const CHAR16* format, ...);
VOID PrintLong(const CHAR16* format, ...);
VOID PrintBanner(Bool longBanner);
// A new pool text owned by the caller when the key gave one, else defaultText itself.
// FreeMessageText frees only what GetMessageText allocated.
const CHAR16* GetMessageText(const CHAR8* key, const CHAR16* defaultText);
VOID FreeMessageText(const CHAR16* text, const CHAR16* defaultText);
VOID ShowAcWarning(const CHAR8* key);
// A console without attributes still shows the text, in its normal colours.
VOID SetConsoleAttribute(UINTN attribute);
// Waits for a key and gives its character. The firmware's dialog hook points around a wait are
// the caller's: only it knows the wait is a dialog.
CHAR16 WaitKey();

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
  // A few closes have always named another function than the one that opened (a wrapper's
  // refusal closes its caller's trace under the wrapper's name): the close line carries name.
  Bool FailAs(const CHAR16* name, const CHAR16* reason) {
    name_ = name;
    reason_ = reason;
    return false;
  }

 private:
  const CHAR16* name_;
  const CHAR16* reason_;
};
// The close line of a wrapper that opens no trace of its own (the flash reads and writes, the
// piece checks): written only when the wrapper fails, once, when it goes out of scope.
class FailureTrace {
 public:
  explicit FailureTrace(const CHAR16* name) : name_(name), reason_(nullptr) {}
  ~FailureTrace() {
    if (reason_ != nullptr) {
      TraceLeave(name_, reason_);
    }
  }
  FailureTrace(const FailureTrace&) = delete;
  FailureTrace& operator=(const FailureTrace&) = delete;
  static void* operator new(decltype(sizeof(0))) = delete;

  // For `return trace.Fail(reason);`.
  Bool Fail(const CHAR16* reason) {
    reason_ = reason;
    return false;
  }

 private:
  const CHAR16* name_;
  const CHAR16* reason_;
};
VOID HexDump(const VOID* data, UINT32 length);
// Dumps data between two label lines, as every "===== ... =====" dump of the trace does. The
// label is a whole line with its CR LF; it is written as it is, at level 4 like the dump.
VOID HexDumpFramed(const CHAR16* label, const VOID* data, UINT32 length);
// Turns the trace on at the detail level when the arguments (the program's name first) hold -dbg.
VOID ScanDebugOption(UINT32 count, CHAR16** arguments);

// Progress of the block writer: the bar on row 21 and the block map in the trace.
VOID StartProgressTimer();
VOID ShowProgress(UINT8 percent);
// What the block writer knows of a block when it marks it; the block map only formats it.
constexpr UINT8 kNoExternalRegion = 0xFF;
struct BlockMapEntry {
  UINT32 address;
  UINT32 offset;  // from the start of the ROM
  UINT16 mark;    // the writer's mark character; 0 ends the marks column of its line there
  Bool protectedBlock;  // flagged in the part's block table
  Bool inProtectionRegion;
  UINT8 protectionType;  // of the first protection region that holds the block
  Bool inPrivateRegion;
  Bool externalRegionsKnown;  // the platform has any external region at all
  UINT8 externalType;         // the external region that holds the block, or kNoExternalRegion
  const CHAR16* externalName;
  UINT32 blocksInPart;  // sizes the map at the first mark
};
VOID AddBlockMark(const BlockMapEntry& entry);
// Whether marks are kept at all: the block map goes only to the trace log.
Bool BlockMapWanted();

// ---- asked by output, answered by the config folder ----
// The settings and the message table belong to config, a folder above this one. Config answers
// these (config/OutputSettings.cpp), so output never sees the settings record or the INI text.
constexpr UINTN kMessageTextBytes = 1024;  // one [MessageStringTable] value with its terminator
INT32 LogFileFlag();         // [Log_file] Flag
INT32 LogFileLevel();        // [Log_file] Level
Bool ElapsedTimeShown();     // [UI] Elapse: the seconds behind the percentage
// The value of a [MessageStringTable] key as the INI reader gives it; false when there is none.
Bool ReadMessageTable(const CHAR8* key, CHAR8* value, UINTN capacity);

// State. Each file of the folder keeps its state in one record; ResetOutputState() puts them
// all back as a fresh load leaves them. Host builds and tests only: the firmware loads the
// driver fresh. Pool blocks are forgotten, not freed: the environment that handed them out
// takes them back.
VOID ResetOutputState();
// Frees the block map and the log buffer; called last when the driver unloads, since a trace line
// after it would take a new buffer.
VOID ReleaseOutputMemory();
VOID ResetConsoleState();
VOID ResetLogState();
VOID ResetProgressState();
VOID ReleaseProgressMemory();

// ---- used by the capsule run ----
VOID PrintSecureBanner();
