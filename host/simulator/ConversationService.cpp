// Functions 19h, 1Bh, 44h and 45h of the simulated firmware, and their keys in the machine
// description. The service reads only what the registers point at, within the sizes the
// functions define, and reports what it read for the trace.
#include "ConversationService.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>

namespace sim {

std::string Fnv1a(const std::vector<uint8_t>& bytes) {
  uint64_t hash = 0xCBF29CE484222325ull;
  for (uint8_t b : bytes) hash = (hash ^ b) * 0x100000001B3ull;
  char text[17];
  std::snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

namespace {

using nlohmann::json;

constexpr uint32_t kOemListBytes = 256;
constexpr uint8_t kListEnd = 0xFF;
constexpr uint32_t kPieceLimit = 0x20000;           // a piece larger than the tool's buffer is refused
constexpr uint32_t kInformationBytes = 1024;
constexpr uint32_t kSwitchReadBytes = 0x800;        // a switch text holds at most 1023 characters
constexpr uint32_t kConditionalHeader = 0x10;
constexpr uint32_t kConditionalLimit = 0x20000;
constexpr char kConditionalInSignature[] = "$CHKCNDI";

uint32_t U32(const uint8_t* p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (uint32_t{p[3]} << 24); }

// Up to and including the first byte 0xFF; the whole when there is none.
std::vector<uint8_t> UpToEnd(const std::vector<uint8_t>& bytes) {
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] == kListEnd) return std::vector<uint8_t>(bytes.begin(), bytes.begin() + i + 1);
  }
  return bytes;
}

ConversationAnswer OemParameters(const OemParameterBehaviour& behaviour, const OblisRegisters& in,
                                 const ConversationRead& read, const ConversationWrite& write) {
  std::vector<uint8_t> list(kOemListBytes);
  read(in.edi, list.data(), kOemListBytes);
  ConversationAnswer answer;
  answer.received = {{"cl", in.ecx & 0xFF}, {"list", HexText(UpToEnd(list))}};
  if (behaviour.answer) {
    std::vector<uint8_t> reply(kOemListBytes, 0);
    std::memcpy(reply.data(), behaviour.answer->data(), std::min<size_t>(behaviour.answer->size(), kOemListBytes));
    write(in.edi, reply.data(), kOemListBytes);
  }
  return answer;
}

ConversationAnswer ModuleCheck(const ModuleCheckBehaviour& behaviour, ConversationState& state,
                               const OblisRegisters& in, const ConversationRead& read) {
  if (in.ecx > kPieceLimit) return {kOblisBufferTooSmall, nullptr};
  std::vector<uint8_t> piece(in.ecx);
  if (!piece.empty()) read(in.esi, piece.data(), in.ecx);
  // A retry repeats the address: it is the same piece again.
  if (state.lastPieceAddress && *state.lastPieceAddress != in.edi) ++state.pieces;
  state.lastPieceAddress = in.edi;
  const uint32_t index = state.pieces;
  uint8_t status = behaviour.status;
  if (auto byAddress = behaviour.addresses.find(in.edi); byAddress != behaviour.addresses.end()) status = byAddress->second;
  if (auto byPiece = behaviour.pieces.find(index); byPiece != behaviour.pieces.end()) status = byPiece->second;
  ConversationAnswer answer;
  answer.status = status;
  answer.received = {{"piece", index}, {"address", in.edi}, {"length", in.ecx}, {"fnv1a", Fnv1a(piece)}};
  return answer;
}

ConversationAnswer CommonFlash(const CommonFlashBehaviour& behaviour, const OblisRegisters& in,
                               const ConversationRead& read, const ConversationWrite& write) {
  std::vector<uint8_t> information(kInformationBytes);
  read(in.esi, information.data(), kInformationBytes);
  // The block has no length: what follows it is zero, and its last item ends in 0xFF.
  while (!information.empty() && information.back() == 0) information.pop_back();
  std::vector<uint8_t> switches(kSwitchReadBytes);
  read(in.edi, switches.data(), kSwitchReadBytes);
  ConversationAnswer answer;
  answer.received = {{"information", HexText(information)}, {"switches", HexText(UpToEnd(switches))}};
  const uint8_t reply[6] = {static_cast<uint8_t>(behaviour.permit),  static_cast<uint8_t>(behaviour.permit >> 8),
                            static_cast<uint8_t>(behaviour.message), static_cast<uint8_t>(behaviour.message >> 8),
                            static_cast<uint8_t>(behaviour.action),  static_cast<uint8_t>(behaviour.action >> 8)};
  write(in.edi, reply, sizeof(reply));
  return answer;
}

