// The simulated SPI NOR part: its content and block geometry, with the semantics of the real
// thing (erase sets a whole block to 0xFF, program can only clear bits). Which OBLIS function
// uses which operation, and whether a range may be touched, is the simulator's business.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Simulator.h"

namespace sim {

class FlashPart {
 public:
  FlashPart(const Machine& machine, std::vector<uint8_t> content);
  ~FlashPart();
  FlashPart(const FlashPart&) = delete;
  FlashPart& operator=(const FlashPart&) = delete;

  // A copy of the whole content.
  std::vector<uint8_t> Content() const;
  uint32_t Size() const { return size_; }
  // Physical address of the first byte: the part ends at 4 GB.
  uint32_t Base() const { return 0u - Size(); }
  bool Contains(uint32_t address, uint32_t length) const;

  bool Read(uint32_t address, void* out, uint32_t length) const;
  // The erase block (physical start, size) that holds address, from the machine's block map;
  // none for an address outside the part or the map.
  std::optional<std::pair<uint32_t, uint32_t>> BlockAt(uint32_t address) const;
  bool Erase(uint32_t blockAddress);
  // NOR programming: each byte becomes old AND new, as on the chip.
  bool Program(uint32_t address, const void* data, uint32_t length);
  // Model and version of the first "$BVDT$" block; false when the part holds none.
  bool Identity(std::string& model, std::string& version) const;

  // From now on the content lives in this file, written through at every erase and program as
  // the chip keeps its own, and no longer in the process's memory: the chip of a real machine
  // is not in its RAM either, and a 32 MB part would otherwise be a third of a run's memory.
  // False with the reason when the file cannot take the content; the part then stays in memory.
  bool KeepInFile(const std::string& path, std::string& error);
  bool InFile() const { return file_ >= 0; }

 private:
  // Bytes at an offset into the part, in memory or in its file; false when the file fails.
  bool Get(uint64_t offset, void* out, size_t length) const;
  // Bytes into the file of a part that lives in one (erase and program change memory in place).
  bool Put(uint64_t offset, const void* data, size_t length);

  std::vector<std::pair<uint32_t, uint32_t>> blocks_;  // (size, count) in address order
  std::vector<uint8_t> content_;                       // empty once the part lives in a file
  uint32_t size_ = 0;
  int file_ = -1;
};

// Texts of the "$BVDT$" block at its fixed offsets.
constexpr uint32_t kBvdtVersionOffset = 0x0E;
constexpr uint32_t kBvdtVersionBytes = 24;
constexpr uint32_t kBvdtModelOffset = 0x27;
constexpr uint32_t kBvdtModelBytes = 25;
constexpr uint32_t kBvdtHeadBytes = 0x66;

// Writes a BVDT block with these texts at offset into content (texts are cut to their fields).
void WriteBvdtBlock(std::vector<uint8_t>& content, uint32_t offset, const std::string& model,
                    const std::string& version);

}  // namespace sim
