// A test bed for the OBLIS channel and its wrappers: an emulated UEFI environment with a log
// volume, a sparse physical memory (legacy BIOS area with "$OBLIS", RSDP, RSDT, FADT, DSDT) and
// a stand-in for the firmware's SMI handler that records every frame and answers per function.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "KobaltBase.h"
#include "OblisWire.h"
#include "config/Config.h"
#include "uefi-emu/UefiEmu.h"

namespace oblistest {

constexpr uint32_t kSignatureSlot = 0xF0000;
constexpr uint8_t kSmiNumber = 0xDF;
constexpr uint16_t kCommandPort = 0xB2;
constexpr uint32_t kRsdp10 = 0xF2000;
constexpr uint32_t kRsdp20 = 0xF2100;
constexpr uint32_t kRsdt = 0x7E00000;
constexpr uint32_t kFacp = 0x7E01000;
constexpr uint32_t kFacp2 = 0x7E02000;
constexpr uint32_t kDsdt = 0x7E03000;

inline void PutU16(std::vector<uint8_t>& b, size_t at, uint32_t v) {
  if (b.size() < at + 2) b.resize(at + 2);
  b[at] = (uint8_t)v;
  b[at + 1] = (uint8_t)(v >> 8);
}
inline void PutU32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
  if (b.size() < at + 4) b.resize(at + 4);
  for (int i = 0; i < 4; i++) b[at + i] = (uint8_t)(v >> (8 * i));
}
inline void PutU32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; i++) p[i] = (uint8_t)(v >> (8 * i));
}
inline std::vector<uint8_t> Bytes(const std::string& text) { return std::vector<uint8_t>(text.begin(), text.end()); }

// Driver memory handed over by address; on the host it is identity mapped below 4 GB.
inline uint8_t* At(uint32_t address) { return reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(address)); }

inline uint8_t Fn(const OblisRegisters& r) { return (uint8_t)(r.eax >> 8); }
inline uint8_t Smi(const OblisRegisters& r) { return (uint8_t)r.eax; }
// Sets AL (and optionally AH) as the firmware's answer.
inline void Answer(OblisRegisters& r, uint8_t al, uint8_t ah = 0) { r.eax = (r.eax & 0xFFFF0000u) | (ah << 8) | al; }

class FakeFirmware {
 public:
  using Handler = std::function<void(OblisRegisters&)>;

