// Whole updates of a plain image through the block writer on the default simulated machine: what
// lands in the flash, the order of the writes with the BVDT block last, a second run that finds
// nothing to do, the size refusals, and a power cut half-way.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "SimRun.h"

namespace {

using Bytes = std::vector<uint8_t>;

// The default machine: 16 MB part of 4 KB blocks ending at 4 GB, BIOS in the upper half.
constexpr uint32_t kRomSize = 0x1000000;
constexpr uint32_t kRomBase = 0xFF000000u;
constexpr uint32_t kBlock = 0x1000;
constexpr uint32_t kBvdtOffset = 0x890000;  // the OEM Data region holds the BVDT
constexpr uint32_t kBvdtVersionAt = kBvdtOffset + 0x0E;

struct Range {
  uint32_t offset, size;
};
// NV Storage and FTW Backup (protection list) and FTW State (private list).
const Range kKeptRanges[] = {{0x800000, 0x40000}, {0x840000, 0x40000}, {0x880000, 0x10000}};

bool InOemData(uint32_t address) { return address >= kRomBase + kBvdtOffset && address < kRomBase + kBvdtOffset + 0x10000; }

bool InKept(uint32_t offset) {
  for (const Range& r : kKeptRanges)
    if (offset >= r.offset && offset - r.offset < r.size) return true;
  return false;
}

// The flash the default machine starts with, as a run leaves it untouched.
// A new image: the default content with the BIOS region rewritten (a pattern in every block of
// the upper half, the BVDT block's version changed) and the kept ranges filled with junk that
// must never reach the flash.
Bytes NewImage() {
  Bytes image = DefaultFlash();
  for (uint32_t at = 0x800000; at < kRomSize; at += 0x100)
    if (at < kBvdtOffset || at >= kBvdtOffset + kBlock) image[at] = (uint8_t)(at >> 12);
  for (const Range& r : kKeptRanges) std::fill(image.begin() + r.offset, image.begin() + r.offset + r.size, 0xA5);
  const std::string version = "V9.99";
  std::copy(version.begin(), version.end(), image.begin() + kBvdtVersionAt);
  return image;
}

std::string Text(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

struct FlashWrite {
  uint32_t address, length;
};
// The 15h calls of the SMI trace: EDI the flash address, ECX the byte count.
std::vector<FlashWrite> Writes(const SimResult& result) {
  std::vector<FlashWrite> writes;
  for (const SmiCall& call : result.calls) {
    if (call.fn != "15h") continue;
    writes.push_back({call.in["edi"].get<uint32_t>(), call.in["ecx"].get<uint32_t>()});
  }
  return writes;
}

// What the flash must hold after a good update: the image, except where the firmware keeps its own.
Bytes Expected(const Bytes& before, const Bytes& image) {
  Bytes expected = image;
  for (uint32_t i = 0; i < kRomSize; i++)
    if (InKept(i)) expected[i] = before[i];
  return expected;
}

size_t FirstDifference(const Bytes& a, const Bytes& b) {
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; i++)
    if (a[i] != b[i]) return i;
  return a.size() == b.size() ? std::string::npos : n;
}

SimResult Update(const Bytes& flash, const Bytes& image, const std::string& machine = "",
                 std::vector<std::string> options = {}) {
  SimRequest request;
  request.machineJson = machine;
  request.arguments = {"new.bin"};
  request.arguments.insert(request.arguments.end(), options.begin(), options.end());
  request.flash = flash;
  request.volumeFiles = {{"new.bin", Text(image)}};
  return RunSim(request);
}

TEST(MainRoadScenarios, PlainImageIsWrittenWithTheBvdtBlockLast) {
  const Bytes before = DefaultFlash();
  const Bytes image = NewImage();
  SimResult result = Update(before, image, "", {"-dbg"});
  ASSERT_EQ(result.exitCode, 0) << result.console << result.errors;
  EXPECT_NE(result.console.find("Update Progress: Completed"), std::string::npos) << result.console;
  const Bytes expected = Expected(before, image);
  EXPECT_EQ(FirstDifference(result.flash, expected), std::string::npos);

  std::vector<FlashWrite> writes = Writes(result);
  ASSERT_FALSE(writes.empty());
  // The OEM Data region holds the BVDT: its blocks are held back and written after all others.
  size_t firstHeld = writes.size();
  for (size_t i = 0; i < writes.size(); i++) {
    EXPECT_EQ(writes[i].length, kBlock);
    EXPECT_FALSE(InKept(writes[i].address - kRomBase)) << std::hex << writes[i].address;
    bool held = InOemData(writes[i].address);
    if (held && firstHeld == writes.size()) firstHeld = i;
    EXPECT_EQ(held, i >= firstHeld) << "write " << i << " at " << std::hex << writes[i].address;
    if (i > 0 && i != firstHeld) EXPECT_LT(writes[i - 1].address, writes[i].address) << "in address order";
  }
  EXPECT_LT(firstHeld, writes.size());
  EXPECT_EQ(std::count_if(writes.begin(), writes.end(),
                          [](const FlashWrite& w) { return w.address == kRomBase + kBvdtOffset; }),
            1);
  EXPECT_NE(result.log.find("Write BVDT block 0xFF890000 size 0x1000\r\n"), std::string::npos);
}

TEST(MainRoadScenarios, SecondRunComparesEqualAndWritesNothing) {
  const Bytes before = DefaultFlash();
  const Bytes image = NewImage();
  SimResult first = Update(before, image);
  ASSERT_EQ(first.exitCode, 0) << first.console;
  SimResult second = Update(first.flash, image);
  ASSERT_EQ(second.exitCode, 0) << second.console;
  EXPECT_TRUE(Writes(second).empty()) << Writes(second).size() << " blocks written again";
  EXPECT_EQ(FirstDifference(second.flash, first.flash), std::string::npos);
}

struct RefusalRow {
  const char* what;
  long sizeChange;  // bytes added to (or taken from) the image
  std::vector<std::string> options;
  std::string message;
};

TEST(MainRoadScenarios, ImagesOfTheWrongSizeAreRefusedBeforeAnyWrite) {
  const std::vector<RefusalRow> rows = {
      {"one byte short", -1, {}, "ERROR!\r\nSize not match!\r\n-----+---------\r\n  ROM  0x1000000\r\n File  0xFFFFFF\r\n"},
      {"ROM plus 1 KB without an EC option", 0x400, {},
       "ERROR!\r\nsize not match\r\n-----+---------\r\n  ROM  0x1000000\r\n File  with EC (1K)\r\n"},
  };
  const Bytes before = DefaultFlash();
  for (const RefusalRow& row : rows) {
    Bytes image = NewImage();
    if (row.sizeChange < 0) image.resize(image.size() - (size_t)(-row.sizeChange));
    else image.insert(image.begin(), (size_t)row.sizeChange, 0xEC);  // the EC part stands in front
    SimResult result = Update(before, image, "", row.options);
    EXPECT_EQ(result.exitCode, 1) << row.what << result.console;
    EXPECT_NE(result.console.find(row.message), std::string::npos) << row.what << "\n" << result.console;
    EXPECT_TRUE(Writes(result).empty()) << row.what;
    EXPECT_EQ(FirstDifference(result.flash, before), std::string::npos) << row.what;
    EXPECT_EQ(result.console.find("Update Progress: Completed"), std::string::npos) << row.what;
  }
}

TEST(MainRoadScenarios, PowerCutHalfWayLeavesTheOldBvdtAndASecondRunFinishes) {
  const Bytes before = DefaultFlash();
  const Bytes image = NewImage();
  SimResult cut = Update(before, image, R"({"power_cut_after_writes": 600})");
  EXPECT_NE(cut.exitCode, 0) << cut.console;
  EXPECT_EQ(Writes(cut).size(), 600u);
  EXPECT_TRUE(std::equal(before.begin() + kBvdtOffset, before.begin() + kBvdtOffset + kBlock,
                         cut.flash.begin() + kBvdtOffset))
      << "the old identity stays until every other block is written";
  EXPECT_NE(FirstDifference(cut.flash, before), std::string::npos) << "some blocks were written";

  SimResult again = Update(cut.flash, image);
  ASSERT_EQ(again.exitCode, 0) << again.console;
  EXPECT_EQ(FirstDifference(again.flash, Expected(before, image)), std::string::npos);
  EXPECT_TRUE(InOemData(Writes(again).back().address));
}

TEST(MainRoadScenarios, MeOptionOnALockedMachineLeavesTheMeAndEverythingElseAlone) {
  // The ME region of the default descriptor: 0x1000 to 0x7FFFFF.
  constexpr uint32_t kMeStart = 0x1000, kMeEnd = 0x800000;
  const Bytes before = DefaultFlash();
  Bytes image = NewImage();
  for (uint32_t at = kMeStart; at < kMeEnd; at += 0x10000) image[at] ^= 0x5A;
  SimResult result = Update(before, image, R"({"me": {"locked": true}})", {"-me", "-dbg"});
  ASSERT_EQ(result.exitCode, 0) << result.console << result.errors;
  EXPECT_EQ(FirstDifference(result.flash, before), std::string::npos) << "neither the ME nor the unselected BIOS";
  std::vector<FlashWrite> writes = Writes(result);
  EXPECT_FALSE(writes.empty()) << "the changed ME blocks are offered to the firmware";
  for (const SmiCall& call : result.calls) {
    if (call.fn != "15h") continue;
    const uint32_t offset = call.in["edi"].get<uint32_t>() - kRomBase;
    EXPECT_TRUE(offset >= kMeStart && offset < kMeEnd) << std::hex << offset;
    EXPECT_EQ(call.status, 0x29) << "the firmware skips every write into a locked ME";
  }
  EXPECT_NE(result.log.find("ME |LOCKED|\r\n"), std::string::npos);
}

TEST(MainRoadScenarios, AnOemMeUpdateThatCannotRunStopsTheBiosWriteBeforeItStarts) {
  const Bytes before = DefaultFlash();
  SimRequest request;
  request.arguments = {"new.bin"};
  request.flash = before;
  request.volumeFiles = {{"new.bin", Text(NewImage())}, {"platform.ini", "[UpdateOEMME]\r\nMEFileName=me.bin\r\n"}};
  SimResult result = RunSim(request);
  EXPECT_EQ(result.exitCode, 1) << result.console;
  EXPECT_NE(result.console.find("Warning!\r\n Utility FwUpdLcl.efi not found.\r\n"), std::string::npos)
      << result.console;
  EXPECT_TRUE(Writes(result).empty());
  EXPECT_EQ(FirstDifference(result.flash, before), std::string::npos);
}

}  // namespace
