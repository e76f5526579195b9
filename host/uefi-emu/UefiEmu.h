// The emulated UEFI environment of the host build: a system table whose boot services, runtime
// services and protocols are backed by Linux (a host directory per volume, a terminal console
// with scripted keys, a variable store in a file, a clock that advances by Stall), plus the
// host side of the driver's platform seams. One Environment per process.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "OblisWire.h"
#include "Uefi/Uefi.h"

namespace emu {

enum class VolumeKind { Usb, Sata, Emmc, Other };

struct VolumeSpec {
  std::string hostDirectory;
  VolumeKind kind = VolumeKind::Sata;
};

struct Options {
  // Volumes in handle order. The tool's own image lies on volume toolVolume.
  std::vector<VolumeSpec> volumes;
  size_t toolVolume = 0;
  // Keys for ReadKeyStroke, in order. "{F1}", "{ESC}", "{ENTER}" and "{{" name special keys.
  std::string keys;
  // true: attributes, cursor moves and clears are rendered as terminal escapes.
  bool ansiConsole = false;
  std::FILE* consoleOut = stdout;
  // Variable store file, loaded at start and saved on every SetVariable; empty: memory only.
  std::string variablesFile;
  // true: Stall really sleeps; otherwise it is only added to the clock.
  bool realStall = false;
  // false: StallCalls stays empty. A front end that never reads it keeps no entry for each of
  // the millions of 1 ms retry delays of a long update.
  bool keepStallCalls = true;
  EFI_TIME clockStart = {2026, 11, 23, 10, 0, 0, 0, 0, 0, 0, 0};
  // Configuration table entries (the ACPI pointers hold 32-bit physical addresses).
  std::vector<EFI_CONFIGURATION_TABLE> configurationTables;
  // Answers a 32-bit PCI configuration register (offset a multiple of 4). When set, an
  // EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL whose Pci.Read asks it is installed on a handle of its own;
  // when empty the platform has no root bridge protocol.
  std::function<uint32_t(uint8_t bus, uint8_t device, uint8_t function, uint8_t offset)> pciRead;
  // Once the script is used up, a tool that keeps waiting gets Enter, this many times at most:
  // a pager or a "press any key" pause goes on, a question that wants 'Y' never gets it.
  unsigned enterWhenWaiting = 0;
};

// What the tool does when it waits for a key and the script has none left.
constexpr int kExitNoKeysLeft = 3;
// Consecutive ReadKeyStroke polls without a key, once the script is used up, before the wait
// counts as hopeless.
constexpr uint64_t kIdlePollsBeforeNoKeysLeft = 100000;
// Consecutive polls after which a tool counts as waiting for a key rather than glancing for one.
constexpr uint64_t kIdlePollsOfAWait = 1000;

// Parses a key script ("{F1}", "{ESC}", "{ENTER}", "{UP}", "{DOWN}", "{LEFT}", "{RIGHT}",
// "{F2}".."{F10}", "{{" for '{', any other UTF-8 character as itself). False with a message on
// an unknown "{...}" name or an unclosed brace.
bool ParseKeys(const std::string& text, std::vector<EFI_INPUT_KEY>& keys, std::string& error);

// A pool block or page range still handed out, with what helps to find who forgot it.
struct LiveBlock {
  uint64_t address = 0;
  uint64_t size = 0;        // bytes asked for (pages times 4096 for a page range)
  bool pool = false;
  uint64_t serial = 0;      // the how-manieth allocation of the run, counted from 1
  uint64_t caller = 0;      // return address of the allocating call (addr2line -e the program)
  std::string content;      // the first bytes, as text where they read as text, else in hex
};

class Environment {
 public:
  explicit Environment(const Options& options);
  ~Environment();
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  EFI_SYSTEM_TABLE* SystemTable();

