// The zaprom-sim front end as a user meets it: its own misuse ends with status 2 and a message
// that names the problem, and the flash and EC files are written back however the run ends.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "EmuHarness.h"

namespace {

// The front end is built next to the tests' folder; a build without it skips these tests.
std::string FrontEndPath() {
  std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  return (self.parent_path().parent_path() / "zaprom-sim").string();
}

struct Outcome {
  int status;
  std::string errors;
};

Outcome RunFrontEnd(const ScratchDirectory& scratch, const std::string& arguments) {
  std::string command = "cd '" + scratch.path() + "' && '" + FrontEndPath() + "' " + arguments +
                        " </dev/null >stdout.txt 2>stderr.txt";
  int raw = std::system(command.c_str());
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadHostFile(scratch / "stderr.txt")};
}

// Misuse ends with status 2; a script without --keys gets Enter for the help's pages, while an
// empty --keys still ends a wait with status 3. Flash and EC files missing at the start are
// written with the default machine's content, however the run ends.
TEST(ZaPromSim, EachRunEndsWithItsStatusAndSaysWhy) {
  if (!std::filesystem::exists(FrontEndPath())) GTEST_SKIP() << "zaprom-sim is not built";
  ScratchDirectory scratch;
  WriteHostFile(scratch / "broken.json", "{ \"flashSize\": ");
  WriteHostFile(scratch / "short-ec.bin", "0123456789");
  WriteHostFile(scratch / "short-flash.bin", std::string(1000, '\xFF'));
  WriteHostFile(scratch / "huge.json", R"({"flash": {"size": 1e999}})");
  struct Row {
    std::string arguments;
    int status;
    std::string firstLine;
  };
  const Row rows[] = {
      {"--bogus", 2, "zaprom-sim: unknown option --bogus"},
      {"--keys '{F1'", 2, "zaprom-sim: --keys: unclosed '{' in the keys at character 1"},
      {"--machine broken.json", 2, "zaprom-sim: broken.json: "},
      {"--ec short-ec.bin", 2, "zaprom-sim: the EC file short-ec.bin: EC content is 10 bytes but the machine's EC holds 131072\n"},
      {"--flash short-flash.bin", 2, "zaprom-sim: the flash file short-flash.bin: flash content is 1000 (0x3E8) bytes but"},
      {"--flash no-folder/flash.bin", 2,
       "zaprom-sim: cannot write the flash file no-folder/flash.bin: No such file or directory\n"},
      {"--machine huge.json", 2, "zaprom-sim: huge.json: machine description is not valid JSON: "},
      {"--launcher missing.efi", 2, "zaprom-sim: cannot read the launcher file missing.efi"},
      {"--launcher broken.json -- -h", 2, "zaprom-sim: the launcher takes no tool arguments: -h"},
      {"-- -h", 0, ""},
      {"--flash flash.bin --ec ec.bin --keys '' -- -h", 3,
       "zaprom-sim: the tool waits for a key and none is left (use --keys)\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.arguments);
    Outcome outcome = RunFrontEnd(scratch, row.arguments);
    EXPECT_EQ(outcome.status, row.status);
    EXPECT_EQ(outcome.errors.rfind(row.firstLine, 0), 0u) << outcome.errors;
  }
  ASSERT_TRUE(std::filesystem::exists(scratch / "flash.bin"));
  EXPECT_EQ(std::filesystem::file_size(scratch / "flash.bin"), 16u << 20);  // the default machine's part
  EXPECT_EQ(ReadHostFile(scratch / "ec.bin"), std::string(0x20000, '\xFF'));  // and its EC
}

}  // namespace
