// The flash as the block writer meets it through functions 14h and 15h: erase-then-program
// writes, guarded ranges and the locked ME, a stale verify, and power cuts in mid-write.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

#include "SimBed.h"
#include "simulator/FlashPart.h"

namespace {

using namespace simtest;

std::string PartFile() {
  return (std::filesystem::temp_directory_path() / ("zaprom-part-" + std::to_string(::getpid()))).string();
}

// A small part with one 64 KB block and sixteen 4 KB blocks, ending at 4 GB.
constexpr char kMixedPart[] =
    R"({"flash": {"size": "0x20000", "blocks": [{"size": "0x10000", "count": 1}, {"size": "0x1000", "count": 16}]}})";

TEST(FlashWrite, EachTouchedBlockIsErasedThenProgrammedAndTheRestOfItKept) {
  struct Probe {
    uint32_t address;
    uint8_t expected;
  };
  struct Case {
    const char* what;
    uint8_t old;
    uint32_t address;
    uint32_t length;
    uint8_t data;
    std::vector<Probe> probes;
  };
  const Case cases[] = {
      {"0xFF over data gives 0xFF, not old AND new", 0x00, 0xFFFF0000, 0x1000, 0xFF,
       {{0xFFFF0000, 0xFF}, {0xFFFF0FFF, 0xFF}, {0xFFFF1000, 0x00}, {0xFFFEFFFF, 0x00}}},
      {"new bits may be set again after the erase", 0x5A, 0xFFFF3000, 0x1000, 0xA5,
       {{0xFFFF3000, 0xA5}, {0xFFFF3FFF, 0xA5}, {0xFFFF2FFF, 0x5A}, {0xFFFF4000, 0x5A}}},
      {"a short write keeps the rest of its block", 0x5A, 0xFFFF1008, 0x10, 0x3C,
       {{0xFFFF1000, 0x5A}, {0xFFFF1007, 0x5A}, {0xFFFF1008, 0x3C}, {0xFFFF1017, 0x3C}, {0xFFFF1018, 0x5A}}},
      {"a range over three blocks keeps the outer ends", 0x5A, 0xFFFF0800, 0x2000, 0x00,
       {{0xFFFF07FF, 0x5A}, {0xFFFF0800, 0x00}, {0xFFFF1FFF, 0x00}, {0xFFFF27FF, 0x00}, {0xFFFF2800, 0x5A}}},
      {"inside the 64 KB block", 0x5A, 0xFFFE8000, 0x100, 0x81,
       {{0xFFFE0000, 0x5A}, {0xFFFE8000, 0x81}, {0xFFFE80FF, 0x81}, {0xFFFE8100, 0x5A}, {0xFFFEFFFF, 0x5A}}},
  };
  // Each case once with the part in memory and once with the part kept in its file.
  const std::string file = PartFile();
  for (const Case& c : cases) for (const bool inFile : {false, true}) {
    TestMemory memory;
    sim::Simulator s(MachineFrom(kMixedPart), Fill(0x20000, c.old), memory.Access());
    std::string error;
    ASSERT_TRUE(!inFile || s.KeepFlashInFile(file, error)) << error;
    EXPECT_EQ(Write15(s, memory, c.address, Fill(c.length, c.data)), kOblisSuccess) << c.what;
    for (const Probe& p : c.probes) {
      EXPECT_EQ(FlashAt(s, p.address), p.expected) << c.what << " at 0x" << std::hex << p.address;
    }
    std::vector<uint8_t> read;
    EXPECT_EQ(Read14(s, memory, c.address, c.length, read), kOblisSuccess) << c.what;
    EXPECT_EQ(read, Fill(c.length, c.data)) << c.what;
    if (inFile) {
      std::ifstream in(file, std::ios::binary);
      EXPECT_EQ(std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {}), s.Flash()) << c.what;
    }
  }
  std::filesystem::remove(file);
}

