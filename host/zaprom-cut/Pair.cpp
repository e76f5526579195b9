// The two flash contents of one campaign machine: the new image as the image tool builds it, and
// an old flash that differs from it in chosen blocks of each region, in the guarded ranges and in
// the BVDT's version; and what the update between them must leave. Runs are Cut.cpp's.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Campaign.h"
#include "FlashPart.h"
#include "ZaPromImage.h"

namespace cut {

namespace {

// An older version than any the examples carry: the version check lets the update go ahead.
constexpr char kOldVersion[] = "V0.00";
constexpr char kBvdtEnd[] = "$ENDOFBVDT";
constexpr uint32_t kBvdtWithoutEnd = 0x100;  // what counts as the table when its end mark is missing
constexpr int kChangesPerRegionAtMost = 8;
constexpr uint8_t kBvdtRegionType = 0x0A;  // of the whole ROM map

bool ReadText(const std::string& file, std::string& text) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return false;
  text.assign(std::istreambuf_iterator<char>(in), {});
  return true;
}

// The erase blocks (offset in the part) that the range [start, end) touches.
std::vector<uint32_t> BlocksOf(const sim::FlashPart& part, uint32_t start, uint32_t end) {
  std::vector<uint32_t> blocks;
  for (uint64_t at = start; at < end;) {
    auto block = part.BlockAt(part.Base() + static_cast<uint32_t>(at));
    if (!block) break;
    blocks.push_back(block->first - part.Base());
    at = uint64_t{block->first - part.Base()} + block->second;
  }
  return blocks;
}

// Flips a stretch of bytes inside the block so that it differs from what the image holds there.
void ChangeBlock(std::vector<uint8_t>& flash, uint32_t block, uint32_t size, std::mt19937_64& rng) {
  const uint32_t from = static_cast<uint32_t>(rng() % size);
  const uint32_t length = 1 + static_cast<uint32_t>(rng() % std::min<uint32_t>(size - from, 0x200));
  for (uint32_t i = 0; i < length; ++i) flash[block + from + i] ^= static_cast<uint8_t>(1 + rng() % 255);
}

std::string MachineName(const std::string& file) { return std::filesystem::path(file).filename().string(); }

}  // namespace

std::string BuildPair(const std::string& machineFile, const std::string& imageFile, std::mt19937_64& rng, Pair& pair) {
  pair.machineFile = machineFile;
  pair.imageFile = imageFile;
  pair.name = MachineName(machineFile);
  std::vector<uint8_t> unused;
  std::string error, text;
  if (!sim::LoadMachineAndFlash(machineFile, "", pair.parsed, unused, error)) return error;
  if (!ReadText(machineFile, text)) return "cannot read " + machineFile;
  pair.machine = nlohmann::json::parse(text);
  // Runs start elsewhere: a volume named relative to the machine file keeps its place.
  const std::filesystem::path machineDir = std::filesystem::absolute(machineFile).parent_path();
  if (pair.machine.contains("volumes")) {
    for (auto& volume : pair.machine["volumes"]) volume["path"] = (machineDir / volume["path"].get<std::string>()).string();
  }

  zimage::ImageDescription description;
  try {
    if (!ReadText(imageFile, text)) return "cannot read " + imageFile;
    description = zimage::ParseImageDescription(nlohmann::json::parse(text),
                                                std::filesystem::absolute(imageFile).parent_path().string());
    if (description.ec || description.secure || description.pfat || !description.bvdt)
      return imageFile + ": the campaign takes a plain flash image with a BVDT block";
    if (description.size != pair.parsed.flashSize) return imageFile + ": the image is not the size of the machine's part";
    pair.image = zimage::BuildImage(description);
    description.bvdt->version = kOldVersion;
    pair.oldFlash = zimage::BuildImage(description);
  } catch (const std::exception& e) {
    return imageFile + ": " + e.what();
  }

  const sim::FlashPart part(pair.parsed, pair.image);
  const uint32_t size = part.Size();
  int perRegion[zimage::kSpiRegionCount] = {};
  for (const zimage::RegionSpec& region : description.regions) {
    if (region.region == zimage::SpiRegion::Descriptor) continue;
    const std::vector<uint32_t> blocks = BlocksOf(part, region.offset, region.offset + region.size);
    const int changes = 1 + static_cast<int>(rng() % kChangesPerRegionAtMost);
    for (int n = 0; n < changes && !blocks.empty(); ++n) {
      const uint32_t block = blocks[rng() % blocks.size()];
      ChangeBlock(pair.oldFlash, block, part.BlockAt(part.Base() + block)->second, rng);
    }
    perRegion[static_cast<int>(region.region)] += changes;
  }
  pair.guarded.assign(size, false);
  int guardedChanges = 0;
  for (const auto* list : {&pair.parsed.protection, &pair.parsed.privateMap}) {
    for (const sim::Region& range : *list) {
      if (range.address < part.Base() || range.size == 0) continue;
      const uint32_t start = range.address - part.Base();
      const uint32_t end = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{start} + range.size, size));
      std::fill(pair.guarded.begin() + start, pair.guarded.begin() + end, true);
      const std::vector<uint32_t> blocks = BlocksOf(part, start, end);
      if (blocks.empty()) continue;
      const uint32_t block = blocks[rng() % blocks.size()];
      ChangeBlock(pair.oldFlash, block, part.BlockAt(part.Base() + block)->second, rng);
      ++guardedChanges;
    }
  }

  // The writer holds back every block of the region that the firmware's whole map gives for the
  // BVDT; without such a region only the table's own blocks count, and it goes in address order.
  const uint32_t bvdt = description.bvdt->offset;
  const auto end = std::search(pair.image.begin() + bvdt, pair.image.end(), kBvdtEnd, kBvdtEnd + std::strlen(kBvdtEnd));
  uint32_t bvdtEnd = end == pair.image.end() ? std::min(bvdt + kBvdtWithoutEnd, size)
                                             : static_cast<uint32_t>(end - pair.image.begin() + std::strlen(kBvdtEnd));
  uint32_t bvdtStart = bvdt;
  for (const sim::Region& region : pair.parsed.whole) {
    const uint64_t start = uint64_t{region.address} - part.Base();
    if (region.type == kBvdtRegionType && region.address >= part.Base() && start <= bvdt && bvdt < start + region.size) {
      bvdtStart = static_cast<uint32_t>(start);
      bvdtEnd = static_cast<uint32_t>(std::min<uint64_t>(start + region.size, size));
      break;
    }
  }
  pair.bvdtBlocks = BlocksOf(part, bvdtStart, bvdtEnd);

  pair.expected = pair.image;
  for (uint32_t i = 0; i < size; ++i) {
    if (pair.guarded[i]) pair.expected[i] = pair.oldFlash[i];
  }
  for (const uint32_t block : BlocksOf(part, 0, size)) {
    const uint32_t blockSize = part.BlockAt(part.Base() + block)->second;
    if (!std::equal(pair.expected.begin() + block, pair.expected.begin() + block + blockSize, pair.oldFlash.begin() + block))
      pair.changedBlocks.push_back(block);
  }
  pair.changes = "ME " + std::to_string(perRegion[int(zimage::SpiRegion::Me)]) + ", BIOS " +
                 std::to_string(perRegion[int(zimage::SpiRegion::Bios)]) + ", guarded " +
                 std::to_string(guardedChanges) + ", BVDT; " + std::to_string(pair.bvdtBlocks.size()) + " blocks go last";
  return {};
}

}  // namespace cut
