// Function 4Ch of the simulated firmware: a platform that takes OEM images (RBU files) in two
// calls. The verify call checks the file's layout and both checksums and changes nothing; the
// flash call checks it again and writes its flash data over the part, block by block, leaving
// the ranges of its protection and private lists alone. Or the firmware says "use the ordinary
// way" and verifies nothing. Registers in, status and trace facts out; the tool's memory is
// reached through the caller.
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "OblisWire.h"

namespace sim {

class FlashService;
struct Region;

// What the machine answers to 4Ch; without the key every call answers 0xEF.
struct OemSecureBehaviour {
  enum class Verify : uint8_t { Checksums, OrdinaryWay, Refuse };
  bool present = false;
  Verify verify = Verify::Checksums;
  bool flashFails = false;  // the flash call writes nothing and leaves bit 10 clear
  uint8_t action = 3;       // CL of every answer to an image: 0 S3, 1 reboot, 2 shutdown, 3 nothing
  bool operator==(const OemSecureBehaviour&) const = default;
};

bool IsOemSecureKey(const std::string& name);
// A problem text naming the key, or "".
std::string ReadOemSecureKey(const std::string& name, const nlohmann::json& value, OemSecureBehaviour& behaviour);

struct OemSecureAnswer {
  uint8_t status = kOblisSuccess;
  uint8_t ah = 0;  // bit 0 verified, bit 1 use the ordinary way, bit 2 finished well
  std::optional<uint8_t> cl;
  nlohmann::ordered_json received;  // for the trace line
};

using OemSecureRead = std::function<void(uint32_t address, void* out, uint32_t length)>;

OemSecureAnswer AnswerOemSecure(const OemSecureBehaviour& behaviour, const OblisRegisters& in, const OemSecureRead& read,
                                FlashService& flash, const std::vector<Region>& kept);

}  // namespace sim
