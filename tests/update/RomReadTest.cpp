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
      EXPECT_EQ(SMI_ReadRom(row.address, row.size, row.withData ? data.data() : nullptr), row.ok) << row.what;
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

TEST(RomRead, ReadLongerThanTheSharedBufferGoesInPieces) {
  int code = RunIsolated([] {
    FakeFirmware fw;
    ASSERT_TRUE(InitialSmi());
    std::vector<ReadCall> reads;
    fw.handlers[0x14] = [&](OblisRegisters& r) {
      reads.push_back({r.edi, r.ecx});
      std::memset(At(r.esi), (uint8_t)reads.size(), r.ecx);
    };
    std::vector<uint8_t> data(0x30000);
    ASSERT_TRUE(SMI_ReadRom(0xFF000000u, 0x30000, data.data()));
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(reads[0].address, 0xFF000000u);
    EXPECT_EQ(reads[0].size, 0x20000u);
    EXPECT_EQ(reads[1].address, 0xFF020000u);
    EXPECT_EQ(reads[1].size, 0x10000u);
    EXPECT_EQ(data[0x1FFFF], 1);
    EXPECT_EQ(data[0x20000], 2);
  });
  EXPECT_EQ(code, 0);
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

TEST(RomRead, ReadWholeRomStopsAtTheFirstFailedRead) {
  int code = RunIsolated([] {
    ReadBed bed;
    bed.failCode = kOblisReadFailed;
    UINT8* data = reinterpret_cast<UINT8*>(1);
    UINT32 size = 5;
    EXPECT_FALSE(ReadWholeRom(&data, &size));
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(bed.fw.Console().find("Read Progress"), std::string::npos);
  });
  EXPECT_EQ(code, 0);
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

TEST(RomRead, SaveRomToFileSavesTheWholeRomOrSaysWhy) {
  const std::string start = "                           Read current ROM start!\r\n";
  const std::string done = "\r                           Read Progress: Completed\r\n\r\n\r\n\r\n\r\n";
  const std::string warning = "Warning!\r\nME is locked. The ME region of the saved file is invalid.\r\n";
  const SaveRow rows[] = {
      {"no name", u"", 0, false, false, {"\r\nError: No file name input!\r\n"}, 0, false},
      {"good read", u"dump.bin", 0, false, true, {start, done}, kBlocks, true},
      {"locked ME warns behind the completion", u"dump.bin", 0, true, true, {start, done, warning}, kBlocks, true},
      {"read error leaves the empty file", u"dump.bin", kOblisReadFailed, false, false,
       {start, "\r\nError: command -g fail. (Oblis fail)\r\n"}, kAllAttempts, false},
  };
  for (const SaveRow& row : rows) {
    int code = RunIsolated([&] {
      ReadBed bed;
      bed.failCode = row.failCode;
      if (row.locked) {
        bed.lockedFrom = 3 * kBlock;
        bed.lockedSize = 2 * kBlock;
      }
      EXPECT_EQ(SaveRomToFile(reinterpret_cast<const CHAR16*>(row.name)), row.ok) << row.what;
      std::string console = bed.fw.Console();
      size_t at = 0;
      for (const std::string& piece : row.console) {
        at = console.find(piece, at);
        ASSERT_NE(at, std::string::npos) << row.what << ": " << piece << "\n" << console;
        at += piece.size();
      }
      if (!row.locked) EXPECT_EQ(console.find("ME is locked"), std::string::npos) << row.what;
      // A failing read is tried as often as the channel tries, and the next block is not read.
      EXPECT_EQ(bed.reads.size(), row.reads == kAllAttempts ? OblisAttempts() : row.reads) << row.what;
      for (const ReadCall& read : bed.reads)
        if (row.reads == kAllAttempts) EXPECT_EQ(read.address, kBase) << row.what;
      UINT8* saved = nullptr;
      UINT32 savedSize = 0;
      if (row.name[0] != 0) {
        ASSERT_TRUE(ReadFile(reinterpret_cast<const CHAR16*>(row.name), &saved, &savedSize)) << row.what;
        if (row.fileEqualsRom) {
          ASSERT_EQ(savedSize, kRomSize) << row.what;
          EXPECT_EQ(0, std::memcmp(saved, bed.rom.data(), kRomSize)) << row.what;
        } else {
          EXPECT_EQ(savedSize, 0u) << row.what;
        }
        FreePoolAndNull(saved);
      }
      // Hook point 2 tells the firmware that the read starts, and only once there is a file.
      size_t hooks = 0;
      for (auto& frame : bed.fw.FramesOf(0x1F)) hooks += frame.ecx == 2 ? 1 : 0;
      EXPECT_EQ(hooks, row.name[0] != 0 ? 1u : 0u) << row.what;
    });
    EXPECT_EQ(code, 0) << row.what;
  }
}

struct QueryRow {
  const char* what;
  std::function<void(CommandFlags&)> set;
  std::string expected;  // on the console
  size_t reads;
};

// Only the first query asked for is done, in the dispatcher's own order.
TEST(RomRead, RunQueryCommandDoesTheFirstQueryOnly) {
  const QueryRow rows[] = {
      {"-pq before -g", [](CommandFlags& f) { f.pq = f.g = true; }, "Protection Region MAP\r\n", 0},
      {"-priv before -pr", [](CommandFlags& f) { f.priv = f.pr = true; }, "Private Region MAP\r\n", 0},
      {"-g before -pi", [](CommandFlags& f) { f.g = f.pi = true; }, "Read Progress: Completed", kBlocks},
      {"-extrFD is not built", [](CommandFlags& f) { f.extrFD = f.pi = true; },
       "\r\nThe query -extrFD is not built yet; nothing was read or written.\r\n", 0},
      {"-edt is not built", [](CommandFlags& f) { f.edtCount = 1; f.pi = true; },
       "\r\nThe query -edt is not built yet; nothing was read or written.\r\n", 0},
  };
  for (const QueryRow& row : rows) {
    int code = RunIsolated([&] {
      ReadBed bed;
      bed.fw.AnswerPlatformMaps({{0, kBase + kBlock, kBlock}}, {{6, kBase + 2 * kBlock, kBlock}});
      ASSERT_TRUE(SMI_GetPlatformRomMap());
      row.set(FakeFirmware::MutableFlags());
      RunQueryCommand(u"dump.bin");
      std::string console = bed.fw.Console();
      EXPECT_NE(console.find(row.expected), std::string::npos) << row.what << "\n" << console;
      EXPECT_EQ(bed.reads.size(), row.reads) << row.what;
    });
    EXPECT_EQ(code, 0) << row.what;
  }
}

}  // namespace
