// The block writer against a fake firmware with a small flash: the compare, write and verify of
// one block with its mark, the hold-back of the BVDT blocks and their order, and the EC part in
// front of a BIOS image.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "config/Config.h"
#include "frame/Frame.h"
#include "oblis/FakeFirmware.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"
#include "update/Update.h"

using namespace oblistest;

namespace {

constexpr uint32_t kBlock = 0x1000;
constexpr uint32_t kBlocks = 16;
constexpr uint32_t kRomSize = kBlock * kBlocks;  // size index 0: 64 KB
constexpr uint32_t kBase = 0xFFFF0000u;

// A 64 KB flash of sixteen 4 KB blocks behind functions 13h, 14h and 15h.
struct FlashBed {
  FakeFirmware fw;
  std::vector<uint8_t> rom = std::vector<uint8_t>(kRomSize, 0xFF);
  std::vector<uint32_t> writes;  // addresses in order
  std::vector<uint32_t> reads;
  std::vector<uint8_t> writeCodes;  // answered in turn to 15h; empty: 0
  int corruptWrites = 0;            // the next n writes land with their first byte wrong

  FlashBed() {
    EXPECT_TRUE(InitialSmi());
    fw.AnswerFlashPart(0, {{kBlock / 256, kBlocks}});
    EXPECT_TRUE(FuncOblis_13h());
    fw.handlers[0x14] = [this](OblisRegisters& r) {
      reads.push_back(r.edi);
      std::memcpy(At(r.esi), rom.data() + (r.edi - kBase), r.ecx);
    };
    fw.handlers[0x15] = [this](OblisRegisters& r) {
      writes.push_back(r.edi);
      uint8_t code = 0;
      if (!writeCodes.empty()) {
        code = writeCodes.front();
        writeCodes.erase(writeCodes.begin());
      }
      if (code == kOblisBlockSkipped) {
        Answer(r, code);
        return;
      }
      std::memcpy(rom.data() + (r.edi - kBase), At(r.esi), r.ecx);
      if (corruptWrites > 0) {
        --corruptWrites;
        rom[r.edi - kBase] ^= 0x5A;
      }
      Answer(r, code);
    };
  }
  std::vector<uint8_t> Block(uint8_t fill) const { return std::vector<uint8_t>(kBlock, fill); }
};

struct WriteRow {
  const char* what;
  uint8_t flashFill;  // what the block holds before
  bool dc;
  int disableVerify;
  int verifyErrorRetry;
  std::vector<uint8_t> writeCodes;
  int corruptWrites;
  BlockResult result;
  size_t writes;
  size_t readsAfterFirstWrite;
};

TEST(BlockWriter, SmiWriteRomComparesWritesAndVerifies) {
  const WriteRow rows[] = {
      {"equal block", 0x11, false, 0, 3, {}, 0, BlockResult::Compared, 0, 0},
      {"-dc writes an equal block", 0x11, true, 0, 3, {}, 0, BlockResult::Verified, 1, 1},
      {"different block", 0xFF, false, 0, 3, {}, 0, BlockResult::Verified, 1, 1},
      {"verify fails once", 0xFF, false, 0, 3, {}, 1, BlockResult::Verified, 2, 2},
      {"0x29: skipped, no read back", 0xFF, false, 0, 3, {kOblisBlockSkipped}, 0, BlockResult::Written, 1, 0},
      {"DisableVerify writes once", 0xFF, false, 1, 3, {}, 1, BlockResult::Written, 1, 0},
      {"verify failure, then 0x29", 0xFF, false, 0, 3, {0, kOblisBlockSkipped}, 1, BlockResult::Failed, 2, 1},
      {"verify fails in every attempt", 0xFF, false, 0, 3, {}, 3, BlockResult::Failed, 3, 3},
      {"retry 0 still writes once", 0xFF, false, 0, 0, {}, 0, BlockResult::Verified, 1, 1},
      {"retry 0, verify fails", 0xFF, false, 0, 0, {}, 1, BlockResult::Failed, 1, 1},
  };
  for (const WriteRow& row : rows) {
    int code = RunIsolated([&] {
                FlashBed bed;
                std::fill(bed.rom.begin() + kBlock, bed.rom.begin() + 2 * kBlock, row.flashFill);
                bed.writeCodes = row.writeCodes;
                bed.corruptWrites = row.corruptWrites;
                FakeFirmware::MutableFlags().dc = row.dc;
                FakeFirmware::MutableSettings().others.disableVerify = row.disableVerify;
                FakeFirmware::MutableSettings().others.verifyErrorRetry = row.verifyErrorRetry;
                std::vector<uint8_t> data = bed.Block(0x11);
                EXPECT_EQ(SMI_WriteRom(kBase + kBlock, {data.data(), kBlock}), row.result) << row.what;
                EXPECT_EQ(bed.writes.size(), row.writes) << row.what;
                for (uint32_t w : bed.writes) EXPECT_EQ(w, kBase + kBlock) << row.what;
                size_t compareReads = row.dc ? 0 : 1;
                EXPECT_EQ(bed.reads.size(), compareReads + row.readsAfterFirstWrite) << row.what;
                if (row.result == BlockResult::Failed && row.corruptWrites > 0) {
                  EXPECT_NE(bed.fw.Log().find("Verify failed (0)\r\n"), std::string::npos) << row.what;
                  EXPECT_NE(bed.fw.Log().find("<=== SMI_WriteRom (Verify failed)"), std::string::npos) << row.what;
                }
              });
    EXPECT_EQ(code, 0) << row.what;
  }
}

// The whole ROM map's OEM Data region (type 0x0A) is where the running firmware keeps its BVDT.
struct HoldRow {
  const char* what;
  uint32_t bvdtAddress, bvdtSize;
  std::vector<uint32_t> heldBack;  // block indexes written in the second pass, in order
};

TEST(BlockWriter, WriteBlocksHoldsBackTheBvdtBlocksForLast) {
  const HoldRow rows[] = {
      {"one block", kBase + 5 * kBlock, kBlock, {5}},
      {"range starts in a block's last byte", kBase + 6 * kBlock - 1, 0x10, {5, 6}},
      {"range ends in a block's first byte", kBase + 8 * kBlock + 0x800, 0x801, {8, 9}},
      {"block spans the range on both sides", kBase + 3 * kBlock + 0x100, 0x100, {}},
      {"no BVDT region", 0, 0, {}},
  };
  for (const HoldRow& row : rows) {
    int code = RunIsolated([&] {
                FlashBed bed;
                if (row.bvdtSize != 0) {
                  bed.fw.AnswerWholeMap({{0x0A, row.bvdtAddress, row.bvdtSize}});
                  std::memcpy(bed.rom.data() + (row.bvdtAddress - kBase), "$BVDT$", 6);
                }
                else bed.fw.AnswerWholeMap({{0x03, kBase, kRomSize}});
                SMI_GetWholeRomMap(nullptr, nullptr);
                FakeFirmware::MutableFlags().dc = true;  // every block is written
                std::vector<uint8_t> image(kRomSize + 0x1000);
                for (uint32_t i = 0; i < kRomSize; i++) image[i] = (uint8_t)(i / kBlock + 1);
                ASSERT_TRUE(WriteBlocks({image.data(), (UINT32)image.size()})) << row.what;
                std::vector<uint32_t> expected;
                for (uint32_t i = 0; i < kBlocks; i++)
                  if (std::find(row.heldBack.begin(), row.heldBack.end(), i) == row.heldBack.end())
                    expected.push_back(kBase + i * kBlock);
                for (uint32_t i : row.heldBack) expected.push_back(kBase + i * kBlock);
                EXPECT_EQ(bed.writes, expected) << row.what;
                EXPECT_TRUE(std::equal(bed.rom.begin(), bed.rom.end(), image.begin())) << row.what;
                std::string log = bed.fw.Log();
                for (uint32_t i : row.heldBack) {
                  char line[64];
                  std::snprintf(line, sizeof line, "Write BVDT block 0x%08X size 0x1000\r\n", kBase + i * kBlock);
                  EXPECT_NE(log.find(line), std::string::npos) << row.what << line;
                }
              });
    EXPECT_EQ(code, 0) << row.what;
  }
}

struct EcRow {
  const char* what;
  uint32_t ecSize;
  bool ecb, ecbp, eob;
  bool ok;
  const char* message;  // on the console; empty: nothing
};

}  // namespace
