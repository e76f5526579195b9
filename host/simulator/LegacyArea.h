// The content of the simulated machine's legacy BIOS area (0xE0000-0xFFFFF): the "$OBLIS"
// signature and the ACPI tables. Building it is all this does; reads are served by Simulator.
#pragma once

#include <cstdint>
#include <vector>

#include "Simulator.h"

namespace sim {

// Only the stretch that holds the tables and the signature is kept; the rest of the area reads
// as zeros.
struct LegacyArea {
  uint32_t windowStart = 0;
  std::vector<uint8_t> bytes;  // windowStart .. windowStart + size - 1
  uint32_t rsdp10 = 0;         // 0 when the configuration table carries no such pointer
  uint32_t rsdp20 = 0;
  uint32_t oblis = 0;  // 0 when the machine has no "$OBLIS" signature
};

LegacyArea BuildLegacyArea(const Machine& machine);

// Bytes [address, address + length) of the area, which must lie inside it.
void ReadLegacyArea(const LegacyArea& area, uint32_t address, void* out, uint32_t length);

}  // namespace sim
