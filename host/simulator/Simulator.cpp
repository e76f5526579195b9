// The firmware side of one SMI transaction: who listens on the port, the caller check, the
// machine's faults and unsupported functions, and the answer of each OBLIS function, written
// only through the memory access the tool's side hands in. Also the trace and the port space.
// The machine description, the flash part and the legacy area are built elsewhere.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "FlashService.h"
#include "LegacyArea.h"
#include "Simulator.h"

namespace sim {

namespace {

constexpr char kToolInformationSignature[] = "$VER";
constexpr char kFilterSignature[] = "$CMDFILT";
constexpr char kFinishSignature[] = "$FINISHI";
// The filter record goes right behind the 10h answer, well inside the 0x7C bytes the tool keeps.
constexpr uint32_t kFilterRecordOffset = 0x28;
static_assert(kFilterRecordOffset >= sizeof(OblisPlatformStatusAnswer), "filter record behind the answer");
// How far from its start a buffer with raw answer bytes keeps the function's own writes out:
// the largest answer the tool takes from one buffer.
constexpr uint32_t kReplacedSpan = 0x10000;

// A flash access that a transaction made, for its trace line.
struct FlashAccess {
  const char* op;
  uint32_t address;
  uint32_t length;
};

// What one function answers: status and the registers it sets; everything else in the frame
// stays as the caller loaded it.
struct Answer {
  uint8_t status = kOblisSuccess;
  std::optional<uint8_t> ah;
  std::optional<uint32_t> ecx;
};

// A buffer access that MemoryAccess refused: the function answers kOblisBufferTooSmall.
struct Refused {
  uint32_t address;
  uint32_t length;
};

std::string FunctionName(uint8_t function) {
  char text[8];
  std::snprintf(text, sizeof(text), "%02Xh", function);
  return text;
}

nlohmann::ordered_json Registers(const OblisRegisters& r) {
  return {{"eax", r.eax}, {"ebx", r.ebx}, {"ecx", r.ecx}, {"edx", r.edx}, {"esi", r.esi}, {"edi", r.edi}};
}

// One list of external records at offset in the answer: at most five, ended by type 0xFF when
// there are fewer.
void PutExternalList(std::vector<uint8_t>& answer, uint32_t offset, const std::vector<ExternalRegion>& regions) {
  std::vector<OblisExternalRecord> records;
  for (const ExternalRegion& r : regions) {
    if (records.size() == kExternalListLimit) break;
    records.push_back({r.type, r.offset, r.size, r.access});
  }
  if (records.size() < kExternalListLimit) records.push_back({0xFF, 0, 0, 0});
  std::memcpy(answer.data() + offset, records.data(), records.size() * sizeof(OblisExternalRecord));
}

}  // namespace

struct Simulator::State {
  Machine machine;
  FlashService flash;
  MemoryAccess memory;
  LegacyArea legacy;
  std::map<uint16_t, uint8_t> ports;  // bytes of ports with a value behind them; all others read 0xFF
  Rtc rtc;                            // ports 0x70 and 0x71
  std::map<uint8_t, uint32_t> faultsFired;
  std::map<uint8_t, uint32_t> faultCalls;  // calls of each function with a fault, fired or not
  std::vector<uint8_t> callLog;
  std::optional<std::vector<uint8_t>> lastFinish;
  std::vector<uint32_t> hookPoints;
  std::vector<std::pair<uint8_t, uint8_t>> brackets;  // 1Ah: (action, status)
  std::vector<CapsuleReceived> capsules;             // 48h requests with an image
  std::function<void()> powerLossHandler;
  std::ostream* trace = nullptr;
  std::optional<FlashAccess> flashAccess;  // set by a function that touches the flash
  bool capsuleReceived = false;            // set by a 48h that took an image, for its trace line
  ConversationState conversationState;
  EcService ec;
  PacketService packets;
  std::vector<uint32_t> replaced;  // buffers of this transaction that get raw answer bytes
  nlohmann::ordered_json received;  // what 19h, 1Bh, 20h, 21h, 41h, 42h, 44h, 45h, 49h or 4Ch read, for its trace line

