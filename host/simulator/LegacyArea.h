// The content of the simulated machine's legacy BIOS area (0xE0000-0xFFFFF): the "$OBLIS"
// signature and the ACPI tables. Building it is all this does; reads are served by Simulator.
#pragma once

#include <cstdint>
#include <vector>

#include "Simulator.h"

namespace sim {

struct LegacyArea {
  std::vector<uint8_t> bytes;  // kLegacyAreaStart .. kLegacyAreaEnd
  uint32_t rsdp10 = 0;         // 0 when the configuration table carries no such pointer
  uint32_t rsdp20 = 0;
  uint32_t oblis = 0;  // 0 when the machine has no "$OBLIS" signature
};

LegacyArea BuildLegacyArea(const Machine& machine);

}  // namespace sim
