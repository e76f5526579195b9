// Function 48h: ECX the image size, ESI the block list, EDI the "$EXT" record. The firmware
// reads the image where the list says and answers in AL, CL and, if it wants, a "$EXO" record.
#include "CapsuleService.h"

#include <cstring>

namespace sim {

namespace {

constexpr uint32_t kListHeadBytes = 8;
constexpr uint32_t kListEntryBytes = 16;
constexpr uint32_t kListEntryLimit = (0x20000 - kListHeadBytes) / kListEntryBytes;
constexpr uint32_t kExtendedByte = 8;

uint32_t U32(const uint8_t* p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (uint32_t{p[3]} << 24); }
uint64_t U64(const uint8_t* p) { return U32(p) | (uint64_t{U32(p + 4)} << 32); }

}  // namespace

CapsuleAnswer AnswerCapsule(const CapsuleBehaviour& behaviour, const OblisRegisters& in, const CapsuleRead& read,
                            const CapsuleWrite& write, std::vector<CapsuleReceived>& received) {
  if (!behaviour.secure) return {kOblisUnsupported, {}};
  uint8_t record[kExtendedByte + 1];
  read(in.edi, record, sizeof(record));
  const uint8_t viaEsp = std::memcmp(record, "$EXT", 4) == 0 ? record[kExtendedByte] : 0;
  if (behaviour.extra) {
    uint8_t answer[kExtendedByte + 1] = {'$', 'E', 'X', 'O', 9, 0, 0, 0, *behaviour.extra};
    write(in.edi, answer, sizeof(answer));
  }
  if (in.ecx == 0) return {behaviour.probeStatus, behaviour.action};

  uint8_t head[kListHeadBytes];
  read(in.esi, head, sizeof(head));
  const uint32_t count = U32(head);
  if (count > kListEntryLimit) return {kOblisBufferTooSmall, {}};
  CapsuleReceived seen;
  seen.size = in.ecx;
  seen.viaEsp = viaEsp;
  for (uint32_t i = 0; i < count; ++i) {
    uint8_t entry[kListEntryBytes];
    read(in.esi + kListHeadBytes + i * kListEntryBytes, entry, sizeof(entry));
    seen.blockLengths.push_back(U64(entry));
    seen.blockAddresses.push_back(U64(entry + 8));
  }
  // A list that counts from 0 points into the file on the system partition, not into memory.
  const bool fromMemory = count != 0 && seen.blockAddresses[0] != 0;
  if (fromMemory) {
    for (uint32_t i = 0; i < count; ++i) {
      const uint64_t address = seen.blockAddresses[i];
      const uint64_t length = seen.blockLengths[i];
      if (address + length > 0x100000000ull || length > in.ecx) return {kOblisBufferTooSmall, {}};
      std::vector<uint8_t> block(length);
      if (length != 0) read(static_cast<uint32_t>(address), block.data(), static_cast<uint32_t>(length));
      seen.image.insert(seen.image.end(), block.begin(), block.end());
    }
  }
  received.push_back(std::move(seen));
  if (behaviour.flashStatus != kOblisSuccess) return {behaviour.flashStatus, {}};
  return {kOblisSuccess, behaviour.action};
}

}  // namespace sim
