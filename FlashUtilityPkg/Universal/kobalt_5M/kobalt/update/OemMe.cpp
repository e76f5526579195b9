// The OEM ME update: on machines whose ME firmware is updated by the vendor's own shell tool,
// that tool runs just before the BIOS write, through a one-line script that the host executes.
// The tool leaves error.log only when it fails, so the file's existence is the verdict.
#include "config/Config.h"
#include "FileLayer.h"
#include "HostSettings.h"
#include "image/Image.h"
#include "output/Output.h"
#include "update/UpdateInternal.h"

namespace {

constexpr CHAR16 kUpdateOemMe[] = u"UpdateOemME";
constexpr CHAR16 kMeTool[] = u"FwUpdLcl.efi";
constexpr CHAR16 kMeScript[] = u"FwUpdZPM.nsh";
constexpr CHAR16 kMeErrorLog[] = u"error.log";
constexpr CHAR16 kScriptFormat[] = u"%s -f %a %a";
constexpr UINTN kScriptCharacters = 2 * 0x400 + 32;  // the tool's name, two settings texts, blanks

constexpr CHAR16 kReasonNoMeFile[] = u"ME filename is empty";
constexpr CHAR8 kMeToolAscii[] = "FwUpdLcl.efi";
constexpr CHAR16 kReasonToolMissing[] = u"ME file not found in package";
constexpr CHAR16 kReasonToolNotPacked[] = u"ME update utility not found in package";
constexpr CHAR16 kWarningToolNotPacked[] = u"Warning!\r\n Utility (%a) not found in current package.\r\n";
constexpr CHAR16 kWarningMeFileNotPacked[] = u"Warning!\r\n ME File (%a) not found in current package.\r\n";
constexpr UINTN kMeFileNameCharacters = 0x400;
constexpr CHAR16 kReasonScriptFailed[] = u"Save update ME script file failed";
constexpr CHAR16 kReasonErrorLog[] = u"Log file found, error occur";
constexpr CHAR16 kTraceUpdateMe[] = u" Update OEM ME by Intel tool\r\n";
constexpr CHAR16 kTraceToolMissing[] = u" Utility %s (not found)\r\n";
constexpr CHAR16 kWarningToolMissing[] = u"Warning!\r\n Utility %s not found.\r\n";
constexpr CHAR16 kTraceScript[] = u" Update ME Script: (%a)\r\n";
constexpr CHAR16 kTraceScriptFailed[] = u" make script %s failed.\r\n";
constexpr CHAR16 kWarningErrorLog[] = u"\r\n ===== Warning (%s) ========\r\n  %a\r\n ==========\r\n";
constexpr CHAR16 kDone[] = u"\r\n\r\n";

struct OemMeState {
  CHAR16 wide[kScriptCharacters];
  CHAR8 text[kScriptCharacters];
};
constinit OemMeState gScript = {};

}  // namespace

Bool UpdateOemME() {
  TraceScope trace(kUpdateOemMe);
  const FlashSettings* settings = Settings();
  if (settings->updateOemMe.meFileName[0] == 0) {
    trace.SetReason(kReasonNoMeFile);
    return true;
  }
  LogPrint(kLogDetail, kTraceUpdateMe);
  // A package carries the tool and the ME file; they are unpacked beside it for the run.
  Bool packaged = IsPackageMode();
  if (packaged) {
    if (!GetResourceFile(kMeToolAscii)) {
      Print(kWarningToolNotPacked, kMeToolAscii);
      return trace.Fail(kReasonToolNotPacked);
    }
    if (!GetResourceFile(settings->updateOemMe.meFileName)) {
      Print(kWarningMeFileNotPacked, settings->updateOemMe.meFileName);
      return trace.Fail(kReasonToolMissing);
    }
  }
  // Only the tool's presence is tested: a wrong ME file name is the tool's to report.
  if (!ReadFile(kMeTool, nullptr, nullptr)) {
    LogPrint(kLogDetail, kTraceToolMissing, kMeTool);
    Print(kWarningToolMissing, kMeTool);
    return trace.Fail(kReasonToolMissing);
  }
  FormatText(gScript.wide, kScriptCharacters, kScriptFormat, kMeTool, settings->updateOemMe.meFileName,
             settings->updateOemMe.command);
  UnicodeToAscii(gScript.text, kScriptCharacters, gScript.wide);
  LogPrint(kLogDetail, kTraceScript, gScript.text);
  if (!SaveBufferToFile(kMeScript, gScript.text, (UINT32)StrLen8(gScript.text))) {
    LogPrint(kLogDetail, kTraceScriptFailed, kMeScript);
    return trace.Fail(kReasonScriptFailed);
  }
  // An error.log of an earlier run must not count against this one.
  EfiDeleteFile(kMeErrorLog);
  RunShellCommand(kMeScript);
  EfiDeleteFile(kMeScript);
  // The unpacked files go whatever the tool said.
  if (packaged) {
    CHAR16 meFile[kMeFileNameCharacters];
    AsciiToUnicode(meFile, kMeFileNameCharacters, settings->updateOemMe.meFileName);
    EfiDeleteFile(kMeTool);
    EfiDeleteFile(meFile);
  }

  UINT8* log = nullptr;
  UINT32 logSize = 0;
  if (ReadFile(kMeErrorLog, &log, &logSize)) {
    // The last byte gives way to the terminator; the buffer holds one byte more than the file.
    if (logSize != 0) {
      log[logSize - 1] = 0;
    }
    Print(kWarningErrorLog, kMeTool, reinterpret_cast<CHAR8*>(log));
    FreePoolAndNull(log);
    return trace.Fail(kReasonErrorLog);
  }
  Print(kDone);
  return true;
}

VOID ResetOemMeState() {
  gScript = {};
}
