// The machine description: every key of the JSON reaches its field, numbers come as numbers or
// "0x..." strings, and a bad key or value is refused with a message that names it. Also the
// example machines, of which default.json must describe the embedded default exactly.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "simulator/Simulator.h"

namespace {

std::string ReadText(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::filesystem::path ExamplesFolder() {
  return std::filesystem::path(__FILE__).parent_path().parent_path().parent_path() / "examples" / "machines";
}

struct KeyCase {
  const char* json;
  std::function<bool(const sim::Machine&)> holds;
};

TEST(MachineDescription, EachKeyReachesItsField) {
  const KeyCase cases[] = {
      {R"({"status": {"permission": 0}})", [](auto& m) { return m.permission == 0; }},
      {R"({"status": {"ac": "0x0"}})", [](auto& m) { return m.ac == 0; }},
      {R"({"status": {"dc": 101, "bound": "0x1E"}})", [](auto& m) { return m.dc == 101 && m.bound == 30; }},
      {R"({"status": {"vendor_id": "0x17AA"}})", [](auto& m) { return m.vendorId == 0x17AA; }},
      {R"({"status": {"major": 3, "minor": "0x0A"}})", [](auto& m) { return m.major == 3 && m.minor == 10; }},
      {R"({"status": {"filter": [1, "0xFF", 0]}})",
       [](auto& m) { return m.filter == std::vector<uint8_t>{1, 0xFF, 0}; }},
      {R"({"status": {"filter": null}})", [](auto& m) { return !m.filter; }},
      {R"({"info": {"model_name": "X1", "model_version": "1.2"}})",
       [](auto& m) { return m.modelName == u"X1" && m.modelVersion == u"1.2"; }},
      {R"({"info": {"policy": "0x83", "extended": 1}})", [](auto& m) { return m.policy == 0x83 && m.extended == 1; }},
      {R"({"flash": {"size": "0x800000", "size_index": 7}})",
       [](auto& m) { return m.flashSize == 0x800000 && m.sizeIndex == 7; }},
      {R"({"flash": {"blocks": [{"size": "0x10000", "count": 127}, {"count": 8, "size": 4096}]}})",
       [](auto& m) { return m.blocks == std::vector<std::pair<uint32_t, uint32_t>>{{0x10000, 127}, {0x1000, 8}}; }},
      {R"({"flash": {"vendor": "Macronix", "type": "MX25L12835F", "device_id": "0xC22018"}})",
       [](auto& m) { return m.flashVendor == "Macronix" && m.flashType == "MX25L12835F" && m.deviceId == 0xC22018; }},
      {R"({"maps": {"protection": [{"type": 6, "address": "0xFF800000", "size": "0x40000"}]}})",
       [](auto& m) { return m.protection == std::vector<sim::Region>{{6, 0xFF800000, 0x40000, 0}}; }},
      {R"({"maps": {"private": [{"address": "0xFFA00000", "size": 4096}]}})",
       [](auto& m) { return m.privateMap.size() == 1 && m.privateMap[0].address == 0xFFA00000 && m.privateMap[0].size == 4096; }},
      {R"({"maps": {"whole": [{"type": 10, "address": 1, "size": 2, "attribute": 3}]}})",
       [](auto& m) { return m.whole == std::vector<sim::Region>{{10, 1, 2, 3}}; }},
      {R"({"maps": {"whole": []}})", [](auto& m) { return m.whole.empty(); }},
      {R"({"anti_theft": "0xC7"})", [](auto& m) { return m.antiTheft == 0xC7; }},
      {R"({"variables": {"SetupMode": true}})",
       [](auto& m) { return m.variables.size() == 1 && m.variables[0].name == u"SetupMode"; }},
      {R"({"variables": {"SetupMode": false}})", [](auto& m) { return m.variables.empty(); }},
      {R"({"flash": {"protect_mode": "refuse"}})", [](auto& m) { return m.protectMode == sim::GuardedWrite::Refuse; }},
      {R"({"flash": {"protect_mode": "none"}})", [](auto& m) { return m.protectMode == sim::GuardedWrite::Allow; }},
      {R"({"me": {"locked": true}})",
       [](auto& m) { return m.meLocked && m.meWrite == sim::GuardedWrite::Skip; }},
      {R"({"me": {"locked": true, "write": "refuse"}})", [](auto& m) { return m.meWrite == sim::GuardedWrite::Refuse; }},
      {R"({"maps": {"external": [{"type": 2, "offset": "0x1000", "size": "0x2000", "access": 3}, {"type": "0x20", "offset": 0, "size": 1}]}})",
       [](auto& m) { return m.external == std::vector<sim::ExternalRegion>{{2, 0x1000, 0x2000, 3}, {0x20, 0, 1, 0}}; }},
      {R"({"maps": {"external": []}})", [](auto& m) { return m.external && m.external->empty(); }},
      {R"({"faults": {"verify": 2, "15h": {"code": "0x25", "times": 1}}, "power_cut_after_writes": 0})",
       [](auto& m) { return m.verifyFaults == 2 && m.powerCutAfterWrites == 0u && m.faults.at(0x15).code == 0x25; }},
      {R"({"unsupported": ["44h", "0x48", 76]})",
       [](auto& m) { return m.unsupported == std::vector<uint8_t>{0x44, 0x48, 0x4C}; }},
      {R"({"faults": {"10h": {"code": 2, "times": 3}, "1Eh": {"code": "0x22"}}})",
       [](auto& m) {
         return m.faults.size() == 2 && m.faults.at(0x10) == sim::Fault{2, 3u} &&
                m.faults.at(0x1E) == sim::Fault{0x22, std::nullopt};
       }},
      {R"({"acpi": {"smi_cmd_port": "0x00B0", "dsdt_oem_id": "ACRSYS", "acpi10": false, "acpi20": true}})",
       [](auto& m) { return m.smiCmdPort == 0xB0 && m.dsdtOemId == "ACRSYS" && !m.acpi10 && m.acpi20; }},
      {R"({"oblis": {"signature": false, "smi_number": "0xEF"}})",
       [](auto& m) { return !m.oblisSignature && m.smiNumber == 0xEF; }},
      {R"({"volumes": [{"path": "usb0", "kind": "usb"}, {"path": "d", "kind": "other"}]})",
       [](auto& m) { return m.volumes == std::vector<sim::VolumeDescription>{{"usb0", "usb"}, {"d", "other"}}; }},
  };
  for (const KeyCase& c : cases) {
    sim::Machine machine;
    std::string error;
    ASSERT_TRUE(sim::ParseMachine(c.json, machine, error)) << c.json << ": " << error;
    EXPECT_TRUE(c.holds(machine)) << c.json;
  }
}

TEST(MachineDescription, KeysLeftOutKeepTheDefaultMachine) {
  sim::Machine machine;
  std::string error;
  ASSERT_TRUE(sim::ParseMachine(R"({"status": {"permission": 0}})", machine, error)) << error;
  sim::Machine expected = sim::DefaultMachine();
  expected.permission = 0;
  EXPECT_EQ(machine, expected);
}

TEST(MachineDescription, BadKeysAndValuesAreRefusedNamingTheKey) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"status": {"permision": 1}})", "unknown key 'status.permision'"},
      {R"({"colour": 1})", "unknown key 'colour'"},
      {R"({"status": {"dc": 256}})", "status.dc: value 256 is larger than 255"},
      {R"({"status": {"dc": -1}})", "status.dc: negative numbers are not allowed"},
      {R"({"status": {"vendor_id": "1656"}})", "status.vendor_id: \"1656\" is not a number (write 123 or \"0x7B\")"},
      {R"({"status": {"vendor_id": "0x16G6"}})", "status.vendor_id: \"0x16G6\" is not a hexadecimal number"},
      {R"({"status": {"filter": [1, 300]}})", "status.filter[1]: value 300 is larger than 255"},
      {R"({"acpi": {"acpi10": 1}})", "acpi.acpi10: expected true or false"},
      {R"({"acpi": {"dsdt_oem_id": "ACRSYS1"}})", "acpi.dsdt_oem_id: longer than 6 characters"},
      {R"({"flash": {"blocks": [{"size": 100, "count": 1}]}})",
       "flash.blocks[0].size: a block size is a non-zero multiple of 256 bytes below 0xFFFF00"},
      {R"({"flash": {"blocks": [{"size": 4096}]}})", "flash.blocks[0]: missing \"count\""},
      {R"({"maps": {"whole": [{"type": 1, "address": 0, "size": 0, "attrib": 0}]}})",
       "unknown key 'maps.whole[0].attrib'"},
      {R"({"faults": {"10h": {"times": 1}}})", "faults.10h: missing \"code\""},
      {R"({"faults": {"ten": {"code": 1}}})", "faults.ten: \"ten\" is not a function number (write \"44h\")"},
      {R"({"unsupported": ["4h"]})", "unsupported[0]: \"4h\" is not a function number (write \"44h\")"},
      {R"({"variables": {"SecureBoot": true}})", "unknown key 'variables.SecureBoot'"},
      {R"({"volumes": [{"path": "x", "kind": "floppy"}]})",
       "volumes[0].kind: expected \"usb\", \"sata\", \"emmc\" or \"other\""},
      {R"({"flash": {"protect_mode": "ignore"}})", "flash.protect_mode: expected \"none\", \"refuse\" or \"skip\""},
      {R"({"me": {"write": "none"}})", "me.write: expected \"refuse\" or \"skip\""},
      {R"({"me": {"lock": true}})", "unknown key 'me.lock'"},
      {R"({"maps": {"external": [{"type": 0, "offset": 0, "size": 1}, {"type": 1, "offset": 0, "size": 1},
                                 {"type": 2, "offset": 0, "size": 1}, {"type": 3, "offset": 0, "size": 1},
                                 {"type": 4, "offset": 0, "size": 1}, {"type": 5, "offset": 0, "size": 1}]}})",
       "maps.external: the external map holds at most 5 records"},
      {R"({"maps": {"external": [{"type": 1, "size": 1}]}})", "maps.external[0]: missing \"offset\""},
      {R"({"faults": {"verify": -1}})", "faults.verify: negative numbers are not allowed"},
      {R"([1, 2])", "machine description must be a JSON object"},
  };
  for (const auto& [json, message] : cases) {
    sim::Machine machine = sim::DefaultMachine();
    machine.permission = 7;  // a refused description leaves the caller's machine alone
    std::string error;
    EXPECT_FALSE(sim::ParseMachine(json, machine, error)) << json;
    EXPECT_EQ(error, message) << json;
    EXPECT_EQ(machine.permission, 7) << json;
  }
  std::string error;
  sim::Machine machine;
  EXPECT_FALSE(sim::ParseMachine("{\"status\": ", machine, error));
  EXPECT_EQ(error.rfind("machine description is not valid JSON", 0), 0u) << error;
}

