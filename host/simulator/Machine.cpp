// The machine description: the embedded default machine and the JSON reader that changes it key
// by key. It checks each value's type and range and names the key it refuses; what the machine
// then does with the values is the simulator's business.
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <nlohmann/json.hpp>

#include "MachineLayout.h"
#include "Simulator.h"

namespace sim {

namespace {

using nlohmann::json;

// EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS
constexpr uint32_t kSetupModeAttributes = 0x6;

// A refusal travelling up to ParseMachine, carrying the message that names the key.
struct BadValue {
  std::string message;
};

[[noreturn]] void Refuse(const std::string& key, const std::string& why) {
  throw BadValue{key + ": " + why};
}

uint64_t ReadNumber(const json& value, const std::string& key, uint64_t limit) {
  uint64_t number = 0;
  if (value.is_number_unsigned()) {
    number = value.get<uint64_t>();
  } else if (value.is_number_integer()) {
    Refuse(key, "negative numbers are not allowed");
  } else if (value.is_string()) {
    const std::string text = value.get<std::string>();
    if (text.size() < 3 || text.size() > 18 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) {
      Refuse(key, "\"" + text + "\" is not a number (write 123 or \"0x7B\")");
    }
    for (size_t i = 2; i < text.size(); ++i) {
      const char c = text[i];
      int digit = (c >= '0' && c <= '9') ? c - '0'
                  : (c >= 'a' && c <= 'f') ? c - 'a' + 10
                  : (c >= 'A' && c <= 'F') ? c - 'A' + 10
                                           : -1;
      if (digit < 0) Refuse(key, "\"" + text + "\" is not a hexadecimal number");
      if (number > (UINT64_MAX >> 4)) Refuse(key, "\"" + text + "\" is too large");
      number = number * 16 + static_cast<uint64_t>(digit);
    }
  } else {
    Refuse(key, "expected a number or a \"0x...\" string");
  }
  if (number > limit) {
    Refuse(key, "value " + std::to_string(number) + " is larger than " + std::to_string(limit));
  }
  return number;
}

uint8_t ReadU8(const json& v, const std::string& key) { return static_cast<uint8_t>(ReadNumber(v, key, 0xFF)); }
uint16_t ReadU16(const json& v, const std::string& key) { return static_cast<uint16_t>(ReadNumber(v, key, 0xFFFF)); }
uint32_t ReadU32(const json& v, const std::string& key) { return static_cast<uint32_t>(ReadNumber(v, key, 0xFFFFFFFFu)); }

bool ReadBool(const json& value, const std::string& key) {
  if (!value.is_boolean()) Refuse(key, "expected true or false");
  return value.get<bool>();
}

// "none" (only where allowNone), "refuse" or "skip".
GuardedWrite ReadGuardedWrite(const json& value, const std::string& key, bool allowNone) {
  const std::string text = value.is_string() ? value.get<std::string>() : std::string();
  if (allowNone && text == "none") return GuardedWrite::Allow;
  if (text == "refuse") return GuardedWrite::Refuse;
  if (text == "skip") return GuardedWrite::Skip;
  Refuse(key, allowNone ? "expected \"none\", \"refuse\" or \"skip\"" : "expected \"refuse\" or \"skip\"");
}

std::string ReadText(const json& value, const std::string& key, size_t maxLength) {
  if (!value.is_string()) Refuse(key, "expected a string");
  std::string text = value.get<std::string>();
  if (text.size() > maxLength) Refuse(key, "longer than " + std::to_string(maxLength) + " characters");
  for (unsigned char c : text) {
    if (c < 0x20 || c > 0x7E) Refuse(key, "only printable ASCII characters are allowed");
  }
  return text;
}

std::u16string Widen(const std::string& text) { return std::u16string(text.begin(), text.end()); }

// A function number written "44h", "0x44" or 68.
uint8_t ReadFunctionNumber(const json& value, const std::string& key) {
  if (value.is_string()) {
    const std::string text = value.get<std::string>();
    if (text.size() == 3 && (text[2] == 'h' || text[2] == 'H') && std::isxdigit(static_cast<unsigned char>(text[0])) &&
        std::isxdigit(static_cast<unsigned char>(text[1]))) {
      return static_cast<uint8_t>(std::stoul(text.substr(0, 2), nullptr, 16));
    }
    if (text.rfind("0x", 0) != 0 && text.rfind("0X", 0) != 0) {
      Refuse(key, "\"" + text + "\" is not a function number (write \"44h\")");
    }
  }
  return ReadU8(value, key);
}

const json& Object(const json& value, const std::string& key) {
  if (!value.is_object()) Refuse(key, "expected an object");
  return value;
}

const json& Array(const json& value, const std::string& key) {
  if (!value.is_array()) Refuse(key, "expected an array");
  return value;
}

// Calls take(name, value) for each member; a member that take does not know is refused.
template <typename Take>
void ForEachMember(const json& object, const std::string& key, Take take) {
  for (const auto& [name, value] : Object(object, key).items()) {
    const std::string path = key.empty() ? name : key + "." + name;
    if (!take(name, value, path)) throw BadValue{"unknown key '" + path + "'"};
  }
}

std::vector<uint8_t> ReadBytes(const json& value, const std::string& key) {
  std::vector<uint8_t> bytes;
  size_t index = 0;
  for (const json& item : Array(value, key)) bytes.push_back(ReadU8(item, key + "[" + std::to_string(index++) + "]"));
  return bytes;
}

// Refuses any member of a record that is not one of names.
void OnlyKeys(const json& item, const std::string& path, const std::vector<std::string>& names) {
  Object(item, path);
  for (const auto& [name, v] : item.items()) {
    bool known = false;
    for (const std::string& n : names) known = known || n == name;
    if (!known) throw BadValue{"unknown key '" + path + "." + name + "'"};
  }
}

const json& Member(const json& item, const std::string& path, const std::string& name) {
  if (!item.contains(name)) throw BadValue{path + ": missing \"" + name + "\""};
  return item.at(name);
}

template <typename ReadOne>
void ReadArray(const json& value, const std::string& key, ReadOne readOne) {
  size_t index = 0;
  for (const json& item : Array(value, key)) readOne(item, key + "[" + std::to_string(index++) + "]");
}

void ReadStatus(const json& value, Machine& m) {
  ForEachMember(value, "status", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "permission") m.permission = ReadU8(v, key);
    else if (name == "ac") m.ac = ReadU8(v, key);
    else if (name == "dc") m.dc = ReadU8(v, key);
    else if (name == "bound") m.bound = ReadU8(v, key);
    else if (name == "vendor_id") m.vendorId = ReadU16(v, key);
    else if (name == "major") m.major = ReadU8(v, key);
    else if (name == "minor") m.minor = ReadU8(v, key);
    else if (name == "filter") {
      if (v.is_null()) m.filter.reset();
      else m.filter = ReadBytes(v, key);
    } else return false;
    return true;
  });
}

