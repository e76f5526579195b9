// The SMI transaction of the bridge variant of the driver, a test build only: instead of the
// port write, the register frame goes through a shared-memory device (QEMU's ivshmem-plain) to
// the firmware simulator that runs beside the virtual machine. While the simulator works on the
// transaction it asks for the guest's memory by address; this side serves those requests until
// the answer comes. Every other seam is the real one. The production driver never contains this
// file.
//
// The shared memory holds two mailboxes and a data window. Each side writes its mailbox, then
// counts its sequence number up; the other side waits for that count. Turns alternate strictly:
//   guest: 'T' frame               a transaction; before the first one the guest writes its
//                                  greeting into the shared memory
//   host:  'R' address length      read: the guest copies the bytes into the window, answers 'D'
//          'W' address length      write: the guest copies the window's bytes out, answers 'D'
//          'A' frame               the answer; the transaction is over
//          'P'                     the machine lost power: the guest stops dead
// A 'D' carries status 1 when the range lies in the 4 GB address space and fits the window, 0
// when not.
#include "PlatformSeams.h"

namespace {

constexpr UINT16 kPciAddressPort = 0xCF8;
constexpr UINT16 kPciDataPort = 0xCFC;
constexpr UINT32 kSharedMemoryIds = 0x11101AF4;  // device 1110h of vendor 1AF4h
constexpr UINT8 kPciCommand = 0x04;
constexpr UINT8 kPciBar2 = 0x18;
constexpr UINT8 kPciBar2High = 0x1C;
constexpr UINT32 kMemorySpaceEnable = 0x2;

constexpr UINT32 kGuestMailbox = 0x00;
constexpr UINT32 kHostMailbox = 0x40;
constexpr UINT32 kGreetingOffset = 0x80;
constexpr UINT32 kWindowOffset = 0x1000;
constexpr UINT32 kWindowBytes = 0x100000 - kWindowOffset;

// A mailbox: sequence, kind, status or address, length, then the register frame.
constexpr UINT32 kSequence = 0;
constexpr UINT32 kKind = 4;
constexpr UINT32 kAddress = 8;  // the guest's status in its own mailbox
constexpr UINT32 kLength = 12;
constexpr UINT32 kFrame = 16;

constexpr UINT64 kAddressSpaceEnd = 0x100000000ULL;

// The host refuses a guest that greets otherwise; the name also marks a binary as the bridge
// variant.
const CHAR8 kBridgeGreeting[] = "OBLIS-BRIDGE/2";

constinit volatile UINT8* gShared = nullptr;
constinit UINT32 gHostSequence = 0;

VOID OutPort32(UINT16 port, UINT32 value) { asm volatile("outl %0, %1" : : "a"(value), "Nd"(port)); }

UINT32 InPort32(UINT16 port) {
  UINT32 value;
  asm volatile("inl %1, %0" : "=a"(value) : "Nd"(port));
  return value;
}

UINT32 PciRead32(UINT32 device, UINT8 offset) {
  OutPort32(kPciAddressPort, 0x80000000u | (device << 11) | offset);
  return InPort32(kPciDataPort);
}

VOID PciWrite32(UINT32 device, UINT8 offset, UINT32 value) {
  OutPort32(kPciAddressPort, 0x80000000u | (device << 11) | offset);
  OutPort32(kPciDataPort, value);
}

volatile UINT32* Field(UINT32 mailbox, UINT32 field) {
  return reinterpret_cast<volatile UINT32*>(gShared + mailbox + field);
}

// The device on bus 0 whose memory BAR 2 is the shared memory; the firmware assigned its
// address, the decoding is switched on here since no driver of the firmware claims the device.
Bool OpenBridge() {
  for (UINT32 device = 0; device < 32; device++) {
    if (PciRead32(device, 0) != kSharedMemoryIds) {
      continue;
    }
    UINT32 base = PciRead32(device, kPciBar2) & 0xFFFFFFF0u;
    if (base == 0 || PciRead32(device, kPciBar2High) != 0) {
      return false;
    }
    PciWrite32(device, kPciCommand, PciRead32(device, kPciCommand) | kMemorySpaceEnable);
    gShared = reinterpret_cast<volatile UINT8*>((UINTN)base);
    gHostSequence = *Field(kHostMailbox, kSequence);
    return true;
  }
  return false;
}

VOID Post(UINT32 kind) {
  *Field(kGuestMailbox, kKind) = kind;
  asm volatile("" : : : "memory");
  *Field(kGuestMailbox, kSequence) = *Field(kGuestMailbox, kSequence) + 1;
}

UINT32 AwaitHost() {
  while (*Field(kHostMailbox, kSequence) == gHostSequence) {
    asm volatile("pause");
  }
  gHostSequence = *Field(kHostMailbox, kSequence);
  asm volatile("" : : : "memory");
  return *Field(kHostMailbox, kKind);
}

VOID CopyFrame(volatile UINT32* to, const volatile UINT32* from) {
  for (UINT32 i = 0; i < 6; i++) {
    to[i] = from[i];
  }
}

// Memory is identity mapped; volatile keeps every access a real one, also at address 0.
VOID ServeMemory(UINT32 kind) {
  UINT32 address = *Field(kHostMailbox, kAddress);
  UINT32 length = *Field(kHostMailbox, kLength);
  Bool inside = (UINT64)address + length <= kAddressSpaceEnd && length <= kWindowBytes;
  if (inside) {
    volatile UINT8* memory = reinterpret_cast<volatile UINT8*>((UINTN)address);
    volatile UINT8* window = gShared + kWindowOffset;
    for (UINT32 i = 0; i < length; i++) {
      if (kind == 'R') {
        window[i] = memory[i];
      } else {
        memory[i] = window[i];
      }
    }
  }
  *Field(kGuestMailbox, kAddress) = inside ? 1 : 0;
  Post('D');
}

VOID StopDead() {
  if (gRT != nullptr) {
    gRT->ResetSystem(EfiResetShutdown, EFI_SUCCESS, 0, nullptr);
  }
  for (;;) {
    asm volatile("cli; hlt");
  }
}

}  // namespace

VOID SmiTransaction(OblisRegisters* frame) {
  if (gShared == nullptr) {
    // Without the device the call stays unanswered, as a port with no handler behind it.
    if (!OpenBridge()) {
      return;
    }
    for (UINT32 i = 0; i < sizeof(kBridgeGreeting); i++) {
      gShared[kGreetingOffset + i] = (UINT8)kBridgeGreeting[i];
    }
  }
  CopyFrame(Field(kGuestMailbox, kFrame), &frame->eax);
  Post('T');
  for (;;) {
    UINT32 kind = AwaitHost();
    if (kind == 'R' || kind == 'W') {
      ServeMemory(kind);
    } else if (kind == 'A') {
      CopyFrame(&frame->eax, Field(kHostMailbox, kFrame));
      return;
    } else if (kind == 'P') {
      StopDead();
    }
  }
}
