// Runs zaprom-sim in a scratch directory with a machine description, tool arguments and keys,
// and gathers what a person would look at afterwards: the exit status, the console text, the
// log file, the flash and EC files and the SMI trace.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct SimRequest {
  std::string machineJson;  // empty: the embedded default machine
  std::vector<std::string> arguments;
  std::string program;  // argument 0 when not the shell host's own name (a package on the volume)
  std::string keys;
  std::vector<uint8_t> flash;  // empty: the simulator's default content
  std::vector<uint8_t> ec;     // the EC's content; empty: erased
  std::vector<std::pair<std::string, std::string>> volumeFiles;  // name, content
  std::vector<std::string> readBack;  // files of the volume to hand back after the run
};

struct SmiCall {
  std::string fn;
  nlohmann::json in;
  nlohmann::json out;
  int status = -1;
  nlohmann::json record;  // the whole trace line, with what a function adds (flash, capsule, ...)
};

struct SimResult {
  int exitCode = -1;
  std::string console;  // standard output
  std::string errors;   // standard error
  std::string log;      // ZAPROM.Log, empty if none
  bool logExists = false;
  std::vector<uint8_t> flash;
  std::vector<uint8_t> ec;
  std::vector<SmiCall> calls;
  nlohmann::json stats;  // what the front end's --stats wrote
  std::map<std::string, std::string> files;  // the readBack files that exist after the run

  std::vector<std::string> FunctionOrder() const;
};

// Runs the front end; a run that ends with pool memory or pages still allocated (exit status 5)
// fails the calling test, whatever else it expects.
SimResult RunSim(const SimRequest& request);

using Bytes = std::vector<uint8_t>;
inline std::string Text(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }
// The first offset at which a and b differ, npos when they are equal.
size_t FirstDifference(const Bytes& a, const Bytes& b);
size_t Count(const SimResult& result, const std::string& fn);
// The first call of function fn, or nullptr.
const SmiCall* First(const SimResult& result, const std::string& fn);
// A run of the tool on new.bin (image) with these options, machine, platform.ini and keys.
SimResult RunTool(const std::string& machine, const Bytes& flash, const Bytes& image, std::vector<std::string> options,
                  const std::string& ini = "", const std::string& keys = "");
// Every piece must appear in text, each after the one before; what names the text in a failure.
void ExpectInOrder(const std::string& text, const std::vector<std::string>& pieces, const std::string& what);

// The embedded default machine's flash as a run leaves it untouched (read once, then kept).
const std::vector<uint8_t>& DefaultFlash();
// Where that flash keeps its BVDT (in the OEM data region), and a byte inside DXE that an
// accepted image built from the default content changes.
constexpr uint32_t kDefaultBvdt = 0x890000;
constexpr uint32_t kDxeByte = 0xA00000;
// zaprom-sim's summary line of a run that wrote nothing.
inline const std::string kNothingWritten =
    "zaprom-sim: 0 blocks compared equal, 0 written, 0 verified, 0 protected, modelled time 0.00 s\n";

// Position of needle in haystack at or after from, or npos: for "this text, then that text".
size_t FindFrom(const std::string& haystack, const std::string& needle, size_t from);