  FakeFirmware() : dir_(MakeDirectory()), env_(MakeOptions(dir_)) {
    SetFirmwareTables(nullptr, env_.SystemTable());
    InitialIniStructure();
    MutableSettings().logFile.flag = 1;
    MutableSettings().logFile.level = 4;
    MutableSettings().others.smiErrorRetryDelay = 1;
    InstallDefaultPlatform();
    emu::PlatformBackend backend;
    backend.smi = [this](OblisRegisters& frame) {
      frames.push_back(frame);
      uint8_t function = Fn(frame);
      Answer(frame, 0, 0);
      auto found = handlers.find(function);
      if (found != handlers.end()) found->second(frame);
    };
    backend.readPhysical = [this](uint32_t address, void* out, uint32_t length) {
      ++physicalReads;
      uint8_t* bytes = static_cast<uint8_t*>(out);
      for (uint32_t i = 0; i < length; i++) bytes[i] = ReadByte(address + i);
      return true;
    };
    emu::SetPlatformBackend(backend);
  }
  ~FakeFirmware() {
    emu::SetPlatformBackend({});
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  static FlashSettings& MutableSettings() { return *const_cast<FlashSettings*>(Settings()); }
  static CommandFlags& MutableFlags() { return *const_cast<CommandFlags*>(Flags()); }

  // Physical memory outside the driver's own: blocks by start address, zero elsewhere.
  void Place(uint32_t address, const std::vector<uint8_t>& bytes) { memory_[address] = bytes; }
  void Clear(uint32_t address) { memory_.erase(address); }
  uint8_t ReadByte(uint32_t address) const {
    auto it = memory_.upper_bound(address);
    if (it == memory_.begin()) return 0;
    --it;
    uint32_t offset = address - it->first;
    return offset < it->second.size() ? it->second[offset] : 0;
  }

  // An RSDP whose RSDT lists the given tables.
  void PlaceAcpi(uint32_t rsdp, uint32_t rsdt, const std::vector<uint32_t>& tables) {
    std::vector<uint8_t> pointer = Bytes("RSD PTR ");
    PutU32(pointer, 16, rsdt);
    pointer.resize(36);
    Place(rsdp, pointer);
    std::vector<uint8_t> header = Bytes("RSDT");
    PutU32(header, 4, 36 + 4 * (uint32_t)tables.size());
    header.resize(36);
    for (size_t i = 0; i < tables.size(); i++) PutU32(header, 36 + 4 * i, tables[i]);
    Place(rsdt, header);
  }
  // A FADT with SMI_CMD and a DSDT pointer.
  void PlaceFacp(uint32_t address, uint32_t smiCmd, uint32_t dsdt = kDsdt) {
    std::vector<uint8_t> fadt = Bytes("FACP");
    PutU32(fadt, 4, 116);
    PutU32(fadt, 40, dsdt);
    PutU32(fadt, 48, smiCmd);
    fadt.resize(116);
    Place(address, fadt);
  }
  void PlaceDsdt(const std::string& oemId) {
    std::vector<uint8_t> dsdt = Bytes("DSDT");
    PutU32(dsdt, 4, 36);
    dsdt.resize(36);
    std::memcpy(dsdt.data() + 10, oemId.data(), std::min<size_t>(6, oemId.size()));
    Place(kDsdt, dsdt);
  }
  void SetConfigurationTables(const std::vector<std::pair<EFI_GUID, uint32_t>>& entries) {
    tables_.clear();
    for (auto& [guid, address] : entries) {
      EFI_CONFIGURATION_TABLE t{};
      t.VendorGuid = guid;
      t.VendorTable = reinterpret_cast<void*>(static_cast<uintptr_t>(address));
      tables_.push_back(t);
    }
    gST->NumberOfTableEntries = tables_.size();
    gST->ConfigurationTable = tables_.empty() ? nullptr : tables_.data();
  }

  // Frames sent for one function, in order.
  std::vector<OblisRegisters> FramesOf(uint8_t function) const {
    std::vector<OblisRegisters> out;
    for (auto& f : frames)
      if (Fn(f) == function) out.push_back(f);
    return out;
  }
  // Answers the function with the codes in turn; the last one repeats.
  void AnswerCodes(uint8_t function, std::vector<uint8_t> codes) {
    auto calls = std::make_shared<size_t>(0);
    handlers[function] = [codes, calls](OblisRegisters& r) {
      size_t i = std::min(*calls, codes.size() - 1);
      ++*calls;
      Answer(r, codes[i]);
    };
  }

  // Function 13h: a part of the given size index and a terminated block map of
  // (block size in 256 bytes, count) entries.
  void AnswerFlashPart(uint8_t sizeIndex, std::vector<std::pair<uint16_t, uint16_t>> map) {
    handlers[0x13] = [sizeIndex, map](OblisRegisters& r) {
      At(r.edi)[0] = sizeIndex;
      uint8_t* out = At(r.esi);
      size_t at = 0;
      for (auto [size, count] : map) {
        out[at] = (uint8_t)size;
        out[at + 1] = (uint8_t)(size >> 8);
        out[at + 2] = (uint8_t)count;
        out[at + 3] = (uint8_t)(count >> 8);
        at += 4;
      }
      out[at] = 0xFF;
      out[at + 1] = 0xFF;
    };
  }
  struct Region {
    uint8_t type;
    uint32_t address;
    uint32_t size;
  };
  // Function 12h: the private list (type ignored) and the protection list, both terminated.
  void AnswerPlatformMaps(std::vector<Region> privates, std::vector<Region> protections) {
    handlers[0x12] = [privates, protections](OblisRegisters& r) {
      uint8_t* protection = At(r.edi);
      uint8_t* privateMap = At(r.esi);
      size_t at = 0;
      for (auto& region : privates) {
        PutU32(privateMap + at, region.address);
        PutU32(privateMap + at + 4, region.size);
        at += 8;
      }
      PutU32(privateMap + at, 0xFF);
      at = 0;
      for (auto& region : protections) {
        protection[at] = region.type;
        PutU32(protection + at + 1, region.address);
        PutU32(protection + at + 5, region.size);
        at += 9;
      }
      protection[at] = 0xFF;
    };
  }
  // Function 1Eh: the whole ROM map, terminated.
  void AnswerWholeMap(std::vector<Region> regions) {
    handlers[0x1E] = [regions](OblisRegisters& r) {
      uint8_t* out = At(r.edi);
      size_t at = 0;
      for (auto& region : regions) {
        out[at] = region.type;
        PutU32(out + at + 1, region.address);
        PutU32(out + at + 5, region.size);
        at += 13;
      }
      out[at] = 0xFF;
      PutU32(out + at + 1, 0xFFFFFFFFu);
    };
  }
  // Function 11h: a platform that allows -alp (extended information, ALP bit in ECX).
  void AnswerAllowAlp() {
    handlers[0x11] = [](OblisRegisters& r) {
      r.ecx = 1;
      Answer(r, 0, 0x80);
    };
  }
  // Secure Boot support is the presence of the SetupMode variable.
  void SetSecureBoot() {
    UINT8 mode = 0;
    EFI_GUID guid = kGlobalVariableGuid;
    gRT->SetVariable(u"SetupMode", &guid,
                     EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS, 1, &mode);
  }

  std::string Log() const {
    std::ifstream in(dir_ + "/ZAPROM.Log", std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  // A file on the volume that also holds the log, where the driver's relative names lead.
  void PutFile(const std::string& name, const std::vector<uint8_t>& bytes) {
    std::ofstream out(dir_ + "/" + name, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), (std::streamsize)bytes.size());
  }
  std::string Console() const { return env_.ConsoleTranscript(); }
  size_t StallCount() const { return env_.StallCalls().size(); }
  const std::vector<uint64_t>& Stalls() const { return env_.StallCalls(); }
  emu::Environment& Environment() { return env_; }

  std::vector<OblisRegisters> frames;
  std::map<uint8_t, Handler> handlers;
  size_t physicalReads = 0;

 private:
  static std::string MakeDirectory() {
    char pattern[] = "/tmp/oblis-test-XXXXXX";
    char* made = mkdtemp(pattern);
    return made != nullptr ? std::string(made) : std::string("/tmp");
  }
  static emu::Options MakeOptions(const std::string& dir) {
    emu::Options options;
    options.volumes.push_back({dir, emu::VolumeKind::Sata});
    options.consoleOut = nullptr;
    return options;
  }
  void InstallDefaultPlatform() {
    std::vector<uint8_t> slot = Bytes("$OBLIS");
    slot.push_back(kSmiNumber);
    Place(kSignatureSlot, slot);
    PlaceAcpi(kRsdp20, kRsdt, {kDsdt, kFacp});
    PlaceFacp(kFacp, 0x12340000u | kCommandPort);
    PlaceDsdt("DOVRIN");
    SetConfigurationTables({{kAcpi20TableGuid, kRsdp20}});
  }

  std::string dir_;
  emu::Environment env_;
  std::map<uint32_t, std::vector<uint8_t>> memory_;
  std::vector<EFI_CONFIGURATION_TABLE> tables_;
};

// Counts the occurrences of a line in a text.
inline size_t CountOf(const std::string& text, const std::string& line) {
  size_t count = 0;
  for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + line.size())) ++count;
  return count;
}

}  // namespace oblistest