// The identity of a part in its file is searched a megabyte at a time; it must be the one the
// same part gives in memory wherever the marker lies, across two of those windows too.
TEST(FlashInFile, TheBvdtIdentityIsFoundWhereverItsMarkerLies) {
  constexpr uint32_t kSize = 0x200000;
  const sim::Machine machine = MachineFrom(R"({"flash": {"size": "0x200000", "blocks": [{"size": "0x10000", "count": 32}]}})");
  struct Case {
    const char* what;
    int64_t offset;  // of "$BVDT$"; -1 for none
  };
  const Case cases[] = {{"first window", 0x1000},           {"across two windows", 0x100000 - 3},
                        {"second window", 0x100000},        {"head cut by the part's end", kSize - 0x30},
                        {"a marker only at the end", kSize - 6}, {"no marker", -1}};
  const std::string file = PartFile();
  for (const Case& c : cases) {
    std::vector<uint8_t> content(kSize, 0);
    if (c.offset >= 0) {
      const char head[] = "$BVDT$\0\0\0$\0\0\0$V9.87";
      std::memcpy(content.data() + c.offset, head, std::min<size_t>(sizeof head - 1, kSize - c.offset));
      if (c.offset + 0x2E <= kSize) std::memcpy(content.data() + c.offset + sim::kBvdtModelOffset, "MODEL-X", 7);
    }
    sim::FlashPart memory(machine, content), kept(machine, content);
    std::string error;
    ASSERT_TRUE(kept.KeepInFile(file, error)) << error;
    std::string model[2], version[2];
    EXPECT_EQ(memory.Identity(model[0], version[0]), c.offset >= 0) << c.what;
    EXPECT_EQ(kept.Identity(model[1], version[1]), c.offset >= 0) << c.what;
    EXPECT_EQ(model[1], model[0]) << c.what;
    EXPECT_EQ(version[1], version[0]) << c.what;
    EXPECT_EQ(model[0], c.offset >= 0 && c.offset + 0x2E <= kSize ? "MODEL-X" : "") << c.what;
  }
  std::filesystem::remove(file);
}

TEST(FlashWrite, RangesTheFirmwareCannotWriteLeaveTheFlashUnchanged) {
  struct Case {
    const char* json;
    uint32_t address;
    uint32_t length;
    uint8_t status;
    uint32_t protectedWrites;
  };
  const Case cases[] = {
      {R"({"flash": {"protect_mode": "refuse"}})", 0xFF800000, 0x1000, kOblisWriteFailed, 1},
      {R"({"flash": {"protect_mode": "skip"}})", 0xFF83F000, 0x1000, kOblisBlockSkipped, 1},
      {R"({"flash": {"protect_mode": "skip"}})", 0xFF87FFFF, 2, kOblisBlockSkipped, 1},   // last byte of FTW Backup
      {R"({"flash": {"protect_mode": "skip"}})", 0xFF880000, 0x1000, kOblisBlockSkipped, 1},  // private FTW State
      {R"({"flash": {"protect_mode": "none"}})", 0xFF800000, 0x1000, kOblisSuccess, 0},
      {R"({"flash": {"protect_mode": "refuse"}})", 0xFF7FF000, 0x1000, kOblisSuccess, 0},  // just below NV Storage
      {R"({"me": {"locked": true}})", 0xFF001000, 0x1000, kOblisBlockSkipped, 1},
      {R"({"me": {"locked": true, "write": "refuse"}})", 0xFF7FF000, 0x1000, kOblisWriteFailed, 1},
      {R"({"me": {"locked": true}})", 0xFF800000, 0x1000, kOblisSuccess, 0},  // BIOS, right behind ME
      {R"({"me": {"locked": false}})", 0xFF001000, 0x1000, kOblisSuccess, 0},
      {"{}", 0xFEFFF000, 0x1000, kOblisWriteFailed, 0},   // below the part
      {"{}", 0xFFFFF000, 0x1001, kOblisWriteFailed, 0},   // past 4 GB
  };
  for (const Case& c : cases) {
    TestMemory memory;
    const sim::Machine machine = MachineFrom(c.json);
    sim::Simulator s(machine, {}, memory.Access());
    const std::vector<uint8_t> before = s.Flash();
    EXPECT_EQ(Write15(s, memory, c.address, Fill(c.length, 0x00)), c.status) << c.json << std::hex << c.address;
    EXPECT_EQ(s.Counters().protectedWrites, c.protectedWrites) << c.json;
    EXPECT_EQ(s.Counters().written, c.status == kOblisSuccess ? 1u : 0u) << c.json;
    EXPECT_EQ(s.Flash() == before, c.status != kOblisSuccess) << c.json << " 0x" << std::hex << c.address;
  }
}

