// Function 13h and the block table: the ROM size from the size index or the firmware, the block
// map's end and count limits, the table built down from 4 GB, and which blocks a range marks.
#include <gtest/gtest.h>

#include <cstring>

#include "oblis/Oblis.h"
#include "support/DriverBed.h"

namespace {

using bed::At;

class BlockTable : public bed::DriverBed {
 protected:
  bed::BedSetup Layout() const override { return {.firmware = bed::Firmware::Scripted}; }
};

TEST_F(BlockTable, BlockMapCountsAndLimits) {
  struct Row {
    const char* what;
    uint8_t sizeIndex;
    uint32_t sizeSpecified;
    std::vector<std::pair<uint16_t, uint16_t>> map;  // (size in 256 bytes, count)
    bool terminated;
    bool ok;
    uint32_t romSize, romBase, blockCount, blockSize;
  };
  std::vector<std::pair<uint16_t, uint16_t>> full255(255, {0x10, 16});  // 255 x 16 blocks of 4 KB
  const Row rows[] = {
      {"16 MB of 4 KB blocks", 8, 0, {{0x10, 0x1000}}, true, true, 0x1000000, 0xFF000000, 0x1000, 0x1000},
      {"count 0x1001 refused", 8, 0, {{0x10, 0x1001}}, true, false, 0, 0, 0, 0},
      {"sum above 0x1000 refused", 8, 0, {{0x100, 0x800}, {0x10, 0x801}}, true, false, 0, 0, 0, 0},
      {"mixed sizes", 4, 0, {{0x100, 14}, {0x10, 32}}, true, true, 0x100000, 0xFFF00000, 46, 0x10000},
      {"first block size 0", 8, 0, {{0, 5}}, true, true, 0x1000000, 0xFF000000, 0, 0},
      {"size given by the firmware", 0xFF, 6 << 20, {{0x10, 0x600}}, true, true, 0x600000, 0xFFA00000, 0x600, 0x1000},
      {"255 entries without end", 0xFF, 255 * 16 * 0x1000, full255, false, true, 255 * 16 * 0x1000,
       0u - 255 * 16 * 0x1000, 255 * 16, 0x1000},
  };
  for (const Row& row : rows) {
    Install(Layout());
    ASSERT_TRUE(InitialSmi());
    answers[0x13] = [&](OblisRegisters& r) {
      uint8_t* part = At(r.edi);
      part[0] = row.sizeIndex;
      bed::PutU32(part + 68, row.sizeSpecified);
      uint8_t* map = At(r.esi);
      for (auto [size, count] : row.map) {
        *map++ = (uint8_t)size;
        *map++ = (uint8_t)(size >> 8);
        *map++ = (uint8_t)count;
        *map++ = (uint8_t)(count >> 8);
      }
      std::memset(map, row.terminated ? 0xFF : 0x01, 0x100);  // what lies behind is no entry
    };
    ASSERT_EQ(FuncOblis_13h(), row.ok) << row.what;
    if (!row.ok) {
      EXPECT_NE(Log().find("<=== FuncOblis_13h (Block count > 0x1000)"), std::string::npos) << row.what;
      continue;
    }
    EXPECT_EQ(GetRomSize(), row.romSize) << row.what;
    EXPECT_EQ(GetRomBase(), row.romBase) << row.what;
    EXPECT_EQ(GetBlockCount(), row.blockCount) << row.what;
    EXPECT_EQ(GetBlockSize(), row.blockSize) << row.what;
    FlashBlock* table = CopyBlockTable();
    uint32_t end = row.romBase;
    for (uint32_t i = 0; i < row.blockCount; i++) {
      EXPECT_EQ(table[i].address, end) << row.what << " block " << i;
      end += table[i].size;
    }
    if (row.blockCount > 0) EXPECT_EQ(end, row.romBase + row.romSize) << row.what << ": the blocks end at 4 GB";
    if (row.blockCount < kFlashBlockEntries) EXPECT_EQ(table[row.blockCount].size, 0u) << row.what;
    FreePoolAndNull(table);
  }
}

constexpr uint32_t kBase = 0xFFFF0000u;  // 64 KB ROM, sixteen 4 KB blocks
constexpr uint32_t kBlock = 0x1000;
uint32_t BlockAt(int index) { return kBase + index * kBlock; }

// Only a block's first byte is tested against the range.
TEST_F(BlockTable, MarkBlocksTestsFirstBytesOnly) {
  struct Mark {
    uint32_t start, end;
    uint8_t flag;
  };
  const std::tuple<const char*, std::vector<Mark>, const char*> rows[] = {
      {"one whole block", {{BlockAt(1), BlockAt(2) - 1, 1}}, ".R.............."},
      {"starting one byte behind a block start leaves it", {{BlockAt(1) + 1, BlockAt(3) - 1, 1}}, "..R............."},
      {"ending inside a block marks it whole", {{BlockAt(1), BlockAt(2), 1}}, ".RR............."},
      {"a single byte at a block start", {{BlockAt(15), BlockAt(15), 1}}, "...............R"},
      {"flag 0 reopens", {{kBase, 0xFFFFFFFFu, 1}, {BlockAt(4), BlockAt(5) + 10, 0}}, "RRRR..RRRRRRRRRR"},
      {"a range below the ROM marks nothing", {{0x1000, 0xFFFEFFFFu, 1}}, "................"},
      {"start above end marks nothing", {{BlockAt(3), BlockAt(1), 1}}, "................"},
  };
  for (const auto& [what, marks, flags] : rows) {
    Install(Layout());
    ASSERT_TRUE(InitialSmi());
    answers[0x13] = bed::FlashPartAnswer(0, {{0x10, 16}});
    ASSERT_TRUE(FuncOblis_13h());
    for (const Mark& m : marks) MarkBlocks(m.start, m.end, m.flag);
    std::string seen;
    for (int i = 0; i < 16; i++) seen.push_back(BlockFlagAt(BlockAt(i) + 0xFFF) ? 'R' : '.');
    EXPECT_EQ(seen, flags) << what;
  }
}

}  // namespace
