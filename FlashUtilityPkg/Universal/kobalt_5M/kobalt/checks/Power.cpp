// The power check before an update: which tests the options, [AC_Adapter], the CommonFlash gate
// and the vendor ask for, the firmware's AC and battery state held against them, and the red
// refusal boxes. The power state itself is read once, by function 10h at set-up (oblis folder).
#include "checks/ChecksInternal.h"
#include "config/Config.h"
#include "HostSettings.h"
#include "oblis/Oblis.h"
#include "output/Output.h"

namespace {

constexpr UINT8 kNoBattery = 0x65;          // the DC byte of a machine without a battery
constexpr INT32 kBoundFromFirmware = 0xFF;  // BatteryBound: take the firmware's Bound
constexpr UINT32 kStatusBoundOffset = 6;    // Bound in the kept 10h status record
// The capsule run has nobody to press a key, so a box stays readable for five seconds.
constexpr UINT32 kBoxWaitStalls = 5000;
constexpr UINTN kBoxWaitStallMicroseconds = 1000;

constexpr CHAR16 kCheckPowerStatus[] = u"CheckPowerStatus";
constexpr CHAR16 kRuleDell[] = u"Dell";
constexpr CHAR16 kRuleToshiba[] = u"Toshiba";
constexpr CHAR16 kRuleGeneral[] = u"formal";

constexpr CHAR16 kTraceAcByGate[] = u"AC |disable| (take care by 44h)\r\n";
constexpr CHAR16 kTraceAcOption[] = u"Check AC |disable| (-ac)\r\n";
constexpr CHAR16 kTraceAcAcb[] = u"Check AC |ebable| (-acb)\r\n";
constexpr CHAR16 kTraceAcIni[] = u"Check AC |enable| (ini)\r\n";
constexpr CHAR16 kTraceDcByGate[] = u"DC |disable| (take care by 44h)\r\n";
constexpr CHAR16 kTraceDcLenovo[] = u"Check DC |enable| (Lenovo)\r\n";
constexpr CHAR16 kTraceDcAb[] = u"Check DC |enable| (-ab)\r\n";
constexpr CHAR16 kTraceDcAcb[] = u"Check DC |enable| (-acb)\r\n";
constexpr CHAR16 kTraceDcIni[] = u"Check DC |enable| (ini)\r\n";
constexpr CHAR16 kTraceVendorStatus[] =
    u" Power Status\r\n -------------\r\n  Check AC  %d\r\n  Check DC  %d\r\n  DC Bound  %d\r\n";
constexpr CHAR16 kTraceForceit[] = u" -forceit used, skip AC/DC check\r\n";
constexpr CHAR16 kTraceGeneralStatus[] = u"Pwr Status (10h)\r\n  ---------+--\r\n         AC  %d\r\n         DC  %d\r\n";
constexpr CHAR16 kTraceGeneralCheck[] =
    u"Pwr check\r\n  ---------+--\r\n         AC  %d\r\n         DC  %d\r\n      Bound  %d\r\n";
constexpr CHAR16 kTraceBoundOutOfRange[] = u" BatteryBound |%d| is no byte, take Bound (10h) %d\r\n";

// The boxes are lines of exactly 80 characters with no line break: they fill the console's 80
// columns and wrap by themselves. "%3d%%" prints as four characters, so such a line is 81 long
// in the format.
constexpr CHAR16 kLineRule[] = u"#==============================================================================#";
constexpr CHAR16 kLineDellTop[] = u"#===================================== ERROR ==================================#";
constexpr CHAR16 kLineToshibaTop[] = u"#==================================== ERROR ===================================#";
constexpr CHAR16 kLineEmpty[] = u"#                                                                              #";

constexpr CHAR16 kDellNoAc[] = u"# An External power adapter must be connected.                                 #";
constexpr CHAR16 kDellNoBattery[] = u"# Battery must be installed.                                                   #";
constexpr CHAR16 kDellLowBattery[] = u"# Battery capacity too low.                                                    #";
constexpr CHAR16 kDellNotPerformed[] = u"# Rom update not performed.                                                    #";
constexpr CHAR16 kDellPressKey[] = u"# press any key to exit.                                                       #";

constexpr CHAR16 kToshibaCord[] = u"#                         System must plug-in AC cord                          #";
constexpr CHAR16 kToshibaCapacity[] = u"#                and DC capacity should over %3d%% during flash BIOS            #";

constexpr CHAR16 kBothNoAc[] = u"#                       Warning: No AC Connected                               #";
constexpr CHAR16 kBothNoBattery[] = u"#                       Warning: No Battery Connected                          #";
constexpr CHAR16 kBothLow[] = u"#                       Warning: Battery Too Low                               #";
constexpr CHAR16 kBothRequires[] = u"# This process requires AC power and a charged battery to avoid an accidental  #";
constexpr CHAR16 kBothPowerOff[] = u"# power-off during an update.                                                  #";
constexpr CHAR16 kBothPowerOffConnect[] = u"# power-off during an update. Connect the AC adapter and make sure a charged   #";
constexpr CHAR16 kBothInComputer[] = u"# battery is in the computer.                                                  #";

constexpr CHAR16 kAcNoAc[] = u"#                           Warning: No AC Connected                           #";
constexpr CHAR16 kAcRequires[] = u"# This process requires AC power to avoid an accidental power-off during an    #";
constexpr CHAR16 kAcUpdate[] = u"# update.                                                                      #";

constexpr CHAR16 kBatteryNone[] = u"#                        Warning: No Battery Connected                         #";
constexpr CHAR16 kBatteryRequires[] = u"# This process requires a charged battery to avoid an accidental power-off     #";
constexpr CHAR16 kBatteryLow[] = u"#                           Warning: Battery Too Low                           #";
constexpr CHAR16 kBatteryRequiresBound[] = u"# This process requires a %3d%% full battery to avoid an accidental power-off   #";
constexpr CHAR16 kBatteryDuringUpdate[] = u"# during an update.                                                            #";

// Printed width of a box line: the format's length with "%3d%%" counted as the four characters
// it becomes.
constexpr UINTN PrintedWidth(const CHAR16* line) {
  UINTN width = 0;
  for (UINTN i = 0; line[i] != 0; i++) {
    if (line[i] == u'%' && line[i + 1] == u'3' && line[i + 2] == u'd' && line[i + 3] == u'%' && line[i + 4] == u'%') {
      width += 4;
      i += 4;
    } else {
      width++;
    }
  }
  return width;
}

constexpr UINTN kBoxColumns = 80;
constexpr UINTN kBoxLinesMax = 6;

struct PowerBox {
  const CHAR16* lines[kBoxLinesMax];
  UINTN count;
};

// One box per refusal; the first and last lines are the rules.
constexpr PowerBox kBoxDellNoAc = {
    {kLineDellTop, kDellNoAc, kLineEmpty, kDellNotPerformed, kDellPressKey, kLineRule}, 6};
constexpr PowerBox kBoxDellNoBattery = {
    {kLineDellTop, kDellNoBattery, kLineEmpty, kDellNotPerformed, kDellPressKey, kLineRule}, 6};
constexpr PowerBox kBoxDellLowBattery = {
    {kLineDellTop, kDellLowBattery, kLineEmpty, kDellNotPerformed, kDellPressKey, kLineRule}, 6};
constexpr PowerBox kBoxToshiba = {
    {kLineToshibaTop, kLineEmpty, kToshibaCord, kToshibaCapacity, kLineEmpty, kLineRule}, 6};
constexpr PowerBox kBoxBothNoAc = {{kLineRule, kBothNoAc, kBothRequires, kBothPowerOff, kLineRule}, 5};
constexpr PowerBox kBoxBothNoBattery = {{kLineRule, kBothNoBattery, kBothRequires, kBothPowerOff, kLineRule}, 5};
constexpr PowerBox kBoxBothLow = {
    {kLineRule, kBothLow, kBothRequires, kBothPowerOffConnect, kBothInComputer, kLineRule}, 6};
constexpr PowerBox kBoxAcNoAc = {{kLineRule, kAcNoAc, kAcRequires, kAcUpdate, kLineRule}, 5};
constexpr PowerBox kBoxBatteryNone = {{kLineRule, kBatteryNone, kBatteryRequires, kBatteryDuringUpdate, kLineRule}, 5};
constexpr PowerBox kBoxBatteryLow = {
    {kLineRule, kBatteryLow, kBatteryRequiresBound, kBatteryDuringUpdate, kLineRule}, 5};

constexpr Bool IsBoxLine(const CHAR16* line) {
  UINTN length = 0;
  while (line[length] != 0) {
    length++;
  }
  return PrintedWidth(line) == kBoxColumns && line[0] == u'#' && line[length - 1] == u'#';
}

constexpr Bool IsWholeBox(const PowerBox& box) {
  for (UINTN i = 0; i < box.count; i++) {
    if (!IsBoxLine(box.lines[i])) {
      return false;
    }
  }
  return box.count >= 2 && box.lines[box.count - 1] == kLineRule;
}
static_assert(IsWholeBox(kBoxDellNoAc) && IsWholeBox(kBoxDellNoBattery) && IsWholeBox(kBoxDellLowBattery) &&
                  IsWholeBox(kBoxToshiba) && IsWholeBox(kBoxBothNoAc) && IsWholeBox(kBoxBothNoBattery) &&
                  IsWholeBox(kBoxBothLow) && IsWholeBox(kBoxAcNoAc) && IsWholeBox(kBoxBatteryNone) &&
                  IsWholeBox(kBoxBatteryLow),
              "every box line is 80 printed columns");

// What the shared test of the vendor rules found first.
enum class PowerFault : UINT8 { None, NoAc, NoBattery, LowBattery };

struct PowerState {
  // The box's lines joined into one format; 81 characters a line at most, and the terminator.
  CHAR16 boxFormat[kBoxLinesMax * (kBoxColumns + 1) + 1];
};
constinit PowerState gPower = {};

UINT8 FirmwareBound() {
  UINT8 status[kPlatformStatusBytes];
  GetPlatformStatus(status);
  return status[kStatusBoundOffset];
}

VOID ShowPowerBox(const PowerBox& box) {
  // The capsule run shows its own banner before any check; a shell run shows the short one here.
  Bool uefiRun = GetRunMode() == kRunModeUefi;
  if (!uefiRun) {
    PrintBanner(false);
  }
  gPower.boxFormat[0] = 0;
  for (UINTN i = 0; i < box.count; i++) {
    StrCat16(gPower.boxFormat, sizeof(gPower.boxFormat) / sizeof(gPower.boxFormat[0]), box.lines[i]);
  }
  SetConsoleAttribute(kAttributeWhiteOnRed);
  PrintLong(gPower.boxFormat, (UINT32)GetBatteryBound());
  SetConsoleAttribute(kAttributeWhiteOnBlack);
  Print(u"\r\n");
  if (uefiRun && gBS != nullptr) {
    for (UINT32 i = 0; i < kBoxWaitStalls; i++) {
      gBS->Stall(kBoxWaitStallMicroseconds);
    }
  }
}

// The test that the Dell and Toshiba rules share: the first failure found, or none.
PowerFault VendorPowerFault() {
  Bool needAc = NeedAcCheck();
  Bool needDc = NeedDcCheck();
  UINT8 bound = GetBatteryBound();
  LogPrint(kLogDetail, kTraceVendorStatus, (UINT32)needAc, (UINT32)needDc, (UINT32)bound);
  UINT8 dc = GetDcStatus();
  if (needAc && GetAcStatus() == 0) {
    return PowerFault::NoAc;
  }
  if (needDc && dc == kNoBattery) {
    return PowerFault::NoBattery;
  }
  if (needDc && dc < bound) {
    return PowerFault::LowBattery;
  }
  return PowerFault::None;
}

Bool DellRule() {
  // Only this rule knows -forceit: Dell service staff flash boards on the bench without battery.
  if (Flags()->forceit) {
    LogPrint(kLogDetail, kTraceForceit);
    return true;
  }
  switch (VendorPowerFault()) {
    case PowerFault::NoAc: ShowPowerBox(kBoxDellNoAc); return false;
    case PowerFault::NoBattery: ShowPowerBox(kBoxDellNoBattery); return false;
    case PowerFault::LowBattery: ShowPowerBox(kBoxDellLowBattery); return false;
    case PowerFault::None: break;
  }
  return true;
}

// Toshiba has one box for every failure, with the limit in it even when only AC was tested.
Bool ToshibaRule() {
  if (VendorPowerFault() == PowerFault::None) {
    return true;
  }
  ShowPowerBox(kBoxToshiba);
  return false;
}

Bool GeneralRule() {
  UINT8 ac = GetAcStatus();
  UINT8 dc = GetDcStatus();
  LogPrint(kLogDetail, kTraceGeneralStatus, (UINT32)ac, (UINT32)dc);
  Bool needAc = NeedAcCheck();
  Bool needDc = NeedDcCheck();
  UINT8 bound = GetBatteryBound();
  LogPrint(kLogDetail, kTraceGeneralCheck, (UINT32)needAc, (UINT32)needDc, (UINT32)bound);
  if (needAc && needDc) {
    if (ac == 0) {
      ShowPowerBox(kBoxBothNoAc);
      return false;
    }
    if (dc == kNoBattery) {
      ShowPowerBox(kBoxBothNoBattery);
      return false;
    }
    if (dc < bound) {
      ShowPowerBox(kBoxBothLow);
      return false;
    }
  }
  if (needAc && ac == 0) {
    ShowPowerBox(kBoxAcNoAc);
    return false;
  }
  if (needDc) {
    if (dc == kNoBattery) {
      ShowPowerBox(kBoxBatteryNone);
      return false;
    }
    if (dc < bound) {
      ShowPowerBox(kBoxBatteryLow);
      return false;
    }
  }
  return true;
}

}  // namespace

