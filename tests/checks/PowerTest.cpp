// The power check: which tests the options, [AC_Adapter], the vendor and the CommonFlash gate ask
// for, the exact refusal box of each vendor rule with its colours, and the wait of the capsule run.
#include <gtest/gtest.h>

#include <string>

#include "checks/Checks.h"
#include "frame/Frame.h"
#include "oblis/FakeFirmware.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"

// The gate is built beside this check; a test that needs it is skipped while it is not linked in.
Bool CommonFlashExchange() __attribute__((weak));

using namespace oblistest;

namespace {

// ---- the boxes, line by line ----
const std::string kRule = "#==============================================================================#";
const std::string kDellTop = "#===================================== ERROR ==================================#";
const std::string kToshibaTop = "#==================================== ERROR ===================================#";
const std::string kEmpty = "#                                                                              #";

const std::string kDellTail = kEmpty + "# Rom update not performed.                                                    #" +
                              "# press any key to exit.                                                       #" + kRule;
const std::string kBoxDellNoAc = kDellTop + "# An External power adapter must be connected.                                 #" + kDellTail;
const std::string kBoxDellNoBattery = kDellTop + "# Battery must be installed.                                                   #" + kDellTail;
const std::string kBoxDellLow = kDellTop + "# Battery capacity too low.                                                    #" + kDellTail;

std::string ToshibaBox(const std::string& bound) {
  return kToshibaTop + kEmpty + "#                         System must plug-in AC cord                          #" +
         "#                and DC capacity should over " + bound + "% during flash BIOS            #" + kEmpty + kRule;
}

const std::string kBothRequires = "# This process requires AC power and a charged battery to avoid an accidental  #";
const std::string kBoxBothNoAc = kRule + "#                       Warning: No AC Connected                               #" +
                                 kBothRequires + "# power-off during an update.                                                  #" + kRule;
const std::string kBoxBothNoBattery = kRule + "#                       Warning: No Battery Connected                          #" +
                                      kBothRequires + "# power-off during an update.                                                  #" + kRule;
const std::string kBoxBothLow = kRule + "#                       Warning: Battery Too Low                               #" +
                                kBothRequires + "# power-off during an update. Connect the AC adapter and make sure a charged   #" +
                                "# battery is in the computer.                                                  #" + kRule;
const std::string kBoxAcNoAc =
    "#==============================================================================##                           Warning: "
    "No AC Connected                           ## This process requires AC power to avoid an accidental power-off during "
    "an    ## update.                                                                      "
    "##==============================================================================#";
const std::string kBoxBatteryNone = kRule + "#                        Warning: No Battery Connected                         #" +
                                    "# This process requires a charged battery to avoid an accidental power-off     #" +
                                    "# during an update.                                                            #" + kRule;
std::string BatteryLowBox(const std::string& bound) {
  return kRule + "#                           Warning: Battery Too Low                           #" + "# This process requires a " +
         bound + "% full battery to avoid an accidental power-off   #" +
         "# during an update.                                                            #" + kRule;
}

const std::string kShortBanner =
    "\r\n\r\n                Dovrin ZAPROM (Flash Firmware Tool) Version 1.3k\r\n"
    "         Copyright (c) 2026 Dovrin Systems. All rights reserved.\r\n\r\n\r\n";

constexpr uint16_t kGeneral = 0x1656;
constexpr uint16_t kDell = 0x1028;
constexpr uint16_t kToshiba = 0x1179;
constexpr uint16_t kLenovo = 0x17AA;
constexpr uint16_t kAcer = 0x1025;

// ---- the console, with the attribute changes in line: "<4F>" ----
std::string* gConsole = nullptr;
EFI_STATUS(EFIAPI* gOutputString)(TextOut*, const CHAR16*) = nullptr;
EFI_STATUS(EFIAPI* gSetAttribute)(TextOut*, UINTN) = nullptr;

EFI_STATUS EFIAPI RecordOutput(TextOut* self, const CHAR16* text) {
  for (const CHAR16* c = text; *c != 0; c++) gConsole->push_back(*c < 0x100 ? (char)*c : '?');
  return gOutputString(self, text);
}

EFI_STATUS EFIAPI RecordAttribute(TextOut* self, UINTN attribute) {
  char marker[8];
  std::snprintf(marker, sizeof(marker), "<%02lX>", (unsigned long)attribute);
  *gConsole += marker;
  return gSetAttribute(self, attribute);
}

// From here on, the console's text and attribute changes go to text as well.
void RecordConsole(std::string& text) {
  gConsole = &text;
  gOutputString = gST->ConOut->OutputString;
  gSetAttribute = gST->ConOut->SetAttribute;
  gST->ConOut->OutputString = RecordOutput;
  gST->ConOut->SetAttribute = RecordAttribute;
}

struct PowerState {
  uint16_t vendor;
  uint8_t ac;
  uint8_t dc;
  uint8_t bound;
};

// Function 10h with the power state in its answer, as the set-up reads it once.
void ReadPowerState(FakeFirmware& fw, const PowerState& state, uint8_t permission = 1) {
  fw.handlers[0x10] = [state, permission](OblisRegisters& r) {
    std::vector<uint8_t> answer(34, 0);
    answer[0] = state.ac;
    answer[1] = state.dc;
    answer[2] = state.bound;
    PutU16(answer, 11, state.vendor);
    answer[29] = 34;
    std::memcpy(At(r.edi), answer.data(), answer.size());
    Answer(r, 0, permission);
  };
  ASSERT_TRUE(InitialSmi());
  SMI_IsSupport();
}

struct Options {
  int flag = 1;
  int batteryCheck = 0;
  int batteryBound = 0xFF;
  bool ab = false, ac = false, acb = false, forceit = false;
};

void Apply(const Options& o) {
  FlashSettings& s = FakeFirmware::MutableSettings();
  s.acAdapter.flag = o.flag;
  s.acAdapter.batteryCheck = o.batteryCheck;
  s.acAdapter.batteryBound = o.batteryBound;
  CommandFlags& f = FakeFirmware::MutableFlags();
  f.ab = o.ab;
  f.ac = o.ac;
  f.acb = o.acb;
  f.forceit = o.forceit;
}

Options Ini(int flag, int batteryCheck, int batteryBound = 0xFF) { return {flag, batteryCheck, batteryBound}; }
Options With(Options o, const std::string& option) {
  if (option == "-ab") o.ab = true;
  if (option == "-ac") o.ac = true;
  if (option == "-acb") o.acb = true;
  if (option == "-forceit") o.forceit = true;
  return o;
}

TEST(PowerCheck, EachRuleRefusesWithItsExactBoxOrPasses) {
  struct Row {
    const char* what;
    PowerState state;
    Options options;
    std::string box;  // empty: the check passes
    const char* rule;
  };
  const Options defaults = Ini(1, 0);
  const Row rows[] = {
      // general rule
      {"AC and full battery pass", {kGeneral, 1, 100, 20}, defaults, "", "formal"},
      {"no AC", {kGeneral, 0, 100, 20}, defaults, kBoxAcNoAc, "formal"},
      {"no AC with Flag 0 passes", {kGeneral, 0, 100, 20}, Ini(0, 0), "", "formal"},
      {"no AC with -ac passes", {kGeneral, 0, 100, 20}, With(defaults, "-ac"), "", "formal"},
      {"-forceit is Dell's only", {kGeneral, 0, 100, 20}, With(defaults, "-forceit"), kBoxAcNoAc, "formal"},
      {"Acer takes the general rule", {kAcer, 0, 100, 20}, defaults, kBoxAcNoAc, "formal"},
      {"-acb: no AC", {kGeneral, 0, 100, 20}, With(defaults, "-acb"), kBoxBothNoAc, "formal"},
      {"-acb: DC at the bound passes", {kGeneral, 1, 20, 20}, With(Ini(0, 0), "-acb"), "", "formal"},
      {"-acb: DC one below the bound", {kGeneral, 1, 19, 20}, With(Ini(0, 0), "-acb"), kBoxBothLow, "formal"},
      {"-ac with -acb: only the battery, AC 0 passes", {kGeneral, 0, 100, 20}, With(With(defaults, "-ac"), "-acb"), "", "formal"},
      {"-ac with -acb: low battery", {kGeneral, 0, 10, 20}, With(With(defaults, "-ac"), "-acb"), BatteryLowBox(" 20"), "formal"},
      {"no battery under BatteryCheck=1, on AC", {kGeneral, 1, 0x65, 20}, Ini(1, 1), kBoxBothNoBattery, "formal"},
      {"no battery, battery test only", {kGeneral, 1, 0x65, 20}, Ini(0, 1), kBoxBatteryNone, "formal"},
      {"-ab with Flag 0: only the battery, AC 0", {kGeneral, 0, 19, 20}, With(Ini(0, 0), "-ab"), BatteryLowBox(" 20"), "formal"},
      {"-ab at the firmware's bound", {kGeneral, 0, 20, 20}, With(Ini(0, 0), "-ab"), "", "formal"},
      {"BatteryBound 30: 30 passes", {kGeneral, 1, 30, 20}, Ini(0, 1, 30), "", "formal"},
      {"BatteryBound 30: 29 refused", {kGeneral, 1, 29, 20}, Ini(0, 1, 30), BatteryLowBox(" 30"), "formal"},
      {"BatteryBound 5 is below the firmware's", {kGeneral, 1, 6, 20}, Ini(0, 1, 5), "", "formal"},
      {"BatteryBound 100", {kGeneral, 1, 99, 20}, Ini(0, 1, 100), BatteryLowBox("100"), "formal"},
      {"BatteryBound no byte: the firmware's", {kGeneral, 1, 19, 20}, Ini(0, 1, 0x11E), BatteryLowBox(" 20"), "formal"},
      {"BatteryBound negative: the firmware's", {kGeneral, 1, 19, 20}, Ini(0, 1, -1), BatteryLowBox(" 20"), "formal"},
      {"DC is an unsigned byte", {kGeneral, 1, 0xC8, 20}, Ini(0, 1), "", "formal"},
      // Lenovo: every AC test brings the battery test
      {"Lenovo Flag=1 tests the battery", {kLenovo, 1, 10, 20}, defaults, kBoxBothLow, "formal"},
      {"Lenovo -ac tests nothing", {kLenovo, 0, 10, 20}, With(defaults, "-ac"), "", "formal"},
      {"Lenovo Flag=0 tests nothing", {kLenovo, 0, 10, 20}, Ini(0, 0), "", "formal"},
      // Dell
      {"Dell no AC", {kDell, 0, 100, 20}, defaults, kBoxDellNoAc, "Dell"},
      {"Dell no AC comes before no battery", {kDell, 0, 0x65, 20}, Ini(1, 1), kBoxDellNoAc, "Dell"},
      {"Dell no battery", {kDell, 1, 0x65, 20}, Ini(1, 1), kBoxDellNoBattery, "Dell"},
      {"Dell low battery", {kDell, 1, 19, 20}, With(defaults, "-ab"), kBoxDellLow, "Dell"},
      {"Dell at the bound", {kDell, 1, 20, 20}, With(defaults, "-ab"), "", "Dell"},
      {"Dell -forceit passes anything", {kDell, 0, 0x65, 20}, With(Ini(1, 1), "-forceit"), "", "Dell"},
      // Toshiba: one box, with the limit, whatever failed
      {"Toshiba no AC, AC test only", {kToshiba, 0, 100, 20}, defaults, ToshibaBox(" 20"), "Toshiba"},
      {"Toshiba -forceit does not pass", {kToshiba, 0, 100, 20}, With(defaults, "-forceit"), ToshibaBox(" 20"), "Toshiba"},
      {"Toshiba no battery", {kToshiba, 1, 0x65, 20}, Ini(0, 1), ToshibaBox(" 20"), "Toshiba"},
      {"Toshiba low against BatteryBound", {kToshiba, 1, 29, 20}, Ini(0, 1, 30), ToshibaBox(" 30"), "Toshiba"},
      {"Toshiba passes", {kToshiba, 1, 30, 20}, Ini(1, 1, 30), "", "Toshiba"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ReadPowerState(fw, row.state);
                Apply(row.options);
                std::string console;
                RecordConsole(console);
                size_t stallsBefore = fw.StallCount();
                EXPECT_EQ(CheckPowerStatus(), row.box.empty());
                // The shell run shows its short banner first, the box in white on red, then
                // returns without waiting.
                EXPECT_EQ(console, row.box.empty() ? "" : kShortBanner + "<4F>" + row.box + "<0F>\r\n");
                EXPECT_EQ(fw.StallCount(), stallsBefore);
                EXPECT_NE(fw.Log().find("<=== CheckPowerStatus (" + std::string(row.rule) + ")\r\n"), std::string::npos);
              }))
        << row.what;
  }
}

