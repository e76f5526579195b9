// zaprom-sim: runs the command-line host ZAPROM-S (or the launcher kobaltApp on a launcher file)
// and the driver on Linux, against the emulated UEFI environment and the simulated firmware of a
// described machine. It reads and writes back the flash file and the EC file; what the tool does
// with the machine is the driver's and the simulator's.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "KobaltApp.h"
#include "Simulator.h"
#include "UefiEmu.h"
#include "ZaPromShell.h"
#include "frame/Frame.h"
#include "image/Image.h"

namespace {

constexpr int kExitUsage = 2;
// The machine lost power in the middle of a write (power_cut_after_writes).
constexpr int kExitPowerLost = 4;
constexpr char kPowerLostMessage[] = "zaprom-sim: power lost during a write\n";
// The tool returned with pool memory or pages it never gave back, or wrote past a pool block.
constexpr int kExitLeak = 5;
// Enter presses a run from a script gets when it waits for a key: the whole help's pages and a
// few pauses, never an endless wait loop.
constexpr unsigned kEntersForAScript = 16;

const char kUsage[] =
    "usage: zaprom-sim [--machine FILE] [--flash FILE] [--ec FILE] [--volume DIR] [--keys TEXT]\n"
    "                  [--trace-smi FILE] [--variables FILE] [--program NAME] [--stats FILE]\n"
    "                  [--] [tool arguments...]\n"
    "       zaprom-sim [options] --launcher FILE\n";

struct FrontEndOptions {
  std::string machineFile;
  std::string flashFile;
  std::string ecFile;
  std::string volume = ".";
  std::string keys;
  bool keysGiven = false;
  std::string traceFile;
  std::string variablesFile;
  std::string launcherFile;
  std::string statsFile;
  // Argument 0 of the tool: the file the shell started, which a package reads itself from.
  std::string program = "ZAPROM-S.efi";
  std::vector<std::string> toolArguments;
};

[[noreturn]] void UsageError(const std::string& message, bool showUsage = true) {
  std::fprintf(stderr, "zaprom-sim: %s\n%s", message.c_str(), showUsage ? kUsage : "");
  std::exit(kExitUsage);
}

// Options of the front end come first; the first word that is not one of them (or everything
// after "--") belongs to the tool, whose own options start with a single '-'.
FrontEndOptions ParseCommandLine(int argc, char** argv) {
  FrontEndOptions options;
  struct Valued {
    const char* name;
    std::string FrontEndOptions::*field;
  };
  const Valued valued[] = {
      {"--machine", &FrontEndOptions::machineFile}, {"--flash", &FrontEndOptions::flashFile},
      {"--ec", &FrontEndOptions::ecFile},           {"--volume", &FrontEndOptions::volume},
      {"--keys", &FrontEndOptions::keys},
      {"--trace-smi", &FrontEndOptions::traceFile}, {"--variables", &FrontEndOptions::variablesFile},
      {"--launcher", &FrontEndOptions::launcherFile}, {"--program", &FrontEndOptions::program},
      {"--stats", &FrontEndOptions::statsFile},
  };
  int i = 1;
  for (; i < argc; ++i) {
    std::string word = argv[i];
    if (word == "--") {
      ++i;
      break;
    }
    if (word == "--help") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    }
    if (word.rfind("--", 0) != 0) break;
    bool known = false;
    for (const Valued& option : valued) {
      if (word != option.name) continue;
      if (i + 1 >= argc) UsageError("option " + word + " needs a value");
      options.*option.field = argv[++i];
      options.keysGiven = options.keysGiven || option.field == &FrontEndOptions::keys;
      known = true;
    }
    if (!known) UsageError("unknown option " + word);
  }
  for (; i < argc; ++i) options.toolArguments.push_back(argv[i]);
  if (!options.launcherFile.empty() && !options.toolArguments.empty())
    UsageError("the launcher takes no tool arguments: " + options.toolArguments.front());
  return options;
}

bool ParseVolumeKind(const std::string& text, emu::VolumeKind& kind) {
  if (text == "usb" || text.empty()) kind = emu::VolumeKind::Usb;
  else if (text == "sata") kind = emu::VolumeKind::Sata;
  else if (text == "emmc") kind = emu::VolumeKind::Emmc;
  else if (text == "other") kind = emu::VolumeKind::Other;
  else return false;
  return true;
}

// What must happen however the run ends: the flash file, the EC file and the trace reach the disk.
struct RunEnd {
  std::string flashFile;
  std::string ecFile;
  std::string statsFile;
  sim::Simulator* simulator = nullptr;
  std::ofstream* trace = nullptr;
  emu::Environment* environment = nullptr;
  // The launcher's status, the first line of the front end's own when it ran.
  std::string statusLine;

