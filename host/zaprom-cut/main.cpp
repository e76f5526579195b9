// zaprom-cut: the power-cut campaign. For each machine and image it builds an old flash, counts
// the flash operations of the update, cuts the power at seeded random points of it and reruns
// the update after each cut, checking the flash; then prints the figures. The update itself is
// zaprom-sim's, the checks Cut.cpp's.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Campaign.h"

namespace {

constexpr int kExitUsage = 2;
constexpr uint32_t kProgressEvery = 100;

const char kUsage[] =
    "usage: zaprom-cut [--sim FILE] [--cuts N] [--seed N] [--jobs N] [--work DIR] [--cut OPERATION[+BYTES]]\n"
    "                  MACHINE.json=IMAGE.json...\n";

struct Options {
  std::string sim;
  uint32_t cuts = 100;
  uint64_t seed = 0;
  bool seedGiven = false;
  unsigned jobs = 1;
  std::string work;
  std::string replay;  // one cut of the first pair
  std::vector<std::pair<std::string, std::string>> pairs;
};

[[noreturn]] void UsageError(const std::string& message) {
  std::fprintf(stderr, "zaprom-cut: %s\n%s", message.c_str(), kUsage);
  std::exit(kExitUsage);
}

uint64_t Number(const std::string& text, const char* option) {
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text.c_str(), &end, 0);
  if (text.empty() || *end != '\0' || text[0] == '-') UsageError(std::string(option) + " wants a number, not '" + text + "'");
  return value;
}

// zaprom-sim beside this program, where the build puts both.
std::string SimBesideMe() {
  std::error_code error;
  const auto me = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? "zaprom-sim" : (me.parent_path() / "zaprom-sim").string();
}

Options ParseCommandLine(int argc, char** argv) {
  Options o;
  o.sim = SimBesideMe();
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) UsageError(word + " wants a value");
      return argv[++i];
    };
    if (word == "--sim") o.sim = value();
    else if (word == "--cuts") o.cuts = static_cast<uint32_t>(Number(value(), "--cuts"));
    else if (word == "--seed") o.seed = Number(value(), "--seed"), o.seedGiven = true;
    else if (word == "--jobs") o.jobs = static_cast<unsigned>(std::max<uint64_t>(1, Number(value(), "--jobs")));
    else if (word == "--work") o.work = value();
    else if (word == "--cut") o.replay = value();
    else if (word.rfind("--", 0) == 0) UsageError("unknown option " + word);
    else {
      const size_t equals = word.find('=');
      if (equals == std::string::npos || equals == 0 || equals + 1 == word.size())
        UsageError("'" + word + "' is not MACHINE.json=IMAGE.json");
      o.pairs.emplace_back(word.substr(0, equals), word.substr(equals + 1));
    }
  }
  if (o.pairs.empty()) UsageError("name at least one machine and image");
  if (!o.seedGiven) o.seed = std::random_device{}() & 0xFFFFFFFFu;
  return o;
}

// The old flash of a pair depends only on the seed and the pair's files, so a replay of one cut
// with the same seed and pair meets the same flash.
std::mt19937_64 PairRng(uint64_t seed, const std::string& machine, const std::string& image) {
  uint32_t hash = 2166136261u;
  for (const char c : std::filesystem::path(machine).filename().string() + "=" + std::filesystem::path(image).filename().string())
    hash = (hash ^ static_cast<uint8_t>(c)) * 16777619u;
  std::seed_seq seq{static_cast<uint32_t>(seed), static_cast<uint32_t>(seed >> 32), hash};
  return std::mt19937_64(seq);
}

struct Planned {
  size_t pair = 0;
  cut::CutPoint point;
  std::string problem;
};

// The cuts of the campaign: the machines in turn, the three kinds equally often, the operation
// (and for a mid-program cut the bytes that take) at random among those of that kind.
std::vector<Planned> PlanCuts(const std::vector<cut::Pair>& pairs, uint32_t count, std::mt19937_64& rng) {
  std::vector<Planned> plan;
  for (uint32_t i = 0; i < count; ++i) {
    const size_t p = i % pairs.size();
    const std::vector<cut::Operation>& ops = pairs[p].operations;
    const auto kind = static_cast<cut::CutKind>(rng() % 3);
    cut::CutPoint point{0, 0, kind};
    do {
      point.operation = static_cast<uint32_t>(rng() % ops.size());
      point.bytes = kind == cut::CutKind::MidProgram ? static_cast<uint8_t>(1 + rng() % 255) : 0;
    } while (cut::KindOf(pairs[p], point.operation, point.bytes) != kind);
    plan.push_back({p, point, {}});
  }
  return plan;
}

