// A scratch machine for the frame's tests: host directories as volumes in the emulated UEFI
// environment, optionally a simulated firmware behind the platform seams, and readers for what
// an engineer looks at afterwards (console transcript, ZAPROM.Log, files on the volumes).
// Kept for the config, image and command-line tests until they move to the driver test bed.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "UefiEmu.h"
#include "frame/Frame.h"
#include "output/Output.h"
#include "simulator/Simulator.h"

namespace frame_test {

namespace fs = std::filesystem;

struct HarnessSetup {
  std::vector<emu::VolumeKind> volumes = {emu::VolumeKind::Usb};
  std::string keys;
  std::optional<sim::Machine> machine;
};

inline std::string ReadHostFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline void WriteHostFile(const fs::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out << bytes;
}

class FrameHarness {
 public:
  explicit FrameHarness(const HarnessSetup& setup = {}) {
    char pattern[] = "/tmp/zaprom-frame-XXXXXX";
    root_ = mkdtemp(pattern);
    emu::Options options;
    for (size_t i = 0; i < setup.volumes.size(); i++) {
      fs::path directory = root_ / ("volume" + std::to_string(i));
      fs::create_directories(directory);
      volumes_.push_back(directory);
      options.volumes.push_back({directory.string(), setup.volumes[i]});
    }
    options.keys = setup.keys;
    console_ = std::fopen("/dev/null", "w");
    options.consoleOut = console_;
    if (setup.machine) {
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
      simulator_ = std::make_unique<sim::Simulator>(*setup.machine, std::vector<uint8_t>{}, memory);
      AddAcpiTable(options, kAcpi10TableGuid, simulator_->Acpi10Rsdp());
      AddAcpiTable(options, kAcpi20TableGuid, simulator_->Acpi20Rsdp());
      sim::Simulator* simulator = simulator_.get();
      emu::PlatformBackend backend;
      backend.smi = [simulator](OblisRegisters& frame) { simulator->Transact(frame); };
      backend.ioRead = [simulator](uint16_t port, int width) { return simulator->IoRead(port, width); };
      backend.ioWrite8 = [simulator](uint16_t port, uint8_t value) { simulator->IoWrite8(port, value); };
      backend.readPhysical = [simulator](uint32_t address, void* out, uint32_t length) {
        return simulator->ReadPhysical(address, out, length);
      };
      emu::SetPlatformBackend(backend);
    }
    environment_ = std::make_unique<emu::Environment>(options);
  }

  ~FrameHarness() {
    environment_.reset();
    if (console_ != nullptr) std::fclose(console_);
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }

  // Loads the driver as the platform would: an image handle on the tool's volume, then the entry.
  EFI_HANDLE StartDriver() {
    EFI_HANDLE image = environment_->CreateImageHandle(u"kobalt.efi", {});
    EXPECT_EQ(KobaltDriverEntry(image, environment_->SystemTable()), EFI_SUCCESS);
    return image;
  }

  // Hands the driver an argument vector as a shell host would; the vector lives as long as this.
  void SetArguments(const std::vector<std::u16string>& arguments) {
    arguments_ = arguments;
    argumentPointers_.clear();
    for (auto& argument : arguments_) argumentPointers_.push_back(argument.data());
    SetCommandLineArgument(static_cast<UINT32>(argumentPointers_.size()), argumentPointers_.data());
  }

  // Turns the trace on at level 4, as -dbg on the command line does.
  void EnableLog() {
    SetArguments({u"ZAPROM.efi", u"-dbg"});
    ScanDebugOption((UINT32)argumentPointers_.size(), argumentPointers_.data());
  }

  emu::Environment& Environment() { return *environment_; }
  sim::Simulator& Simulator() { return *simulator_; }
  const fs::path& Volume(size_t index) const { return volumes_.at(index); }
  std::string Console() const { return environment_->ConsoleTranscript(); }
  std::string Log(size_t volume = 0) const { return ReadHostFile(volumes_.at(volume) / "ZAPROM.Log"); }

 private:
  static void AddAcpiTable(emu::Options& options, const EFI_GUID& guid, uint32_t address) {
    if (address == 0) return;
    EFI_CONFIGURATION_TABLE entry{};
    entry.VendorGuid = guid;
    entry.VendorTable = reinterpret_cast<VOID*>(static_cast<uintptr_t>(address));
    options.configurationTables.push_back(entry);
  }

  fs::path root_;
  std::vector<fs::path> volumes_;
  std::FILE* console_ = nullptr;
  std::unique_ptr<sim::Simulator> simulator_;
  std::unique_ptr<emu::Environment> environment_;
  std::vector<std::u16string> arguments_;
  std::vector<CHAR16*> argumentPointers_;
};

// Position of needle at or after from, or npos: for "this text, then that text".
inline size_t FindAfter(const std::string& haystack, const std::string& needle, size_t from) {
  return from == std::string::npos ? std::string::npos : haystack.find(needle, from);
}

}  // namespace frame_test