void ReadInfo(const json& value, Machine& m) {
  ForEachMember(value, "info", [&](const std::string& name, const json& v, const std::string& key) {
    // The name field holds 0x40 bytes and the version field 0xFF: 32 and 127 characters.
    if (name == "model_name") m.modelName = Widen(ReadText(v, key, 32));
    else if (name == "model_version") m.modelVersion = Widen(ReadText(v, key, 127));
    else if (name == "policy") m.policy = ReadU8(v, key);
    else if (name == "extended") m.extended = ReadU32(v, key);
    else return false;
    return true;
  });
}

void ReadFlash(const json& value, Machine& m) {
  ForEachMember(value, "flash", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "size") {
      m.flashSize = ReadU32(v, key);
      if (m.flashSize == 0) Refuse(key, "the part cannot be empty");
    } else if (name == "size_index") m.sizeIndex = ReadU8(v, key);
    else if (name == "vendor") m.flashVendor = ReadText(v, key, 31);
    else if (name == "type") m.flashType = ReadText(v, key, 32);
    else if (name == "device_id") m.deviceId = ReadU32(v, key);
    else if (name == "blocks") {
      m.blocks.clear();
      ReadArray(v, key, [&](const json& item, const std::string& path) {
        OnlyKeys(item, path, {"size", "count"});
        const uint32_t size = ReadU32(Member(item, path, "size"), path + ".size");
        // The block map carries sizes in units of 256 bytes and counts in 16 bits.
        if (size == 0 || size % 256 != 0 || size / 256 > 0xFFFE) {
          Refuse(path + ".size", "a block size is a non-zero multiple of 256 bytes below 0xFFFF00");
        }
        const uint32_t count = ReadU16(Member(item, path, "count"), path + ".count");
        m.blocks.push_back({size, count});
      });
    } else if (name == "protect_mode") {
      m.protectMode = ReadGuardedWrite(v, key, true);
    } else return false;
    return true;
  });
}

