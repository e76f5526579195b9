// What the tool finds in the simulated machine's memory and flash before its first call: the
// "$OBLIS" signature by the 16-byte scan, the FADT by the RSDP -> RSDT walk with valid
// checksums, and a default flash content with a sound descriptor and a BVDT where the maps say.
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "SimHarness.h"
#include "simulator/FlashPart.h"

namespace {

using namespace simtest;

uint32_t ReadU32(const sim::Simulator& s, uint32_t address) {
  uint32_t v = 0;
  EXPECT_TRUE(s.ReadPhysical(address, &v, 4)) << std::hex << address;
  return v;
}

std::string ReadChars(const sim::Simulator& s, uint32_t address, uint32_t n) {
  std::string text(n, '\0');
  EXPECT_TRUE(s.ReadPhysical(address, text.data(), n)) << std::hex << address;
  return text;
}

bool ChecksumIsZero(const sim::Simulator& s, uint32_t address, uint32_t length) {
  std::vector<uint8_t> bytes(length);
  if (!s.ReadPhysical(address, bytes.data(), length)) return false;
  uint8_t sum = 0;
  for (uint8_t b : bytes) sum = static_cast<uint8_t>(sum + b);
  return sum == 0;
}

// The driver's walk: RSDP -> RSDT at offset 16 -> the first entry whose table is "FACP".
uint32_t FindFadt(const sim::Simulator& s, uint32_t rsdp) {
  const uint32_t rsdt = ReadU32(s, rsdp + 16);
  EXPECT_EQ(ReadChars(s, rsdt, 4), "RSDT");
  EXPECT_TRUE(ChecksumIsZero(s, rsdt, ReadU32(s, rsdt + 4)));
  const uint32_t count = (ReadU32(s, rsdt + 4) - 36) / 4;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t table = ReadU32(s, rsdt + 36 + 4 * i);
    if (ReadChars(s, table, 4) == "FACP") return table;
  }
  return 0;
}

TEST(FirmwareMemory, AcpiWalkReachesFadtPortAndDsdtOemId) {
  TestMemory memory;
  struct Case {
    const char* json;
    uint16_t port;
    const char* oemId;
  };
  const Case cases[] = {
      {"{}", 0xB2, "DOVRIN"},
      {R"({"acpi": {"smi_cmd_port": "0x00B0", "dsdt_oem_id": "ACRSYS"}})", 0xB0, "ACRSYS"},
      {R"({"acpi": {"dsdt_oem_id": "HP"}})", 0xB2, "HP    "},
  };
  for (const Case& c : cases) {
    sim::Simulator s(MachineFrom(c.json), {}, memory.Access());
    for (uint32_t rsdp : {s.Acpi10Rsdp(), s.Acpi20Rsdp()}) {
      ASSERT_NE(rsdp, 0u);
      EXPECT_GE(rsdp, sim::kLegacyAreaStart);
      EXPECT_EQ(ReadChars(s, rsdp, 8), "RSD PTR ");
      EXPECT_TRUE(ChecksumIsZero(s, rsdp, 20));
      const uint32_t fadt = FindFadt(s, rsdp);
      ASSERT_NE(fadt, 0u) << c.json;
      EXPECT_NE(ReadU32(s, ReadU32(s, rsdp + 16) + 36), fadt) << "another table comes before the FADT";
      EXPECT_TRUE(ChecksumIsZero(s, fadt, ReadU32(s, fadt + 4)));
      EXPECT_EQ(ReadU32(s, fadt + 48), c.port);
      const uint32_t dsdt = ReadU32(s, fadt + 40);
      EXPECT_EQ(ReadChars(s, dsdt, 4), "DSDT");
      EXPECT_EQ(ReadChars(s, dsdt + 10, 6), c.oemId);
      EXPECT_TRUE(ChecksumIsZero(s, dsdt, ReadU32(s, dsdt + 4)));
    }
    // The ACPI 2.0 pointer: revision 2, 36 bytes, extended checksum, an XSDT.
    const uint32_t rsdp20 = s.Acpi20Rsdp();
    uint8_t revision = 0;
    ASSERT_TRUE(s.ReadPhysical(rsdp20 + 15, &revision, 1));
    EXPECT_EQ(revision, 2);
    EXPECT_EQ(ReadU32(s, rsdp20 + 20), 36u);
    EXPECT_TRUE(ChecksumIsZero(s, rsdp20, 36));
    const uint32_t xsdt = ReadU32(s, rsdp20 + 24);
    EXPECT_EQ(ReadChars(s, xsdt, 4), "XSDT");
    EXPECT_TRUE(ChecksumIsZero(s, xsdt, ReadU32(s, xsdt + 4)));
  }
  sim::Simulator only20(MachineFrom(R"({"acpi": {"acpi10": false}})"), {}, memory.Access());
  EXPECT_EQ(only20.Acpi10Rsdp(), 0u);
  EXPECT_NE(only20.Acpi20Rsdp(), 0u);
}

