// The wake-up after an update that ends in a shutdown: the alarm of the battery-backed CMOS clock
// is set to the time of day that lies interval seconds ahead. The date is never programmed, so
// the alarm fires at the next occurrence of that time; the shutdown itself is the firmware's.
#include "PlatformSeams.h"
#include "checks/ChecksInternal.h"
#include "config/Config.h"
#include "oblis/Oblis.h"
#include "output/Output.h"

namespace {

constexpr UINT16 kCmosIndexPort = 0x70;
constexpr UINT16 kCmosDataPort = 0x71;
constexpr UINT8 kRegisterSeconds = 0x00;
constexpr UINT8 kRegisterAlarmSeconds = 0x01;
constexpr UINT8 kRegisterMinutes = 0x02;
constexpr UINT8 kRegisterAlarmMinutes = 0x03;
constexpr UINT8 kRegisterHours = 0x04;
constexpr UINT8 kRegisterAlarmHours = 0x05;
constexpr UINT8 kRegisterStatusB = 0x0B;
constexpr UINT8 kRegisterStatusC = 0x0C;
constexpr UINT8 kStatusBHaltUpdates = 0x80;
constexpr UINT8 kStatusBAlarmInterrupt = 0x20;
constexpr UINT8 kStatusBBinary = 0x04;

constexpr UINT32 kSecondsPerDay = 86400;
constexpr INT32 kFinishActionShutdown = 1;

constexpr CHAR16 kArmAutoWakeup[] = u"ArmAutoWakeup";
constexpr CHAR16 kTraceEnable[] = u"[AutoWakeup] enable %02d:%02d:%02d\r\n";
constexpr CHAR16 kTraceNotShutdown[] = u" action |NOT| shutdown\r\n";
constexpr CHAR16 kTraceRtc[] = u" RTC %2d:%2d:%2d (%d)\r\n";
constexpr CHAR16 kTraceNextDay[] = u" Day + 1 (%d)\r\n";
constexpr CHAR16 kTraceSet[] = u" SET %2d:%2d:%2d (%d)\r\n";
constexpr CHAR16 kTraceBcd[] = u" BCD %2d:%2d:%2d\r\n";
constexpr CHAR16 kTraceNoTime[] = u"[AutoWakeup] GetTime %r, alarm not set\r\n";
constexpr CHAR16 kTraceBadTime[] = u"[AutoWakeup] time %d:%d:%d out of range, alarm not set\r\n";
constexpr CHAR16 kTraceIntervalTooLong[] = u"[AutoWakeup] interval %u more than a day, alarm not set\r\n";
constexpr CHAR16 kReasonNotShutdown[] = u"Not shutdown";
constexpr CHAR16 kReasonNoTime[] = u"Get time failed";
constexpr CHAR16 kReasonInterval[] = u"Interval out of range";

UINT8 ReadCmos(UINT8 index) {
  IoWrite8(kCmosIndexPort, index);
  return IoRead8(kCmosDataPort);
}

VOID WriteCmos(UINT8 index, UINT8 value) {
  IoWrite8(kCmosIndexPort, index);
  IoWrite8(kCmosDataPort, value);
}

UINT8 ToBcd(UINT32 value) { return (UINT8)(((value / 10) << 4) | (value % 10)); }

}  // namespace

Bool ArmAutoWakeup(UINT32 interval) {
  TraceScope trace(kArmAutoWakeup);
  // The sum is made of the firmware's time; the clock's registers are only shown.
  EFI_TIME now;
  ZeroMem(&now, sizeof(now));
  EFI_STATUS status = gRT != nullptr ? gRT->GetTime(&now, nullptr) : EFI_UNSUPPORTED;
  if (EFI_ERROR(status)) {
    LogPrint(kLogDetail, kTraceNoTime, status);
    return trace.Fail(kReasonNoTime);
  }
  LogPrint(kLogDetail, kTraceEnable, (UINT32)now.Hour, (UINT32)now.Minute, (UINT32)now.Second);

  // A machine that reboots or stays on needs no wake-up.
  if (Settings()->flashComplete.action != kFinishActionShutdown && !OptionShutdown()) {
    LogPrint(kLogDetail, kTraceNotShutdown);
    return trace.Fail(kReasonNotShutdown);
  }

  // A firmware time that is no time of day would give alarm values the clock cannot match.
  if (now.Hour > 23 || now.Minute > 59 || now.Second > 59) {
    LogPrint(kLogDetail, kTraceBadTime, (UINT32)now.Hour, (UINT32)now.Minute, (UINT32)now.Second);
    return trace.Fail(kReasonNoTime);
  }

  // The alarm has no date: an interval of more than a day cannot be honoured, and reducing it
  // would wake the machine earlier than asked. Refused before the clock is touched.
  if (interval > kSecondsPerDay) {
    LogPrint(kLogSettings, kTraceIntervalTooLong, interval);
    return trace.Fail(kReasonInterval);
  }

  // The clock as it stands, for the trace; the time of day in seconds.
  UINT8 rtcHours = ReadCmos(kRegisterHours);
  UINT8 rtcMinutes = ReadCmos(kRegisterMinutes);
  UINT8 rtcSeconds = ReadCmos(kRegisterSeconds);
  UINT32 seconds = (UINT32)now.Hour * 3600 + (UINT32)now.Minute * 60 + (UINT32)now.Second;
  LogPrint(kLogDetail, kTraceRtc, (UINT32)rtcHours, (UINT32)rtcMinutes, (UINT32)rtcSeconds, seconds);

  // The alarm's time of day: at most one day to take off, since both parts are below a day.
  seconds += interval;
  if (seconds >= kSecondsPerDay) {
    seconds -= kSecondsPerDay;
    LogPrint(kLogDetail, kTraceNextDay, seconds);
  }

  UINT32 hours = seconds / 3600;
  UINT32 minutes = (seconds % 3600) / 60;
  UINT32 secondsOfMinute = seconds % 60;
  LogPrint(kLogDetail, kTraceSet, hours, minutes, secondsOfMinute, seconds);

  // Reading status C clears a stale alarm flag, so the new alarm is the one that counts.
  ReadCmos(kRegisterStatusC);
  UINT8 statusB = ReadCmos(kRegisterStatusB);

  // The alarm registers take the clock's own number format, BCD unless status B says binary.
  UINT8 alarmHours = (UINT8)hours;
  UINT8 alarmMinutes = (UINT8)minutes;
  UINT8 alarmSeconds = (UINT8)secondsOfMinute;
  if ((statusB & kStatusBBinary) == 0) {
    alarmHours = ToBcd(hours);
    alarmMinutes = ToBcd(minutes);
    alarmSeconds = ToBcd(secondsOfMinute);
    LogPrint(kLogDetail, kTraceBcd, (UINT32)alarmHours, (UINT32)alarmMinutes, (UINT32)alarmSeconds);
  }

  // The clock's updates are halted while the three alarm registers change, so that it
  // never compares against a half-written alarm.
  WriteCmos(kRegisterStatusB, (UINT8)(statusB | kStatusBHaltUpdates));
  WriteCmos(kRegisterAlarmSeconds, alarmSeconds);
  WriteCmos(kRegisterAlarmMinutes, alarmMinutes);
  WriteCmos(kRegisterAlarmHours, alarmHours);
  WriteCmos(kRegisterStatusB, (UINT8)((statusB | kStatusBAlarmInterrupt) & ~kStatusBHaltUpdates));
  return true;
}