TEST(PowerCheck, BoxLinesAreEightyColumnsSoTheyFillTheConsoleWithoutLineBreaks) {
  for (const std::string& box : {kBoxDellNoAc, kBoxDellNoBattery, kBoxDellLow, ToshibaBox(" 20"), kBoxBothNoAc,
                                 kBoxBothNoBattery, kBoxBothLow, kBoxAcNoAc, kBoxBatteryNone, BatteryLowBox(" 20")}) {
    ASSERT_EQ(box.size() % 80, 0u) << box;
    for (size_t at = 0; at < box.size(); at += 80) {
      EXPECT_EQ(box[at], '#');
      EXPECT_EQ(box[at + 79], '#');
    }
    EXPECT_EQ(box.find('\n'), std::string::npos);
  }
}

TEST(PowerCheck, NeedsTraceTheirReasons) {
  struct Row {
    const char* what;
    uint16_t vendor;
    Options options;
    bool needAc, needDc;
    std::string acTrace, dcTrace;
  };
  const Row rows[] = {
      {"ini AC", kGeneral, Ini(1, 0), true, false, "Check AC |enable| (ini)\r\n", ""},
      {"nothing", kGeneral, Ini(0, 0), false, false, "", ""},
      {"-ac", kGeneral, With(Ini(1, 0), "-ac"), false, false, "Check AC |disable| (-ac)\r\n", ""},
      {"-acb", kGeneral, With(Ini(0, 0), "-acb"), true, true, "Check AC |ebable| (-acb)\r\n",
       "Check DC |enable| (-acb)\r\n"},
      {"-ab beats -acb for DC", kGeneral, With(With(Ini(0, 0), "-acb"), "-ab"), true, true,
       "Check AC |ebable| (-acb)\r\n", "Check DC |enable| (-ab)\r\n"},
      {"ini DC", kGeneral, Ini(0, 1), false, true, "", "Check DC |enable| (ini)\r\n"},
      // Lenovo asks NeedAcCheck again, so its reason stands before the Lenovo line.
      {"Lenovo", kLenovo, Ini(1, 0), true, true, "Check AC |enable| (ini)\r\n",
       "Check AC |enable| (ini)\r\nCheck DC |enable| (Lenovo)\r\n"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ReadPowerState(fw, {row.vendor, 1, 100, 20});
                Apply(row.options);
                size_t start = fw.Log().size();
                EXPECT_EQ(NeedAcCheck(), row.needAc);
                EXPECT_EQ(fw.Log().substr(start), row.acTrace);
                start = fw.Log().size();
                EXPECT_EQ(NeedDcCheck(), row.needDc);
                EXPECT_EQ(fw.Log().substr(start), row.dcTrace);
              }))
        << row.what;
  }
}

