// The firmware's flash driver on the simulated part: what 14h reads and 15h writes, which
// ranges the firmware guards, the locked ME, the writer's faults (stale verify, power cuts), the
// counters of the run summary and the modelled time. Registers and buffers are left to Simulator.
#include "FlashService.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace sim {

namespace {

constexpr uint32_t kDescriptorSignature = 0x0FF0A55A;
constexpr uint32_t kDescriptorSignatureOffset = 0x10;
constexpr uint32_t kFlmap0Offset = 0x14;
constexpr uint32_t kFlmap1Offset = 0x18;
constexpr uint32_t kDescriptorRegions = 5;  // descriptor, BIOS, ME, GbE, platform data
constexpr uint8_t kMeRegion = 2;
constexpr uint8_t kIgnitionMeRegion = 0x20;

uint32_t U32(const uint8_t* bytes) {
  return uint32_t(bytes[0]) | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 | uint32_t(bytes[3]) << 24;
}

}  // namespace

uint64_t EraseNanoseconds(uint32_t blockSize) {
  if (blockSize % 0x10000 == 0) return blockSize / 0x10000 * kBlockErase64kNs;
  if (blockSize % 0x8000 == 0) return blockSize / 0x8000 * kBlockErase32kNs;
  return (uint64_t{blockSize} + 0xFFF) / 0x1000 * kSectorErase4kNs;
}

uint64_t ProgramNanoseconds(uint32_t bytes) { return (uint64_t{bytes} + kPageBytes - 1) / kPageBytes * kPageProgramNs; }

std::string SummaryText(const FlashCounters& c) {
  char text[200];
  std::snprintf(text, sizeof(text), "%u blocks compared equal, %u written, %u verified, %u protected, modelled time %.2f s",
                c.comparedEqual, c.written, c.verified, c.protectedWrites, double(c.modelledNanoseconds) / 1e9);
  return text;
}

std::vector<ExternalRegion> RegionsFromDescriptor(const uint8_t* bytes, size_t length) {
  std::vector<ExternalRegion> regions;
  if (length < kFlmap1Offset + 4 || U32(bytes + kDescriptorSignatureOffset) != kDescriptorSignature) return regions;
  const uint32_t frba = ((U32(bytes + kFlmap0Offset) >> 16) & 0xFF) << 4;
  const uint32_t fmba = (U32(bytes + kFlmap1Offset) & 0xFF) << 4;
  // The host master's rights; a master section outside what we hold grants nothing.
  const uint32_t hostMaster = fmba + 4 <= length ? U32(bytes + fmba) : 0;
  for (uint32_t n = 0; n < kDescriptorRegions; ++n) {
    const uint32_t at = frba + 4 * n;
    if (at + 4 > length) break;
    const uint32_t reg = U32(bytes + at);
    const uint32_t base = (reg & 0x7FFF) << 12;
    const uint32_t limit = (((reg >> 16) & 0x7FFF) << 12) | 0xFFF;
    if (base > limit) continue;
    const uint8_t access = static_cast<uint8_t>(((hostMaster >> (16 + n)) & 1) | (((hostMaster >> (24 + n)) & 1) << 1));
    regions.push_back({static_cast<uint8_t>(n), base, limit - base + 1, access});
  }
  return regions;
}

FlashService::FlashService(const Machine& machine, std::vector<uint8_t> content)
    : machine_(machine), part_(machine, std::move(content)), verifyFaultsLeft_(machine.verifyFaults) {
  if (machine_.protectMode != GuardedWrite::Allow) {
    for (const Region& r : machine_.protection) guarded_.push_back({r.address, uint64_t{r.address} + r.size});
    for (const Region& r : machine_.privateMap) guarded_.push_back({r.address, uint64_t{r.address} + r.size});
  }
  if (machine_.meLocked) {
    for (const ExternalRegion& r : CurrentRegions()) {
      if (r.type == kMeRegion || r.type == kIgnitionMeRegion) {
        const uint32_t start = part_.Base() + r.offset;
        lockedMe_.push_back({start, uint64_t{start} + r.size});
      }
    }
  }
}

std::vector<ExternalRegion> FlashService::CurrentRegions() const {
  if (machine_.external) return *machine_.external;
  std::vector<uint8_t> descriptor(std::min<uint32_t>(part_.Size(), 0x1000));
  if (!part_.Read(part_.Base(), descriptor.data(), static_cast<uint32_t>(descriptor.size()))) return {};
  return RegionsFromDescriptor(descriptor.data(), descriptor.size());
}

FlashCounters FlashService::Counters() const {
  FlashCounters c = counters_;
  c.comparedEqual = static_cast<uint32_t>(comparedBlocks_.size());
  return c;
}

bool FlashService::Overlaps(const std::vector<Span>& spans, uint32_t address, uint32_t length) const {
  const uint64_t end = uint64_t{address} + length;
  return std::any_of(spans.begin(), spans.end(), [&](const Span& s) { return address < s.end && s.start < end; });
}

// The erase blocks (start, size) that the range touches, in order; none if the block map leaves
// a part of it uncovered.
std::optional<std::vector<std::pair<uint32_t, uint32_t>>> FlashService::BlocksOf(uint32_t address, uint32_t length) const {
  std::vector<std::pair<uint32_t, uint32_t>> blocks;
  const uint64_t end = uint64_t{address} + length;
  for (uint64_t at = address; at < end;) {
    auto block = part_.BlockAt(static_cast<uint32_t>(at));
    if (!block || !part_.Contains(block->first, block->second)) return std::nullopt;
    blocks.push_back(*block);
    at = uint64_t{block->first} + block->second;
  }
  return blocks;
}

