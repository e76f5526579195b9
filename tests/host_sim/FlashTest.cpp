// The flash as the block writer and the ROM read meet it through functions 14h, 15h and 17h:
// erase-then-program writes, guarded ranges and the locked ME, the external maps read from a
// descriptor, the writer's faults, the counters of the run summary, the timing and the trace.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "SimHarness.h"
#include "simulator/FlashService.h"

namespace {

using namespace simtest;

// A small part with one 64 KB block and sixteen 4 KB blocks, ending at 4 GB.
constexpr char kMixedPart[] =
    R"({"flash": {"size": "0x20000", "blocks": [{"size": "0x10000", "count": 1}, {"size": "0x1000", "count": 16}]}})";
constexpr uint32_t kMixedBase = 0xFFFE0000;
constexpr uint32_t kDefaultBase = 0xFF000000;

uint8_t Write15(sim::Simulator& s, TestMemory& memory, uint32_t address, const std::vector<uint8_t>& data) {
  std::memcpy(memory.At(kBuf), data.data(), data.size());
  return Status(Call(s, 0x15, static_cast<uint32_t>(data.size()), address, kBuf));
}

uint8_t Read14(sim::Simulator& s, TestMemory& memory, uint32_t address, uint32_t length, std::vector<uint8_t>& out) {
  std::fill_n(memory.At(kBuf2), length, 0xEE);
  const uint8_t status = Status(Call(s, 0x14, length, address, kBuf2));
  out.assign(memory.At(kBuf2), memory.At(kBuf2) + length);
  return status;
}

std::vector<uint8_t> Bytes(uint32_t length, uint8_t value) { return std::vector<uint8_t>(length, value); }

uint8_t FlashAt(const sim::Simulator& s, uint32_t address) { return s.Flash()[address - (0u - uint32_t(s.Flash().size()))]; }

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
  for (const Case& c : cases) {
    TestMemory memory;
    sim::Simulator s(MachineFrom(kMixedPart), Bytes(0x20000, c.old), memory.Access());
    EXPECT_EQ(Write15(s, memory, c.address, Bytes(c.length, c.data)), kOblisSuccess) << c.what;
    for (const Probe& p : c.probes) {
      EXPECT_EQ(FlashAt(s, p.address), p.expected) << c.what << " at 0x" << std::hex << p.address;
    }
    std::vector<uint8_t> read;
    EXPECT_EQ(Read14(s, memory, c.address, c.length, read), kOblisSuccess) << c.what;
    EXPECT_EQ(read, Bytes(c.length, c.data)) << c.what;
  }
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
    EXPECT_EQ(Write15(s, memory, c.address, Bytes(c.length, 0x00)), c.status) << c.json << std::hex << c.address;
    EXPECT_EQ(s.Counters().protectedWrites, c.protectedWrites) << c.json;
    EXPECT_EQ(s.Counters().written, c.status == kOblisSuccess ? 1u : 0u) << c.json;
    EXPECT_EQ(s.Flash() == before, c.status != kOblisSuccess) << c.json << " 0x" << std::hex << c.address;
  }
}

