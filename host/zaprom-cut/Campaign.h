// The power-cut campaign: an old flash and a new image for a described machine, the flash
// operations of the update between them, and one cut run with its rerun, checked. Choosing the
// cut points, running them side by side and printing the figures is main.cpp's business.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Simulator.h"

namespace cut {

// Where a cut lands, as the figures count it.
enum class CutKind { Between, AfterErase, MidProgram };
const char* CutKindName(CutKind kind);  // "between operations", "after erase", "mid-program"

// One flash operation of the update: the erase of a block (page 0) or the program of page n of
// it (n counted from 1), in the order the part does them.
struct Operation {
  uint32_t block = 0;  // offset in the part
  uint32_t blockSize = 0;
  uint32_t page = 0;
};

// A machine with the old flash and the new image of one update, and what must come of it.
struct Pair {
  std::string machineFile;
  std::string imageFile;    // the image tool's description of the new image
  std::string name;         // the machine file's name, for the figures
  nlohmann::json machine;   // the description, volumes made absolute
  sim::Machine parsed;
  std::vector<uint8_t> oldFlash;
  std::vector<uint8_t> image;
  std::vector<uint8_t> expected;        // image outside the guarded ranges, old flash inside
  std::vector<bool> guarded;            // per byte: inside a protection or private range
  std::vector<uint32_t> changedBlocks;  // offsets of blocks that differ outside guarded ranges
  std::vector<uint32_t> bvdtBlocks;     // offsets of the blocks the writer leaves for last
  std::string changes;                  // "ME 6, BIOS 9, guarded 3, BVDT; 16 blocks go last"
  std::vector<Operation> operations;    // of the whole update, from its trace
  uint32_t writes = 0;                  // 15h calls that programmed
};

// Builds the pair: the new image from its description, the old flash from the same with an older
// BVDT version and, chosen by rng, blocks changed in every region behind the descriptor and in
// every guarded range. Empty on success, else what went wrong.
std::string BuildPair(const std::string& machineFile, const std::string& imageFile, std::mt19937_64& rng, Pair& pair);

// Runs zaprom-sim on one flash in dir: the update of the pair's image, with machine changes
// merged in. Exit status, or -1 if it could not be started.
int RunUpdate(const std::string& sim, const Pair& pair, const std::string& dir, const nlohmann::json& changes);

// Runs the whole update without a cut in dir, checks its end and learns its flash operations.
std::string MeasureUpdate(const std::string& sim, const std::string& dir, Pair& pair);

struct CutPoint {
  uint32_t operation = 0;  // operations done when the power fails
  uint8_t bytes = 0;       // of the next page program that take
  CutKind kind = CutKind::Between;
};
CutKind KindOf(const Pair& pair, uint32_t operation, uint8_t bytes);

// The cut run in dir, its checks, the rerun and its checks; empty when all hold, else the first
// that failed.
std::string RunCut(const std::string& sim, const std::string& dir, const Pair& pair, const CutPoint& cut);

}  // namespace cut
