// Functions 41h and 42h of the simulated firmware. An announcement (41h) names the type of what
// the following 42h pieces carry; extra data is kept whole once its last piece is in, a PFAT
// packet is checked and written at once, and 41h type 5Ah tells how the last packet went.
#include "PacketService.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "ConversationService.h"

namespace sim {

namespace {

using json = nlohmann::ordered_json;

constexpr uint16_t kIncorrectData = 0x0001;
constexpr uint32_t kAnswerLength = 0x18;  // the further data included
constexpr size_t kHexShown = 64;          // items up to this size show their bytes in the trace

// What the firmware found wrong with a packet; 0 is a written block.
enum PacketResult : uint64_t {
  kPacketGood = 0,
  kPacketHeader = 1,        // signature or block number
  kPacketDataSize = 2,      // the header's data size is not the packet's
  kPacketDataSum = 3,       // the data is not the data the header was made for
  kPacketCertificate = 4,   // not this block's certificate, or not at the packet's end
  kPacketOutOfOrder = 5,    // a block number not above the last one of the series
  kPacketProtected = 6,     // the block lies in a range the firmware guards
  kPacketFlashBase = 0x100  // plus the flash driver's status
};

uint32_t U32(const std::vector<uint8_t>& bytes, size_t offset) {
  uint32_t value = 0;
  std::memcpy(&value, bytes.data() + offset, 4);
  return value;
}

std::string Hex(const std::vector<uint8_t>& bytes) {
  std::string text;
  char digits[3];
  for (uint8_t b : bytes) {
    std::snprintf(digits, sizeof(digits), "%02x", b);
    text += digits;
  }
  return text;
}

uint32_t ReadValue(const nlohmann::json& v, const std::string& key, std::string& problem) {
  if (v.is_number_unsigned()) return v.get<uint32_t>();
  if (v.is_string()) {
    const std::string text = v.get<std::string>();
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 0);
    if (!text.empty() && *end == 0 && value <= 0xFFFFFFFFull) return static_cast<uint32_t>(value);
  }
  problem = key + ": expected a number or a \"0x...\" string";
  return 0;
}

}  // namespace

bool IsPacketKey(const std::string& name) { return name == "extra_data" || name == "pfat"; }

std::string ReadPacketKey(const std::string& name, const nlohmann::json& value, PacketBehaviour& b) {
  if (!value.is_object()) return name + ": expected an object";
  b.present = true;
  std::string problem;
  for (const auto& [member, v] : value.items()) {
    const std::string key = name + "." + member;
    if (name == "extra_data" && member == "types") {
      if (!v.is_array()) return key + ": expected an array";
      b.types.clear();
      for (const auto& item : v) {
        const uint32_t type = ReadValue(item, key, problem);
        if (problem.empty() && type > 0xFF) problem = key + ": a type is one byte";
        if (!problem.empty()) return problem;
        b.types.push_back(static_cast<uint8_t>(type));
      }
    } else if (name == "extra_data" && member == "capacity") {
      b.capacity = ReadValue(v, key, problem);
    } else if (name == "pfat" && member == "enabled") {
      if (!v.is_boolean()) return key + ": expected true or false";
      b.pfat = v.get<bool>();
    } else if (name == "pfat" && member == "header_size") {
      b.headerSize = ReadValue(v, key, problem);
      if (problem.empty() && (b.headerSize < pfat_block::kHeaderMinimum || b.headerSize > 0x1000))
        problem = key + ": 20 to 0x1000 bytes";
    } else if (name == "pfat" && member == "certificate_size") {
      b.certificateSize = ReadValue(v, key, problem);
      if (problem.empty() && (b.certificateSize < pfat_block::kCertificateMinimum || b.certificateSize > 0x1000))
        problem = key + ": 8 to 0x1000 bytes";
    } else if (name == "pfat" && member == "bad_answer_after") {
      b.badAnswerAfter = ReadValue(v, key, problem);
    } else {
      return key + ": unknown key";
    }
    if (!problem.empty()) return problem;
  }
  return "";
}