TEST(FlashFaults, VerifyFaultShowsTheOldContentExactlyNTimes) {
  TestMemory memory;
  sim::Simulator s(MachineFrom(R"({"faults": {"verify": 2}})"), Fill(0x1000000, 0x5A), memory.Access());
  const uint32_t a = 0xFFA00000, b = 0xFFA01000;
  struct Step {
    bool write;
    uint32_t address;
    uint8_t seen;  // for a read: the byte it hands back
  };
  const Step steps[] = {
      {true, a, 0},       {false, a, 0x5A},  // verify 1: stale
      {true, a, 0},       {false, a, 0x5A},  // verify 2: stale, the content before the first write
      {true, a, 0},       {false, a, 0x00},  // the faults are used up
      {true, b, 0},       {false, a, 0x00},  // not the range just written: no verify, no fault
  };
  for (size_t i = 0; i < std::size(steps); ++i) {
    std::vector<uint8_t> read;
    if (steps[i].write) {
      EXPECT_EQ(Write15(s, memory, steps[i].address, Fill(0x1000, 0x00)), kOblisSuccess) << i;
    } else {
      EXPECT_EQ(Read14(s, memory, steps[i].address, 0x1000, read), kOblisSuccess) << i;
      EXPECT_EQ(read, Fill(0x1000, steps[i].seen)) << "step " << i;
    }
  }
  EXPECT_EQ(FlashAt(s, a), 0x00) << "the writes themselves took";
  EXPECT_EQ(s.Counters().verified, 3u);
  EXPECT_EQ(s.Counters().written, 4u);
}

TEST(FlashFaults, PowerCutLeavesAnErasedHalfProgrammedBlockAndAnswersNothingMore) {
  TestMemory memory;
  sim::Simulator s(MachineFrom(R"({"power_cut_after_writes": 1})"), Fill(0x1000000, 0x5A), memory.Access());
  std::ostringstream trace;
  s.SetTrace(&trace);
  int handlerCalls = 0;
  s.SetPowerLossHandler([&] { ++handlerCalls; });
  EXPECT_EQ(Write15(s, memory, 0xFFA00000, Fill(0x1000, 0x3C)), kOblisSuccess);
  EXPECT_FALSE(s.PowerLost());
  const uint32_t cut = 0xFFA05000;
  std::memcpy(memory.At(kBuf), Fill(0x2000, 0x3C).data(), 0x2000);
  OblisRegisters frame = Frame(s.machine(), 0x15, 0x2000, cut, kBuf);
  const OblisRegisters loaded = frame;
  s.Transact(frame);
  EXPECT_TRUE(s.PowerLost());
  EXPECT_EQ(handlerCalls, 1);
  EXPECT_EQ(std::memcmp(&frame, &loaded, sizeof(frame)), 0) << "the handler never answered";
  EXPECT_EQ(FlashAt(s, cut), 0x3C) << "first half programmed over the erase (not 0x5A AND 0x3C)";
  EXPECT_EQ(FlashAt(s, cut + 0x7FF), 0x3C);
  EXPECT_EQ(FlashAt(s, cut + 0x800), 0xFF) << "second half erased";
  EXPECT_EQ(FlashAt(s, cut + 0xFFF), 0xFF);
  EXPECT_EQ(FlashAt(s, cut + 0x1000), 0x5A) << "the next block of the range untouched";
  EXPECT_EQ(s.Counters().written, 1u);

  const size_t calls = s.CallLog().size();
  OblisRegisters later = Frame(s.machine(), 0x1C);
  const OblisRegisters laterLoaded = later;
  s.Transact(later);
  EXPECT_EQ(std::memcmp(&later, &laterLoaded, sizeof(later)), 0);
  EXPECT_EQ(s.CallLog().size(), calls);
  EXPECT_EQ(handlerCalls, 1);
  // One trace line, the good write's: the cut one never got an answer.
  std::istringstream lines(trace.str());
  std::vector<nlohmann::json> parsed;
  for (std::string line; std::getline(lines, line);) parsed.push_back(nlohmann::json::parse(line));
  ASSERT_EQ(parsed.size(), 1u);
  EXPECT_EQ(parsed[0]["flash"]["address"], 0xFFA00000u);
}