TEST(FlashRead, OutsideThePartAndInALockedMe) {
  struct Case {
    const char* json;
    uint32_t address;
    uint32_t length;
    uint8_t status;
    std::vector<uint8_t> expected;  // empty: the buffer is not written
  };
  // Around the ME/BIOS boundary at 0xFF800000 the test content holds 0x11 in ME, 0x22 in BIOS.
  const std::vector<uint8_t> real = {0x11, 0x11, 0x22, 0x22};
  const Case cases[] = {
      {"{}", 0xFF7FFFFE, 4, kOblisSuccess, real},
      {R"({"me": {"locked": true}})", 0xFF7FFFFE, 4, kOblisLockedMe, {0xFF, 0xFF, 0x22, 0x22}},
      {R"({"me": {"locked": true}})", 0xFF800000, 2, kOblisSuccess, {0x22, 0x22}},
      {R"({"me": {"locked": true}, "maps": {"external": [{"type": "0x20", "offset": "0x7FFFFF", "size": 1}]}})",
       0xFF7FFFFE, 4, kOblisLockedMe, {0x11, 0xFF, 0x22, 0x22}},
      {"{}", 0xFEFFFFFE, 4, kOblisReadFailed, {}},
      {"{}", 0xFFFFFFFE, 4, kOblisReadFailed, {}},
  };
  for (const Case& c : cases) {
    TestMemory memory;
    const sim::Machine machine = MachineFrom(c.json);
    std::vector<uint8_t> content = sim::DefaultFlashContent(machine);
    std::fill(content.begin() + 0x7FFF00, content.begin() + 0x800000, 0x11);
    std::fill(content.begin() + 0x800000, content.begin() + 0x800100, 0x22);
    sim::Simulator s(machine, content, memory.Access());
    std::vector<uint8_t> read;
    EXPECT_EQ(Read14(s, memory, c.address, c.length, read), c.status) << c.json;
    EXPECT_EQ(read, c.expected.empty() ? Bytes(c.length, 0xEE) : c.expected) << c.json << std::hex << c.address;
  }
}

// A descriptor in the public layout: FLMAP0 at 0x14 names the region section, FLMAP1 at 0x18
// the master section; FLREGn holds base and limit in 4 KB units.
std::vector<uint8_t> Descriptor(const std::vector<uint32_t>& flreg, uint32_t flmstr1) {
  std::vector<uint8_t> d(0x1000, 0xFF);
  auto put = [&](uint32_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) d[at + i] = static_cast<uint8_t>(v >> (8 * i));
  };
  put(0x10, 0x0FF0A55A);
  put(0x14, 0x04040003);  // FCBA 0x30, FRBA 0x40, NR 4
  put(0x18, 0x12100208);  // FMBA 0x80
  for (size_t n = 0; n < flreg.size(); ++n) put(0x40 + 4 * static_cast<uint32_t>(n), flreg[n]);
  put(0x80, flmstr1);
  return d;
}

std::vector<sim::ExternalRegion> ListAt(const uint8_t* bytes) {
  std::vector<sim::ExternalRegion> list;
  for (uint32_t i = 0; i < kExternalListLimit; ++i) {
    OblisExternalRecord r;
    std::memcpy(&r, bytes + i * sizeof(r), sizeof(r));
    if (r.type == 0xFF) break;
    list.push_back({r.type, r.offset, r.size, r.access});
  }
  return list;
}

