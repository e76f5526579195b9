// Pool and page memory of the emulated environment: every block lies below 4 GB (the firmware
// takes 32-bit addresses) with an inaccessible guard page right behind it, so that an overrun
// faults at once. Keeps the registry that tells the simulator which addresses it may touch.
// Under AddressSanitizer the bytes between a pool block's end and its guard page, and freed
// blocks, are poisoned, so that ASan names the first byte read or written outside a block.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "EmuInternal.h"

#if defined(__SANITIZE_ADDRESS__)
#define ZAPROM_EMU_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZAPROM_EMU_ASAN 1
#endif
#endif
#ifdef ZAPROM_EMU_ASAN
#include <sanitizer/asan_interface.h>
#endif

// Bounds of the executable's own image; the programs are linked without PIE, so they lie low.
extern "C" char __executable_start;
extern "C" char _end;

namespace emu {
namespace detail {
namespace {

constexpr size_t kPage = 4096;
// Fresh memory is filled with this byte: firmware pool is not zeroed either, and a tool that
// forgets to clear its buffer should see garbage here rather than lucky zeros.
constexpr uint8_t kFreshMemoryByte = 0xAF;
// The lowest address a probe for memory below a limit tries; keeps clear of the null page.
constexpr uintptr_t kLowestProbe = 0x100000;
// Freed mappings kept for the next block of the same size, up to this much: a run allocates and
// frees the same few sizes over and over, and a fresh mapping costs system calls and a page
// fault for every page touched.
constexpr size_t kKeptBytesAtMost = size_t{64} << 20;
// A freed mapping of up to this many data pages waits among the recently freed, up to this
// many of them: still accessible, filled with the freed byte, and taken back without a system
// call. The driver frees and allocates small buffers thousands of times per update, and hiding
// and revealing each costs two protection changes with their TLB flushes. A write into such a
// block shows as a changed freed byte when it leaves the list; a read finds the freed byte. The
// sanitizer build poisons every freed block instead.
constexpr size_t kRecentPagesAtMost = 32;
constexpr size_t kRecentBlocks = 16;
constexpr uint8_t kFreedMemoryByte = 0xDF;

// A range the tool must not touch: inaccessible, or poisoned under ASan.
void Hide(uintptr_t base, size_t length) {
#ifdef ZAPROM_EMU_ASAN
  ASAN_POISON_MEMORY_REGION(reinterpret_cast<void*>(base), length);
#else
  mprotect(reinterpret_cast<void*>(base), length, PROT_NONE);
#endif
}

void Reveal(uintptr_t base, size_t length) {
#ifdef ZAPROM_EMU_ASAN
  ASAN_UNPOISON_MEMORY_REGION(reinterpret_cast<void*>(base), length);
#else
  mprotect(reinterpret_cast<void*>(base), length, PROT_READ | PROT_WRITE);
#endif
}

// A mapping goes back to the system clean: whatever is mapped there next starts unpoisoned.
void Unmap(uintptr_t base, size_t length) {
#ifdef ZAPROM_EMU_ASAN
  ASAN_UNPOISON_MEMORY_REGION(reinterpret_cast<void*>(base), length);
#endif
  munmap(reinterpret_cast<void*>(base), length);
}

// False when a recently freed block no longer holds only the freed byte: the write is reported
// and counted with the overruns, once, as the block is filled again.
bool StillFreed(size_t pages, uintptr_t base) {
  uint8_t* bytes = reinterpret_cast<uint8_t*>(base);
  // Each byte equal to the one behind it and the first the freed byte: all are.
  if (bytes[0] == kFreedMemoryByte && std::memcmp(bytes, bytes + 1, pages * kPage - 1) == 0) return true;
  for (size_t i = 0; i < pages * kPage; ++i) {
    if (bytes[i] == kFreedMemoryByte) continue;
    std::fprintf(stderr, "zaprom-emu: the block at 0x%llx was written after it was freed (at offset 0x%zx)\n",
                 static_cast<unsigned long long>(base), i);
    ++g->overruns;
    std::memset(bytes, kFreedMemoryByte, pages * kPage);
    return false;
  }
  return true;
}

void ReleaseKeptMappings() {
  for (const auto& [pages, base] : g->recentlyFreed) {
    StillFreed(pages, base);
    Unmap(base, (pages + 1) * kPage);
  }
  g->recentlyFreed.clear();
  for (const auto& [pages, base] : g->keptMappings) Unmap(base, (pages + 1) * kPage);
  g->keptMappings.clear();
  g->keptBytes = 0;
}

// A freed mapping goes hidden into the keep while there is room, else back to the system.
void Keep(size_t pages, uintptr_t base) {
  const size_t mapLength = (pages + 1) * kPage;
  if (g->keptBytes + mapLength > kKeptBytesAtMost) {
    Unmap(base, mapLength);
    return;
  }
  Hide(base, pages * kPage);
  g->keptMappings.emplace(pages, base);
  g->keptBytes += mapLength;
}

// A freed block's mapping: a small one joins the recently freed, and the oldest of those, or a
// large one, is kept hidden for reuse.
void Retire(const MemoryBlock& block) {
#ifndef ZAPROM_EMU_ASAN
  if (block.pages <= kRecentPagesAtMost) {
    std::memset(reinterpret_cast<void*>(block.mapBase), kFreedMemoryByte, block.pages * kPage);
    g->recentlyFreed.emplace_back(block.pages, block.mapBase);
    g->keptBytes += block.mapLength;
    if (g->recentlyFreed.size() <= kRecentBlocks) return;
    const auto [pages, base] = g->recentlyFreed.front();
    g->recentlyFreed.pop_front();
    g->keptBytes -= (pages + 1) * kPage;
    StillFreed(pages, base);
    Keep(pages, base);
    return;
  }
#endif
  Keep(block.pages, block.mapBase);
}

// A kept mapping of this many data pages that ends at or below limit + 1, taken out of the
// recently freed (newest first) or the keep.
uintptr_t TakeKeptMapping(size_t pages, uint64_t limit) {
  for (auto it = g->recentlyFreed.rbegin(); it != g->recentlyFreed.rend(); ++it) {
    const auto [itsPages, base] = *it;
    if (itsPages != pages || base + (pages + 1) * kPage - 1 > limit) continue;
    g->recentlyFreed.erase(std::next(it).base());
    g->keptBytes -= (pages + 1) * kPage;
    StillFreed(pages, base);
    return base;
  }
  auto [first, last] = g->keptMappings.equal_range(pages);
  for (auto it = first; it != last; ++it) {
    const uintptr_t base = it->second;
    if (base + (pages + 1) * kPage - 1 > limit) continue;
    g->keptMappings.erase(it);
    g->keptBytes -= (pages + 1) * kPage;
    Reveal(base, pages * kPage);
    return base;
  }
  return 0;
}

struct Range {
  uintptr_t begin;
  uintptr_t end;
};

std::vector<Range> MappedRanges() {
  std::vector<Range> ranges;
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    unsigned long begin = 0, end = 0;
    if (std::sscanf(line.c_str(), "%lx-%lx", &begin, &end) == 2) ranges.push_back({begin, end});
  }
  return ranges;
}

// A mapping of length bytes that ends at or below limit + 1, found by looking for the highest
// free gap in the process's map; MAP_FIXED_NOREPLACE makes a race with another mapping fail
// instead of clobbering it.
void* MapBelowByProbing(uint64_t limit, size_t length) {
  for (int attempt = 0; attempt < 8; ++attempt) {
    std::vector<Range> used = MappedRanges();
    uintptr_t top = static_cast<uintptr_t>(limit + 1) & ~(kPage - 1);
    uintptr_t chosen = 0;
    // Walk the gaps from high to low addresses.
    for (size_t i = used.size() + 1; i-- > 0;) {
      uintptr_t gapEnd = i < used.size() ? used[i].begin : UINTPTR_MAX;
      uintptr_t gapBegin = i > 0 ? used[i - 1].end : 0;
      if (gapEnd > top) gapEnd = top;
      if (gapBegin < kLowestProbe) gapBegin = kLowestProbe;
      if (gapEnd > gapBegin && gapEnd - gapBegin >= length) {
        chosen = gapEnd - length;
        break;
      }
    }
    if (chosen == 0) return nullptr;
    void* p = mmap(reinterpret_cast<void*>(chosen), length, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    if (p == MAP_FAILED) continue;
    if (reinterpret_cast<uintptr_t>(p) == chosen) return p;
    munmap(p, length);  // an old kernel took the address as a mere hint
  }
  return nullptr;
}

void* MapBelow(uint64_t limit, size_t length) {
  if (limit >= 0x7FFFFFFF) {
    void* p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0);
    if (p != MAP_FAILED) {
      if (reinterpret_cast<uintptr_t>(p) + length - 1 <= limit) return p;
      munmap(p, length);
    }
  }
  return MapBelowByProbing(limit, length);
}

// Maps pages plus one guard page behind them and registers the block.
MemoryBlock* MapBlock(size_t pages, uint64_t limit, uintptr_t fixedAddress, uintptr_t caller) {
  size_t mapLength = (pages + 1) * kPage;
  void* p = nullptr;
  bool fresh = true;
  if (fixedAddress != 0) {
    // A kept mapping may stand where the caller wants its pages: the keep gives way.
    for (int attempt = 0; attempt < 2 && p == nullptr; ++attempt) {
      if (attempt == 1) ReleaseKeptMappings();
      p = mmap(reinterpret_cast<void*>(fixedAddress), mapLength, PROT_READ | PROT_WRITE,
               MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
      if (p == MAP_FAILED) p = nullptr;
    }
    if (p == nullptr) return nullptr;
    if (reinterpret_cast<uintptr_t>(p) != fixedAddress) {
      munmap(p, mapLength);
      return nullptr;
    }
  } else if (uintptr_t kept = TakeKeptMapping(pages, limit); kept != 0) {
    p = reinterpret_cast<void*>(kept);
    fresh = false;
  } else {
    p = MapBelow(limit, mapLength);
    if (p == nullptr) return nullptr;
  }
  uint8_t* base = static_cast<uint8_t*>(p);
  std::memset(base, kFreshMemoryByte, pages * kPage);
  if (fresh) mprotect(base + pages * kPage, kPage, PROT_NONE);
  MemoryBlock block;
  block.mapBase = reinterpret_cast<uintptr_t>(base);
  block.mapLength = mapLength;
  block.base = block.mapBase;
  block.length = pages * kPage;
  block.pages = pages;
  block.serial = ++g->allocations;
  block.caller = caller;
  return &g->blocks.emplace(block.base, block).first->second;
}

EFI_STATUS EFIAPI AllocatePool(EFI_MEMORY_TYPE, UINTN size, VOID** buffer) {
  if (buffer == nullptr) return EFI_INVALID_PARAMETER;
  *buffer = AllocateHostPool(size, reinterpret_cast<uintptr_t>(__builtin_return_address(0)));
  return *buffer == nullptr ? EFI_OUT_OF_RESOURCES : EFI_SUCCESS;
}

// A pool block ends where its size rounded up to 8 meets the guard page, so an overrun of up to
// 7 bytes lands in the rounding rather than the guard. Those bytes keep the fresh-memory byte
// unless something wrote past the block.
bool WrittenPastEnd(const MemoryBlock& block) {
#ifdef ZAPROM_EMU_ASAN
  return false;  // those bytes are poisoned: ASan has stopped the first write already
#endif
  if (!block.pool) return false;
  const uint8_t* behind = reinterpret_cast<const uint8_t*>(block.base + block.length);
  const uint8_t* guard = reinterpret_cast<const uint8_t*>(block.mapBase + block.pages * kPage);
  for (; behind < guard; ++behind)
    if (*behind != kFreshMemoryByte) return true;
  return false;
}

EFI_STATUS EFIAPI FreePool(VOID* buffer) {
  auto it = g->blocks.find(reinterpret_cast<uintptr_t>(buffer));
  if (buffer == nullptr || it == g->blocks.end() || !it->second.pool) {
    std::fprintf(stderr, "zaprom-emu: FreePool of %p, which is no pool block handed out\n", buffer);
    ++g->badFrees;
    return EFI_INVALID_PARAMETER;
  }
  if (WrittenPastEnd(it->second)) {
    std::fprintf(stderr, "zaprom-emu: pool block %p of %zu bytes (allocation %llu) was written past its end\n", buffer,
                 it->second.length, static_cast<unsigned long long>(it->second.serial));
    ++g->overruns;
  }
  Retire(it->second);
  g->blocks.erase(it);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI AllocatePages(EFI_ALLOCATE_TYPE type, EFI_MEMORY_TYPE, UINTN pages, EFI_PHYSICAL_ADDRESS* memory) {
  if (memory == nullptr || type >= MaxAllocateType || pages == 0) return EFI_INVALID_PARAMETER;
  if (pages > (1u << 20)) return EFI_OUT_OF_RESOURCES;  // 4 GB is all there is
  MemoryBlock* block = nullptr;
  const uintptr_t caller = reinterpret_cast<uintptr_t>(__builtin_return_address(0));
  switch (type) {
    case AllocateAnyPages:
      block = MapBlock(pages, 0xFFFFFFFF, 0, caller);
      break;
    case AllocateMaxAddress:
      if (*memory < kPage) return EFI_OUT_OF_RESOURCES;
      block = MapBlock(pages, *memory < 0xFFFFFFFF ? *memory : 0xFFFFFFFF, 0, caller);
      break;
    case AllocateAddress:
      if ((*memory & (kPage - 1)) != 0 || *memory == 0) return EFI_NOT_FOUND;
      if (*memory + pages * kPage > 0x100000000ULL) return EFI_NOT_FOUND;
      block = MapBlock(pages, 0, static_cast<uintptr_t>(*memory), caller);
      if (block == nullptr) return EFI_NOT_FOUND;
      break;
    default:
      return EFI_INVALID_PARAMETER;
  }
  if (block == nullptr) return EFI_OUT_OF_RESOURCES;
  *memory = block->base;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FreePages(EFI_PHYSICAL_ADDRESS memory, UINTN pages) {
  auto it = g->blocks.find(static_cast<uintptr_t>(memory));
  if (it == g->blocks.end() || it->second.pool) {
    std::fprintf(stderr, "zaprom-emu: FreePages of 0x%llx, which is no page range handed out\n",
                 static_cast<unsigned long long>(memory));
    return EFI_NOT_FOUND;
  }
  if (it->second.pages != pages) {
    std::fprintf(stderr, "zaprom-emu: FreePages of 0x%llx with %zu pages, allocated with %zu\n",
                 static_cast<unsigned long long>(memory), static_cast<size_t>(pages), it->second.pages);
    return EFI_INVALID_PARAMETER;
  }
  Retire(it->second);
  g->blocks.erase(it);
  return EFI_SUCCESS;
}

}  // namespace

// The block is placed so that its end, rounded up to 8 bytes, touches the guard page.
void* AllocateHostPool(size_t size, uintptr_t caller) {
  if (size > 0xFFFFFFFFu - 2 * kPage) return nullptr;
  size_t rounded = (size + 7) & ~static_cast<size_t>(7);
  size_t pages = rounded == 0 ? 1 : (rounded + kPage - 1) / kPage;
  MemoryBlock* block = MapBlock(pages, 0xFFFFFFFF, 0, caller);
  if (block == nullptr) return nullptr;
  MemoryBlock pool = *block;
  g->blocks.erase(block->base);
  pool.pool = true;
  pool.base = pool.mapBase + pages * kPage - rounded;
  pool.length = size;
  g->blocks.emplace(pool.base, pool);
#ifdef ZAPROM_EMU_ASAN
  ASAN_POISON_MEMORY_REGION(reinterpret_cast<void*>(pool.base + size), rounded - size);
#endif
  return reinterpret_cast<void*>(pool.base);
}

void InstallMemoryServices(EFI_BOOT_SERVICES& services) {
  services.AllocatePool = AllocatePool;
  services.FreePool = FreePool;
  services.AllocatePages = AllocatePages;
  services.FreePages = FreePages;
}

void ReleaseAllMemory() {
  for (auto& [base, block] : g->blocks) Unmap(block.mapBase, block.mapLength);
  g->blocks.clear();
  ReleaseKeptMappings();
}

}  // namespace detail

bool Environment::ContainsAddress(uint64_t address, uint64_t length) const {
  using detail::g;
  if (length > 0xFFFFFFFFULL || address > 0xFFFFFFFFULL || address + length > 0x100000000ULL) return false;
  uint64_t end = address + length;
  // The executable's own static data, which the driver may hand to the firmware as it is.
  uint64_t imageBegin = reinterpret_cast<uintptr_t>(&__executable_start);
  uint64_t imageEnd = reinterpret_cast<uintptr_t>(&_end);
  if (address >= imageBegin && end <= imageEnd) return true;
  auto it = g->blocks.upper_bound(static_cast<uintptr_t>(address));
  if (it == g->blocks.begin()) return false;
  --it;
  const detail::MemoryBlock& block = it->second;
  return address >= block.base && end <= block.base + block.length;
}

namespace {

// The first bytes of a block as a reader recognises them: 16-bit text (most of what the tool
// allocates is), 8-bit text, or hex.
std::string ContentHint(const uint8_t* data, size_t length) {
  constexpr size_t kShown = 32;
  auto printable = [](unsigned c) { return c >= 0x20 && c < 0x7F; };
  std::string wide, narrow, hex;
  bool isWide = length >= 2, isNarrow = length >= 1;
  for (size_t i = 0; i + 1 < length && isWide && wide.size() < kShown; i += 2) {
    if (data[i] == 0 && data[i + 1] == 0 && i > 0) break;
    isWide = data[i + 1] == 0 && printable(data[i]);
    wide += static_cast<char>(data[i]);
  }
  for (size_t i = 0; i < length && isNarrow && narrow.size() < kShown; ++i) {
    if (data[i] == 0 && i > 0) break;
    isNarrow = printable(data[i]);
    narrow += static_cast<char>(data[i]);
  }
  if (isWide) return "u\"" + wide + "\"";
  if (isNarrow) return "\"" + narrow + "\"";
  char byte[4];
  for (size_t i = 0; i < length && i < kShown / 2; ++i) {
    std::snprintf(byte, sizeof byte, "%s%02X", i == 0 ? "" : " ", data[i]);
    hex += byte;
  }
  return hex;
}

}  // namespace

uint64_t Environment::PoolOverruns() const {
  // A write into a recently freed block counts once it is seen.
  for (const auto& [pages, base] : detail::g->recentlyFreed) detail::StillFreed(pages, base);
  uint64_t overruns = detail::g->overruns;
  for (const auto& [base, block] : detail::g->blocks) overruns += detail::WrittenPastEnd(block) ? 1 : 0;
  return overruns;
}

uint64_t Environment::BadFrees() const { return detail::g->badFrees; }

std::vector<LiveBlock> Environment::LiveBlocks() const {
  std::vector<LiveBlock> live;
  for (const auto& [base, block] : detail::g->blocks) {
    LiveBlock entry;
    entry.address = block.base;
    entry.size = block.pool ? block.length : block.pages * detail::kPage;
    entry.pool = block.pool;
    entry.serial = block.serial;
    entry.caller = block.caller;
    entry.content = ContentHint(reinterpret_cast<const uint8_t*>(block.base), entry.size);
    live.push_back(entry);
  }
  std::sort(live.begin(), live.end(), [](const LiveBlock& a, const LiveBlock& b) { return a.serial < b.serial; });
  return live;
}

}  // namespace emu
