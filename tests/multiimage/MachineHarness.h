// A described machine for the rule tests: the simulator behind the port, memory and SMI seams
// and behind the emulated PCI root bridge, a log volume, and the OBLIS channel opened so that
// the model name of function 11h is known.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "UefiEmu.h"
#include "config/Config.h"
#include "oblis/Oblis.h"
#include "simulator/Simulator.h"

namespace multiimage_test {

// Real values behind port, PCI and memory reads, written in the machine description's own form.
constexpr const char* kMachineJson = R"({
  "info": {"model_name": "DV-X200"},
  "io_ports": {"0xC0": {"value": "0x5AABFE02", "width": 4}, "0x80": "0x12"},
  "pci": [{"bus": 0, "device": "0x1F", "function": 2, "offset": "0x80", "value": "0x00007007"}],
  "memory": [{"address": "0x7F000000", "bytes": "5A A5 34 12"}]
})";

class MachineHarness {
 public:
  explicit MachineHarness(bool withRootBridge = true) {
    char pattern[] = "/tmp/zaprom-multi-XXXXXX";
    dir_ = mkdtemp(pattern);
    sim::Machine machine;
    std::string error;
    EXPECT_TRUE(sim::ParseMachine(kMachineJson, machine, error)) << error;
    sim::MemoryAccess memory;
    memory.read = [this](uint32_t address, void* out, uint32_t length) {
      if (!environment_ || !environment_->ContainsAddress(address, length)) return false;
      std::memcpy(out, reinterpret_cast<const void*>(static_cast<uintptr_t>(address)), length);
      return true;
    };
    memory.write = [this](uint32_t address, const void* data, uint32_t length) {
      if (!environment_ || !environment_->ContainsAddress(address, length)) return false;
      std::memcpy(reinterpret_cast<void*>(static_cast<uintptr_t>(address)), data, length);
      return true;
    };
    simulator_ = std::make_unique<sim::Simulator>(machine, std::vector<uint8_t>{}, memory);
    sim::Simulator* simulator = simulator_.get();

    emu::Options options;
    options.volumes.push_back({dir_, emu::VolumeKind::Usb});
    console_ = std::fopen("/dev/null", "w");
    options.consoleOut = console_;
    if (simulator->Acpi20Rsdp() != 0) {
      EFI_CONFIGURATION_TABLE entry{};
      entry.VendorGuid = kAcpi20TableGuid;
      entry.VendorTable = reinterpret_cast<VOID*>(static_cast<uintptr_t>(simulator->Acpi20Rsdp()));
      options.configurationTables.push_back(entry);
    }
    if (withRootBridge) {
      options.pciRead = [this, simulator](uint8_t bus, uint8_t device, uint8_t function, uint8_t offset) {
        ++pciReads;
        return simulator->PciRead(bus, device, function, offset);
      };
    }
    emu::PlatformBackend backend;
    backend.smi = [simulator](OblisRegisters& frame) { simulator->Transact(frame); };
    backend.ioRead = [this, simulator](uint16_t port, int width) {
      ioWidths.push_back(width);
      return simulator->IoRead(port, width);
    };
    backend.ioWrite8 = [simulator](uint16_t port, uint8_t value) { simulator->IoWrite8(port, value); };
    backend.readPhysical = [this, simulator](uint32_t address, void* out, uint32_t length) {
      if (address >= 0x7F000000u && address < 0x80000000u) memoryWidths.push_back(length);
      return simulator->ReadPhysical(address, out, length);
    };
    emu::SetPlatformBackend(backend);
    environment_ = std::make_unique<emu::Environment>(options);
    SetFirmwareTables(nullptr, environment_->SystemTable());
    InitialIniStructure();
    FlashSettings& settings = *const_cast<FlashSettings*>(Settings());
    settings.logFile.flag = 1;
    settings.logFile.level = 4;
    settings.others.smiErrorRetryDelay = 1;
  }

  ~MachineHarness() {
    emu::SetPlatformBackend({});
    environment_.reset();
    if (console_ != nullptr) std::fclose(console_);
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  // Opens the channel and asks function 11h, as Initialize does before any rule is walked.
  void LearnModelName() {
    ASSERT_TRUE(InitialSmi());
    ASSERT_TRUE(FuncOblis_11h());
  }

  std::string Log() const {
    std::ifstream in(dir_ + "/ZAPROM.Log", std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  std::string Console() const { return environment_->ConsoleTranscript(); }

  std::vector<int> ioWidths;
  std::vector<uint32_t> memoryWidths;
  int pciReads = 0;

 private:
  std::string dir_;
  std::FILE* console_ = nullptr;
  std::unique_ptr<sim::Simulator> simulator_;
  std::unique_ptr<emu::Environment> environment_;
};

}  // namespace multiimage_test
