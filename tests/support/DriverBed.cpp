// The driver test bed: one environment, one firmware and one driver state per test.
#include "support/DriverBed.h"

#include <stdlib.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "config/ConfigInternal.h"
#include "frame/Frame.h"
#include "output/Output.h"
#include "simulator/Simulator.h"

namespace bed {

namespace {

constexpr uint32_t kSignatureSlot = 0xF0000;
constexpr uint8_t kScriptedSmiNumber = 0xDF;
constexpr uint16_t kCommandPort = 0xB2;
constexpr uint32_t kRsdp20 = 0xF2100;
constexpr uint32_t kRsdt = 0x7E00000;
constexpr uint32_t kFacp = 0x7E01000;
constexpr uint32_t kDsdt = 0x7E03000;
constexpr const char* kLogSettings = "[Log_file]\nFlag=1\nLevel=4\n[Others]\nSMIErrorRetryDelay=1\n";

void PutU32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
  if (b.size() < at + 4) b.resize(at + 4);
  for (int i = 0; i < 4; i++) b[at + i] = (uint8_t)(v >> (8 * i));
}

void AddTable(emu::Options& options, const EFI_GUID& guid, uint32_t address) {
  if (address == 0) return;
  EFI_CONFIGURATION_TABLE entry{};
  entry.VendorGuid = guid;
  entry.VendorTable = reinterpret_cast<VOID*>(static_cast<uintptr_t>(address));
  options.configurationTables.push_back(entry);
}

std::string ReadHostFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

size_t CountOf(const std::string& text, const std::string& line) {
  size_t count = 0;
  for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + line.size())) ++count;
  return count;
}

void DriverBed::Install(const BedSetup& setup) {
  Uninstall();
  ResetDriverState();
  char pattern[] = "/tmp/zaprom-bed-XXXXXX";
  root_ = mkdtemp(pattern);
  emu::Options options;
  for (size_t i = 0; i < setup.volumes.size(); i++) {
    fs::path directory = root_ / ("volume" + std::to_string(i));
    fs::create_directories(directory);
    volumes_.push_back(directory);
    options.volumes.push_back({directory.string(), setup.volumes[i]});
  }
  options.keys = setup.keys;
  options.clockStart = setup.clock;
  console_ = std::fopen("/dev/null", "w");
  options.consoleOut = console_;

  emu::PlatformBackend backend;
  backend.smi = [this](OblisRegisters& frame) {
    smiCalls.push_back(frame);
    auto found = answers.find(FunctionOf(frame));
    if (found != answers.end()) {
      Answer(frame, 0, 0);
      found->second(frame);
    } else if (simulator_) {
      simulator_->Transact(frame);
    } else {
      Answer(frame, 0, 0);
    }
  };
  backend.ioRead = [this](uint16_t port, int width) {
    ioWidths.push_back(width);
    return simulator_ ? simulator_->IoRead(port, width) : 0xFFFFFFFFu;
  };
  backend.ioWrite8 = [this](uint16_t port, uint8_t value) {
    if (simulator_) simulator_->IoWrite8(port, value);
  };
  backend.readPhysical = [this](uint32_t address, void* out, uint32_t length) {
    physicalReads.push_back({address, length});
    if (simulator_) return simulator_->ReadPhysical(address, out, length);
    uint8_t* bytes = static_cast<uint8_t*>(out);
    for (uint32_t i = 0; i < length; i++) bytes[i] = ReadScripted(address + i);
    return true;
  };

  if (setup.firmware == Firmware::Simulated) {
    sim::Machine machine;
    std::string error;
    if (!setup.machineJson.empty()) {
      EXPECT_TRUE(sim::ParseMachine(setup.machineJson, machine, error)) << error;
    }
    sim::MemoryAccess memory;
    memory.read = [this](uint32_t address, void* out, uint32_t length) {
      if (!environment_ || !environment_->ContainsAddress(address, length)) return false;
      std::memcpy(out, At(address), length);
      return true;
    };
    memory.write = [this](uint32_t address, const void* data, uint32_t length) {
      if (!environment_ || !environment_->ContainsAddress(address, length)) return false;
      std::memcpy(At(address), data, length);
      return true;
    };
    simulator_ = std::make_unique<sim::Simulator>(machine, std::vector<uint8_t>{}, memory);
    AddTable(options, kAcpi10TableGuid, simulator_->Acpi10Rsdp());
    AddTable(options, kAcpi20TableGuid, simulator_->Acpi20Rsdp());
    if (setup.rootBridge) {
      options.pciRead = [this](uint8_t bus, uint8_t device, uint8_t function, uint8_t offset) {
        ++pciReads;
        return simulator_->PciRead(bus, device, function, offset);
      };
    }
  } else {
    PlaceDefaultPlatform(options);
  }
  emu::SetPlatformBackend(backend);
  environment_ = std::make_unique<emu::Environment>(options);
  if (setup.recordConsole) RecordConsole();
  SetFirmwareTables(nullptr, environment_->SystemTable());
  InitialIniStructure();
  if (setup.log) {
    // The settings' own trace is the bed's, not the test's.
    LoadSettings(kLogSettings);
    smiCalls.clear();
    std::error_code ignored;
    if (!volumes_.empty()) fs::remove(volumes_[0] / "ZAPROM.Log", ignored);
  }
}

