// The flash part's content and geometry, the default content of a machine that brings none
// (Intel flash descriptor, ME and BIOS regions, a BVDT block) and the reading of the identity
// from the BVDT block. The OBLIS answers built on these live in Simulator.cpp.
#include "FlashPart.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "MachineLayout.h"

namespace sim {

namespace {

void PutU32(std::vector<uint8_t>& bytes, uint32_t offset, uint32_t value) {
  for (int i = 0; i < 4; ++i) bytes[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

void PutText(std::vector<uint8_t>& bytes, uint32_t offset, const std::string& text, uint32_t field) {
  std::fill(bytes.begin() + offset, bytes.begin() + offset + field, 0);
  std::memcpy(bytes.data() + offset, text.data(), std::min<size_t>(text.size(), field));
}

// A region register of the descriptor: base and limit in 4 KB units, bits 14:0 and 30:16.
// The marker that opens a BVDT block, without a terminator.
constexpr char kBvdtMarker[] = "$BVDT$";
constexpr size_t kBvdtMarkerBytes = sizeof kBvdtMarker - 1;

uint32_t RegionRegister(uint32_t start, uint32_t end) { return ((end >> 12) << 16) | (start >> 12); }
constexpr uint32_t kUnusedRegion = 0x00007FFF;  // base above limit

// The Intel flash descriptor: signature at 0x10, FLMAP0..2, then the component, region and
// master sections at the places FLMAP0 and FLMAP1 name.
void WriteDescriptor(std::vector<uint8_t>& c, uint32_t flashSize) {
  using namespace layout;
  constexpr uint32_t kFcba = 0x30, kFrba = 0x40, kFmba = 0x60;
  constexpr uint32_t kRegionCount = 5;  // descriptor, BIOS, ME, GbE, platform data
  std::fill(c.begin(), c.begin() + 0x1000, 0xFF);
  PutU32(c, 0x10, 0x0FF0A55A);
  // FLMAP0: FCBA bits 7:0, NC bits 9:8 (one component), FRBA bits 23:16, NR bits 26:24.
  PutU32(c, 0x14, (kFcba >> 4) | (0u << 8) | ((kFrba >> 4) << 16) | ((kRegionCount - 1) << 24));
  // FLMAP1: FMBA bits 7:0, NM bits 10:8 (three masters), FPSBA bits 23:16, ISL bits 31:24.
  PutU32(c, 0x18, (kFmba >> 4) | (2u << 8) | (0x10u << 16) | (0x12u << 24));
  PutU32(c, 0x1C, 0x00000000);
  // FLCOMP: component 1 density, 0 = 512 KB doubling up to 7 = 64 MB.
  uint32_t density = 0;
  while (density < 7 && (0x80000u << density) < flashSize) ++density;
  PutU32(c, kFcba, density);
  PutU32(c, kFcba + 4, 0);  // FLILL: no invalid instructions
  PutU32(c, kFrba + 0, RegionRegister(kDescriptorStart, kDescriptorEnd));
  // The BIOS takes the upper half of the part and ME the rest behind the descriptor: for the
  // default 16 MB part that is exactly the default layout.
  const uint32_t biosStart = flashSize / 2;
  PutU32(c, kFrba + 4, RegionRegister(biosStart, flashSize - 1));
  PutU32(c, kFrba + 8, biosStart > kMeStart ? RegionRegister(kMeStart, biosStart - 1) : kUnusedRegion);
  PutU32(c, kFrba + 12, kUnusedRegion);
  PutU32(c, kFrba + 16, kUnusedRegion);
  // Masters: read access bits 23:16, write access bits 31:24, one bit per region.
  PutU32(c, kFmba + 0, 0x0A0B0000);  // host: reads descriptor, BIOS, GbE; writes BIOS, GbE
  PutU32(c, kFmba + 4, 0x0C0D0000);  // ME: reads descriptor, ME, GbE; writes ME, GbE
  PutU32(c, kFmba + 8, 0x08080118);  // GbE
}

}  // namespace

void WriteBvdtBlock(std::vector<uint8_t>& c, uint32_t offset, const std::string& model, const std::string& version) {
  std::fill(c.begin() + offset, c.begin() + offset + kBvdtHeadBytes, 0);
  std::memcpy(c.data() + offset, kBvdtMarker, kBvdtMarkerBytes);
  c[offset + 0x09] = '$';
  c[offset + 0x0D] = '$';
  // A text that fills its field stays without a terminator, as a real block may.
  PutText(c, offset + kBvdtVersionOffset, version, kBvdtVersionBytes);
  c[offset + 0x26] = '$';
  PutText(c, offset + kBvdtModelOffset, model, kBvdtModelBytes);
  c[offset + 0x40] = '$';
  PutText(c, offset + 0x41, "DOVRIN REFERENCE FIRMWARE", 37);
  const char members[] = "$BME$\0\0\0$RDATE11/23/2026$ENDOFBVDT";
  std::memcpy(c.data() + offset + kBvdtHeadBytes, members, sizeof(members) - 1);
}

std::vector<uint8_t> DefaultFlashContent(const Machine& machine) {
  std::vector<uint8_t> content(machine.flashSize, 0xFF);
  if (content.size() >= 0x1000) WriteDescriptor(content, machine.flashSize);
  // The BVDT sits where the default OEM Data region starts, counted from the BIOS region's
  // start, or at the BIOS region's start on a part too small for that.
  const uint32_t biosStart = machine.flashSize / 2;
  uint32_t bvdt = biosStart + (layout::kBvdtOffset - layout::kBiosStart);
  if (uint64_t(bvdt) + 0x100 > content.size()) bvdt = biosStart;
  if (uint64_t(bvdt) + 0x100 <= content.size()) WriteBvdtBlock(content, bvdt, layout::kDefaultModelName, layout::kDefaultModelVersion);
  return content;
}

std::string ValidateFlashContent(const Machine& machine, const std::vector<uint8_t>& content) {
  if (content.empty() || content.size() == machine.flashSize) return {};
  char text[200];
  std::snprintf(text, sizeof(text),
                "flash content is %zu (0x%zX) bytes but the machine's flash.size is %u (0x%X)", content.size(),
                content.size(), machine.flashSize, machine.flashSize);
  return text;
}

bool ReadBvdtIdentity(const std::vector<uint8_t>& content, std::string& model, std::string& version) {
  auto found = std::search(content.begin(), content.end(), kBvdtMarker, kBvdtMarker + kBvdtMarkerBytes);
  if (found == content.end()) return false;
  const size_t start = static_cast<size_t>(found - content.begin());
  // Each text ends at its first zero or at its field's end, whichever comes first.
  auto field = [&](uint32_t offset, uint32_t bytes) {
    std::string text;
    for (size_t i = start + offset; i < std::min(content.size(), start + offset + bytes) && content[i] != 0; ++i) {
      text.push_back(static_cast<char>(content[i]));
    }
    return text;
  };
  model = field(kBvdtModelOffset, kBvdtModelBytes);
  version = field(kBvdtVersionOffset, kBvdtVersionBytes);
  return true;
}

FlashPart::FlashPart(const Machine& machine, std::vector<uint8_t> content)
    : blocks_(machine.blocks), content_(std::move(content)), size_(static_cast<uint32_t>(content_.size())) {}

FlashPart::~FlashPart() {
  if (file_ >= 0) ::close(file_);
}

bool FlashPart::KeepInFile(const std::string& path, std::string& error) {
  const int file = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
  bool kept = file >= 0;
  for (size_t done = 0; kept && done < content_.size();) {
    const ssize_t n = ::pwrite(file, content_.data() + done, content_.size() - done, static_cast<off_t>(done));
    kept = n > 0;
    done += kept ? static_cast<size_t>(n) : 0;
  }
  kept = kept && ::ftruncate(file, static_cast<off_t>(content_.size())) == 0;
  if (!kept) {
    error = path + ": " + std::strerror(errno);
    if (file >= 0) ::close(file);
    return false;
  }
  file_ = file;
  std::vector<uint8_t>().swap(content_);
  return true;
}

bool FlashPart::Get(uint64_t offset, void* out, size_t length) const {
  if (file_ < 0) {
    std::memcpy(out, content_.data() + offset, length);
    return true;
  }
  uint8_t* bytes = static_cast<uint8_t*>(out);
  for (size_t done = 0; done < length;) {
    const ssize_t n = ::pread(file_, bytes + done, length - done, static_cast<off_t>(offset + done));
    if (n <= 0) {
      std::fprintf(stderr, "zaprom-sim: reading the flash file failed: %s\n", n < 0 ? std::strerror(errno) : "it ends early");
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

bool FlashPart::Put(uint64_t offset, const void* data, size_t length) {
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  for (size_t done = 0; done < length;) {
    const ssize_t n = ::pwrite(file_, bytes + done, length - done, static_cast<off_t>(offset + done));
    if (n <= 0) {
      std::fprintf(stderr, "zaprom-sim: writing the flash file failed: %s\n", std::strerror(errno));
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

std::vector<uint8_t> FlashPart::Content() const {
  if (file_ < 0) return content_;
  std::vector<uint8_t> content(size_);
  if (!Get(0, content.data(), content.size())) content.clear();
  return content;
}

bool FlashPart::Identity(std::string& model, std::string& version) const {
  if (file_ < 0) return ReadBvdtIdentity(content_, model, version);
  // The file is searched a window at a time; the windows overlap by the marker's length less
  // one, so that a marker across two windows is still found.
  constexpr size_t kWindow = size_t{1} << 20;
  std::vector<uint8_t> window;
  for (uint64_t at = 0; at < size_; at += kWindow) {
    window.resize(static_cast<size_t>(std::min<uint64_t>(kWindow + kBvdtMarkerBytes - 1, size_ - at)));
    if (!Get(at, window.data(), window.size())) return false;
    const auto found = std::search(window.begin(), window.end(), kBvdtMarker, kBvdtMarker + kBvdtMarkerBytes);
    if (found == window.end()) continue;
    const uint64_t start = at + static_cast<uint64_t>(found - window.begin());
    window.resize(static_cast<size_t>(std::min<uint64_t>(kBvdtHeadBytes, size_ - start)));
    return Get(start, window.data(), window.size()) && ReadBvdtIdentity(window, model, version);
  }
  return false;
}

bool FlashPart::Contains(uint32_t address, uint32_t length) const {
  const uint64_t start = address, end = static_cast<uint64_t>(address) + length;
  return start >= Base() && end <= 0x100000000ull && length <= Size();
}

bool FlashPart::Read(uint32_t address, void* out, uint32_t length) const {
  return Contains(address, length) && Get(address - Base(), out, length);
}

std::optional<std::pair<uint32_t, uint32_t>> FlashPart::BlockAt(uint32_t address) const {
  if (!Contains(address, 1)) return std::nullopt;
  uint64_t start = Base();
  for (const auto& [size, count] : blocks_) {
    const uint64_t end = start + static_cast<uint64_t>(size) * count;
    if (address < end) {
      const uint64_t block = start + (address - start) / size * size;
      return std::make_pair(static_cast<uint32_t>(block), size);
    }
    start = end;
  }
  return std::nullopt;
}

bool FlashPart::Erase(uint32_t blockAddress) {
  auto block = BlockAt(blockAddress);
  if (!block || block->first != blockAddress || !Contains(block->first, block->second)) return false;
  const uint32_t offset = block->first - Base();
  if (file_ < 0) {
    std::fill_n(content_.begin() + offset, block->second, 0xFF);
    return true;
  }
  return Put(offset, std::vector<uint8_t>(block->second, 0xFF).data(), block->second);
}

bool FlashPart::Program(uint32_t address, const void* data, uint32_t length) {
  if (!Contains(address, length)) return false;
  const uint32_t offset = address - Base();
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  if (file_ < 0) {
    for (uint32_t i = 0; i < length; ++i) content_[offset + i] &= bytes[i];
    return true;
  }
  std::vector<uint8_t> cells(length);
  if (!Get(offset, cells.data(), length)) return false;
  for (uint32_t i = 0; i < length; ++i) cells[i] &= bytes[i];
  return Put(offset, cells.data(), length);
}

}  // namespace sim