// The driver's scan: 16-byte steps over 0xE0000-0xFFFFF, the number behind the signature.
std::optional<std::pair<uint32_t, uint8_t>> ScanForOblis(const sim::Simulator& s) {
  for (uint32_t a = 0xE0000; a < 0x100000; a += 16) {
    if (ReadChars(s, a, 6) == "$OBLIS") {
      uint8_t number = 0;
      EXPECT_TRUE(s.ReadPhysical(a + 6, &number, 1));
      return std::make_pair(a, number);
    }
  }
  return std::nullopt;
}

TEST(FirmwareMemory, OblisSignatureOnA16ByteBoundaryWithTheSmiNumber) {
  TestMemory memory;
  sim::Simulator s(MachineFrom(R"({"oblis": {"smi_number": "0x44"}})"), {}, memory.Access());
  const auto found = ScanForOblis(s);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->first % 16, 0u);
  EXPECT_EQ(found->first, s.OblisSignatureAddress());
  EXPECT_EQ(found->second, 0x44);

  sim::Simulator none(MachineFrom(R"({"oblis": {"signature": false}})"), {}, memory.Access());
  EXPECT_FALSE(ScanForOblis(none));
  EXPECT_EQ(none.OblisSignatureAddress(), 0u);
}

TEST(FirmwareMemory, ReadsOutsideKnownMemoryFail) {
  TestMemory memory;
  sim::Simulator s(sim::DefaultMachine(), {}, memory.Access());
  uint8_t byte = 0;
  EXPECT_FALSE(s.ReadPhysical(0xDFFFF, &byte, 1));
  EXPECT_FALSE(s.ReadPhysical(0xFFFFF, &byte, 2)) << "runs past the legacy area";
  EXPECT_FALSE(s.ReadPhysical(0x00100000, &byte, 1));
  EXPECT_FALSE(s.ReadPhysical(0xFEFFFFFF, &byte, 1)) << "below the flash";
  uint32_t signature = 0;
  EXPECT_TRUE(s.ReadPhysical(0xFF000010, &signature, 4)) << "the flash is mapped below 4 GB";
  EXPECT_EQ(signature, 0x0FF0A55Au);
}

TEST(FlashContent, DefaultContentHasDescriptorRegionsAndBvdtInOemData) {
  const sim::Machine m = sim::DefaultMachine();
  const std::vector<uint8_t> flash = sim::DefaultFlashContent(m);
  ASSERT_EQ(flash.size(), m.flashSize);
  auto u32 = [&](uint32_t at) { return uint32_t(flash[at]) | flash[at + 1] << 8 | flash[at + 2] << 16 | uint32_t(flash[at + 3]) << 24; };
  EXPECT_EQ(u32(0x10), 0x0FF0A55Au);
  const uint32_t flmap0 = u32(0x14);
  const uint32_t frba = ((flmap0 >> 16) & 0xFF) << 4;
  ASSERT_NE(frba, 0u);
  auto region = [&](int index) {
    const uint32_t reg = u32(frba + 4 * index);
    return std::make_pair((reg & 0x7FFF) << 12, (((reg >> 16) & 0x7FFF) << 12) | 0xFFF);
  };
  EXPECT_EQ(region(0), std::make_pair(0x0u, 0xFFFu));
  EXPECT_EQ(region(1), std::make_pair(0x800000u, 0xFFFFFFu)) << "BIOS covers the top";
  EXPECT_EQ(region(2), std::make_pair(0x1000u, 0x7FFFFFu));
  const uint32_t fcba = (flmap0 & 0xFF) << 4;
  EXPECT_EQ(u32(fcba) & 0x7, 5u) << "one 16 MB component";

  // The BVDT lies in the whole map's OEM Data region (type 0x0A).
  const auto found = std::search(flash.begin(), flash.end(), "$BVDT$", "$BVDT$" + 6);
  ASSERT_NE(found, flash.end());
  const uint32_t physical = 0xFF000000u + static_cast<uint32_t>(found - flash.begin());
  const auto oem = std::find_if(m.whole.begin(), m.whole.end(), [](const sim::Region& r) { return r.type == 0x0A; });
  ASSERT_NE(oem, m.whole.end());
  EXPECT_GE(physical, oem->address);
  EXPECT_LT(physical, oem->address + oem->size);
  EXPECT_EQ(flash[found - flash.begin() + 0x0D], '$');
  EXPECT_EQ(flash[found - flash.begin() + 0x26], '$');
  // Nothing else but descriptor and BVDT: the rest is erased.
  std::vector<uint8_t> rest(flash.begin() + 0x1000, flash.end());
  const size_t bvdt = static_cast<size_t>(found - flash.begin()) - 0x1000;
  std::fill(rest.begin() + bvdt, rest.begin() + bvdt + 0x100, 0xFF);
  EXPECT_EQ(static_cast<size_t>(std::count(rest.begin(), rest.end(), 0xFF)), rest.size());
}

