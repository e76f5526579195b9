// The block writer on a 64 KB flash of sixteen 4 KB blocks: compare, write and verify of one
// block, the protected blocks left and the BVDT blocks held back for last, the compare's read
// buffer handed back when the read fails, and the facts the trace's block map shows of a block.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "oblis/OblisInternal.h"
#include "output/Output.h"
#include "support/DriverBed.h"
#include "update/UpdateInternal.h"

namespace {

using bed::At;

constexpr uint32_t kBlock = 0x1000;
constexpr uint32_t kBlocks = 16;
constexpr uint32_t kRomSize = kBlock * kBlocks;
constexpr uint32_t kBase = 0xFFFF0000u;
// What the firmware is handed lies below 4 GB: static data does in the host build, the heap need not.
uint8_t gData[kBlock];

class BlockWriter : public bed::ScriptedBed {
 protected:
  // A fresh driver with the flash behind 13h, 14h and 15h, and the settings and options given.
  void Start(const std::string& others = "", const std::vector<std::u16string>& options = {}) {
    Install(Layout());
    LoadSettings("[Log_file]\nFlag=1\nLevel=4\n[Others]\nSMIErrorRetryDelay=0\n" + others);
    ASSERT_TRUE(Options(options));
    rom.assign(kRomSize, 0xFF), writes.clear(), reads = 0;
    ASSERT_TRUE(InitialSmi());
    answers[0x13] = bed::FlashPartAnswer(0, {{kBlock / 256, kBlocks}});
    ASSERT_TRUE(FuncOblis_13h());
    answers[0x14] = [this](OblisRegisters& r) {
      ++reads;
      std::memcpy(At(r.esi), rom.data() + (r.edi - kBase), r.ecx);
    };
    answers[0x15] = [this](OblisRegisters& r) {
      writes.push_back(r.edi);
      uint8_t code = writeCodes.empty() ? 0 : writeCodes.front();
      if (!writeCodes.empty()) writeCodes.erase(writeCodes.begin());
      if (code != kOblisBlockSkipped) std::memcpy(rom.data() + (r.edi - kBase), At(r.esi), r.ecx);
      if (code != kOblisBlockSkipped && corruptWrites > 0 && corruptWrites--) rom[r.edi - kBase] ^= 0x5A;
      bed::Answer(r, code);
    };
  }
  std::vector<uint8_t> rom;
  std::vector<uint32_t> writes;
  size_t reads = 0;
  std::vector<uint8_t> writeCodes;  // answered in turn to 15h; none left: 0
  int corruptWrites = 0;            // the next writes land with their first byte wrong
};

TEST_F(BlockWriter, SmiWriteRomComparesWritesAndVerifies) {
  struct Row {
    const char* what;
    uint8_t flashFill;  // what the block holds before
    std::vector<std::u16string> options;
    const char* others;
    std::vector<uint8_t> writeCodes;
    int corruptWrites;
    BlockResult result;
    size_t writes, reads;
  };
  const Row rows[] = {
      {"equal block", 0x11, {}, "", {}, 0, BlockResult::Compared, 0, 1},
      {"-dc writes an equal block", 0x11, {u"-dc"}, "", {}, 0, BlockResult::Verified, 1, 1},
      {"DisableCompare does the same", 0x11, {}, "DisableCompare=1\n", {}, 0, BlockResult::Verified, 1, 1},
      {"different block", 0xFF, {}, "", {}, 0, BlockResult::Verified, 1, 2},
      {"verify fails once", 0xFF, {}, "", {}, 1, BlockResult::Verified, 2, 3},
      {"0x29: skipped, no read back", 0xFF, {}, "", {kOblisBlockSkipped}, 0, BlockResult::Written, 1, 1},
      {"DisableVerify writes once", 0xFF, {}, "DisableVerify=1\n", {}, 1, BlockResult::Written, 1, 1},
      {"verify failure, then 0x29", 0xFF, {}, "", {0, kOblisBlockSkipped}, 1, BlockResult::Failed, 2, 2},
      {"verify fails in every attempt", 0xFF, {}, "", {}, 3, BlockResult::Failed, 3, 4},
      {"-vrt:2 over the setting", 0xFF, {u"-vrt:2"}, "", {}, 3, BlockResult::Failed, 2, 3},
      {"retry 0 still writes once", 0xFF, {}, "VerifyErrorRetry=0\n", {}, 0, BlockResult::Verified, 1, 2},
      {"retry 0, verify fails", 0xFF, {}, "VerifyErrorRetry=0\n", {}, 1, BlockResult::Failed, 1, 2},
      {"refused write", 0xFF, {}, "SMIErrorRetry=0\n", {kOblisWriteFailed}, 0, BlockResult::Failed, 1, 1},
  };
  for (const Row& row : rows) {
    Start(row.others, row.options);
    std::fill(rom.begin() + kBlock, rom.begin() + 2 * kBlock, row.flashFill);
    writeCodes = row.writeCodes;
    corruptWrites = row.corruptWrites;
    std::fill_n(gData, kBlock, 0x11);
    EXPECT_EQ(SMI_WriteRom(kBase + kBlock, {gData, kBlock}), row.result) << row.what;
    EXPECT_EQ(writes, std::vector<uint32_t>(row.writes, kBase + kBlock)) << row.what;
    EXPECT_EQ(reads, row.reads) << row.what;
    // One close per call; a failure names why.
    EXPECT_EQ(bed::CountOf(Log(), "<=== SMI_WriteRom"), 1u) << row.what;
    if (row.result == BlockResult::Failed && row.corruptWrites > 0) {
      EXPECT_NE(Log().find("Verify failed (0)\r\n"), std::string::npos) << row.what;
      EXPECT_NE(Log().find("<=== SMI_WriteRom (Verify failed)"), std::string::npos) << row.what;
    } else if (row.result == BlockResult::Failed) {
      EXPECT_NE(Log().find("<=== SMI_WriteRom (Write ROM failed)"), std::string::npos) << row.what;
    }
  }
}

// The whole ROM map's OEM Data region (type 0x0A) is where the running firmware keeps its BVDT.
TEST_F(BlockWriter, WriteBlocksLeavesProtectedBlocksAndHoldsBackTheBvdtBlocksForLast) {
  // BVDT range, protected block (-1: none), the blocks written in order, a BVDT trace line
  const std::tuple<const char*, uint32_t, uint32_t, int, const char*, const char*> rows[] = {
      {"one block", kBase + 5 * kBlock, kBlock, -1, "012346789ABCDEF5", "0xFFFF5000"},
      {"range starts in a block's last byte", kBase + 6 * kBlock - 1, 0x10, -1, "01234789ABCDEF56", "0xFFFF6000"},
      {"range ends in a block's first byte", kBase + 8 * kBlock + 0x800, 0x801, -1, "01234567ABCDEF89", "0xFFFF9000"},
      {"block spans the range on both sides", kBase + 3 * kBlock + 0x100, 0x100, -1, "0123456789ABCDEF", ""},
      {"no BVDT region", 0, 0, -1, "0123456789ABCDEF", ""},
      {"a protected block is not written, not even as BVDT", kBase + 5 * kBlock, 2 * kBlock, 5, "01234789ABCDEF6", "0xFFFF6000"},
  };
  for (const auto& [what, bvdtAddress, bvdtSize, protectedBlock, order, bvdtLine] : rows) {
    Start("", {u"-dc"});  // every open block is written
    if (bvdtSize != 0) std::memcpy(rom.data() + (bvdtAddress - kBase), "$BVDT$", 6);
    answers[0x1E] = bed::WholeMapAnswer({{uint8_t(bvdtSize ? 0x0A : 0x03), bvdtSize ? bvdtAddress : kBase, bvdtSize ? bvdtSize : kRomSize}});
    SMI_GetWholeRomMap(nullptr, nullptr);
    if (protectedBlock >= 0) MarkBlocks(kBase + protectedBlock * kBlock, kBase + protectedBlock * kBlock, 1);
    static uint8_t image[kRomSize + 0x1000];
    ASSERT_TRUE(WriteBlocks({image, sizeof image})) << what;
    std::string written;
    for (uint32_t address : writes) written += "0123456789ABCDEF"[(address - kBase) / kBlock];
    EXPECT_EQ(written, order) << what;
    size_t at = Log().find(std::string("Write BVDT block ") + (*bvdtLine ? bvdtLine : "") + (*bvdtLine ? " size 0x1000\r\n" : ""));
    EXPECT_EQ(at != std::string::npos, *bvdtLine != 0) << what;
  }
}

// The compare's read buffer goes back to the pool whether the read succeeds or not.
TEST_F(BlockWriter, CompareHandsBackItsReadBufferWhenTheReadFails) {
  for (uint8_t code : {kOblisSuccess, kOblisReadFailed}) {
    Start("SMIErrorRetry=0\n");
    if (code != kOblisSuccess) AnswerCodes(0x14, {code});
    std::fill_n(gData, kBlock, 0xFF);
    size_t live = Environment().LiveBlocks().size();
    EXPECT_EQ(CompareCurrentFD(kBase, kBlock, gData), code == kOblisSuccess) << (int)code;
    EXPECT_EQ(Environment().LiveBlocks().size(), live) << (int)code;
    EXPECT_EQ(Log().find("CompareCurrentFD() |fail|\r\n") != std::string::npos, code != kOblisSuccess) << (int)code;
  }
}

using BlockMapFacts = bed::ScriptedBed;

// A private and a protection range as function 12h gives them, two flagged blocks in the table
// of function 13h.
TEST_F(BlockMapFacts, BlockFactsComeFromTheProtectionAndPrivateMaps) {
  ASSERT_TRUE(InitialSmi());
  answers[0x13] = bed::FlashPartAnswer(4, {{0x10, 128}});
  ASSERT_TRUE(FuncOblis_13h());
  UINT32 base = GetRomBase();
  answers[0x12] = bed::PlatformMapsAnswer({{0, base + 0x6000, 0x3000}, {0, base + 0xF000, 0}}, {{0x1D, base + 0x2000, 0x2000}});
  ASSERT_TRUE(SMI_GetPlatformRomMap());
  MarkBlocks(base, base + 0x1FFF, 1);
  for (UINT32 i = 0; i < 128; i++) AddBlockMark(DescribeBlock(base + i * 0x1000, 'V'));
  char line[200];
  std::snprintf(line, sizeof line,
                "[        0 ] %08X:              RR...... - ........    VVVVVVVV - VVVVVVVV    ..tt..## - #.......    \r\n", base);
  EXPECT_NE(Log().find(line), std::string::npos) << Log();
}

}  // namespace