void DriverBed::Uninstall() {
  if (environment_) {
    // Whatever the test did, the driver must be able to hand back all it took, as its unload
    // does, and must not have written past a block.
    FreeResource();
    ReleaseDriverMemory();
    for (const emu::LiveBlock& block : environment_->LiveBlocks())
      ADD_FAILURE() << "a block of " << block.size << " bytes (allocation " << block.serial << ") was never freed: "
                    << block.content;
    EXPECT_EQ(environment_->PoolOverruns(), 0u) << "a pool block was written past its end";
    EXPECT_EQ(environment_->BadFrees(), 0u) << "FreePool of something that is no pool block";
  }
  ResetDriverState();
  environment_.reset();
  emu::SetPlatformBackend({});
  simulator_.reset();
  if (console_ != nullptr) std::fclose(console_);
  console_ = nullptr;
  if (!root_.empty()) {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  root_.clear();
  volumes_.clear();
  memory_.clear();
  smiCalls.clear();
  answers.clear();
  ioWidths.clear();
  physicalReads.clear();
  consoleCalls.clear();
  outputStatus = EFI_SUCCESS;
  recording_ = nullptr;
  colours_.clear();
  pciReads = 0;
}

EFI_HANDLE DriverBed::StartDriver() {
  EFI_HANDLE image = environment_->CreateImageHandle(u"kobalt.efi", {});
  EXPECT_EQ(KobaltDriverEntry(image, environment_->SystemTable()), EFI_SUCCESS);
  return image;
}

bool DriverBed::Options(const std::vector<std::u16string>& tokens) {
  bool all = true;
  for (const std::u16string& token : tokens) {
    std::u16string copy = token;
    all = ParseOption(copy.data()) && all;
  }
  return all;
}

void DriverBed::LoadSettings(const std::string& ini, bool withMultiFd) {
  iniText_.assign(ini.begin(), ini.end());
  iniText_.push_back(0);
  UINT32 size = (UINT32)ini.size();
  InitialIniStructure();
  LoadOption(iniText_.data(), &size, withMultiFd);
}

void DriverBed::SetArguments(const std::vector<std::u16string>& arguments) {
  arguments_ = arguments;
  argumentPointers_.clear();
  for (auto& argument : arguments_) argumentPointers_.push_back(argument.data());
  SetCommandLineArgument((UINT32)argumentPointers_.size(), argumentPointers_.data());
}

void DriverBed::ScanArguments(const std::vector<std::u16string>& arguments) {
  SetArguments(arguments);
  ScanDebugOption((UINT32)argumentPointers_.size(), argumentPointers_.data());
}

void DriverBed::PutFile(const std::string& name, const std::vector<uint8_t>& bytes, size_t volume) {
  std::ofstream out(volumes_.at(volume) / name, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), (std::streamsize)bytes.size());
}

