// oblis-bridge: the firmware simulator beside a virtual machine. The bridge variant of the driver
// (kobalt-bridge.efi) sends each SMI transaction over the guest's serial port COM3; QEMU hands
// that port to this program through a Unix socket. The simulator answers as it does under
// zaprom-sim, with the same machine file, flash file and trace, and reaches the guest's buffers
// by asking the guest for them. The flash file is written back when the guest goes away.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Simulator.h"

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitPowerLost = 4;
constexpr char kGreeting[] = "OBLIS-BRIDGE/1";

const char kUsage[] =
    "usage: oblis-bridge --socket PATH [--machine FILE] [--flash FILE] [--trace-smi FILE]\n"
    "  Listens on the Unix socket PATH for the guest's serial port (QEMU: -chardev socket,id=ID,path=PATH\n  -device isa-serial,chardev=ID,index=2)\n"
    "  and answers the SMI transactions of kobalt-bridge.efi until the guest disconnects.\n";

struct Options {
  std::string socketPath;
  std::string machineFile;
  std::string flashFile;
  std::string traceFile;
};

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
  const Valued valued[] = {{"--socket", &Options::socketPath},
                           {"--machine", &Options::machineFile},
                           {"--flash", &Options::flashFile},
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
  if (options.socketPath.empty()) Fail(std::string("--socket is required\n") + kUsage);
  return options;
}

bool ReadWholeFile(const std::string& path, std::string& content) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::stringstream text;
  text << in.rdbuf();
  content = text.str();
  return !in.bad();
}

// The guest's end of the line, with counts for the channel's figures.
class Line {
 public:
  explicit Line(int fd) : fd_(fd) {}

  // False when the guest has gone (QEMU ended).
  bool Receive(void* out, size_t length) {
    uint8_t* to = static_cast<uint8_t*>(out);
    while (length > 0) {
      ssize_t got = ::read(fd_, to, length);
      if (got <= 0) return false;
      to += got;
      length -= static_cast<size_t>(got);
      bytesIn += static_cast<uint64_t>(got);
    }
    return true;
  }
  void Send(const void* data, size_t length) {
    const uint8_t* from = static_cast<const uint8_t*>(data);
    while (length > 0) {
      ssize_t put = ::write(fd_, from, length);
      if (put <= 0) Fail("the guest's serial line closed in the middle of a transaction", 1);
      from += put;
      length -= static_cast<size_t>(put);
      bytesOut += static_cast<uint64_t>(put);
    }
  }
  void ReceiveOrFail(void* out, size_t length) {
    if (!Receive(out, length)) Fail("the guest's serial line closed in the middle of a transaction", 1);
  }

  uint64_t bytesIn = 0;
  uint64_t bytesOut = 0;

 private:
  int fd_;
};

void PutU32(std::vector<uint8_t>& bytes, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) bytes.push_back(static_cast<uint8_t>(value >> shift));
}

uint32_t GetU32(const uint8_t* bytes) {
  return uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
}

int ListenAndAccept(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) Fail("socket path too long: " + path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  int server = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (server < 0) Fail("cannot create a socket");
  ::unlink(path.c_str());
  if (::bind(server, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || ::listen(server, 1) != 0)
    Fail("cannot listen on " + path);
  int connection = ::accept(server, nullptr, nullptr);
  if (connection < 0) Fail("accept failed on " + path);
  ::close(server);
  ::unlink(path.c_str());
  return connection;
}

}  // namespace

