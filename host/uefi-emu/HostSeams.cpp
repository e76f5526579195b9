// The host side of the driver's platform seams: SMI transactions, port I/O and physical memory
// reads go to the registered platform backend (the simulator in zaprom-sim and the tests).
// Without a backend the process stops, since the driver must never reach a machine unannounced.
#include <cstdio>
#include <cstdlib>

#include "PlatformSeams.h"
#include "EmuInternal.h"
#include "UefiEmu.h"

namespace {

emu::PlatformBackend gBackend;

[[noreturn]] void NoBackend(const char* seam) {
  std::fprintf(stderr, "zaprom-emu: %s called with no platform backend set (emu::SetPlatformBackend)\n", seam);
  std::fflush(nullptr);
  std::abort();
}

}  // namespace

namespace emu {
void SetPlatformBackend(PlatformBackend backend) { gBackend = std::move(backend); }
}  // namespace emu

VOID SmiTransaction(OblisRegisters* frame) {
  if (!gBackend.smi) NoBackend("SmiTransaction");
  gBackend.smi(*frame);
}

UINT8 IoRead8(UINT16 port) {
  if (!gBackend.ioRead) NoBackend("IoRead8");
  return static_cast<UINT8>(gBackend.ioRead(port, 1));
}

UINT16 IoRead16(UINT16 port) {
  if (!gBackend.ioRead) NoBackend("IoRead16");
  return static_cast<UINT16>(gBackend.ioRead(port, 2));
}

UINT32 IoRead32(UINT16 port) {
  if (!gBackend.ioRead) NoBackend("IoRead32");
  return gBackend.ioRead(port, 4);
}

VOID IoWrite8(UINT16 port, UINT8 value) {
  if (!gBackend.ioWrite8) NoBackend("IoWrite8");
  gBackend.ioWrite8(port, value);
}

Bool ReadPhysicalMemory(UINT32 address, VOID* buffer, UINT32 length) {
  if (!gBackend.readPhysical) NoBackend("ReadPhysicalMemory");
  return gBackend.readPhysical(address, buffer, length);
}

// The counter runs on the emulated clock, so the elapsed time of a run is the same every time.
UINT64 ReadTimeStampCounter() { return emu::detail::TimeStampTicks(); }

// Memory that crosses the SMI interface must lie below 4 GB; on the host that holds for what
// the emulated pool hands out and for the program's static data (linked without PIE).
UINT32 PhysicalAddressOf(const VOID* pointer) {
  uintptr_t value = reinterpret_cast<uintptr_t>(pointer);
  if (value > 0xFFFFFFFFu) {
    std::fprintf(stderr, "zaprom-emu: memory at %p handed to the firmware lies above 4 GB\n", pointer);
    std::fflush(nullptr);
    std::abort();
  }
  return static_cast<UINT32>(value);
}
