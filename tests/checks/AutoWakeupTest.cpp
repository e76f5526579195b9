// The wake-up alarm in the CMOS clock: the bytes on ports 0x70 and 0x71 in their order, BCD and
// binary clocks, the turn of the day, and the runs that must leave the clock alone.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "checks/Checks.h"
#include "oblis/FakeFirmware.h"
#include "simulator/Rtc.h"
#include "support/Isolated.h"

using namespace oblistest;

namespace {

EFI_TIME gNow{};
EFI_STATUS gTimeStatus = EFI_SUCCESS;

EFI_STATUS EFIAPI FixedTime(EFI_TIME* time, EFI_TIME_CAPABILITIES*) {
  if (EFI_ERROR(gTimeStatus)) return gTimeStatus;
  *time = gNow;
  return EFI_SUCCESS;
}

// The firmware's time and a CMOS clock that reads the same time, with every port access kept
// in order: "W70=0B", "R71", "W71=82".
class ClockBench {
 public:
  ClockBench(uint8_t hour, uint8_t minute, uint8_t second, bool binary)
      : rtc_(sim::RtcSettings{binary, {hour, minute, second}}) {
    gNow = {2026, 11, 23, hour, minute, second, 0, 0, 0, 0, 0};
    gTimeStatus = EFI_SUCCESS;
    gRT->GetTime = FixedTime;
    emu::PlatformBackend backend;
    backend.ioRead = [this](uint16_t port, int) {
      ports.push_back(Name('R', port));
      return static_cast<uint32_t>(rtc_.Read(port));
    };
    backend.ioWrite8 = [this](uint16_t port, uint8_t value) {
      char text[16];
      std::snprintf(text, sizeof(text), "=%02X", value);
      ports.push_back(Name('W', port) + text);
      rtc_.Write(port, value);
    };
    emu::SetPlatformBackend(backend);
  }

  sim::Rtc& Rtc() { return rtc_; }
  std::vector<std::string> ports;

 private:
  static std::string Name(char kind, uint16_t port) {
    char text[8];
    std::snprintf(text, sizeof(text), "%c%02X", kind, port);
    return text;
  }
  sim::Rtc rtc_;
};

// The log lines of the last ArmAutoWakeup, between its enter and leave lines.
std::string WakeupTrace(const std::string& log) {
  size_t enter = log.rfind("===> ArmAutoWakeup");
  size_t body = log.find("]\r\n", enter);
  size_t leave = log.find("<=== ArmAutoWakeup", body);
  if (enter == std::string::npos || body == std::string::npos || leave == std::string::npos) return "(no trace)";
  return log.substr(body + 3, leave - body - 3);
}

std::vector<sim::RtcWrite> AlarmWrites(uint8_t statusB, uint8_t hours, uint8_t minutes, uint8_t seconds) {
  return {{0x0B, (uint8_t)(statusB | 0x80)},
          {0x01, seconds},
          {0x03, minutes},
          {0x05, hours},
          {0x0B, (uint8_t)((statusB | 0x20) & 0x7F)}};
}

TEST(AutoWakeup, AlarmIsTheTimeOfDayIntervalAhead) {
  struct Row {
    const char* what;
    uint8_t hour, minute, second;
    uint32_t interval;
    bool binary;
    std::vector<sim::RtcWrite> writes;
    sim::RtcTime alarm;
    std::string trace;
  };
  const Row rows[] = {
      {"23:59:00 + 120 turns the day", 23, 59, 0, 120, false, AlarmWrites(0x02, 0x00, 0x01, 0x00), {0, 1, 0},
       "[AutoWakeup] enable 23:59:00\r\n RTC 35:89: 0 (86340)\r\n Day + 1 (60)\r\n SET  0: 1: 0 (60)\r\n"
       " BCD  0: 1: 0\r\n"},
      {"a sum of exactly a day is midnight", 23, 58, 0, 120, false, AlarmWrites(0x02, 0x00, 0x00, 0x00), {0, 0, 0},
       "[AutoWakeup] enable 23:58:00\r\n RTC 35:88: 0 (86280)\r\n Day + 1 (0)\r\n SET  0: 0: 0 (0)\r\n"
       " BCD  0: 0: 0\r\n"},
      {"BCD clock", 12, 34, 59, 0, false, AlarmWrites(0x02, 0x12, 0x34, 0x59), {12, 34, 59},
       "[AutoWakeup] enable 12:34:59\r\n RTC 18:52:89 (45299)\r\n SET 12:34:59 (45299)\r\n BCD 18:52:89\r\n"},
      {"binary clock", 12, 34, 59, 0, true, AlarmWrites(0x06, 0x0C, 0x22, 0x3B), {12, 34, 59},
       "[AutoWakeup] enable 12:34:59\r\n RTC 12:34:59 (45299)\r\n SET 12:34:59 (45299)\r\n"},
      {"one second before midnight stays today", 23, 57, 59, 119, true, AlarmWrites(0x06, 23, 59, 58), {23, 59, 58},
       "[AutoWakeup] enable 23:57:59\r\n RTC 23:57:59 (86279)\r\n SET 23:59:58 (86398)\r\n"},
      {"an interval of a whole day is the same time", 10, 0, 0, 86400, false, AlarmWrites(0x02, 0x10, 0x00, 0x00),
       {10, 0, 0}, "[AutoWakeup] enable 10:00:00\r\n RTC 16: 0: 0 (36000)\r\n Day + 1 (36000)\r\n SET 10: 0: 0 (36000)\r\n"
       " BCD 16: 0: 0\r\n"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ClockBench bench(row.hour, row.minute, row.second, row.binary);
                FakeFirmware::MutableSettings().flashComplete.action = 1;
                EXPECT_TRUE(ArmAutoWakeup(row.interval));
                EXPECT_EQ(bench.Rtc().Writes(), row.writes);
                ASSERT_TRUE(bench.Rtc().Alarm());
                EXPECT_EQ(*bench.Rtc().Alarm(), row.alarm);
                EXPECT_EQ(WakeupTrace(fw.Log()), row.trace);
              }))
        << row.what;
  }
}