uint8_t FlashService::Read(uint32_t address, uint32_t length, std::vector<uint8_t>& out) {
  if (!part_.Contains(address, length)) return kOblisReadFailed;
  out.resize(length);
  part_.Read(address, out.data(), length);
  counters_.modelledNanoseconds += uint64_t{length} * kReadByteNs;
  counters_.bytesRead += length;
  const bool verify = justWritten_ && lastWrite_ && address >= lastWrite_->address &&
                      uint64_t{address} + length <= uint64_t{lastWrite_->address} + lastWrite_->before.size();
  justWritten_ = false;
  if (verify) {
    ++counters_.verified;
    if (verifyFaultsLeft_ > 0) {
      --verifyFaultsLeft_;
      std::memcpy(out.data(), lastWrite_->before.data() + (address - lastWrite_->address), length);
    }
  } else if (auto blocks = BlocksOf(address, length)) {
    for (const auto& block : *blocks) comparedBlocks_.insert(block.first);
  }
  if (!Overlaps(lockedMe_, address, length)) return kOblisSuccess;
  // The chipset refuses the ME range to the host: those bytes read as erased.
  for (uint32_t i = 0; i < length; ++i) {
    if (Overlaps(lockedMe_, address + i, 1)) out[i] = 0xFF;
  }
  return kOblisLockedMe;
}

// Erases one block and programs it page by page with its old content overlaid by the part of
// data that falls inside it, up to programBytes bytes of the block (all of it, or the first half
// when power_cut_after_writes cuts the call). Each erase and each page program is one flash operation; false when the
// power fails before or during one of them, with the block left as far as it got.
bool FlashService::ProgramBlock(uint32_t block, uint32_t size, uint32_t address, const std::vector<uint8_t>& data,
                                uint32_t programBytes) {
  std::vector<uint8_t> merged(size);
  part_.Read(block, merged.data(), size);
  const uint64_t from = std::max<uint64_t>(block, address);
  const uint64_t to = std::min<uint64_t>(uint64_t{block} + size, uint64_t{address} + data.size());
  for (uint64_t at = from; at < to; ++at) merged[at - block] = data[at - address];
  if (CutBeforeNextOperation()) return false;
  part_.Erase(block);
  counters_.modelledNanoseconds += EraseNanoseconds(size);
  ++counters_.erases;
  ++operations_;
  for (uint32_t page = 0; page < programBytes; page += kPageBytes) {
    uint32_t bytes = std::min(kPageBytes, programBytes - page);
    const bool cut = CutBeforeNextOperation();
    // A page program cut short has cleared the bits of its first bytes only.
    if (cut) bytes = std::min<uint32_t>(bytes, machine_.powerCutProgrammedBytes);
    part_.Program(block + page, merged.data() + page, bytes);
    counters_.modelledNanoseconds += ProgramNanoseconds(bytes);
    ++counters_.pagePrograms;
    if (cut) return false;
    ++operations_;
  }
  return true;
}

bool FlashService::CutBeforeNextOperation() const {
  return machine_.powerCutAfterOperations && operations_ == *machine_.powerCutAfterOperations;
}

uint8_t FlashService::Write(uint32_t address, const std::vector<uint8_t>& data) {
  const uint32_t length = static_cast<uint32_t>(data.size());
  justWritten_ = false;
  if (!part_.Contains(address, length)) return kOblisWriteFailed;
  auto blocks = BlocksOf(address, length);
  if (!blocks) return kOblisEraseFailed;
  // Whatever comes of it, the tool has aimed a write at these blocks: they no longer compared equal.
  for (const auto& block : *blocks) comparedBlocks_.erase(block.first);
  for (const auto& [spans, rule] : {std::pair{&guarded_, machine_.protectMode}, std::pair{&lockedMe_, machine_.meWrite}}) {
    if (rule == GuardedWrite::Allow || !Overlaps(*spans, address, length)) continue;
    ++counters_.protectedWrites;
    return rule == GuardedWrite::Refuse ? kOblisWriteFailed : kOblisBlockSkipped;
  }
  if (blocks->empty()) return kOblisSuccess;
  if (machine_.powerCutAfterWrites && programmingWrites_ == *machine_.powerCutAfterWrites) {
    // The first block is erased and half programmed when the power goes.
    ProgramBlock((*blocks)[0].first, (*blocks)[0].second, address, data, (*blocks)[0].second / 2);
    powerLost_ = true;
    return kOblisSuccess;
  }
  ++programmingWrites_;
  // A verify fault shows the content from before the first of several writes of one range, so
  // that each retry of the tool's verify fails again.
  if (!lastWrite_ || lastWrite_->address != address || lastWrite_->before.size() != length) {
    lastWrite_ = LastWrite{address, std::vector<uint8_t>(length)};
    part_.Read(address, lastWrite_->before.data(), length);
  }
  for (const auto& [block, size] : *blocks) {
    if (!ProgramBlock(block, size, address, data, size)) {
      powerLost_ = true;
      return kOblisSuccess;
    }
  }
  ++counters_.written;
  justWritten_ = true;
  return kOblisSuccess;
}

}  // namespace sim
