// The simulator's test bed: one block of memory the firmware may use, the registers loaded as the
// driver loads them, and the 14h/15h calls of the block writer.
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

inline std::vector<uint8_t> Fill(uint32_t length, uint8_t value) { return std::vector<uint8_t>(length, value); }

inline uint8_t Write15(sim::Simulator& s, TestMemory& memory, uint32_t address, const std::vector<uint8_t>& data) {
  std::memcpy(memory.At(kBuf), data.data(), data.size());
  return Status(Call(s, 0x15, static_cast<uint32_t>(data.size()), address, kBuf));
}

inline uint8_t Read14(sim::Simulator& s, TestMemory& memory, uint32_t address, uint32_t length,
                      std::vector<uint8_t>& out) {
  std::fill_n(memory.At(kBuf2), length, 0xEE);
  const uint8_t status = Status(Call(s, 0x14, length, address, kBuf2));
  out.assign(memory.At(kBuf2), memory.At(kBuf2) + length);
  return status;
}

// The byte of the flash at a 32-bit address of the part, which ends at 4 GB.
inline uint8_t FlashAt(const sim::Simulator& s, uint32_t address) {
  const std::vector<uint8_t> flash = s.Flash();
  return flash[address - (0u - uint32_t(flash.size()))];
}

}  // namespace simtest
