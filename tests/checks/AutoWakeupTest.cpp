// The wake-up alarm in the CMOS clock: the registers written through port 0x71 in their order,
// BCD and binary clocks, the turn of the day, and the runs that must leave the clock alone.
#include <string>
#include <vector>

#include "checks/ChecksBed.h"
#include "simulator/Rtc.h"

namespace {

class AutoWakeup : public checks::ChecksBed {
 protected:
  // A simulated machine whose clock and firmware time read hh:mm:ss; [FlashComplete] Action.
  void Start(uint8_t hour, uint8_t minute, uint8_t second, bool binary, int action) {
    bed::BedSetup setup;
    char json[80];
    std::snprintf(json, sizeof(json), R"({"rtc": {"binary": %s, "time": "%02d:%02d:%02d"}})", binary ? "true" : "false",
                  hour, minute, second);
    setup.machineJson = json;
    setup.clock = {2026, 11, 23, hour, minute, second, 0, 0, 0, 0, 0};
    Install(setup);
    Ini("[FlashComplete]\nAction=" + std::to_string(action) + "\n");
  }
  sim::Rtc& Clock() { return Simulator().RealTimeClock(); }
  // The trace of ArmAutoWakeup, between its enter and leave lines.
  std::string Trace() const {
    const std::string log = Log();
    size_t body = log.find("]\r\n", log.rfind("===> ArmAutoWakeup")) + 3;
    return log.substr(body, log.find("<=== ArmAutoWakeup", body) - body);
  }
};

// Halt, the alarm seconds, minutes and hours, then on again with the alarm interrupt.
std::vector<sim::RtcWrite> Alarm(uint8_t statusB, uint8_t hours, uint8_t minutes, uint8_t seconds) {
  return {{0x0B, (uint8_t)(statusB | 0x80)}, {0x01, seconds}, {0x03, minutes}, {0x05, hours}, {0x0B, (uint8_t)((statusB | 0x20) & 0x7F)}};
}

TEST_F(AutoWakeup, AlarmIsTheTimeOfDayIntervalAhead) {
  struct Row {
    uint8_t hour, minute, second;
    uint32_t interval;
    bool binary;
    uint8_t presetB;  // status B written before the run; 0: as at power-on
    std::vector<sim::RtcWrite> writes;
    std::string trace;
  };
  const Row rows[] = {
      {23, 59, 0, 120, false, 0, Alarm(0x02, 0x00, 0x01, 0x00), "[AutoWakeup] enable 23:59:00\r\n RTC 35:89: 0 (86340)\r\n Day + 1 (60)\r\n SET  0: 1: 0 (60)\r\n BCD  0: 1: 0\r\n"},
      {23, 58, 0, 120, false, 0, Alarm(0x02, 0x00, 0x00, 0x00), "[AutoWakeup] enable 23:58:00\r\n RTC 35:88: 0 (86280)\r\n Day + 1 (0)\r\n SET  0: 0: 0 (0)\r\n BCD  0: 0: 0\r\n"},
      {12, 34, 59, 0, true, 0, Alarm(0x06, 0x0C, 0x22, 0x3B), "[AutoWakeup] enable 12:34:59\r\n RTC 12:34:59 (45299)\r\n SET 12:34:59 (45299)\r\n"},
      {23, 57, 59, 119, true, 0, Alarm(0x06, 23, 59, 58), "[AutoWakeup] enable 23:57:59\r\n RTC 23:57:59 (86279)\r\n SET 23:59:58 (86398)\r\n"},
      {10, 0, 0, 86400, false, 0, Alarm(0x02, 0x10, 0x00, 0x00), "[AutoWakeup] enable 10:00:00\r\n RTC 16: 0: 0 (36000)\r\n Day + 1 (36000)\r\n SET 10: 0: 0 (36000)\r\n BCD 16: 0: 0\r\n"},
      // Square wave, update-ended interrupt, binary and 24-hour bits stay as they were.
      {1, 2, 3, 1, false, 0x1E, Alarm(0x1E, 1, 2, 4), "[AutoWakeup] enable 01:02:03\r\n RTC  1: 2: 3 (3723)\r\n SET  1: 2: 4 (3724)\r\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.trace);
    Start(row.hour, row.minute, row.second, row.binary, 1);
    if (row.presetB != 0) {
      Clock().Write(0x70, 0x0B);
      Clock().Write(0x71, row.presetB);
    }
    EXPECT_TRUE(ArmAutoWakeup(row.interval));
    std::vector<sim::RtcWrite> writes = Clock().Writes();
    if (row.presetB != 0) writes.erase(writes.begin());
    EXPECT_EQ(writes, row.writes);
    // Hours, minutes, seconds for the trace, status C to clear a stale alarm, then status B.
    EXPECT_EQ(ioWidths, std::vector<int>(5, 1));
    EXPECT_EQ(Trace(), row.trace);
  }
}

EFI_STATUS gTimeStatus;
EFI_STATUS EFIAPI Hour24(EFI_TIME* time, EFI_TIME_CAPABILITIES*) {
  *time = {2026, 11, 23, 24, 0, 0, 0, 0, 0, 0, 0};
  return gTimeStatus;
}

TEST_F(AutoWakeup, RunsThatMustNotWakeLeaveTheClockAlone) {
  struct Row {
    int action;
    bool shutdownOption;
    uint32_t interval;
    int time;  // 0: the firmware's time is 10:00:00; 1: it is 24:00:00; 2: GetTime fails
    bool armed;
    std::string trace;  // of a run that leaves the clock alone
  };
  const Row rows[] = {
      {2, false, 120, 0, false, "[AutoWakeup] enable 10:00:00\r\n action |NOT| shutdown\r\n"},
      {2, true, 120, 0, true, ""},
      {1, false, 120, 0, true, ""},
      {1, false, 86401, 0, false, "[AutoWakeup] enable 10:00:00\r\n[AutoWakeup] interval 86401 more than a day, alarm not set\r\n"},
      {1, false, 120, 2, false, "[AutoWakeup] GetTime Device Error, alarm not set\r\n"},
      {1, false, 120, 1, false, "[AutoWakeup] enable 24:00:00\r\n[AutoWakeup] time 24:0:0 out of range, alarm not set\r\n"},
      {2, false, 120, 1, false, "[AutoWakeup] enable 24:00:00\r\n action |NOT| shutdown\r\n"},  // the action first
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.trace);
    Start(10, 0, 0, false, row.action);
    if (row.shutdownOption) ASSERT_TRUE(Options({u"-s"}));
    if (row.time != 0) {
      gTimeStatus = row.time == 2 ? EFI_DEVICE_ERROR : EFI_SUCCESS;
      gRT->GetTime = Hour24;
    }
    EXPECT_EQ(ArmAutoWakeup(row.interval), row.armed);
    EXPECT_EQ(Clock().Alarm().has_value(), row.armed);
    if (!row.armed) EXPECT_TRUE(ioWidths.empty() && Clock().Writes().empty()) << "no port touched";
    if (!row.armed) EXPECT_EQ(Trace(), row.trace);
  }
}

}  // namespace
