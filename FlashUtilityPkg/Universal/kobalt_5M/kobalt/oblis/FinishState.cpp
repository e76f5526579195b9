// The finish state of a run (clear CMOS, action, complete) and the level above function 16h:
// setting the state from the settings and the -r/-s/-n options, the override of the action that
// is sent, and the firmware's action index. The wrapper itself lives with the other wrappers.
#include "config/Config.h"
#include "oblis/OblisInternal.h"
#include "output/Output.h"

namespace {

struct FinishState {
  UINT8 clearCmos;
  UINT8 action;
  UINT8 complete;
};
constinit FinishState gFinish = {0, 0, 0};

constexpr UINT8 kActionNothing = 0;
constexpr UINT8 kActionShutdown = 1;
constexpr UINT8 kActionReboot = 2;

const CHAR16* const kActionNames[] = {u"Do Nothing", u"Shutdown", u"Reboot"};
const CHAR16* const kCompleteNames[] = {u"AP Terminated", u"Flash Entire", u"Flash Partial"};
const CHAR16 kUndefined[] = u"Undefined";

const CHAR16 kTraceSetStatusHead[] = u" SetStatus_16h\r\n----+-----------------\r\n %2x  %s\r\n %2x  %s\r\n";
const CHAR16 kTraceSetReboot[] = u"Set 16h -r\r\n";
const CHAR16 kTraceSetShutdown[] = u"Set 16h -s\r\n";
const CHAR16 kTraceSetNothing[] = u"Set 16h -n\r\n";
const CHAR16 kTraceSetCmos[] = u"Set 16h CMOS (%d)\r\n";
const CHAR16 kTraceSetAction[] = u"Set 16h Action %d/%s\r\n";
const CHAR16 kTraceSetComplete[] = u"Set 16h Complete (%d)\r\n";
const CHAR16 kTraceOverride[] = u"[FlashSecureBIOSOverride] enable (%d)\r\n";
const CHAR16 kTraceSpecific[] = u"FuncSpecific_16h() |enable|\r\n";
const CHAR16 kTraceIndexToAction[] = u" IndexToAction_16h\r\n----+-----------------\r\n %2d  Oblis\r\n %2d  16h\r\n";

// -r, then -s, then -n: the later option wins.
UINT8 ApplyActionOptions(UINT8 action, Bool traceThem) {
  const CommandFlags* flags = Flags();
  if (flags->reboot) {
    action = kActionReboot;
    if (traceThem) {
      LogPrint(kLogDetail, kTraceSetReboot);
    }
  }
  if (flags->shutdown) {
    action = kActionShutdown;
    if (traceThem) {
      LogPrint(kLogDetail, kTraceSetShutdown);
    }
  }
  if (flags->nothing) {
    action = kActionNothing;
    if (traceThem) {
      LogPrint(kLogDetail, kTraceSetNothing);
    }
  }
  return action;
}

}  // namespace

const CHAR16* FinishActionName(UINT8 action) { return action < 3 ? kActionNames[action] : kUndefined; }
const CHAR16* FinishCompleteName(UINT8 complete) { return complete < 3 ? kCompleteNames[complete] : kUndefined; }

VOID SetStatus_16h(UINT8 clearCmos, UINT8 action, UINT8 complete, FinishActionLastWord lastWord) {
  TraceScope trace(u"SetStatus_16h");
  LogPrint(kLogDetail, kTraceSetStatusHead, action, FinishActionName(action), complete, FinishCompleteName(complete));
  gFinish.action = (UINT8)Settings()->flashComplete.action;
  gFinish.action = ApplyActionOptions(gFinish.action, true);
  // The firmware's CommonFlash answer has the last word over settings and options.
  if (lastWord != nullptr) {
    lastWord(&gFinish.action);
  }
  if (clearCmos != kFinishLeaveAsIs) {
    gFinish.clearCmos = clearCmos;
    LogPrint(kLogDetail, kTraceSetCmos, clearCmos);
  }
  if (action != kFinishLeaveAsIs) {
    gFinish.action = action;
    LogPrint(kLogDetail, kTraceSetAction, action, FinishActionName(action));
  }
  if (complete != kFinishLeaveAsIs) {
    gFinish.complete = complete;
    LogPrint(kLogDetail, kTraceSetComplete, complete);
  }
}

Bool EFIAPI FuncOblis_16h() {
  TraceScope trace(u"FuncOblis_16h");
  UINT8 action = gFinish.action;
  const FlashSettings* settings = Settings();
  if (settings->flashSecureBiosOverride.enable) {
    INT32 overrideAction = settings->flashSecureBiosOverride.action;
    LogPrint(kLogDetail, kTraceOverride, overrideAction);
    // Only what is sent changes; the stored state stays as the run set it.
    if (overrideAction == 0 || overrideAction == 1) {
      action = kActionReboot;
    } else if (overrideAction == 2) {
      action = kActionShutdown;
    } else if (overrideAction == 3) {
      action = kActionNothing;
    }
  }
  if (!Oblis_16h(gFinish.clearCmos, action, gFinish.complete)) {
    return trace.Fail(u"OBLIS 16h failed");
  }
  return true;
}

Bool FuncSpecific_16h(UINT8 action, UINT8 complete) {
  LogPrint(kLogDetail, kTraceSpecific);
  return Oblis_16h(0, action, complete);
}

UINT8 IndexToAction_16h(UINT8 index) {
  UINT8 action = kActionReboot;
  if (index == 2) {
    action = kActionShutdown;
  } else if (index == 3) {
    action = kActionNothing;
  }
  action = ApplyActionOptions(action, false);
  LogPrint(kLogDetail, kTraceIndexToAction, index, action);
  return action;
}

UINT8 GetFinishAction() { return gFinish.action; }
UINT8 GetFinishComplete() { return gFinish.complete; }
UINT8 GetFinishClearCmos() { return gFinish.clearCmos; }
Bool OptionReboot() { return Flags()->reboot; }
Bool OptionShutdown() { return Flags()->shutdown; }

VOID ResetFinishState() {
  gFinish = {0, 0, 0};
}