TEST(FlashContent, ContentOfAnotherSizeIsRefusedWithTheSizes) {
  TestMemory memory;
  const sim::Machine m = sim::DefaultMachine();
  EXPECT_EQ(sim::ValidateFlashContent(m, {}), "");
  EXPECT_EQ(sim::ValidateFlashContent(m, std::vector<uint8_t>(m.flashSize, 0xFF)), "");
  const std::string expected = "flash content is 8388608 (0x800000) bytes but the machine's flash.size is 16777216 (0x1000000)";
  EXPECT_EQ(sim::ValidateFlashContent(m, std::vector<uint8_t>(0x800000, 0xFF)), expected);
  try {
    sim::Simulator s(m, std::vector<uint8_t>(0x800000, 0xFF), memory.Access());
    ADD_FAILURE() << "constructed with a content of the wrong size";
  } catch (const std::invalid_argument& e) {
    EXPECT_EQ(std::string(e.what()), expected);
  }
  sim::Simulator s(m, std::vector<uint8_t>(m.flashSize, 0x5A), memory.Access());
  EXPECT_EQ(s.Flash(), std::vector<uint8_t>(m.flashSize, 0x5A));
}

TEST(FlashContent, PartErasesWholeBlocksAndProgramsOnlyClearBits) {
  const sim::Machine m = MachineFrom(R"({"flash": {"size": "0x30000", "blocks": [{"size": "0x10000", "count": 2},
                                                                                  {"size": "0x1000", "count": 16}]}})");
  sim::FlashPart part(m, std::vector<uint8_t>(m.flashSize, 0x00));
  EXPECT_EQ(part.Base(), 0xFFFD0000u);
  EXPECT_EQ(part.BlockAt(0xFFFD8000), std::make_pair(0xFFFD0000u, 0x10000u));
  EXPECT_EQ(part.BlockAt(0xFFFF3456), std::make_pair(0xFFFF3000u, 0x1000u));
  EXPECT_FALSE(part.BlockAt(0xFFFCFFFF));
  EXPECT_FALSE(part.Erase(0xFFFF3001)) << "not a block start";
  ASSERT_TRUE(part.Erase(0xFFFF3000));
  EXPECT_EQ(part.Content()[0x22FFF], 0x00);
  EXPECT_EQ(part.Content()[0x23000], 0xFF);
  EXPECT_EQ(part.Content()[0x23FFF], 0xFF);
  EXPECT_EQ(part.Content()[0x24000], 0x00);
  const uint8_t data[2] = {0x0F, 0xF0};
  ASSERT_TRUE(part.Program(0xFFFF3000, data, 2));
  ASSERT_TRUE(part.Program(0xFFFF3000, "\xF3\xFF", 2));
  EXPECT_EQ(part.Content()[0x23000], 0x03);
  EXPECT_EQ(part.Content()[0x23001], 0xF0);
  EXPECT_FALSE(part.Program(0xFFFFFFFF, data, 2)) << "past 4 GB";
}

}  // namespace