  void WriteBack() const {
    if (trace != nullptr) trace->flush();
    if (simulator == nullptr) return;
    // A part kept in its file is there already, up to its last erase or program.
    if (!simulator->FlashInFile()) Save(flashFile, simulator->Flash(), "flash");
    Save(ecFile, simulator->Ec(), "EC");
    SaveStats();
  }

  // What the part did and which calls reached the firmware, as one JSON object for a script.
  void SaveStats() const {
    if (statsFile.empty()) return;
    const sim::FlashCounters c = simulator->Counters();
    nlohmann::json byFunction = nlohmann::json::object();
    for (uint8_t function : simulator->CallLog()) {
      char name[8];
      std::snprintf(name, sizeof name, "%02Xh", function);
      byFunction[name] = byFunction.value(name, 0) + 1;
    }
    const nlohmann::json stats = {{"smi_calls", simulator->CallLog().size()}, {"by_function", byFunction},
                                  {"erases", c.erases}, {"page_programs", c.pagePrograms}, {"bytes_read", c.bytesRead},
                                  {"blocks_written", c.written}, {"compared_equal", c.comparedEqual},
                                  {"verified", c.verified}, {"modelled_ns", c.modelledNanoseconds}};
    std::ofstream out(statsFile, std::ios::trunc);
    out << stats.dump() << "\n";
    if (!out) std::fprintf(stderr, "zaprom-sim: cannot write the stats file %s\n", statsFile.c_str());
  }

  static void Save(const std::string& file, const std::vector<uint8_t>& content, const char* what) {
    if (file.empty()) return;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
    if (!out) std::fprintf(stderr, "zaprom-sim: cannot write the %s file %s\n", what, file.c_str());
  }

  // What the flash went through, on stdout after everything the tool printed; before it, what
  // the tool wrote to the CMOS clock, if anything.
  void PrintSummary() const {
    if (environment != nullptr) environment->FlushConsole();
    if (simulator == nullptr) return;
    std::fflush(stdout);
    std::printf("\n");
    if (!statusLine.empty()) std::printf("zaprom-sim: %s\n", statusLine.c_str());
    const std::string clock = simulator->RealTimeClock().WritesSummary();
    if (!clock.empty()) std::printf("zaprom-sim: %s\n", clock.c_str());
    std::printf("zaprom-sim: %s\n", simulator->Summary().c_str());
    std::fflush(stdout);
  }

  [[noreturn]] void Exit(int status) const {
    WriteBack();
    PrintSummary();
    std::fflush(nullptr);
    std::_Exit(status);  // from deep inside the tool: no unwinding through its frames
  }
};

// Tells on stderr what the tool left allocated; true when it left nothing. Only a run that ran
// to its end is asked: a reset or a power loss takes the memory with the machine.
bool ReportLiveBlocks(const emu::Environment& environment) {
  const std::vector<emu::LiveBlock> live = environment.LiveBlocks();
  if (live.empty()) return true;
  uint64_t bytes = 0;
  for (const emu::LiveBlock& block : live) bytes += block.size;
  std::fprintf(stderr, "zaprom-sim: %zu block%s (%llu bytes) still allocated when the tool returned\n", live.size(),
               live.size() == 1 ? "" : "s", static_cast<unsigned long long>(bytes));
  // The first ones are named; a block lost on every pass of a loop would otherwise bury the rest.
  constexpr size_t kNamed = 16;
  for (size_t i = 0; i < live.size() && i < kNamed; ++i)
    std::fprintf(stderr, "zaprom-sim:   %s of %llu bytes, allocation %llu, called from 0x%llx: %s\n",
                 live[i].pool ? "pool block" : "page range", static_cast<unsigned long long>(live[i].size),
                 static_cast<unsigned long long>(live[i].serial), static_cast<unsigned long long>(live[i].caller),
                 live[i].content.c_str());
  if (live.size() > kNamed) std::fprintf(stderr, "zaprom-sim:   and %zu more\n", live.size() - kNamed);
  return false;
}

// The launcher's own image: the whole launcher file, as the firmware would have loaded it.
std::vector<uint8_t> ReadLauncherFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) UsageError("cannot read the launcher file " + path, false);
  std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (bytes.size() > UINT32_MAX) UsageError("the launcher file " + path + " is larger than 4 GB", false);
  return bytes;
}

// Tool arguments are file names and options: UTF-8 on the host, UCS-2 for the tool.
std::u16string Widen(const std::string& argument) {
  std::u16string wide;
  for (size_t i = 0; i < argument.size();) {
    unsigned char b = static_cast<unsigned char>(argument[i]);
    uint32_t c = b;
    size_t extra = b < 0x80 ? 0 : (b & 0xE0) == 0xC0 ? 1 : (b & 0xF0) == 0xE0 ? 2 : 3;
    if (extra > 0) c = b & (0x3F >> extra);
    for (size_t k = 1; k <= extra && i + k < argument.size(); ++k) c = (c << 6) | (argument[i + k] & 0x3F);
    wide += static_cast<char16_t>(c > 0xFFFF ? 0xFFFD : c);
    i += extra + 1;
  }
  return wide;
}