  // An image handle with EFI_LOADED_IMAGE_PROTOCOL whose DeviceHandle is the tool's volume
  // and whose FilePath names fileName; for a shell host it also carries
  // EFI_SHELL_PARAMETERS_PROTOCOL with these arguments.
  EFI_HANDLE CreateImageHandle(const std::u16string& fileName, const std::vector<std::u16string>& arguments);
  // LoadImage of a device path whose last file node names fileName (any case) starts entry.
  // With a slot chain, LoadImage of a buffer loads this image too (the host has no PE loader):
  // the buffer must carry a chain (the secure-image record, '#' or '$' first, with the EC tag
  // right behind it) of slotChainSize bytes, which is copied over slotChain, the linked
  // driver's own chain in writable storage. The loaded image's ImageBase then lies so that
  // ImageBase plus an offset of the buffer addresses the same byte of slotChain.
  void RegisterLinkedImage(const std::u16string& fileName, EFI_IMAGE_ENTRY_POINT entry, uint8_t* slotChain = nullptr,
                           size_t slotChainSize = 0);
  // The shell's current directory as GetCurDir gives it, such as u"FS0:" at the root
  // or u"FS0:\\EFI" below it.
  void SetShellCurrentDirectory(const std::u16string& directory);
  // Commands handed to EFI_SHELL_PROTOCOL.Execute, in order.
  const std::vector<std::u16string>& ExecutedCommands() const;

  // Everything written to the console, as plain text without escapes.
  std::string ConsoleTranscript() const;
  // A plain console holds the text written at a set cursor position until its row is done;
  // this writes out what is held (the destructor does too).
  void FlushConsole();
  uint64_t StalledMicroseconds() const;
  const std::vector<uint64_t>& StallCalls() const;

  void PresetVariable(const std::u16string& name, const EFI_GUID& guid, uint32_t attributes,
                      const std::vector<uint8_t>& data);
  bool ReadVariable(const std::u16string& name, const EFI_GUID& guid, std::vector<uint8_t>& data) const;

  // Whether [address, address + length) lies inside live pool or page memory handed out by
  // this environment; the simulator refuses any other address in a transaction.
  bool ContainsAddress(uint64_t address, uint64_t length) const;
  // Pool blocks and page ranges handed out and not yet freed, in the order they were handed out.
  std::vector<LiveBlock> LiveBlocks() const;
  // Pool blocks written past their end (within the 8-byte rounding the guard page cannot catch),
  // counted when freed and among those still allocated, and small blocks written after they
  // were freed (see Memory.cpp), each reported on stderr.
  uint64_t PoolOverruns() const;
  // FreePool calls of a pointer that is no live pool block: a constant, a block freed twice, or
  // memory from elsewhere. Real firmware would corrupt its pool there.
  uint64_t BadFrees() const;

  // The 80x25 screen as the console left it: rows joined by '\n', trailing blanks trimmed.
  std::string ScreenText() const;
  // Called (instead of returning EFI_NOT_READY forever) when the tool keeps polling for a key
  // and the script has none left; the default exits the process with kExitNoKeysLeft.
  void SetKeysExhaustedHandler(std::function<void()> handler);
  // Called by ResetSystem after it has been recorded; without a handler ResetSystem returns.
  void SetResetHandler(std::function<void(EFI_RESET_TYPE)> handler);
  const std::vector<EFI_RESET_TYPE>& Resets() const;
  // What EFI_SHELL_PROTOCOL.Execute answers; without a handler every command succeeds.
  void SetShellExecuteHandler(std::function<EFI_STATUS(const std::u16string& command)> handler);
  // The handle of volume index (the handle that carries its file system and device path).
  EFI_HANDLE VolumeHandle(size_t index) const;
  // A problem found while setting up (such as an unreadable variable store); empty when none.
  const std::string& SetupError() const;
};

// The host side of the driver's platform seams. Without a backend a seam call aborts the
// process with a message, since the driver must never reach the machine unannounced.
struct PlatformBackend {
  std::function<void(OblisRegisters& frame)> smi;
  std::function<uint32_t(uint16_t port, int width)> ioRead;  // width in bytes: 1, 2 or 4
  std::function<void(uint16_t port, uint8_t value)> ioWrite8;
  std::function<bool(uint32_t address, void* out, uint32_t length)> readPhysical;
};
void SetPlatformBackend(PlatformBackend backend);

}  // namespace emu
