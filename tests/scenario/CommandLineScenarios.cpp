// Whole runs through the front end that end at the command line, the firmware's filter, the
// query test or the help: what the user sees, in which order, and which OBLIS calls ran first.
#include <gtest/gtest.h>

#include "SimRun.h"

namespace {

using Order = std::vector<std::string>;

const Order kSetUp = {"10h", "1Fh", "11h", "1Eh", "1Ch", "12h", "13h"};
const std::string kLongBanner = "Dovrin ZAPROM (Flash Firmware Tool) Version 1.3k.00";
const std::string kShortBanner = "Dovrin ZAPROM (Flash Firmware Tool) Version 1.3k\r\n";
const std::string kUsageLine = "Usage: ZAPROM-S.exe filename [Option]";

Order WithoutRepeats(const Order& order) {
  Order result;
  for (const auto& fn : order) {
    if (result.empty() || result.back() != fn) result.push_back(fn);
  }
  return result;
}

Order Concat(Order a, const Order& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST(CommandLineScenarios, OptionsDecideWhereTheRunEnds) {
  struct Row {
    const char* name;
    std::string machine;
    std::vector<std::string> arguments;
    std::string keys;
    int exitCode;
    Order calls;                        // with repeated attempts folded into one
    std::vector<std::string> console;   // in this order
    std::vector<std::string> absent;
    std::string closing;                // the last trace line of ShellFlashMain
  };
  const Order kEnd = {"1Fh", "16h"};
  const std::vector<Row> rows = {
      {"no options: help after the set-up", "", {}, "  ", 0, Concat(kSetUp, kEnd),
       {kLongBanner, kUsageLine, "Press a key to continue", "-VRT:Times"}, {"Error"}, ""},
      {"-h is a query with the short banner", "", {"BIOS.fd", "-h", "-dbg"}, "  ", 0, Concat(kSetUp, kEnd),
       {kShortBanner, kUsageLine, "-H                This flash utility help."}, {kLongBanner},
       "<=== ShellFlashMain (Query command)"},
      {"-g and -pq: the query order differs from the test", "", {"-g", "-pq", "-dbg"}, "", 0, Concat(kSetUp, kEnd),
       {kShortBanner, "                Protection Region MAP\r\n"}, {"Read current ROM start!"},
       "<=== ShellFlashMain (Query command)"},
      // The command line is judged before the SMI port is known, so not even the final report goes out.
      {"invalid option after the long banner", "", {"BIOS.fd", "-xyz", "-dbg"}, "", 1, {},
       {kLongBanner, "Error command: -xyz (Invalid command)\r\n"}, {kUsageLine},
       "<=== ShellFlashMain (Argument check failed)"},
      {"-eob with -ecb", "", {"BIOS.fd", "-eob", "-ecb", "-dbg"}, "", 1, Concat(kSetUp, kEnd),
       {kShortBanner, "Warning!\r\nThe command /ecbp and /eob mutually exclusive\r\n\r\n"}, {},
       "<=== ShellFlashMain (Command failed)"},
      {"-eob with -ecb and -g is a query", "", {"-eob", "-ecb", "-g", "-dbg"}, "", 0, Concat(kSetUp, kEnd),
       {kShortBanner, "\r\nError: No file name input!\r\n"}, {"mutually exclusive", "Read current ROM start!"},
       "<=== ShellFlashMain (Query command)"},
      {"-alp without the firmware's leave", "", {"BIOS.fd", "-alp", "-dbg"}, "", 1, Concat(kSetUp, kEnd),
       {kLongBanner, "Error command: -alp (Invalid command)\r\n"}, {}, "<=== ShellFlashMain (Not support alp command)"},
      {"filter forbids -bios", R"({"status": {"filter": [255, 255, 254, 255, 255, 255, 255, 255]}})",
       {"BIOS.fd", "-r", "/BIOS", "-dbg"}, "", 1, Concat(kSetUp, kEnd),
       {kLongBanner, "Error command: /BIOS (Not supports on current platform)\r\n\r\n"}, {},
       "<=== ShellFlashMain (Argument check with command filter failed)"},
      {"empty filter hides the whole usage", R"({"status": {"filter": []}})", {"-h"}, "", 1, Concat(kSetUp, kEnd),
       {kLongBanner, "Error command: -h (Not supports on current platform)"}, {kUsageLine}, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    SimRequest request;
    request.machineJson = row.machine;
    request.arguments = row.arguments;
    request.keys = row.keys;
    SimResult result = RunSim(request);
    EXPECT_EQ(result.exitCode, row.exitCode) << result.errors << "\n" << result.console;
    EXPECT_EQ(WithoutRepeats(result.FunctionOrder()), row.calls);
    size_t at = 0;
    for (const auto& piece : row.console) {
      size_t found = FindFrom(result.console, piece, at);
      ASSERT_NE(found, std::string::npos) << "lacks, in order: [" << piece << "]\n---\n" << result.console;
      at = found + piece.size();
    }
    for (const auto& piece : row.absent) {
      EXPECT_EQ(result.console.find(piece), std::string::npos) << piece << "\n---\n" << result.console;
    }
    if (!row.closing.empty()) {
      EXPECT_NE(result.log.find(row.closing), std::string::npos) << result.log;
    }
  }
}

TEST(CommandLineScenarios, FirmwareLeaveLetsAlpPastItsRow) {
  SimRequest request;
  request.machineJson = R"({"info": {"policy": "0x80", "extended": 1}})";
  request.arguments = {"BIOS.fd", "-alp", "-dbg"};
  SimResult result = RunSim(request);
  EXPECT_EQ(result.console.find("Error command: -alp"), std::string::npos) << result.console;
  EXPECT_EQ(result.log.find("Not support alp command"), std::string::npos) << result.log;
  EXPECT_NE(result.log.find("Command -alp\r\n"), std::string::npos) << result.log;
}

}  // namespace