// The shell host as the Shell starts it, with the tool arguments behind the program's own name.
EFI_STATUS RunShellHost(emu::Environment& environment, const std::string& program,
                        const std::vector<std::string>& toolArguments) {
  // The Shell hands argument 0 over as the file's whole path, volume first.
  std::vector<std::u16string> arguments = {u"FS0:\\" + Widen(program)};
  for (const std::string& argument : toolArguments) arguments.push_back(Widen(argument));
  EFI_HANDLE host = environment.CreateImageHandle(Widen(program), arguments);
  return ZaPromShellEntry(host, environment.SystemTable());
}

const char* ResetName(EFI_RESET_TYPE type) {
  switch (type) {
    case EfiResetCold: return "cold reset";
    case EfiResetWarm: return "warm reset";
    case EfiResetShutdown: return "shutdown";
    default: return "platform-specific reset";
  }
}

}  // namespace

int main(int argc, char** argv) {
  FrontEndOptions options = ParseCommandLine(argc, argv);
  std::vector<uint8_t> launcher;
  if (!options.launcherFile.empty()) launcher = ReadLauncherFile(options.launcherFile);

  sim::Machine machine;
  std::vector<uint8_t> flash;
  std::string loadError;
  if (!sim::LoadMachineAndFlash(options.machineFile, options.flashFile, machine, flash, loadError))
    UsageError(loadError, false);
  std::vector<uint8_t> ec;
  if (!sim::LoadEcContent(machine, options.ecFile, ec, loadError)) UsageError(loadError, false);
  std::filesystem::path machineDirectory =
      options.machineFile.empty() ? std::filesystem::path(".") : std::filesystem::path(options.machineFile).parent_path();

  std::vector<EFI_INPUT_KEY> keys;
  std::string keyError;
  if (!emu::ParseKeys(options.keys, keys, keyError)) UsageError("--keys: " + keyError);

  emu::Options environmentOptions;
  environmentOptions.volumes.push_back({options.volume, emu::VolumeKind::Usb});
  for (const sim::VolumeDescription& volume : machine.volumes) {
    emu::VolumeSpec spec;
    spec.hostDirectory = (machineDirectory / volume.path).string();
    if (!ParseVolumeKind(volume.kind, spec.kind))
      UsageError("machine volume " + volume.path + ": unknown kind \"" + volume.kind + "\" (usb, sata, emmc, other)",
                 false);
    environmentOptions.volumes.push_back(spec);
  }
  environmentOptions.keys = options.keys;
  // Run from a script without --keys, the help's pager and the pauses go on by themselves.
  if (!options.keysGiven && isatty(STDIN_FILENO) == 0) environmentOptions.enterWhenWaiting = kEntersForAScript;
  environmentOptions.ansiConsole = isatty(STDOUT_FILENO) != 0;
  environmentOptions.variablesFile = options.variablesFile;
  environmentOptions.keepStallCalls = false;
  // The firmware's time and the CMOS clock are one clock: the machine's time of day starts both.
  environmentOptions.clockStart.Hour = machine.rtc.time.hour;
  environmentOptions.clockStart.Minute = machine.rtc.time.minute;
  environmentOptions.clockStart.Second = machine.rtc.time.second;

  // The simulator reaches the tool's memory only where the environment handed it out.
  emu::Environment* environmentForMemory = nullptr;
  sim::MemoryAccess memory;
  memory.read = [&environmentForMemory](uint32_t address, void* out, uint32_t length) {
    if (environmentForMemory == nullptr || !environmentForMemory->ContainsAddress(address, length)) return false;
    std::memcpy(out, reinterpret_cast<const void*>(uintptr_t{address}), length);
    return true;
  };
  memory.write = [&environmentForMemory](uint32_t address, const void* data, uint32_t length) {
    if (environmentForMemory == nullptr || !environmentForMemory->ContainsAddress(address, length)) return false;
    std::memcpy(reinterpret_cast<void*>(uintptr_t{address}), data, length);
    return true;
  };
  sim::Simulator simulator(machine, std::move(flash), memory, std::move(ec));
  // The part lives in its file for the run, as a chip lives outside the machine's RAM, so that
  // the run's memory is the tool's and its environment's own.
  if (!options.flashFile.empty() && !simulator.KeepFlashInFile(options.flashFile, loadError))
    UsageError("cannot write the flash file " + loadError, false);

  std::unique_ptr<std::ofstream> trace;
  if (!options.traceFile.empty()) {
    trace = std::make_unique<std::ofstream>(options.traceFile, std::ios::trunc);
    if (!*trace) UsageError("cannot write the trace file " + options.traceFile, false);
    simulator.SetTrace(trace.get());
  }

  if (simulator.Acpi10Rsdp() != 0)
    environmentOptions.configurationTables.push_back(
        {kAcpi10TableGuid, reinterpret_cast<VOID*>(uintptr_t{simulator.Acpi10Rsdp()})});
  if (simulator.Acpi20Rsdp() != 0)
    environmentOptions.configurationTables.push_back(
        {kAcpi20TableGuid, reinterpret_cast<VOID*>(uintptr_t{simulator.Acpi20Rsdp()})});

  // The machine's PCI configuration space sits behind the emulated root bridge.
  environmentOptions.pciRead = [&simulator](uint8_t bus, uint8_t device, uint8_t function, uint8_t offset) {
    return simulator.PciRead(bus, device, function, offset);
  };

  emu::Environment environment(environmentOptions);
  environmentForMemory = &environment;
  simulator.RealTimeClock().SetClock([&environment] {
    EFI_TIME now{};
    environment.SystemTable()->RuntimeServices->GetTime(&now, nullptr);
    return sim::RtcDateTime{now.Year, now.Month, now.Day, {now.Hour, now.Minute, now.Second}};
  });
  if (!environment.SetupError().empty()) UsageError(environment.SetupError(), false);
  for (const sim::Variable& variable : machine.variables)
    environment.PresetVariable(variable.name, variable.guid, variable.attributes, variable.data);

  RunEnd runEnd{options.flashFile, options.ecFile, options.statsFile, &simulator, trace.get(), &environment};
  environment.SetKeysExhaustedHandler([&runEnd] { runEnd.Exit(emu::kExitNoKeysLeft); });
  environment.SetResetHandler([&runEnd](EFI_RESET_TYPE type) {
    std::fprintf(stderr, "zaprom-sim: the tool asked for a %s; the run ends here\n", ResetName(type));
    runEnd.Exit(0);
  });
  // A real machine stops dead: what the flash holds at that moment is what the file gets.
  simulator.SetPowerLossHandler([&runEnd, &environment] {
    environment.FlushConsole();
    std::fflush(stdout);
    std::fputs(kPowerLostMessage, stderr);
    runEnd.Exit(kExitPowerLost);
  });

  emu::PlatformBackend backend;
  backend.smi = [&simulator](OblisRegisters& frame) { simulator.Transact(frame); };
  backend.ioRead = [&simulator](uint16_t port, int width) { return simulator.IoRead(port, width); };
  backend.ioWrite8 = [&simulator](uint16_t port, uint8_t value) { simulator.IoWrite8(port, value); };
  backend.readPhysical = [&simulator](uint32_t address, void* out, uint32_t length) {
    return simulator.ReadPhysical(address, out, length);
  };
  emu::SetPlatformBackend(backend);

  // A driver handed to LoadImage in a buffer brings its slot chain into the linked driver's.
  environment.RegisterLinkedImage(u"kobalt.efi", KobaltDriverEntry, const_cast<UINT8*>(DriverSlotChain()),
                                  DriverSlotChainSize());
  EFI_STATUS status = EFI_SUCCESS;
  if (!options.launcherFile.empty()) {
    EFI_HANDLE host = environment.CreateImageHandle(u"kobaltApp.efi", {});
    status = KobaltAppMain(host, environment.SystemTable(), {launcher.data(), static_cast<UINT32>(launcher.size())});
    char line[64];
    std::snprintf(line, sizeof line, "kobaltApp returned 0x%llX", static_cast<unsigned long long>(status));
    runEnd.statusLine = line;
  } else {
    status = RunShellHost(environment, options.program, options.toolArguments);
  }
  std::fflush(stdout);
  runEnd.WriteBack();
  runEnd.PrintSummary();
  if (!ReportLiveBlocks(environment)) return kExitLeak;
  if (environment.PoolOverruns() != 0) {
    std::fprintf(stderr, "zaprom-sim: %llu pool block%s written past the end\n",
                 static_cast<unsigned long long>(environment.PoolOverruns()), environment.PoolOverruns() == 1 ? "" : "s");
    return kExitLeak;
  }
  if (environment.BadFrees() != 0) {
    std::fprintf(stderr, "zaprom-sim: %llu FreePool call%s of memory that was no pool block\n",
                 static_cast<unsigned long long>(environment.BadFrees()), environment.BadFrees() == 1 ? "" : "s");
    return kExitLeak;
  }
  return status == EFI_SUCCESS ? 0 : 1;
}
