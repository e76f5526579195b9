// The power check: which tests the options, [AC_Adapter], the vendor and the CommonFlash gate ask
// for, each rule's exact refusal box in white on red, and the wait of the capsule run.
#include <string>
#include <vector>

#include "checks/ChecksBed.h"
#include "frame/Frame.h"

namespace {

using checks::Platform;

const std::string kRule = "#==============================================================================#";
const std::string kEmpty = "#                                                                              #";
const std::string kDellTop = "#===================================== ERROR ==================================#";
const std::string kDellTail = kEmpty + "# Rom update not performed.                                                    #" +
                              "# press any key to exit.                                                       #" + kRule;
const std::string kDellNoAc = kDellTop + "# An External power adapter must be connected.                                 #" + kDellTail;
const std::string kDellNoBattery = kDellTop + "# Battery must be installed.                                                   #" + kDellTail;
const std::string kDellLow = kDellTop + "# Battery capacity too low.                                                    #" + kDellTail;
std::string Toshiba(const std::string& bound) {
  return "#==================================== ERROR ===================================#" + kEmpty +
         "#                         System must plug-in AC cord                          #" +
         "#                and DC capacity should over " + bound + "% during flash BIOS            #" + kEmpty + kRule;
}
const std::string kBothRequires = "# This process requires AC power and a charged battery to avoid an accidental  #";
const std::string kPowerOff = "# power-off during an update.                                                  #";
const std::string kBothNoAc = kRule + "#                       Warning: No AC Connected                               #" + kBothRequires + kPowerOff + kRule;
const std::string kBothNoBattery = kRule + "#                       Warning: No Battery Connected                          #" + kBothRequires + kPowerOff + kRule;
const std::string kBothLow = kRule + "#                       Warning: Battery Too Low                               #" + kBothRequires +
                             "# power-off during an update. Connect the AC adapter and make sure a charged   #" +
                             "# battery is in the computer.                                                  #" + kRule;
const std::string kAcNoAc = kRule + "#                           Warning: No AC Connected                           #" +
                            "# This process requires AC power to avoid an accidental power-off during an    #" +
                            "# update.                                                                      #" + kRule;
const std::string kDuringUpdate = "# during an update.                                                            #";
const std::string kBatteryNone = kRule + "#                        Warning: No Battery Connected                         #" +
                                 "# This process requires a charged battery to avoid an accidental power-off     #" + kDuringUpdate + kRule;
std::string BatteryLow(const std::string& bound) {
  return kRule + "#                           Warning: Battery Too Low                           #" + "# This process requires a " +
         bound + "% full battery to avoid an accidental power-off   #" + kDuringUpdate + kRule;
}
const std::string kShortBanner =
    "\r\n\r\n                Dovrin ZAPROM (Flash Firmware Tool) Version 1.3k\r\n"
    "         Copyright (c) 2026 Dovrin Systems. All rights reserved.\r\n\r\n\r\n";

constexpr uint16_t kGeneral = kVendorNone, kDell = kVendorDell, kToshiba = kVendorToshiba, kLenovo = kVendorLenovo;

std::string Ac(int flag, int batteryCheck, long long bound = 0xFF) {
  return "[AC_Adapter]\nFlag=" + std::to_string(flag) + "\nBatteryCheck=" + std::to_string(batteryCheck) +
         "\nBatteryBound=" + std::to_string(bound) + "\n";
}
Platform Machine(uint16_t vendor, uint8_t ac, uint8_t dc) { return {.vendor = vendor, .ac = ac, .dc = dc}; }

class PowerCheck : public checks::ChecksBed {
 protected:
  void Start(const Platform& p, const std::string& ini, const std::vector<std::u16string>& options) {
    Install(Layout());
    Boot(p);
    Ini(ini);
    ASSERT_TRUE(Options(options));
  }
};

TEST_F(PowerCheck, EachRuleRefusesWithItsExactBoxOrPasses) {
  struct Row {
    const char* what;
    Platform machine;
    std::string ini;
    std::vector<std::u16string> options;
    std::string box;     // empty: the check passes
    std::string reason;  // a line the trace holds
  };
  const std::string on = Ac(1, 0), acIni = "Check AC |enable| (ini)", dcIni = "Check DC |enable| (ini)";
  const Row rows[] = {
      {"AC and full battery", Machine(kGeneral, 1, 100), on, {}, "", acIni},
      {"no AC, Flag 0", Machine(kGeneral, 0, 100), Ac(0, 0), {}, "", "Pwr check\r\n  ---------+--\r\n         AC  0\r\n         DC  0\r\n      Bound  20\r\n"},
      {"no AC, -ac", Machine(kGeneral, 0, 100), on, {u"-ac"}, "", "Check AC |disable| (-ac)"},
      {"-forceit is Dell's only", Machine(kGeneral, 0, 100), on, {u"-forceit"}, kAcNoAc, "Pwr Status (10h)\r\n  ---------+--\r\n         AC  0\r\n         DC  100\r\n"},
      {"-acb: no AC", Machine(kGeneral, 0, 100), on, {u"-acb"}, kBothNoAc, "Check AC |ebable| (-acb)\r\nCheck DC |enable| (-acb)"},
      {"-acb: DC at the bound", Machine(kGeneral, 1, 20), Ac(0, 0), {u"-acb"}, "", ""},
      {"-acb: DC one below", Machine(kGeneral, 1, 19), Ac(0, 0), {u"-acb"}, kBothLow, ""},
      {"-ac -acb: AC 0 passes", Machine(kGeneral, 0, 100), on, {u"-ac", u"-acb"}, "", ""},
      {"-ac -acb: low battery", Machine(kGeneral, 0, 10), on, {u"-ac", u"-acb"}, BatteryLow(" 20"), ""},
      {"-acb -ab", Machine(kGeneral, 0, 100), Ac(0, 0), {u"-acb", u"-ab"}, kBothNoAc, "Check AC |ebable| (-acb)\r\nCheck DC |enable| (-ab)"},
      {"no battery, both tests", Machine(kGeneral, 1, 0x65), Ac(1, 1), {}, kBothNoBattery, acIni + "\r\n" + dcIni},
      {"no battery, battery test", Machine(kGeneral, 1, 0x65), Ac(0, 1), {}, kBatteryNone, ""},
      {"-ab at the firmware's bound", Machine(kGeneral, 0, 20), Ac(0, 0), {u"-ab"}, "", ""},
      {"BatteryBound 30: 30", Machine(kGeneral, 1, 30), Ac(0, 1, 30), {}, "", ""},
      {"BatteryBound 30: 29", Machine(kGeneral, 1, 29), Ac(0, 1, 30), {}, BatteryLow(" 30"), ""},
      {"BatteryBound 5 below the firmware's", Machine(kGeneral, 1, 6), Ac(0, 1, 5), {}, "", ""},
      {"BatteryBound 100", Machine(kGeneral, 1, 99), Ac(0, 1, 100), {}, BatteryLow("100"), ""},
      {"BatteryBound no byte", Machine(kGeneral, 1, 19), Ac(0, 1, 0x11E), {}, BatteryLow(" 20"), " BatteryBound |286| is no byte, take Bound (10h) 20"},
      {"BatteryBound negative", Machine(kGeneral, 1, 19), Ac(0, 1, 4294967295), {}, BatteryLow(" 20"), ""},
      {"DC is an unsigned byte", Machine(kGeneral, 1, 0xC8), Ac(0, 1), {}, "", ""},
      // Lenovo asks NeedAcCheck again, so its reason stands before the Lenovo line.
      {"Lenovo Flag 1", Machine(kLenovo, 1, 10), on, {}, kBothLow, acIni + "\r\n" + acIni + "\r\nCheck DC |enable| (Lenovo)"},
      {"Lenovo -ac", Machine(kLenovo, 0, 10), on, {u"-ac"}, "", ""},
      {"Lenovo Flag 0", Machine(kLenovo, 0, 10), Ac(0, 0), {}, "", ""},
      {"Dell no AC before no battery", Machine(kDell, 0, 0x65), Ac(1, 1), {}, kDellNoAc, "<=== CheckPowerStatus (Dell)"},
      {"Dell no battery", Machine(kDell, 1, 0x65), Ac(1, 1), {}, kDellNoBattery, ""},
      {"Dell low battery", Machine(kDell, 1, 19), on, {u"-ab"}, kDellLow, ""},
      {"Dell at the bound", Machine(kDell, 1, 20), on, {u"-ab"}, "", ""},
      {"Dell -forceit", Machine(kDell, 0, 0x65), Ac(1, 1), {u"-forceit"}, "", "]\r\n -forceit used, skip AC/DC check\r\n<=== CheckPowerStatus (Dell)"},
      {"Toshiba no AC, AC test only", Machine(kToshiba, 0, 100), on, {}, Toshiba(" 20"), acIni + "\r\n Power Status\r\n -------------\r\n  Check AC  1\r\n  Check DC  0\r\n  DC Bound  20\r\n<=== CheckPowerStatus (Toshiba)"},
      {"Toshiba -forceit", Machine(kToshiba, 0, 100), on, {u"-forceit"}, Toshiba(" 20"), ""},
      {"Toshiba no battery", Machine(kToshiba, 1, 0x65), Ac(0, 1), {}, Toshiba(" 20"), ""},
      {"Toshiba low", Machine(kToshiba, 1, 29), Ac(0, 1, 30), {}, Toshiba(" 30"), ""},
      {"Toshiba passes", Machine(kToshiba, 1, 30), Ac(1, 1, 30), {}, "", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Start(row.machine, row.ini, row.options);
    PaintConsole();
    size_t stalls = Environment().StallCalls().size(), log = Log().size();
    EXPECT_EQ(CheckPowerStatus(), row.box.empty());
    // The shell run shows its short banner, the box in white on red, and does not wait.
    EXPECT_EQ(Painted(), row.box.empty() ? "" : kShortBanner + "<4F>" + row.box + "<0F>\r\n");
    EXPECT_EQ(Environment().StallCalls().size(), stalls);
    EXPECT_NE(Log().find(row.reason, log), std::string::npos) << Log().substr(log);
  }
}

TEST_F(PowerCheck, CapsuleRunShowsNoBannerAndWaitsFiveSeconds) {
  // The capsule main sets its run mode; its set-up stops at a refused 10h that kept the power state.
  AnswerSetUp({.ac = 0, .permission = 0});
  ASSERT_FALSE(UefiFlashMain());
  Ini(Ac(1, 0));
  PaintConsole();
  size_t console = Console().size(), stalls = Environment().StallCalls().size();
  EXPECT_FALSE(CheckPowerStatus());
  EXPECT_EQ(Painted().substr(console), "<4F>" + kAcNoAc + "<0F>\r\n");
  const std::vector<uint64_t>& calls = Environment().StallCalls();
  EXPECT_EQ(std::vector<uint64_t>(calls.begin() + stalls, calls.end()), std::vector<uint64_t>(5000, 1000));
}

}  // namespace
