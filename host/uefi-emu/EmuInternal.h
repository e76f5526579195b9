// The state shared by the pieces of the emulated environment (memory, console, handles, files,
// variables, images). UEFI calls carry no context, so the one live Environment is reached
// through a process-wide pointer; nothing outside host/uefi-emu includes this header.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "UefiEmu.h"

namespace emu::detail {

struct HandleRecord {
  std::vector<std::pair<EFI_GUID, void*>> protocols;
};

struct MemoryBlock {
  uintptr_t mapBase = 0;    // the whole mapping, guard page included
  size_t mapLength = 0;
  uintptr_t base = 0;       // what the caller received
  size_t length = 0;
  bool pool = false;
  size_t pages = 0;
  uint64_t serial = 0;      // the how-manieth allocation of the run, counted from 1
  uintptr_t caller = 0;     // the return address of the AllocatePool or AllocatePages call
};

// Standard layout, so that the This pointer of a file system call leads back to its volume.
struct VolumeFileSystem {
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL protocol;
  size_t index;
};

struct VolumeRecord {
  std::string hostDirectory;
  VolumeKind kind = VolumeKind::Sata;
  std::unique_ptr<VolumeFileSystem> fileSystem;
  std::vector<uint8_t> devicePath;
  EFI_HANDLE handle = nullptr;
};

struct ImageRecord {
  EFI_HANDLE handle = nullptr;
  std::unique_ptr<EFI_LOADED_IMAGE_PROTOCOL> loaded;
  EFI_IMAGE_ENTRY_POINT entry = nullptr;
  bool started = false;
  std::vector<uint8_t> filePath;
  std::vector<std::u16string> argumentText;
  std::vector<CHAR16*> argv;
  std::unique_ptr<EFI_SHELL_PARAMETERS_PROTOCOL> parameters;
};

// An image linked into the host program, started by LoadImage of its file name or of a buffer
// that carries its slot chain.
struct LinkedImage {
  std::u16string fileName;
  EFI_IMAGE_ENTRY_POINT entry = nullptr;
  uint8_t* slotChain = nullptr;
  size_t slotChainSize = 0;
};

struct StoredVariable {
  uint32_t attributes = 0;
  std::vector<uint8_t> data;
};

struct State {
  Options options;
  EFI_SYSTEM_TABLE systemTable{};
  EFI_BOOT_SERVICES bootServices{};
  EFI_RUNTIME_SERVICES runtimeServices{};
  std::vector<EFI_CONFIGURATION_TABLE> configurationTables;
  std::u16string firmwareVendor = u"Dovrin host emulation";

  // memory, keyed by the address handed out
  std::map<uintptr_t, MemoryBlock> blocks;
  // Freed mappings (data pages and guard page) by their count of data pages, kept for reuse.
  std::multimap<size_t, uintptr_t> keptMappings;
  // The latest freed small mappings, oldest first, still accessible and filled with the freed
  // byte: (data pages, mapping base). Counted in keptBytes.
  std::deque<std::pair<size_t, uintptr_t>> recentlyFreed;
  size_t keptBytes = 0;
  uint64_t allocations = 0;
  // Pool blocks freed with a byte behind their end changed (see PoolOverruns).
  uint64_t overruns = 0;
  // FreePool calls of a pointer that is no live pool block (see BadFrees).
  uint64_t badFrees = 0;

  // clock
  uint64_t stalled = 0;
  std::vector<uint64_t> stallCalls;

  // console
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL textOut{};
  SIMPLE_TEXT_OUTPUT_MODE textMode{};
  EFI_SIMPLE_TEXT_INPUT_PROTOCOL textIn{};
  std::string transcript;
  std::vector<std::u16string> screen;
  // Plain console only: the row written at a set cursor position, shown once it is done.
  int heldRow = -1;
  int heldColumn = 0;
  std::u16string heldLine;
  std::vector<EFI_INPUT_KEY> keys;
  size_t nextKey = 0;
  uint64_t idlePolls = 0;
  unsigned entersLeft = 0;
  std::function<void()> keysExhausted;

  // handle database, in creation order
  std::vector<std::unique_ptr<HandleRecord>> handles;
  EFI_HANDLE consoleHandle = nullptr;

  // volumes and images
  std::vector<VolumeRecord> volumes;
  std::vector<std::unique_ptr<ImageRecord>> images;
  std::vector<LinkedImage> linkedImages;
  EFI_SHELL_PROTOCOL shell{};
  bool shellInstalled = false;
  EFI_HANDLE shellHandle = nullptr;
  std::u16string currentDirectory = u"FS0:";
  std::vector<std::u16string> executed;
  std::function<EFI_STATUS(const std::u16string&)> executeHandler;

  // variables, keyed by GUID text and name
  std::map<std::pair<std::string, std::u16string>, StoredVariable> variables;
  std::string variablesFile;
  std::string setupError;

  // PCI root bridge, installed only when Options.pciRead is set
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL pciRootBridge{};
  EFI_HANDLE pciRootBridgeHandle = nullptr;

  // CPU architecture protocol, for its timer
  EFI_CPU_ARCH_PROTOCOL cpuArch{};
  EFI_HANDLE cpuArchHandle = nullptr;

  // reset
  std::vector<EFI_RESET_TYPE> resets;
  std::function<void(EFI_RESET_TYPE)> resetHandler;
};

extern State* g;

// Text conversions between the tool's 16-bit text and the host's UTF-8.
std::string ToUtf8(const std::u16string& text);
std::u16string FromUtf8(const std::string& text);
std::u16string FoldCase(std::u16string text);
bool GuidEqual(const EFI_GUID& left, const EFI_GUID& right);
std::string GuidText(const EFI_GUID& guid);
bool ParseGuid(const std::string& text, EFI_GUID& guid);

// Pieces of the tables, each filled in by the file that implements it.
void InstallMemoryServices(EFI_BOOT_SERVICES& services);
void ReleaseAllMemory();
void* AllocateHostPool(size_t size, uintptr_t caller = 0);
void InstallConsole(State& state);
void InstallHandleServices(EFI_BOOT_SERVICES& services);
EFI_HANDLE NewHandle();
EFI_STATUS InstallProtocol(EFI_HANDLE* handle, const EFI_GUID& guid, void* interface);
void ReleaseHandles();
void InstallImageServices(EFI_BOOT_SERVICES& services);
void CreateVolumes(State& state);
void ReleaseFiles();
void InstallVariableServices(State& state);
void InstallPciRootBridge(State& state);
void InstallCpuArch(State& state);
// The time-stamp counter: ticks of the emulated clock, 0 with no environment.
uint64_t TimeStampTicks();

}  // namespace emu::detail
