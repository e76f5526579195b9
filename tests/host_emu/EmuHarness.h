// Shared pieces of the emulated-environment tests: a scratch directory per test that is removed
// afterwards, host file helpers, and an Environment built over such directories.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "uefi-emu/UefiEmu.h"

class ScratchDirectory {
 public:
  ScratchDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zaprom-emu-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~ScratchDirectory() { std::filesystem::remove_all(path_); }
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline void WriteHostFile(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

inline std::string ReadHostFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline emu::Options OptionsWithVolumes(const std::vector<std::string>& directories) {
  emu::Options options;
  options.consoleOut = nullptr;
  for (auto& directory : directories) options.volumes.push_back({directory, emu::VolumeKind::Usb});
  return options;
}