TEST(MachineDescription, ExampleDefaultEqualsTheEmbeddedMachineAndOthersDifferAsNamed) {
  sim::Machine machine;
  std::string error;
  ASSERT_TRUE(sim::ParseMachine(ReadText(ExamplesFolder() / "default.json"), machine, error)) << error;
  EXPECT_EQ(machine, sim::DefaultMachine());

  ASSERT_TRUE(sim::ParseMachine(ReadText(ExamplesFolder() / "acer.json"), machine, error)) << error;
  EXPECT_EQ(machine.vendorId, 0x1656);
  EXPECT_EQ(machine.dsdtOemId, "ACRSYS");

  ASSERT_TRUE(sim::ParseMachine(ReadText(ExamplesFolder() / "no-permission.json"), machine, error)) << error;
  EXPECT_NE(machine.permission, 1);

  ASSERT_TRUE(sim::ParseMachine(ReadText(ExamplesFolder() / "secure-boot-empty-map.json"), machine, error)) << error;
  EXPECT_TRUE(machine.whole.empty());
  ASSERT_EQ(machine.variables.size(), 1u);
  EXPECT_EQ(machine.variables[0].name, u"SetupMode");

  for (const auto& entry : std::filesystem::directory_iterator(ExamplesFolder())) {
    EXPECT_TRUE(sim::ParseMachine(ReadText(entry.path()), machine, error)) << entry.path() << ": " << error;
  }
}

}  // namespace
