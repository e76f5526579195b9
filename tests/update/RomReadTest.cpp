// Reading the flash: SMI_ReadRom with the locked ME it notes and the nothing it hands back on a
// failure, and the whole ROM in block table order with its progress.
#include <gtest/gtest.h>

#include <cstring>

#include "oblis/OblisInternal.h"
#include "support/DriverBed.h"
#include "update/UpdateInternal.h"

namespace {

using bed::At;

constexpr uint32_t kBlock = 0x1000;
constexpr uint32_t kRomSize = 16 * kBlock;
constexpr uint32_t kBase = 0xFFFF0000u;

class RomRead : public bed::ScriptedBed {
 protected:
  // A 64 KB flash behind 13h and 14h; a read that touches block 2 answers 0x2A when locked.
  void Start(std::vector<std::pair<uint16_t, uint16_t>> map, uint8_t failCode = 0, bool locked = false) {
    Install(Layout());
    LoadSettings("[Log_file]\nFlag=1\nLevel=4\n[Others]\nSMIErrorRetry=0\nSMIErrorRetryDelay=0\n");
    rom.resize(kRomSize);
    for (uint32_t i = 0; i < kRomSize; i++) rom[i] = (uint8_t)(i * 7 + (i >> 12));
    ASSERT_TRUE(InitialSmi());
    answers[0x13] = bed::FlashPartAnswer(0, map);
    ASSERT_TRUE(FuncOblis_13h());
    answers[0x14] = [this, failCode, locked](OblisRegisters& r) {
      if (failCode != 0) return bed::Answer(r, failCode);
      std::memcpy(At(r.esi), rom.data() + (r.edi - kBase), r.ecx);
      if (locked && r.edi < kBase + 3 * kBlock && r.edi + r.ecx > kBase + 2 * kBlock) bed::Answer(r, kOblisLockedMe);
    };
  }
  std::vector<uint8_t> rom;
};

TEST_F(RomRead, SmiReadRomNotesALockedMeAndHandsBackNothingOnAFailure) {
  // address, with data, the 14h answer, ME locked there; read, ME lock noted
  const std::tuple<const char*, uint32_t, bool, uint8_t, bool, bool, bool> rows[] = {
      {"one block", kBase + kBlock, true, 0, false, true, false},
      {"locked ME without data", kBase + 2 * kBlock, false, 0, true, true, true},
      {"locked ME with data is still a read", kBase + 2 * kBlock, true, 0, true, true, true},
      {"read error", kBase, true, kOblisReadFailed, false, false, false},
  };
  for (const auto& [what, address, withData, failCode, locked, ok, meLocked] : rows) {
    Start({{kBlock / 256, 16}}, failCode, locked);
    std::vector<uint8_t> data(kBlock, 0xEE);
    size_t live = Environment().LiveBlocks().size();
    EXPECT_EQ(SMI_ReadRom(address, kBlock, withData ? ImageView{data.data(), kBlock} : ImageView{}), ok) << what;
    EXPECT_EQ(Environment().LiveBlocks().size(), live) << what << ": the read buffer goes back";
    EXPECT_EQ(IsMeLocked(), meLocked) << what;
    ASSERT_EQ(SmiCallsOf(0x14).size(), 1u) << what;
    EXPECT_EQ(SmiCallsOf(0x14)[0].edi, address) << what;
    EXPECT_EQ(SmiCallsOf(0x14)[0].ecx, kBlock) << what;
    if (ok && withData) EXPECT_EQ(0, std::memcmp(data.data(), rom.data() + (address - kBase), kBlock)) << what;
    if (!ok) {
      EXPECT_EQ(data, std::vector<uint8_t>(kBlock, 0xEE)) << what << ": a failed read hands back nothing";
      EXPECT_NE(Log().find("<=== SMI_ReadRom (OBLIS 14h failed)"), std::string::npos) << what;
    }
    EXPECT_EQ(bed::CountOf(Log(), "ME |LOCKED|\r\n"), meLocked ? 1u : 0u) << what;
  }
}

// Blocks of the table in its own order, a protected block among them: all are read.
TEST_F(RomRead, ReadWholeRomFollowsTheBlockTableAndShowsProgress) {
  Start({{kBlock / 256, 8}, {2 * kBlock / 256, 4}});  // eight 4 KB, four 8 KB blocks
  MarkBlocks(kBase + kBlock, kBase + kBlock, 1);
  UINT8* data = nullptr;
  UINT32 size = 0;
  ASSERT_TRUE(ReadWholeRom(&data, &size));
  ASSERT_EQ(size, kRomSize);
  EXPECT_EQ(0, std::memcmp(data, rom.data(), kRomSize));
  FreePoolAndNull(data);
  std::vector<OblisRegisters> reads = SmiCallsOf(0x14);
  ASSERT_EQ(reads.size(), 12u);
  EXPECT_EQ(reads[1].edi, kBase + kBlock) << "the protected block is read too";
  EXPECT_EQ(reads[8].edi, kBase + 8 * kBlock);
  EXPECT_EQ(reads[8].ecx, 2 * kBlock);
  for (const char* step : {"  6% ", " 62% ", "100% "})
    EXPECT_NE(Console().find(std::string("\r                           Read Progress: ") + step), std::string::npos) << Console();
}

}  // namespace
