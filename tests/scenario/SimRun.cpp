// Runs the front end as a child process in a fresh scratch directory per run.
#include "SimRun.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace {

// zaprom-sim's exit status for a tool that returned with memory still allocated.
constexpr int kExitLeak = 5;

std::string ReadText(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteBytes(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary);
  out << bytes;
}

std::string Quote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

}  // namespace

std::vector<std::string> SimResult::FunctionOrder() const {
  std::vector<std::string> order;
  for (const auto& call : calls) {
    order.push_back(call.fn);
  }
  return order;
}

const std::vector<uint8_t>& DefaultFlash() {
  static const std::vector<uint8_t> flash = [] {
    SimRequest request;
    request.arguments = {"-h"};
    return RunSim(request).flash;
  }();
  return flash;
}

size_t FindFrom(const std::string& haystack, const std::string& needle, size_t from) {
  if (from == std::string::npos) {
    return std::string::npos;
  }
  return haystack.find(needle, from);
}

size_t FirstDifference(const Bytes& a, const Bytes& b) {
  const auto [left, right] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  return left == a.end() && right == b.end() ? std::string::npos : static_cast<size_t>(left - a.begin());
}

size_t Count(const SimResult& result, const std::string& fn) {
  return std::count_if(result.calls.begin(), result.calls.end(), [&](const SmiCall& c) { return c.fn == fn; });
}

const SmiCall* First(const SimResult& result, const std::string& fn) {
  for (const SmiCall& call : result.calls)
    if (call.fn == fn) return &call;
  return nullptr;
}

SimResult RunTool(const std::string& machine, const Bytes& flash, const Bytes& image, std::vector<std::string> options,
                  const std::string& ini, const std::string& keys) {
  SimRequest request;
  request.machineJson = machine;
  request.arguments = {"new.bin"};
  request.arguments.insert(request.arguments.end(), options.begin(), options.end());
  request.keys = keys;
  request.flash = flash;
  request.volumeFiles = {{"new.bin", Text(image)}};
  if (!ini.empty()) request.volumeFiles.push_back({"platform.ini", ini});
  return RunSim(request);
}

void ExpectInOrder(const std::string& text, const std::vector<std::string>& pieces, const std::string& what) {
  size_t at = 0;
  for (const auto& piece : pieces) {
    size_t found = FindFrom(text, piece, at);
    ASSERT_NE(found, std::string::npos) << what << " lacks, in order: [" << piece << "]\n---\n" << text;
    at = found + piece.size();
  }
}

SimResult RunSim(const SimRequest& request) {
  char pattern[] = "/tmp/zaprom-scenario-XXXXXX";
  fs::path root = mkdtemp(pattern);
  fs::path volume = root / "volume";
  fs::create_directories(volume);
  for (const auto& [name, content] : request.volumeFiles) {
    WriteBytes(volume / name, content);
  }

  // ZAPROM_SIM names another build of the front end (one with a fault planted in the driver).
  const char* program = std::getenv("ZAPROM_SIM");
  std::string command = std::string(program != nullptr ? program : ZAPROM_SIM_PATH) + " --volume " + Quote(volume.string());
  if (!request.machineJson.empty()) {
    WriteBytes(root / "machine.json", request.machineJson);
    command += " --machine " + Quote((root / "machine.json").string());
  }
  fs::path flashPath = root / "flash.bin";
  if (!request.flash.empty()) {
    WriteBytes(flashPath, std::string(request.flash.begin(), request.flash.end()));
  }
  command += " --flash " + Quote(flashPath.string());
  fs::path ecPath = root / "ec.bin";
  if (!request.ec.empty()) WriteBytes(ecPath, Text(request.ec));
  command += " --ec " + Quote(ecPath.string());
  command += " --trace-smi " + Quote((root / "smi.jsonl").string());
  command += " --stats " + Quote((root / "stats.json").string());
  if (!request.keys.empty()) {
    command += " --keys " + Quote(request.keys);
  }
  if (!request.program.empty()) command += " --program " + Quote(request.program);
  command += " --";
  for (const auto& argument : request.arguments) {
    command += " " + Quote(argument);
  }
  command += " >" + Quote((root / "stdout.txt").string()) + " 2>" + Quote((root / "stderr.txt").string()) +
             " </dev/null";

  SimResult result;
  int status = std::system(command.c_str());
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.console = ReadText(root / "stdout.txt");
  result.errors = ReadText(root / "stderr.txt");
  result.logExists = fs::exists(volume / "ZAPROM.Log");
  if (result.logExists) {
    result.log = ReadText(volume / "ZAPROM.Log");
  }
  for (const std::string& name : request.readBack) {
    if (fs::exists(volume / name)) result.files[name] = ReadText(volume / name);
  }
  std::string flash = ReadText(flashPath);
  result.flash.assign(flash.begin(), flash.end());
  std::string ec = ReadText(ecPath);
  result.ec.assign(ec.begin(), ec.end());
  std::ifstream trace(root / "smi.jsonl");
  for (std::string line; std::getline(trace, line);) {
    if (line.empty()) {
      continue;
    }
    auto record = nlohmann::json::parse(line);
    SmiCall call;
    call.fn = record.at("fn").get<std::string>();
    call.in = record.at("in");
    call.out = record.at("out");
    call.status = record.at("status").get<int>();
    call.record = record;
    result.calls.push_back(call);
  }
  if (fs::exists(root / "stats.json")) result.stats = nlohmann::json::parse(ReadText(root / "stats.json"));
  fs::remove_all(root);
  EXPECT_NE(result.exitCode, kExitLeak) << result.errors;
  return result;
}
