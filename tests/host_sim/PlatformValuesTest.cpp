// What the machine answers beyond OBLIS: the io_ports, pci and memory keys of the description
// reach the port reads, the PCI configuration reads and the physical memory reads of the
// simulator, and descriptions that could not stand on a real machine are refused by key.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "simulator/Simulator.h"

namespace {

sim::Machine Parse(const std::string& json) {
  sim::Machine machine;
  std::string error;
  EXPECT_TRUE(sim::ParseMachine(json, machine, error)) << json << ": " << error;
  return machine;
}

TEST(PlatformValues, DescribedValuesAreReadAtTheirWidthAndAllElseReadsEmpty) {
  const sim::Machine machine = Parse(R"({
    "io_ports": {"0x80": "0x12", "0xC0": {"value": "0x5AABFE02", "width": 4}, "0x2E": {"value": 513, "width": 2}},
    "pci": [{"bus": 0, "device": "0x1F", "function": 2, "offset": "0x80", "value": "0x00007007"}],
    "memory": [{"address": "0x7F000000", "bytes": "5A A5 3412"}, {"address": 4096, "bytes": [1, "0x02"]}]})");
  sim::Simulator simulator(machine, {}, {});
  struct Port {
    uint16_t port;
    int width;
    uint32_t value;
  };
  const Port ports[] = {
      {0x80, 1, 0x12},         {0x80, 2, 0xFF12},       {0xC0, 4, 0x5AABFE02}, {0xC0, 2, 0xFE02}, {0xC2, 2, 0x5AAB},
      {0xC3, 4, 0xFFFFFF5A},   {0x2E, 2, 0x0201},       {0x81, 1, 0xFF},       {0x70, 1, 0xFF},
  };
  for (const Port& p : ports) EXPECT_EQ(simulator.IoRead(p.port, p.width), p.value) << std::hex << p.port << "/" << p.width;

  EXPECT_EQ(simulator.PciRead(0, 0x1F, 2, 0x80), 0x7007u);
  EXPECT_EQ(simulator.PciRead(0, 0x1F, 2, 0x82), 0x7007u);  // the register that holds the offset
  EXPECT_EQ(simulator.PciRead(0, 0x1F, 2, 0x84), 0xFFFFFFFFu);
  EXPECT_EQ(simulator.PciRead(0, 0x1F, 3, 0x80), 0xFFFFFFFFu);
  EXPECT_EQ(simulator.PciRead(1, 0x1F, 2, 0x80), 0xFFFFFFFFu);

  struct Read {
    uint32_t address;
    uint32_t length;
    bool ok;
    std::vector<uint8_t> bytes;
  };
  const Read reads[] = {
      {0x7F000000, 4, true, {0x5A, 0xA5, 0x34, 0x12}},
      {0x7F000002, 2, true, {0x34, 0x12}},
      {0x7F000002, 4, false, {}},  // runs past the range
      {0x7EFFFFFF, 2, false, {}},
      {0x1001, 1, true, {0x02}},
      {0x1002, 1, false, {}},
      {0xF0000, 4, true, {}},  // the legacy area stays readable
  };
  for (const Read& r : reads) {
    std::vector<uint8_t> out(r.length, 0xEE);
    EXPECT_EQ(simulator.ReadPhysical(r.address, out.data(), r.length), r.ok) << std::hex << r.address;
    if (r.ok && !r.bytes.empty()) EXPECT_EQ(out, r.bytes) << std::hex << r.address;
  }
}

