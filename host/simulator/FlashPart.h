// The simulated SPI NOR part: its content and block geometry, with the semantics of the real
// thing (erase sets a whole block to 0xFF, program can only clear bits). Which OBLIS function
// uses which operation, and whether a range may be touched, is the simulator's business.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "Simulator.h"

namespace sim {

class FlashPart {
 public:
  FlashPart(const Machine& machine, std::vector<uint8_t> content);

  const std::vector<uint8_t>& Content() const { return content_; }
  uint32_t Size() const { return static_cast<uint32_t>(content_.size()); }
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

 private:
  std::vector<std::pair<uint32_t, uint32_t>> blocks_;  // (size, count) in address order
  std::vector<uint8_t> content_;
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
