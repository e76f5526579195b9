// The three narrow seams through which the driver reaches the machine beyond UEFI services:
// the SMI transaction, processor port I/O and reads of physical memory. The IA32 build
// implements them with the real instructions; the host build hands them to the simulator.
#pragma once

#include "KobaltBase.h"
#include "OblisWire.h"

// Writes AL to port DX with the other registers loaded, waits for the firmware and hands back
// the registers as the firmware left them.
VOID SmiTransaction(OblisRegisters* frame);

UINT8 IoRead8(UINT16 port);
UINT16 IoRead16(UINT16 port);
UINT32 IoRead32(UINT16 port);
VOID IoWrite8(UINT16 port, UINT8 value);

// Copies length bytes of physical memory; false if the range cannot be read.
Bool ReadPhysicalMemory(UINT32 address, VOID* buffer, UINT32 length);

// The processor's time-stamp counter; the progress display measures the write with it.
UINT64 ReadTimeStampCounter();

// The 32-bit physical address of memory the driver hands to the firmware. On the firmware
// memory is identity mapped; the host build refuses a pointer that does not fit 32 bits.
UINT32 PhysicalAddressOf(const VOID* pointer);