PacketAnswer PacketService::Announce(const OblisRegisters& in, const PacketRead& read, const PacketWrite& write) {
  if (!behaviour_.present) return {kOblisUnsupported, nullptr};
  OblisExtraDataRecord record{};
  read(in.ecx, &record, kExtraDataRequestBytes);
  // Fields of a packed record are copied out before anything takes them by reference.
  const uint8_t type = record.type;
  const uint32_t size = record.size;
  json received = {{"type", type}, {"size", size}};
  if (std::memcmp(record.signature, "$EDI", 4) != 0 || record.length != kExtraDataRequestBytes) {
    received["refused"] = "not a $EDI record";
    return {kOblisAccessProhibited, received};
  }
  record.length = 0x10;
  record.type = kExtraDataSizeFieldCounts;
  record.sizeIndex = kExtraDataSizeFieldCounts;
  record.size = behaviour_.capacity;
  record.status = 0;
  record.further = 0;
  const bool typeTaken = std::find(behaviour_.types.begin(), behaviour_.types.end(), type) != behaviour_.types.end();
  if (type == kExtraDataTypeResult && behaviour_.pfat) {
    record.length = kAnswerLength;
    record.status = kExtraDataFurtherValid;
    record.further = lastResult_;
    received["result"] = lastResult_;
  } else if ((type == kExtraDataTypePacket && behaviour_.pfat) || typeTaken) {
    announced_ = type;
    item_.clear();
  } else {
    record.status = kExtraDataTypeUnsupported;
  }
  if (behaviour_.badAnswerAfter && packetsIn_ >= *behaviour_.badAnswerAfter) record.status |= kIncorrectData;
  received["answer"] = static_cast<uint16_t>(record.status);
  write(in.ecx, &record, sizeof(record));
  return {kOblisSuccess, received};
}

PacketAnswer PacketService::Piece(const OblisRegisters& in, const PacketRead& read, const PacketFlash& flash,
                                  const PacketGuard& guard) {
  if (!behaviour_.present) return {kOblisUnsupported, nullptr};
  const uint8_t lastMark = static_cast<uint8_t>(in.ecx);
  const uint8_t piece = static_cast<uint8_t>(in.ecx >> 8);
  const uint32_t count = in.edi;
  json received = {{"piece", piece}, {"last", lastMark == kExtraDataLastPiece}, {"bytes", count}};
  if (!announced_ || count > kOblisBufferSize) {
    received["refused"] = announced_ ? "larger than the buffer" : "nothing announced";
    return {kOblisAccessProhibited, received};
  }
  std::vector<uint8_t> data(count);
  if (count != 0) read(in.esi, data.data(), count);
  received["type"] = *announced_;
  if (*announced_ == kExtraDataTypePacket) {
    lastResult_ = CheckAndWrite(piece, data, flash, guard, received);
    received["result"] = lastResult_;
    ++packetsIn_;
    if (lastMark == kExtraDataLastPiece) lastBlock_.reset();
    return {kOblisSuccess, received};
  }
  item_.insert(item_.end(), data.begin(), data.end());
  if (lastMark == kExtraDataLastPiece) {
    items_.push_back({*announced_, item_});
    json item = {{"type", *announced_}, {"size", item_.size()}, {"fnv1a", Fnv1a(item_)}};
    if (item_.size() <= kHexShown) item["hex"] = Hex(item_);
    received["item"] = item;
    item_.clear();
    announced_.reset();
  }
  return {kOblisSuccess, received};
}

uint64_t PacketService::CheckAndWrite(uint8_t block, const std::vector<uint8_t>& packet, const PacketFlash& flash,
                                      const PacketGuard& guard, json& received) {
  const uint32_t headerSize = behaviour_.headerSize;
  const uint32_t certificateSize = behaviour_.certificateSize;
  if (packet.size() < uint64_t{headerSize} + certificateSize) return kPacketHeader;
  const uint32_t dataSize = static_cast<uint32_t>(packet.size()) - headerSize - certificateSize;
  if (std::memcmp(packet.data(), pfat_block::kHeaderSignature, 4) != 0 || (U32(packet, 4) & 0xFF) != block) {
    return kPacketHeader;
  }
  const uint32_t address = U32(packet, 8);
  received["address"] = address;
  if (U32(packet, 12) != dataSize) return kPacketDataSize;
  const uint8_t* data = packet.data() + headerSize;
  if (U32(packet, 16) != pfat_block::DataSum(data, dataSize)) return kPacketDataSum;
  const uint8_t* certificate = data + dataSize;
  const uint32_t fullBlock = U32(packet, 4);
  if (std::memcmp(certificate, pfat_block::kCertificateSignature, 4) != 0) return kPacketCertificate;
  uint32_t certificateBlock = 0;
  std::memcpy(&certificateBlock, certificate + 4, 4);
  if (certificateBlock != fullBlock) return kPacketCertificate;
  for (uint32_t i = pfat_block::kCertificateMinimum; i < certificateSize; ++i) {
    if (certificate[i] != pfat_block::CertificateByte(fullBlock, i)) return kPacketCertificate;
  }
  if (lastBlock_ && block <= *lastBlock_) return kPacketOutOfOrder;
  lastBlock_ = block;
  if (guard(address, dataSize)) return kPacketProtected;
  const uint8_t status = flash(address, std::vector<uint8_t>(data, data + dataSize));
  if (status != kOblisSuccess) return kPacketFlashBase + status;
  ++packetsWritten_;
  return kPacketGood;
}

}  // namespace sim
