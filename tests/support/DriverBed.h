// The one test bed for the driver's folders: every test starts from a driver as a fresh load
// leaves it (ResetDriverState), in a new emulated UEFI environment with scratch volumes, behind
// either a simulated machine (the default one or one described in JSON) or a scripted firmware
// whose SMI functions the test answers itself. Flags and settings go in through the driver's
// own parsers; the bed reads back the SMI calls, the log, the console and the volumes.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KobaltBase.h"
#include "OblisWire.h"
#include "simulator/Simulator.h"
#include "uefi-emu/UefiEmu.h"

namespace bed {

namespace fs = std::filesystem;

// Where the SMI calls go.
enum class Firmware {
  Simulated,  // the simulator, with the machine of BedSetup::machineJson (empty: the default)
  Scripted,   // answers only through DriverBed::answers; any other function gets AL = 0. Low
              // memory carries "$OBLIS" with SMI DFh, and ACPI tables with SMI_CMD B2h and a DSDT
              // of OEM "DOVRIN".
};

struct BedSetup {
  Firmware firmware = Firmware::Simulated;
  std::string machineJson;
  std::vector<emu::VolumeKind> volumes = {emu::VolumeKind::Usb};
  std::string keys;
  // Installs a PCI root bridge protocol that asks the simulator.
  bool rootBridge = false;
  EFI_TIME clock = {2026, 3, 7, 14, 3, 59, 0, 0, 0, 0, 0};
  // Records each console call in order (see DriverBed::consoleCalls); the text still renders.
  bool recordConsole = false;
  // The trace at level 4 into ZAPROM.Log on volume 0, and SMI retries without a wait, as a
  // loaded [Log_file] Flag=1, Level=4 and [Others] SmiErrorRetryDelay=1 leave them.
  bool log = true;
};

// Sets AL (and AH) as the firmware's answer.
inline void Answer(OblisRegisters& r, uint8_t al, uint8_t ah = 0) { r.eax = (r.eax & 0xFFFF0000u) | (ah << 8) | al; }
inline uint8_t FunctionOf(const OblisRegisters& r) { return (uint8_t)(r.eax >> 8); }
// Driver memory handed over by address; on the host it is identity mapped below 4 GB.
inline uint8_t* At(uint32_t address) { return reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(address)); }
inline std::vector<uint8_t> Bytes(const std::string& text) { return std::vector<uint8_t>(text.begin(), text.end()); }
// How often line stands in text.
size_t CountOf(const std::string& text, const std::string& line);

class DriverBed : public ::testing::Test {
 public:
  using Handler = std::function<void(OblisRegisters&)>;

 protected:
  void SetUp() override { Install(Layout()); }
  void TearDown() override { Uninstall(); }
  // What SetUp installs; a fixture overrides it for another machine or other volumes.
  virtual BedSetup Layout() const { return {}; }

  // A fresh driver, environment and firmware; a table row that needs its own start calls it.
  void Install(const BedSetup& setup);
  void Uninstall();

  // ---- input through the driver's own paths ----
  // Loads the driver as the platform would: an image handle on volume 0, then the entry point.
  EFI_HANDLE StartDriver();
  // Each token through ParseOption, as the command line hands it; false if one is refused.
  bool Options(const std::vector<std::u16string>& tokens);
  // A platform.ini text through LoadOption: start values, then the sections it carries.
  void LoadSettings(const std::string& ini, bool withMultiFd = false);
  // The argument vector as a shell host hands it in (the program's name first).
  void SetArguments(const std::vector<std::u16string>& arguments);
  // SetArguments, then the driver's scan for -dbg (the trace at level 4 when it is there).
  void ScanArguments(const std::vector<std::u16string>& arguments);
  void PutFile(const std::string& name, const std::vector<uint8_t>& bytes, size_t volume = 0);

