// Reading an image description from JSON into an ImageDescription: sizes with units, fills,
// regions, the BVDT block, the "$OBLIS" map and the EC prefix. Whether the layout fits together
// is checked when the image is built, so that descriptions made in code get the same checks.
#include <cctype>
#include <filesystem>
#include <set>

#include "ZaPromImage.h"

namespace zimage {

namespace {

using nlohmann::json;

[[noreturn]] void Fail(const std::string& where, const std::string& what) { throw ImageError(where + ": " + what); }

// Refuses keys the format does not know: a misspelt "ofset" must not quietly become 0.
void CheckKeys(const json& object, const std::set<std::string>& known, const std::string& where) {
  if (!object.is_object()) Fail(where, "expected an object");
  for (const auto& [key, value] : object.items()) {
    if (!known.count(key)) Fail(where, "unknown key \"" + key + "\"");
  }
}

uint64_t ParseNumberText(const std::string& text, size_t& pos, const std::string& where) {
  const bool hex = text.size() > pos + 1 && text[pos] == '0' && (text[pos + 1] == 'x' || text[pos + 1] == 'X');
  if (hex) pos += 2;
  const size_t start = pos;
  uint64_t value = 0;
  while (pos < text.size() && (hex ? std::isxdigit(static_cast<unsigned char>(text[pos])) : std::isdigit(static_cast<unsigned char>(text[pos])))) {
    const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(text[pos])));
    value = value * (hex ? 16 : 10) + static_cast<uint64_t>(c <= '9' ? c - '0' : c - 'a' + 10);
    if (value > 0xFFFFFFFFull) Fail(where, "\"" + text + "\" does not fit in 32 bits");
    ++pos;
  }
  if (pos == start) Fail(where, "\"" + text + "\" is not a number");
  return value;
}

uint32_t ParseNumber(const json& value, const std::string& where, uint64_t max = 0xFFFFFFFFull) {
  uint64_t number = 0;
  if (value.is_number_integer()) {
    if (value.get<int64_t>() < 0 && !value.is_number_unsigned()) Fail(where, "must not be negative");
    number = value.get<uint64_t>();
  } else if (value.is_string()) {
    const std::string text = value.get<std::string>();
    size_t pos = 0;
    number = ParseNumberText(text, pos, where);
    if (pos != text.size()) Fail(where, "\"" + text + "\" is not a number");
  } else {
    Fail(where, "expected a number or a number text");
  }
  if (number > max) Fail(where, std::to_string(number) + " is out of range");
  return static_cast<uint32_t>(number);
}

std::string ParseText(const json& value, const std::string& where) {
  if (!value.is_string()) Fail(where, "expected a text");
  return value.get<std::string>();
}

Fill ParseFill(const json& value, const std::string& where, const std::string& baseDirectory) {
  Fill fill;
  if (!value.is_object()) {
    fill.byte = static_cast<uint8_t>(ParseNumber(value, where, 0xFF));
    return fill;
  }
  CheckKeys(value, {"byte", "random", "file", "place", "pad"}, where);
  const int kinds = int(value.contains("byte")) + int(value.contains("random")) + int(value.contains("file"));
  if (kinds != 1) Fail(where, "give exactly one of \"byte\", \"random\", \"file\"");
  if (value.contains("byte")) fill.byte = static_cast<uint8_t>(ParseNumber(value["byte"], where + ".byte", 0xFF));
  if (value.contains("random")) {
    fill.kind = Fill::Kind::Random;
    fill.seed = ParseNumber(value["random"], where + ".random");
  }
  if (value.contains("file")) {
    fill.kind = Fill::Kind::File;
    std::filesystem::path path = ParseText(value["file"], where + ".file");
    if (path.is_relative() && !baseDirectory.empty()) path = std::filesystem::path(baseDirectory) / path;
    fill.path = path.string();
    if (value.contains("pad")) fill.byte = static_cast<uint8_t>(ParseNumber(value["pad"], where + ".pad", 0xFF));
    if (value.contains("place")) {
      const std::string place = ParseText(value["place"], where + ".place");
      if (place != "end" && place != "start") Fail(where + ".place", "expected \"end\" or \"start\"");
      fill.atEnd = place == "end";
    }
  } else if (value.contains("place") || value.contains("pad")) {
    Fail(where, "\"place\" and \"pad\" belong to a file fill");
  }
  return fill;
}