  State(Machine m, std::vector<uint8_t> content, MemoryAccess access, std::vector<uint8_t> ecContent)
      : machine(std::move(m)), flash(machine, std::move(content)), memory(std::move(access)),
        legacy(BuildLegacyArea(machine)), rtc(machine.rtc), ec(machine.ec, std::move(ecContent)),
        packets(machine.packets) {
    for (const IoPortValue& port : machine.ioPorts) {
      for (uint32_t i = 0; i < port.width; ++i) ports[static_cast<uint16_t>(port.port + i)] = static_cast<uint8_t>(port.value >> (8 * i));
    }
  }

  // Buffer access on the tool's memory; a refusal ends the function with status 0x02.
  void Read(uint32_t address, void* out, uint32_t length) {
    if (!memory.read || !memory.read(address, out, length)) throw Refused{address, length};
  }
  void Write(uint32_t address, const void* data, uint32_t length) {
    for (uint32_t start : replaced) {
      if (address - start < kReplacedSpan) return;  // a raw answer takes this buffer's place
    }
    if (!memory.write || !memory.write(address, data, length)) throw Refused{address, length};
  }
  template <typename Record>
  void WriteRecords(uint32_t address, const std::vector<Record>& records) {
    if (!records.empty()) Write(address, records.data(), static_cast<uint32_t>(records.size() * sizeof(Record)));
  }