ConversationAnswer Conditional(const ConditionalBehaviour& behaviour, const OblisRegisters& in,
                               const ConversationRead& read, const ConversationWrite& write) {
  uint8_t head[kConditionalHeader];
  read(in.ecx, head, sizeof(head));
  const uint32_t size = U32(head + 8);
  if (std::memcmp(head, kConditionalInSignature, 8) != 0 || size < kConditionalHeader || size > kConditionalLimit) {
    std::cerr << "oblis-sim: 45h: the buffer at 0x" << std::hex << in.ecx << std::dec
              << " holds no valid $CHKCNDI record\n";
    return {kOblisAccessProhibited, nullptr};
  }
  std::vector<uint8_t> record(size);
  read(in.ecx, record.data(), size);
  ConversationAnswer answer;
  answer.received = {{"record", HexText(record)}};
  uint8_t reply[13] = {};
  std::memcpy(reply, behaviour.signature.data(), std::min<size_t>(behaviour.signature.size(), 8));
  for (int i = 0; i < 4; ++i) reply[8 + i] = static_cast<uint8_t>(behaviour.size >> (8 * i));
  reply[12] = behaviour.result;
  write(in.ecx, reply, sizeof(reply));
  return answer;
}

// ---- the machine description's keys ----

struct KeyError {
  std::string message;
};

[[noreturn]] void Refuse(const std::string& key, const std::string& why) { throw KeyError{key + ": " + why}; }

uint64_t ReadNumber(const json& value, const std::string& key, uint64_t limit) {
  uint64_t number = 0;
  if (value.is_number_unsigned()) {
    number = value.get<uint64_t>();
  } else if (value.is_string()) {
    const std::string text = value.get<std::string>();
    if (text.size() < 3 || text.size() > 10 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X') ||
        text.find_first_not_of("0123456789abcdefABCDEF", 2) != std::string::npos) {
      Refuse(key, "\"" + text + "\" is not a number (write 123 or \"0x7B\")");
    }
    number = std::stoull(text.substr(2), nullptr, 16);
  } else {
    Refuse(key, "expected a number or a \"0x...\" string");
  }
  if (number > limit) Refuse(key, "value " + std::to_string(number) + " is larger than " + std::to_string(limit));
  return number;
}

template <typename Take>
void Members(const json& value, const std::string& key, Take take) {
  if (!value.is_object()) Refuse(key, "expected an object");
  for (const auto& [name, v] : value.items()) {
    if (!take(name, v, key + "." + name)) throw KeyError{"unknown key '" + key + "." + name + "'"};
  }
}

std::string PrintableText(const json& value, const std::string& key) {
  if (!value.is_string()) Refuse(key, "expected a string");
  const std::string text = value.get<std::string>();
  for (unsigned char c : text) {
    if (c < 0x20 || c > 0x7E) Refuse(key, "only printable ASCII characters are allowed");
  }
  return text;
}

// A word list becomes the wire form: each word, a zero, and 0xFF behind the last.
std::vector<uint8_t> WordList(const json& value, const std::string& key) {
  if (!value.is_array()) Refuse(key, "expected an array of words");
  std::vector<uint8_t> bytes;
  size_t index = 0;
  for (const json& item : value) {
    const std::string word = PrintableText(item, key + "[" + std::to_string(index++) + "]");
    bytes.insert(bytes.end(), word.begin(), word.end());
    bytes.push_back(0);
  }
  bytes.push_back(kListEnd);
  if (bytes.size() > kOemListBytes) Refuse(key, "the list with its zeros and 0xFF is longer than 256 bytes");
  return bytes;
}

std::vector<uint8_t> RawBytes(const json& value, const std::string& key) {
  if (!value.is_array()) Refuse(key, "expected an array of byte values");
  std::vector<uint8_t> bytes;
  size_t index = 0;
  for (const json& item : value) bytes.push_back(static_cast<uint8_t>(ReadNumber(item, key + "[" + std::to_string(index++) + "]", 0xFF)));
  if (bytes.size() > kOemListBytes) Refuse(key, "longer than 256 bytes");
  return bytes;
}