SpiRegion RegionByName(const std::string& name, const std::string& where) {
  for (int i = 0; i < kSpiRegionCount; ++i) {
    if (name == SpiRegionName(static_cast<SpiRegion>(i))) return static_cast<SpiRegion>(i);
  }
  Fail(where, "unknown region \"" + name + "\" (descriptor, bios, me, gbe, platform_data)");
}

BvdtSpec ParseBvdt(const json& value) {
  CheckKeys(value, {"offset", "version", "model", "extra", "release_date", "close"}, "bvdt");
  if (!value.contains("offset") || !value.contains("version") || !value.contains("model")) {
    Fail("bvdt", "needs \"offset\", \"version\" and \"model\"");
  }
  BvdtSpec bvdt;
  bvdt.offset = ParseNumber(value["offset"], "bvdt.offset");
  bvdt.version = ParseText(value["version"], "bvdt.version");
  bvdt.model = ParseText(value["model"], "bvdt.model");
  if (value.contains("extra")) bvdt.extra = ParseText(value["extra"], "bvdt.extra");
  if (value.contains("release_date")) bvdt.releaseDate = ParseText(value["release_date"], "bvdt.release_date");
  if (value.contains("close")) {
    if (!value["close"].is_boolean()) Fail("bvdt.close", "expected true or false");
    bvdt.closeBlock = value["close"].get<bool>();
  }
  return bvdt;
}

OblisMapSpec ParseOblisMap(const json& value) {
  CheckKeys(value, {"offset", "records"}, "oblis_map");
  OblisMapSpec map;
  if (value.contains("offset")) map.offset = ParseNumber(value["offset"], "oblis_map.offset");
  if (!value.contains("records") || !value["records"].is_array()) Fail("oblis_map", "needs a \"records\" list");
  for (size_t i = 0; i < value["records"].size(); ++i) {
    const std::string where = "oblis_map.records[" + std::to_string(i) + "]";
    const json& r = value["records"][i];
    CheckKeys(r, {"type", "address", "size", "action"}, where);
    if (!r.contains("type") || !r.contains("address") || !r.contains("size")) {
      Fail(where, "needs \"type\", \"address\" and \"size\"");
    }
    MapRecord record;
    record.type = static_cast<uint8_t>(ParseNumber(r["type"], where + ".type", 0xFF));
    record.address = ParseNumber(r["address"], where + ".address");
    record.size = ParseSize(r["size"], where + ".size");
    if (r.contains("action")) record.action = static_cast<uint8_t>(ParseNumber(r["action"], where + ".action", 0xFF));
    map.records.push_back(record);
  }
  return map;
}

}  // namespace

const char* SpiRegionName(SpiRegion region) {
  static const char* const kNames[kSpiRegionCount] = {"descriptor", "bios", "me", "gbe", "platform_data"};
  return kNames[static_cast<int>(region)];
}

uint32_t ParseSize(const json& value, const std::string& where) {
  if (!value.is_string()) return ParseNumber(value, where);
  const std::string text = value.get<std::string>();
  size_t pos = 0;
  const uint64_t number = ParseNumberText(text, pos, where);
  while (pos < text.size() && text[pos] == ' ') ++pos;
  std::string unit;
  for (; pos < text.size(); ++pos) unit.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(text[pos]))));
  uint64_t scale = 1;
  if (unit == "K" || unit == "KB" || unit == "KIB") {
    scale = 1u << 10;
  } else if (unit == "M" || unit == "MB" || unit == "MIB") {
    scale = 1u << 20;
  } else if (!unit.empty() && unit != "B") {
    Fail(where, "unknown unit in \"" + text + "\" (B, KB, MB)");
  }
  if (number * scale > 0xFFFFFFFFull) Fail(where, "\"" + text + "\" does not fit in 32 bits");
  return static_cast<uint32_t>(number * scale);
}