TEST(PlatformValues, ImpossibleDescriptionsAreRefusedNamingTheKey) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"io_ports": {"0x70": 1}})", "io_ports.0x70: ports 0x70 and 0x71 belong to the CMOS clock"},
      {R"({"io_ports": {"0x6E": {"value": 1, "width": 4}}})", "io_ports.0x6E: ports 0x70 and 0x71 belong to the CMOS clock"},
      {R"({"io_ports": {"0x80": 256}})", "io_ports.0x80: value 256 is larger than 255"},
      {R"({"io_ports": {"0x80": {"value": "0x10000", "width": 2}}})", "io_ports.0x80.value: value 65536 is larger than 65535"},
      {R"({"io_ports": {"0x80": {"value": 1, "width": 3}}})", "io_ports.0x80.width: expected 1, 2 or 4"},
      {R"({"io_ports": {"0x80": {"value": 1, "size": 1}}})", "unknown key 'io_ports.0x80.size'"},
      {R"({"io_ports": {"0x80": {"value": 1, "width": 2}, "0x81": 1}})", "io_ports.0x81: port 0x81 is described twice"},
      {R"({"io_ports": {"0xFFFE": {"value": 1, "width": 4}}})", "io_ports.0xFFFE: the value runs past port 0xFFFF"},
      {R"({"pci": [{"bus": 0, "device": 32, "function": 0, "offset": 0, "value": 0}]})",
       "pci[0].device: value 32 is larger than 31"},
      {R"({"pci": [{"bus": 0, "device": 0, "function": 8, "offset": 0, "value": 0}]})",
       "pci[0].function: value 8 is larger than 7"},
      {R"({"pci": [{"bus": 0, "device": 0, "function": 0, "offset": 2, "value": 0}]})",
       "pci[0].offset: a register starts at a multiple of 4"},
      {R"({"pci": [{"bus": 0, "device": 0, "function": 0, "offset": 0}]})", "pci[0]: missing \"value\""},
      {R"({"pci": [{"bus": 0, "device": 0, "function": 0, "offset": 0, "value": 0},
                   {"bus": 0, "device": 0, "function": 0, "offset": 0, "value": 1}]})",
       "pci[1]: the register is described twice"},
      {R"({"memory": [{"address": "0x1000", "bytes": "ABC"}]})", "memory[0].bytes: an odd number of hexadecimal digits"},
      {R"({"memory": [{"address": "0x1000", "bytes": "XY"}]})",
       "memory[0].bytes: expected hexadecimal digits, such as \"DE AD BE EF\""},
      {R"({"memory": [{"address": "0x1000", "bytes": []}]})", "memory[0].bytes: a range holds at least one byte"},
      {R"({"memory": [{"address": "0xFFFFFFFF", "bytes": [1, 2]}]})", "memory[0]: the range runs past 4 GB"},
      {R"({"memory": [{"address": "0xEFFFF", "bytes": [1, 2]}]})", "memory[0]: overlaps the legacy BIOS area"},
      {R"({"memory": [{"address": "0xFE000000", "bytes": [1]}], "flash": {"size": "0x2000000"}})",
       "memory[0]: overlaps the flash part"},
      {R"({"memory": [{"address": 16, "bytes": "0102"}, {"address": 17, "bytes": "03"}]})", "memory[1]: overlaps memory[0]"},
  };
  for (const auto& [json, message] : cases) {
    sim::Machine machine;
    std::string error;
    EXPECT_FALSE(sim::ParseMachine(json, machine, error)) << json;
    EXPECT_EQ(error, message) << json;
  }
}

TEST(PlatformValues, MultiImageExampleDescribesItsRulesValues) {
  const auto path = std::filesystem::path(__FILE__).parent_path().parent_path().parent_path() / "examples" / "machines" /
                    "multi-image.json";
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  sim::Simulator simulator(Parse(text.str()), {}, {});
  EXPECT_EQ(simulator.IoRead(0xC0, 1), 0x02u);
  EXPECT_EQ(simulator.PciRead(0, 0x1F, 0, 0), 0xA3C88086u);
  uint8_t bytes[3] = {};
  ASSERT_TRUE(simulator.ReadPhysical(0x7F000100, bytes, 3));
  EXPECT_EQ(bytes[2], 3);
}

}  // namespace