void ReadMaps(const json& value, Machine& m) {
  ForEachMember(value, "maps", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "protection") {
      m.protection.clear();
      ReadArray(v, key, [&](const json& item, const std::string& path) {
        OnlyKeys(item, path, {"type", "address", "size"});
        m.protection.push_back({ReadU8(Member(item, path, "type"), path + ".type"),
                                ReadU32(Member(item, path, "address"), path + ".address"),
                                ReadU32(Member(item, path, "size"), path + ".size"), 0});
      });
    } else if (name == "private") {
      m.privateMap.clear();
      ReadArray(v, key, [&](const json& item, const std::string& path) {
        OnlyKeys(item, path, {"address", "size"});
        m.privateMap.push_back({0xFE, ReadU32(Member(item, path, "address"), path + ".address"),
                                ReadU32(Member(item, path, "size"), path + ".size"), 0});
      });
    } else if (name == "whole") {
      m.whole.clear();
      ReadArray(v, key, [&](const json& item, const std::string& path) {
        OnlyKeys(item, path, {"type", "address", "size", "attribute"});
        Region region{ReadU8(Member(item, path, "type"), path + ".type"),
                      ReadU32(Member(item, path, "address"), path + ".address"),
                      ReadU32(Member(item, path, "size"), path + ".size"), 0};
        if (item.contains("attribute")) region.attribute = ReadU32(item.at("attribute"), path + ".attribute");
        m.whole.push_back(region);
      });
    } else if (name == "external") {
      std::vector<ExternalRegion> external;
      ReadArray(v, key, [&](const json& item, const std::string& path) {
        OnlyKeys(item, path, {"type", "offset", "size", "access"});
        ExternalRegion region{ReadU8(Member(item, path, "type"), path + ".type"),
                              ReadU32(Member(item, path, "offset"), path + ".offset"),
                              ReadU32(Member(item, path, "size"), path + ".size"), 0};
        if (item.contains("access")) region.access = ReadU8(item.at("access"), path + ".access");
        external.push_back(region);
      });
      if (external.size() > kExternalListLimit) Refuse(key, "the external map holds at most 5 records");
      m.external = std::move(external);
    } else return false;
    return true;
  });
  // The whole map's answer has room for kWholeMapBytes, its end record included.
  if ((m.whole.size() + 1) * sizeof(OblisWholeMapRecord) > kWholeMapBytes) {
    throw BadValue{"maps.whole: more records than fit in 0x1000 bytes with the end record"};
  }
}

Variable SetupModeVariable() {
  Variable variable;
  variable.name = u"SetupMode";
  variable.guid = kGlobalVariableGuid;
  variable.attributes = kSetupModeAttributes;
  variable.data = {0};  // user mode: the platform has Secure Boot and is deployed
  return variable;
}

