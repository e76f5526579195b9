// UEFI variables of the emulated environment: GetVariable/SetVariable with the firmware's
// answers, kept in memory and, for non-volatile variables, in a JSON file saved on every change
// so that they outlive a run, as they outlive a reboot on a machine.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "EmuInternal.h"

namespace emu::detail {
namespace {

using Key = std::pair<std::string, std::u16string>;

std::string HexOf(const std::vector<uint8_t>& data) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (uint8_t b : data) {
    out += kDigits[b >> 4];
    out += kDigits[b & 15];
  }
  return out;
}

bool BytesOf(const std::string& hex, std::vector<uint8_t>& data) {
  if (hex.size() % 2 != 0) return false;
  data.clear();
  for (size_t i = 0; i < hex.size(); i += 2) {
    unsigned value = 0;
    if (std::sscanf(hex.substr(i, 2).c_str(), "%2x", &value) != 1) return false;
    data.push_back(static_cast<uint8_t>(value));
  }
  return true;
}

void Save() {
  if (g->variablesFile.empty()) return;
  nlohmann::json list = nlohmann::json::array();
  for (auto& [key, variable] : g->variables) {
    if ((variable.attributes & EFI_VARIABLE_NON_VOLATILE) == 0) continue;
    list.push_back({{"name", ToUtf8(key.second)},
                    {"guid", key.first},
                    {"attributes", variable.attributes},
                    {"data", HexOf(variable.data)}});
  }
  std::string temporary = g->variablesFile + ".new";
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << nlohmann::json{{"variables", list}}.dump(2) << "\n";
    if (!out) {
      std::fprintf(stderr, "zaprom-emu: cannot write the variable store %s\n", temporary.c_str());
      return;
    }
  }
  std::rename(temporary.c_str(), g->variablesFile.c_str());
}

bool Load(const std::string& file, std::string& error) {
  std::ifstream in(file);
  if (!in) return true;  // no store yet: the first SetVariable makes it
  std::stringstream text;
  text << in.rdbuf();
  nlohmann::json root = nlohmann::json::parse(text.str(), nullptr, false);
  if (root.is_discarded() || !root.is_object() || !root.contains("variables") || !root["variables"].is_array()) {
    error = "the variable store " + file + " is not a JSON object with a \"variables\" list";
    return false;
  }
  for (auto& item : root["variables"]) {
    EFI_GUID guid{};
    StoredVariable variable;
    if (!item.is_object() || !item.contains("name") || !item["name"].is_string() || !item.contains("guid") ||
        !item["guid"].is_string() || !ParseGuid(item["guid"].get<std::string>(), guid) ||
        !item.contains("attributes") || !item["attributes"].is_number_unsigned() || !item.contains("data") ||
        !item["data"].is_string() || !BytesOf(item["data"].get<std::string>(), variable.data)) {
      error = "the variable store " + file + " holds an entry without a valid name, guid, attributes and data: " +
              item.dump();
      return false;
    }
    variable.attributes = item["attributes"].get<uint32_t>();
    g->variables[{GuidText(guid), FromUtf8(item["name"].get<std::string>())}] = variable;
  }
  return true;
}

EFI_STATUS EFIAPI GetVariable(const CHAR16* name, const EFI_GUID* guid, UINT32* attributes, UINTN* dataSize,
                              VOID* data) {
  if (name == nullptr || guid == nullptr || dataSize == nullptr) return EFI_INVALID_PARAMETER;
  auto it = g->variables.find(Key{GuidText(*guid), std::u16string(name)});
  if (it == g->variables.end()) return EFI_NOT_FOUND;
  const StoredVariable& variable = it->second;
  if (*dataSize < variable.data.size()) {
    *dataSize = variable.data.size();
    return EFI_BUFFER_TOO_SMALL;
  }
  if (data == nullptr && !variable.data.empty()) return EFI_INVALID_PARAMETER;
  if (!variable.data.empty()) std::memcpy(data, variable.data.data(), variable.data.size());
  *dataSize = variable.data.size();
  if (attributes != nullptr) *attributes = variable.attributes;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SetVariable(const CHAR16* name, const EFI_GUID* guid, UINT32 attributes, UINTN dataSize,
                              const VOID* data) {
  if (name == nullptr || name[0] == 0 || guid == nullptr) return EFI_INVALID_PARAMETER;
  if (dataSize != 0 && data == nullptr) return EFI_INVALID_PARAMETER;
  Key key{GuidText(*guid), std::u16string(name)};
  auto it = g->variables.find(key);
  // Size 0 or no access attributes deletes.
  if (dataSize == 0 || (attributes & (EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS)) == 0) {
    if (it == g->variables.end()) return EFI_NOT_FOUND;
    g->variables.erase(it);
    Save();
    return EFI_SUCCESS;
  }
  // Runtime access needs boot-service access; only the three basic attributes exist here.
  if ((attributes & EFI_VARIABLE_RUNTIME_ACCESS) != 0 && (attributes & EFI_VARIABLE_BOOTSERVICE_ACCESS) == 0)
    return EFI_INVALID_PARAMETER;
  if ((attributes & ~(EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS)) != 0)
    return EFI_UNSUPPORTED;
  if (it != g->variables.end() && it->second.attributes != attributes) return EFI_INVALID_PARAMETER;
  StoredVariable& variable = g->variables[key];
  variable.attributes = attributes;
  const auto* bytes = static_cast<const uint8_t*>(data);
  variable.data.assign(bytes, bytes + dataSize);
  Save();
  return EFI_SUCCESS;
}

}  // namespace

void InstallVariableServices(State& s) {
  s.runtimeServices.GetVariable = GetVariable;
  s.runtimeServices.SetVariable = SetVariable;
  if (s.options.variablesFile.empty()) return;
  std::string error;
  if (Load(s.options.variablesFile, error)) {
    s.variablesFile = s.options.variablesFile;
  } else {
    // Left unsaved, so that a broken store is not overwritten by a run that never read it.
    s.setupError = error;
  }
}

}  // namespace emu::detail

namespace emu {

void Environment::PresetVariable(const std::u16string& name, const EFI_GUID& guid, uint32_t attributes,
                                 const std::vector<uint8_t>& data) {
  detail::g->variables[{detail::GuidText(guid), name}] = detail::StoredVariable{attributes, data};
}

bool Environment::ReadVariable(const std::u16string& name, const EFI_GUID& guid, std::vector<uint8_t>& data) const {
  auto it = detail::g->variables.find({detail::GuidText(guid), name});
  if (it == detail::g->variables.end()) return false;
  data = it->second.data;
  return true;
}

}  // namespace emu
