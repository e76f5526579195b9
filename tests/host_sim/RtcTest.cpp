// The CMOS clock behind ports 0x70 and 0x71: time registers in BCD or binary as status B says,
// the alarm registers as written, status C cleared by reading, every write recorded, and the
// "rtc" machine keys.
#include <gtest/gtest.h>

#include "simulator/Simulator.h"

namespace {

sim::Simulator MakeSimulator(const std::string& json) {
  sim::Machine machine = sim::DefaultMachine();
  std::string error;
  EXPECT_TRUE(sim::ParseMachine(json, machine, error)) << error;
  return sim::Simulator(machine, {}, {});
}

uint8_t ReadRegister(sim::Simulator& s, uint8_t index) {
  s.IoWrite8(0x70, index);
  return static_cast<uint8_t>(s.IoRead(0x71, 1));
}

void WriteRegister(sim::Simulator& s, uint8_t index, uint8_t value) {
  s.IoWrite8(0x70, index);
  s.IoWrite8(0x71, value);
}

TEST(Rtc, TimeRegistersFollowTheModeOfStatusB) {
  struct Row {
    const char* json;
    uint8_t statusB, hours, minutes, seconds;
  };
  const Row rows[] = {
      {R"({"rtc": {"time": "23:59:58"}})", 0x02, 0x23, 0x59, 0x58},
      {R"({"rtc": {"time": "23:59:58", "binary": true}})", 0x06, 23, 59, 58},
      {R"({})", 0x02, 0x10, 0x00, 0x00},
  };
  for (const Row& row : rows) {
    sim::Simulator s = MakeSimulator(row.json);
    EXPECT_EQ(ReadRegister(s, 0x0B), row.statusB) << row.json;
    EXPECT_EQ(ReadRegister(s, 0x04), row.hours) << row.json;
    EXPECT_EQ(ReadRegister(s, 0x02), row.minutes) << row.json;
    EXPECT_EQ(ReadRegister(s, 0x00), row.seconds) << row.json;
  }
}

TEST(Rtc, TimeFollowsTheClockTheFrontEndHandsIn) {
  sim::Simulator s = MakeSimulator(R"({"rtc": {"binary": true}})");
  sim::RtcDateTime now{2027, 2, 28, {13, 5, 9}};
  s.RealTimeClock().SetClock([&now] { return now; });
  EXPECT_EQ(ReadRegister(s, 0x04), 13);
  now.time.second = 10;
  EXPECT_EQ(ReadRegister(s, 0x00), 10);
  EXPECT_EQ(ReadRegister(s, 0x09), 27);
  EXPECT_EQ(ReadRegister(s, 0x08), 2);
  EXPECT_EQ(ReadRegister(s, 0x06), 1) << "28 February 2027 is a Sunday";
  // 12-hour mode: 13:05 reads as 1 with the PM bit.
  WriteRegister(s, 0x0B, 0x04);
  EXPECT_EQ(ReadRegister(s, 0x04), 0x81);
}

TEST(Rtc, AlarmIsArmedOnlyWithTheInterruptOnAndUpdatesRunning) {
  sim::Simulator s = MakeSimulator(R"({})");
  sim::Rtc& rtc = s.RealTimeClock();
  EXPECT_FALSE(rtc.Alarm());
  EXPECT_EQ(rtc.WritesSummary(), "");
  WriteRegister(s, 0x0B, 0x82);
  WriteRegister(s, 0x01, 0x59);
  WriteRegister(s, 0x03, 0x01);
  WriteRegister(s, 0x05, 0x23);
  EXPECT_FALSE(rtc.Alarm()) << "halted clock";
  WriteRegister(s, 0x0B, 0x22);
  ASSERT_TRUE(rtc.Alarm());
  EXPECT_EQ(*rtc.Alarm(), (sim::RtcTime{23, 1, 59}));
  EXPECT_EQ(rtc.WritesSummary(),
            "clock registers written: 0B=82 01=59 03=01 05=23 0B=22; alarm armed for 23:01:59");
  EXPECT_EQ(ReadRegister(s, 0x01), 0x59);
  WriteRegister(s, 0x0B, 0x02);
  EXPECT_FALSE(rtc.Alarm());
  EXPECT_NE(rtc.WritesSummary().find("; alarm not armed"), std::string::npos);
}

TEST(Rtc, PortsBehaveAsOnAPc) {
  sim::Simulator s = MakeSimulator(R"({"rtc": {"time": "08:07:06"}})");
  // Bit 7 of the index masks the NMI and does not select another register.
  s.IoWrite8(0x70, 0x80 | 0x02);
  EXPECT_EQ(s.IoRead(0x71, 1), 0x07u);
  EXPECT_EQ(s.IoRead(0x70, 1), 0xFFu) << "the index port reads nothing back";
  EXPECT_EQ(ReadRegister(s, 0x0D), 0xFF) << "beyond the modelled registers";
  EXPECT_EQ(ReadRegister(s, 0x0C), 0x00);
  // Time registers cannot be set from the tool's side, but the write is recorded.
  WriteRegister(s, 0x00, 0x33);
  EXPECT_EQ(ReadRegister(s, 0x00), 0x06);
  ASSERT_EQ(s.RealTimeClock().Writes().size(), 1u);
  EXPECT_EQ(s.RealTimeClock().Writes()[0], (sim::RtcWrite{0x00, 0x33}));
  // Other ports still read as the machine describes them.
  EXPECT_EQ(s.IoRead(0x72, 1), 0xFFu);
}

TEST(Rtc, BadClockKeysAreRefusedNamingTheKey) {
  struct Row {
    const char* json;
    const char* error;
  };
  const Row rows[] = {
      {R"({"rtc": {"time": "24:00:00"}})", "rtc.time: expected a time of day"},
      {R"({"rtc": {"time": "7:00:00"}})", "rtc.time: expected a time of day"},
      {R"({"rtc": {"time": "07:60:00"}})", "rtc.time: expected a time of day"},
      {R"({"rtc": {"time": "07:00:0x"}})", "rtc.time: expected a time of day"},
      {R"({"rtc": {"binary": 1}})", "rtc.binary: expected true or false"},
      {R"({"rtc": {"bcd": true}})", "unknown key 'rtc.bcd'"},
  };
  for (const Row& row : rows) {
    sim::Machine machine = sim::DefaultMachine();
    std::string error;
    EXPECT_FALSE(sim::ParseMachine(row.json, machine, error)) << row.json;
    EXPECT_EQ(error.rfind(row.error, 0), 0u) << row.json << " gave " << error;
  }
}

}  // namespace