Bool NeedAcCheck() {
  // With the CommonFlash gate in force, power is the firmware's business through function 44h.
  if (IsCommonFlashActive()) {
    LogPrint(kLogDetail, kTraceAcByGate);
    return false;
  }
  if (Flags()->ac) {
    LogPrint(kLogDetail, kTraceAcOption);
    return false;
  }
  if (Flags()->acb) {
    LogPrint(kLogDetail, kTraceAcAcb);
    return true;
  }
  if (Settings()->acAdapter.flag == 1) {
    LogPrint(kLogDetail, kTraceAcIni);
    return true;
  }
  return false;
}

Bool NeedDcCheck() {
  if (IsCommonFlashActive()) {
    LogPrint(kLogDetail, kTraceDcByGate);
    return false;
  }
  // Lenovo machines never test AC without the battery.
  if (IsVendor(kVendorLenovo) && NeedAcCheck()) {
    LogPrint(kLogDetail, kTraceDcLenovo);
    return true;
  }
  if (Flags()->ab) {
    LogPrint(kLogDetail, kTraceDcAb);
    return true;
  }
  if (Flags()->acb) {
    LogPrint(kLogDetail, kTraceDcAcb);
    return true;
  }
  if (Settings()->acAdapter.batteryCheck == 1) {
    LogPrint(kLogDetail, kTraceDcIni);
    return true;
  }
  return false;
}

UINT8 GetBatteryBound() {
  INT32 configured = Settings()->acAdapter.batteryBound;
  if (configured == kBoundFromFirmware) {
    return FirmwareBound();
  }
  // A value that is no byte would wrap into some other limit, possibly one that lets an empty
  // battery pass; the platform's own limit is the safe stand-in.
  if (configured < 0 || configured > 0xFF) {
    UINT8 bound = FirmwareBound();
    LogPrint(kLogDetail, kTraceBoundOutOfRange, configured, (UINT32)bound);
    return bound;
  }
  return (UINT8)configured;
}

Bool CheckPowerStatus() {
  TraceScope trace(kCheckPowerStatus);
  const CHAR16* rule = kRuleGeneral;
  Bool pass;
  if (IsVendor(kVendorDell)) {
    rule = kRuleDell;
    pass = DellRule();
  } else if (IsVendor(kVendorToshiba)) {
    rule = kRuleToshiba;
    pass = ToshibaRule();
  } else {
    pass = GeneralRule();
  }
  trace.SetReason(rule);
  return pass;
}

VOID ResetPowerState() {
  gPower = {};
}
