// The EC through the front end, on a machine of 1 MB flash and the default EC of 128 KB: an EC
// file written alone, a merged file's EC part written after its BIOS, a secure image's EC slot on either
// platform, a 20h that fails half-way, and the bad inputs that must leave flash and EC alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "SimRun.h"
#include "ZaPromImage.h"

namespace {

constexpr uint32_t kEcSize = 0x20000;
// A small part keeps the BIOS side of each run short; rows add their own keys to it.
const char* const kMachine = R"({"flash": {"size": "0x100000", "size_index": 4, "blocks": [{"size": "0x1000", "count": 256}]},
                                 "maps": {"protection": [], "private": [], "whole": []}})";

std::string Machine(const std::string& changes) {
  nlohmann::json machine = nlohmann::json::parse(kMachine);
  if (!changes.empty()) machine.merge_patch(nlohmann::json::parse(changes));
  return machine.dump();
}

// The small part's flash as a run leaves it untouched.
const Bytes& Flash() {
  static const Bytes flash = [] {
    SimRequest request;
    request.machineJson = Machine("");
    request.arguments = {"-h"};
    return RunSim(request).flash;
  }();
  return flash;
}

Bytes Pattern(uint32_t size, uint8_t seed) {
  Bytes bytes(size);
  for (uint32_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 13 + (i >> 9));
  return bytes;
}

// The flash with one byte of its upper half changed: an update that writes one block.
Bytes Bios() {
  Bytes image = Flash();
  image[0xA0000] ^= 0xA5;
  return image;
}

Bytes Merged(const Bytes& ec, const Bytes& bios) {
  Bytes file = ec;
  file.insert(file.end(), bios.begin(), bios.end());
  return file;
}

SimResult RunEc(const std::string& machine, const Bytes& file, std::vector<std::string> options, const std::string& ini = "") {
  SimRequest request;
  request.machineJson = Machine(machine);
  request.arguments = {"new.bin"};
  request.arguments.insert(request.arguments.end(), options.begin(), options.end());
  request.flash = Flash();
  request.volumeFiles = {{"new.bin", Text(file)}};
  if (!ini.empty()) request.volumeFiles.push_back({"platform.ini", ini});
  return RunSim(request);
}

const Bytes kErased(kEcSize, 0xFF);

