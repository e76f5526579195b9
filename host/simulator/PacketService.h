// The firmware's side of functions 41h and 42h: typed data items that the BIOS vendor defines,
// taken in pieces and kept with their type, and the PFAT packets, each checked against the
// block it claims before its data reaches the flash, with the result that 41h type 5Ah reports.
// Registers in, status and trace facts out; buffers and the flash are reached through the caller.
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "OblisWire.h"
#include "PfatBlockFormat.h"

namespace sim {

// What the machine answers to 41h and 42h; without either key both answer 0xEF.
struct PacketBehaviour {
  bool present = false;
  std::vector<uint8_t> types = {4, 5, 6, 7, 8, 9, 0xA, 0xB, 0xC};  // extra-data types taken
  uint32_t capacity = kOblisBufferSize;  // what 41h says the firmware can take
  bool pfat = false;                     // type 58h is taken
  uint32_t headerSize = 0x20;
  uint32_t certificateSize = 0x100;
  std::optional<uint32_t> badAnswerAfter;  // 41h answers "incorrect data" once this many packets are in
  bool operator==(const PacketBehaviour&) const = default;
};

// A machine key of this service ("extra_data" or "pfat"); ReadPacketKey gives a problem text or "".
bool IsPacketKey(const std::string& name);
std::string ReadPacketKey(const std::string& name, const nlohmann::json& value, PacketBehaviour& behaviour);

struct ExtraDataItem {
  uint8_t type = 0;
  std::vector<uint8_t> bytes;
};

struct PacketAnswer {
  uint8_t status = kOblisSuccess;
  nlohmann::ordered_json received;  // for the trace line
};

using PacketRead = std::function<void(uint32_t address, void* out, uint32_t length)>;
using PacketWrite = std::function<void(uint32_t address, const void* data, uint32_t length)>;
// Writes a checked block into the flash; gives the flash driver's status.
using PacketFlash = std::function<uint8_t(uint32_t address, const std::vector<uint8_t>& data)>;
// Whether a flash range overlaps a range the firmware guards against PFAT packets.
using PacketGuard = std::function<bool(uint32_t address, uint32_t length)>;

class PacketService {
 public:
  explicit PacketService(PacketBehaviour behaviour) : behaviour_(std::move(behaviour)) {}
  PacketAnswer Announce(const OblisRegisters& in, const PacketRead& read, const PacketWrite& write);
  PacketAnswer Piece(const OblisRegisters& in, const PacketRead& read, const PacketFlash& flash, const PacketGuard& guard);
  const std::vector<ExtraDataItem>& Items() const { return items_; }
  uint32_t PacketsWritten() const { return packetsWritten_; }

 private:
  // The result of a packet: 0 written; otherwise what was wrong with it.
  uint64_t CheckAndWrite(uint8_t block, const std::vector<uint8_t>& packet, const PacketFlash& flash,
                         const PacketGuard& guard, nlohmann::ordered_json& received);

  PacketBehaviour behaviour_;
  std::optional<uint8_t> announced_;
  std::vector<uint8_t> item_;             // pieces of the current item
  std::optional<uint8_t> lastBlock_;      // block number of the last packet of the series
  uint64_t lastResult_ = 0;
  uint32_t packetsIn_ = 0;
  uint32_t packetsWritten_ = 0;
  std::vector<ExtraDataItem> items_;
};

}  // namespace sim
