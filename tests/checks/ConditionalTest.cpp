// The conversation functions: the $CHKCNDI record of 45h and every bounded read of its answer,
// the word list of 19h and the answer it keeps, and the piece walk of 1Bh with its addresses,
// its EC pieces and what each status does to it.
#include <memory>
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
  // A part of 64 KB whose block map is (size in 256 bytes, count) pairs.
  void Part(std::vector<std::pair<uint16_t, uint16_t>> map) {
    answers[0x13] = [map](OblisRegisters& r) {
      At(r.edi)[0] = 0;
      uint8_t* out = At(r.esi);
      for (auto [size, count] : map) {
        const uint8_t entry[] = {(uint8_t)size, (uint8_t)(size >> 8), (uint8_t)count, (uint8_t)(count >> 8)};
        out = std::copy(entry, entry + 4, out);
      }
      out[0] = out[1] = 0xFF;
    };
    ASSERT_TRUE(FuncOblis_13h());
    ASSERT_EQ(GetRomBase(), 0xFFFF0000u);
  }
  struct Piece {
    uint32_t address;
    Bytes data;
  };
  // Every 1Bh call as it comes: its address and the bytes it carries, each 4 KB long.
  void RecordPieces() {
    answers[0x1B] = [this](OblisRegisters& r) {
      EXPECT_EQ(r.ecx, 0x1000u);
      pieces.push_back({r.edi, Bytes(At(r.esi), At(r.esi) + r.ecx)});
    };
  }
  // Whether piece k carries bytes [from, from + 4 KB) of data.
  bool Carries(size_t k, const Bytes& data, size_t from) const {
    return pieces[k].data == Bytes(data.begin() + from, data.begin() + from + 0x1000);
  }
  std::vector<Piece> pieces;
};

TEST_F(Conversation, ConditionalRecordOnTheWire) {
  struct Row {
    uint8_t type, format;
    Bytes data, record;
  };
  const Row rows[] = {
      {4, 1, {}, Cat({Text("$CHKCNDI"), {0x10, 0, 0, 0, 4, 1, 0, 0}})},
      {4, 1, Text("1.07"), Cat({Text("$CHKCNDI"), {0x14, 0, 0, 0, 4, 1, 4, 0}, Text("1.07")})},
      {0x7E, 3, {0xDE, 0xAD, 0xBE, 0xEF}, Cat({Text("$CHKCNDI"), {0x14, 0, 0, 0, 0x7E, 3, 4, 0, 0xDE, 0xAD, 0xBE, 0xEF}})},
  };
  for (const Row& row : rows) {
    Start();
    // Leftovers of an earlier call must not reach the firmware behind the record.
    UINT8* buffer = nullptr;
    ASSERT_TRUE(GetOblisBuffer(kOblisBufferSize, &buffer));
    std::memset(buffer, 0xA5, 64);
    Bytes seen;
    answers[0x45] = [&](OblisRegisters& r) {
      EXPECT_EQ(r.edi | r.esi, 0u);
      seen.assign(At(r.ecx), At(r.ecx) + row.record.size() + 8);
      std::memcpy(At(r.ecx), "$CHKCNDO\x0D\0\0\0\x01", 13);
    };
    const Bytes data = row.data.empty() ? Bytes{0} : row.data;
    UINT8 allow = 0;
    ASSERT_TRUE(SMI_CheckConditionalData(row.type, row.format, (UINT16)row.data.size(), data.data(), &allow));
    Bytes expected = row.record;
    expected.resize(row.record.size() + 8, 0);
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(allow, 1);
  }
}