ImageDescription ParseImageDescription(const json& document, const std::string& baseDirectory) {
  CheckKeys(document, {"size", "fill", "regions", "bvdt", "oblis_map", "ec", "secure", "pfat", "rbu"}, "description");
  ImageDescription description;
  if (!document.contains("size")) Fail("description", "needs \"size\"");
  description.size = ParseSize(document["size"], "size");
  if (document.contains("fill")) description.fill = ParseFill(document["fill"], "fill", baseDirectory);
  if (document.contains("regions")) {
    const json& regions = document["regions"];
    if (!regions.is_object()) Fail("regions", "expected an object of regions by name");
    for (const auto& [name, value] : regions.items()) {
      const std::string where = "regions." + name;
      RegionSpec spec;
      spec.region = RegionByName(name, where);
      CheckKeys(value, {"offset", "size", "fill"}, where);
      if (!value.contains("offset") || !value.contains("size")) Fail(where, "needs \"offset\" and \"size\"");
      spec.offset = ParseSize(value["offset"], where + ".offset");
      spec.size = ParseSize(value["size"], where + ".size");
      if (value.contains("fill")) spec.fill = ParseFill(value["fill"], where + ".fill", baseDirectory);
      description.regions.push_back(spec);
    }
  }
  if (document.contains("bvdt")) description.bvdt = ParseBvdt(document["bvdt"]);
  if (document.contains("oblis_map")) description.oblisMap = ParseOblisMap(document["oblis_map"]);
  if (document.contains("ec")) {
    const json& ec = document["ec"];
    CheckKeys(ec, {"size", "fill"}, "ec");
    if (!ec.contains("size")) Fail("ec", "needs \"size\"");
    EcSpec spec;
    spec.size = ParseSize(ec["size"], "ec.size");
    if (ec.contains("fill")) spec.fill = ParseFill(ec["fill"], "ec.fill", baseDirectory);
    description.ec = spec;
  }
  if (document.contains("secure")) {
    CheckKeys(document["secure"], {"ini"}, "secure");
    SecureSpec spec;
    if (document["secure"].contains("ini")) spec.ini = ParseText(document["secure"]["ini"], "secure.ini");
    description.secure = spec;
  }
  if (document.contains("pfat")) {
    const json& pfat = document["pfat"];
    CheckKeys(pfat, {"block_size", "header_size", "certificate_size"}, "pfat");
    PfatSpec spec;
    if (pfat.contains("block_size")) spec.blockSize = ParseSize(pfat["block_size"], "pfat.block_size");
    if (pfat.contains("header_size")) spec.headerSize = ParseSize(pfat["header_size"], "pfat.header_size");
    if (pfat.contains("certificate_size")) spec.certificateSize = ParseSize(pfat["certificate_size"], "pfat.certificate_size");
    if (description.secure) Fail("pfat", "a secure image carries no PFAT tables");
    description.pfat = spec;
  }
  if (document.contains("rbu")) {
    const json& rbu = document["rbu"];
    CheckKeys(rbu, {"header_size", "server_size"}, "rbu");
    RbuSpec spec;
    if (rbu.contains("header_size")) spec.headerSize = ParseSize(rbu["header_size"], "rbu.header_size");
    if (rbu.contains("server_size")) spec.serverSize = ParseSize(rbu["server_size"], "rbu.server_size");
    if (description.secure || description.pfat) Fail("rbu", "an RBU image wraps a plain flash file");
    description.rbu = spec;
  }
  return description;
}

}  // namespace zimage
