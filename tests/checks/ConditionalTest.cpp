// The conversation functions: the word list of 19h and the answer it keeps, and the piece walk of
// 1Bh with its addresses, its EC pieces and what each status does to it. (The $CHKCNDI record of
// 45h and the reading of its answer are in PlatformCheckTest, behind CheckByBios.)
#include <string>

#include "PlatformSeams.h"
#include "checks/ChecksBed.h"
#include "frame/Frame.h"
#include "update/Update.h"

namespace {

using checks::Answer;
using checks::At;
using checks::Bytes;
using checks::Cat;

Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

class Conversation : public checks::ChecksBed {
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

TEST_F(Conversation, OemParameterListOnTheWireAndTheAnswerKept) {
  struct Row {
    std::vector<std::u16string> words;  // added first, as the argument reader does
    std::vector<std::u16string> options;
    Bytes list, answer;  // no answer: the firmware leaves the list as it is
    uint8_t code;
    std::string traced;  // must stand in the log
  };
  const std::string head = "OEM/ODM customization-1 (19h)\r\n-----+-----------------\r\n";
  const Row rows[] = {
      {{u"a#b"}, {}, Cat({Text("A"), {0}, Text("B"), {0, 0xFF}}), {}, 0, head + "      A\r\n      B\r\n<==="},  // # parts words
      {{}, {u"-ecbp"}, Cat({Text("ECCMD"), {0, 0xFF}}), {}, 0, ""},
      {{}, {u"-ecb", u"-ecp"}, Cat({Text("ECCMD"), {0, 0xFF}}), {}, 0, ""},  // one word for both
      {{u"abc", std::u16string(250, u'w')}, {u"-mfg"}, Cat({Text("ABC"), {0}, Text("MFG"), {0, 0xFF}}), {}, 0, ""},  // past 254: left out
      {{}, {}, {0, 0xFF}, Cat({Bytes(40, 'L'), {0, 0xFF}}), 0, head + "      " + std::string(31, 'L') + "\r\n<==="},  // kept as 31
      {{}, {}, {0, 0xFF}, Bytes(256, 'Q'), 0, "===== 19h Info =====\r\n0000:  51 51"},  // no end byte: 256 bound the walk
      {{}, {}, {0, 0xFF}, {}, 0xEF, "OBLIS 19h failed. (0xEF)\r\n<=== SendOemParameters (BIOS return not success)"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.traced);
    Start();
    for (std::u16string word : row.words) AddOemParameter(word.data());
    ASSERT_TRUE(Options(row.options));
    Bytes list;
    answers[0x19] = [&](OblisRegisters& r) {
      UINT8* buffer = nullptr;
      GetOblisBuffer(kOblisBufferSize, &buffer);
      EXPECT_EQ(r.edi, PhysicalAddressOf(buffer));
      EXPECT_EQ(r.ecx & 0xFF, 1u);
      for (int i = 0; i < 256 && (list.empty() || list.back() != 0xFF); ++i) list.push_back(At(r.edi)[i]);
      if (!row.answer.empty()) std::memcpy(At(r.edi), row.answer.data(), row.answer.size());
      Answer(r, row.code);
    };
    EXPECT_EQ(SendOemParameters(), row.code == 0);
    EXPECT_EQ(SmiCallsOf(0x19).size(), 1u) << "one attempt, no retry";
    EXPECT_EQ(list, row.list);
    EXPECT_NE(Log().find(row.traced), std::string::npos) << Log();
    EXPECT_EQ(bed::CountOf(Log(), "OBLIS 19h failed."), row.code == 0 ? 0u : 1u);
    EXPECT_EQ(Console(), "");
  }
}

Bytes Image(uint32_t size, uint8_t base = 0) {
  Bytes image(size);
  for (uint32_t i = 0; i < size; ++i) image[i] = (uint8_t)(base + (i >> 12) * 17 + i);
  return image;
}

TEST_F(Conversation, ModuleCheckPiecesAndTheirAddresses) {
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

TEST_F(Conversation, ModuleCheckStatusesOfThePieces) {
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