void ReadVariables(const json& value, Machine& m) {
  ForEachMember(value, "variables", [&](const std::string& name, const json& v, const std::string& key) {
    if (name != "SetupMode") return false;
    std::erase_if(m.variables, [](const Variable& x) { return x.name == u"SetupMode"; });
    if (ReadBool(v, key)) m.variables.push_back(SetupModeVariable());
    return true;
  });
}

void ReadFaults(const json& value, Machine& m) {
  m.faults.clear();
  m.verifyFaults = 0;
  ForEachMember(value, "faults", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "verify") {
      m.verifyFaults = ReadU32(v, key);
      return true;
    }
    const uint8_t function = ReadFunctionNumber(json(name), key);
    OnlyKeys(v, key, {"code", "times", "after"});
    Fault fault;
    fault.code = ReadU8(Member(v, key, "code"), key + ".code");
    if (v.contains("times")) fault.times = ReadU32(v.at("times"), key + ".times");
    if (v.contains("after")) fault.after = ReadU32(v.at("after"), key + ".after");
    m.faults[function] = fault;
    return true;
  });
}

void ReadMe(const json& value, Machine& m) {
  ForEachMember(value, "me", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "locked") m.meLocked = ReadBool(v, key);
    else if (name == "write") m.meWrite = ReadGuardedWrite(v, key, false);
    else return false;
    return true;
  });
}

void ReadCapsule(const json& value, Machine& m) {
  ForEachMember(value, "capsule", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "secure") m.capsule.secure = ReadBool(v, key);
    else if (name == "probe_status") m.capsule.probeStatus = ReadU8(v, key);
    else if (name == "flash_status") m.capsule.flashStatus = ReadU8(v, key);
    else if (name == "action") m.capsule.action = ReadU8(v, key);
    else if (name == "extra") m.capsule.extra = v.is_null() ? std::nullopt : std::optional<uint8_t>(ReadU8(v, key));
    else return false;
    return true;
  });
}

// The EC's size is an index of 21h's table or a list of parts; the parts may be more than the
// ten the tool keeps, so that a machine can test that limit, and hold at most 16 MB together.
constexpr size_t kEcPartsLimit = 16;
constexpr uint64_t kEcSizeLimit = 0x1000000;

void ReadEc(const json& value, Machine& m) {
  bool indexGiven = false;
  ForEachMember(value, "ec", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "size_index") {
      m.ec.sizeIndex = static_cast<uint8_t>(ReadNumber(v, key, 5));
      indexGiven = true;
    } else if (name == "parts") {
      m.ec.parts.clear();
      uint64_t total = 0;
      ReadArray(v, key, [&](const json& item, const std::string& path) {
        m.ec.parts.push_back(ReadU32(item, path));
        total += m.ec.parts.back();
      });
      if (m.ec.parts.empty() || m.ec.parts.size() > kEcPartsLimit) Refuse(key, "expected 1 to 16 part sizes");
      if (total == 0 || total > kEcSizeLimit) Refuse(key, "the parts together hold 1 byte to 16 MB");
    } else if (name == "part_signature") {
      m.ec.partSignature = ReadText(v, key, 8);
      if (m.ec.partSignature.size() != 8) Refuse(key, "a signature is 8 characters");
    } else return false;
    return true;
  });
  if (indexGiven && !m.ec.parts.empty()) Refuse("ec", "give size_index or parts, not both");
}

void ReadFactoryCopy(const json& value, Machine& m) {
  m.factoryCopy = 0;
  ForEachMember(value, "factory_copy", [&](const std::string& name, const json& v, const std::string& key) {
    if (name != "status") return false;
    m.factoryCopy = ReadU16(v, key);
    return true;
  });
}

void ReadAcpi(const json& value, Machine& m) {
  ForEachMember(value, "acpi", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "smi_cmd_port") m.smiCmdPort = ReadU16(v, key);
    else if (name == "dsdt_oem_id") m.dsdtOemId = ReadText(v, key, 6);
    else if (name == "acpi10") m.acpi10 = ReadBool(v, key);
    else if (name == "acpi20") m.acpi20 = ReadBool(v, key);
    else return false;
    return true;
  });
}

