// The CMOS clock model: the index port selects a register (bit 7 is the NMI mask and is not part
// of the number), the data port reads or writes it. Time and date come from the clock in the
// mode status B asks for; the clock itself cannot be set from the tool's side, and a write to a
// time register is only recorded. Registers above 0x0C are not modelled: they read 0xFF.
#include "Rtc.h"

#include <cstdio>

namespace sim {

namespace {

constexpr uint8_t kSeconds = 0x00;
constexpr uint8_t kAlarmSeconds = 0x01;
constexpr uint8_t kMinutes = 0x02;
constexpr uint8_t kAlarmMinutes = 0x03;
constexpr uint8_t kHours = 0x04;
constexpr uint8_t kAlarmHours = 0x05;
constexpr uint8_t kWeekday = 0x06;
constexpr uint8_t kDay = 0x07;
constexpr uint8_t kMonth = 0x08;
constexpr uint8_t kYear = 0x09;

constexpr uint8_t kStatusBHalt = 0x80;
constexpr uint8_t kStatusBAlarmInterrupt = 0x20;
constexpr uint8_t kStatusBBinary = 0x04;
constexpr uint8_t kStatusB24Hour = 0x02;
constexpr uint8_t kHourPm = 0x80;
constexpr uint8_t kIndexMask = 0x7F;
constexpr uint8_t kAbsent = 0xFF;
// Divider on for a 32.768 kHz crystal, 1024 Hz periodic rate: what a firmware leaves behind.
constexpr uint8_t kStatusAStart = 0x26;

// 1 for Sunday to 7 for Saturday, as the clock counts.
uint8_t Weekday(const RtcDateTime& date) {
  static const int offsets[] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
  int year = date.year - (date.month < 3 ? 1 : 0);
  int month = date.month >= 1 && date.month <= 12 ? date.month : 1;
  int day = (year + year / 4 - year / 100 + year / 400 + offsets[month - 1] + date.day) % 7;
  return static_cast<uint8_t>(day + 1);
}

}  // namespace

Rtc::Rtc(const RtcSettings& settings) {
  start_.time = settings.time;
  registers_[kStatusA] = kStatusAStart;
  registers_[kStatusB] = static_cast<uint8_t>(kStatusB24Hour | (settings.binary ? kStatusBBinary : 0));
}

void Rtc::SetClock(std::function<RtcDateTime()> clock) { clock_ = std::move(clock); }

RtcDateTime Rtc::Now() const { return clock_ ? clock_() : start_; }

uint8_t Rtc::Encode(uint8_t value) const {
  if (registers_[kStatusB] & kStatusBBinary) return value;
  return static_cast<uint8_t>(((value / 10) << 4) | (value % 10));
}

uint8_t Rtc::Decode(uint8_t value) const {
  if (registers_[kStatusB] & kStatusBBinary) return value;
  return static_cast<uint8_t>((value >> 4) * 10 + (value & 0x0F));
}

uint8_t Rtc::Peek(uint8_t index) const {
  if (index >= kRegisterCount) return kAbsent;
  const RtcDateTime now = Now();
  switch (index) {
    case kSeconds: return Encode(now.time.second);
    case kMinutes: return Encode(now.time.minute);
    case kHours: {
      if (registers_[kStatusB] & kStatusB24Hour) return Encode(now.time.hour);
      const uint8_t hour12 = now.time.hour % 12 == 0 ? 12 : now.time.hour % 12;
      return static_cast<uint8_t>(Encode(hour12) | (now.time.hour >= 12 ? kHourPm : 0));
    }
    case kWeekday: return Weekday(now);
    case kDay: return Encode(now.day);
    case kMonth: return Encode(now.month);
    case kYear: return Encode(static_cast<uint8_t>(now.year % 100));
    default: return registers_[index];
  }
}

uint8_t Rtc::Read(uint16_t port) {
  // The index port cannot be read back on a PC.
  if (port != kDataPort) return kAbsent;
  const uint8_t value = Peek(index_);
  // Reading status C hands over the pending flags and clears them.
  if (index_ == kStatusC) registers_[kStatusC] = 0;
  return value;
}

void Rtc::Write(uint16_t port, uint8_t value) {
  if (port == kIndexPort) {
    index_ = static_cast<uint8_t>(value & kIndexMask);
    return;
  }
  if (port != kDataPort) return;
  writes_.push_back({index_, value});
  switch (index_) {
    case kAlarmSeconds:
    case kAlarmMinutes:
    case kAlarmHours:
    case kStatusA:
    case kStatusB:
      registers_[index_] = value;
      break;
    default:
      // Time and date follow the clock, status C is read-only, and above 0x0C nothing answers.
      break;
  }
}

const std::vector<RtcWrite>& Rtc::Writes() const { return writes_; }

std::optional<RtcTime> Rtc::Alarm() const {
  const uint8_t statusB = registers_[kStatusB];
  if ((statusB & kStatusBAlarmInterrupt) == 0 || (statusB & kStatusBHalt) != 0) return std::nullopt;
  return RtcTime{Decode(registers_[kAlarmHours]), Decode(registers_[kAlarmMinutes]), Decode(registers_[kAlarmSeconds])};
}

std::string Rtc::WritesSummary() const {
  if (writes_.empty()) return {};
  std::string text = "clock registers written:";
  char item[16];
  for (const RtcWrite& write : writes_) {
    std::snprintf(item, sizeof(item), " %02X=%02X", write.index, write.value);
    text += item;
  }
  if (std::optional<RtcTime> alarm = Alarm()) {
    char when[48];
    std::snprintf(when, sizeof(when), "; alarm armed for %02u:%02u:%02u", alarm->hour, alarm->minute, alarm->second);
    text += when;
  } else {
    text += "; alarm not armed";
  }
  return text;
}

}  // namespace sim
