// Whole updates on the default simulated machine, one test per thing that must always hold: the
// flash ends equal to the image except where the firmware keeps its own, the BVDT block goes
// last, a second run writes nothing, a refusal leaves the flash alone, a region option writes
// only its region, -g saves the flash as it is, and a secure platform receives the image whole
// through 48h. What a power cut leaves is the campaign's (zaprom-cut).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "SimRun.h"
#include "ZaPromImage.h"

namespace {

// The default machine: 16 MB part of 4 KB blocks ending at 4 GB, ME below 8 MB, BIOS above.
constexpr uint32_t kRomSize = 0x1000000;
constexpr uint32_t kRomBase = 0xFF000000u;
constexpr uint32_t kBlock = 0x1000;
constexpr uint32_t kMeStart = 0x1000, kBiosStart = 0x800000;
constexpr uint32_t kVersionAt = kDefaultBvdt + 0x0E;
constexpr uint32_t kModelAt = kDefaultBvdt + 0x27;

struct Range {
  uint32_t offset, size;
};
// NV Storage and FTW Backup (protection list) and FTW State (private list).
const Range kKeptRanges[] = {{0x800000, 0x40000}, {0x840000, 0x40000}, {0x880000, 0x10000}};

bool InKept(uint32_t offset) {
  return std::any_of(std::begin(kKeptRanges), std::end(kKeptRanges),
                     [offset](const Range& r) { return offset >= r.offset && offset - r.offset < r.size; });
}
bool InOemData(uint32_t address) { return address - kRomBase - kDefaultBvdt < 0x10000; }

void PutField(Bytes& image, uint32_t at, size_t bytes, const std::string& text) {
  std::fill(image.begin() + at, image.begin() + at + bytes, 0);
  std::copy(text.begin(), text.begin() + std::min(bytes, text.size()), image.begin() + at);
}

// The default content with a pattern in every BIOS block, the ME changed, the given identity in
// the BVDT, and the kept ranges filled with junk that must never reach the flash.
Bytes NewImage(const std::string& version = "V9.99", const std::string& model = "DV-REF1000") {
  Bytes image = DefaultFlash();
  for (uint32_t at = kBiosStart; at < kRomSize; at += 0x100)
    if (at < kDefaultBvdt || at >= kDefaultBvdt + kBlock) image[at] = static_cast<uint8_t>(at >> 12);
  for (uint32_t at = kMeStart; at < kBiosStart; at += 0x10000) image[at] ^= 0x5A;
  for (const Range& r : kKeptRanges) std::fill(image.begin() + r.offset, image.begin() + r.offset + r.size, 0xA5);
  PutField(image, kVersionAt, 24, version);
  PutField(image, kModelAt, 25, model);
  return image;
}

// What a good update leaves: the image from `from` on, except where the firmware keeps its own.
Bytes Expected(const Bytes& before, const Bytes& image, uint32_t from = 0) {
  Bytes expected = image;
  for (uint32_t i = 0; i < kRomSize; i++)
    if (i < from || InKept(i)) expected[i] = before[i];
  return expected;
}

std::vector<uint32_t> WrittenAddresses(const SimResult& result) {
  std::vector<uint32_t> addresses;
  for (const SmiCall& call : result.calls)
    if (call.fn == "15h") addresses.push_back(call.in["edi"].get<uint32_t>());
  return addresses;
}

// The BVDT block's writes come after every other block's, the rest in address order.
void ExpectBvdtLast(const std::vector<uint32_t>& writes) {
  ASSERT_FALSE(writes.empty());
  const auto firstHeld = std::find_if(writes.begin(), writes.end(), InOemData);
  EXPECT_TRUE(std::all_of(firstHeld, writes.end(), InOemData));
  EXPECT_TRUE(std::is_sorted(writes.begin(), firstHeld));
  EXPECT_EQ(std::count(writes.begin(), writes.end(), kRomBase + kDefaultBvdt), 1);
  EXPECT_TRUE(InOemData(writes.back()));
}

TEST(UpdateScenarios, TheFlashEndsAsTheImageWithTheBvdtBlockLastAndASecondRunWritesNothing) {
  const Bytes before = DefaultFlash();
  const Bytes image = NewImage();
  SimResult first = RunTool("", before, image, {"-dbg"});
  ASSERT_EQ(first.exitCode, 0) << first.console << first.errors;
  EXPECT_NE(first.console.find("Update Progress: Completed"), std::string::npos) << first.console;
  EXPECT_EQ(FirstDifference(first.flash, Expected(before, image)), std::string::npos);
  ExpectBvdtLast(WrittenAddresses(first));
  for (uint32_t address : WrittenAddresses(first)) EXPECT_FALSE(InKept(address - kRomBase)) << std::hex << address;
  EXPECT_NE(first.log.find("Write BVDT block 0xFF890000 size 0x1000\r\n"), std::string::npos);
  // The part's own counts agree with the wire: one erase and 16 pages per 4 KB block written.
  uint64_t read = 0;
  for (const SmiCall& call : first.calls) read += call.fn == "14h" ? call.record["flash"]["length"].get<uint64_t>() : 0;
  EXPECT_EQ(first.stats["bytes_read"], read);
  EXPECT_EQ(first.stats["erases"], Count(first, "15h"));
  EXPECT_EQ(first.stats["page_programs"], 16 * Count(first, "15h"));

  SimResult second = RunTool("", first.flash, image, {});
  ASSERT_EQ(second.exitCode, 0) << second.console;
  EXPECT_EQ(Count(second, "15h"), 0u);
  EXPECT_EQ(FirstDifference(second.flash, first.flash), std::string::npos);
}

// One refusal of each kind: of the image's size, of the power, of a legacy image on a secure platform.
TEST(UpdateScenarios, ARefusalLeavesTheFlashAlone) {
  struct Row {
    const char* what;
    std::string machine;
    Bytes image;
    std::string message;
  };
  Bytes shortImage = NewImage("V1.03");
  shortImage.pop_back();
  const Row rows[] = {
      {"one byte short", "", shortImage,
       "ERROR!\r\nSize not match!\r\n-----+---------\r\n  ROM  0x1000000\r\n File  0xFFFFFF\r\n"},
      {"secure payload one byte short", R"({"capsule": {"secure": true}})", zimage::WrapSecure(shortImage, {}, {}),
       "ERROR!\r\nSize not match!\r\n-----+---------\r\n  ROM  0x1000000\r\n File  0xFFFFFF\r\n"},
      {"no AC", R"({"status": {"ac": 0}})", NewImage("V1.03"), "Warning: No AC Connected"},
      {"a legacy image on a secure platform", R"({"capsule": {"secure": true}})", NewImage("V1.03"),
       "It only supports to flash secure BIOS on current platform.\r\nThe image to be updated is not a secure BIOS.\r\n"
       "\r\n\n" + kNothingWritten},
  };
  const Bytes before = DefaultFlash();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    SimResult result = RunTool(row.machine, before, row.image, {});
    EXPECT_EQ(result.exitCode, 1) << result.errors;
    EXPECT_NE(result.console.find(row.message), std::string::npos) << result.console;
    EXPECT_EQ(Count(result, "15h"), 0u);
    EXPECT_EQ(FirstDifference(result.flash, before), std::string::npos);
  }
}

