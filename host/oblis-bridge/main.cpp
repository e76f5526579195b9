// oblis-bridge: the firmware simulator beside a virtual machine. The bridge variant of the driver
// (kobalt-bridge.efi) hands each SMI transaction to this program through a shared-memory device
// (QEMU's ivshmem-plain over a file both map). The simulator answers as it does under zaprom-sim,
// with the same machine file, flash file, EC file and trace, and reaches the guest's buffers by
// asking the guest for them. The flash and EC files are written back when the run ends (SIGTERM
// or SIGINT, sent once QEMU has finished).
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Simulator.h"

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitPowerLost = 4;
constexpr char kGreeting[] = "OBLIS-BRIDGE/2";
constexpr size_t kSharedBytes = 1u << 20;

// The layout the guest's BridgeSeams.cpp shares: two mailboxes (sequence, kind, address or
// status, length, register frame), the guest's greeting, and the data window.
constexpr size_t kGuestMailbox = 0x00;
constexpr size_t kHostMailbox = 0x40;
constexpr size_t kGreetingOffset = 0x80;
constexpr size_t kWindowOffset = 0x1000;
constexpr size_t kWindowBytes = kSharedBytes - kWindowOffset;
constexpr size_t kSequence = 0, kKind = 4, kAddress = 8, kLength = 12, kFrame = 16;

const char kUsage[] =
    "usage: oblis-bridge --shared-memory FILE [--machine FILE] [--flash FILE] [--ec FILE] [--trace-smi FILE]\n"
    "  Creates FILE (1 MB) for QEMU's -object memory-backend-file,share=on,mem-path=FILE,size=1M\n"
    "  -device ivshmem-plain and answers the SMI transactions of kobalt-bridge.efi until SIGTERM.\n";

struct Options {
  std::string sharedFile;
  std::string machineFile;
  std::string flashFile;
  std::string ecFile;
  std::string traceFile;
};

volatile std::sig_atomic_t gStop = 0;

[[noreturn]] void Fail(const std::string& message, int status = kExitUsage) {
  std::fprintf(stderr, "oblis-bridge: %s\n", message.c_str());
  std::exit(status);
}

Options ParseCommandLine(int argc, char** argv) {
  Options options;
  struct Valued {
    const char* name;
    std::string Options::*field;
  };
  const Valued valued[] = {{"--shared-memory", &Options::sharedFile},
                           {"--machine", &Options::machineFile},
                           {"--flash", &Options::flashFile},
                           {"--ec", &Options::ecFile},
                           {"--trace-smi", &Options::traceFile}};
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    if (word == "--help") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    }
    bool known = false;
    for (const Valued& option : valued) {
      if (word != option.name) continue;
      if (i + 1 >= argc) Fail("option " + word + " needs a value\n" + kUsage);
      options.*option.field = argv[++i];
      known = true;
    }
    if (!known) Fail("unknown option " + word + "\n" + kUsage);
  }
  if (options.sharedFile.empty()) Fail(std::string("--shared-memory is required\n") + kUsage);
  return options;
}

// The host's side of the shared memory, with counts for the channel's figures.
class SharedLine {
 public:
  explicit SharedLine(uint8_t* memory) : memory_(memory) {}

  std::atomic_ref<uint32_t> Field(size_t mailbox, size_t field) {
    return std::atomic_ref<uint32_t>(*reinterpret_cast<uint32_t*>(memory_ + mailbox + field));
  }
  // The next message of the guest: its kind, or 0 once the run is to end.
  uint32_t AwaitGuest() {
    auto sequence = Field(kGuestMailbox, kSequence);
    for (uint32_t spins = 0; sequence.load(std::memory_order_acquire) == guestSequence_; ++spins) {
      if (gStop) return 0;
      // A short spin keeps a transaction's turns quick; a guest that is busy elsewhere (booting,
      // comparing a block) gets the processor back.
      if (spins > 2000) std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    guestSequence_ = sequence.load(std::memory_order_acquire);
    return Field(kGuestMailbox, kKind).load(std::memory_order_acquire);
  }
  void Post(uint32_t kind) {
    Field(kHostMailbox, kKind).store(kind, std::memory_order_release);
    Field(kHostMailbox, kSequence).fetch_add(1, std::memory_order_acq_rel);
  }
  void GetFrame(size_t mailbox, OblisRegisters& frame) {
    std::memcpy(&frame, memory_ + mailbox + kFrame, sizeof(frame));
  }
  void PutFrame(const OblisRegisters& frame) { std::memcpy(memory_ + kHostMailbox + kFrame, &frame, sizeof(frame)); }
  std::string Greeting() const {
    const char* text = reinterpret_cast<const char*>(memory_ + kGreetingOffset);
    return std::string(text, strnlen(text, 64));
  }
  // One request for the guest's memory, in pieces of the window's size.
  bool Memory(uint32_t kind, uint32_t address, uint8_t* bytes, uint32_t length) {
    for (uint32_t done = 0; done < length || length == 0;) {
      const uint32_t piece = std::min<uint32_t>(length - done, kWindowBytes);
      if (kind == 'W') std::memcpy(memory_ + kWindowOffset, bytes + done, piece);
      Field(kHostMailbox, kAddress).store(address + done, std::memory_order_relaxed);
      Field(kHostMailbox, kLength).store(piece, std::memory_order_relaxed);
      Post(kind);
      if (AwaitGuest() != 'D') Fail("the guest left in the middle of a transaction", 1);
      if (Field(kGuestMailbox, kAddress).load(std::memory_order_acquire) != 1) return false;
      if (kind == 'R') std::memcpy(bytes + done, memory_ + kWindowOffset, piece);
      (kind == 'R' ? bytesToHost : bytesToGuest) += piece;
      done += piece;
      if (length == 0) break;
    }
    return true;
  }

  uint64_t bytesToGuest = 0;
  uint64_t bytesToHost = 0;

 private:
  uint8_t* memory_;
  uint32_t guestSequence_ = 0;
};

uint8_t* MapSharedFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  if (fd < 0 || ::ftruncate(fd, kSharedBytes) != 0) Fail("cannot create the shared memory file " + path);
  void* memory = ::mmap(nullptr, kSharedBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (memory == MAP_FAILED) Fail("cannot map " + path);
  return static_cast<uint8_t*>(memory);
}

}  // namespace