TEST(PowerCheck, RulesTraceWhatTheyCompared) {
  struct Row {
    uint16_t vendor;
    Options options;
    std::string trace;
  };
  const Row rows[] = {
      {kGeneral, Ini(1, 1, 30),
       "Pwr Status (10h)\r\n  ---------+--\r\n         AC  0\r\n         DC  55\r\n"
       "Check AC |enable| (ini)\r\nCheck DC |enable| (ini)\r\n"
       "Pwr check\r\n  ---------+--\r\n         AC  1\r\n         DC  1\r\n      Bound  30\r\n"},
      {kToshiba, Ini(1, 0),
       "Check AC |enable| (ini)\r\n"
       " Power Status\r\n -------------\r\n  Check AC  1\r\n  Check DC  0\r\n  DC Bound  20\r\n"},
      {kDell, With(Ini(1, 1), "-forceit"), " -forceit used, skip AC/DC check\r\n"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ReadPowerState(fw, {row.vendor, 0, 55, 20});
                Apply(row.options);
                size_t start = fw.Log().size();
                CheckPowerStatus();
                std::string log = fw.Log().substr(start);
                size_t body = log.find("]\r\n");
                size_t end = log.find("<=== CheckPowerStatus");
                ASSERT_NE(body, std::string::npos);
                ASSERT_NE(end, std::string::npos);
                EXPECT_EQ(log.substr(body + 3, end - body - 3), row.trace);
              }))
        << std::hex << row.vendor;
  }
}

