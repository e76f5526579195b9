// The piece walk of 1Bh: its addresses, its EC pieces and what each status does to it. (The
// $CHKCNDI record of 45h and its answer are in PlatformCheckTest, behind CheckByBios; the 19h
// list in PreFlashScenarios.)
#include <string>

#include "checks/ChecksBed.h"
#include "frame/Frame.h"
#include "update/UpdateInternal.h"

namespace {

using checks::Answer;
using checks::At;
using checks::Bytes;

class ModuleCheck : public checks::ChecksBed {
 protected:
  void Start(const std::string& ini = "") {
    Install(Layout());
    pieces.clear();
    Ini(ini + "[Others]\nSMIErrorRetryDelay=1\n");
    ASSERT_TRUE(InitialSmi());
  }
  // A part of 64 KB whose table has blocks of 4 KB; every 1Bh call kept as it comes.
  void Part(uint8_t blocks = 16) {
    answers[0x13] = [blocks](OblisRegisters& r) {
      At(r.edi)[0] = 0;
      const uint8_t map[] = {0x10, 0, blocks, 0, 0xFF, 0xFF};
      std::memcpy(At(r.esi), map, sizeof(map));
    };
    ASSERT_TRUE(FuncOblis_13h());
    ASSERT_EQ(GetRomBase(), 0xFFFF0000u);
    answers[0x1B] = [this](OblisRegisters& r) {
      EXPECT_EQ(r.ecx, 0x1000u);
      pieces.push_back({r.edi, Bytes(At(r.esi), At(r.esi) + r.ecx)});
    };
  }
  std::vector<std::pair<uint32_t, Bytes>> pieces;
};

Bytes Image(uint32_t size, uint8_t base = 0) {
  Bytes image(size);
  for (uint32_t i = 0; i < size; ++i) image[i] = (uint8_t)(base + (i >> 12) * 17 + i);
  return image;
}

TEST_F(ModuleCheck, PiecesAndTheirAddresses) {
  struct Row {
    const char16_t* option;
    uint8_t blocks;
    uint32_t imageSize;
    size_t ecPieces, pieces;  // EC pieces at their offsets first, then image pieces at 0xFFFF0000 + k * 4 KB
  };
  const Row rows[] = {
      {nullptr, 16, 0x4000, 0, 4},
      {nullptr, 16, 0x2FFF, 0, 2},  // the rest behind the last whole piece is not shown
      {nullptr, 2, 0x4000, 0, 4},   // behind the table's last block the pieces follow on
      {nullptr, 16, 0xFFF, 0, 0},
      {u"-ecb", 16, 0x2000, 2, 2},  // 0x2800 bytes of EC: two whole pieces
      {u"-ec", 16, 0x2000, 0, 2},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.imageSize);
    Start();
    const Bytes ec = Image(0x2800, 0x80);
    if (row.option != nullptr) {
      answers[0x10] = [](OblisRegisters& r) { Answer(r, 0, 1); };
      ASSERT_TRUE(Initialize());
      KeepEcImage(ec.data(), (UINT32)ec.size());
      ASSERT_TRUE(Options({row.option}));
    }
    Part(row.blocks);
    const Bytes image = Image(row.imageSize);
    EXPECT_TRUE(FuncOblis_1Bh(image.data(), row.imageSize));
    ASSERT_EQ(pieces.size(), row.ecPieces + row.pieces);
    for (size_t k = 0; k < pieces.size(); ++k) {
      bool isEc = k < row.ecPieces;
      size_t at = (isEc ? k : k - row.ecPieces) * 0x1000;
      EXPECT_EQ(pieces[k].first, isEc ? at : 0xFFFF0000u + at) << k;
      EXPECT_TRUE(pieces[k].second == Bytes((isEc ? ec : image).begin() + at, (isEc ? ec : image).begin() + at + 0x1000)) << k;
    }
    EXPECT_NE(Log().find(pieces.empty() ? "FuncOblis | 1Bh| (0xFF)\r\n" : "FuncOblis | 1Bh| (0x0)\r\n"), std::string::npos);
  }
}

TEST_F(ModuleCheck, StatusesOfThePieces) {
  const std::string kFailed = "\r\n\r\nError: OBLIS 1Bh failed.\r\nInternal Error ";
  struct Row {
    uint8_t second, others;  // status of the piece at 0xFFFF1000, of all others
    bool result;
    size_t calls;  // with SMIErrorRetry 1: two attempts per failing piece
    std::string console;
    const char* last;
  };
  const Row rows[] = {
      {0xEF, 0xEF, true, 8, "", "FuncOblis | 1Bh| (0xEF)\r\n"},  // no 1Bh: passes after all attempts
      {0x28, 0, true, 5, kFailed + "28\r\n", "FuncOblis | 1Bh| (0x0)\r\n"},  // reported, the walk goes on
      {0x27, 0, false, 3, kFailed + "27\r\nFBTS: Cannot skip module check.\r\n", "<=== FuncOblis_1Bh (BIOS return not success)"},
      {0x25, 0, false, 3, kFailed + "25\r\nFBTS: Write bios failed.\r\n", "<=== FuncOblis_1Bh (BIOS return not success)"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.last);
    Start("[Others]\nSMIErrorRetry=1\n");
    Part();
    answers[0x1B] = [&](OblisRegisters& r) { Answer(r, r.edi == 0xFFFF1000u ? row.second : row.others); };
    const Bytes image = Image(0x4000);
    EXPECT_EQ(FuncOblis_1Bh(image.data(), (UINT32)image.size()), row.result);
    EXPECT_EQ(SmiCallsOf(0x1B).size(), row.calls);
    EXPECT_EQ(Console(), row.console);
    EXPECT_NE(Log().find(row.last), std::string::npos) << Log();
  }
}

}  // namespace