std::string CutText(const cut::CutPoint& point) {
  return std::to_string(point.operation) + (point.bytes ? "+" + std::to_string(point.bytes) : "");
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = ParseCommandLine(argc, argv);
  const auto started = std::chrono::steady_clock::now();
  const bool ownWork = o.work.empty();
  std::string work = o.work;
  if (ownWork) {
    std::string pattern = (std::filesystem::temp_directory_path() / "zaprom-cut-XXXXXX").string();
    if (!mkdtemp(pattern.data())) UsageError("cannot make a work folder in " + pattern);
    work = pattern;
  }
  std::filesystem::create_directories(work);
  std::printf("zaprom-cut: seed %llu, %s over %zu machine%s\n", static_cast<unsigned long long>(o.seed),
              o.replay.empty() ? (std::to_string(o.cuts) + " cuts").c_str() : ("cut " + o.replay).c_str(), o.pairs.size(),
              o.pairs.size() == 1 ? "" : "s");

  std::vector<cut::Pair> pairs(o.pairs.size());
  for (size_t p = 0; p < pairs.size(); ++p) {
    std::mt19937_64 rng = PairRng(o.seed, o.pairs[p].first, o.pairs[p].second);
    std::string problem = cut::BuildPair(o.pairs[p].first, o.pairs[p].second, rng, pairs[p]);
    const std::string dir = work + "/measure-" + std::to_string(p);
    if (problem.empty()) problem = cut::MeasureUpdate(o.sim, dir, pairs[p]);
    if (!problem.empty()) {
      std::fprintf(stderr, "zaprom-cut: %s: %s\n", pairs[p].name.c_str(), problem.c_str());
      return 1;
    }
    std::filesystem::remove_all(dir);
    std::printf("%s: %u KB part, %zu blocks changed (%s); the update writes in %u calls, %zu flash operations\n",
                pairs[p].name.c_str(), static_cast<unsigned>(pairs[p].image.size() >> 10), pairs[p].changedBlocks.size(),
                pairs[p].changes.c_str(), pairs[p].writes, pairs[p].operations.size());
  }

  std::vector<Planned> plan;
  if (!o.replay.empty()) {
    const size_t plus = o.replay.find('+');
    cut::CutPoint point;
    point.operation = static_cast<uint32_t>(Number(o.replay.substr(0, plus), "--cut"));
    if (plus != std::string::npos) point.bytes = static_cast<uint8_t>(std::min<uint64_t>(255, Number(o.replay.substr(plus + 1), "--cut")));
    if (point.operation >= pairs[0].operations.size())
      UsageError("--cut: the update takes " + std::to_string(pairs[0].operations.size()) + " flash operations");
    point.kind = cut::KindOf(pairs[0], point.operation, point.bytes);
    plan.push_back({0, point, {}});
  } else {
    std::mt19937_64 rng(o.seed);
    plan = PlanCuts(pairs, o.cuts, rng);
  }

  std::atomic<size_t> next{0};
  std::atomic<uint32_t> done{0}, failed{0};
  std::mutex output;
  auto worker = [&] {
    for (size_t i = next++; i < plan.size(); i = next++) {
      Planned& cut = plan[i];
      const std::string dir = work + "/cut-" + std::to_string(i);
      cut.problem = cut::RunCut(o.sim, dir, pairs[cut.pair], cut.point);
      std::lock_guard<std::mutex> lock(output);
      if (cut.problem.empty()) {
        std::filesystem::remove_all(dir);
      } else {
        ++failed;
        std::printf("FAIL %s cut %s (%s): %s\n  replay: zaprom-cut --seed %llu --cut %s %s=%s  (files in %s)\n",
                    pairs[cut.pair].name.c_str(), CutText(cut.point).c_str(), cut::CutKindName(cut.point.kind),
                    cut.problem.c_str(), static_cast<unsigned long long>(o.seed), CutText(cut.point).c_str(),
                    o.pairs[cut.pair].first.c_str(), o.pairs[cut.pair].second.c_str(), dir.c_str());
        std::fflush(stdout);
      }
      if (++done % kProgressEvery == 0) std::fprintf(stderr, "zaprom-cut: %u of %zu cuts run, %u failed\n", done.load(), plan.size(), failed.load());
    }
  };
  std::vector<std::thread> threads;
  for (unsigned j = 0; j < std::min<size_t>(o.jobs, plan.size()); ++j) threads.emplace_back(worker);
  for (std::thread& t : threads) t.join();

  uint32_t kinds[3] = {};
  for (const Planned& cut : plan) ++kinds[static_cast<int>(cut.point.kind)];
  std::printf("cuts %zu: %s %u, %s %u, %s %u\n", plan.size(), cut::CutKindName(cut::CutKind::Between), kinds[0],
              cut::CutKindName(cut::CutKind::AfterErase), kinds[1], cut::CutKindName(cut::CutKind::MidProgram), kinds[2]);
  for (size_t p = 0; p < pairs.size(); ++p) {
    uint32_t runs = 0, passes = 0;
    for (const Planned& cut : plan) {
      if (cut.pair != p) continue;
      ++runs;
      passes += cut.problem.empty();
    }
    std::printf("  %s: %u cuts, %u passed\n", pairs[p].name.c_str(), runs, passes);
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::printf("passed %zu, failed %u; wall time %.0f s\n", plan.size() - failed, failed.load(), seconds);
  if (ownWork && failed == 0) std::filesystem::remove_all(work);
  return failed == 0 ? 0 : 1;
}
