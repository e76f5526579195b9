// The machine's battery-backed CMOS clock behind the index port 0x70 and the data port 0x71:
// registers 0x00 to 0x0C, with the time of day read from a clock the front end hands in and the
// alarm, status and control registers kept as the tool writes them. What the tool wrote is kept
// in order, so that a test can tell an alarm set from a register touched that must not be.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace sim {

struct RtcTime {
  uint8_t hour = 0;
  uint8_t minute = 0;
  uint8_t second = 0;
  bool operator==(const RtcTime&) const = default;
};

struct RtcDateTime {
  uint16_t year = 2026;
  uint8_t month = 11;
  uint8_t day = 23;
  RtcTime time{10, 0, 0};
  bool operator==(const RtcDateTime&) const = default;
};

// The clock as a machine describes it (key "rtc").
struct RtcSettings {
  bool binary = false;          // status B bit 2 at power-on: binary values; false: BCD
  RtcTime time{10, 0, 0};       // time of day at the start of the run
  bool operator==(const RtcSettings&) const = default;
};

// One write through the data port: the register the index port selected, and the value.
struct RtcWrite {
  uint8_t index = 0;
  uint8_t value = 0;
  bool operator==(const RtcWrite&) const = default;
};

class Rtc {
 public:
  static constexpr uint16_t kIndexPort = 0x70;
  static constexpr uint16_t kDataPort = 0x71;
  static constexpr uint8_t kRegisterCount = 0x0D;  // 0x00 to 0x0C
  static constexpr uint8_t kStatusA = 0x0A;
  static constexpr uint8_t kStatusB = 0x0B;
  static constexpr uint8_t kStatusC = 0x0C;

  explicit Rtc(const RtcSettings& settings);

  static bool Owns(uint16_t port) { return port == kIndexPort || port == kDataPort; }
  // The time registers follow this clock; without one they hold the start the machine gave.
  void SetClock(std::function<RtcDateTime()> clock);

  uint8_t Read(uint16_t port);
  void Write(uint16_t port, uint8_t value);

  // Every write through the data port, in order, whichever register it reached.
  const std::vector<RtcWrite>& Writes() const;
  // A register as the tool would read it now, without the side effect of reading status C.
  uint8_t Peek(uint8_t index) const;
  // The alarm time when the alarm interrupt is on (status B bit 5) and updates run (bit 7
  // clear), decoded as status B's bit 2 says; none otherwise.
  std::optional<RtcTime> Alarm() const;
  // "clock registers written: 0B=82 01=00 03=01 05=00 0B=22; alarm armed for 00:01:00", or
  // empty when the tool wrote nothing to the clock.
  std::string WritesSummary() const;

 private:
  RtcDateTime Now() const;
  uint8_t Encode(uint8_t value) const;
  uint8_t Decode(uint8_t value) const;

  std::function<RtcDateTime()> clock_;
  RtcDateTime start_;
  uint8_t index_ = 0;
  uint8_t registers_[kRegisterCount] = {};
  std::vector<RtcWrite> writes_;
};

}  // namespace sim
