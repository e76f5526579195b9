// The query commands through the front end on simulated machines: -g saves the whole flash, also
// on a machine whose ME is locked, -pq answers before -g and reads nothing, -g without a name
// reads nothing, and -pr shows the external map without any image file.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "SimRun.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kRomSize = 0x1000000;  // the default machine's 16 MB part

std::string ReadAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// RunSim removes its volume, so the file that -g writes is fetched by a run of the front end of
// our own: the machine, the arguments, and the flash and the saved file afterwards.
struct SavedRun {
  int exitCode = -1;
  std::string console;
  Bytes flash;
  bool saved = false;
  Bytes file;
};

SavedRun RunSaving(const std::string& machineJson, const std::string& fileName) {
  char pattern[] = "/tmp/zaprom-romread-XXXXXX";
  fs::path root = mkdtemp(pattern);
  fs::path volume = root / "volume";
  fs::create_directories(volume);
  std::string command = std::string(ZAPROM_SIM_PATH) + " --volume '" + volume.string() + "'";
  if (!machineJson.empty()) {
    std::ofstream(root / "machine.json") << machineJson;
    command += " --machine '" + (root / "machine.json").string() + "'";
  }
  command += " --flash '" + (root / "flash.bin").string() + "' -- " + fileName + " -g >'" +
             (root / "stdout.txt").string() + "' 2>/dev/null </dev/null";
  SavedRun run;
  int status = std::system(command.c_str());
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.console = ReadAll(root / "stdout.txt");
  std::string flash = ReadAll(root / "flash.bin");
  run.flash.assign(flash.begin(), flash.end());
  run.saved = fs::exists(volume / fileName);
  if (run.saved) {
    std::string file = ReadAll(volume / fileName);
    run.file.assign(file.begin(), file.end());
  }
  fs::remove_all(root);
  return run;
}

size_t Count(const std::vector<SmiCall>& calls, const std::string& fn) {
  size_t n = 0;
  for (const SmiCall& call : calls) n += call.fn == fn ? 1 : 0;
  return n;
}

const char kCompleted[] = "Read Progress: Completed";
const char kLockedWarning[] = "Warning!\r\nME is locked. The ME region of the saved file is invalid.\r\n";

TEST(RomReadScenario, SaveWholeRomWritesAFileEqualToTheFlash) {
  SavedRun run = RunSaving("", "dump.bin");
  EXPECT_EQ(run.exitCode, 0) << run.console;
  ASSERT_TRUE(run.saved) << run.console;
  ASSERT_EQ(run.file.size(), kRomSize);
  ASSERT_EQ(run.flash.size(), kRomSize);
  EXPECT_TRUE(run.file == run.flash) << "the saved file differs from the flash";
  size_t start = run.console.find("Read current ROM start!");
  size_t done = run.console.find(kCompleted);
  ASSERT_NE(start, std::string::npos) << run.console;
  EXPECT_NE(done, std::string::npos) << run.console;
  EXPECT_LT(start, done);
  EXPECT_EQ(run.console.find("ME is locked"), std::string::npos) << run.console;
}

TEST(RomReadScenario, SaveOnALockedMeWarnsBehindTheCompletion) {
  SavedRun run = RunSaving(R"({"me": {"locked": true}})", "dump.bin");
  EXPECT_EQ(run.exitCode, 0) << run.console;
  ASSERT_TRUE(run.saved) << run.console;
  EXPECT_EQ(run.file.size(), kRomSize) << "a locked ME still gives a file of the full ROM size";
  size_t done = run.console.find(kCompleted);
  ASSERT_NE(done, std::string::npos) << run.console;
  EXPECT_NE(run.console.find(kLockedWarning, done), std::string::npos) << run.console;
  EXPECT_EQ(run.console.find(kLockedWarning), run.console.rfind(kLockedWarning)) << "the warning comes once";
}

struct QueryRow {
  const char* what;
  std::vector<std::string> arguments;
  std::vector<std::string> console;  // in order
  bool readsRom;
};

TEST(RomReadScenario, QueriesAnswerWithoutReadingWhatTheyNeedNot) {
  const QueryRow rows[] = {
      {"-pq before -g shows the protection map and reads nothing",
       {"dump.bin", "-pq", "-g"}, {"Protection Region MAP\r\n"}, false},
      {"-g without a name reads nothing", {"-g"}, {"\r\nError: No file name input!\r\n"}, false},
      {"-pr with no image shows the external map", {"-pr"}, {"External Region MAP\r\n", "BIOS"}, false},
  };
  for (const QueryRow& row : rows) {
    SimResult result = RunSim({"", row.arguments, "", {}, {}});
    size_t at = 0;
    for (const std::string& piece : row.console) {
      at = FindFrom(result.console, piece, at);
      ASSERT_NE(at, std::string::npos) << row.what << ": [" << piece << "]\n" << result.console;
    }
    EXPECT_EQ(Count(result.calls, "14h") != 0, row.readsRom) << row.what;
    EXPECT_EQ(Count(result.calls, "15h"), 0u) << row.what;
    EXPECT_EQ(result.console.find("Read current ROM start!"), std::string::npos) << row.what;
  }
}

}  // namespace