  // ---- the scripted firmware ----
  // Answers the function with the codes in turn; the last one repeats.
  void AnswerCodes(uint8_t function, std::vector<uint8_t> codes);
  // Physical memory outside the driver's own (scripted firmware): bytes at address.
  void Place(uint32_t address, const std::vector<uint8_t>& bytes);
  // Secure Boot support is the presence of the SetupMode variable.
  void SetSecureBoot();

  // ---- output ----
  std::vector<OblisRegisters> SmiCallsOf(uint8_t function) const;
  std::string Log(size_t volume = 0) const;
  std::string Console() const;
  std::string ReadVolumeFile(const std::string& name, size_t volume = 0) const;
  // From here on the console's colour changes stand in Painted() where they happened, as "<4F>".
  void PaintConsole();
  std::string Painted() const;
  const fs::path& Volume(size_t index) const { return volumes_.at(index); }
  emu::Environment& Environment() { return *environment_; }
  sim::Simulator& Simulator() { return *simulator_; }

  // Every SMI call in order; the answers per function of the scripted firmware (also taken
  // before the simulator when set).
  std::vector<OblisRegisters> smiCalls;
  // With BedSetup::recordConsole: "Out:text", "Clear", "Attr:4F", "Cursor:0,6", "CursorOn",
  // "CursorOff"; each answers outputStatus.
  std::vector<std::string> consoleCalls;
  EFI_STATUS outputStatus = EFI_SUCCESS;
  std::map<uint8_t, Handler> answers;
  // Register widths of each port read, and PCI configuration reads.
  std::vector<int> ioWidths;
  // Address and length of each read of physical memory.
  std::vector<std::pair<uint32_t, uint32_t>> physicalReads;
  int pciReads = 0;

 private:
  uint8_t ReadScripted(uint32_t address) const;
  void RecordConsole();
  static EFI_STATUS Record(const std::string& call);
  void PlaceDefaultPlatform(emu::Options& options);

  fs::path root_;
  std::vector<fs::path> volumes_;
  std::FILE* console_ = nullptr;
  std::map<uint32_t, std::vector<uint8_t>> memory_;
  std::unique_ptr<sim::Simulator> simulator_;
  std::unique_ptr<emu::Environment> environment_;
  std::vector<std::u16string> arguments_;
  std::vector<CHAR16*> argumentPointers_;
  std::vector<char> iniText_;
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL recordingOut_{}, emulatedOut_{};
  inline static DriverBed* recording_ = nullptr;
  std::vector<std::pair<size_t, UINTN>> colours_;
  EFI_STATUS(EFIAPI* setAttribute_)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL*, UINTN) = nullptr;
};

}  // namespace bed

// ---- the scripted bed and the answers of the map functions, for the oblis and update tests ----
namespace bed {

class ScriptedBed : public DriverBed {
 protected:
  BedSetup Layout() const override { return {.firmware = Firmware::Scripted}; }
};
// The scripted firmware, no settings loaded and no trace unless the test turns it on.
class QuietBed : public DriverBed {
 protected:
  BedSetup Layout() const override { return {.firmware = Firmware::Scripted, .log = false}; }
};

void PutU32(uint8_t* at, uint32_t value);
struct MapRegion {
  uint8_t type;
  uint32_t address, size;
};
// 13h: a part of the size index (and the size for index FFh) and a block map of (block size in
// 256 bytes, count), ended by FFFFh or, when not ended, followed by bytes 01h.
DriverBed::Handler FlashPartAnswer(uint8_t sizeIndex, std::vector<std::pair<uint16_t, uint16_t>> map,
                                   uint32_t sizeSpecified = 0, bool ended = true);
// 12h: the private list (types ignored) at ESI and the protection list at EDI, each ended.
DriverBed::Handler PlatformMapsAnswer(std::vector<MapRegion> privates, std::vector<MapRegion> protections);
// 1Eh: the whole ROM map at EDI, ended.
DriverBed::Handler WholeMapAnswer(std::vector<MapRegion> regions);

}  // namespace bed