// -bios leaves the ME as it was; -me on a locked machine offers the ME blocks, which the firmware
// skips, and leaves the BIOS alone.
TEST(UpdateScenarios, ARegionOptionWritesOnlyItsRegion) {
  struct Row {
    const char* what;
    std::string machine;
    std::string option;
    bool biosWritten;
    int status;  // of every 15h call
    std::string logLine;
  };
  const Row rows[] = {
      {"-bios", "", "-bios", true, 0, "Write BVDT block 0xFF890000 size 0x1000\r\n"},
      {"-me on a locked ME", R"({"me": {"locked": true}})", "-me", false, 0x29, "ME |LOCKED|\r\n"},
  };
  const Bytes before = DefaultFlash();
  const Bytes image = NewImage();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    SimResult result = RunTool(row.machine, before, image, {row.option, "-dbg"});
    ASSERT_EQ(result.exitCode, 0) << result.console << result.errors;
    const Bytes expected = row.biosWritten ? Expected(before, image, kBiosStart) : before;
    EXPECT_EQ(FirstDifference(result.flash, expected), std::string::npos);
    ASSERT_GT(Count(result, "15h"), 0u);
    for (const SmiCall& call : result.calls) {
      if (call.fn != "15h") continue;
      const uint32_t offset = call.in["edi"].get<uint32_t>() - kRomBase;
      EXPECT_EQ(offset >= kBiosStart, row.biosWritten) << std::hex << offset;
      EXPECT_EQ(call.status, row.status);
    }
    if (row.biosWritten) ExpectBvdtLast(WrittenAddresses(result));
    EXPECT_NE(result.log.find(row.logLine), std::string::npos) << result.log;
  }
}