TEST_F(Conversation, ConditionalAnswerIsReadWithinItsBounds) {
  struct Row {
    std::vector<uint8_t> codes;  // 45h status per attempt, the last repeats
    Bytes answer;                // written at the record's place on status 0
    bool nullData;
    uint8_t format;
    bool result;
    uint8_t allow;  // starts at 7
    size_t calls;
    const char* reason;  // the close line
  };
  const Bytes good = Cat({Text("$CHKCNDO"), {13, 0, 0, 0, 1}});
  const Bytes refuse = Cat({Text("$CHKCNDO"), {13, 0, 0, 0, 0}});
  const Bytes wrongSignature = Cat({Text("$CHKCNDX"), {13, 0, 0, 0, 1}});
  const Bytes tooSmall = Cat({Text("$CHKCNDO"), {12, 0, 0, 0, 1}});
  const Bytes huge = Cat({Text("$CHKCNDO"), {0xFF, 0xFF, 0xFF, 0xFF, 1}});
  const Row rows[] = {
      {{0}, good, false, 1, true, 1, 1, "<=== SMI_CheckConditionalData\r\n"},
      {{0}, refuse, false, 1, true, 0, 1, "<=== SMI_CheckConditionalData\r\n"},
      {{0}, huge, false, 1, true, 1, 1, "<=== SMI_CheckConditionalData\r\n"},  // a size is only a size
      {{0}, wrongSignature, false, 1, false, 7, 1, "<=== SMI_CheckConditionalData (Signature not match)"},
      {{0}, tooSmall, false, 1, false, 7, 1, "<=== SMI_CheckConditionalData (Structure size error)"},
      {{0x22, 0x22, 0}, good, false, 1, true, 1, 3, "<=== SMI_CheckConditionalData\r\n"},
      {{0x01}, good, false, 1, true, 7, 6, "<=== Oblis_45h (BIOS return not success)"},
      {{0}, good, true, 1, false, 7, 0, "<=== SMI_CheckConditionalData (Input buffer is NULL)"},
      {{0}, good, false, 4, false, 7, 0, "<=== SMI_CheckConditionalData (unsupport data format)"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.reason);
    Start();
    auto calls = std::make_shared<size_t>(0);
    answers[0x45] = [&row, calls](OblisRegisters& r) {
      uint8_t code = row.codes[std::min(*calls, row.codes.size() - 1)];
      ++*calls;
      if (code == 0) std::memcpy(At(r.ecx), row.answer.data(), row.answer.size());
      Answer(r, code);
    };
    const uint8_t data[] = {'1', '.', '0'};
    UINT8 allow = 7;
    EXPECT_EQ(SMI_CheckConditionalData(4, row.format, 3, row.nullData ? nullptr : data, &allow), row.result);
    EXPECT_EQ(allow, row.allow);
    EXPECT_EQ(SmiCallsOf(0x45).size(), row.calls);
    EXPECT_NE(Log().find(row.reason), std::string::npos) << Log();
    EXPECT_EQ(Console(), "");
  }
}

TEST_F(Conversation, OemParameterListOnTheWire) {
  struct Row {
    std::vector<std::u16string> words;  // added first, as the argument reader does
    std::vector<std::u16string> options;
    Bytes list;
  };
  const Row rows[] = {
      {{u"a#b"}, {}, Cat({Text("A"), {0}, Text("B"), {0, 0xFF}})},  // a word with # falls apart
      {{}, {u"-ecbp"}, Cat({Text("ECCMD"), {0, 0xFF}})},
      {{}, {u"-ecb", u"-ecp"}, Cat({Text("ECCMD"), {0, 0xFF}})},  // one word for both
      // A word past the list's 254 characters is left out whole.
      {{u"abc", std::u16string(250, u'w')}, {u"-mfg"}, Cat({Text("ABC"), {0}, Text("MFG"), {0, 0xFF}})},
  };
  for (const Row& row : rows) {
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
    };
    EXPECT_TRUE(SendOemParameters());
    EXPECT_EQ(SmiCallsOf(0x19).size(), 1u);
    EXPECT_EQ(list, row.list);
  }
}

TEST_F(Conversation, OemParameterAnswerIsKeptAndTraced) {
  struct Row {
    Bytes answer;
    uint8_t code;
    std::string traced;  // must stand in the log
    size_t words;        // word lines under the head
  };
  const Row rows[] = {
      {{0, 0xFF}, 0, "OEM/ODM customization-1 (19h)\r\n-----+-----------------\r\n      \r\n", 1},
      {Cat({Bytes(40, 'L'), {0, 0xFF}}), 0, "      " + std::string(31, 'L') + "\r\n", 1},  // kept as 31
      {Bytes(256, 'Q'), 0, "===== 19h Info =====\r\n0000:  51 51", 0},  // no end byte: 256 bound the walk
      {{}, 0xEF, "OBLIS 19h failed. (0xEF)\r\n<=== SendOemParameters (BIOS return not success)", 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.traced);
    Start();
    answers[0x19] = [&](OblisRegisters& r) {
      if (!row.answer.empty()) std::memcpy(At(r.edi), row.answer.data(), row.answer.size());
      Answer(r, row.code);
    };
    EXPECT_EQ(SendOemParameters(), row.code == 0);
    EXPECT_EQ(SmiCallsOf(0x19).size(), 1u) << "one attempt, no retry";
    const std::string log = Log();
    EXPECT_NE(log.find(row.traced), std::string::npos) << log;
    EXPECT_EQ(bed::CountOf(log, "OBLIS 19h failed."), row.code == 0 ? 0u : 1u);
    size_t head = log.find("OEM/ODM customization-1 (19h)");
    size_t lines = 0;
    if (head != std::string::npos)
      lines = bed::CountOf(log.substr(head, log.find("<===", head) - head), "\r\n      ");
    EXPECT_EQ(lines, row.words);
    EXPECT_EQ(Console(), "");
  }
}

Bytes Image(uint32_t size) {
  Bytes image(size);
  for (uint32_t i = 0; i < size; ++i) image[i] = (uint8_t)((i >> 12) * 17 + i);
  return image;
}

