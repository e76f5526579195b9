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

#include "CapsuleService.h"
#include "ConversationService.h"
#include "EcService.h"
#include "OemSecureService.h"
#include "PacketService.h"
#include "OblisWire.h"
#include "Rtc.h"

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

// A region of the external (SPI) map of function 17h, as an offset in the part.
struct ExternalRegion {
  uint8_t type = 0;  // 0 descriptor, 1 BIOS, 2 ME, 3 GbE, 4 platform data, 0x20 Ignition ME
  uint32_t offset = 0;
  uint32_t size = 0;
  uint8_t access = 0;
  bool operator==(const ExternalRegion&) const = default;
};

// What the firmware does with a write into a range it guards.
enum class GuardedWrite : uint8_t {
  Allow,   // writes it: the tool's own block table is the only guard
  Refuse,  // answers 0x25, writes nothing
  Skip,    // answers 0x29, writes nothing
};

struct Fault {
  uint8_t code = 0;
  std::optional<uint32_t> times;  // none: fails every time
  uint32_t after = 0;             // calls answered normally before the first that fails
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
  GuardedWrite protectMode = GuardedWrite::Allow;  // writes into the 12h protection and private lists
  // the ME region (function 14h answers 0x2A over it, 15h as meWrite says)
  bool meLocked = false;
  GuardedWrite meWrite = GuardedWrite::Skip;
  // maps
  std::vector<Region> protection;
  std::vector<Region> privateMap;
  std::vector<Region> whole;
  std::optional<std::vector<ExternalRegion>> external;  // 17h current list; none: from the descriptor
  uint8_t antiTheft = 0;
  std::vector<Variable> variables;
  std::vector<uint8_t> unsupported;            // functions answered 0xEF
  std::map<uint8_t, Fault> faults;             // by function number
  uint32_t verifyFaults = 0;                   // reads right after a write that show the old content
  std::optional<uint32_t> powerCutAfterWrites; // power fails during the write after this many
  // power fails once this many flash operations (block erases, page programs) are done; if the
  // next is a page program, its first powerCutProgrammedBytes bytes take before the power goes
  std::optional<uint32_t> powerCutAfterOperations;
  uint8_t powerCutProgrammedBytes = 0;
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
  RtcSettings rtc;  // the CMOS clock behind ports 0x70 and 0x71
  CapsuleBehaviour capsule;  // function 48h
  ConversationBehaviour conversation;  // functions 19h, 1Bh, 44h and 45h
  EcBehaviour ec;                      // functions 21h and 20h
  std::optional<uint16_t> factoryCopy;  // 49h: the status bits it answers; none: 0xEF
  PacketBehaviour packets;              // functions 41h and 42h: extra data and PFAT packets
  OemSecureBehaviour oemSecure;         // function 4Ch: OEM images in a verify and a flash call
  // raw answers of a broken firmware: by function (10h, 11h, 12h, 13h, 17h, 1Eh), then by the
  // register that points at the buffer ("edi", "esi"), the bytes written there instead
  std::map<uint8_t, std::map<std::string, std::vector<uint8_t>>> answerBytes;
  bool operator==(const Machine&) const = default;
};

Machine DefaultMachine();
// Parses a description; keys left out keep the default machine's values. False with a message
// on a bad key or value.
bool ParseMachine(const std::string& jsonText, Machine& machine, std::string& error);
// Reads a machine file (none: the default machine) and a flash file (none or missing: empty, the
// machine's own content); false with the reason in error if either cannot be read or parsed.
bool LoadMachineAndFlash(const std::string& machineFile, const std::string& flashFile, Machine& machine,
                         std::vector<uint8_t>& flash, std::string& error);