int main(int argc, char** argv) {
  Options options = ParseCommandLine(argc, argv);

  sim::Machine machine;
  std::vector<uint8_t> flash;
  std::string loadError;
  if (!sim::LoadMachineAndFlash(options.machineFile, options.flashFile, machine, flash, loadError)) Fail(loadError);
  std::string flashProblem = sim::ValidateFlashContent(machine, flash);
  if (!flashProblem.empty()) Fail(flashProblem);
  std::vector<uint8_t> ec;
  if (!sim::LoadEcContent(machine, options.ecFile, ec, loadError)) Fail(loadError);

  std::unique_ptr<std::ofstream> trace;
  if (!options.traceFile.empty()) {
    trace = std::make_unique<std::ofstream>(options.traceFile, std::ios::trunc);
    if (!*trace) Fail("cannot write the trace file " + options.traceFile);
  }

  SharedLine line(MapSharedFile(options.sharedFile));
  std::signal(SIGTERM, [](int) { gStop = 1; });
  std::signal(SIGINT, [](int) { gStop = 1; });
  // Announced on stdout once the memory is there, so that a runner starts QEMU only then.
  std::printf("oblis-bridge: ready on %s\n", options.sharedFile.c_str());
  std::fflush(stdout);

  sim::MemoryAccess memory;
  memory.read = [&line](uint32_t address, void* out, uint32_t length) {
    return line.Memory('R', address, static_cast<uint8_t*>(out), length);
  };
  memory.write = [&line](uint32_t address, const void* data, uint32_t length) {
    return line.Memory('W', address, const_cast<uint8_t*>(static_cast<const uint8_t*>(data)), length);
  };
  sim::Simulator simulator(machine, std::move(flash), memory, std::move(ec));
  if (trace) simulator.SetTrace(trace.get());

  auto save = [](const std::string& file, const std::vector<uint8_t>& content, const char* what) {
    if (file.empty()) return;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
    if (!out) std::fprintf(stderr, "oblis-bridge: cannot write the %s file %s\n", what, file.c_str());
  };
  auto writeBack = [&] {
    if (trace) trace->flush();
    save(options.flashFile, simulator.Flash(), "flash");
    save(options.ecFile, simulator.Ec(), "EC");
  };
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  Clock::duration inTransactions{};
  uint64_t transactions = 0;
  auto figures = [&] {
    auto seconds = [](Clock::duration d) { return std::chrono::duration<double>(d).count(); };
    std::printf("oblis-bridge: %s\n", simulator.Summary().c_str());
    std::fprintf(stderr,
                 "oblis-bridge: %llu transactions, %llu bytes to the guest, %llu from it, %.2f s in transactions"
                 " of %.2f s\n",
                 static_cast<unsigned long long>(transactions), static_cast<unsigned long long>(line.bytesToGuest),
                 static_cast<unsigned long long>(line.bytesToHost), seconds(inTransactions), seconds(Clock::now() - start));
    std::fflush(nullptr);
  };
  // A real machine stops dead: the guest is told to stop, the flash keeps what it holds now.
  simulator.SetPowerLossHandler([&] {
    writeBack();
    line.Post('P');
    std::fprintf(stderr, "oblis-bridge: power lost during a write\n");
    figures();
    std::_Exit(kExitPowerLost);
  });

  for (uint32_t kind = line.AwaitGuest(); kind != 0; kind = line.AwaitGuest()) {
    if (kind != 'T') {
      char text[80];
      std::snprintf(text, sizeof(text), "unexpected message 0x%02X from the guest", kind);
      Fail(text, 1);
    }
    if (transactions == 0 && line.Greeting() != kGreeting)
      Fail("the guest greets with \"" + line.Greeting() + "\", not " + kGreeting, 1);
    const Clock::time_point begin = Clock::now();
    OblisRegisters frame{};
    line.GetFrame(kGuestMailbox, frame);
    simulator.Transact(frame);
    line.PutFrame(frame);
    line.Post('A');
    inTransactions += Clock::now() - begin;
    ++transactions;
  }
  writeBack();
  figures();
  return 0;
}
