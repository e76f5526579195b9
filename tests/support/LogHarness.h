// A volume in the emulated environment for tests that read ZAPROM.Log: a scratch host directory
// as the only volume, the driver's tables pointed at the environment, a fixed clock, and the
// command line and [Log_file] values a run would bring.
// Kept for the config, image and command-line tests until they move to the driver test bed.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "config/Config.h"
#include "frame/Frame.h"
#include "output/Output.h"
#include "uefi-emu/UefiEmu.h"

namespace log_test {

namespace fs = std::filesystem;

inline emu::Options VolumeOptions(const fs::path& directory) {
  emu::Options options;
  options.volumes.push_back({directory.string(), emu::VolumeKind::Usb});
  options.consoleOut = nullptr;
  options.clockStart = {2026, 3, 7, 14, 3, 59, 0, 0, 0, 0, 0};
  return options;
}

class LogVolume {
 public:
  LogVolume() : directory_(MakeScratch()), environment_(VolumeOptions(directory_)) {
    SetFirmwareTables(nullptr, environment_.SystemTable());
  }
  ~LogVolume() { fs::remove_all(directory_); }

  emu::Environment& Environment() { return environment_; }
  fs::path LogPath() const { return directory_ / "ZAPROM.Log"; }
  bool LogExists() const { return fs::exists(LogPath()); }
  std::string Log() const {
    std::ifstream in(LogPath(), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }
  void WriteOldLog(const std::string& bytes) const { std::ofstream(LogPath(), std::ios::binary) << bytes; }

  // The arguments as the host hands them in, the program's name first; then the -dbg scan.
  void ScanArguments(const std::vector<std::u16string>& arguments) {
    arguments_ = arguments;
    pointers_.clear();
    for (auto& argument : arguments_) pointers_.push_back(argument.data());
    SetCommandLineArgument((UINT32)pointers_.size(), pointers_.data());
    ScanDebugOption((UINT32)pointers_.size(), pointers_.data());
  }

  // [Log_file] as a loaded text would leave it; only the config folder writes the record in
  // the driver, the test reaches past that.
  static void SetLogFile(INT32 flag, INT32 level) {
    auto* settings = const_cast<FlashSettings*>(Settings());
    settings->logFile.flag = flag;
    settings->logFile.level = level;
  }

 private:
  static fs::path MakeScratch() {
    std::string pattern = (fs::temp_directory_path() / "zaprom-log-XXXXXX").string();
    return fs::path(mkdtemp(pattern.data()));
  }

  fs::path directory_;
  emu::Environment environment_;
  std::vector<std::u16string> arguments_;
  std::vector<CHAR16*> pointers_;
};

}  // namespace log_test