// The flash content of a machine that brings none: an Intel flash descriptor with descriptor,
// ME and BIOS regions, a "$BVDT$" block in the OEM Data region, all else erased (0xFF).
std::vector<uint8_t> DefaultFlashContent(const Machine& machine);
// Empty when the content fits the machine (an empty content stands for the default content),
// otherwise the reason. The Simulator constructor throws std::invalid_argument with this text.
std::string ValidateFlashContent(const Machine& machine, const std::vector<uint8_t>& content);
// The EC content of a machine that brings none: EcSize bytes of 0xFF. ValidateEcContent is empty
// when a content fits the machine's EC (an empty one stands for the default), else the reason.
std::vector<uint8_t> DefaultEcContent(const Machine& machine);
std::string ValidateEcContent(const Machine& machine, const std::vector<uint8_t>& content);
// Reads an EC file (none or missing: empty, the default content); false with the reason in error
// if it cannot be read or does not fit the machine's EC.
bool LoadEcContent(const Machine& machine, const std::string& ecFile, std::vector<uint8_t>& ec, std::string& error);
// Model name and version as the "$BVDT$" block of the content tells them; false without one.
bool ReadBvdtIdentity(const std::vector<uint8_t>& content, std::string& model, std::string& version);

// Where the simulated firmware keeps its tables in the legacy BIOS area.
constexpr uint32_t kLegacyAreaStart = 0xE0000;
constexpr uint32_t kLegacyAreaEnd = 0xFFFFF;  // last byte

// What the flash saw during a run, counted from the transactions.
struct FlashCounters {
  uint32_t comparedEqual = 0;    // erase blocks read by 14h (not as a verify) and not then a 15h target
  uint32_t written = 0;          // 15h calls that programmed the flash
  uint32_t verified = 0;         // 14h reads that lay inside the range the 15h just before wrote
  uint32_t protectedWrites = 0;  // 15h calls refused or skipped for a guarded range or a locked ME
  uint64_t modelledNanoseconds = 0;  // erase, program and read time of the modelled part
  uint32_t erases = 0;          // erase blocks erased
  uint32_t pagePrograms = 0;    // 256-byte pages programmed
  uint64_t bytesRead = 0;       // bytes the part read for 14h
  bool operator==(const FlashCounters&) const = default;
};

// "4096 blocks compared equal, 12 written, 12 verified, 3 protected, modelled time 1.84 s"
std::string SummaryText(const FlashCounters& counters);

// How the simulator reaches the memory that the tool hands it by address.
struct MemoryAccess {
  std::function<bool(uint32_t address, void* out, uint32_t length)> read;
  std::function<bool(uint32_t address, const void* data, uint32_t length)> write;
};

class Simulator {
 public:
  // Throws std::invalid_argument with the text of ValidateFlashContent (or ValidateEcContent) for
  // a content that does not fit the machine.
  Simulator(Machine machine, std::vector<uint8_t> flash, MemoryAccess memory, std::vector<uint8_t> ec = {});
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
  // A copy of the part's content.
  std::vector<uint8_t> Flash() const;
  // The part lives in this file from now on, written through at every erase and program, and
  // no longer in memory; false with the reason when the file cannot take it.
  bool KeepFlashInFile(const std::string& path, std::string& error);
  bool FlashInFile() const;
  // One JSON line per transaction, with the keys fn, in, out, status and, for flash access, flash.
  void SetTrace(std::ostream* out);
  // Function numbers in the order they were called.
  const std::vector<uint8_t>& CallLog() const;
  // What function 16h received last: clear CMOS, action, complete; none if never called.
  std::optional<std::vector<uint8_t>> LastFinish() const;
  // Hook points that function 1Fh received, in order.
  const std::vector<uint32_t>& HookPoints() const;
  // Function 1Ah calls in order: (action from CL, status from CH).
  const std::vector<std::pair<uint8_t, uint8_t>>& UpdateBrackets() const;
  FlashCounters Counters() const;
  // The EC's content.
  const std::vector<uint8_t>& Ec() const;
  // The flash summary, and behind it what the EC and the factory copy restore saw, if anything.
  std::string Summary() const;
  // The CMOS clock: a front end hands it the run's clock, a test reads what the tool wrote.
  Rtc& RealTimeClock();
  // The requests of function 48h that carried an image, in order.
  const std::vector<CapsuleReceived>& Capsules() const;
  // The external map that function 17h gives as the current one.
  std::vector<ExternalRegion> CurrentExternalMap() const;

  // A power cut (power_cut_after_writes, power_cut_after_operations) ends the machine: the transaction that caused it and
  // every later one return their registers untouched and leave no trace line. The handler, if
  // any, runs at the cut; a front end uses it to end the run as a real machine would.
  bool PowerLost() const;
  void SetPowerLossHandler(std::function<void()> handler);

 private:
  struct State;
  State* state_;
};

}  // namespace sim