void ReadOblis(const json& value, Machine& m) {
  ForEachMember(value, "oblis", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "signature") m.oblisSignature = ReadBool(v, key);
    else if (name == "smi_number") m.smiNumber = ReadU8(v, key);
    else return false;
    return true;
  });
}

void ReadVolumes(const json& value, Machine& m) {
  m.volumes.clear();
  ReadArray(value, "volumes", [&](const json& item, const std::string& path) {
    OnlyKeys(item, path, {"path", "kind"});
    const json& pathValue = Member(item, path, "path");
    if (!pathValue.is_string() || pathValue.get<std::string>().empty()) Refuse(path + ".path", "expected a directory name");
    const json& kindValue = Member(item, path, "kind");
    const std::string kind = kindValue.is_string() ? kindValue.get<std::string>() : std::string();
    if (kind != "usb" && kind != "sata" && kind != "emmc" && kind != "other") {
      Refuse(path + ".kind", "expected \"usb\", \"sata\", \"emmc\" or \"other\"");
    }
    m.volumes.push_back({pathValue.get<std::string>(), kind});
  });
}

// Ports 0x70 and 0x71 are the CMOS clock's, which the simulator models itself (key "rtc").
constexpr uint32_t kCmosIndexPort = 0x70;
constexpr uint32_t kCmosDataPort = 0x71;

std::string Hex(uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(value));
  return text;
}

// "HH:MM:SS", 24-hour.
RtcTime ReadTimeOfDay(const json& value, const std::string& key) {
  const std::string text = value.is_string() ? value.get<std::string>() : std::string();
  bool shaped = text.size() == 8 && text[2] == ':' && text[5] == ':';
  for (size_t at : {0, 1, 3, 4, 6, 7}) shaped = shaped && std::isdigit(static_cast<unsigned char>(text[at]));
  const auto field = [&text](size_t at) { return static_cast<uint8_t>((text[at] - '0') * 10 + (text[at + 1] - '0')); };
  if (!shaped || field(0) > 23 || field(3) > 59 || field(6) > 59) {
    Refuse(key, "expected a time of day \"HH:MM:SS\" from 00:00:00 to 23:59:59");
  }
  return {field(0), field(3), field(6)};
}

void ReadRtc(const json& value, Machine& m) {
  ForEachMember(value, "rtc", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "binary") m.rtc.binary = ReadBool(v, key);
    else if (name == "time") m.rtc.time = ReadTimeOfDay(v, key);
    else return false;
    return true;
  });
}

void ReadIoPorts(const json& value, Machine& m) {
  m.ioPorts.clear();
  std::vector<bool> taken(0x10000, false);
  ForEachMember(value, "io_ports", [&](const std::string& name, const json& v, const std::string& key) {
    IoPortValue port;
    port.port = ReadU16(json(name), key);
    if (v.is_object()) {
      OnlyKeys(v, key, {"value", "width"});
      if (v.contains("width")) port.width = ReadU8(v.at("width"), key + ".width");
      if (port.width != 1 && port.width != 2 && port.width != 4) Refuse(key + ".width", "expected 1, 2 or 4");
      const uint64_t limit = port.width == 4 ? 0xFFFFFFFFull : (1ull << (8 * port.width)) - 1;
      port.value = static_cast<uint32_t>(ReadNumber(Member(v, key, "value"), key + ".value", limit));
    } else {
      port.value = ReadU8(v, key);
    }
    if (uint32_t{port.port} + port.width > 0x10000) Refuse(key, "the value runs past port 0xFFFF");
    for (uint32_t p = port.port; p < uint32_t{port.port} + port.width; ++p) {
      if (p == kCmosIndexPort || p == kCmosDataPort) Refuse(key, "ports 0x70 and 0x71 belong to the CMOS clock");
      if (taken[p]) Refuse(key, "port " + Hex(p) + " is described twice");
      taken[p] = true;
    }
    m.ioPorts.push_back(port);
    return true;
  });
}

