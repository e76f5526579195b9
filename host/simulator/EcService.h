// The embedded controller of the simulated machine, behind functions 21h and 20h: the size it
// reports (an index or a table of parts), and its flash, which keeps the blocks of a series and
// writes them when the last block arrives. Also function 49h, the factory copy restore, which
// only answers and is recorded. Registers in, status and trace facts out; the buffers are
// reached through the caller's read and write.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "OblisWire.h"

namespace sim {

// What the machine's EC answers. Its size is the table size of sizeIndex, or the parts' sum.
struct EcBehaviour {
  uint8_t sizeIndex = 1;          // 21h's CL: 0 to 5 for 64 KB to 2 MB
  std::vector<uint32_t> parts;    // given: CL 0xFF and a "$ECINFO_" table of these sizes
  std::string partSignature = "$ECINFO_";
  bool operator==(const EcBehaviour&) const = default;
};
uint32_t EcSize(const EcBehaviour& behaviour);

// What the EC went through in a run.
struct EcCounters {
  uint32_t received = 0;  // 20h calls the EC took (a fault or an unsupported call is none)
  uint32_t written = 0;   // blocks that reached the EC when their series ended
  uint8_t finishAction = 0;  // CL of the last block that ended a series: 1 reboot, 5 shutdown
  std::optional<uint16_t> factoryCopyStatus;  // the bits 49h answered with, if it was asked
  bool operator==(const EcCounters&) const = default;
};

struct EcAnswer {
  uint8_t status = kOblisSuccess;
  std::optional<uint8_t> cl;
  nlohmann::ordered_json received;  // for the trace line
};

using EcRead = std::function<void(uint32_t address, void* out, uint32_t length)>;
using EcWrite = std::function<void(uint32_t address, const void* data, uint32_t length)>;

class EcService {
 public:
  // content holds EcSize(behaviour) bytes.
  EcService(EcBehaviour behaviour, std::vector<uint8_t> content);
  EcAnswer Size(const OblisRegisters& in, const EcRead& read, const EcWrite& write);
  EcAnswer Block(const OblisRegisters& in, const EcRead& read);
  EcAnswer FactoryCopy(std::optional<uint16_t> status, const OblisRegisters& in, const EcRead& read,
                       const EcWrite& write);
  const std::vector<uint8_t>& Content() const { return content_; }
  const EcCounters& Counters() const { return counters_; }

 private:
  EcBehaviour behaviour_;
  std::vector<uint8_t> content_;
  std::map<uint32_t, std::vector<uint8_t>> series_;  // kept blocks by their offset
  EcCounters counters_;
};

}  // namespace sim
