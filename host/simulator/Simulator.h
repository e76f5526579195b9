// The firmware side of OBLIS on the host: a simulated machine described in JSON, answering
// SMI transactions over a modelled SPI NOR flash, with the legacy BIOS area and ACPI tables in
// its own physical memory map. It never includes driver headers except the wire records.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "OblisWire.h"

namespace sim {

struct Region {
  uint8_t type = 0;
  uint32_t address = 0;
  uint32_t size = 0;
  uint32_t attribute = 0;
  bool operator==(const Region&) const = default;
};

// An extra volume of the machine: a host directory (relative to the machine file) and the
// kind of device path its handle carries: "usb", "sata", "emmc" or "other".
struct VolumeDescription {
  std::string path;
  std::string kind;
  bool operator==(const VolumeDescription&) const = default;
};

struct Fault {
  uint8_t code = 0;
  std::optional<uint32_t> times;  // none: fails every time
  bool operator==(const Fault&) const = default;
};

// A value behind an I/O port: width bytes from port on, little-endian.
struct IoPortValue {
  uint16_t port = 0;
  uint32_t value = 0;
  uint8_t width = 1;  // 1, 2 or 4
  bool operator==(const IoPortValue&) const = default;
};

// One 32-bit PCI configuration register; offset is a multiple of 4.
struct PciRegister {
  uint8_t bus = 0;
  uint8_t device = 0;    // 0 to 0x1F
  uint8_t function = 0;  // 0 to 7
  uint8_t offset = 0;
  uint32_t value = 0;
  bool operator==(const PciRegister&) const = default;
};

// Bytes of physical memory that the machine's rules may read.
struct MemoryRange {
  uint32_t address = 0;
  std::vector<uint8_t> bytes;
  bool operator==(const MemoryRange&) const = default;
};

struct Variable {
  std::u16string name;
  EFI_GUID guid{};
  uint32_t attributes = 0;
  std::vector<uint8_t> data;
  bool operator==(const Variable& other) const;
};

// The machine description. Every field has the default machine's value unless the JSON sets it.
struct Machine {
  // status (function 10h)
  uint8_t permission = 1;
  uint8_t ac = 1;
  uint8_t dc = 100;
  uint8_t bound = 20;
  uint16_t vendorId = 0x1656;
  uint8_t major = 2;
  uint8_t minor = 8;
  std::optional<std::vector<uint8_t>> filter;  // "$CMDFILT" entries, none: no record
  // information (function 11h); empty name/version: read from the BVDT block of the flash
  std::u16string modelName;
  std::u16string modelVersion;
  uint8_t policy = 0;     // AH
  uint32_t extended = 0;  // ECX
  // flash part (function 13h)
  uint32_t flashSize = 16u << 20;
  uint8_t sizeIndex = 8;
  std::string flashVendor = "Winbond";
  std::string flashType = "W25Q128JV";
  uint32_t deviceId = 0xEF4018;
  std::vector<std::pair<uint32_t, uint32_t>> blocks = {{0x1000, 0x1000}};  // (size, count)
  // maps
  std::vector<Region> protection;
  std::vector<Region> privateMap;
  std::vector<Region> whole;
  uint8_t antiTheft = 0;
  std::vector<Variable> variables;
  std::vector<uint8_t> unsupported;            // functions answered 0xEF
  std::map<uint8_t, Fault> faults;             // by function number
  uint16_t smiCmdPort = 0xB2;
  std::string dsdtOemId = "DOVRIN";
  bool acpi10 = true;
  bool acpi20 = true;
  bool oblisSignature = true;
  uint8_t smiNumber = 0xDF;
  std::vector<VolumeDescription> volumes;  // behind the tool's own volume, in handle order
  // what the platform answers beyond OBLIS: port input, PCI configuration, physical memory
  std::vector<IoPortValue> ioPorts;
  std::vector<PciRegister> pci;
  std::vector<MemoryRange> memory;
  bool operator==(const Machine&) const = default;
};

Machine DefaultMachine();
// Parses a description; keys left out keep the default machine's values. False with a message
// on a bad key or value.
bool ParseMachine(const std::string& jsonText, Machine& machine, std::string& error);

// The flash content of a machine that brings none: an Intel flash descriptor with descriptor,
// ME and BIOS regions, a "$BVDT$" block in the OEM Data region, all else erased (0xFF).
std::vector<uint8_t> DefaultFlashContent(const Machine& machine);
// Empty when the content fits the machine (an empty content stands for the default content),
// otherwise the reason. The Simulator constructor throws std::invalid_argument with this text.
std::string ValidateFlashContent(const Machine& machine, const std::vector<uint8_t>& content);
// Model name and version as the "$BVDT$" block of the content tells them; false without one.
bool ReadBvdtIdentity(const std::vector<uint8_t>& content, std::string& model, std::string& version);

// Where the simulated firmware keeps its tables in the legacy BIOS area.
constexpr uint32_t kLegacyAreaStart = 0xE0000;
constexpr uint32_t kLegacyAreaEnd = 0xFFFFF;  // last byte

// How the simulator reaches the memory that the tool hands it by address.
struct MemoryAccess {
  std::function<bool(uint32_t address, void* out, uint32_t length)> read;
  std::function<bool(uint32_t address, const void* data, uint32_t length)> write;
};

class Simulator {
 public:
  // Throws std::invalid_argument with the text of ValidateFlashContent for a content that does
  // not fit the machine.
  Simulator(Machine machine, std::vector<uint8_t> flash, MemoryAccess memory);
  ~Simulator();
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  // One SMI transaction: the port write of AL to DX with the registers of frame.
  void Transact(OblisRegisters& frame);
  // Port input of width bytes (1, 2 or 4), little-endian; ports with nothing behind them read 0xFF.
  uint32_t IoRead(uint16_t port, int width);
  // The 32-bit configuration register that holds offset (offset rounded down to a multiple of
  // 4); a register the machine does not list reads 0xFFFFFFFF, as on a bus with nothing there.
  uint32_t PciRead(uint8_t bus, uint8_t device, uint8_t function, uint8_t offset) const;
  void IoWrite8(uint16_t port, uint8_t value);
  // The legacy BIOS area 0xE0000-0xFFFFF, the machine's memory ranges and the flash part mapped
  // below 4 GB; false for any range that leaves known memory.
  bool ReadPhysical(uint32_t address, void* out, uint32_t length) const;
  // Address of the "$OBLIS" signature in the legacy area (0 when the machine has none).
  uint32_t OblisSignatureAddress() const;

  // Physical addresses of the RSDP for the configuration table (0 when the machine has none).
  uint32_t Acpi10Rsdp() const;
  uint32_t Acpi20Rsdp() const;

  const Machine& machine() const;
  const std::vector<uint8_t>& Flash() const;
  // One JSON line per transaction, with the keys fn, in, out, status and, for flash access, flash.
  void SetTrace(std::ostream* out);
  // Function numbers in the order they were called.
  const std::vector<uint8_t>& CallLog() const;
  // What function 16h received last: clear CMOS, action, complete; none if never called.
  std::optional<std::vector<uint8_t>> LastFinish() const;
  // Hook points that function 1Fh received, in order.
  const std::vector<uint32_t>& HookPoints() const;

 private:
  struct State;
  State* state_;
};

}  // namespace sim
