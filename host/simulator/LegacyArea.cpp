// The legacy BIOS area 0xE0000-0xFFFFF of the simulated machine: the "$OBLIS" signature with the
// SMI number behind it, and the ACPI tables (RSDP, RSDT, XSDT, MADT, FADT, DSDT) that lead the
// tool to the SMI command port. Reading this memory is the simulator's business.
#include "LegacyArea.h"

#include <algorithm>
#include <cstring>

namespace sim {

namespace {

// Places inside the area, chosen once; only the RSDPs need to be found by address.
constexpr uint32_t kRsdp10 = 0xF0000;
constexpr uint32_t kRsdp20 = 0xF0020;
constexpr uint32_t kXsdt = 0xF0080;
constexpr uint32_t kRsdt = 0xF0100;
constexpr uint32_t kMadt = 0xF0200;
constexpr uint32_t kFadt = 0xF0300;
constexpr uint32_t kDsdt = 0xF0400;
constexpr uint32_t kOblis = 0xF6A30;  // a 16-byte boundary, away from the tables
constexpr uint32_t kWindowStart = kRsdp10;
constexpr uint32_t kWindowEnd = kOblis + 16;

constexpr uint32_t kHeaderBytes = 36;
constexpr uint32_t kFadtBytes = 244;  // ACPI 2.0 FADT, revision 3
constexpr uint32_t kMadtBytes = kHeaderBytes + 8;
constexpr uint32_t kDsdtBytes = kHeaderBytes + 4;

class AreaWriter {
 public:
  explicit AreaWriter(std::vector<uint8_t>& bytes) : bytes_(bytes) {}
  uint8_t* At(uint32_t address) { return bytes_.data() + (address - kWindowStart); }
  void Text(uint32_t address, const std::string& text) { std::memcpy(At(address), text.data(), text.size()); }
  void U8(uint32_t address, uint8_t v) { *At(address) = v; }
  void U32(uint32_t address, uint32_t v) {
    for (int i = 0; i < 4; ++i) At(address)[i] = static_cast<uint8_t>(v >> (8 * i));
  }
  void U64(uint32_t address, uint64_t v) {
    U32(address, static_cast<uint32_t>(v));
    U32(address + 4, static_cast<uint32_t>(v >> 32));
  }
  // Sets the byte at checksumAt so that the bytes [address, address + length) add up to 0.
  void Checksum(uint32_t address, uint32_t length, uint32_t checksumAt) {
    U8(checksumAt, 0);
    uint8_t sum = 0;
    for (uint32_t i = 0; i < length; ++i) sum = static_cast<uint8_t>(sum + At(address)[i]);
    U8(checksumAt, static_cast<uint8_t>(-sum));
  }
  // The common 36-byte header; the checksum is set by Seal once the body is written.
  void Header(uint32_t address, const char* signature, uint32_t length, uint8_t revision, const std::string& oemId) {
    Text(address, signature);
    U32(address + 4, length);
    U8(address + 8, revision);
    std::string id = oemId;
    id.resize(6, ' ');
    Text(address + 10, id);
    Text(address + 16, "DVRNSIM ");
    U32(address + 24, 1);
    Text(address + 28, "DVRN");
    U32(address + 32, 0x20260101);
  }
  void Seal(uint32_t address) {
    uint32_t length = 0;
    std::memcpy(&length, At(address + 4), 4);
    Checksum(address, length, address + 9);
  }

 private:
  std::vector<uint8_t>& bytes_;
};

void WriteRsdps(AreaWriter& w) {
  for (uint32_t rsdp : {kRsdp10, kRsdp20}) {
    w.Text(rsdp, "RSD PTR ");
    w.Text(rsdp + 9, "DOVRIN");
    w.U32(rsdp + 16, kRsdt);  // the RSDT, for ACPI 2.0 too
  }
  w.U8(kRsdp10 + 15, 0);
  w.Checksum(kRsdp10, 20, kRsdp10 + 8);
  w.U8(kRsdp20 + 15, 2);
  w.U32(kRsdp20 + 20, 36);
  w.U64(kRsdp20 + 24, kXsdt);
  w.Checksum(kRsdp20, 20, kRsdp20 + 8);
  w.Checksum(kRsdp20, 36, kRsdp20 + 32);
}

// Both system tables list the MADT first, so that a walk has to pass over one table.
void WriteSystemTables(AreaWriter& w) {
  w.Header(kRsdt, "RSDT", kHeaderBytes + 8, 1, "DOVRIN");
  w.U32(kRsdt + 36, kMadt);
  w.U32(kRsdt + 40, kFadt);
  w.Seal(kRsdt);
  w.Header(kXsdt, "XSDT", kHeaderBytes + 16, 1, "DOVRIN");
  w.U64(kXsdt + 36, kMadt);
  w.U64(kXsdt + 44, kFadt);
  w.Seal(kXsdt);
  w.Header(kMadt, "APIC", kMadtBytes, 3, "DOVRIN");
  w.U32(kMadt + 36, 0xFEE00000);  // local APIC address
  w.U32(kMadt + 40, 1);           // PC-AT compatible
  w.Seal(kMadt);
}

void WriteFadtAndDsdt(AreaWriter& w, const Machine& machine) {
  w.Header(kFadt, "FACP", kFadtBytes, 3, "DOVRIN");
  w.U32(kFadt + 40, kDsdt);
  w.U32(kFadt + 48, machine.smiCmdPort);
  w.U8(kFadt + 52, 0xA0);  // ACPI_ENABLE
  w.U8(kFadt + 53, 0xA1);  // ACPI_DISABLE
  w.U64(kFadt + 140, kDsdt);  // X_DSDT
  w.Seal(kFadt);
  w.Header(kDsdt, "DSDT", kDsdtBytes, 2, machine.dsdtOemId);
  w.Text(kDsdt + 36, "\x10\x03\x5C\x00");  // a tiny AML body: Scope (\) {}
  w.Seal(kDsdt);
}

}  // namespace

LegacyArea BuildLegacyArea(const Machine& machine) {
  LegacyArea area;
  area.windowStart = kWindowStart;
  area.bytes.assign(kWindowEnd - kWindowStart, 0);
  AreaWriter w(area.bytes);
  WriteRsdps(w);
  WriteSystemTables(w);
  WriteFadtAndDsdt(w, machine);
  area.rsdp10 = machine.acpi10 ? kRsdp10 : 0;
  area.rsdp20 = machine.acpi20 ? kRsdp20 : 0;
  if (machine.oblisSignature) {
    w.Text(kOblis, "$OBLIS");
    w.U8(kOblis + 6, machine.smiNumber);
    area.oblis = kOblis;
  }
  return area;
}

void ReadLegacyArea(const LegacyArea& area, uint32_t address, void* out, uint32_t length) {
  uint8_t* to = static_cast<uint8_t*>(out);
  std::memset(to, 0, length);
  const uint64_t end = uint64_t{address} + length;
  const uint64_t windowEnd = uint64_t{area.windowStart} + area.bytes.size();
  const uint64_t from = std::max<uint64_t>(address, area.windowStart);
  const uint64_t until = std::min(end, windowEnd);
  if (from < until) {
    std::memcpy(to + (from - address), area.bytes.data() + (from - area.windowStart), until - from);
  }
}

}  // namespace sim