TEST(EcScenarios, TheEcEndsAsTheImageOnEveryRoadThatWritesIt) {
  const Bytes ec = Pattern(kEcSize, 0x21);
  const Bytes bios = Bios();
  const std::string acer = R"({"status": {"vendor_id": "0x1025"}, "common_flash": {"action": 2}})";
  const std::string action20h = "[CommonFlash]\r\n[UpdateEC]\r\nAction_20h=1\r\n";
  struct Row {
    const char* what;
    std::string machine, ini;
    Bytes file;
    std::vector<std::string> options;
    bool biosWritten, ecWritten;
    std::string summary;  // the EC's part of the summary line; empty: no 20h reached the EC
  };
  const Row rows[] = {
      {"-ec: one call", "", "", ec, {"-ec"}, false, true, "; EC: 1 blocks received, 1 written\n"},
      {"-ecp: block by block", "", "", ec, {"-ecp"}, false, true, "; EC: 2 blocks received, 2 written\n"},
      {"-ecb: the BIOS, then the EC in one call", "", "", Merged(ec, bios), {"-ecb"}, true, true, "; EC: 1 blocks received, 1 written\n"},
      {"-ecbp: the BIOS, then the EC block by block", "", "", Merged(ec, bios), {"-ecbp"}, true, true, "; EC: 2 blocks received, 2 written\n"},
      {"-eob: only the BIOS", "", "", Merged(ec, bios), {"-eob"}, true, false, ""},
      {"the finish action rides on the last block", acer, action20h, Merged(ec, bios), {"-ecbp"}, true, true,
       "; EC: 2 blocks received, 2 written, finish action shutdown\n"},
      {"a 20h that fails half-way leaves the run good", R"({"faults": {"20h": {"code": "0x25", "after": 10}}})",
       "[UpdateEC]\r\nEC_BlockSize=4\r\n", Merged(ec, bios), {"-ecbp"}, true, false, "; EC: 10 blocks received, 0 written\n"},
      {"a secure image's EC on a legacy platform", "", "", zimage::WrapSecure(bios, ec, {}), {}, true, true, "; EC: 2 blocks received, 2 written\n"},
      {"a secure platform takes the EC with the capsule", R"({"capsule": {"secure": true}})", "", zimage::WrapSecure(bios, ec, {}), {}, false, false, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    SimResult result = RunEc(row.machine, row.file, row.options, row.ini);
    ASSERT_EQ(result.exitCode, 0) << result.console << result.errors;
    EXPECT_EQ(FirstDifference(result.flash, row.biosWritten ? bios : Flash()), std::string::npos);
    EXPECT_EQ(FirstDifference(result.ec, row.ecWritten ? ec : kErased), std::string::npos);
    // Every road asks the firmware about the EC's size once, before anything is written.
    EXPECT_EQ(Count(result, "21h"), 1u);
    const std::vector<std::string> order = result.FunctionOrder();
    const auto asked = std::find(order.begin(), order.end(), "21h");
    EXPECT_TRUE(std::find(order.begin(), asked, "15h") == asked && std::find(order.begin(), asked, "20h") == asked);
    if (row.summary.empty()) {
      EXPECT_EQ(result.console.find("; EC:"), std::string::npos) << result.console;
    } else {
      EXPECT_NE(result.console.find(row.summary), std::string::npos) << result.console;
    }
    // The EC goes after the BIOS: no block of the flash is written behind the first EC block.
    const auto firstEc = std::find(order.begin(), order.end(), "20h");
    EXPECT_EQ(firstEc != order.end(), !row.summary.empty());
    EXPECT_TRUE(std::find(firstEc, order.end(), "15h") == order.end());
    EXPECT_EQ(row.biosWritten, std::find(order.begin(), order.end(), "15h") != order.end());
  }
}

// Each bad input is refused before the flash or the EC is touched.
TEST(EcScenarios, BadInputLeavesFlashAndEcAsTheyWere) {
  const Bytes ec = Pattern(kEcSize, 0x21);
  struct Row {
    const char* what;
    std::string machine;
    Bytes file;
    std::vector<std::string> options;
    std::string text;  // on the console, or in the log
  };
  const Row rows[] = {
      {"an EC file over 2 MB", "", Pattern(0x200001, 1), {"-ec"},
       "ERROR!\r\nThe EC file (0x200001 bytes) is larger than the EC buffer (0x200000 bytes).\r\nNothing was written.\r\n"},
      {"a merged file without an option", "", Merged(ec, Bios()), {},
       "ERROR!\r\nsize not match\r\n-----+---------\r\n  ROM  0x100000\r\n File  with EC (128K)\r\n"},
      {"a part table without its signature", R"({"ec": {"parts": ["0x10000", "0x10000"], "part_signature": "$ECINF0_"}})",
       Merged(ec, Bios()), {"-ecb"}, "Signature invalid\r\n<=== FuncOblis_21h\r\n"},
      {"an EC larger than the firmware's", "", Pattern(0x40000, 2), {"-ecp"}, "size |NOT| match with current(256K/128K)\r\n"},
      {"a firmware without 21h", R"({"unsupported": ["21h"]})", ec, {"-ec"}, "Get EC part information fail.\r\n"},
      {"one call of more than the shared buffer", R"({"ec": {"size_index": 2}})", Pattern(0x40000, 3), {"-ec"},
       "ERROR!\r\nThe EC image (256K) does not fit one OBLIS call (128K): write it block by block.\r\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::vector<std::string> options = row.options;
    options.push_back("-dbg");
    SimResult result = RunEc(row.machine, row.file, options);
    EXPECT_EQ(result.exitCode, 1) << result.console << result.errors;
    EXPECT_NE((result.console + result.log).find(row.text), std::string::npos) << result.console << result.log;
    EXPECT_EQ(Count(result, "15h") + Count(result, "20h"), 0u);
    EXPECT_EQ(FirstDifference(result.flash, Flash()), std::string::npos);
    EXPECT_TRUE(!result.ec.empty() && std::all_of(result.ec.begin(), result.ec.end(), [](uint8_t b) { return b == 0xFF; }));
  }
}

}  // namespace
