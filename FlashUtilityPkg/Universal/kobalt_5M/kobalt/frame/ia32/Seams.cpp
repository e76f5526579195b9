// The platform seams on real hardware: the SMI transaction as one port write with the register
// frame loaded, processor port I/O, and reads of identity-mapped physical memory. What the
// registers mean, retries and error reports are left to the OBLIS channel above.
#include "PlatformSeams.h"

namespace {

// Counted down in memory after every port write, so that the firmware's answer is read only
// after the handler has surely left system management mode, however the chipset delivers the SMI.
constinit volatile UINT32 settleCount = 0;
constexpr UINT32 kSettleCount = 0x100000;

constexpr UINT64 kAddressSpaceEnd = 0x100000000ULL;

}  // namespace

VOID SmiTransaction(OblisRegisters* frame) {
  // EBX is the PIC register and EBP may be the frame pointer: both are saved on the stack by
  // hand. The frame's address is kept on the stack across the port write, because all six
  // general registers carry the call and the answer.
  static_assert(__builtin_offsetof(OblisRegisters, eax) == 0 && __builtin_offsetof(OblisRegisters, ebx) == 4 &&
                    __builtin_offsetof(OblisRegisters, ecx) == 8 && __builtin_offsetof(OblisRegisters, edx) == 12 &&
                    __builtin_offsetof(OblisRegisters, esi) == 16 && __builtin_offsetof(OblisRegisters, edi) == 20,
                "the assembly below addresses the frame by these offsets");
  asm volatile(
      "pushl %%ebp\n\t"
      "pushl %%ebx\n\t"
      "pushl %%eax\n\t"
      "movl 4(%%eax), %%ebx\n\t"
      "movl 8(%%eax), %%ecx\n\t"
      "movl 12(%%eax), %%edx\n\t"
      "movl 16(%%eax), %%esi\n\t"
      "movl 20(%%eax), %%edi\n\t"
      "movl 0(%%eax), %%eax\n\t"
      "outb %%al, %%dx\n\t"
      "xchgl %%eax, (%%esp)\n\t"
      "movl %%ebx, 4(%%eax)\n\t"
      "movl %%ecx, 8(%%eax)\n\t"
      "movl %%edx, 12(%%eax)\n\t"
      "movl %%esi, 16(%%eax)\n\t"
      "movl %%edi, 20(%%eax)\n\t"
      "popl %%ecx\n\t"
      "movl %%ecx, 0(%%eax)\n\t"
      "popl %%ebx\n\t"
      "popl %%ebp\n\t"
      : "+a"(frame)
      :
      : "ecx", "edx", "esi", "edi", "memory", "cc");
  settleCount = kSettleCount;
  while (settleCount != 0) {
    settleCount = settleCount - 1;
  }
}

UINT8 IoRead8(UINT16 port) {
  UINT8 value;
  asm volatile("inb %1, %0" : "=a"(value) : "Nd"(port));
  return value;
}

UINT16 IoRead16(UINT16 port) {
  UINT16 value;
  asm volatile("inw %1, %0" : "=a"(value) : "Nd"(port));
  return value;
}

UINT32 IoRead32(UINT16 port) {
  UINT32 value;
  asm volatile("inl %1, %0" : "=a"(value) : "Nd"(port));
  return value;
}

VOID IoWrite8(UINT16 port, UINT8 value) { asm volatile("outb %0, %1" : : "a"(value), "Nd"(port)); }

Bool ReadPhysicalMemory(UINT32 address, VOID* buffer, UINT32 length) {
  if (buffer == nullptr) {
    return false;
  }
  if ((UINT64)address + length > kAddressSpaceEnd) {
    return false;
  }
  // Memory is identity mapped; volatile keeps every byte a real read, also at address 0.
  const volatile UINT8* from = reinterpret_cast<const volatile UINT8*>((UINTN)address);
  UINT8* to = static_cast<UINT8*>(buffer);
  for (UINT32 i = 0; i < length; i++) {
    to[i] = from[i];
  }
  return true;
}

UINT64 ReadTimeStampCounter() {
  UINT32 low;
  UINT32 high;
  asm volatile("rdtsc" : "=a"(low), "=d"(high));
  return ((UINT64)high << 32) | low;
}

UINT32 PhysicalAddressOf(const VOID* pointer) { return (UINT32)(UINTN)pointer; }