  Answer Dispatch(uint8_t function, const OblisRegisters& in);
  Answer DispatchWithRawAnswers(uint8_t function, const OblisRegisters& in);
  Answer PlatformStatus(const OblisRegisters& in);
  Answer PlatformInformation(const OblisRegisters& in);
  Answer RomMaps(const OblisRegisters& in);
  Answer FlashPartInformation(const OblisRegisters& in);
  Answer Finish(const OblisRegisters& in);
  Answer WholeRomMap(const OblisRegisters& in);
  Answer ReadFlash(const OblisRegisters& in);
  Answer WriteFlash(const OblisRegisters& in);
  Answer ExternalMaps(const OblisRegisters& in);
  Answer Capsule(const OblisRegisters& in);
  Answer EcFunction(uint8_t function, const OblisRegisters& in);
  Answer PacketFunction(uint8_t function, const OblisRegisters& in);
  bool FaultFires(uint8_t function, uint8_t& code);
  void Trace(uint8_t function, const OblisRegisters& in, const OblisRegisters& out);
};

Answer Simulator::State::PlatformStatus(const OblisRegisters& in) {
  OblisToolInformation tool{};
  Read(in.edi, &tool, sizeof(tool));
  if (std::memcmp(tool.signature, kToolInformationSignature, 4) != 0 ||
      std::memcmp(tool.oblisSignature, "$OBLIS", 6) != 0 || tool.end != 0xFF) {
    // A caller that does not introduce itself properly is not served.
    std::cerr << "oblis-sim: 10h: the buffer at 0x" << std::hex << in.edi << std::dec
              << " holds no valid $VER tool information block\n";
    return {kOblisAccessProhibited, {}, {}};
  }
  OblisPlatformStatusAnswer answer{};
  answer.ac = machine.ac;
  answer.dc = machine.dc;
  answer.bound = machine.bound;
  answer.vendorId = machine.vendorId;
  answer.structSize = sizeof(OblisPlatformStatusAnswer);
  Write(in.edi, &answer, sizeof(answer));
  if (machine.filter) {
    // The whole record is written even when it runs past what the tool keeps: the tool has to
    // cope with that.
    std::vector<uint8_t> record(kFilterSignature, kFilterSignature + 8);
    const uint32_t length = static_cast<uint32_t>(12 + machine.filter->size());
    for (int i = 0; i < 4; ++i) record.push_back(static_cast<uint8_t>(length >> (8 * i)));
    record.insert(record.end(), machine.filter->begin(), machine.filter->end());
    Write(in.edi + kFilterRecordOffset, record.data(), static_cast<uint32_t>(record.size()));
  }
  return {kOblisSuccess, machine.permission, static_cast<uint32_t>(machine.major << 8 | machine.minor)};
}

Answer Simulator::State::PlatformInformation(const OblisRegisters& in) {
  std::u16string name = machine.modelName;
  std::u16string version = machine.modelVersion;
  if (name.empty() || version.empty()) {
    // The identity the firmware reports is the one in its own flash, so it follows updates.
    std::string model, text;
    if (flash.Part().Identity(model, text)) {
      if (name.empty()) name.assign(model.begin(), model.end());
      if (version.empty()) version.assign(text.begin(), text.end());
    }
  }
  std::vector<uint8_t> fields(kModelVersionOffset + kModelVersionBytes, 0);
  std::memcpy(fields.data() + kModelNameOffset, name.data(), std::min<size_t>(name.size() * 2, kModelNameBytes));
  std::memcpy(fields.data() + kModelVersionOffset, version.data(),
              std::min<size_t>(version.size() * 2, kModelVersionBytes - 1));
  Write(in.edi, fields.data(), static_cast<uint32_t>(fields.size()));
  return {kOblisSuccess, machine.policy, machine.extended};
}

Answer Simulator::State::RomMaps(const OblisRegisters& in) {
  std::vector<OblisProtectionRecord> protection;
  for (const Region& r : machine.protection) protection.push_back({r.type, r.address, r.size});
  protection.push_back({kProtectionListEnd, 0, 0});
  std::vector<OblisPrivateRecord> privateList;
  for (const Region& r : machine.privateMap) privateList.push_back({r.address, r.size});
  privateList.push_back({kPrivateListEnd, 0});
  WriteRecords(in.edi, protection);
  WriteRecords(in.esi, privateList);
  return {};
}

Answer Simulator::State::FlashPartInformation(const OblisRegisters& in) {
  OblisFlashPartRecord part{};
  part.sizeIndex = machine.sizeIndex;
  std::memcpy(part.vendor, machine.flashVendor.data(), std::min(machine.flashVendor.size(), sizeof(part.vendor)));
  std::memcpy(part.type, machine.flashType.data(), std::min(machine.flashType.size(), sizeof(part.type)));
  part.deviceId = machine.deviceId;
  part.sizeSpecified = machine.flashSize;
  std::vector<OblisBlockMapEntry> map;
  for (const auto& [size, count] : machine.blocks) {
    map.push_back({static_cast<UINT16>(size / 256), static_cast<UINT16>(count)});
  }
  map.push_back({0, 0});
  Write(in.edi, &part, sizeof(part));
  WriteRecords(in.esi, map);
  return {};
}

Answer Simulator::State::Finish(const OblisRegisters& in) {
  OblisFinishRecord record{};
  Read(in.esi, &record, sizeof(record));
  if (std::memcmp(record.signature, kFinishSignature, 8) != 0 || record.length != sizeof(record)) {
    std::cerr << "oblis-sim: 16h: the buffer at 0x" << std::hex << in.esi << std::dec
              << " holds no valid $FINISHI record\n";
    return {kOblisAccessProhibited, {}, {}};
  }
  const uint8_t clearCmos = static_cast<uint8_t>(in.ecx >> 8);
  const uint8_t action = static_cast<uint8_t>(in.ecx);
  lastFinish = std::vector<uint8_t>{clearCmos, action, record.complete};
  return {};
}

Answer Simulator::State::WholeRomMap(const OblisRegisters& in) {
  std::vector<OblisWholeMapRecord> records;
  for (const Region& r : machine.whole) records.push_back({r.type, r.address, r.size, r.attribute});
  records.push_back({0xFF, 0, 0, 0});
  WriteRecords(in.edi, records);
  return {};
}

Answer Simulator::State::ReadFlash(const OblisRegisters& in) {
  flashAccess = FlashAccess{"read", in.edi, in.ecx};
  std::vector<uint8_t> bytes;
  const uint8_t status = flash.Read(in.edi, in.ecx, bytes);
  if (status == kOblisSuccess || status == kOblisLockedMe) {
    if (!bytes.empty()) Write(in.esi, bytes.data(), static_cast<uint32_t>(bytes.size()));
  }
  return {status, {}, {}};
}

Answer Simulator::State::WriteFlash(const OblisRegisters& in) {
  flashAccess = FlashAccess{"write", in.edi, in.ecx};
  // The data is fetched whole before anything is erased, as the firmware copies it into SMRAM.
  std::vector<uint8_t> data(in.ecx);
  if (!data.empty()) Read(in.esi, data.data(), in.ecx);
  return {flash.Write(in.edi, data), {}, {}};
}

Answer Simulator::State::ExternalMaps(const OblisRegisters& in) {
  if (in.ecx < kExternalMapBytes) return {kOblisBufferTooSmall, {}, {}};
  std::vector<uint8_t> image(kExternalMapBytes);
  Read(in.esi, image.data(), kExternalMapBytes);
  std::vector<uint8_t> answer(kExternalMapBytes, 0);
  PutExternalList(answer, 0, flash.CurrentRegions());
  PutExternalList(answer, kExternalNewListOffset, RegionsFromDescriptor(image.data(), image.size()));
  Write(in.edi, answer.data(), kExternalMapBytes);
  return {};
}

Answer Simulator::State::Capsule(const OblisRegisters& in) {
  const size_t before = capsules.size();
  const CapsuleAnswer answer = AnswerCapsule(
      machine.capsule, in, [this](uint32_t address, void* out, uint32_t length) { Read(address, out, length); },
      [this](uint32_t address, const void* data, uint32_t length) { Write(address, data, length); }, capsules);
  capsuleReceived = capsules.size() != before;
  if (!answer.cl) return {answer.status, {}, {}};
  return {answer.status, {}, (in.ecx & 0xFFFFFF00u) | *answer.cl};
}

Answer Simulator::State::EcFunction(uint8_t function, const OblisRegisters& in) {
  const EcRead read = [this](uint32_t address, void* out, uint32_t length) { Read(address, out, length); };
  const EcWrite write = [this](uint32_t address, const void* data, uint32_t length) { Write(address, data, length); };
  EcAnswer answer = function == 0x21   ? ec.Size(in, read, write)
                    : function == 0x20 ? ec.Block(in, read)
                                       : ec.FactoryCopy(machine.factoryCopy, in, read, write);
  received = std::move(answer.received);
  if (!answer.cl) return {answer.status, {}, {}};
  return {answer.status, {}, (in.ecx & 0xFFFFFF00u) | *answer.cl};
}

Answer Simulator::State::PacketFunction(uint8_t function, const OblisRegisters& in) {
  const PacketRead read = [this](uint32_t address, void* out, uint32_t length) { Read(address, out, length); };
  PacketAnswer answer;
  if (function == 0x41) {
    answer = packets.Announce(in, read,
                              [this](uint32_t address, const void* data, uint32_t length) { Write(address, data, length); });
  } else {
    // A packet goes to the flash only through the flash driver, as a block write would.
    const PacketFlash toFlash = [this](uint32_t address, const std::vector<uint8_t>& data) {
      flashAccess = FlashAccess{"write", address, static_cast<uint32_t>(data.size())};
      return flash.Write(address, data);
    };
    const PacketGuard guarded = [this](uint32_t address, uint32_t length) {
      for (const Region& r : machine.protection) {
        if (address < uint64_t{r.address} + r.size && r.address < uint64_t{address} + length) return true;
      }
      return false;
    };
    answer = packets.Piece(in, read, toFlash, guarded);
  }
  received = std::move(answer.received);
  return {answer.status, {}, {}};
}

Answer Simulator::State::Dispatch(uint8_t function, const OblisRegisters& in) {
  switch (function) {
    case 0x10: return PlatformStatus(in);
    case 0x11: return PlatformInformation(in);
    case 0x12: return RomMaps(in);
    case 0x13: return FlashPartInformation(in);
    case 0x14: return ReadFlash(in);
    case 0x15: return WriteFlash(in);
    case 0x16: return Finish(in);
    case 0x17: return ExternalMaps(in);
    case 0x1A:
      brackets.push_back({static_cast<uint8_t>(in.ecx), static_cast<uint8_t>(in.ecx >> 8)});
      return {};
    case 0x1C: return {kOblisSuccess, {}, machine.antiTheft};  // the state byte in CL
    case 0x1E: return WholeRomMap(in);
    case 0x1F:
      hookPoints.push_back(in.ecx);
      return {};
    case 0x48: return Capsule(in);
    case 0x4C: {
      std::vector<Region> kept = machine.protection;
      kept.insert(kept.end(), machine.privateMap.begin(), machine.privateMap.end());
      OemSecureAnswer answer = AnswerOemSecure(
          machine.oemSecure, in, [this](uint32_t address, void* out, uint32_t length) { Read(address, out, length); }, flash,
          kept);
      received = std::move(answer.received);
      if (!answer.cl) return {answer.status, {}, {}};
      return {answer.status, answer.ah, (in.ecx & 0xFFFFFF00u) | *answer.cl};
    }
    case 0x20:
    case 0x21:
    case 0x49: return EcFunction(function, in);
    case 0x41:
    case 0x42: return PacketFunction(function, in);
    case 0x19:
    case 0x1B:
    case 0x44:
    case 0x45: {
      ConversationAnswer answer = AnswerConversation(
          machine.conversation, conversationState, function, in,
          [this](uint32_t address, void* out, uint32_t length) { Read(address, out, length); },
          [this](uint32_t address, const void* data, uint32_t length) { Write(address, data, length); });
      received = std::move(answer.received);
      return {answer.status, {}, {}};
    }
    default: return {kOblisUnsupported, {}, {}};
  }
}

// The function runs as usual (its checks, its registers), but what it would write into a buffer
// with raw answer bytes is dropped and the raw bytes go there instead. 17h gives the buffer's
// size in ECX and gets no more than that.
Answer Simulator::State::DispatchWithRawAnswers(uint8_t function, const OblisRegisters& in) {
  const auto raw = machine.answerBytes.find(function);
  if (raw == machine.answerBytes.end()) return Dispatch(function, in);
  for (const auto& [reg, bytes] : raw->second) replaced.push_back(reg == "edi" ? in.edi : in.esi);
  const Answer answer = Dispatch(function, in);
  replaced.clear();
  if (answer.status != kOblisSuccess) return answer;
  for (const auto& [reg, bytes] : raw->second) {
    const uint32_t length = static_cast<uint32_t>(function == 0x17 ? std::min<size_t>(bytes.size(), in.ecx) : bytes.size());
    if (length != 0) Write(reg == "edi" ? in.edi : in.esi, bytes.data(), length);
  }
  return answer;
}

bool Simulator::State::FaultFires(uint8_t function, uint8_t& code) {
  auto fault = machine.faults.find(function);
  if (fault == machine.faults.end()) return false;
  if (++faultCalls[function] <= fault->second.after) return false;
  uint32_t& fired = faultsFired[function];
  if (fault->second.times && fired >= *fault->second.times) return false;
  ++fired;
  code = fault->second.code;
  return true;
}

void Simulator::State::Trace(uint8_t function, const OblisRegisters& in, const OblisRegisters& out) {
  if (!trace) return;
  nlohmann::ordered_json line = {{"fn", FunctionName(function)},
                                 {"in", Registers(in)},
                                 {"out", Registers(out)},
                                 {"status", out.eax & 0xFF}};
  if (flashAccess) {
    line["flash"] = {{"op", flashAccess->op}, {"address", flashAccess->address}, {"length", flashAccess->length}};
  }
  if (!received.is_null()) line["received"] = received;
  if (capsuleReceived) {
    const CapsuleReceived& capsule = capsules.back();
    line["capsule"] = {{"size", capsule.size},
                       {"via_esp", capsule.viaEsp},
                       {"addresses", capsule.blockAddresses},
                       {"lengths", capsule.blockLengths},
                       {"image_fnv1a", Fnv1a(capsule.image)}};
  }
  *trace << line.dump() << "\n";
  trace->flush();
}

Simulator::Simulator(Machine machine, std::vector<uint8_t> flash, MemoryAccess memory, std::vector<uint8_t> ec)
    : state_(nullptr) {
  std::string problem = ValidateFlashContent(machine, flash);
  if (problem.empty()) problem = ValidateEcContent(machine, ec);
  if (!problem.empty()) throw std::invalid_argument(problem);
  if (flash.empty()) flash = DefaultFlashContent(machine);
  if (ec.empty()) ec = DefaultEcContent(machine);
  state_ = new State(std::move(machine), std::move(flash), std::move(memory), std::move(ec));
}

Simulator::~Simulator() { delete state_; }

void Simulator::Transact(OblisRegisters& frame) {
  State& s = *state_;
  if (s.flash.PowerLost()) return;  // a machine without power answers nothing
  // Nobody listens on another port or to another number: the write goes nowhere.
  if ((frame.edx & 0xFFFF) != s.machine.smiCmdPort || (frame.eax & 0xFF) != s.machine.smiNumber) return;
  const OblisRegisters in = frame;
  const uint8_t function = static_cast<uint8_t>(frame.eax >> 8);
  s.callLog.push_back(function);
  s.flashAccess.reset();
  s.capsuleReceived = false;
  s.received = nullptr;
  s.replaced.clear();
  Answer answer;
  uint8_t faultCode = 0;
  if (frame.ebx != kOblisCallerSignature) {
    answer.status = kOblisAccessProhibited;
  } else if (std::find(s.machine.unsupported.begin(), s.machine.unsupported.end(), function) !=
             s.machine.unsupported.end()) {
    answer.status = kOblisUnsupported;
  } else if (s.FaultFires(function, faultCode)) {
    answer.status = faultCode;
  } else {
    try {
      answer = s.DispatchWithRawAnswers(function, in);
    } catch (const Refused& refused) {
      std::cerr << "oblis-sim: " << FunctionName(function) << ": refused access to " << refused.length
                << " bytes at 0x" << std::hex << refused.address << std::dec << "\n";
      answer = {kOblisBufferTooSmall, {}, {}};
    }
  }
  if (s.flash.PowerLost()) {
    // The handler never finished: the registers stay as the tool loaded them, and no trace
    // line tells of an answer that never came.
    frame = in;
    if (s.trace) s.trace->flush();
    if (s.powerLossHandler) s.powerLossHandler();
    return;
  }
  frame.eax = (frame.eax & 0xFFFF0000u) | (static_cast<uint32_t>(answer.ah.value_or(function)) << 8) | answer.status;
  if (answer.ecx) frame.ecx = *answer.ecx;
  s.Trace(function, in, frame);
}

uint32_t Simulator::IoRead(uint16_t port, int width) {
  uint32_t value = 0;
  for (int i = 0; i < width && i < 4; ++i) {
    if (Rtc::Owns(static_cast<uint16_t>(port + i))) {
      value |= static_cast<uint32_t>(state_->rtc.Read(static_cast<uint16_t>(port + i))) << (8 * i);
      continue;
    }
    auto known = state_->ports.find(static_cast<uint16_t>(port + i));
    const uint8_t byte = known == state_->ports.end() ? 0xFF : known->second;
    value |= static_cast<uint32_t>(byte) << (8 * i);
  }
  return value;
}

void Simulator::IoWrite8(uint16_t port, uint8_t value) {
  if (Rtc::Owns(port)) {
    state_->rtc.Write(port, value);
    return;
  }
  // Other ports keep what is written only where the machine put a value behind them.
  auto known = state_->ports.find(port);
  if (known != state_->ports.end()) known->second = value;
}

uint32_t Simulator::PciRead(uint8_t bus, uint8_t device, uint8_t function, uint8_t offset) const {
  const uint8_t aligned = static_cast<uint8_t>(offset & ~3u);
  for (const PciRegister& r : state_->machine.pci) {
    if (r.bus == bus && r.device == device && r.function == function && r.offset == aligned) return r.value;
  }
  return 0xFFFFFFFFu;
}

bool Simulator::ReadPhysical(uint32_t address, void* out, uint32_t length) const {
  const uint64_t end = static_cast<uint64_t>(address) + length;
  if (address >= kLegacyAreaStart && end <= uint64_t(kLegacyAreaEnd) + 1) {
    ReadLegacyArea(state_->legacy, address, out, length);
    return true;
  }
  // A read must lie within one described range; the gaps between them are not memory.
  for (const MemoryRange& range : state_->machine.memory) {
    if (address >= range.address && end <= uint64_t{range.address} + range.bytes.size()) {
      if (length > 0) std::memcpy(out, range.bytes.data() + (address - range.address), length);
      return true;
    }
  }
  return state_->flash.Part().Read(address, out, length);
}

uint32_t Simulator::OblisSignatureAddress() const { return state_->legacy.oblis; }
uint32_t Simulator::Acpi10Rsdp() const { return state_->legacy.rsdp10; }
uint32_t Simulator::Acpi20Rsdp() const { return state_->legacy.rsdp20; }
const Machine& Simulator::machine() const { return state_->machine; }
std::vector<uint8_t> Simulator::Flash() const { return state_->flash.Part().Content(); }
bool Simulator::KeepFlashInFile(const std::string& path, std::string& error) {
  return state_->flash.KeepPartInFile(path, error);
}
bool Simulator::FlashInFile() const { return state_->flash.Part().InFile(); }
void Simulator::SetTrace(std::ostream* out) { state_->trace = out; }
const std::vector<uint8_t>& Simulator::CallLog() const { return state_->callLog; }
std::optional<std::vector<uint8_t>> Simulator::LastFinish() const { return state_->lastFinish; }
const std::vector<uint32_t>& Simulator::HookPoints() const { return state_->hookPoints; }
const std::vector<std::pair<uint8_t, uint8_t>>& Simulator::UpdateBrackets() const { return state_->brackets; }
const std::vector<CapsuleReceived>& Simulator::Capsules() const { return state_->capsules; }
FlashCounters Simulator::Counters() const { return state_->flash.Counters(); }
const std::vector<uint8_t>& Simulator::Ec() const { return state_->ec.Content(); }

std::string Simulator::Summary() const {
  std::string text = SummaryText(Counters());
  const EcCounters& ec = state_->ec.Counters();
  // A run that never reached the EC or the factory copy reads as it always has.
  if (ec.received != 0) {
    text += "; EC: " + std::to_string(ec.received) + " blocks received, " + std::to_string(ec.written) + " written";
    if (ec.finishAction == 1) text += ", finish action reboot";
    if (ec.finishAction == 5) text += ", finish action shutdown";
  }
  if (ec.factoryCopyStatus) {
    char bits[8];
    std::snprintf(bits, sizeof(bits), "%04X", *ec.factoryCopyStatus);
    text += std::string("; factory copy restore answered 0x") + bits;
  }
  return text;
}
Rtc& Simulator::RealTimeClock() { return state_->rtc; }
std::vector<ExternalRegion> Simulator::CurrentExternalMap() const { return state_->flash.CurrentRegions(); }
bool Simulator::PowerLost() const { return state_->flash.PowerLost(); }
void Simulator::SetPowerLossHandler(std::function<void()> handler) { state_->powerLossHandler = std::move(handler); }

}  // namespace sim