TEST(FlashFaults, APowerCutCountedInOperationsStopsBetweenOrInsideThem) {
  // A one-block write first (17 operations: an erase and sixteen pages), then a two-block call
  // at a and b; old 0x5A, new 0x3C, so a page programmed without its erase would read 0x18.
  const uint32_t a = 0xFFFF1000, b = 0xFFFF2000;
  struct Row {
    uint32_t operations;
    uint8_t bytes;
    bool cut;
    std::vector<std::pair<uint32_t, uint8_t>> probes;
  };
  const Row rows[] = {
      {17, 0, true, {{a, 0x5A}, {a + 0xFFF, 0x5A}, {b, 0x5A}}},                   // before the call's erase
      {17, 200, true, {{a, 0x5A}, {b, 0x5A}}},                                    // bytes take on a page only
      {18, 0, true, {{a, 0xFF}, {a + 0xFFF, 0xFF}, {b, 0x5A}}},                   // erased, nothing programmed
      {18, 100, true, {{a, 0x3C}, {a + 99, 0x3C}, {a + 100, 0xFF}, {a + 0x100, 0xFF}}},  // mid first page
      {22, 0, true, {{a + 0x3FF, 0x3C}, {a + 0x400, 0xFF}, {b, 0x5A}}},           // between two pages
      {34, 0, true, {{a + 0xFFF, 0x3C}, {b, 0x5A}, {b + 0xFFF, 0x5A}}},           // between the two blocks
      {35, 255, true, {{b + 254, 0x3C}, {b + 255, 0xFF}, {b + 0x1000, 0x5A}}},    // last byte of a page missing
      {51, 0, false, {{a, 0x3C}, {b + 0xFFF, 0x3C}}},                             // cut falls after the call
  };
  for (const Row& row : rows) {
    TestMemory memory;
    nlohmann::json machine = {{"power_cut_after_operations", row.operations}};
    if (row.bytes != 0) machine["power_cut_programmed_bytes"] = row.bytes;
    sim::Simulator s(MachineFrom(machine.dump()), Fill(0x1000000, 0x5A), memory.Access());
    const std::string what = machine.dump();
    EXPECT_EQ(Write15(s, memory, 0xFFFF8000, Fill(0x1000, 0x3C)), kOblisSuccess) << what;
    EXPECT_FALSE(s.PowerLost()) << what;
    Write15(s, memory, a, Fill(0x2000, 0x3C));
    EXPECT_EQ(s.PowerLost(), row.cut) << what;
    EXPECT_EQ(s.Counters().written, row.cut ? 1u : 2u) << what;
    for (const auto& [address, expected] : row.probes) {
      EXPECT_EQ(FlashAt(s, address), expected) << what << " at 0x" << std::hex << address;
    }
  }
}

}  // namespace
