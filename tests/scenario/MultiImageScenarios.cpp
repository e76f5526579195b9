// Whole runs in which platform.ini beside the tool carries [MULTI_FD] rules: the machine's own
// port and PCI values decide which image file the run takes, or why it takes none.
#include <gtest/gtest.h>

#include "SimRun.h"

namespace {

// A board whose revision port reads 0x02 and whose LPC bridge has the ID A3C8 8086.
const char kBoard[] = R"({
  "io_ports": {"0xC0": {"value": "0x5AABFE02", "width": 4}},
  "pci": [{"bus": 0, "device": "0x1F", "function": 0, "offset": 0, "value": "0xA3C88086"}]
})";

struct Row {
  const char* name;
  const char* rules;  // the [MULTI_FD] keys behind Flag=1
  bool withImage;     // lpc.fd stands beside the tool
  std::vector<std::string> console;
  std::vector<std::string> log;
  std::vector<std::string> notInLog;
};

TEST(MultiImageScenarios, TheFirstRuleThatHoldsOnThisMachineNamesTheImage) {
  const std::vector<Row> rows = {
      {"second rule holds", "FD#01=IO,C0,FF,07,board7.fd\r\nFD#02=PCI,0,1F,0,0,FFFFFFFF,A3C88086,lpc.fd\r\n", true,
       {"Error: Get image platform info failed.\r\n"},
       {"formal ref. configure | ext|\r\n", "formal ref. configure | FD|\r\n", "Legacy |FD| 0x10\r\n"}, {}},
      {"an earlier rule wins over a later one",
       "FD#03=PCI,0,1F,0,0,FFFFFFFF,A3C88086,other.fd\r\nFD#02=IO,C0,FF,02,lpc.fd\r\n", true,
       {"Error: Get image platform info failed.\r\n"}, {"formal ref. configure | FD|\r\n", "Legacy |FD| 0x10\r\n"}, {}},
      {"no rule holds", "FD#01=IO,C0,FF,07,board7.fd\r\nFD#02=PCI,0,1F,0,0,FFFF,1234,lpc.fd\r\n", true,
       {"Dovrin ZAPROM (Flash Firmware Tool) Version 1.3k.00", "No match file in Multi-FD.\r\n"},
       {"<=== ShellFlashMain (failed)"}, {"formal ref. configure | FD|"}},
      {"the chosen file is missing", "FD#01=IO,C0,FF,02,lpc.fd\r\n", false,
       {"\r\n    Error:\r\n    the FD file not found. (lpc.fd)\r\n\r\n"}, {"<=== ShellFlashMain (failed)"},
       {"formal ref. configure | FD|"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    SimRequest request;
    request.machineJson = kBoard;
    request.arguments = {"-dbg"};
    request.volumeFiles = {{"platform.ini", std::string("[MULTI_FD]\r\nFlag=1\r\n") + row.rules}};
    if (row.withImage) {
      request.volumeFiles.push_back({"lpc.fd", std::string(16, '\xA5')});
    }
    SimResult result = RunSim(request);
    EXPECT_EQ(result.exitCode, 1) << result.errors;
    size_t at = 0;
    for (const auto& piece : row.console) {
      at = FindFrom(result.console, piece, at);
      ASSERT_NE(at, std::string::npos) << "console lacks [" << piece << "]\n" << result.console;
    }
    at = 0;
    for (const auto& piece : row.log) {
      at = FindFrom(result.log, piece, at);
      ASSERT_NE(at, std::string::npos) << "log lacks [" << piece << "]\n" << result.log;
    }
    for (const auto& piece : row.notInLog) {
      EXPECT_EQ(result.log.find(piece), std::string::npos) << piece;
    }
  }
}

}  // namespace
