// Function 13h and the block table: the ROM size from the size index or the firmware, the block
// map's count limit, the table built down from 4 GB, which blocks a range marks, and
// which blocks SetRsvd_13h closes from the maps, the options, the settings and Secure Boot.
#include <gtest/gtest.h>

#include <cstdio>

#include "checks/ChecksInternal.h"
#include "oblis/OblisInternal.h"
#include "support/DriverBed.h"

namespace {

using BlockTable = bed::ScriptedBed;

// The ROM size, base, block count and block size; a refused map leaves them at zero.
TEST_F(BlockTable, BlockMapCountsAndLimits) {
  using Map = std::vector<std::pair<uint16_t, uint16_t>>;  // (size in 256 bytes, count)
  // size index, size given, map, ended; size, base, count, block size in hex ("" refused)
  const std::tuple<const char*, uint8_t, uint32_t, Map, bool, const char*> rows[] = {
      {"16 MB of 4 KB blocks", 8, 0, {{0x10, 0x1000}}, true, "1000000 FF000000 1000 1000"},
      {"sum above 0x1000 refused", 8, 0, {{0x100, 0x800}, {0x10, 0x801}}, true, ""},
      {"mixed sizes", 4, 0, {{0x100, 14}, {0x10, 32}}, true, "100000 FFF00000 2E 10000"},
      {"first block size 0", 8, 0, {{0, 5}}, true, "1000000 FF000000 0 0"},
      {"size given by the firmware", 0xFF, 6 << 20, {{0x10, 0x600}}, true, "600000 FFA00000 600 1000"},
  };
  for (const auto& [what, sizeIndex, sizeSpecified, map, ended, expected] : rows) {
    Install(Layout());
    ASSERT_TRUE(InitialSmi());
    answers[0x13] = bed::FlashPartAnswer(sizeIndex, map, sizeSpecified, ended);
    ASSERT_EQ(FuncOblis_13h(), *expected != 0) << what;
    if (*expected == 0) EXPECT_NE(Log().find("<=== FuncOblis_13h (Block count > 0x1000)"), std::string::npos) << what;
    char seen[64];
    std::snprintf(seen, sizeof seen, "%X %X %X %X", GetRomSize(), GetRomBase(), GetBlockCount(), GetBlockSize());
    EXPECT_EQ(*expected ? seen : "", std::string(expected)) << what;
    FlashBlock* table = CopyBlockTable();
    uint32_t end = GetRomBase();
    // The entries are packed: their fields are read by value.
    for (uint32_t i = 0; i < GetBlockCount(); i++, end += UINT32{table[i - 1].size}) EXPECT_EQ(UINT32{table[i].address}, end) << what << " block " << i;
    EXPECT_EQ(end, GetBlockCount() ? 0u : GetRomBase()) << what << ": the blocks end at 4 GB";
    if (GetBlockCount() < kFlashBlockEntries) EXPECT_EQ(UINT32{table[GetBlockCount()].size}, 0u) << what;
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
      {"a region past 4 GB ends there", {{BlockAt(14), RegionEnd(BlockAt(14), 0x10000), 1}}, "..............RR"},
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

using BlockMarking = bed::ScriptedBed;

std::vector<uint8_t> ImageWithRegionMap() {
  std::vector<uint8_t> image(0x40, 0x11);
  for (uint8_t b : bed::Bytes("$OBLIS")) image.push_back(b);
  for (auto [type, block] : {std::pair<uint8_t, int>{0x03, 9}, {0xFE, 12}}) {
    uint8_t record[10] = {type};
    bed::PutU32(record + 1, BlockAt(block));
    bed::PutU32(record + 5, kBlock);
    image.insert(image.end(), record, record + 10);
  }
  image.push_back(0xFF);
  return image;
}

// The platform's maps for every row: private block 0; protection Microcode (block 2), Factory
// Copy (block 4), NV Storage (block 6). The 1Eh map: NV Storage over blocks 6 and 7, Factory Copy
// over block 4.
TEST_F(BlockMarking, SetRsvdMarksFromMapsOptionsAndSettings) {
  struct Row {
    const char* what;
    std::vector<std::u16string> options;
    const char* ini;
    bool allowAlp, secureBoot, bvdtImage;
    const char* flags;
    std::vector<std::string> traces;
  };
  const Row rows[] = {
      {"plain: private and protection regions closed", {}, "", false, false, false, "R.R.R.R.........",
       {"Protect private region (FFFF0000 ~ FFFF0FFF)\r\n",
        " Protection Region Map\r\n----------+-----+----------\r\n Reserved | 01h | CPU Microcode\r\n"
        " Reserved | 16h | Factory Copy\r\n Reserved | 06h | NV Storage\r\n"}},
      {"-all keeps private regions closed", {u"-all"}, "", false, false, false, "R...............", {" |all=1|\r\n"}},
      {"[ForceFlash] ALL does the same", {}, "[ForceFlash]\nALL=1\n", false, false, false, "R...............",
       {" |all=1|\r\n"}},
      {"-alp on a platform that allows it opens both", {u"-alp"}, "", true, false, false, "................",
       {"ALP |enable|\r\n"}},
      {"[ForceFlash] ALP on such a platform", {}, "[ForceFlash]\nALP=1\n", true, false, false, "................",
       {"ALP |enable|\r\n"}},
      {"-alp without the allow flag changes nothing", {u"-alp"}, "", false, false, false, "R.R.R.R.........", {}},
      {"-all on Secure Boot still closes NV storage", {u"-all"}, "", false, true, false, "R.....RR........", {}},
      {"-all -unvs on Secure Boot leaves NV storage open", {u"-all", u"-unvs"}, "", false, true, false,
       "R...............", {"update region NV |enable|\r\n"}},
      {"-unvs reopens NV storage the list closed", {u"-unvs"}, "", false, false, false, "R.R.R...........",
       {"update region NV |enable|\r\n"}},
      {"[SecurityFlashFactoryUpdate] UpdateNvStorage", {}, "[SecurityFlashFactoryUpdate]\nUpdateNvStorage=1\n", false,
       true, false, "R.R.R...........", {}},
      {"-ft:16 with -ufc: skipped and cleared alike", {u"-ft:16", u"-ufc"}, "", false, false, false,
       "R.R...R.........", {"   Skip   | 16h | Factory Copy\r\n"}},
      {"-ufc alone reopens the factory copy", {u"-ufc"}, "", false, false, false, "R.R...R.........",
       {" Reserved | 16h | Factory Copy\r\n"}},
      {"[SecurityFlashFactoryUpdate] UpdateFactoryCopy", {}, "[SecurityFlashFactoryUpdate]\nUpdateFactoryCopy=1\n",
       false, false, false, "R.R...R.........", {}},
      {"[ForceFlash] type flag skips the microcode", {}, "[ForceFlash]\nType#01=1\n", false, false, false,
       "R...R.R.........", {"   Skip   | 01h | CPU Microcode\r\n"}},
      {"UseBvdtRomMap with a map in the image takes the image's regions", {}, "[ForceFlash]\nUseBvdtRomMap=1\n", false,
       false, true, ".........R..R...", {"Protect private region (FFFFC000 ~ FFFFCFFF)\r\n", " Reserved | 03h | DXE\r\n"}},
      {"UseBvdtRomMap without a map in the image keeps the platform's", {}, "[ForceFlash]\nUseBvdtRomMap=1\n", false,
       false, false, "R.R.R.R.........", {}},
  };
  for (const Row& row : rows) {
    Install(Layout());
    LoadSettings(std::string("[Log_file]\nFlag=1\nLevel=4\n") + row.ini);
    ASSERT_TRUE(Options(row.options)) << row.what;
    ASSERT_TRUE(InitialSmi());
    if (row.allowAlp) {
      answers[0x11] = [](OblisRegisters& r) {
        r.ecx = 1;
        bed::Answer(r, 0, 0x80);
      };
      ASSERT_TRUE(FuncOblis_11h());
    }
    if (row.secureBoot) SetSecureBoot();
    answers[0x1E] = bed::WholeMapAnswer({{0x06, BlockAt(6), 2 * kBlock}, {0x16, BlockAt(4), kBlock}});
    ASSERT_TRUE(SMI_GetWholeRomMap(nullptr, nullptr));
    answers[0x12] = bed::PlatformMapsAnswer({{0xFE, BlockAt(0), kBlock}},
                                            {{0x01, BlockAt(2), kBlock}, {0x16, BlockAt(4), kBlock}, {0x06, BlockAt(6), kBlock}});
    ASSERT_TRUE(SMI_GetPlatformRomMap());
    answers[0x13] = bed::FlashPartAnswer(0, {{0x10, 16}});
    ASSERT_TRUE(FuncOblis_13h());
    if (row.bvdtImage) {
      std::vector<uint8_t> image = ImageWithRegionMap();
      ASSERT_TRUE(LoadBvdtMap(image.data(), (UINT32)image.size()));
    }
    SetRsvd_13h(IsSecureBootSupport);
    std::string flags;
    for (int i = 0; i < 16; i++) flags.push_back(BlockFlagAt(BlockAt(i)) ? 'R' : '.');
    EXPECT_EQ(flags, row.flags) << row.what;
    std::string log = Log();
    for (const std::string& line : row.traces) EXPECT_NE(log.find(line), std::string::npos) << row.what << "\n" << log;
    EXPECT_EQ(SmiCallsOf(0x1E).size(), 1u) << row.what << ": the 1Eh map is the one fetched at set-up";
  }
}

}  // namespace
