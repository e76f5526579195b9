// The ROM package as the packing step lays it out: the shell application first, then its records,
// each record's data right behind its head. And the reading back: every record the file holds,
// with its names and sizes and the settings unscrambled, bounded by the file as the tool is.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "ZaPromImage.h"

namespace zimage {
namespace {

// The markers are put together here rather than kept whole, like the tool's own, so that this
// program's file is no package either.
std::string Marker(const char* rest) { return std::string(1, '$') + rest; }
std::string ImageMarker(int number) {
  char text[16];
  std::snprintf(text, sizeof text, "$ROM_P%02d_", number);
  return text;
}

void PutU32(std::vector<uint8_t>& out, size_t at, uint32_t value) {
  for (int i = 0; i < 4; ++i) out[at + i] = uint8_t(value >> (8 * i));
}
uint32_t GetU32(const std::vector<uint8_t>& in, size_t at) {
  return uint32_t(in[at]) | uint32_t(in[at + 1]) << 8 | uint32_t(in[at + 2]) << 16 | uint32_t(in[at + 3]) << 24;
}

// A record's head with its marker, as many bytes as the head holds.
std::vector<uint8_t> Head(const std::string& marker, size_t bytes) {
  std::vector<uint8_t> head(bytes, 0);
  std::copy(marker.begin(), marker.end(), head.begin());
  return head;
}

void Append(std::vector<uint8_t>& out, const std::vector<uint8_t>& bytes) { out.insert(out.end(), bytes.begin(), bytes.end()); }

// Texts travel as ASCII with a zero byte behind; what does not fit is refused with its item.
void CheckText(const std::string& text, size_t most, const std::string& item) {
  if (text.size() > most)
    throw ImageError(item + " \"" + text + "\" has " + std::to_string(text.size()) + " characters; its field holds " +
                     std::to_string(most));
  for (unsigned char c : text)
    if (c == 0 || c > 0x7E) throw ImageError(item + " \"" + text + "\" holds a character that is not printable ASCII");
}

void CheckName(const std::string& name, size_t most, const std::string& item) {
  if (name.empty()) throw ImageError(item + " has no name");
  CheckText(name, most, item + " name");
}

uint8_t RotateLeft(uint8_t b) { return uint8_t(b << 1 | b >> 7); }
uint8_t RotateRight(uint8_t b) { return uint8_t(b >> 1 | b << 7); }

// A zero-terminated text from at, no further than the file or most bytes.
std::string TextAt(const std::vector<uint8_t>& file, size_t at, size_t most) {
  std::string text;
  for (size_t i = at; i < file.size() && i - at < most && file[i] != 0; ++i) text += char(file[i]);
  return text;
}

// The first marker from from on. memchr finds each candidate '$': a package is megabytes of image
// data, and the listing looks for a hundred markers.
size_t Find(const std::vector<uint8_t>& file, const std::string& marker, size_t from) {
  size_t found = std::string::npos;
  const uint8_t* bytes = file.data();
  for (size_t at = from; found == std::string::npos && at < file.size() && file.size() - at >= marker.size();) {
    const void* hit = std::memchr(bytes + at, marker[0], file.size() - at - marker.size() + 1);
    if (hit == nullptr) break;
    at = size_t(static_cast<const uint8_t*>(hit) - bytes);
    if (std::memcmp(bytes + at, marker.data(), marker.size()) == 0) found = at;
    ++at;
  }
  return found;
}

// Fills offset, size and whether they lie in the file, for a record with data fields at 9 and 13.
void ReadDataFields(const std::vector<uint8_t>& file, PackageRecord& record, size_t headBytes) {
  if (record.offset + headBytes > file.size()) {
    record.fault = "its head reaches past the end of the file";
    return;
  }
  record.dataOffset = GetU32(file, record.offset + kPackageDataOffsetField);
  record.dataSize = GetU32(file, record.offset + kPackageDataSizeField);
  if (uint64_t(record.offset) + record.dataOffset + record.dataSize > file.size())
    record.fault = "its data lies outside the file";
}

}  // namespace

std::vector<uint8_t> BuildPackage(const PackageSpec& spec) {
  if (spec.images.empty()) throw ImageError("a package needs at least one image");
  if (spec.images.size() > kPackageMostImages)
    throw ImageError("a package holds at most " + std::to_string(kPackageMostImages) + " images (the first and 99 further); " +
                     std::to_string(spec.images.size()) + " were given");
  CheckText(spec.defaultArguments, kPackageDefaultArgumentBytes - 1, "the default arguments");
  CheckText(spec.permittedOptions, kPackagePermittedOptionBytes - 1, "the permitted options");
  for (size_t i = 0; i < spec.images.size(); ++i)
    CheckName(spec.images[i].name, kPackageImageNameCharacters, "image " + std::to_string(i + 1));
  for (const PackageFile& resource : spec.resources)
    CheckName(resource.name, kPackageResourceNameBytes - 1, "resource \"" + resource.name + "\"");
  std::vector<uint8_t> out = spec.application;
  // What each stretch of the file is, so that a marker standing in the wrong place can be named.
  std::vector<std::pair<size_t, std::string>> written;  // record offsets and markers, in file order
  std::vector<std::pair<size_t, std::string>> items = {{0, "the application"}};
  // The first image and the two option texts.
  std::vector<uint8_t> rom = Head(Marker("ROM_PACK"), kPackageRomPackHeadBytes);
  PutU32(rom, kPackageDataOffsetField, kPackageRomPackHeadBytes);
  PutU32(rom, kPackageDataSizeField, uint32_t(spec.images[0].data.size()));
  std::copy(spec.defaultArguments.begin(), spec.defaultArguments.end(), rom.begin() + kPackageDefaultsField);
  std::copy(spec.permittedOptions.begin(), spec.permittedOptions.end(), rom.begin() + kPackagePermittedField);
  written.push_back({out.size(), "#ROM_PACK"});
  items.push_back({out.size(), "the default arguments or permitted options"});
  Append(out, rom);
  items.push_back({out.size(), "image \"" + spec.images[0].name + "\""});
  Append(out, spec.images[0].data);
  // The settings, each byte rotated left so that the tool's right rotation gives the text back.
  if (spec.ini) {
    std::vector<uint8_t> ini = Head(Marker("INI_PACK"), kPackageIniPackHeadBytes);
    PutU32(ini, kPackageDataOffsetField, kPackageIniPackHeadBytes);
    PutU32(ini, kPackageDataSizeField, uint32_t(spec.ini->size()));
    for (char c : *spec.ini) ini.push_back(RotateLeft(uint8_t(c)));
    written.push_back({out.size(), "#INI_PACK"});
    items.push_back({out.size(), "the settings"});
    Append(out, ini);
  }
  // The number of images and the first one's name.
  std::vector<uint8_t> ext = Head(Marker("EXT_PACK"), kPackageExtPackNameField);
  ext[kPackageBiosCountField] = uint8_t(spec.images.size());
  ext.insert(ext.end(), spec.images[0].name.begin(), spec.images[0].name.end());
  ext.push_back(0);
  written.push_back({out.size(), "#EXT_PACK"});
  items.push_back({out.size(), "image \"" + spec.images[0].name + "\""});
  Append(out, ext);
  for (size_t i = 1; i < spec.images.size(); ++i) {
    const PackageImage& image = spec.images[i];
    std::vector<uint8_t> record = Head(ImageMarker(int(i)), kPackageImageNameField);
    record.insert(record.end(), image.name.begin(), image.name.end());
    record.push_back(0);
    PutU32(record, kPackageDataOffsetField, uint32_t(record.size()));
    PutU32(record, kPackageDataSizeField, uint32_t(image.data.size()));
    written.push_back({out.size(), "#" + ImageMarker(int(i)).substr(1)});
    items.push_back({out.size(), "image \"" + image.name + "\""});
    Append(out, record);
    Append(out, image.data);
  }
  for (const PackageFile& resource : spec.resources) {
    std::vector<uint8_t> record = Head(Marker("EXT_RESRC"), kPackageResourceHeadBytes);
    record[kPackageResourceVerifyField] = uint8_t(resource.verify);
    record[kPackageResourceVerifyField + 1] = uint8_t(resource.verify >> 8);
    PutU32(record, kPackageResourceSizeField, uint32_t(resource.data.size()));
    std::copy(resource.name.begin(), resource.name.end(), record.begin() + kPackageResourceNameField);
    written.push_back({out.size(), "#EXT_RESRC"});
    items.push_back({out.size(), "resource \"" + resource.name + "\""});
    Append(out, record);
    Append(out, resource.data);
  }
  // The tool takes the first marker it finds: one standing inside the packed bytes would be read
  // in place of the record, so such a package is refused.
  std::vector<std::pair<size_t, std::string>> found;
  for (const PackageRecord& record : InspectPackage(out).records) found.push_back({record.offset, record.marker});
  std::sort(found.begin(), found.end());
  for (size_t i = 0; i < found.size(); ++i) {
    if (i < written.size() && found[i] == written[i]) continue;
    const size_t at = i < written.size() ? std::min(found[i].first, written[i].first) : found[i].first;
    auto item = std::upper_bound(items.begin(), items.end(), std::make_pair(at, std::string("\x7f")));
    char where[32];
    std::snprintf(where, sizeof where, "0x%zX", at);
    throw ImageError(std::prev(item)->second + " holds a record marker at " + where +
                     " that would be taken for one of the package's records");
  }
  if (out.size() > UINT32_MAX) throw ImageError("the package is larger than 4 GB");
  return out;
}

PackageInfo InspectPackage(const std::vector<uint8_t>& file) {
  PackageInfo info;
  info.fileSize = file.size();
  size_t at = Find(file, Marker("ROM_PACK"), 0);
  if (at != std::string::npos) {
    PackageRecord record{"#ROM_PACK", uint32_t(at)};
    ReadDataFields(file, record, kPackageRomPackHeadBytes);
    info.defaultArguments = TextAt(file, at + kPackageDefaultsField, kPackageDefaultArgumentBytes);
    info.permittedOptions = TextAt(file, at + kPackagePermittedField, kPackagePermittedOptionBytes);
    info.records.push_back(record);
  }
  at = Find(file, Marker("INI_PACK"), 0);
  if (at != std::string::npos) {
    PackageRecord record{"#INI_PACK", uint32_t(at)};
    ReadDataFields(file, record, kPackageIniPackHeadBytes);
    if (record.fault.empty()) {
      info.ini.emplace();
      for (uint32_t i = 0; i < record.dataSize; ++i) *info.ini += char(RotateRight(file[at + record.dataOffset + i]));
    }
    info.records.push_back(record);
  }
  at = Find(file, Marker("EXT_PACK"), 0);
  if (at != std::string::npos) {
    PackageRecord record{"#EXT_PACK", uint32_t(at)};
    if (at + kPackageExtPackNameField > file.size()) {
      record.fault = "its head reaches past the end of the file";
    } else {
      info.biosCount = file[at + kPackageBiosCountField];
      record.name = TextAt(file, at + kPackageExtPackNameField, kPackageImageNameCharacters + 1);
    }
    info.records.push_back(record);
  }
  // Every number a record can have, as the image choice looks for them, gaps passed over.
  for (int number = 1; number < 100; ++number) {
    const std::string marker = ImageMarker(number);
    at = Find(file, marker, 0);
    if (at == std::string::npos) continue;
    PackageRecord record{"#" + marker.substr(1), uint32_t(at)};
    ReadDataFields(file, record, kPackageImageNameField);
    record.name = TextAt(file, at + kPackageImageNameField, kPackageImageNameCharacters + 1);
    info.records.push_back(record);
  }
  for (at = Find(file, Marker("EXT_RESRC"), 0); at != std::string::npos; at = Find(file, Marker("EXT_RESRC"), at + 1)) {
    PackageRecord record{"#EXT_RESRC", uint32_t(at)};
    if (at + kPackageResourceHeadBytes > file.size()) {
      record.fault = "its head reaches past the end of the file";
    } else {
      record.verify = uint16_t(file[at + kPackageResourceVerifyField] | file[at + kPackageResourceVerifyField + 1] << 8);
      record.name = TextAt(file, at + kPackageResourceNameField, kPackageResourceNameBytes);
      record.dataOffset = kPackageResourceHeadBytes;
      record.dataSize = GetU32(file, at + kPackageResourceSizeField);
      if (uint64_t(at) + record.dataOffset + record.dataSize > file.size()) record.fault = "its data lies outside the file";
    }
    info.records.push_back(record);
  }
  return info;
}

std::string FormatPackage(const PackageInfo& info) {
  std::string out;
  char line[512];
  const bool package = !info.records.empty() && info.records[0].marker == "#ROM_PACK";
  std::snprintf(line, sizeof line, "file: 0x%llX bytes, %s\n", static_cast<unsigned long long>(info.fileSize),
                package ? "a package" : "no package");
  out += line;
  if (package) {
    out += "default arguments: \"" + info.defaultArguments + "\"\n";
    out += "permitted options: \"" + info.permittedOptions + "\"\n";
  }
  if (info.biosCount) out += "images: " + std::to_string(*info.biosCount) + "\n";
  for (const PackageRecord& record : info.records) {
    std::snprintf(line, sizeof line, "%-10s at 0x%08X  data 0x%08X  size 0x%08X", record.marker.c_str(), record.offset,
                  record.offset + record.dataOffset, record.dataSize);
    out += line;
    if (record.marker == "#EXT_RESRC") {
      std::snprintf(line, sizeof line, "  verify 0x%04X", record.verify);
      out += line;
    }
    if (!record.name.empty()) out += "  \"" + record.name + "\"";
    if (!record.fault.empty()) out += "  DAMAGED: " + record.fault;
    out += "\n";
  }
  if (info.ini) out += "settings (unscrambled):\n" + *info.ini + (info.ini->empty() || info.ini->back() == '\n' ? "" : "\n");
  return out;
}

}  // namespace zimage