void DriverBed::AnswerCodes(uint8_t function, std::vector<uint8_t> codes) {
  auto calls = std::make_shared<size_t>(0);
  answers[function] = [codes, calls](OblisRegisters& r) {
    size_t i = std::min(*calls, codes.size() - 1);
    ++*calls;
    Answer(r, codes[i]);
  };
}

void DriverBed::Place(uint32_t address, const std::vector<uint8_t>& bytes) { memory_[address] = bytes; }

void DriverBed::SetSecureBoot() {
  UINT8 mode = 0;
  EFI_GUID guid = kGlobalVariableGuid;
  gRT->SetVariable(u"SetupMode", &guid, EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS, 1, &mode);
}

std::vector<OblisRegisters> DriverBed::SmiCallsOf(uint8_t function) const {
  std::vector<OblisRegisters> out;
  for (const OblisRegisters& call : smiCalls)
    if (FunctionOf(call) == function) out.push_back(call);
  return out;
}

std::string DriverBed::Log(size_t volume) const { return ReadHostFile(volumes_.at(volume) / "ZAPROM.Log"); }
std::string DriverBed::Console() const { return environment_->ConsoleTranscript(); }
std::string DriverBed::ReadVolumeFile(const std::string& name, size_t volume) const {
  return ReadHostFile(volumes_.at(volume) / name);
}

EFI_STATUS DriverBed::Record(const std::string& call) {
  recording_->consoleCalls.push_back(call);
  return recording_->outputStatus;
}

void DriverBed::RecordConsole() {
  recording_ = this;
  EFI_SYSTEM_TABLE* system = environment_->SystemTable();
  emulatedOut_ = *system->ConOut;
  recordingOut_ = emulatedOut_;
  recordingOut_.OutputString = [](EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, const CHAR16* text) -> EFI_STATUS {
    recording_->emulatedOut_.OutputString(&recording_->emulatedOut_, text);
    return Record("Out:" + std::string(text, text + std::char_traits<char16_t>::length(text)));
  };
  recordingOut_.ClearScreen = [](EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*) { return Record("Clear"); };
  recordingOut_.SetAttribute = [](EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, UINTN attribute) {
    char text[16];
    std::snprintf(text, sizeof text, "Attr:%02lX", (unsigned long)attribute);
    return Record(text);
  };
  recordingOut_.SetCursorPosition = [](EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, UINTN column, UINTN row) {
    return Record("Cursor:" + std::to_string(column) + "," + std::to_string(row));
  };
  recordingOut_.EnableCursor = [](EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, BOOLEAN on) { return Record(on ? "CursorOn" : "CursorOff"); };
  system->ConOut = &recordingOut_;
}

uint8_t DriverBed::ReadScripted(uint32_t address) const {
  auto it = memory_.upper_bound(address);
  if (it == memory_.begin()) return 0;
  --it;
  uint32_t offset = address - it->first;
  return offset < it->second.size() ? it->second[offset] : 0;
}