TEST(ExternalMap, BothListsComeFromTheirDescriptors) {
  // Current: descriptor 0-0xFFF, GbE 0x1000-0x2FFF, ME 0x3000-0x3FFFFF, BIOS 0x400000-0xFFFFFF,
  // platform data unused; the host reads descriptor, BIOS, GbE and writes BIOS, GbE.
  const std::vector<uint8_t> current =
      Descriptor({0x00000000, 0x0FFF0400, 0x03FF0003, 0x00020001, 0x00007FFF}, 0x0A0B0000);
  // New image: BIOS and ME only, the host may read and write everything.
  const std::vector<uint8_t> image = Descriptor({0x00000000, 0x0FFF0800, 0x07FF0001, 0x00007FFF, 0x00007FFF}, 0xFFFF0000);
  struct Case {
    const char* what;
    const char* json;
    std::vector<uint8_t> in;
    std::vector<sim::ExternalRegion> currentList, newList;
  };
  const std::vector<sim::ExternalRegion> currentRegions = {
      {0, 0, 0x1000, 1}, {1, 0x400000, 0xC00000, 3}, {2, 0x3000, 0x3FD000, 0}, {3, 0x1000, 0x2000, 3}};
  const std::vector<sim::ExternalRegion> newRegions = {{0, 0, 0x1000, 3}, {1, 0x800000, 0x800000, 3}, {2, 0x1000, 0x7FF000, 3}};
  const std::vector<sim::ExternalRegion> five = {{0, 0, 1, 0}, {1, 1, 1, 1}, {2, 2, 1, 2}, {3, 3, 1, 3}, {0x20, 4, 1, 0}};
  const Case cases[] = {
      {"both descriptors", "{}", image, currentRegions, newRegions},
      {"no image: empty new list", "{}", std::vector<uint8_t>(0x1000, 0), currentRegions, {}},
      {"the machine's list replaces the descriptor", R"({"maps": {"external": [{"type": 0, "offset": 0, "size": 1},
         {"type": 1, "offset": 1, "size": 1, "access": 1}, {"type": 2, "offset": 2, "size": 1, "access": 2},
         {"type": 3, "offset": 3, "size": 1, "access": 3}, {"type": "0x20", "offset": 4, "size": 1}]}})",
       image, five, newRegions},
  };
  for (const Case& c : cases) {
    TestMemory memory;
    const sim::Machine machine = MachineFrom(c.json);
    std::vector<uint8_t> content = sim::DefaultFlashContent(machine);
    std::copy(current.begin(), current.end(), content.begin());
    sim::Simulator s(machine, content, memory.Access());
    std::copy(c.in.begin(), c.in.end(), memory.At(kBuf2));
    std::fill_n(memory.At(kBuf), 0x1001, 0xEE);
    ASSERT_EQ(Status(Call(s, 0x17, 0x1000, kBuf, kBuf2)), kOblisSuccess) << c.what;
    EXPECT_EQ(ListAt(memory.At(kBuf)), c.currentList) << c.what;
    EXPECT_EQ(ListAt(memory.At(kBuf + kExternalNewListOffset)), c.newList) << c.what;
    // Each list shorter than five ends at a record of type 0xFF; the answer is 0x1000 bytes.
    if (c.currentList.size() < 5) EXPECT_EQ(memory.At(kBuf)[c.currentList.size() * 10], 0xFF) << c.what;
    EXPECT_EQ(memory.At(kBuf + kExternalNewListOffset)[c.newList.size() * 10], 0xFF) << c.what;
    EXPECT_EQ(memory.At(kBuf)[0xFFF], 0x00) << c.what;
    EXPECT_EQ(memory.At(kBuf)[0x1000], 0xEE) << c.what;
  }
}

TEST(ExternalMap, DefaultContentAndAShortBufferLength) {
  TestMemory memory;
  sim::Simulator s(sim::DefaultMachine(), {}, memory.Access());
  const std::vector<sim::ExternalRegion> expected = {{0, 0, 0x1000, 1}, {1, 0x800000, 0x800000, 3}, {2, 0x1000, 0x7FF000, 0}};
  EXPECT_EQ(s.CurrentExternalMap(), expected);
  EXPECT_EQ(Status(Call(s, 0x17, 0xFFF, kBuf, kBuf2)), kOblisBufferTooSmall);
}

TEST(FlashFaults, VerifyFaultShowsTheOldContentExactlyNTimes) {
  TestMemory memory;
  sim::Simulator s(MachineFrom(R"({"faults": {"verify": 2}})"), Bytes(0x1000000, 0x5A), memory.Access());
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
      EXPECT_EQ(Write15(s, memory, steps[i].address, Bytes(0x1000, 0x00)), kOblisSuccess) << i;
    } else {
      EXPECT_EQ(Read14(s, memory, steps[i].address, 0x1000, read), kOblisSuccess) << i;
      EXPECT_EQ(read, Bytes(0x1000, steps[i].seen)) << "step " << i;
    }
  }
  EXPECT_EQ(FlashAt(s, a), 0x00) << "the writes themselves took";
  EXPECT_EQ(s.Counters().verified, 3u);
  EXPECT_EQ(s.Counters().written, 4u);
}

