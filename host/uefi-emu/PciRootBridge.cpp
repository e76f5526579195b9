// The PCI root bridge of the emulated environment: configuration reads only, answered by the
// front end's Options.pciRead. Memory and I/O space through the bridge, and every write, are
// not offered. The configuration space itself is the front end's (the simulator's) business.
#include <cstring>

#include "EmuInternal.h"

namespace emu::detail {
namespace {

constexpr uint8_t kMaxDevice = 0x1F;
constexpr uint8_t kMaxFunction = 7;

EFI_STATUS EFIAPI NotOffered(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL*, EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH, UINT64, UINTN,
                             VOID*) {
  return EFI_UNSUPPORTED;
}

// Address as the protocol defines it: register in bits 0-7, function 8-15, device 16-23, bus
// 24-31, the extended register in bits 32-63. Each item of Count reads the next Width bytes, and
// like a real bridge it refuses an item that is not aligned to its width.
EFI_STATUS EFIAPI PciRead(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* self, EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH width,
                          UINT64 address, UINTN count, VOID* buffer) {
  if (self != &g->pciRootBridge || buffer == nullptr) return EFI_INVALID_PARAMETER;
  if (width > EfiPciWidthUint64) return EFI_INVALID_PARAMETER;  // FIFO and fill forms are not offered
  const uint32_t size = 1u << static_cast<uint32_t>(width);
  auto* out = static_cast<uint8_t*>(buffer);
  for (UINTN item = 0; item < count; ++item) {
    const uint64_t at = address + static_cast<uint64_t>(item) * size;
    if ((at >> 32) != 0) return EFI_UNSUPPORTED;  // no extended configuration space
    const uint8_t bus = static_cast<uint8_t>(at >> 24);
    const uint8_t device = static_cast<uint8_t>(at >> 16);
    const uint8_t function = static_cast<uint8_t>(at >> 8);
    const uint8_t offset = static_cast<uint8_t>(at);
    if (device > kMaxDevice || function > kMaxFunction) return EFI_INVALID_PARAMETER;
    if (offset % size != 0) return EFI_UNSUPPORTED;
    for (uint32_t i = 0; i < size; ++i) {
      const uint8_t byteOffset = static_cast<uint8_t>(offset + i);
      const uint32_t dword = g->options.pciRead(bus, device, function, static_cast<uint8_t>(byteOffset & ~3u));
      out[item * size + i] = static_cast<uint8_t>(dword >> (8 * (byteOffset & 3u)));
    }
  }
  return EFI_SUCCESS;
}

}  // namespace

void InstallPciRootBridge(State& state) {
  if (!state.options.pciRead) return;
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL& bridge = state.pciRootBridge;
  bridge.Mem = {NotOffered, NotOffered};
  bridge.Io = {NotOffered, NotOffered};
  bridge.Pci = {PciRead, NotOffered};
  state.pciRootBridgeHandle = nullptr;
  InstallProtocol(&state.pciRootBridgeHandle, kPciRootBridgeIoProtocolGuid, &bridge);
  bridge.ParentHandle = state.pciRootBridgeHandle;
}

}  // namespace emu::detail
