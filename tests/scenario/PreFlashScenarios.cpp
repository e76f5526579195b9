// Whole shell runs that the firmware conversation decides before the first block: the CommonFlash
// gate with the blocks the firmware receives and its refusals, the 19h word list on the wire, the
// -u question, and the wake-up alarm after a shutdown run. Every refusal leaves the flash as it
// was and makes no 15h call.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "SimRun.h"

namespace {

// The default content with one DXE block changed and a newer version in its BVDT.
Bytes NewImage() {
  static Bytes image;
  if (image.empty()) {
    image = DefaultFlash();
    image[kDxeByte] ^= 0x5A;
    const std::string version = "V1.03";
    std::copy(version.begin(), version.end(), image.begin() + kDefaultBvdt + 0x0E);
  }
  return image;
}

SimResult RunNew(const std::string& machine, std::vector<std::string> options, const std::string& ini = "",
             const std::string& keys = "") {
  return RunTool(machine, DefaultFlash(), NewImage(), options, ini, keys);
}

bool FlashUnchanged(const SimResult& result) { return result.flash == DefaultFlash(); }
bool FlashUpdated(const SimResult& result) { return result.flash[kDxeByte] == NewImage()[kDxeByte]; }

std::string Hex(const std::string& text) {
  std::string out;
  char pair[4];
  for (unsigned char c : text) {
    std::snprintf(pair, sizeof(pair), out.empty() ? "%02X" : " %02X", c);
    out += pair;
  }
  return out;
}
std::string Join(std::initializer_list<std::string> parts) {
  std::string all;
  for (const std::string& p : parts) {
    if (p.empty()) continue;
    all += (all.empty() ? "" : " ") + p;
  }
  return all;
}

// ---- CommonFlash ----

const std::string kOnBatteryBelowLimit = R"("status": {"ac": 0, "dc": 10, "bound": 20})";

std::string CommonFlashMachine(int permit, int message, int action, const std::string& status = kOnBatteryBelowLimit) {
  return "{" + status + R"(, "common_flash": {"permit": )" + std::to_string(permit) +
         R"(, "message": )" + std::to_string(message) + R"(, "action": )" + std::to_string(action) + "}}";
}

TEST(PreFlashScenarios, CommonFlashBlocksOnTheWire) {
  const std::string current = Join({"04", Hex("V1.02"), "FF"});
  const std::string currentModel = Join({"06", Hex("DV-REF1000"), "FF"});
  struct Row {
    const char* what;
    std::string status;
    std::string ini;  // below the [CommonFlash] header
    std::string information;
    std::string switches;
  };
  const std::vector<Row> rows = {
      {"words cut at blanks and tabs", kOnBatteryBelowLimit, "SwitchString=PTEN  ACDIS\tFHST\r\n",
       Join({"01 00 FF 02 01 FF 03 0A FF", current, "05 FF", currentModel, "07 FF"}),
       Join({Hex("PTEN"), "00", Hex("ACDIS"), "00", Hex("FHST"), "00 FF"})},
      {"[Platform_Check] Flag 2 supplies the new model and version", R"("status": {"ac": 1, "dc": 50})",
       "[Platform_Check]\r\nFlag=2\r\nPlatformName1=NB-7\r\nPlatformName2=DV-REF1000\r\n"
       "[PlatformVersion]\r\nFlag=1\r\nVersion1=A1.00\r\nVersion2=V7.77\r\n",
       Join({"01 01 FF 02 01 FF 03 32 FF", current, "05", Hex("DV-REF1000"), "FF", currentModel, "07", Hex("V7.77"),
             "FF"}),
       "FF"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    // A refusal ends the run before the image is read: the blocks are all that matters here.
    SimResult result = RunNew(CommonFlashMachine(0, 0x14, 0, row.status), {}, "[CommonFlash]\r\n" + row.ini);
    EXPECT_EQ(result.exitCode, 1) << result.errors;
    EXPECT_EQ(result.console.find("#==="), std::string::npos) << "the gate has taken the power check over";
    EXPECT_EQ(Count(result, "15h"), 0u);
    const SmiCall* call = First(result, "44h");
    ASSERT_NE(call, nullptr);
    EXPECT_EQ(call->in["ecx"], 0);
    EXPECT_EQ(call->record["received"]["information"], row.information);
    EXPECT_EQ(call->record["received"]["switches"], row.switches);
    EXPECT_TRUE(FlashUnchanged(result));
  }
}

// ---- 19h ----

TEST(PreFlashScenarios, OemParameterListOnTheWire) {
  struct Row {
    const char* what;
    std::vector<std::string> options;
    std::string list;
  };
  const std::vector<Row> rows = {
      {"no option", {}, "00 FF"},
      {"-OemCus words come first, in capitals", {"-OemCus", "cus1", "-mfg", "-ec"},
       Join({Hex("CUS1"), "00", Hex("ECCMD"), "00", Hex("MFG"), "00 FF"})},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::vector<std::string> options = row.options;
    options.insert(options.end(), {"-u", "-dbg"});
    SimResult result = RunNew(R"({"oem_parameters": {"answer": ["ODM1", "x"]}})", options, "", "n");
    const SmiCall* call = First(result, "19h");
    ASSERT_NE(call, nullptr);
    EXPECT_EQ(Count(result, "19h"), 1u);
    EXPECT_EQ(call->record["received"]["cl"], 1);
    EXPECT_EQ(call->record["received"]["list"], row.list);
    EXPECT_NE(result.log.find("OEM/ODM customization-1 (19h)\r\n-----+-----------------\r\n      ODM1\r\n      x\r\n"),
              std::string::npos)
        << result.log;
    EXPECT_TRUE(FlashUnchanged(result));
  }
}

// ---- -u ----

TEST(PreFlashScenarios, ConfirmFlashAsksBeforeTheFirstBlock) {
  const std::string question = "\r\n                Dangerous! Do you want to flash BIOS? (Y/N)\r\n";
  const std::string exitByUser = "\r\n                Exit by user.\r\n";
  struct Row {
    const char* what;
    std::string keys;
    bool written;
  };
  const std::vector<Row> rows = {
      {"'y' flashes", "y", true},
      {"'n' ends the run", "n", false},
      {"ESC ends the run", "{ESC}", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    SimResult result = RunNew("", {"-u"}, "", row.keys);
    const size_t asked = result.console.find(question);
    ASSERT_NE(asked, std::string::npos) << result.console;
    EXPECT_NE(result.console.rfind("New     BIOS Version: V1.03\r\n\r\n\r\n", asked), std::string::npos)
        << "the question follows the version display";
    if (row.written) {
      EXPECT_EQ(result.exitCode, 0) << result.errors;
      EXPECT_EQ(result.console.find(exitByUser), std::string::npos);
      EXPECT_TRUE(FlashUpdated(result));
      EXPECT_GT(Count(result, "15h"), 0u);
    } else {
      EXPECT_EQ(result.exitCode, 1) << result.errors;
      EXPECT_EQ(result.console.substr(asked), question + exitByUser + "\n" + kNothingWritten);
      EXPECT_EQ(Count(result, "15h"), 0u);
      EXPECT_EQ(Count(result, "1Ah"), 0u) << "the firmware hears of no update";
      EXPECT_TRUE(FlashUnchanged(result));
    }
  }
}

// ---- auto wakeup ----

// The alarm's registers are the unit tests' business; here only which whole runs arm it.
TEST(PreFlashScenarios, WakeupAlarmFollowsAShutdownRunOnly) {
  const std::string ini = "[AutoWakeup]\r\nFlag=1\r\ninterval=120\r\n";
  struct Row {
    const char* what;
    std::vector<std::string> options;
    std::string ini;
    std::string armed;  // the simulator's clock line; empty: the clock stays untouched
  } rows[] = {
      {"-s", {"-s"}, ini, "05=10 0B=22; alarm armed for 10:02:00\n"},
      {"[FlashComplete] Action 1", {}, ini + "[FlashComplete]\r\nAction=1\r\n", "alarm armed for 10:02:00\n"},
      {"reboot: the clock is left alone", {}, ini, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    // The firmware answers 1Bh, so the walk over the image costs no retry delays.
    SimResult result = RunNew(R"({"module_check": {"status": 0}, "rtc": {"time": "10:00:00"}})", row.options, row.ini);
    EXPECT_EQ(result.exitCode, 0) << result.console << result.errors;
    EXPECT_TRUE(FlashUpdated(result));
    const size_t line = result.console.find("zaprom-sim: clock registers written:");
    EXPECT_EQ(line != std::string::npos, !row.armed.empty()) << result.console;
    if (!row.armed.empty()) EXPECT_NE(result.console.find(row.armed, line), std::string::npos) << result.console;
  }
}

}  // namespace
