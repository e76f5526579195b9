// The firmware's flash driver behind functions 14h, 15h and 17h: reads, erase-then-program
// writes, the guarded ranges and the locked ME, the writer's faults, the counters and the timing
// of a real part. Registers, buffers and the trace are Simulator.cpp's business.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <vector>

#include "FlashPart.h"
#include "Simulator.h"

namespace sim {

// Typical timings of a 128 Mbit SPI NOR part (W25Q128JV class), in nanoseconds.
constexpr uint64_t kSectorErase4kNs = 45'000'000;   // 4 KB sector erase
constexpr uint64_t kBlockErase32kNs = 120'000'000;  // 32 KB block erase
constexpr uint64_t kBlockErase64kNs = 150'000'000;  // 64 KB block erase
constexpr uint64_t kPageProgramNs = 400'000;        // one 256-byte page (0.7 ms is the older FV's)
constexpr uint32_t kPageBytes = 256;
constexpr uint64_t kReadByteNs = 160;  // 8 clocks at 50 MHz

// The erase time of one erase block: whole 64 KB blocks, else whole 32 KB blocks, else 4 KB
// sectors (a block of another size takes as many sectors as it touches).
uint64_t EraseNanoseconds(uint32_t blockSize);
uint64_t ProgramNanoseconds(uint32_t bytes);

// The regions of an Intel flash descriptor at the start of bytes: FLVALSIG 0x0FF0A55A at 0x10,
// FLREG0..4 at FRBA (FLMAP0 bits 23:16, times 16), base and limit in 4 KB units (bits 14:0 and
// 30:16); a region whose base lies above its limit is unused and left out. The access byte is the
// host master's (FLMSTR1 at FMBA, FLMAP1 bits 7:0 times 16): bit 0 read (FLMSTR1 bit 16 + region),
// bit 1 write (bit 24 + region). Empty without a valid signature.
std::vector<ExternalRegion> RegionsFromDescriptor(const uint8_t* bytes, size_t length);

class FlashService {
 public:
  FlashService(const Machine& machine, std::vector<uint8_t> content);

  const FlashPart& Part() const { return part_; }
  bool KeepPartInFile(const std::string& path, std::string& error) { return part_.KeepInFile(path, error); }
  // Status 0, 0x24 for a range outside the part, 0x2A for a range in a locked ME (whose bytes
  // then read 0xFF). out receives length bytes on 0 and 0x2A.
  uint8_t Read(uint32_t address, uint32_t length, std::vector<uint8_t>& out);
  // Status 0, 0x25 outside the part or refused, 0x26 for a range the block map does not cover,
  // 0x29 skipped. After a power cut PowerLost() is true and the status means nothing.
  uint8_t Write(uint32_t address, const std::vector<uint8_t>& data);
  bool PowerLost() const { return powerLost_; }
  // The current external list: the machine's maps.external, or the descriptor in the flash now.
  std::vector<ExternalRegion> CurrentRegions() const;
  FlashCounters Counters() const;

 private:
  struct Span {
    uint32_t start;  // physical
    uint64_t end;    // exclusive
  };
  struct LastWrite {
    uint32_t address;
    std::vector<uint8_t> before;  // the range's content before the first of these writes
  };

  bool Overlaps(const std::vector<Span>& spans, uint32_t address, uint32_t length) const;
  std::optional<std::vector<std::pair<uint32_t, uint32_t>>> BlocksOf(uint32_t address, uint32_t length) const;
  bool ProgramBlock(uint32_t block, uint32_t size, uint32_t address, const std::vector<uint8_t>& data,
                    uint32_t programBytes);
  bool CutBeforeNextOperation() const;

  Machine machine_;
  FlashPart part_;
  std::vector<Span> guarded_;   // the 12h lists, when the machine guards them
  std::vector<Span> lockedMe_;  // fixed at power-on, as the chipset reads the descriptor then
  std::optional<LastWrite> lastWrite_;
  bool justWritten_ = false;
  uint32_t verifyFaultsLeft_ = 0;
  uint32_t programmingWrites_ = 0;
  uint32_t operations_ = 0;  // block erases and page programs done since power-on
  bool powerLost_ = false;
  std::set<uint32_t> comparedBlocks_;
  FlashCounters counters_;
};

}  // namespace sim
