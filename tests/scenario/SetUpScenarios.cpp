// Whole runs of the set-up on simulated machines: the first OBLIS calls, a refusal of the
// firmware and of a gate in their exact words, a retried call that gets through, and the image
// file that the [MULTI_FD] rules pick on the machine.
#include <gtest/gtest.h>

#include "SimRun.h"

namespace {

using Order = std::vector<std::string>;

// A run that gets through the set-up tells the firmware its parameters before it looks for the image.
const Order kSetUpAndParameters = {"10h", "1Fh", "11h", "1Eh", "1Ch", "12h", "13h", "19h"};

Order WithoutRepeats(const Order& order) {
  Order result;
  for (const auto& fn : order) {
    if (result.empty() || result.back() != fn) {
      result.push_back(fn);
    }
  }
  return result;
}

Order Concat(Order a, const Order& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

struct Row {
  const char* name;
  const char* machine;
  std::vector<std::string> arguments;
  Order calls;  // with repeated attempts folded into one
  std::vector<std::string> console;
  std::vector<std::string> log;
};

TEST(SetUpScenarios, FirmwareAnswersDecideHowFarTheSetUpGoes) {
  const Order kEnd = {"1Fh", "16h"};
  const std::vector<Row> rows = {
      {"default machine", "", {"-dbg"}, Concat(kSetUpAndParameters, kEnd),
       {"\r\n    Error:\r\n    the FD file not found. ()\r\n\r\n"},
       {"===> Initialize", "<=== Initialize", "===> CallingNecessarySmi",
        "<=== ShellFlashMain (BIOS update failed)"}},
      {"permission refused", R"({"status": {"permission": 0}})", {"-dbg"}, Concat({"10h"}, kEnd),
       {"\r\nError: Update failed!\r\nCurrent system cannot support this version of flash utility.\r\n",
        "\r\nError: Initialize\r\nOBLIS 10h failed.\r\n"},
       {"       Permission | 0\r\n", "<=== Initialize (SMI_IsSupport fail)",
        "<=== ShellFlashMain (Initialize failed)"}},
      {"10h fails twice then answers", R"({"faults": {"10h": {"code": "0x24", "times": 2}}})", {"-dbg"},
       Concat(kSetUpAndParameters, kEnd), {},
       {"Call OBLIS failed. Error Code: 0x24, Retry Count: 01", "Call OBLIS failed. Error Code: 0x24, Retry Count: 02",
        "Call OBLIS success"}},
      {"secure boot without a whole map", R"({"variables": {"SetupMode": true}, "maps": {"whole": []}})", {"-dbg"},
       Concat({"10h", "1Fh", "11h", "1Eh"}, kEnd),
       {"Flash process will be terminated!\r\n\r\nCurrent platform supports secure boot feature,\r\n",
        "        SkipSecureBootProtectionCheck=1\r\n"},
       {"<=== Initialize (Secure Boot Protection check failed)"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    SimRequest request;
    request.machineJson = row.machine;
    request.arguments = row.arguments;
    SimResult result = RunSim(request);
    EXPECT_EQ(result.exitCode, 1) << result.errors;
    if (!row.calls.empty()) {
      EXPECT_EQ(WithoutRepeats(result.FunctionOrder()), row.calls);
    }
    ExpectInOrder(result.console, row.console, "console");
    ExpectInOrder(result.log, row.log, "ZAPROM.Log");
  }
}

// [MULTI_FD] rules beside the tool: the machine's own port and PCI values pick the image file.
TEST(SetUpScenarios, TheFirstMultiImageRuleThatHoldsOnThisMachineNamesTheImage) {
  // A board whose revision port reads 0x02 and whose LPC bridge has the ID A3C8 8086.
  const char* board = R"({"io_ports": {"0xC0": {"value": "0x5AABFE02", "width": 4}},
    "pci": [{"bus": 0, "device": "0x1F", "function": 0, "offset": 0, "value": "0xA3C88086"}]})";
  const struct {
    const char* name;
    const char* rules;
    std::vector<std::string> console, log;
  } rows[] = {
      {"second rule holds", "FD#01=IO,C0,FF,07,board7.fd\r\nFD#02=PCI,0,1F,0,0,FFFFFFFF,A3C88086,lpc.fd\r\n",
       {"Error: Get image platform info failed.\r\n"},
       {"formal ref. configure | ext|\r\n", "formal ref. configure | FD|\r\n", "Legacy |FD| 0x10\r\n"}},
      {"no rule holds", "FD#01=IO,C0,FF,07,board7.fd\r\nFD#02=PCI,0,1F,0,0,FFFF,1234,lpc.fd\r\n",
       {"No match file in Multi-FD.\r\n"}, {"<=== ShellFlashMain (failed)"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    SimRequest request;
    request.machineJson = board;
    request.arguments = {"-dbg"};
    request.volumeFiles = {{"platform.ini", std::string("[MULTI_FD]\r\nFlag=1\r\n") + row.rules},
                           {"lpc.fd", std::string(16, '\xA5')}};
    SimResult result = RunSim(request);
    EXPECT_EQ(result.exitCode, 1) << result.errors;
    ExpectInOrder(result.console, row.console, "console");
    ExpectInOrder(result.log, row.log, "ZAPROM.Log");
  }
}

}  // namespace
