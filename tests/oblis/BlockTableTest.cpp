// Function 13h: the ROM size from the size index, the block map's end and count limits, and the
// block table built down from 4 GB.
#include <gtest/gtest.h>

#include "FakeFirmware.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"

using namespace oblistest;

namespace {

TEST(BlockTable, SizeIndexGivesTheRomSize) {
  const std::pair<uint8_t, uint32_t> rows[] = {
      {0, 0x10000}, {1, 0x20000}, {4, 0x100000}, {7, 0x800000}, {8, 0x1000000}, {9, 0}, {0x10, 0}, {0xFF, 0},
  };
  for (auto [index, bytes] : rows) EXPECT_EQ(SizeIndexToBytes(index), bytes) << (int)index;
}

struct MapRow {
  const char* what;
  uint8_t sizeIndex;
  uint32_t sizeSpecified;
  std::vector<std::pair<uint16_t, uint16_t>> map;  // (size in 256 bytes, count)
  bool terminated;
  bool ok;
  uint32_t romSize, romBase, blockCount, blockSize;
};

void RunMapRow(const MapRow& row) {
  FakeFirmware fw;
  ASSERT_TRUE(InitialSmi());
  fw.handlers[0x13] = [&](OblisRegisters& r) {
    uint8_t* part = At(r.edi);
    part[0] = row.sizeIndex;
    std::memcpy(part + 1, "Winbond", 7);
    PutU32(part + 64, 0xEF4018);
    PutU32(part + 68, row.sizeSpecified);
    uint8_t* map = At(r.esi);
    size_t at = 0;
    for (auto [size, count] : row.map) {
      map[at] = (uint8_t)size;
      map[at + 1] = (uint8_t)(size >> 8);
      map[at + 2] = (uint8_t)count;
      map[at + 3] = (uint8_t)(count >> 8);
      at += 4;
    }
    if (row.terminated) {
      map[at] = 0xFF;
      map[at + 1] = 0xFF;
    } else {
      std::memset(map + at, 0x01, 0x100);  // what lies behind must not be read as entries
    }
  };
  ASSERT_EQ(FuncOblis_13h(), row.ok) << row.what;
  if (!row.ok) {
    EXPECT_NE(fw.Log().find("<=== FuncOblis_13h (Block count > 0x1000)"), std::string::npos) << row.what;
    return;
  }
  EXPECT_EQ(GetRomSize(), row.romSize) << row.what;
  EXPECT_EQ(GetRomBase(), row.romBase) << row.what;
  EXPECT_EQ(GetBlockCount(), row.blockCount) << row.what;
  EXPECT_EQ(GetBlockSize(), row.blockSize) << row.what;
  FlashBlock* table = CopyBlockTable();
  ASSERT_NE(table, nullptr);
  if (row.blockCount > 0) {
    EXPECT_EQ(table[0].address, row.romBase);
    EXPECT_EQ(table[0].size, row.blockSize);
    uint32_t end = table[0].address;
    for (uint32_t i = 0; i < row.blockCount; i++) {
      EXPECT_EQ(table[i].address, end) << row.what << " block " << i;
      EXPECT_EQ(table[i].protectedFlag, 0);
      end += table[i].size;
    }
    EXPECT_EQ(end, row.romBase + row.romSize) << "the blocks end at 4 GB";
  }
  if (row.blockCount < kFlashBlockEntries) EXPECT_EQ(table[row.blockCount].size, 0u);
}

TEST(BlockTable, BlockMapCountsAndLimits) {
  std::vector<std::pair<uint16_t, uint16_t>> full255(255, {0x10, 16});  // 255 x 16 blocks of 4 KB
  const MapRow rows[] = {
      {"16 MB of 4 KB blocks", 8, 0, {{0x10, 0x1000}}, true, true, 0x1000000, 0xFF000000, 0x1000, 0x1000},
      {"count 0x1001 refused", 8, 0, {{0x10, 0x1001}}, true, false, 0, 0, 0, 0},
      {"sum above 0x1000 refused", 8, 0, {{0x100, 0x800}, {0x10, 0x801}}, true, false, 0, 0, 0, 0},
      {"mixed sizes", 4, 0, {{0x100, 14}, {0x10, 32}}, true, true, 0x100000, 0xFFF00000, 46, 0x10000},
      {"first block size 0", 8, 0, {{0, 5}}, true, true, 0x1000000, 0xFF000000, 0, 0},
      {"size given by the firmware", 0xFF, 6 << 20, {{0x10, 0x600}}, true, true, 0x600000, 0xFFA00000, 0x600, 0x1000},
      {"255 entries without end", 0xFF, 255 * 16 * 0x1000, full255, false, true, 255 * 16 * 0x1000,
       0u - 255 * 16 * 0x1000, 255 * 16, 0x1000},
  };
  for (const MapRow& row : rows) EXPECT_EQ(0, RunIsolated([&] { RunMapRow(row); })) << row.what;
}

}  // namespace
