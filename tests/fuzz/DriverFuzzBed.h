// What the harnesses of driver code share: one emulated environment for the process, a fresh
// simulated machine and a driver as a fresh load leaves it for each input, and a trap when an
// input leaves driver memory behind or writes past a pool block.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "Simulator.h"
#include "UefiEmu.h"
#include "config/ConfigInternal.h"
#include "frame/Frame.h"

namespace fuzzbed {

// A part of 8 KB (two blocks) and an EC of 64 KB: small enough that every input runs whole.
constexpr char kSmallMachine[] =
    R"({"flash": {"size": "0x2000", "size_index": 255, "blocks": [{"size": "0x1000", "count": 2}]},
        "maps": {"protection": [], "private": [], "whole": []}, "ec": {"size_index": 0}})";

// The small machine with more keys of a harness's own, such as "\"extra_data\": {}".
inline std::string SmallMachineWith(const std::string& keys) {
  const std::string machine = kSmallMachine;
  return machine.substr(0, machine.rfind('}')) + ", " + keys + "}";
}

class DriverFuzzBed {
 public:
  // intercept answers a call itself when it returns true; the machine answers the rest.
  using Intercept = std::function<bool(OblisRegisters&)>;

  DriverFuzzBed() {
    // The volume lives for one input: in memory where the system has a file system there, since
    // creating and deleting files on a disk file system costs more than most inputs' whole run.
    std::error_code noShm;
    const std::filesystem::path base = std::filesystem::is_directory("/dev/shm", noShm)
                                           ? std::filesystem::path("/dev/shm")
                                           : std::filesystem::temp_directory_path();
    volume_ = base / ("zaprom-fuzz-" + std::to_string(::getpid()));
    std::filesystem::create_directories(volume_);
    emu::Options options;
    options.volumes.push_back({volume_.string(), emu::VolumeKind::Usb});
    options.consoleOut = std::fopen("/dev/null", "w");
    machine_ = std::make_unique<sim::Simulator>(sim::DefaultMachine(), std::vector<uint8_t>{}, sim::MemoryAccess{});
    options.configurationTables.push_back({kAcpi20TableGuid, reinterpret_cast<VOID*>(uintptr_t{machine_->Acpi20Rsdp()})});
    environment_ = std::make_unique<emu::Environment>(options);
  }

  ~DriverFuzzBed() {
    std::error_code ignored;
    std::filesystem::remove_all(volume_, ignored);
  }

  // A new machine of this description and a fresh driver with these settings (a platform.ini text),
  // on an empty volume: every open lists its folder, and files an earlier input left would slow
  // every later one.
  void Start(const std::string& machineJson, const std::string& ini, Intercept intercept = nullptr) {
    for (const auto& entry : std::filesystem::directory_iterator(volume_)) std::filesystem::remove_all(entry.path());
    if (machineJson != machineJson_) {
      std::string error;
      if (!sim::ParseMachine(machineJson, machine_description_, error)) __builtin_trap();
      machineJson_ = machineJson;
    }
    const sim::Machine& machine = machine_description_;
    emu::Environment* environment = environment_.get();
    sim::MemoryAccess memory{[environment](uint32_t address, void* out, uint32_t length) {
                               if (!environment->ContainsAddress(address, length)) return false;
                               std::memcpy(out, reinterpret_cast<void*>(uintptr_t{address}), length);
                               return true;
                             },
                             [environment](uint32_t address, const void* data, uint32_t length) {
                               if (!environment->ContainsAddress(address, length)) return false;
                               std::memcpy(reinterpret_cast<void*>(uintptr_t{address}), data, length);
                               return true;
                             }};
    machine_ = std::make_unique<sim::Simulator>(machine, std::vector<uint8_t>{}, memory);
    sim::Simulator* simulator = machine_.get();
    emu::PlatformBackend backend;
    backend.smi = [simulator, intercept](OblisRegisters& frame) {
      if (!intercept || !intercept(frame)) simulator->Transact(frame);
    };
    backend.ioRead = [simulator](uint16_t port, int width) { return simulator->IoRead(port, width); };
    backend.ioWrite8 = [simulator](uint16_t port, uint8_t value) { simulator->IoWrite8(port, value); };
    backend.readPhysical = [simulator](uint32_t address, void* out, uint32_t length) {
      return simulator->ReadPhysical(address, out, length);
    };
    emu::SetPlatformBackend(backend);
    ResetDriverState();
    SetFirmwareTables(nullptr, environment_->SystemTable());
    InitialIniStructure();
    ini_.assign(ini.begin(), ini.end());
    ini_.push_back(0);
    UINT32 size = static_cast<UINT32>(ini.size());
    LoadOption(ini_.data(), &size, false);
  }

  // The driver hands back all it took, as its unload does; anything left is a fault of the input.
  void Finish() {
    FreeResource();
    ReleaseDriverMemory();
    if (!environment_->LiveBlocks().empty() || environment_->PoolOverruns() != 0 || environment_->BadFrees() != 0) {
      __builtin_trap();
    }
    ResetDriverState();
    // The machine goes with the input, so that every host allocation of a run is freed in it.
    emu::SetPlatformBackend({});
    machine_.reset();
  }

 private:
  std::filesystem::path volume_;
  std::string machineJson_;
  sim::Machine machine_description_;
  std::unique_ptr<sim::Simulator> machine_;
  std::unique_ptr<emu::Environment> environment_;
  std::string ini_;
};

}  // namespace fuzzbed