void ReadPci(const json& value, Machine& m) {
  m.pci.clear();
  ReadArray(value, "pci", [&](const json& item, const std::string& path) {
    OnlyKeys(item, path, {"bus", "device", "function", "offset", "value"});
    PciRegister r;
    r.bus = ReadU8(Member(item, path, "bus"), path + ".bus");
    r.device = static_cast<uint8_t>(ReadNumber(Member(item, path, "device"), path + ".device", 0x1F));
    r.function = static_cast<uint8_t>(ReadNumber(Member(item, path, "function"), path + ".function", 7));
    r.offset = ReadU8(Member(item, path, "offset"), path + ".offset");
    if (r.offset % 4 != 0) Refuse(path + ".offset", "a register starts at a multiple of 4");
    r.value = ReadU32(Member(item, path, "value"), path + ".value");
    for (const PciRegister& other : m.pci) {
      if (other.bus == r.bus && other.device == r.device && other.function == r.function && other.offset == r.offset)
        Refuse(path, "the register is described twice");
    }
    m.pci.push_back(r);
  });
}

// Bytes as an array of numbers or as a text of hexadecimal pairs, blanks allowed between pairs.
std::vector<uint8_t> ReadMemoryBytes(const json& value, const std::string& key) {
  if (!value.is_string()) return ReadBytes(value, key);
  std::string digits;
  for (char c : value.get<std::string>()) {
    if (c == ' ') continue;
    if (!std::isxdigit(static_cast<unsigned char>(c))) Refuse(key, "expected hexadecimal digits, such as \"DE AD BE EF\"");
    digits += c;
  }
  if (digits.size() % 2 != 0) Refuse(key, "an odd number of hexadecimal digits");
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i < digits.size(); i += 2) bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return bytes;
}

void ReadMemory(const json& value, Machine& m) {
  m.memory.clear();
  ReadArray(value, "memory", [&](const json& item, const std::string& path) {
    OnlyKeys(item, path, {"address", "bytes"});
    MemoryRange range;
    range.address = ReadU32(Member(item, path, "address"), path + ".address");
    range.bytes = ReadMemoryBytes(Member(item, path, "bytes"), path + ".bytes");
    if (range.bytes.empty()) Refuse(path + ".bytes", "a range holds at least one byte");
    if (uint64_t{range.address} + range.bytes.size() > 0x100000000ull) Refuse(path, "the range runs past 4 GB");
    m.memory.push_back(std::move(range));
  });
}

// Ranges may not overlap each other, the legacy BIOS area or the flash part below 4 GB: the
// simulator models those itself. Checked once all keys are read, since the flash size may come
// after the ranges.
void CheckMemoryRanges(const Machine& m) {
  struct Span {
    uint64_t start, end;  // end exclusive
    std::string what;
  };
  std::vector<Span> spans = {{kLegacyAreaStart, uint64_t{kLegacyAreaEnd} + 1, "the legacy BIOS area"},
                             {0x100000000ull - m.flashSize, 0x100000000ull, "the flash part"}};
  for (size_t i = 0; i < m.memory.size(); ++i) {
    const MemoryRange& range = m.memory[i];
    const Span span{range.address, uint64_t{range.address} + range.bytes.size(), "memory[" + std::to_string(i) + "]"};
    for (const Span& other : spans) {
      if (span.start < other.end && other.start < span.end) Refuse(span.what, "overlaps " + other.what);
    }
    spans.push_back(span);
  }
}

// The functions whose answer goes into the tool's buffers, the registers that point at them.
bool AnswersInto(uint8_t function, const std::string& reg) {
  switch (function) {
    case 0x10: case 0x11: case 0x17: case 0x1E: return reg == "edi";
    case 0x12: case 0x13: return reg == "edi" || reg == "esi";
    default: return false;
  }
}

