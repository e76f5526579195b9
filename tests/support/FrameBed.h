// A scratch machine for the frame and output tests: host directories as volumes of the emulated
// UEFI environment, a console that records each call in order (and still renders), optionally a
// simulated firmware behind the platform seams, and readers for the log and the files.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "config/Config.h"
#include "frame/Frame.h"
#include "simulator/Simulator.h"
#include "uefi-emu/UefiEmu.h"

namespace bed {

namespace fs = std::filesystem;

inline std::string ReadHostFile(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

struct Setup {
  std::vector<emu::VolumeKind> volumes = {emu::VolumeKind::Usb};
  std::string keys;
  std::optional<sim::Machine> machine;
};

class FrameBed {
 public:
  explicit FrameBed(const Setup& setup = {}) : root_(mkdtemp(std::string("/tmp/zaprom-bed-XXXXXX").data())) {
    emu::Options options;
    for (size_t i = 0; i < setup.volumes.size(); i++) {
      volumes.push_back(root_ / ("volume" + std::to_string(i)));
      fs::create_directories(volumes.back());
      options.volumes.push_back({volumes.back().string(), setup.volumes[i]});
    }
    options.keys = setup.keys;
    options.consoleOut = nullptr;
    options.clockStart = {2026, 3, 7, 14, 3, 59, 0, 0, 0, 0, 0};
    if (setup.machine) {
      simulator = std::make_unique<sim::Simulator>(*setup.machine, std::vector<uint8_t>{}, Memory());
      for (auto [guid, rsdp] : {std::pair{kAcpi10TableGuid, simulator->Acpi10Rsdp()}, {kAcpi20TableGuid, simulator->Acpi20Rsdp()}})
        if (rsdp != 0) options.configurationTables.push_back({guid, reinterpret_cast<VOID*>(uintptr_t{rsdp})});
      sim::Simulator* s = simulator.get();
      emu::PlatformBackend backend;
      backend.smi = [s](OblisRegisters& frame) { s->Transact(frame); };
      backend.ioRead = [s](uint16_t port, int width) { return s->IoRead(port, width); };
      backend.ioWrite8 = [s](uint16_t port, uint8_t value) { s->IoWrite8(port, value); };
      backend.readPhysical = [s](uint32_t address, void* out, uint32_t length) { return s->ReadPhysical(address, out, length); };
      emu::SetPlatformBackend(backend);
    }
    environment = std::make_unique<emu::Environment>(options);
    current = this;
    system = environment->SystemTable();
    emuOut = *system->ConOut;
    out = emuOut;
    out.OutputString = [](EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, const CHAR16* text) -> EFI_STATUS {
      current->calls.push_back("Out:" + std::string(text, text + std::char_traits<char16_t>::length(text)));
      current->emuOut.OutputString(&current->emuOut, text);
      return current->outputStatus;
    };
    out.ClearScreen = [](EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*) { return Call("Clear"); };
    out.SetAttribute = [](EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, UINTN a) {
      char text[16];
      std::snprintf(text, sizeof text, "Attr:%02lX", (unsigned long)a);
      return Call(text);
    };
    out.SetCursorPosition = [](EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, UINTN c, UINTN r) {
      return Call("Cursor:" + std::to_string(c) + "," + std::to_string(r));
    };
    out.EnableCursor = [](EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, BOOLEAN on) { return Call(on ? "CursorOn" : "CursorOff"); };
    system->ConOut = &out;
    SetFirmwareTables(nullptr, system);
  }
  ~FrameBed() {
    environment.reset();
    fs::remove_all(root_);
  }

  // Loads the driver as the platform would: an image handle on the tool's volume, then the entry.
  EFI_HANDLE StartDriver() {
    EFI_HANDLE image = environment->CreateImageHandle(u"kobalt.efi", {});
    EXPECT_EQ(KobaltDriverEntry(image, system), EFI_SUCCESS);
    return image;
  }
  // Hands the driver an argument vector as a shell host would; it lives as long as the bed.
  void SetArguments(const std::vector<std::u16string>& arguments) {
    arguments_ = arguments;
    pointers_.clear();
    for (auto& argument : arguments_) pointers_.push_back(argument.data());
    SetCommandLineArgument((UINT32)pointers_.size(), pointers_.data());
  }
  // [Log_file] and [UI] as a loaded text leaves them; only config writes the record in the driver.
  static void SetLog(INT32 flag, INT32 level) {
    const_cast<FlashSettings*>(Settings())->logFile.flag = flag;
    const_cast<FlashSettings*>(Settings())->logFile.level = level;
  }
  static void SetElapse(bool on) { const_cast<FlashSettings*>(Settings())->ui.elapse = on; }
  std::string Console() const { return environment->ConsoleTranscript(); }
  std::string Log(size_t volume = 0) const { return ReadHostFile(volumes.at(volume) / "ZAPROM.Log"); }

  inline static FrameBed* current = nullptr;
  std::vector<fs::path> volumes;
  std::unique_ptr<sim::Simulator> simulator;
  std::unique_ptr<emu::Environment> environment;
  EFI_SYSTEM_TABLE* system = nullptr;
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL out{}, emuOut{};
  std::vector<std::string> calls;
  EFI_STATUS outputStatus = EFI_SUCCESS;

 private:
  static EFI_STATUS Call(const std::string& call) {
    current->calls.push_back(call);
    return EFI_SUCCESS;
  }
  sim::MemoryAccess Memory() {
    sim::MemoryAccess memory;
    memory.read = [this](uint32_t address, void* out, uint32_t length) {
      if (!environment || !environment->ContainsAddress(address, length)) return false;
      std::memcpy(out, reinterpret_cast<const void*>(uintptr_t{address}), length);
      return true;
    };
    memory.write = [this](uint32_t address, const void* data, uint32_t length) {
      if (!environment || !environment->ContainsAddress(address, length)) return false;
      std::memcpy(reinterpret_cast<void*>(uintptr_t{address}), data, length);
      return true;
    };
    return memory;
  }
  fs::path root_;
  std::vector<std::u16string> arguments_;
  std::vector<CHAR16*> pointers_;
};

}  // namespace bed