std::map<uint32_t, uint8_t> StatusMap(const json& value, const std::string& key) {
  if (!value.is_object()) Refuse(key, "expected an object of statuses");
  std::map<uint32_t, uint8_t> statuses;
  for (const auto& [name, v] : value.items()) {
    const std::string path = key + "." + name;
    json number = json(name);
    if (!name.empty() && name.find_first_not_of("0123456789") == std::string::npos) number = json(std::stoull(name));
    statuses[static_cast<uint32_t>(ReadNumber(number, path, 0xFFFFFFFFu))] = static_cast<uint8_t>(ReadNumber(v, path, 0xFF));
  }
  return statuses;
}

void ReadOemParameters(const json& value, ConversationBehaviour& behaviour) {
  OemParameterBehaviour oem;
  Members(value, "oem_parameters", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "answer") oem.answer = WordList(v, key);
    else if (name == "answer_bytes") oem.answer = RawBytes(v, key);
    else return false;
    return true;
  });
  behaviour.oemParameters = oem;
}

void ReadModuleCheck(const json& value, ConversationBehaviour& behaviour) {
  ModuleCheckBehaviour check;
  Members(value, "module_check", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "status") check.status = static_cast<uint8_t>(ReadNumber(v, key, 0xFF));
    else if (name == "pieces") check.pieces = StatusMap(v, key);
    else if (name == "addresses") check.addresses = StatusMap(v, key);
    else return false;
    return true;
  });
  behaviour.moduleCheck = check;
}

void ReadCommonFlash(const json& value, ConversationBehaviour& behaviour) {
  CommonFlashBehaviour answer;
  Members(value, "common_flash", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "permit") answer.permit = static_cast<uint16_t>(ReadNumber(v, key, 0xFFFF));
    else if (name == "message") answer.message = static_cast<uint16_t>(ReadNumber(v, key, 0xFFFF));
    else if (name == "action") answer.action = static_cast<uint16_t>(ReadNumber(v, key, 0xFFFF));
    else return false;
    return true;
  });
  behaviour.commonFlash = answer;
}

void ReadConditional(const json& value, ConversationBehaviour& behaviour) {
  ConditionalBehaviour answer;
  Members(value, "conditional", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "result") answer.result = static_cast<uint8_t>(ReadNumber(v, key, 0xFF));
    else if (name == "size") answer.size = static_cast<uint32_t>(ReadNumber(v, key, 0xFFFFFFFFu));
    else if (name == "signature") {
      answer.signature = PrintableText(v, key);
      if (answer.signature.size() != 8) Refuse(key, "a signature is 8 characters");
    } else return false;
    return true;
  });
  behaviour.conditional = answer;
}

}  // namespace

std::string HexText(const std::vector<uint8_t>& bytes) {
  std::string text;
  char pair[4];
  for (size_t i = 0; i < bytes.size(); ++i) {
    std::snprintf(pair, sizeof(pair), i == 0 ? "%02X" : " %02X", bytes[i]);
    text += pair;
  }
  return text;
}

bool IsConversationFunction(uint8_t function) {
  return function == 0x19 || function == 0x1B || function == 0x44 || function == 0x45;
}

ConversationAnswer AnswerConversation(const ConversationBehaviour& behaviour, ConversationState& state,
                                      uint8_t function, const OblisRegisters& in, const ConversationRead& read,
                                      const ConversationWrite& write) {
  switch (function) {
    case 0x19:
      if (behaviour.oemParameters) return OemParameters(*behaviour.oemParameters, in, read, write);
      break;
    case 0x1B:
      if (behaviour.moduleCheck) return ModuleCheck(*behaviour.moduleCheck, state, in, read);
      break;
    case 0x44:
      if (behaviour.commonFlash) return CommonFlash(*behaviour.commonFlash, in, read, write);
      break;
    case 0x45:
      if (behaviour.conditional) return Conditional(*behaviour.conditional, in, read, write);
      break;
    default:
      break;
  }
  return {kOblisUnsupported, nullptr};
}

bool IsConversationKey(const std::string& name) {
  return name == "oem_parameters" || name == "module_check" || name == "common_flash" || name == "conditional";
}

std::string ReadConversationKey(const std::string& name, const json& value, ConversationBehaviour& behaviour) {
  try {
    if (name == "oem_parameters") ReadOemParameters(value, behaviour);
    else if (name == "module_check") ReadModuleCheck(value, behaviour);
    else if (name == "common_flash") ReadCommonFlash(value, behaviour);
    else if (name == "conditional") ReadConditional(value, behaviour);
    else return "unknown key '" + name + "'";
  } catch (const KeyError& error) {
    return error.message;
  }
  return {};
}

}  // namespace sim
