// The set-up steps and the mains against a simulated firmware: the order of the OBLIS calls,
// what the user sees when a step fails, and how ZAPROM.Log closes the traces.
#include <string>
#include <vector>

#include "FrameHarness.h"
#include "support/Isolated.h"

using frame_test::FindAfter;
using frame_test::FrameHarness;
using frame_test::HarnessSetup;

namespace {

HarnessSetup WithMachine(const sim::Machine& machine) {
  HarnessSetup setup;
  setup.machine = machine;
  return setup;
}

// A driver loaded on a simulated machine, its log on, as a shell host with "-dbg" leaves it.
struct SetUpRun {
  explicit SetUpRun(const sim::Machine& machine) : harness(WithMachine(machine)) {
    harness.StartDriver();
    harness.EnableLog();
  }
  std::vector<uint8_t> Calls() { return harness.Simulator().CallLog(); }
  FrameHarness harness;
};

TEST(RunSequence, SetUpCallsTheFirmwareInItsOrder) {
  SetUpRun run(sim::DefaultMachine());
  ASSERT_TRUE(Initialize());
  EXPECT_EQ(run.Calls(), (std::vector<uint8_t>{0x10, 0x1F, 0x11, 0x1E, 0x1C}));
  EXPECT_EQ(run.harness.Simulator().HookPoints(), (std::vector<uint32_t>{1}));
  ASSERT_TRUE(CallingNecessarySmi());
  EXPECT_EQ(run.Calls(), (std::vector<uint8_t>{0x10, 0x1F, 0x11, 0x1E, 0x1C, 0x12, 0x13}));
  EXPECT_NE(GetImageWorkBuffer(), nullptr);
  EXPECT_NE(GetEcBuffer(), nullptr);
  std::string log = run.harness.Log();
  size_t at = FindAfter(log, "===> Initialize [", 0);
  at = FindAfter(log, "<=== Initialize\r\n", at);
  at = FindAfter(log, "===> CallingNecessarySmi [", at);
  at = FindAfter(log, "<=== CallingNecessarySmi\r\n", at);
  EXPECT_NE(at, std::string::npos) << log;
  EXPECT_EQ(run.harness.Console(), "");
}

TEST(RunSequence, SecondInitializeKeepsTheBlocksItHolds) {
  SetUpRun run(sim::DefaultMachine());
  ASSERT_TRUE(Initialize());
  UINT8* work = GetImageWorkBuffer();
  UINT8* ec = GetEcBuffer();
  ASSERT_TRUE(Initialize());
  EXPECT_EQ(GetImageWorkBuffer(), work);
  EXPECT_EQ(GetEcBuffer(), ec);
  FreeResource();
  EXPECT_EQ(GetImageWorkBuffer(), nullptr);
  EXPECT_EQ(GetEcBuffer(), nullptr);
}

TEST(RunSequence, FailingSetUpStepStopsWithItsMessageAndReason) {
  struct Row {
    std::string name;
    sim::Machine machine;
    bool viaCallingNecessarySmi;
    std::vector<std::string> consoleInOrder;
    std::string closingLine;
    std::vector<uint8_t> calls;
  };
  auto unsupported = [](uint8_t function) {
    sim::Machine machine = sim::DefaultMachine();
    machine.unsupported = {function};
    return machine;
  };
  sim::Machine refused = sim::DefaultMachine();
  refused.permission = 0;
  sim::Machine stolen = sim::DefaultMachine();
  stolen.antiTheft = 0x81;

  const std::vector<Row> rows = {
      {"10h unsupported", unsupported(0x10), false,
       {"Error: OBLIS 10h failed.", "Internal Error EF", "Function not supported.",
        "\r\nError: Initialize\r\nOBLIS 10h failed.\r\n"},
       "<=== Initialize (SMI_IsSupport fail)\r\n", {0x10}},
      {"permission refused", refused, false,
       {"\r\nError: Update failed!\r\nCurrent system cannot support this version of flash utility.\r\n",
        "\r\nError: Initialize\r\nOBLIS 10h failed.\r\n"},
       "<=== Initialize (SMI_IsSupport fail)\r\n", {0x10}},
      {"11h unsupported", unsupported(0x11), false, {"\r\nError: Initialize\r\nOblis 11h failed.\r\n"},
       "<=== Initialize (Get platform information failed)\r\n", {0x10, 0x1F, 0x11}},
      {"stolen machine", stolen, false,
       {"The system is in stolen mode. BIOS update is aborted!\r\n", "\r\nError: Initialize\r\nOBLIS 1Ch failed.\r\n"},
       "<=== Initialize (Get ATp information failed)\r\n", {0x10, 0x1F, 0x11, 0x1E, 0x1C}},
      {"12h unsupported", unsupported(0x12), true, {"\r\nError: Initialize\r\nOBLIS 12h failed.\r\n"},
       "<=== CallingNecessarySmi (Get platform ROM map failed)\r\n", {0x10, 0x1F, 0x11, 0x1E, 0x1C, 0x12}},
      {"13h unsupported", unsupported(0x13), true, {"\r\nError: Initialize\r\nOBLIS 13h failed.\r\n"},
       "<=== CallingNecessarySmi (Get flash part information failed)\r\n",
       {0x10, 0x1F, 0x11, 0x1E, 0x1C, 0x12, 0x13}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
      SetUpRun run(row.machine);
      if (row.viaCallingNecessarySmi) {
        ASSERT_TRUE(Initialize());
        EXPECT_FALSE(CallingNecessarySmi());
      } else {
        EXPECT_FALSE(Initialize());
      }
      std::string console = run.harness.Console();
      size_t at = 0;
      for (const auto& text : row.consoleInOrder) {
        at = FindAfter(console, text, at);
        EXPECT_NE(at, std::string::npos) << "missing: " << text << "\nconsole:\n" << console;
      }
      std::string log = run.harness.Log();
      // The closing line comes after FreeResource has given both blocks back.
      size_t freed = log.find("<=== FreeResource\r\n");
      EXPECT_NE(freed, std::string::npos) << log;
      EXPECT_NE(FindAfter(log, row.closingLine, freed), std::string::npos) << log;
      EXPECT_EQ(GetImageWorkBuffer(), nullptr);
      EXPECT_EQ(GetEcBuffer(), nullptr);
      EXPECT_EQ(run.Calls(), row.calls);
    })) << row.name;
  }
}

