// The set-up steps and the mains against a simulated firmware: the order of the OBLIS calls,
// what the user sees when a step fails, and how ZAPROM.Log closes the traces.
#include <algorithm>
#include <string>
#include <vector>

#include "frame/FrameInternal.h"
#include "output/Output.h"
#include "support/DriverBed.h"

namespace {

// A driver loaded on a simulated machine (machine: JSON, empty the default) with its log on, as
// a shell host with "-dbg" leaves it.
class RunSequence : public bed::DriverBed {
 protected:
  void SetUp() override {}
  void Run(const std::string& machine) {
    bed::BedSetup setup;
    setup.machineJson = machine;
    setup.log = false;
    Install(setup);
    StartDriver();
    ScanArguments({u"ZAPROM.efi", u"-dbg"});
  }
};

// Whether the parts stand in the text in this order.
bool InOrder(const std::string& text, const std::vector<std::string>& parts) {
  size_t at = 0;
  for (const std::string& part : parts) at = at == std::string::npos ? at : text.find(part, at);
  return at != std::string::npos;
}

TEST_F(RunSequence, SetUpCallsTheFirmwareInItsOrderAndASecondSetUpKeepsItsBlocks) {
  Run("");
  ASSERT_TRUE(Initialize());
  EXPECT_EQ(Simulator().HookPoints(), (std::vector<uint32_t>{1}));
  UINT8* work = GetImageWorkBuffer();
  UINT8* ec = GetEcBuffer();
  ASSERT_TRUE(CallingNecessarySmi());
  EXPECT_EQ(Simulator().CallLog(), (std::vector<uint8_t>{0x10, 0x1F, 0x11, 0x1E, 0x1C, 0x12, 0x13}));
  EXPECT_TRUE(InOrder(Log(), {"===> Initialize [", "<=== Initialize\r\n", "===> CallingNecessarySmi [", "<=== CallingNecessarySmi\r\n"}));
  EXPECT_EQ(Console(), "");
  ASSERT_TRUE(Initialize());
  EXPECT_TRUE(work != nullptr && GetImageWorkBuffer() == work && ec != nullptr && GetEcBuffer() == ec);
  FreeResource();
  EXPECT_TRUE(GetImageWorkBuffer() == nullptr && GetEcBuffer() == nullptr);
}

TEST_F(RunSequence, FailingSetUpStepStopsWithItsMessageAndReasonAfterGivingItsBlocksBack) {
  struct Row {
    const char* what;
    std::string machine;
    std::vector<std::string> console;  // in this order
    std::string closing;               // after FreeResource has closed
    size_t calls;                      // OBLIS functions called, of 10h 1Fh 11h 1Eh 1Ch 12h 13h
  } rows[] = {
      {"10h unsupported", R"({"unsupported": ["10h"]})",
       {"Internal Error EF", "Function not supported.", "\r\nError: Initialize\r\nOBLIS 10h failed.\r\n"},
       "<=== Initialize (SMI_IsSupport fail)\r\n", 1},
      {"permission refused", R"({"status": {"permission": 0}})",
       {"Current system cannot support this version of flash utility.\r\n", "\r\nError: Initialize\r\nOBLIS 10h failed.\r\n"},
       "<=== Initialize (SMI_IsSupport fail)\r\n", 1},
      {"11h unsupported", R"({"unsupported": ["11h"]})",
       {"\r\nError: Initialize\r\nOblis 11h failed.\r\n"}, "<=== Initialize (Get platform information failed)\r\n", 3},
      {"stolen", R"({"anti_theft": "0x81"})",
       {"The system is in stolen mode. BIOS update is aborted!\r\n", "\r\nError: Initialize\r\nOBLIS 1Ch failed.\r\n"},
       "<=== Initialize (Get ATp information failed)\r\n", 5},
      {"12h unsupported", R"({"unsupported": ["12h"]})",
       {"\r\nError: Initialize\r\nOBLIS 12h failed.\r\n"}, "<=== CallingNecessarySmi (Get platform ROM map failed)\r\n", 6},
      {"13h unsupported", R"({"unsupported": ["13h"]})",
       {"\r\nError: Initialize\r\nOBLIS 13h failed.\r\n"},
       "<=== CallingNecessarySmi (Get flash part information failed)\r\n", 7},
      {"whole ROM map and hook point unsupported stop nothing",
       R"({"unsupported": ["1Eh", "1Fh"]})", {}, "<=== CallingNecessarySmi\r\n", 7},
  };
  const std::vector<uint8_t> order = {0x10, 0x1F, 0x11, 0x1E, 0x1C, 0x12, 0x13};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Run(row.machine);
    bool setUp = Initialize() && CallingNecessarySmi();
    EXPECT_EQ(setUp, row.console.empty());
    EXPECT_TRUE(InOrder(Console(), row.console)) << Console();
    EXPECT_TRUE(InOrder(Log(), {setUp ? "" : "<=== FreeResource\r\n", row.closing})) << Log();
    EXPECT_EQ(GetImageWorkBuffer() != nullptr, setUp);
    std::vector<uint8_t> called = Simulator().CallLog();  // a retried call counts once
    called.erase(std::unique(called.begin(), called.end()), called.end());
    EXPECT_EQ(called, std::vector<uint8_t>(order.begin(), order.begin() + row.calls));
  }
}

TEST_F(RunSequence, MainsCloseTheirTraceWithTheirOwnReason) {
  struct Row {
    const char* what;
    Bool (*main)();
    bool initializeFails;
    std::string closing;
    UINT8 runMode;
    std::string console;
  } rows[] = {
      {"shell run without an image file", ShellFlashMain, false, "<=== ShellFlashMain (BIOS update failed)\r\n", 0,
       "\r\n    Error:\r\n    the FD file not found. ()\r\n\r\n"},
      {"shell run, set-up fails", ShellFlashMain, true, "<=== ShellFlashMain (Initialize failed)\r\n", 0, ""},
      {"UEFI run, set-up fails", UefiFlashMain, true, "<=== UefiFlashMain (initialize failed)\r\n", 1, ""},
      {"UEFI run without settings", UefiFlashMain, false, "<=== UefiFlashMain (Load ini failed)\r\n", 1,
       "Error:\r\nSettings buffer is empty!\r\nError:\r\nLoad settings failed!\r\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Run(row.initializeFails ? R"({"unsupported": ["10h"]})" : "");
    EXPECT_FALSE(row.main());
    EXPECT_EQ(GetRunMode(), row.runMode);
    EXPECT_TRUE(InOrder(Log(), {row.initializeFails ? "<=== Initialize (SMI_IsSupport fail)\r\n" : "<=== Initialize\r\n",
                                    row.closing})) << Log();
    EXPECT_TRUE(row.console.empty() || InOrder(Console(), {row.console})) << Console();
    EXPECT_FALSE(Simulator().LastFinish().has_value()) << "no finish report, nothing written";
  }
}

}  // namespace
