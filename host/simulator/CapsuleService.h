// Function 48h of the simulated firmware: a platform that takes signed images as capsules.
// It answers the empty probe, gathers the image that a block list describes in the tool's
// memory, and keeps what it received so a test can compare it with the file.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "OblisWire.h"

namespace sim {

// What the machine's firmware does with function 48h.
struct CapsuleBehaviour {
  bool secure = false;                 // false: every 48h call answers 0xEF, a legacy platform
  uint8_t probeStatus = 0;             // the answer to the empty probe
  uint8_t flashStatus = 0;             // the answer to a request that carries an image
  uint8_t action = 3;                  // CL of a successful answer: 0 S3, 1 reboot, 2 shutdown, 3 nothing
  std::optional<uint8_t> extra;        // written back as a "$EXO" record when set
  bool operator==(const CapsuleBehaviour&) const = default;
};

// One request that carried an image.
struct CapsuleReceived {
  uint32_t size = 0;
  uint8_t viaEsp = 0;
  std::vector<uint64_t> blockAddresses;
  std::vector<uint64_t> blockLengths;
  std::vector<uint8_t> image;  // gathered from memory; empty when the list counts from 0
};

struct CapsuleAnswer {
  uint8_t status = 0;
  std::optional<uint8_t> cl;
};

using CapsuleRead = std::function<void(uint32_t address, void* out, uint32_t length)>;
using CapsuleWrite = std::function<void(uint32_t address, const void* data, uint32_t length)>;

CapsuleAnswer AnswerCapsule(const CapsuleBehaviour& behaviour, const OblisRegisters& in, const CapsuleRead& read,
                            const CapsuleWrite& write, std::vector<CapsuleReceived>& received);

}  // namespace sim
