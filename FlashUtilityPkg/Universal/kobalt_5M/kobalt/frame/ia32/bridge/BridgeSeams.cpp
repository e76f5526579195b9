// The SMI transaction of the bridge variant of the driver, a test build only: instead of the
// port write, the register frame goes over a serial port of its own (COM3) to the firmware
// simulator that runs beside the virtual machine. While the simulator works on the transaction
// it asks for the guest's memory by address; this side serves those requests until the answer
// comes. Every other seam is the real one. The production driver never contains this file.
//
// Messages, all numbers little-endian:
//   guest -> host  'H' kBridgeGreeting              once, before the first transaction
//                  'T' frame(24)                    a transaction
//   host -> guest  'R' address(4) length(4)         read: guest answers status(1) and, if 1, the bytes
//                  'W' address(4) length(4) bytes   write: guest answers status(1)
//                  'A' frame(24)                    the answer; the transaction is over
//                  'P'                              the machine lost power: the guest stops dead
#include "PlatformSeams.h"

namespace {

// COM3: the firmware's serial driver knows only COM1 and COM2 and makes a console of each, which
// would write text into this line and read the simulator's bytes out of it.
constexpr UINT16 kBridgePort = 0x3E8;
constexpr UINT16 kData = 0;            // receive and transmit buffer; divisor low with DLAB
constexpr UINT16 kInterruptEnable = 1;  // divisor high with DLAB
constexpr UINT16 kFifoControl = 2;
constexpr UINT16 kLineControl = 3;
constexpr UINT16 kModemControl = 4;
constexpr UINT16 kLineStatus = 5;
constexpr UINT8 kLineDataReady = 0x01;
constexpr UINT8 kLineTransmitEmpty = 0x20;
constexpr UINT64 kAddressSpaceEnd = 0x100000000ULL;

// The host refuses a guest that greets otherwise; the name also marks a binary as the bridge
// variant.
const CHAR8 kBridgeGreeting[] = "OBLIS-BRIDGE/1";

constinit Bool gBridgeReady = false;

VOID OutPort(UINT16 port, UINT8 value) { asm volatile("outb %0, %1" : : "a"(value), "Nd"(port)); }

UINT8 InPort(UINT16 port) {
  UINT8 value;
  asm volatile("inb %1, %0" : "=a"(value) : "Nd"(port));
  return value;
}

// 8 data bits, no parity, one stop bit, the fastest divisor, FIFOs on, no interrupts.
VOID OpenBridge() {
  OutPort(kBridgePort + kInterruptEnable, 0);
  OutPort(kBridgePort + kLineControl, 0x80);
  OutPort(kBridgePort + kData, 1);
  OutPort(kBridgePort + kInterruptEnable, 0);
  OutPort(kBridgePort + kLineControl, 0x03);
  OutPort(kBridgePort + kFifoControl, 0x07);
  OutPort(kBridgePort + kModemControl, 0x03);
  gBridgeReady = true;
}

VOID SendByte(UINT8 value) {
  while ((InPort(kBridgePort + kLineStatus) & kLineTransmitEmpty) == 0) {
  }
  OutPort(kBridgePort + kData, value);
}

UINT8 ReceiveByte() {
  while ((InPort(kBridgePort + kLineStatus) & kLineDataReady) == 0) {
  }
  return InPort(kBridgePort + kData);
}

VOID SendU32(UINT32 value) {
  for (UINT32 shift = 0; shift < 32; shift += 8) {
    SendByte((UINT8)(value >> shift));
  }
}

UINT32 ReceiveU32() {
  UINT32 value = 0;
  for (UINT32 shift = 0; shift < 32; shift += 8) {
    value |= (UINT32)ReceiveByte() << shift;
  }
  return value;
}

VOID Greet() {
  SendByte('H');
  for (UINT32 i = 0; i < sizeof(kBridgeGreeting); i++) {
    SendByte((UINT8)kBridgeGreeting[i]);
  }
}

Bool InAddressSpace(UINT32 address, UINT32 length) { return (UINT64)address + length <= kAddressSpaceEnd; }

// Memory is identity mapped; volatile keeps every access a real one, also at address 0.
VOID ServeRead() {
  UINT32 address = ReceiveU32();
  UINT32 length = ReceiveU32();
  if (!InAddressSpace(address, length)) {
    SendByte(0);
    return;
  }
  SendByte(1);
  const volatile UINT8* from = reinterpret_cast<const volatile UINT8*>((UINTN)address);
  for (UINT32 i = 0; i < length; i++) {
    SendByte(from[i]);
  }
}

VOID ServeWrite() {
  UINT32 address = ReceiveU32();
  UINT32 length = ReceiveU32();
  Bool inside = InAddressSpace(address, length);
  volatile UINT8* to = reinterpret_cast<volatile UINT8*>((UINTN)address);
  // The bytes are always taken off the line, so that the stream stays in step after a refusal.
  for (UINT32 i = 0; i < length; i++) {
    UINT8 value = ReceiveByte();
    if (inside) {
      to[i] = value;
    }
  }
  SendByte(inside ? 1 : 0);
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
  if (!gBridgeReady) {
    OpenBridge();
    Greet();
  }
  const UINT32* registers = &frame->eax;
  SendByte('T');
  for (UINT32 i = 0; i < 6; i++) {
    SendU32(registers[i]);
  }
  for (;;) {
    UINT8 request = ReceiveByte();
    if (request == 'R') {
      ServeRead();
    } else if (request == 'W') {
      ServeWrite();
    } else if (request == 'A') {
      UINT32* answer = &frame->eax;
      for (UINT32 i = 0; i < 6; i++) {
        answer[i] = ReceiveU32();
      }
      return;
    } else if (request == 'P') {
      StopDead();
    }
  }
}