TEST(FlashFaults, PowerCutLeavesAnErasedHalfProgrammedBlockAndAnswersNothingMore) {
  TestMemory memory;
  sim::Simulator s(MachineFrom(R"({"power_cut_after_writes": 1})"), Bytes(0x1000000, 0x5A), memory.Access());
  std::ostringstream trace;
  s.SetTrace(&trace);
  int handlerCalls = 0;
  s.SetPowerLossHandler([&] { ++handlerCalls; });
  EXPECT_EQ(Write15(s, memory, 0xFFA00000, Bytes(0x1000, 0x3C)), kOblisSuccess);
  EXPECT_FALSE(s.PowerLost());
  const uint32_t cut = 0xFFA05000;
  std::memcpy(memory.At(kBuf), Bytes(0x2000, 0x3C).data(), 0x2000);
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

TEST(FlashTrace, ReadsAndWritesCarryTheirFlashAccess) {
  TestMemory memory;
  sim::Simulator s(MachineFrom(R"({"faults": {"15h": {"code": "0x25", "times": 1}}})"), {}, memory.Access());
  std::ostringstream trace;
  s.SetTrace(&trace);
  EXPECT_EQ(Write15(s, memory, 0xFFA00000, Bytes(0x1000, 0)), kOblisWriteFailed);  // the fault
  EXPECT_EQ(Write15(s, memory, 0xFFA00000, Bytes(0x1000, 0)), kOblisSuccess);
  std::vector<uint8_t> read;
  EXPECT_EQ(Read14(s, memory, 0xFFA00010, 0x20, read), kOblisSuccess);
  EXPECT_EQ(Read14(s, memory, 0xFEFFFFF0, 0x20, read), kOblisReadFailed);
  EXPECT_EQ(Status(Call(s, 0x17, 0x1000, kBuf, kBuf2)), kOblisSuccess);
  std::istringstream lines(trace.str());
  std::vector<nlohmann::json> parsed;
  for (std::string line; std::getline(lines, line);) parsed.push_back(nlohmann::json::parse(line));
  ASSERT_EQ(parsed.size(), 5u);
  EXPECT_FALSE(parsed[0].contains("flash")) << "a fault answers before the part is touched";
  EXPECT_EQ(parsed[1]["flash"], nlohmann::json::parse(R"({"op": "write", "address": 4288675840, "length": 4096})"));
  EXPECT_EQ(parsed[2]["flash"], nlohmann::json::parse(R"({"op": "read", "address": 4288675856, "length": 32})"));
  EXPECT_EQ(parsed[3]["flash"]["address"], 0xFEFFFFF0u);
  EXPECT_EQ(parsed[3]["status"], kOblisReadFailed);
  EXPECT_FALSE(parsed[4].contains("flash"));
  EXPECT_NE(trace.str().find(R"("flash":{"op":"write","address":4288675840,"length":4096})"), std::string::npos)
      << "the keys in their fixed order";
}

TEST(FlashCounters, ComparedWrittenVerifiedAndProtectedFollowTheWriter) {
  TestMemory memory;
  sim::Simulator s(MachineFrom(R"({"flash": {"protect_mode": "skip"}})"), {}, memory.Access());
  std::vector<uint8_t> read;
  // The writer's pattern: compare an equal block; compare, write and verify a changed one;
  // compare a guarded one, whose write is skipped; and a compare of a block already counted.
  Read14(s, memory, 0xFFA00000, 0x1000, read);
  Read14(s, memory, 0xFFA01000, 0x1000, read);
  Write15(s, memory, 0xFFA01000, Bytes(0x1000, 0));
  Read14(s, memory, 0xFFA01000, 0x1000, read);
  Read14(s, memory, 0xFF800000, 0x1000, read);
  EXPECT_EQ(Write15(s, memory, 0xFF800000, Bytes(0x1000, 0)), kOblisBlockSkipped);
  Read14(s, memory, 0xFFA00000, 0x1000, read);
  const sim::FlashCounters c = s.Counters();
  EXPECT_EQ(c.comparedEqual, 1u);
  EXPECT_EQ(c.written, 1u);
  EXPECT_EQ(c.verified, 1u);
  EXPECT_EQ(c.protectedWrites, 1u);
  // Five 4 KB reads and one 4 KB sector erase with sixteen pages.
  EXPECT_EQ(c.modelledNanoseconds, 5ull * 4096 * 160 + 45'000'000 + 16 * 700'000);
  EXPECT_EQ(sim::SummaryText(c), "1 blocks compared equal, 1 written, 1 verified, 1 protected, modelled time 0.06 s");
}

TEST(FlashTiming, EachOperationAddsItsDataSheetTime) {
  struct Case {
    const char* what;
    bool write;
    uint32_t address;
    uint32_t length;
    uint64_t nanoseconds;
  };
  const Case cases[] = {
      {"read 4 KB at 50 MHz", false, 0xFFFF0000, 0x1000, 655'360},
      {"4 KB sector: erase 45 ms, 16 pages", true, 0xFFFF0000, 0x1000, 45'000'000 + 16 * 700'000},
      {"16 bytes still erase and program the whole sector", true, 0xFFFF1008, 0x10, 45'000'000 + 16 * 700'000},
      {"64 KB block: erase 150 ms, 256 pages", true, kMixedBase, 0x10000, 150'000'000 + 256 * 700'000},
      {"two sectors", true, 0xFFFF0800, 0x1000, 2 * (45'000'000 + 16 * 700'000)},
  };
  for (const Case& c : cases) {
    TestMemory memory;
    sim::Simulator s(MachineFrom(kMixedPart), Bytes(0x20000, 0), memory.Access());
    std::vector<uint8_t> read;
    if (c.write) Write15(s, memory, c.address, Bytes(c.length, 1));
    else Read14(s, memory, c.address, c.length, read);
    EXPECT_EQ(s.Counters().modelledNanoseconds, c.nanoseconds) << c.what;
  }
  EXPECT_EQ(sim::EraseNanoseconds(0x8000), 120'000'000u);
  EXPECT_EQ(sim::EraseNanoseconds(0x800), 45'000'000u) << "a block below 4 KB costs a sector";
}

TEST(UpdateBracket, ActionAndStatusAreKeptInOrder) {
  TestMemory memory;
  sim::Simulator s(sim::DefaultMachine(), {}, memory.Access());
  EXPECT_EQ(Status(Call(s, 0x1A, 0x0001)), kOblisSuccess);
  EXPECT_EQ(Status(Call(s, 0x1A, 0x0102)), kOblisSuccess);
  EXPECT_EQ(Status(Call(s, 0x1A, 0xFFFF0202)), kOblisSuccess);
  EXPECT_EQ(s.UpdateBrackets(), (std::vector<std::pair<uint8_t, uint8_t>>{{1, 0}, {2, 1}, {2, 2}}));
  sim::Simulator refusing(MachineFrom(R"({"unsupported": ["1Ah"]})"), {}, memory.Access());
  EXPECT_EQ(Status(Call(refusing, 0x1A, 0x0001)), kOblisUnsupported);
  EXPECT_TRUE(refusing.UpdateBrackets().empty());
}

TEST(FlashWrite, ModelStringsFollowWhatAnUpdateWrote) {
  TestMemory memory;
  sim::Simulator s(sim::DefaultMachine(), {}, memory.Access());
  const uint32_t bvdtBlock = 0xFF890000;
  std::vector<uint8_t> block(s.Flash().begin() + 0x890000, s.Flash().begin() + 0x891000);
  sim::WriteBvdtBlock(block, 0, "DV-NEW2000", "V2.00");
  ASSERT_EQ(Write15(s, memory, bvdtBlock, block), kOblisSuccess);
  ASSERT_EQ(Status(Call(s, 0x11, 0, kBuf2)), kOblisSuccess);
  EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(memory.At(kBuf2)), 10), u"DV-NEW2000");
  EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(memory.At(kBuf2 + 0x40)), 5), u"V2.00");
}

}  // namespace
