// Reading the flash: SMI_ReadRom with its pieces and the ME lock, the whole ROM in block table
// order with its progress, the -g command's messages and file, and the choice of query.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
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

struct ReadCall {
  uint32_t address, size;
};

// A 64 KB flash behind 13h and 14h; reads of lockedFrom.. answer 0x2A with 0xFF there.
struct ReadBed {
  FakeFirmware fw;
  std::vector<uint8_t> rom = std::vector<uint8_t>(kRomSize);
  std::vector<ReadCall> reads;
  uint8_t failCode = 0;  // answered to every read when not 0
  uint32_t lockedFrom = 0, lockedSize = 0;

  explicit ReadBed(std::vector<std::pair<uint16_t, uint16_t>> map = {{kBlock / 256, kBlocks}}) {
    for (uint32_t i = 0; i < kRomSize; i++) rom[i] = (uint8_t)(i * 7 + (i >> 12));
    EXPECT_TRUE(InitialSmi());
    fw.AnswerFlashPart(0, map);
    EXPECT_TRUE(FuncOblis_13h());
    fw.handlers[0x14] = [this](OblisRegisters& r) {
      reads.push_back({r.edi, r.ecx});
      if (failCode != 0) {
        Answer(r, failCode);
        return;
      }
      uint32_t offset = r.edi - kBase;
      std::memcpy(At(r.esi), rom.data() + offset, r.ecx);
      if (lockedSize != 0 && offset < lockedFrom + lockedSize && offset + r.ecx > lockedFrom) {
        Answer(r, kOblisLockedMe);
      }
    };
  }
};

struct SmiReadRow {
  const char* what;
  uint32_t address, size;
  bool withData;
  uint8_t failCode;
  bool locked;  // the range overlaps a locked ME
  bool ok;
  std::vector<ReadCall> calls;
  bool meLocked;
};

TEST(RomRead, SmiReadRomReadsInPiecesAndNotesALockedMe) {
  const SmiReadRow rows[] = {
      {"one block", kBase + kBlock, kBlock, true, 0, false, true, {{kBase + kBlock, kBlock}}, false},
      {"locked ME without data", kBase + 2 * kBlock, kBlock, false, 0, true, true, {{kBase + 2 * kBlock, kBlock}},
       true},
      {"locked ME with data is still a read", kBase + 2 * kBlock, kBlock, true, 0, true, true,
       {{kBase + 2 * kBlock, kBlock}}, true},
      {"read error", kBase, kBlock, true, kOblisReadFailed, false, false, {}, false},
  };
  for (const SmiReadRow& row : rows) {
    int code = RunIsolated([&] {
      ReadBed bed;
      bed.failCode = row.failCode;
      if (row.locked) {
        bed.lockedFrom = 2 * kBlock;
        bed.lockedSize = kBlock;
      }
      std::vector<uint8_t> data(row.size, 0xEE);
      EXPECT_EQ(SMI_ReadRom(row.address, row.size, row.withData ? ImageView{data.data(), (UINT32)data.size()} : ImageView{}), row.ok) << row.what;
      EXPECT_EQ(IsMeLocked(), row.meLocked) << row.what;
      if (row.failCode == 0) {
        ASSERT_EQ(bed.reads.size(), row.calls.size()) << row.what;
        for (size_t i = 0; i < row.calls.size(); i++) {
          EXPECT_EQ(bed.reads[i].address, row.calls[i].address) << row.what;
          EXPECT_EQ(bed.reads[i].size, row.calls[i].size) << row.what;
        }
      }
      if (row.ok && row.withData) {
        EXPECT_EQ(0, std::memcmp(data.data(), bed.rom.data() + (row.address - kBase), row.size)) << row.what;
      }
      if (!row.ok) {
        EXPECT_EQ(data, std::vector<uint8_t>(row.size, 0xEE)) << "a failed read hands back nothing";
        EXPECT_NE(bed.fw.Log().find("<=== SMI_ReadRom (OBLIS 14h failed)"), std::string::npos) << row.what;
      }
      EXPECT_EQ(CountOf(bed.fw.Log(), "ME |LOCKED|\r\n"), row.meLocked ? 1u : 0u) << row.what;
    });
    EXPECT_EQ(code, 0) << row.what;
  }
}

// Blocks of the table in its own order, a protected block among them: all are read.
TEST(RomRead, ReadWholeRomFollowsTheBlockTableAndShowsProgress) {
  int run = RunIsolated([] {
    ReadBed bed({{kBlock / 256, 8}, {2 * kBlock / 256, 4}});  // eight 4 KB, four 8 KB blocks
    MarkBlocks(kBase + kBlock, kBase + kBlock, 1);
    UINT8* data = nullptr;
    UINT32 size = 0;
    ASSERT_TRUE(ReadWholeRom(&data, &size));
    ASSERT_EQ(size, kRomSize);
    EXPECT_EQ(0, std::memcmp(data, bed.rom.data(), kRomSize));
    FreePoolAndNull(data);
    ASSERT_EQ(bed.reads.size(), 12u);
    EXPECT_EQ(bed.reads[1].address, kBase + kBlock) << "the protected block is read too";
    EXPECT_EQ(bed.reads[8].address, kBase + 8 * kBlock);
    EXPECT_EQ(bed.reads[8].size, 2 * kBlock);
    std::string console = bed.fw.Console();
    EXPECT_NE(console.find("\r                           Read Progress:   6% "), std::string::npos) << console;
    EXPECT_NE(console.find("\r                           Read Progress:  62% "), std::string::npos) << console;
    EXPECT_NE(console.find("\r                           Read Progress: 100% "), std::string::npos) << console;
  });
  EXPECT_EQ(run, 0);
}

constexpr size_t kAllAttempts = 1000;

struct SaveRow {
  const char* what;
  const char16_t* name;
  uint8_t failCode;
  bool locked;
  bool ok;
  std::vector<std::string> console;  // in order
  size_t reads;
  bool fileEqualsRom;
};

struct QueryRow {
  const char* what;
  std::function<void(CommandFlags&)> set;
  std::string expected;  // on the console
  size_t reads;
};

}  // namespace
