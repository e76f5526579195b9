// Function 4Ch: ECX the file's size (0 for the probe), EDI 1 to verify only or 0 to flash, ESI
// the block list of the file in the tool's memory, laid out as for 48h.
#include "OemSecureService.h"

#include <algorithm>

#include "ConversationService.h"
#include "FlashService.h"
#include "RbuImageFormat.h"
#include "Simulator.h"

namespace sim {

namespace {

constexpr uint32_t kListHeadBytes = 8;
constexpr uint32_t kListEntryBytes = 16;
constexpr uint32_t kListEntryLimit = (kOblisBufferSize - kListHeadBytes) / kListEntryBytes;
constexpr uint8_t kVerified = 0x01, kOrdinaryWay = 0x02, kFinishedWell = 0x04;

uint64_t U64(const uint8_t* p) { return rbu_image::U32(p) | (uint64_t{rbu_image::U32(p + 4)} << 32); }

bool ChecksumsRight(const std::vector<uint8_t>& file) {
  const rbu_image::Layout layout = rbu_image::ReadLayout(file.data(), file.size());
  if (!layout.ok) return false;
  const uint32_t at = layout.fdChecksumAt;
  return rbu_image::U32(file.data() + at) == rbu_image::Checksum(file.data() + layout.header, at - layout.header) &&
         rbu_image::U32(file.data() + at + 4) == rbu_image::Checksum(file.data(), at + 4);
}

// The flash data over the part, erase block by erase block: a block that already holds its data
// or touches a range the firmware keeps (its protection and private lists) is left alone. False
// when the data is not the part's size or the flash driver refuses a block.
bool WriteFlashData(const std::vector<uint8_t>& file, FlashService& flash, const std::vector<Region>& kept,
                    nlohmann::ordered_json& received) {
  const rbu_image::Layout layout = rbu_image::ReadLayout(file.data(), file.size());
  const FlashPart& part = flash.Part();
  if (layout.rawSize != part.Size()) {
    received["refused"] = "the flash data is not the part's size";
    return false;
  }
  uint32_t written = 0, guarded = 0;
  std::vector<uint8_t> current;
  for (uint64_t offset = 0; offset < part.Size();) {
    const uint32_t address = static_cast<uint32_t>(part.Base() + offset);
    const auto block = part.BlockAt(address);
    if (!block) return false;
    const uint32_t size = block->second;
    const uint8_t* data = file.data() + layout.rawStart + offset;
    offset += size;
    bool isProtected = false;
    for (const Region& r : kept) isProtected |= address < uint64_t{r.address} + r.size && r.address < uint64_t{address} + size;
    if (isProtected) {
      ++guarded;
      continue;
    }
    current.resize(size);
    if (part.Read(address, current.data(), size) && std::equal(data, data + size, current.begin())) continue;
    const uint8_t status = flash.Write(address, std::vector<uint8_t>(data, data + size));
    if (status != kOblisSuccess) {
      received["refused"] = "the flash driver answered " + std::to_string(status);
      return false;
    }
    ++written;
  }
  received["written"] = written;
  received["protected"] = guarded;
  return true;
}

}  // namespace

bool IsOemSecureKey(const std::string& name) { return name == "oem_secure"; }

std::string ReadOemSecureKey(const std::string& name, const nlohmann::json& value, OemSecureBehaviour& b) {
  if (!value.is_object()) return name + ": expected an object";
  b.present = true;
  for (const auto& [member, v] : value.items()) {
    const std::string key = name + "." + member;
    if (member == "verify") {
      const std::string text = v.is_string() ? v.get<std::string>() : "";
      if (text == "checksums") b.verify = OemSecureBehaviour::Verify::Checksums;
      else if (text == "ordinary_way") b.verify = OemSecureBehaviour::Verify::OrdinaryWay;
      else if (text == "refuse") b.verify = OemSecureBehaviour::Verify::Refuse;
      else return key + ": expected \"checksums\", \"ordinary_way\" or \"refuse\"";
    } else if (member == "flash_fails") {
      if (!v.is_boolean()) return key + ": expected true or false";
      b.flashFails = v.get<bool>();
    } else if (member == "action") {
      if (!v.is_number_unsigned() || v.get<uint64_t>() > 0xFF) return key + ": expected a number from 0 to 255";
      b.action = v.get<uint8_t>();
    } else {
      return key + ": unknown key";
    }
  }
  return "";
}

OemSecureAnswer AnswerOemSecure(const OemSecureBehaviour& behaviour, const OblisRegisters& in, const OemSecureRead& read,
                                FlashService& flash, const std::vector<Region>& kept) {
  if (!behaviour.present) return {kOblisUnsupported, 0, {}, nullptr};
  uint8_t head[kListHeadBytes];
  read(in.esi, head, sizeof(head));
  const uint32_t count = rbu_image::U32(head);
  const uint8_t verifyOnly = static_cast<uint8_t>(in.edi);
  nlohmann::ordered_json received = {{"size", in.ecx}, {"verify_only", verifyOnly}, {"blocks", count}};
  if (count > kListEntryLimit) return {kOblisBufferTooSmall, 0, {}, received};
  std::vector<uint8_t> file;
  for (uint32_t i = 0; i < count && in.ecx != 0; ++i) {
    uint8_t entry[kListEntryBytes];
    read(in.esi + kListHeadBytes + i * kListEntryBytes, entry, sizeof(entry));
    const uint64_t length = U64(entry), address = U64(entry + 8);
    if (address + length > 0x100000000ull || file.size() + length > in.ecx) return {kOblisBufferTooSmall, 0, {}, received};
    const size_t at = file.size();
    file.resize(at + length);
    if (length != 0) read(static_cast<uint32_t>(address), file.data() + at, static_cast<uint32_t>(length));
  }
  // The probe carries one empty entry and learns only that the function is there.
  if (in.ecx == 0) return {kOblisSuccess, 0, behaviour.action, received};
  received["fnv1a"] = Fnv1a(file);
  if (file.size() != in.ecx) {
    received["refused"] = "the list does not cover the size";
    return {kOblisBufferTooSmall, 0, {}, received};
  }
  uint8_t ah = 0;
  if (behaviour.verify == OemSecureBehaviour::Verify::OrdinaryWay) {
    ah = kOrdinaryWay;
  } else if (behaviour.verify == OemSecureBehaviour::Verify::Checksums && ChecksumsRight(file)) {
    ah = kVerified;
  }
  received["verified"] = (ah & kVerified) != 0;
  if (verifyOnly == 0 && (ah & kVerified) != 0 && !behaviour.flashFails && WriteFlashData(file, flash, kept, received)) {
    ah |= kFinishedWell;
  }
  return {kOblisSuccess, ah, behaviour.action, received};
}

}  // namespace sim
