// A small stand-in for the tool's side of a transaction in the simulator's tests: one block of
// memory the firmware may use, and a call that loads the registers as the driver does.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "simulator/Simulator.h"

namespace simtest {

constexpr uint32_t kMemoryBase = 0x00100000;
constexpr uint32_t kMemorySize = 0x40000;
constexpr uint32_t kBuf = kMemoryBase;              // OblisBuffer
constexpr uint32_t kBuf2 = kMemoryBase + 0x20000;   // OblisBuffer2

struct TestMemory {
  std::vector<uint8_t> bytes = std::vector<uint8_t>(kMemorySize, 0);
  bool Inside(uint32_t address, uint32_t length) const {
    return address >= kMemoryBase && uint64_t(address) + length <= uint64_t(kMemoryBase) + kMemorySize;
  }
  sim::MemoryAccess Access() {
    return {[this](uint32_t a, void* out, uint32_t n) {
              if (!Inside(a, n)) return false;
              std::memcpy(out, bytes.data() + (a - kMemoryBase), n);
              return true;
            },
            [this](uint32_t a, const void* data, uint32_t n) {
              if (!Inside(a, n)) return false;
              std::memcpy(bytes.data() + (a - kMemoryBase), data, n);
              return true;
            }};
  }
  uint8_t* At(uint32_t address) { return bytes.data() + (address - kMemoryBase); }
  uint32_t U32(uint32_t address) {
    uint32_t v;
    std::memcpy(&v, At(address), 4);
    return v;
  }
  uint16_t U16(uint32_t address) {
    uint16_t v;
    std::memcpy(&v, At(address), 2);
    return v;
  }
};

inline sim::Machine MachineFrom(const std::string& json) {
  sim::Machine machine;
  std::string error;
  EXPECT_TRUE(sim::ParseMachine(json, machine, error)) << error;
  return machine;
}

// The registers as the driver loads them for function fn on the given machine.
inline OblisRegisters Frame(const sim::Machine& m, uint8_t fn, uint32_t ecx = 0, uint32_t edi = 0, uint32_t esi = 0) {
  return {static_cast<uint32_t>(fn) << 8 | m.smiNumber, kOblisCallerSignature, ecx, m.smiCmdPort, esi, edi};
}

inline OblisRegisters Call(sim::Simulator& s, uint8_t fn, uint32_t ecx = 0, uint32_t edi = 0, uint32_t esi = 0) {
  OblisRegisters frame = Frame(s.machine(), fn, ecx, edi, esi);
  s.Transact(frame);
  return frame;
}

inline uint8_t Status(const OblisRegisters& r) { return static_cast<uint8_t>(r.eax); }
inline uint8_t Ah(const OblisRegisters& r) { return static_cast<uint8_t>(r.eax >> 8); }

// The tool information block of function 10h, as the driver stages it.
inline void StageToolInformation(TestMemory& memory, uint32_t address) {
  const uint8_t block[19] = {'$', 'V', 'E', 'R', 4, 0, '1', '3', 'k', '$', 'O', 'B', 'L', 'I', 'S', '2', '0', '8', 0xFF};
  std::memcpy(memory.At(address), block, sizeof(block));
}

}  // namespace simtest
