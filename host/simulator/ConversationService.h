// The firmware's side of the conversation functions: the OEM parameter list (19h), the piece by
// piece image verification (1Bh), the CommonFlash exchange (44h) and the conditional data check
// (45h). Each answers as the machine describes and reports the bytes it received, so a test can
// check what the tool put on the wire. A machine that describes none of them answers 0xEF.
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

struct OemParameterBehaviour {
  // The list written back over the tool's record; none: the record is left as the tool sent it.
  std::optional<std::vector<uint8_t>> answer;
  bool operator==(const OemParameterBehaviour&) const = default;
};

struct ModuleCheckBehaviour {
  uint8_t status = 0;                      // for every piece not named below
  std::map<uint32_t, uint8_t> pieces;      // by piece index, counted from 0 in arrival order
  std::map<uint32_t, uint8_t> addresses;   // by EDI; a piece index entry wins over an address
  bool operator==(const ModuleCheckBehaviour&) const = default;
};

struct CommonFlashBehaviour {
  uint16_t permit = 1;
  uint16_t message = 0;
  uint16_t action = 0;
  bool operator==(const CommonFlashBehaviour&) const = default;
};

struct ConditionalBehaviour {
  uint8_t result = 1;
  uint32_t size = 13;                      // the answer's size field
  std::string signature = "$CHKCNDO";      // 8 characters
  bool operator==(const ConditionalBehaviour&) const = default;
};

// What the machine description says; a function whose entry is empty answers 0xEF.
struct ConversationBehaviour {
  std::optional<OemParameterBehaviour> oemParameters;  // 19h
  std::optional<ModuleCheckBehaviour> moduleCheck;     // 1Bh
  std::optional<CommonFlashBehaviour> commonFlash;     // 44h
  std::optional<ConditionalBehaviour> conditional;     // 45h
  bool operator==(const ConversationBehaviour&) const = default;
};

// What the service remembers between calls: 1Bh pieces are counted by a change of address, so
// that the retries of one piece keep its index.
struct ConversationState {
  uint32_t pieces = 0;
  std::optional<uint32_t> lastPieceAddress;
};

struct ConversationAnswer {
  uint8_t status = 0;
  nlohmann::ordered_json received;  // for the trace line; null when nothing was read
};

using ConversationRead = std::function<void(uint32_t address, void* out, uint32_t length)>;
using ConversationWrite = std::function<void(uint32_t address, const void* data, uint32_t length)>;

bool IsConversationFunction(uint8_t function);
ConversationAnswer AnswerConversation(const ConversationBehaviour& behaviour, ConversationState& state,
                                      uint8_t function, const OblisRegisters& in, const ConversationRead& read,
                                      const ConversationWrite& write);

// The machine description's keys of this service. IsConversationKey says whether a top-level
// key is one of them; ReadConversationKey reads it and gives the refusal's text, empty if none.
bool IsConversationKey(const std::string& name);
std::string ReadConversationKey(const std::string& name, const nlohmann::json& value, ConversationBehaviour& behaviour);

// Bytes as upper-case hexadecimal pairs separated by blanks ("43 55 00 FF"), as traced.
std::string HexText(const std::vector<uint8_t>& bytes);

// A 64-bit FNV-1a of the bytes as 16 hex digits: enough for a test to tell the data that was sent.
std::string Fnv1a(const std::vector<uint8_t>& bytes);

}  // namespace sim