TEST(AutoWakeup, PortsAreDrivenInTheOrderThatKeepsTheClockConsistent) {
  FakeFirmware fw;
  ClockBench bench(23, 59, 0, false);
  FakeFirmware::MutableSettings().flashComplete.action = 1;
  ASSERT_TRUE(ArmAutoWakeup(120));
  const std::vector<std::string> expected = {
      // the time for the trace: hours, minutes, seconds
      "W70=04", "R71", "W70=02", "R71", "W70=00", "R71",
      // status C to clear stale flags, then status B
      "W70=0C", "R71", "W70=0B", "R71",
      // halt, the alarm, and on again with the alarm interrupt
      "W70=0B", "W71=82", "W70=01", "W71=00", "W70=03", "W71=01", "W70=05", "W71=00", "W70=0B", "W71=22"};
  EXPECT_EQ(bench.ports, expected);
}

TEST(AutoWakeup, OtherBitsOfStatusBAreKept) {
  FakeFirmware fw;
  ClockBench bench(1, 2, 3, false);
  // A clock with square wave, update-ended interrupt, binary and 24-hour bits set.
  bench.Rtc().Write(0x70, 0x0B);
  bench.Rtc().Write(0x71, 0x1E);
  FakeFirmware::MutableSettings().flashComplete.action = 1;
  ASSERT_TRUE(ArmAutoWakeup(1));
  std::vector<sim::RtcWrite> writes = bench.Rtc().Writes();
  writes.erase(writes.begin());  // the bench's own
  EXPECT_EQ(writes, AlarmWrites(0x1E, 1, 2, 4));
}

TEST(AutoWakeup, RunsThatMustNotWakeLeaveTheClockAlone) {
  struct Row {
    const char* what;
    int action;
    bool shutdownOption;
    uint32_t interval;
    EFI_STATUS timeStatus;
    bool armed;
    std::string lastTrace;
    uint8_t hour = 10;  // of the firmware's time
  };
  const Row rows[] = {
      {"reboot without -s", 2, false, 120, EFI_SUCCESS, false, " action |NOT| shutdown\r\n"},
      {"nothing without -s", 0, false, 120, EFI_SUCCESS, false, " action |NOT| shutdown\r\n"},
      {"reboot with -s", 2, true, 120, EFI_SUCCESS, true, ""},
      {"shutdown", 1, false, 120, EFI_SUCCESS, true, ""},
      {"more than a day", 1, false, 86401, EFI_SUCCESS, false,
       "[AutoWakeup] interval 86401 more than a day, alarm not set\r\n"},
      {"a negative setting", 1, false, (uint32_t)-1, EFI_SUCCESS, false,
       "[AutoWakeup] interval 4294967295 more than a day, alarm not set\r\n"},
      {"no time from the firmware", 1, false, 120, EFI_DEVICE_ERROR, false,
       "[AutoWakeup] GetTime Device Error, alarm not set\r\n"},
      {"a firmware time that is no time of day", 1, false, 120, EFI_SUCCESS, false,
       "[AutoWakeup] enable 24:00:00\r\n[AutoWakeup] time 24:0:0 out of range, alarm not set\r\n", 24},
      // The action decides first, whatever the time.
      {"reboot, with a time out of range", 2, false, 120, EFI_SUCCESS, false,
       "[AutoWakeup] enable 24:00:00\r\n action |NOT| shutdown\r\n", 24},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ClockBench bench(10, 0, 0, false);
                gNow.Hour = row.hour;
                gTimeStatus = row.timeStatus;
                FakeFirmware::MutableSettings().flashComplete.action = row.action;
                FakeFirmware::MutableFlags().shutdown = row.shutdownOption;
                EXPECT_EQ(ArmAutoWakeup(row.interval), row.armed);
                if (row.armed) {
                  EXPECT_TRUE(bench.Rtc().Alarm());
                } else {
                  EXPECT_TRUE(bench.ports.empty()) << "no port touched";
                  std::string trace = WakeupTrace(fw.Log());
                  ASSERT_GE(trace.size(), row.lastTrace.size()) << trace;
                  EXPECT_EQ(trace.substr(trace.size() - row.lastTrace.size()), row.lastTrace) << trace;
                }
              }))
        << row.what;
  }
}

}  // namespace