TEST(UpdateScenarios, SaveWholeRomWritesAFileEqualToTheFlash) {
  const std::string lockedWarning = "Warning!\r\nME is locked. The ME region of the saved file is invalid.\r\n";
  for (bool locked : {false, true}) {
    SCOPED_TRACE(locked ? "locked ME" : "open ME");
    SimRequest request;
    request.machineJson = locked ? R"({"me": {"locked": true}})" : "";
    request.arguments = {"dump.bin", "-g"};
    request.readBack = {"dump.bin"};
    SimResult result = RunSim(request);
    EXPECT_EQ(result.exitCode, 0) << result.console;
    ASSERT_EQ(result.files.count("dump.bin"), 1u) << result.console;
    EXPECT_EQ(result.files["dump.bin"].size(), kRomSize);
    EXPECT_TRUE(result.files["dump.bin"] == Text(result.flash));
    EXPECT_EQ(Count(result, "15h"), 0u);
    const size_t done = result.console.find("Read Progress: Completed");
    EXPECT_LT(result.console.find("Read current ROM start!"), done) << result.console;
    EXPECT_EQ(FindFrom(result.console, lockedWarning, done) != std::string::npos, locked) << result.console;
  }
}

// ---- the secure image and 48h ----

// The digest the simulator reports of what it received, computed here on its own.
std::string Fnv1a(const Bytes& bytes) {
  uint64_t hash = 0xCBF29CE484222325ull;
  for (uint8_t b : bytes) hash = (hash ^ b) * 0x100000001B3ull;
  char text[17];
  std::snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

TEST(UpdateScenarios, ASecurePlatformReceivesTheWholeImageThrough48hAndNoBlockIsWritten) {
  const Bytes image = zimage::WrapSecure(NewImage(), {}, {});
  SimResult result = RunTool(R"({"capsule": {"secure": true, "action": 2}})", {}, image, {"-dbg"});
  ASSERT_EQ(result.exitCode, 0) << result.console << result.errors;
  EXPECT_EQ(Count(result, "15h"), 0u);
  EXPECT_EQ(result.flash, DefaultFlash());

  std::vector<nlohmann::json> capsules;
  for (const SmiCall& call : result.calls)
    if (call.fn == "48h" && call.record.contains("capsule")) capsules.push_back(call.record["capsule"]);
  ASSERT_EQ(capsules.size(), 1u);
  EXPECT_EQ(capsules[0]["size"].get<uint32_t>(), image.size());
  EXPECT_EQ(capsules[0]["image_fnv1a"].get<std::string>(), Fnv1a(image));

  // The firmware's action 2 (shut down) becomes the finish report's action.
  ASSERT_EQ(result.calls.back().fn, "16h");
  EXPECT_EQ(result.calls.back().in["ecx"].get<uint32_t>() & 0xFF, 1u) << "shutdown";
  EXPECT_NE(result.log.find("BIOS return action (2)\r\n"), std::string::npos);
}

// Hook point 1 right after 10h, hook point 0 and the final report at the very end of every run,
// each call with the caller's signature and the command port of the FADT.
TEST(UpdateScenarios, HookPointsAndTheFinalReportFrameEveryRun) {
  SimRequest bare;
  bare.keys = "  ";  // a bare run ends with the help, whose pager waits for keys
  SimResult result = RunSim(bare);
  ASSERT_GE(result.calls.size(), 3u);
  EXPECT_EQ(result.calls[1].fn, "1Fh");
  EXPECT_EQ(result.calls[1].in["ecx"], 1);
  const SmiCall& hook = result.calls[result.calls.size() - 2];
  EXPECT_EQ(hook.fn, "1Fh");
  EXPECT_EQ(hook.in["ecx"], 0);
  // A run that stopped before any finish state was set reports "Do Nothing": CL 0, CH 0.
  EXPECT_EQ(result.calls.back().fn, "16h");
  EXPECT_EQ(result.calls.back().in["ecx"].get<uint32_t>() & 0xFFFF, 0u);
  for (const auto& call : result.calls) {
    EXPECT_EQ(call.in["ebx"], 0x24445652) << call.fn;
    EXPECT_EQ(call.in["edx"].get<uint32_t>() & 0xFFFF, 0xB2u) << call.fn;
  }
}

}  // namespace