TEST(RunSequence, FailingWholeRomMapDoesNotStopTheSetUp) {
  sim::Machine machine = sim::DefaultMachine();
  machine.unsupported = {0x1E};
  SetUpRun run(machine);
  EXPECT_TRUE(Initialize());
  EXPECT_EQ(run.Calls().back(), 0x1C);
}

TEST(RunSequence, FailingHookPointDoesNotStopTheSetUp) {
  sim::Machine machine = sim::DefaultMachine();
  machine.unsupported = {0x1F};
  SetUpRun run(machine);
  EXPECT_TRUE(Initialize());
}

TEST(RunSequence, ShellMainWithoutAnImageFileStopsBeforeAnyUpdate) {
  FrameHarness harness(WithMachine(sim::DefaultMachine()));
  harness.StartDriver();
  harness.SetArguments({u"ZAPROM.efi", u"-dbg"});
  EXPECT_FALSE(ShellFlashMain());
  EXPECT_EQ(GetRunMode(), 0);
  EXPECT_NE(harness.Console().find("\r\n    Error:\r\n    the FD file not found. ()\r\n\r\n"), std::string::npos)
      << harness.Console();
  std::string log = harness.Log();
  // The main's own opening line comes before -dbg is seen, so the log starts at row 7.
  EXPECT_EQ(log.find("===> ShellFlashMain"), std::string::npos);
  size_t at = FindAfter(log, "===> InitialIniStructure [", 0);
  at = FindAfter(log, "===> Initialize [", at);
  at = FindAfter(log, "<=== CallingNecessarySmi\r\n", at);
  at = FindAfter(log, "<=== ShellFlashMain (BIOS update failed)\r\n", at);
  EXPECT_NE(at, std::string::npos) << log;
  // The OEM parameters go to the firmware before the image is looked for.
  EXPECT_EQ(harness.Simulator().CallLog().back(), 0x19);
  // No finish report was sent and nothing was written to the flash.
  EXPECT_FALSE(harness.Simulator().LastFinish().has_value());
}

TEST(RunSequence, MainsCloseTheirTraceWithTheirOwnReasonWhenInitializeFails) {
  struct Row {
    bool shell;
    std::string closingLine;
    UINT8 runMode;
  };
  const std::vector<Row> rows = {
      {true, "<=== ShellFlashMain (Initialize failed)\r\n", 0},
      {false, "<=== UefiFlashMain (initialize failed)\r\n", 1},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
      sim::Machine machine = sim::DefaultMachine();
      machine.unsupported = {0x10};
      FrameHarness harness(WithMachine(machine));
      harness.StartDriver();
      harness.EnableLog();
      EXPECT_FALSE(row.shell ? ShellFlashMain() : UefiFlashMain());
      EXPECT_EQ(GetRunMode(), row.runMode);
      std::string log = harness.Log();
      EXPECT_NE(FindAfter(log, row.closingLine, log.find("<=== Initialize (SMI_IsSupport fail)\r\n")),
                std::string::npos)
          << log;
      EXPECT_EQ(harness.Console().find("This build ends"), std::string::npos);
    })) << row.closingLine;
  }
}

TEST(RunSequence, UefiMainStopsAfterInitializeWithoutCallingTheMaps) {
  FrameHarness harness(WithMachine(sim::DefaultMachine()));
  harness.StartDriver();
  harness.EnableLog();
  EXPECT_FALSE(UefiFlashMain());
  EXPECT_EQ(GetRunMode(), 1);
  EXPECT_EQ(harness.Simulator().CallLog(), (std::vector<uint8_t>{0x10, 0x1F, 0x11, 0x1E, 0x1C}));
  EXPECT_NE(harness.Log().find("<=== UefiFlashMain (Update steps not built)\r\n"), std::string::npos);
}

}  // namespace