TEST_F(Conversation, ModuleCheckPiecesAndTheirAddresses) {
  struct Row {
    std::vector<std::pair<uint16_t, uint16_t>> map;
    uint32_t imageSize;
    size_t pieces;  // at 0xFFFF0000 + k * 0x1000
  };
  const Row rows[] = {
      {{{0x10, 16}}, 0x4000, 4},
      {{{0x10, 16}}, 0x2FFF, 2},            // the rest behind the last whole piece is not shown
      {{{0x100, 1}}, 0x3000, 3},            // a 64 KB block: every piece at its own place
      {{{0x20, 1}, {0x10, 2}}, 0x4000, 4},  // mixed blocks
      {{{0x10, 2}}, 0x4000, 4},             // behind the table's end the pieces follow on
      {{{0x10, 16}}, 0xFFF, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.imageSize);
    Start();
    Part(row.map);
    RecordPieces();
    const Bytes image = Image(row.imageSize);
    EXPECT_TRUE(FuncOblis_1Bh(image.data(), row.imageSize));
    ASSERT_EQ(pieces.size(), row.pieces);
    for (size_t k = 0; k < pieces.size(); ++k) {
      EXPECT_EQ(pieces[k].address, 0xFFFF0000u + k * 0x1000);
      EXPECT_TRUE(Carries(k, image, k * 0x1000)) << k;
    }
    EXPECT_NE(Log().find(row.pieces == 0 ? "FuncOblis | 1Bh| (0xFF)\r\n" : "FuncOblis | 1Bh| (0x0)\r\n"), std::string::npos);
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
      {0, 0, true, 4, "", "FuncOblis | 1Bh| (0x0)\r\n"},
      // A firmware without 1Bh passes at the price of all attempts.
      {0xEF, 0xEF, true, 8, "", "FuncOblis | 1Bh| (0xEF)\r\n"},
      {0x28, 0, true, 5, kFailed + "28\r\n", "FuncOblis | 1Bh| (0x0)\r\n"},  // reported, the walk goes on
      {0x27, 0, false, 3, kFailed + "27\r\nFBTS: Cannot skip module check.\r\n",
       "<=== FuncOblis_1Bh (BIOS return not success)"},
      {0x25, 0, false, 3, kFailed + "25\r\nFBTS: Write bios failed.\r\n", "<=== FuncOblis_1Bh (BIOS return not success)"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.last);
    Start("[Others]\nSMIErrorRetry=1\n");
    Part({{0x10, 16}});
    answers[0x1B] = [&](OblisRegisters& r) { Answer(r, r.edi == 0xFFFF1000u ? row.second : row.others); };
    const Bytes image = Image(0x4000);
    EXPECT_EQ(FuncOblis_1Bh(image.data(), (UINT32)image.size()), row.result);
    EXPECT_EQ(SmiCallsOf(0x1B).size(), row.calls);
    EXPECT_EQ(Console(), row.console);
    EXPECT_NE(Log().find(row.last), std::string::npos) << Log();
  }
}

TEST_F(Conversation, ModuleCheckEcPiecesComeFirstWithTheirOffsetsAsAddresses) {
  for (auto [option, ecPieces] : {std::pair{u"-ecb", 2u}, {u"-ecbp", 2u}, {u"-ec", 0u}}) {
    SCOPED_TRACE(ecPieces);
    Start();
    answers[0x10] = [](OblisRegisters& r) { Answer(r, 0, 1); };
    ASSERT_TRUE(Initialize());
    Part({{0x10, 16}});
    // 0x2800 bytes of EC: two whole pieces, the rest is not shown.
    Bytes ec(0x2800);
    for (size_t i = 0; i < ec.size(); ++i) ec[i] = (uint8_t)(0xE0 + (i >> 12));
    KeepEcImage(ec.data(), (UINT32)ec.size());
    ASSERT_NE(GetEcBuffer(), nullptr);
    ASSERT_TRUE(Options({option}));
    RecordPieces();
    const Bytes image = Image(0x2000);
    ASSERT_TRUE(FuncOblis_1Bh(image.data(), (UINT32)image.size()));
    ASSERT_EQ(pieces.size(), ecPieces + 2);
    for (size_t i = 0; i < ecPieces; ++i) {
      EXPECT_EQ(pieces[i].address, i * 0x1000);
      EXPECT_TRUE(Carries(i, ec, i * 0x1000)) << i;
    }
    for (size_t k = 0; k < 2; ++k) {
      EXPECT_EQ(pieces[ecPieces + k].address, 0xFFFF0000u + k * 0x1000);
      EXPECT_TRUE(Carries(ecPieces + k, image, k * 0x1000)) << k;
    }
  }
}

}  // namespace