// The largest answer the tool takes from one buffer.
constexpr size_t kAnswerBytesLimit = 0x10000;

void ReadAnswerBytes(const json& value, Machine& m) {
  m.answerBytes.clear();
  ForEachMember(value, "answer_bytes", [&](const std::string& name, const json& v, const std::string& key) {
    const uint8_t function = ReadFunctionNumber(json(name), key);
    ForEachMember(v, key, [&](const std::string& reg, const json& bytes, const std::string& path) {
      if (!AnswersInto(function, reg)) Refuse(path, "the function writes no answer at " + reg);
      std::vector<uint8_t> raw = ReadMemoryBytes(bytes, path);
      if (raw.size() > kAnswerBytesLimit) Refuse(path, "longer than 0x10000 bytes");
      m.answerBytes[function][reg] = std::move(raw);
      return true;
    });
    return true;
  });
}

void ReadTop(const json& document, Machine& m) {
  ForEachMember(document, "", [&](const std::string& name, const json& v, const std::string& key) {
    if (name == "description") {
      if (!v.is_string()) Refuse(key, "expected a string");
    } else if (name == "status") ReadStatus(v, m);
    else if (name == "info") ReadInfo(v, m);
    else if (name == "flash") ReadFlash(v, m);
    else if (name == "maps") ReadMaps(v, m);
    else if (name == "anti_theft") m.antiTheft = ReadU8(v, key);
    else if (name == "variables") ReadVariables(v, m);
    else if (name == "unsupported") {
      m.unsupported.clear();
      ReadArray(v, key, [&](const json& item, const std::string& path) { m.unsupported.push_back(ReadFunctionNumber(item, path)); });
    } else if (name == "faults") ReadFaults(v, m);
    else if (name == "power_cut_after_writes") m.powerCutAfterWrites = ReadU32(v, key);
    else if (name == "power_cut_after_operations") m.powerCutAfterOperations = ReadU32(v, key);
    else if (name == "power_cut_programmed_bytes") m.powerCutProgrammedBytes = ReadU8(v, key);
    else if (name == "me") ReadMe(v, m);
    else if (name == "capsule") ReadCapsule(v, m);
    else if (name == "ec") ReadEc(v, m);
    else if (name == "factory_copy") ReadFactoryCopy(v, m);
    else if (IsConversationKey(name)) {
      const std::string problem = ReadConversationKey(name, v, m.conversation);
      if (!problem.empty()) throw BadValue{problem};
    }
    else if (IsPacketKey(name)) {
      const std::string problem = ReadPacketKey(name, v, m.packets);
      if (!problem.empty()) throw BadValue{problem};
    }
    else if (IsOemSecureKey(name)) {
      const std::string problem = ReadOemSecureKey(name, v, m.oemSecure);
      if (!problem.empty()) throw BadValue{problem};
    }
    else if (name == "acpi") ReadAcpi(v, m);
    else if (name == "oblis") ReadOblis(v, m);
    else if (name == "volumes") ReadVolumes(v, m);
    else if (name == "io_ports") ReadIoPorts(v, m);
    else if (name == "rtc") ReadRtc(v, m);
    else if (name == "pci") ReadPci(v, m);
    else if (name == "memory") ReadMemory(v, m);
    else if (name == "answer_bytes") ReadAnswerBytes(v, m);
    else return false;
    return true;
  });
  CheckMemoryRanges(m);
  if (m.powerCutProgrammedBytes != 0 && !m.powerCutAfterOperations)
    Refuse("power_cut_programmed_bytes", "needs power_cut_after_operations, the cut it belongs to");
}

}  // namespace

bool Variable::operator==(const Variable& other) const {
  return name == other.name && std::memcmp(&guid, &other.guid, sizeof(guid)) == 0 && attributes == other.attributes &&
         data == other.data;
}

