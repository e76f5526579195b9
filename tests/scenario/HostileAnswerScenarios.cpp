// Whole updates on machines whose firmware answers in broken form. Each ends in a refusal that
// names what is wrong and writes nothing, or, at a limit that still holds, in a good update.
#include <gtest/gtest.h>

#include "SimRun.h"

namespace {

std::string Repeat(const std::string& text, int times) { return times > 0 ? text + Repeat(text, times - 1) : ""; }
// A machine whose function fn writes the bytes hex into the buffer of reg, with more keys behind.
std::string Raw(const std::string& fn, const std::string& reg, const std::string& hex, const std::string& more = "") {
  return R"({"answer_bytes": {")" + fn + R"(": {")" + reg + R"(": ")" + hex + "\"}}" + more + "}";
}
enum Landed { kNothing, kAll, kBiosOnly };  // which of the image's changes, in ME and in BIOS, land

TEST(HostileAnswerScenarios, ABrokenAnswerIsRefusedInWordsThatNameItOrHoldsAtItsLimit) {
  const std::string kCover = "ERROR!\r\nThe flash blocks cover 0x", k13h = "\r\nError: Initialize\r\nOBLIS 13h failed.\r\n";
  const std::string k12h = " runs past 4 GB.\r\n\r\nError: Initialize\r\nOBLIS 12h failed.\r\n", kDone = "Update Progress: Completed";
  const std::string kMap = R"({"maps": {"external": [{"type": 0, "offset": 0, "size": "0x1000"}, )", kBios = R"({"type": 1, "offset": "0x800000", "size": )";
  // name, machine, option, exit status, console texts in order, what lands
  const std::tuple<const char*, std::string, const char*, int, std::vector<std::string>, Landed> rows[] = {
      {"8 MB ROM, 16 MB of blocks", R"({"flash": {"size_index": 7}})", "", 1, {"ERROR!\r\nThe flash blocks reach past the ROM size. (0x800000)\r\n"}, kNothing},
      {"blocks stop at half the ROM", R"({"flash": {"blocks": [{"size": "0x1000", "count": "0x800"}]}})", "", 1, {kCover + "800000 bytes of the ROM's 0x1000000: the firmware's block table is incomplete.\r\n"}, kNothing},
      {"-g, blocks stop at half the ROM", R"({"flash": {"blocks": [{"size": "0x1000", "count": "0x800"}]}})", "-g", 0, {kCover + "800000 bytes", "Error: command -g fail. (Oblis fail)\r\n"}, kNothing},
      {"empty block map", R"({"flash": {"blocks": []}})", "", 1, {kCover + "0 bytes"}, kNothing},
      {"count one past the table", R"({"flash": {"blocks": [{"size": "0x1000", "count": "0x1001"}]}})", "", 1, {k13h}, kNothing},
      {"256 map entries, 255 read", Raw("13h", "esi", Repeat("1000 1000 ", 256)), "", 1, {kCover + "FF0000 bytes"}, kNothing},
      {"255 entries make up the ROM", Raw("13h", "esi", Repeat("1000 1000 ", 254) + "1000 2000 1000 FFFF"), "", 0, {kDone}, kAll},
      {"protection past 4 GB", R"({"maps": {"protection": [{"type": 6, "address": "0xFFFFF000", "size": "0x2000"}]}})", "", 1, {"\r\nError: the protection region at 0xFFFFF000 of size 0x2000" + k12h}, kNothing},
      {"private one byte past 4 GB", R"({"maps": {"private": [{"address": "0xFFFFF000", "size": "0x1001"}]}})", "", 1, {"\r\nError: the private region at 0xFFFFF000 of size 0x1001" + k12h}, kNothing},
      {"201 protection records, 200 read", Raw("12h", "edi", Repeat("06 000080FF 00000400 ", 200) + "06 00F0FFFF 00200000"), "", 0, {kDone}, kAll},
      {"-bios, no current region", R"({"maps": {"external": []}})", "-bios", 1, {"Warning:\r\nthe current map has no region BIOS\r\n"}, kNothing},
      {"-bios, ME over BIOS", kMap + R"({"type": 2, "offset": "0x1000", "size": "0xA00000"}, )" + kBios + R"("0x800000"}]}})", "-bios", 1, {"Warning:\r\nthe current regions ME and BIOS overlap\r\n"}, kNothing},
      {"-bios, BIOS past the ROM", kMap + kBios + R"("0x801000"}]}})", "-bios", 1, {"Warning:\r\nthe current region BIOS (offset   800000h, size   801000h) lies outside the ROM ( 1000000h)\r\n"}, kNothing},
      {"-bios, no ME in the map", kMap + kBios + R"("0x800000"}]}})", "-bios", 0, {kDone}, kBiosOnly},
      {"model name fills its field", Raw("11h", "edi", Repeat("5A00", 32) + "5600 3100 2E00 3000 3200", R"(, "info": {"policy": 1})"), "", 1, {"Current BIOS Model Name: " + std::string(32, 'Z') + "\r\n", "Model name not match.\r\n"}, kNothing},
      {"version fills its field", Raw("11h", "edi", Repeat("00", 64) + "3200 2E00" + Repeat("3000", 125) + "30 39 00 39", R"(, "info": {"policy": 2})"), "", 1, {"Current BIOS Version: 2." + std::string(126, '0') + "\r\n", "The version of ROM file is not newer than current BIOS.\r\n"}, kNothing},
  };
  const Bytes before = DefaultFlash();
  const uint32_t kMeByte = 0x2000;
  Bytes image = before;
  for (uint32_t at : {kMeByte, kDxeByte}) image[at] ^= 0x5A;
  for (const auto& [name, machine, option, exit, console, landed] : rows) {
    SCOPED_TRACE(name);
    SimResult result = RunTool(machine, before, image, *option ? std::vector<std::string>{option} : std::vector<std::string>{});
    EXPECT_EQ(result.exitCode, exit) << result.errors;
    ExpectInOrder(result.console, console, "console");
    EXPECT_EQ(result.flash[kMeByte], (landed == kAll ? image : before)[kMeByte]);
    EXPECT_EQ(result.flash[kDxeByte], (landed == kNothing ? before : image)[kDxeByte]);
    if (landed == kNothing) EXPECT_TRUE(Count(result, "15h") == 0 && FirstDifference(result.flash, before) == std::string::npos);
  }
}

}  // namespace