void DriverBed::PlaceDefaultPlatform(emu::Options& options) {
  std::vector<uint8_t> slot = Bytes("$OBLIS");
  slot.push_back(kScriptedSmiNumber);
  Place(kSignatureSlot, slot);
  std::vector<uint8_t> pointer = Bytes("RSD PTR ");
  PutU32(pointer, 16, kRsdt);
  pointer.resize(36);
  Place(kRsdp20, pointer);
  std::vector<uint8_t> rsdt = Bytes("RSDT");
  PutU32(rsdt, 4, 36 + 8);
  rsdt.resize(36);
  PutU32(rsdt, 36, kDsdt);
  PutU32(rsdt, 40, kFacp);
  Place(kRsdt, rsdt);
  std::vector<uint8_t> fadt = Bytes("FACP");
  PutU32(fadt, 4, 116);
  PutU32(fadt, 40, kDsdt);
  PutU32(fadt, 48, 0x12340000u | kCommandPort);
  fadt.resize(116);
  Place(kFacp, fadt);
  std::vector<uint8_t> dsdt = Bytes("DSDT");
  PutU32(dsdt, 4, 36);
  dsdt.resize(36);
  std::memcpy(dsdt.data() + 10, "DOVRIN", 6);
  Place(kDsdt, dsdt);
  AddTable(options, kAcpi20TableGuid, kRsdp20);
}

namespace {
DriverBed* gPainting = nullptr;
}  // namespace

void DriverBed::PaintConsole() {
  gPainting = this;
  colours_.clear();
  setAttribute_ = gST->ConOut->SetAttribute;
  gST->ConOut->SetAttribute = [](EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* self, UINTN attribute) -> EFI_STATUS {
    gPainting->colours_.push_back({gPainting->Console().size(), attribute});
    return gPainting->setAttribute_(self, attribute);
  };
}

std::string DriverBed::Painted() const {
  std::string text = Console();
  for (auto it = colours_.rbegin(); it != colours_.rend(); ++it) {
    char marker[8];
    std::snprintf(marker, sizeof(marker), "<%02X>", (unsigned)it->second);
    text.insert(it->first, marker);
  }
  return text;
}

}  // namespace bed

// ---- scripted answers of the map functions ----
namespace bed {

void PutU32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; i++) at[i] = (uint8_t)(value >> (8 * i));
}

DriverBed::Handler FlashPartAnswer(uint8_t sizeIndex, std::vector<std::pair<uint16_t, uint16_t>> map,
                                   uint32_t sizeSpecified, bool ended) {
  return [sizeIndex, map, sizeSpecified, ended](OblisRegisters& r) {
    At(r.edi)[0] = sizeIndex;
    PutU32(At(r.edi) + 68, sizeSpecified);
    uint8_t* out = At(r.esi);
    for (auto [size, count] : map) {
      *out++ = (uint8_t)size;
      *out++ = (uint8_t)(size >> 8);
      *out++ = (uint8_t)count;
      *out++ = (uint8_t)(count >> 8);
    }
    std::memset(out, ended ? 0xFF : 0x01, ended ? 2 : 0x100);
  };
}

namespace {

// A record of type, address and size, as the protection list and the whole map lay them out.
uint8_t* PutTypedRecord(uint8_t* at, const MapRegion& region, size_t stride) {
  at[0] = region.type;
  bed::PutU32(at + 1, region.address);
  bed::PutU32(at + 5, region.size);
  return at + stride;
}

}  // namespace

DriverBed::Handler PlatformMapsAnswer(std::vector<MapRegion> privates, std::vector<MapRegion> protections) {
  return [privates, protections](OblisRegisters& r) {
    uint8_t* privateMap = At(r.esi);
    for (const MapRegion& region : privates) {
      PutU32(privateMap, region.address);
      PutU32(privateMap + 4, region.size);
      privateMap += 8;
    }
    PutU32(privateMap, 0xFF);
    uint8_t* protection = At(r.edi);
    for (const MapRegion& region : protections) protection = PutTypedRecord(protection, region, 9);
    protection[0] = 0xFF;
  };
}

DriverBed::Handler WholeMapAnswer(std::vector<MapRegion> regions) {
  return [regions](OblisRegisters& r) {
    uint8_t* out = At(r.edi);
    for (const MapRegion& region : regions) out = PutTypedRecord(out, region, 13);
    out[0] = 0xFF;
    PutU32(out + 1, 0xFFFFFFFFu);
  };
}

}  // namespace bed