TEST(PowerCheck, CapsuleRunShowsNoBannerAndWaitsFiveSeconds) {
  FakeFirmware fw;
  // The capsule main sets its run mode first; its set-up stops at the refused 10h, which has
  // already kept the power state.
  ReadPowerState(fw, {kGeneral, 0, 100, 20}, 0);
  ASSERT_FALSE(UefiFlashMain());
  ASSERT_EQ(GetRunMode(), 1);
  ASSERT_EQ(GetAcStatus(), 0);
  Apply(Ini(1, 0));
  std::string console;
  RecordConsole(console);
  size_t stallsBefore = fw.StallCount();
  EXPECT_FALSE(CheckPowerStatus());
  EXPECT_EQ(console, "<4F>" + kBoxAcNoAc + "<0F>\r\n");
  ASSERT_EQ(fw.StallCount() - stallsBefore, 5000u);
  for (size_t i = stallsBefore; i < fw.StallCount(); i++) ASSERT_EQ(fw.Stalls()[i], 1000u);
}

TEST(PowerCheck, ActiveCommonFlashGateSilencesEveryPowerTest) {
  if (CommonFlashExchange == nullptr) GTEST_SKIP() << "the CommonFlash gate is not linked in";
  FakeFirmware fw;
  ReadPowerState(fw, {kGeneral, 0, 0x65, 20});
  // 44h answers: permit 1, message 0, action 0.
  fw.handlers[0x44] = [](OblisRegisters& r) {
    std::memset(At(r.edi), 0, 6);
    At(r.edi)[0] = 1;
    Answer(r, 0);
  };
  ASSERT_TRUE(CommonFlashExchange());
  ASSERT_TRUE(IsCommonFlashActive());
  Apply(With(With(Ini(1, 1, 50), "-acb"), "-ab"));
  std::string console;
  RecordConsole(console);
  size_t start = fw.Log().size();
  EXPECT_TRUE(CheckPowerStatus());
  EXPECT_EQ(console, "");
  std::string log = fw.Log().substr(start);
  EXPECT_NE(log.find("AC |disable| (take care by 44h)\r\n"), std::string::npos) << log;
  EXPECT_NE(log.find("DC |disable| (take care by 44h)\r\n"), std::string::npos) << log;
}

}  // namespace
