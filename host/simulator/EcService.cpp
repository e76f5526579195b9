// Functions 21h, 20h and 49h. 21h reads the "$BUFFER_" request and answers the EC's size; 20h
// reads one block at a time and keeps it until a block without the "more follow" mark (CL 0xEF)
// ends the series; 49h reads the "$RDI" request and writes the machine's status bits back.
#include "EcService.h"

#include <algorithm>
#include <cstring>
#include <iostream>

#include "ConversationService.h"
#include "Simulator.h"

namespace sim {

namespace {

constexpr uint32_t kSizeIndexBytes[] = {0x10000, 0x20000, 0x40000, 0x80000, 0x100000, 0x200000};
constexpr uint8_t kPartTableIndex = 0xFF;
constexpr uint8_t kMoreBlocks = 0xEF;
constexpr uint32_t kRequestBytes = 12;
constexpr uint32_t kBlockLimit = 0x20000;  // the tool's shared buffer
constexpr uint32_t kRestoreRecordBytes = 16;
constexpr uint32_t kRestoreStatusOffset = 14;

uint32_t U32(const uint8_t* p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (uint32_t{p[3]} << 24); }
void PutU32(std::vector<uint8_t>& bytes, uint32_t value) {
  for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

}  // namespace

uint32_t EcSize(const EcBehaviour& behaviour) {
  if (behaviour.parts.empty()) return behaviour.sizeIndex < 6 ? kSizeIndexBytes[behaviour.sizeIndex] : 0;
  uint64_t total = 0;
  for (uint32_t part : behaviour.parts) total += part;
  return static_cast<uint32_t>(total);
}

std::vector<uint8_t> DefaultEcContent(const Machine& machine) { return std::vector<uint8_t>(EcSize(machine.ec), 0xFF); }

std::string ValidateEcContent(const Machine& machine, const std::vector<uint8_t>& content) {
  const uint32_t size = EcSize(machine.ec);
  if (content.empty() || content.size() == size) return {};
  return "EC content is " + std::to_string(content.size()) + " bytes but the machine's EC holds " + std::to_string(size);
}

EcService::EcService(EcBehaviour behaviour, std::vector<uint8_t> content)
    : behaviour_(std::move(behaviour)), content_(std::move(content)) {}

EcAnswer EcService::Size(const OblisRegisters& in, const EcRead& read, const EcWrite& write) {
  uint8_t request[kRequestBytes];
  read(in.esi, request, sizeof(request));
  if (std::memcmp(request, "$BUFFER_", 8) != 0) {
    std::cerr << "oblis-sim: 21h: the buffer at 0x" << std::hex << in.esi << std::dec << " holds no $BUFFER_ request\n";
    return {kOblisAccessProhibited, {}, nullptr};
  }
  EcAnswer answer;
  answer.received = {{"size", U32(request + 8)}, {"index", (in.ecx >> 8) & 0xFF}};
  if (behaviour_.parts.empty()) {
    answer.cl = behaviour_.sizeIndex;
    return answer;
  }
  std::vector<uint8_t> table(behaviour_.partSignature.begin(), behaviour_.partSignature.end());
  PutU32(table, static_cast<uint32_t>(behaviour_.parts.size()));
  for (uint32_t part : behaviour_.parts) PutU32(table, part);
  write(in.esi, table.data(), static_cast<uint32_t>(table.size()));
  answer.cl = kPartTableIndex;
  return answer;
}

EcAnswer EcService::Block(const OblisRegisters& in, const EcRead& read) {
  const uint32_t length = in.edi;
  if (length > kBlockLimit) return {kOblisBufferTooSmall, {}, nullptr};
  const uint8_t action = static_cast<uint8_t>(in.ecx);
  const uint8_t block = static_cast<uint8_t>(in.ecx >> 8);
  std::vector<uint8_t> data(length);
  if (length != 0) read(in.esi, data.data(), length);
  EcAnswer answer;
  answer.received = {{"block", block}, {"action", action}, {"length", length}, {"fnv1a", Fnv1a(data)}};
  ++counters_.received;
  // A block sent again (a retry) replaces the one kept.
  series_[uint32_t{block} * length] = std::move(data);
  if (action == kMoreBlocks) return answer;
  // The last block ends the series: every kept block goes into the EC, and what reaches past the
  // EC's end falls away.
  uint32_t written = 0;
  for (const auto& [offset, bytes] : series_) {
    if (offset >= content_.size()) continue;
    const size_t count = std::min<size_t>(bytes.size(), content_.size() - offset);
    std::memcpy(content_.data() + offset, bytes.data(), count);
    ++written;
  }
  counters_.written += written;
  counters_.finishAction = action;
  answer.received["written"] = written;
  series_.clear();
  return answer;
}

EcAnswer EcService::FactoryCopy(std::optional<uint16_t> status, const OblisRegisters& in, const EcRead& read,
                                const EcWrite& write) {
  if (!status) return {kOblisUnsupported, {}, nullptr};
  std::vector<uint8_t> record(kRestoreRecordBytes);
  read(in.ecx, record.data(), kRestoreRecordBytes);
  if (std::memcmp(record.data(), "$RDI", 4) != 0 || U32(record.data() + 4) != kRestoreRecordBytes) {
    std::cerr << "oblis-sim: 49h: the buffer at 0x" << std::hex << in.ecx << std::dec << " holds no $RDI request\n";
    return {kOblisAccessProhibited, {}, nullptr};
  }
  EcAnswer answer;
  answer.received = {{"record", HexText(record)}};
  const uint8_t bits[2] = {static_cast<uint8_t>(*status), static_cast<uint8_t>(*status >> 8)};
  write(in.ecx + kRestoreStatusOffset, bits, sizeof(bits));
  counters_.factoryCopyStatus = *status;
  return answer;
}

}  // namespace sim
