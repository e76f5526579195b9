// Whole runs of the set-up on simulated machines: the first OBLIS calls, the refusals of the
// firmware and of the gates in their exact words, and the final report that every run sends.
#include <gtest/gtest.h>

#include "SimRun.h"

namespace {

using Order = std::vector<std::string>;

const Order kSetUpOrder = {"10h", "1Fh", "11h", "1Eh", "1Ch", "12h", "13h"};
// A run that gets through the set-up tells the firmware its parameters before it looks for the image.
const Order kSetUpAndParameters = {"10h", "1Fh", "11h", "1Eh", "1Ch", "12h", "13h", "19h"};

// Every text must appear in the console, each after the one before it.
void ExpectInOrder(const std::string& text, const std::vector<std::string>& pieces, const std::string& what) {
  size_t at = 0;
  for (const auto& piece : pieces) {
    size_t found = FindFrom(text, piece, at);
    ASSERT_NE(found, std::string::npos) << what << " lacks, in order: [" << piece << "]\n---\n" << text;
    at = found + piece.size();
  }
}

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
      {"10h unsupported", R"({"unsupported": ["10h"]})", {"-dbg"}, Concat({"10h"}, kEnd),
       {"\r\n\r\nError: OBLIS 10h failed.\r\nInternal Error EF\r\n", "Function not supported.",
        "\r\nError: Initialize\r\nOBLIS 10h failed.\r\n"},
       {"Call OBLIS failed. Error Code: 0xEF, Retry Count: 06", "<=== Initialize (SMI_IsSupport fail)"}},
      {"10h fails twice then answers", R"({"faults": {"10h": {"code": "0x24", "times": 2}}})", {"-dbg"},
       Concat(kSetUpAndParameters, kEnd), {},
       {"Call OBLIS failed. Error Code: 0x24, Retry Count: 01", "Call OBLIS failed. Error Code: 0x24, Retry Count: 02",
        "Call OBLIS success"}},
      {"whole map fails without stopping", R"({"faults": {"1Eh": {"code": "0x22"}}})", {"-dbg"},
       Concat(kSetUpAndParameters, kEnd), {"\r\n    Error:\r\n    the FD file not found. ()\r\n\r\n"}, {"(OBLIS fail)"}},
      {"11h fails", R"({"faults": {"11h": {"code": "0x20"}}})", {}, Concat({"10h", "1Fh", "11h"}, kEnd),
       {"Error: OBLIS 11h failed.\r\nInternal Error 20\r\n", "FBTS: Permission is denied by user.",
        "\r\nError: Initialize\r\nOblis 11h failed.\r\n"},
       {}},
      {"12h fails", R"({"faults": {"12h": {"code": "0x22"}}})", {}, Concat({"10h", "1Fh", "11h", "1Eh", "1Ch", "12h"}, kEnd),
       {"FBTS: Unknown platform rom map.", "\r\nError: Initialize\r\nOBLIS 12h failed.\r\n"}, {}},
      {"13h fails", R"({"faults": {"13h": {"code": "0x23"}}})", {}, Concat(kSetUpOrder, kEnd),
       {"FBTS: Unknown flash part information.", "\r\nError: Initialize\r\nOBLIS 13h failed.\r\n"}, {}},
      {"stolen machine", R"({"anti_theft": "0x81"})", {}, Concat({"10h", "1Fh", "11h", "1Eh", "1Ch"}, kEnd),
       {"The system is in stolen mode. BIOS update is aborted!\r\n", "\r\nError: Initialize\r\nOBLIS 1Ch failed.\r\n"},
       {}},
      {"secure boot without a whole map", R"({"variables": {"SetupMode": true}, "maps": {"whole": []}})", {"-dbg"},
       Concat({"10h", "1Fh", "11h", "1Eh"}, kEnd),
       {"Flash process will be terminated!\r\n\r\nCurrent platform supports secure boot feature,\r\n",
        "        SkipSecureBootProtectionCheck=1\r\n"},
       {"<=== Initialize (Secure Boot Protection check failed)"}},
      {"acer firmware behind the neutral vendor number", R"({"acpi": {"dsdt_oem_id": "ACRSYS"}})", {"-dbg"},
       Concat(kSetUpAndParameters, kEnd), {}, {"acer signature found.\r\n", "Revise vendor ID to |0x1025| Acer\r\n"}},
      {"no OBLIS signature in the BIOS area", R"({"oblis": {"signature": false}})", {"-dbg"}, {}, {"Internal Error EF"},
       {" OBLIS signature not found.\r\n Using default value 0xEF for SMI main function number.\r\n"}},
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

TEST(SetUpScenarios, HookPointsAndFinalReportFrameTheRun) {
  // A bare run ends with the help, whose pager waits for keys.
  SimRequest bare;
  bare.keys = "  ";
  SimResult result = RunSim(bare);
  ASSERT_GE(result.calls.size(), 3u);
  // Hook point 1 right after 10h, hook point 0 and the final report at the very end.
  EXPECT_EQ(result.calls[1].fn, "1Fh");
  EXPECT_EQ(result.calls[1].in["ecx"], 1);
  const SmiCall& hook = result.calls[result.calls.size() - 2];
  const SmiCall& report = result.calls.back();
  EXPECT_EQ(hook.fn, "1Fh");
  EXPECT_EQ(hook.in["ecx"], 0);
  // A run that stopped before any finish state was set reports "Do Nothing": CL 0, CH 0.
  EXPECT_EQ(report.fn, "16h");
  EXPECT_EQ(report.in["ecx"].get<uint32_t>() & 0xFFFF, 0u);
  // Every call carries the caller's signature and the command port of the FADT.
  for (const auto& call : result.calls) {
    EXPECT_EQ(call.in["ebx"], 0x24445652) << call.fn;
    EXPECT_EQ(call.in["edx"].get<uint32_t>() & 0xFFFF, 0xB2u) << call.fn;
  }
}

TEST(SetUpScenarios, RunWithTheLogOffDeletesTheOldLog) {
  SimRequest request;
  request.volumeFiles = {{"ZAPROM.Log", "a log of an earlier run\r\n"}};
  request.keys = "  ";  // for the pager of the help that a bare run ends with
  SimResult result = RunSim(request);
  EXPECT_FALSE(result.logExists) << result.log;
}

TEST(SetUpScenarios, BadUseOfTheFrontEndExitsWithTwo) {
  SimRequest unknownKey;
  unknownKey.machineJson = R"({"status": {"permisson": 1}})";
  SimResult result = RunSim(unknownKey);
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_NE(result.errors.find("permisson"), std::string::npos) << result.errors;
  EXPECT_TRUE(result.calls.empty());
}

}  // namespace
