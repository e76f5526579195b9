// One update through zaprom-sim in a folder of its own, and the checks of the campaign: the
// uncut update that counts the flash operations, and a cut run followed by its rerun. What the
// flash must hold comes from Pair.cpp; which cuts to run is main.cpp's.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "Campaign.h"
#include "FlashPart.h"
#include "FlashService.h"

extern char** environ;

namespace cut {

namespace {

constexpr int kExitPowerLost = 4;
constexpr uint8_t kErased = 0xFF;

bool WriteFile(const std::string& file, const void* data, size_t length) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(static_cast<const char*>(data), static_cast<std::streamsize>(length));
  return static_cast<bool>(out);
}

std::vector<uint8_t> ReadFile(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::string Hex(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%X", value);
  return text;
}

// The starting flash and the image on the tool's volume.
bool Prepare(const std::string& dir, const Pair& pair) {
  std::filesystem::create_directories(dir + "/vol");
  return WriteFile(dir + "/flash.bin", pair.oldFlash.data(), pair.oldFlash.size()) &&
         WriteFile(dir + "/vol/new.fd", pair.image.data(), pair.image.size());
}

struct Write {
  uint32_t address;  // physical
  uint32_t length;
  uint8_t status;
};

// The 15h calls of a run's trace that reached the part, in order.
std::vector<Write> WritesOf(const std::string& traceFile) {
  std::vector<Write> writes;
  std::ifstream in(traceFile);
  for (std::string line; std::getline(in, line);) {
    if (line.find("\"fn\":\"15h\"") == std::string::npos) continue;
    const nlohmann::json record = nlohmann::json::parse(line, nullptr, false);
    if (record.is_discarded() || !record.contains("flash")) continue;
    writes.push_back({record["flash"]["address"].get<uint32_t>(), record["flash"]["length"].get<uint32_t>(),
                      record["status"].get<uint8_t>()});
  }
  return writes;
}

// Empty when no 15h call of the run aimed at a guarded byte.
std::string GuardedWrites(const Pair& pair, const std::string& traceFile) {
  const uint32_t base = 0u - static_cast<uint32_t>(pair.image.size());
  for (const Write& w : WritesOf(traceFile)) {
    for (uint64_t at = w.address; at < uint64_t{w.address} + w.length; ++at) {
      if (at >= base && pair.guarded[at - base]) return "a write at " + Hex(w.address) + " reaches the guarded byte " + Hex(static_cast<uint32_t>(at - base));
    }
  }
  return {};
}

// The first offset where the flash differs from what it should hold, described.
std::string Differs(const std::vector<uint8_t>& flash, const std::vector<uint8_t>& expected, const char* what) {
  if (flash.size() != expected.size()) return std::string(what) + ": the flash file has the wrong size";
  const auto [at, _] = std::mismatch(flash.begin(), flash.end(), expected.begin());
  if (at == flash.end()) return {};
  return std::string(what) + " at " + Hex(static_cast<uint32_t>(at - flash.begin()));
}

bool Equal(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, uint32_t from, uint32_t length) {
  return std::equal(a.begin() + from, a.begin() + from + length, b.begin() + from);
}

// The block under the cut holds its new bytes up to the cut and the erase behind it; before its
// erase it is still old.
std::string CheckCutBlock(const Pair& pair, const Operation& op, uint8_t bytes, const std::vector<uint8_t>& flash) {
  if (op.page == 0) {
    return Equal(flash, pair.oldFlash, op.block, op.blockSize) ? "" : "the block " + Hex(op.block) + " changed before its erase";
  }
  const uint32_t programmed = (op.page - 1) * sim::kPageBytes + bytes;
  if (!Equal(flash, pair.image, op.block, programmed)) return "the block under the cut does not hold its new bytes up to the cut";
  if (!std::all_of(flash.begin() + op.block + programmed, flash.begin() + op.block + op.blockSize,
                   [](uint8_t b) { return b == kErased; }))
    return "the block under the cut is not erased behind the cut";
  return {};
}

// The BVDT goes last: once a block the writer holds back for it has left its old content, every
// other changed block must hold its new content.
std::string CheckBvdtLast(const Pair& pair, const std::vector<uint8_t>& flash) {
  const sim::FlashPart part(pair.parsed, pair.image);
  auto size = [&](uint32_t block) { return part.BlockAt(part.Base() + block)->second; };
  const bool bvdtTouched = std::any_of(pair.bvdtBlocks.begin(), pair.bvdtBlocks.end(),
                                       [&](uint32_t b) { return !Equal(flash, pair.oldFlash, b, size(b)); });
  if (!bvdtTouched) return {};
  for (const uint32_t block : pair.changedBlocks) {
    if (std::find(pair.bvdtBlocks.begin(), pair.bvdtBlocks.end(), block) != pair.bvdtBlocks.end()) continue;
    if (!Equal(flash, pair.expected, block, size(block)))
      return "a block held back for the BVDT changed while the block " + Hex(block) + " is not yet new";
  }
  return {};
}

}  // namespace

const char* CutKindName(CutKind kind) {
  switch (kind) {
    case CutKind::Between: return "between operations";
    case CutKind::AfterErase: return "after erase";
    case CutKind::MidProgram: return "mid-program";
  }
  return "";
}

CutKind KindOf(const Pair& pair, uint32_t operation, uint8_t bytes) {
  const Operation& op = pair.operations.at(operation);
  if (op.page == 0) return CutKind::Between;
  if (bytes != 0) return CutKind::MidProgram;
  return op.page == 1 ? CutKind::AfterErase : CutKind::Between;
}

int RunUpdate(const std::string& sim, const Pair& pair, const std::string& dir, const nlohmann::json& changes) {
  nlohmann::json machine = pair.machine;
  machine.update(changes);
  const std::string text = machine.dump(2);
  if (!WriteFile(dir + "/machine.json", text.data(), text.size())) return -1;
  const std::vector<std::string> args = {sim,          "--machine", dir + "/machine.json", "--flash", dir + "/flash.bin",
                                         "--volume",   dir + "/vol", "--trace-smi", dir + "/trace.jsonl", "--",
                                         "new.fd"};
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&files, 1, (dir + "/console.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&files, 2, (dir + "/stderr.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = 0;
  const int started = posix_spawn(&pid, sim.c_str(), &files, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&files);
  if (started != 0) return -1;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

std::string MeasureUpdate(const std::string& sim, const std::string& dir, Pair& pair) {
  if (!Prepare(dir, pair)) return "cannot write into " + dir;
  const int status = RunUpdate(sim, pair, dir, nlohmann::json::object());
  if (status != 0) return "the update without a cut ended with status " + std::to_string(status) + " (see " + dir + ")";
  std::string problem = Differs(ReadFile(dir + "/flash.bin"), pair.expected, "the update without a cut left a wrong byte");
  if (problem.empty()) problem = GuardedWrites(pair, dir + "/trace.jsonl");
  if (!problem.empty()) return problem;
  const sim::FlashPart part(pair.parsed, pair.image);
  pair.operations.clear();
  pair.writes = 0;
  for (const Write& w : WritesOf(dir + "/trace.jsonl")) {
    if (w.status != 0 || w.length == 0) continue;
    ++pair.writes;
    for (uint64_t at = w.address; at < uint64_t{w.address} + w.length;) {
      const auto block = part.BlockAt(static_cast<uint32_t>(at));
      if (!block) return "a write at " + Hex(w.address) + " leaves the block map";
      const uint32_t pages = (block->second + sim::kPageBytes - 1) / sim::kPageBytes;
      for (uint32_t page = 0; page <= pages; ++page) pair.operations.push_back({block->first - part.Base(), block->second, page});
      at = uint64_t{block->first} + block->second;
    }
  }
  if (pair.operations.empty()) return "the update wrote nothing";
  return {};
}

std::string RunCut(const std::string& sim, const std::string& dir, const Pair& pair, const CutPoint& cut) {
  if (!Prepare(dir, pair)) return "cannot write into " + dir;
  nlohmann::json changes = {{"power_cut_after_operations", cut.operation}};
  if (cut.bytes != 0) changes["power_cut_programmed_bytes"] = cut.bytes;
  int status = RunUpdate(sim, pair, dir, changes);
  if (status != kExitPowerLost) return "the cut run ended with status " + std::to_string(status) + ", not 4";
  const std::vector<uint8_t> cutFlash = ReadFile(dir + "/flash.bin");
  if (cutFlash.size() != pair.oldFlash.size()) return "the cut run left a flash file of the wrong size";
  std::string problem;
  for (size_t i = 0; i < cutFlash.size() && problem.empty(); ++i) {
    if (pair.guarded[i] && cutFlash[i] != pair.oldFlash[i]) problem = "the cut run changed the guarded byte " + Hex(uint32_t(i));
  }
  if (problem.empty()) problem = CheckCutBlock(pair, pair.operations.at(cut.operation), cut.bytes, cutFlash);
  if (problem.empty()) problem = CheckBvdtLast(pair, cutFlash);
  if (problem.empty()) problem = GuardedWrites(pair, dir + "/trace.jsonl");
  if (!problem.empty()) return problem;
  std::filesystem::rename(dir + "/trace.jsonl", dir + "/cut-trace.jsonl");
  std::filesystem::rename(dir + "/console.txt", dir + "/cut-console.txt");

  status = RunUpdate(sim, pair, dir, nlohmann::json::object());
  if (status != 0) return "the rerun ended with status " + std::to_string(status);
  problem = Differs(ReadFile(dir + "/flash.bin"), pair.expected, "the rerun left a wrong byte");
  if (problem.empty()) problem = GuardedWrites(pair, dir + "/trace.jsonl");
  return problem;
}

}  // namespace cut