int main(int argc, char** argv) {
  Options options = ParseCommandLine(argc, argv);

  sim::Machine machine = sim::DefaultMachine();
  if (!options.machineFile.empty()) {
    std::string text, error;
    if (!ReadWholeFile(options.machineFile, text)) Fail("cannot read the machine file " + options.machineFile);
    if (!sim::ParseMachine(text, machine, error)) Fail(options.machineFile + ": " + error);
  }
  std::vector<uint8_t> flash;
  if (!options.flashFile.empty() && std::filesystem::exists(options.flashFile)) {
    std::string content;
    if (!ReadWholeFile(options.flashFile, content)) Fail("cannot read the flash file " + options.flashFile);
    flash.assign(content.begin(), content.end());
  }
  std::string flashProblem = sim::ValidateFlashContent(machine, flash);
  if (!flashProblem.empty()) Fail(flashProblem);

  std::unique_ptr<std::ofstream> trace;
  if (!options.traceFile.empty()) {
    trace = std::make_unique<std::ofstream>(options.traceFile, std::ios::trunc);
    if (!*trace) Fail("cannot write the trace file " + options.traceFile);
  }

  // Announced on stdout once the socket listens, so that a runner starts QEMU only then.
  std::printf("oblis-bridge: listening on %s\n", options.socketPath.c_str());
  std::fflush(stdout);
  Line line(ListenAndAccept(options.socketPath));

  sim::MemoryAccess memory;
  memory.read = [&line](uint32_t address, void* out, uint32_t length) {
    std::vector<uint8_t> request{'R'};
    PutU32(request, address);
    PutU32(request, length);
    line.Send(request.data(), request.size());
    uint8_t status = 0;
    line.ReceiveOrFail(&status, 1);
    if (status != 1) return false;
    line.ReceiveOrFail(out, length);
    return true;
  };
  memory.write = [&line](uint32_t address, const void* data, uint32_t length) {
    std::vector<uint8_t> request{'W'};
    PutU32(request, address);
    PutU32(request, length);
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    request.insert(request.end(), bytes, bytes + length);
    line.Send(request.data(), request.size());
    uint8_t status = 0;
    line.ReceiveOrFail(&status, 1);
    return status == 1;
  };
  sim::Simulator simulator(machine, std::move(flash), memory);
  if (trace) simulator.SetTrace(trace.get());

  auto writeBack = [&] {
    if (trace) trace->flush();
    if (options.flashFile.empty()) return;
    std::ofstream out(options.flashFile, std::ios::binary | std::ios::trunc);
    const std::vector<uint8_t>& content = simulator.Flash();
    out.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
    if (!out) std::fprintf(stderr, "oblis-bridge: cannot write the flash file %s\n", options.flashFile.c_str());
  };
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  Clock::duration inTransactions{};
  uint64_t transactions = 0;
  auto figures = [&] {
    auto seconds = [](Clock::duration d) { return std::chrono::duration<double>(d).count(); };
    std::printf("oblis-bridge: %s\n", sim::SummaryText(simulator.Counters()).c_str());
    std::fprintf(stderr,
                 "oblis-bridge: %llu transactions, %llu bytes to the guest, %llu from it, %.2f s in transactions"
                 " of %.2f s connected\n",
                 static_cast<unsigned long long>(transactions), static_cast<unsigned long long>(line.bytesOut),
                 static_cast<unsigned long long>(line.bytesIn), seconds(inTransactions), seconds(Clock::now() - start));
    std::fflush(nullptr);
  };
  // A real machine stops dead: the guest is told to stop, the flash keeps what it holds now.
  simulator.SetPowerLossHandler([&] {
    writeBack();
    const uint8_t stop = 'P';
    line.Send(&stop, 1);
    std::fprintf(stderr, "oblis-bridge: power lost during a write\n");
    figures();
    std::_Exit(kExitPowerLost);
  });

  bool greeted = false;
  uint8_t kind = 0;
  while (line.Receive(&kind, 1)) {
    if (kind == 'H') {
      std::string greeting;
      char c = 0;
      while (line.Receive(&c, 1) && c != 0) greeting.push_back(c);
      if (greeting != kGreeting) Fail("the guest greets with \"" + greeting + "\", not " + kGreeting, 1);
      greeted = true;
    } else if (kind == 'T' && greeted) {
      uint8_t bytes[24];
      line.ReceiveOrFail(bytes, sizeof(bytes));
      const Clock::time_point begin = Clock::now();
      OblisRegisters frame{GetU32(bytes), GetU32(bytes + 4), GetU32(bytes + 8),
                           GetU32(bytes + 12), GetU32(bytes + 16), GetU32(bytes + 20)};
      simulator.Transact(frame);
      std::vector<uint8_t> answer{'A'};
      for (UINT32 value : {frame.eax, frame.ebx, frame.ecx, frame.edx, frame.esi, frame.edi}) PutU32(answer, value);
      line.Send(answer.data(), answer.size());
      inTransactions += Clock::now() - begin;
      ++transactions;
    } else {
      char text[80];
      std::snprintf(text, sizeof(text), "unexpected byte 0x%02X from the guest%s", kind,
                    greeted ? "" : " before its greeting");
      Fail(text, 1);
    }
  }
  writeBack();
  figures();
  return 0;
}