Machine DefaultMachine() {
  using namespace layout;
  Machine m;
  m.flashSize = kFlashSize;
  m.sizeIndex = 8;
  m.blocks = {{0x1000, kFlashSize / 0x1000}};
  // 1Eh: the whole BIOS region, region by region.
  m.whole = {
      {0x06, kNvStorage, kNvStorageSize, 0},  {0x07, kFtwBackup, kFtwBackupSize, 0},
      {0x08, kFtwState, kFtwStateSize, 0},    {0x0A, kOemData, kOemDataSize, 0},
      {0x01, kMicrocode, kMicrocodeSize, 0},  {0x03, kDxe, kDxeSize, 0},
      {0x00, kPei, kPeiSize, 0},
  };
  // 12h: the variable store and its fault-tolerant-write spare are kept; the FTW state block
  // is the firmware's own working area. The OEM Data region is not protected: it holds the
  // BVDT, which an update must be able to replace.
  m.protection = {{0x06, kNvStorage, kNvStorageSize, 0}, {0x07, kFtwBackup, kFtwBackupSize, 0}};
  m.privateMap = {{0xFE, kFtwState, kFtwStateSize, 0}};
  return m;
}

bool ParseMachine(const std::string& jsonText, Machine& machine, std::string& error) {
  json document;
  try {
    document = json::parse(jsonText);
  } catch (const json::exception& e) {  // a syntax fault, or a number too large for any type
    error = std::string("machine description is not valid JSON: ") + e.what();
    return false;
  }
  if (!document.is_object()) {
    error = "machine description must be a JSON object";
    return false;
  }
  Machine parsed = DefaultMachine();
  try {
    ReadTop(document, parsed);
  } catch (const BadValue& bad) {
    error = bad.message;
    return false;
  }
  machine = std::move(parsed);
  return true;
}

}  // namespace sim

namespace sim {

namespace {

bool ReadWholeFile(const std::string& path, std::string& content) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::stringstream text;
  text << in.rdbuf();
  content = text.str();
  return !in.bad();
}

// A flash or EC image straight into its vector: one copy of a part of many megabytes, not the
// three a text stream makes on the way.
bool ReadWholeBinary(const std::string& path, std::vector<uint8_t>& content) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return false;
  const std::streamoff size = in.tellg();
  if (size < 0) return false;
  content.resize(static_cast<size_t>(size));
  in.seekg(0);
  in.read(reinterpret_cast<char*>(content.data()), size);
  return in.gcount() == size;
}

}  // namespace

bool LoadMachineAndFlash(const std::string& machineFile, const std::string& flashFile, Machine& machine,
                         std::vector<uint8_t>& flash, std::string& error) {
  machine = DefaultMachine();
  flash.clear();
  if (!machineFile.empty()) {
    std::string text, parseError;
    if (!ReadWholeFile(machineFile, text)) return error = "cannot read the machine file " + machineFile, false;
    if (!ParseMachine(text, machine, parseError)) return error = machineFile + ": " + parseError, false;
  }
  if (!flashFile.empty() && std::filesystem::exists(flashFile)) {
    if (!ReadWholeBinary(flashFile, flash)) return error = "cannot read the flash file " + flashFile, false;
    // A file of the wrong size is the user's fault, told in words before any simulator is made.
    const std::string problem = ValidateFlashContent(machine, flash);
    if (!problem.empty()) return error = "the flash file " + flashFile + ": " + problem, false;
  }
  return true;
}

bool LoadEcContent(const Machine& machine, const std::string& ecFile, std::vector<uint8_t>& ec, std::string& error) {
  ec.clear();
  if (ecFile.empty() || !std::filesystem::exists(ecFile)) return true;
  if (!ReadWholeBinary(ecFile, ec)) return error = "cannot read the EC file " + ecFile, false;
  const std::string problem = ValidateEcContent(machine, ec);
  if (!problem.empty()) return error = "the EC file " + ecFile + ": " + problem, false;
  return true;
}

}  // namespace sim
