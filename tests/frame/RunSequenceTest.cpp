// The set-up steps and the mains against a simulated firmware: the order of the OBLIS calls,
// what the user sees when a step fails, and how ZAPROM.Log closes the traces.
#include <string>
#include <vector>

#include "frame/FrameInternal.h"
#include "output/Output.h"
#include "support/FrameBed.h"
#include "support/Isolated.h"

namespace {

sim::Machine Machine(void (*change)(sim::Machine&) = nullptr) {
  sim::Machine machine = sim::DefaultMachine();
  return change ? (change(machine), machine) : machine;
}

// A driver loaded on a simulated machine with its log on, as a shell host with "-dbg" leaves it.
struct SetUpRun : bed::FrameBed {
  explicit SetUpRun(const sim::Machine& machine) : FrameBed(bed::Setup{{emu::VolumeKind::Usb}, "", machine}) {
    StartDriver();
    SetArguments({u"ZAPROM.efi", u"-dbg"});
    ScanDebugOption(2, GetArgumentVector());
  }
};

// Whether the parts stand in the text in this order.
bool InOrder(const std::string& text, const std::vector<std::string>& parts) {
  size_t at = 0;
  for (const std::string& part : parts) at = at == std::string::npos ? at : text.find(part, at);
  return at != std::string::npos;
}

TEST(RunSequence, SetUpCallsTheFirmwareInItsOrderAndASecondSetUpKeepsItsBlocks) {
  SetUpRun run(Machine());
  ASSERT_TRUE(Initialize());
  EXPECT_EQ(run.simulator->HookPoints(), (std::vector<uint32_t>{1}));
  UINT8* work = GetImageWorkBuffer();
  UINT8* ec = GetEcBuffer();
  ASSERT_TRUE(CallingNecessarySmi());
  EXPECT_EQ(run.simulator->CallLog(), (std::vector<uint8_t>{0x10, 0x1F, 0x11, 0x1E, 0x1C, 0x12, 0x13}));
  EXPECT_TRUE(InOrder(run.Log(), {"===> Initialize [", "<=== Initialize\r\n", "===> CallingNecessarySmi [", "<=== CallingNecessarySmi\r\n"}));
  EXPECT_EQ(run.Console(), "");
  ASSERT_TRUE(Initialize());
  EXPECT_TRUE(work != nullptr && GetImageWorkBuffer() == work && ec != nullptr && GetEcBuffer() == ec);
  FreeResource();
  EXPECT_TRUE(GetImageWorkBuffer() == nullptr && GetEcBuffer() == nullptr);
}

TEST(RunSequence, FailingSetUpStepStopsWithItsMessageAndReasonAfterGivingItsBlocksBack) {
  struct Row {
    const char* what;
    sim::Machine machine;
    std::vector<std::string> console;  // in this order
    std::string closing;               // after FreeResource has closed
    size_t calls;                      // OBLIS calls made, of 10h 1Fh 11h 1Eh 1Ch 12h 13h
  } rows[] = {
      {"10h unsupported", Machine([](sim::Machine& m) { m.unsupported = {0x10}; }),
       {"Internal Error EF", "Function not supported.", "\r\nError: Initialize\r\nOBLIS 10h failed.\r\n"},
       "<=== Initialize (SMI_IsSupport fail)\r\n", 1},
      {"permission refused", Machine([](sim::Machine& m) { m.permission = 0; }),
       {"Current system cannot support this version of flash utility.\r\n", "\r\nError: Initialize\r\nOBLIS 10h failed.\r\n"},
       "<=== Initialize (SMI_IsSupport fail)\r\n", 1},
      {"11h unsupported", Machine([](sim::Machine& m) { m.unsupported = {0x11}; }),
       {"\r\nError: Initialize\r\nOblis 11h failed.\r\n"}, "<=== Initialize (Get platform information failed)\r\n", 3},
      {"stolen", Machine([](sim::Machine& m) { m.antiTheft = 0x81; }),
       {"The system is in stolen mode. BIOS update is aborted!\r\n", "\r\nError: Initialize\r\nOBLIS 1Ch failed.\r\n"},
       "<=== Initialize (Get ATp information failed)\r\n", 5},
      {"12h unsupported", Machine([](sim::Machine& m) { m.unsupported = {0x12}; }),
       {"\r\nError: Initialize\r\nOBLIS 12h failed.\r\n"}, "<=== CallingNecessarySmi (Get platform ROM map failed)\r\n", 6},
      {"13h unsupported", Machine([](sim::Machine& m) { m.unsupported = {0x13}; }),
       {"\r\nError: Initialize\r\nOBLIS 13h failed.\r\n"},
       "<=== CallingNecessarySmi (Get flash part information failed)\r\n", 7},
      {"whole ROM map and hook point unsupported stop nothing",
       Machine([](sim::Machine& m) { m.unsupported = {0x1E, 0x1F}; }), {}, "<=== CallingNecessarySmi\r\n", 7},
  };
  const std::vector<uint8_t> order = {0x10, 0x1F, 0x11, 0x1E, 0x1C, 0x12, 0x13};
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
      SetUpRun run(row.machine);
      bool setUp = Initialize() && CallingNecessarySmi();
      EXPECT_EQ(setUp, row.console.empty());
      EXPECT_TRUE(InOrder(run.Console(), row.console)) << run.Console();
      EXPECT_TRUE(InOrder(run.Log(), {setUp ? "" : "<=== FreeResource\r\n", row.closing})) << run.Log();
      EXPECT_EQ(GetImageWorkBuffer() != nullptr, setUp);
      EXPECT_EQ(run.simulator->CallLog(), std::vector<uint8_t>(order.begin(), order.begin() + row.calls));
    })) << row.what;
  }
}

TEST(RunSequence, MainsCloseTheirTraceWithTheirOwnReason) {
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
      {"UEFI run ends after the set-up", UefiFlashMain, false, "<=== UefiFlashMain (Update steps not built)\r\n", 1,
       "the update steps are not built yet"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
      SetUpRun run(Machine(row.initializeFails ? +[](sim::Machine& m) { m.unsupported = {0x10}; } : nullptr));
      EXPECT_FALSE(row.main());
      EXPECT_EQ(GetRunMode(), row.runMode);
      EXPECT_TRUE(InOrder(run.Log(), {row.initializeFails ? "<=== Initialize (SMI_IsSupport fail)\r\n" : "<=== Initialize\r\n",
                                      row.closing})) << run.Log();
      EXPECT_TRUE(row.console.empty() || InOrder(run.Console(), {row.console})) << run.Console();
      EXPECT_FALSE(run.simulator->LastFinish().has_value()) << "no finish report, nothing written";
    })) << row.what;
  }
}

}  // namespace
