// The conversation functions against a faked firmware: the $CHKCNDI record of 45h and every
// bounded read of its answer, the word list of 19h and the answer it keeps, and the piece walk
// of 1Bh with its addresses, its EC pieces and what each status does to it.
#include <gtest/gtest.h>

#include "PlatformSeams.h"
#include "checks/Checks.h"
#include "frame/Frame.h"
#include "oblis/FakeFirmware.h"
#include "oblis/Oblis.h"
#include "support/Isolated.h"
#include "update/Update.h"

using namespace oblistest;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }
Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

// ---- 45h ----

TEST(Conditional, RecordOnTheWire) {
  struct Row {
    uint8_t type, format;
    Bytes data;
    Bytes record;
  };
  const Row rows[] = {
      {4, 1, {}, Cat({Text("$CHKCNDI"), {0x10, 0, 0, 0, 4, 1, 0, 0}})},
      {4, 1, Text("1.07"), Cat({Text("$CHKCNDI"), {0x14, 0, 0, 0, 4, 1, 4, 0}, Text("1.07")})},
      {0x7E, 3, {0xDE, 0xAD, 0xBE, 0xEF}, Cat({Text("$CHKCNDI"), {0x14, 0, 0, 0, 0x7E, 3, 4, 0, 0xDE, 0xAD, 0xBE, 0xEF}})},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ASSERT_TRUE(InitialSmi());
                // Leftovers of an earlier call must not reach the firmware behind the record.
                UINT8* buffer = nullptr;
                ASSERT_TRUE(GetOblisBuffer(kOblisBufferSize, &buffer));
                std::memset(buffer, 0xA5, 64);
                Bytes seen;
                fw.handlers[0x45] = [&](OblisRegisters& r) {
                  EXPECT_EQ(r.edi, 0u);
                  EXPECT_EQ(r.esi, 0u);
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
              }));
  }
}

TEST(Conditional, AnswerIsReadWithinItsBounds) {
  struct Row {
    const char* name;
    std::vector<uint8_t> codes;  // 45h status per attempt, the last repeats
    Bytes answer;                // written at the record's place on status 0
    bool nullData;
    uint8_t format;
    bool result;
    uint8_t allow;               // starts at 7
    size_t calls;
    const char* reason;          // the close line of SMI_CheckConditionalData
  };
  const Bytes good = Cat({Text("$CHKCNDO"), {13, 0, 0, 0, 1}});
  const Bytes refuse = Cat({Text("$CHKCNDO"), {13, 0, 0, 0, 0}});
  const Bytes wrongSignature = Cat({Text("$CHKCNDX"), {13, 0, 0, 0, 1}});
  const Bytes tooSmall = Cat({Text("$CHKCNDO"), {12, 0, 0, 0, 1}});
  const Bytes huge = Cat({Text("$CHKCNDO"), {0xFF, 0xFF, 0xFF, 0xFF, 1}});
  const Row rows[] = {
      {"allowed", {0}, good, false, 1, true, 1, 1, "<=== SMI_CheckConditionalData\r\n"},
      {"refused", {0}, refuse, false, 1, true, 0, 1, "<=== SMI_CheckConditionalData\r\n"},
      {"a size beyond the buffer is only a size", {0}, huge, false, 1, true, 1, 1, "<=== SMI_CheckConditionalData\r\n"},
      {"wrong signature", {0}, wrongSignature, false, 1, false, 7, 1, "<=== SMI_CheckConditionalData (Signature not match)"},
      {"size below 13", {0}, tooSmall, false, 1, false, 7, 1, "<=== SMI_CheckConditionalData (Structure size error)"},
      {"retried until it answers", {0x22, 0x22, 0}, good, false, 1, true, 1, 3, "<=== SMI_CheckConditionalData\r\n"},
      {"no answer leaves allow alone", {0x01}, good, false, 1, true, 7, 6, "<=== Oblis_45h (BIOS return not success)"},
      {"no data", {0}, good, true, 1, false, 7, 0, "<=== SMI_CheckConditionalData (Input buffer is NULL)"},
      {"format 4", {0}, good, false, 4, false, 7, 0, "<=== SMI_CheckConditionalData (unsupport data format)"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ASSERT_TRUE(InitialSmi());
                auto calls = std::make_shared<size_t>(0);
                fw.handlers[0x45] = [&row, calls](OblisRegisters& r) {
                  uint8_t code = row.codes[std::min(*calls, row.codes.size() - 1)];
                  ++*calls;
                  if (code == 0) std::memcpy(At(r.ecx), row.answer.data(), row.answer.size());
                  Answer(r, code);
                };
                const uint8_t data[] = {'1', '.', '0'};
                UINT8 allow = 7;
                EXPECT_EQ(SMI_CheckConditionalData(4, row.format, 3, row.nullData ? nullptr : data, &allow), row.result);
                EXPECT_EQ(allow, row.allow);
                EXPECT_EQ(fw.FramesOf(0x45).size(), row.calls);
                EXPECT_NE(fw.Log().find(row.reason), std::string::npos) << fw.Log();
                EXPECT_EQ(fw.Console(), "");
              }))
        << row.name;
  }
}

// ---- 19h ----

struct Run19h {
  Bytes list;  // what the firmware got, up to and including the first 0xFF
  uint32_t ecx = 0;
  bool recordIsBuffer = false;
};

void Answer19h(FakeFirmware& fw, Run19h& seen, Bytes answer, uint8_t code = 0) {
  fw.handlers[0x19] = [&seen, answer, code](OblisRegisters& r) {
    seen.ecx = r.ecx;
    UINT8* buffer = nullptr;
    GetOblisBuffer(kOblisBufferSize, &buffer);
    seen.recordIsBuffer = r.edi == PhysicalAddressOf(buffer);
    seen.list.clear();
    for (int i = 0; i < 256; ++i) {
      seen.list.push_back(At(r.edi)[i]);
      if (At(r.edi)[i] == 0xFF) break;
    }
    if (!answer.empty()) {
      std::memset(At(r.edi), 0, 256);
      std::memcpy(At(r.edi), answer.data(), answer.size());
    }
    Answer(r, code);
  };
}

TEST(OemParameters, ListOnTheWire) {
  const std::u16string tooLong(250, u'w');
  struct Row {
    const char* name;
    std::vector<std::u16string> words;  // added first, as the argument reader does
    std::vector<Bool CommandFlags::*> flags;
    Bytes list;
  };
  const Row rows[] = {
      {"no parameter", {}, {}, {0, 0xFF}},
      {"-mfg", {}, {&CommandFlags::mfg}, Cat({Text("MFG"), {0, 0xFF}})},
      {"-OemCus CUS1 -mfg -ec", {u"CUS1"}, {&CommandFlags::mfg, &CommandFlags::ec},
       Cat({Text("CUS1"), {0}, Text("ECCMD"), {0}, Text("MFG"), {0, 0xFF}})},
      {"lower case reaches the firmware in capitals", {u"cus1-x"}, {}, Cat({Text("CUS1-X"), {0, 0xFF}})},
      {"a word with # falls apart", {u"a#b"}, {}, Cat({Text("A"), {0}, Text("B"), {0, 0xFF}})},
      {"-ecbp", {}, {&CommandFlags::ecbp}, Cat({Text("ECCMD"), {0, 0xFF}})},
      {"-ecb and -ecp give one word", {}, {&CommandFlags::ecb, &CommandFlags::ecp}, Cat({Text("ECCMD"), {0, 0xFF}})},
      {"a word past the list's 254 characters is left out whole", {u"abc", tooLong}, {&CommandFlags::mfg},
       Cat({Text("ABC"), {0}, Text("MFG"), {0, 0xFF}})},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ASSERT_TRUE(InitialSmi());
                for (std::u16string word : row.words) AddOemParameter(word.data());
                for (auto flag : row.flags) FakeFirmware::MutableFlags().*flag = true;
                Run19h seen;
                Answer19h(fw, seen, {});
                EXPECT_TRUE(SendOemParameters());
                ASSERT_EQ(fw.FramesOf(0x19).size(), 1u);
                EXPECT_EQ(seen.list, row.list);
                EXPECT_EQ(seen.ecx & 0xFF, 1u);
                EXPECT_TRUE(seen.recordIsBuffer);
              }))
        << row.name;
  }
}

TEST(OemParameters, WordIsFoldedInPlace) {
  FakeFirmware fw;
  std::u16string word = u"mFg9z";
  AddOemParameter(word.data());
  EXPECT_EQ(word, u"MFG9Z");
}

TEST(OemParameters, AnswerIsKeptAndTraced) {
  struct Row {
    const char* name;
    Bytes answer;
    uint8_t code;
    bool result;
    std::string traced;  // must stand in the log
    size_t words;        // word lines under the head
  };
  const Row rows[] = {
      {"echo of an empty list: one empty word", {0, 0xFF}, 0, true,
       "OEM/ODM customization-1 (19h)\r\n-----+-----------------\r\n      \r\n", 1},
      {"two words", Cat({Text("ODM1"), {0}, Text("x"), {0, 0xFF}}), 0, true, "      ODM1\r\n      x\r\n", 2},
      {"a word of 40 characters is kept as 31", Cat({Bytes(40, 'L'), {0, 0xFF}}), 0, true,
       "      " + std::string(31, 'L') + "\r\n", 1},
      {"no end byte anywhere: the list's 256 bytes bound the walk", Bytes(256, 'Q'), 0, true,
       "===== 19h Info =====\r\n0000:  51 51", 0},
      {"failure is traced, once", {}, 0xEF, false, "OBLIS 19h failed. (0xEF)\r\n", 0},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ASSERT_TRUE(InitialSmi());
                Run19h seen;
                Answer19h(fw, seen, row.answer, row.code);
                EXPECT_EQ(SendOemParameters(), row.result);
                EXPECT_EQ(fw.FramesOf(0x19).size(), 1u) << "one attempt, no retry";
                const std::string log = fw.Log();
                EXPECT_NE(log.find(row.traced), std::string::npos) << log;
                EXPECT_NE(log.find("===== 19h Alpha =====\r\n0000:  00 FF 00"), std::string::npos) << log;
                size_t head = log.find("OEM/ODM customization-1 (19h)");
                size_t lines = 0;
                if (head != std::string::npos) {
                  for (size_t at = log.find("\r\n      ", head); at != std::string::npos && at < log.find("<===", head);
                       at = log.find("\r\n      ", at + 2))
                    ++lines;
                }
                EXPECT_EQ(lines, row.words);
                if (!row.result) EXPECT_NE(log.find("<=== SendOemParameters (BIOS return not success)"), std::string::npos);
                EXPECT_EQ(fw.Console(), "");
              }))
        << row.name;
  }
}

// ---- 1Bh ----

struct Piece {
  uint32_t address;
  uint32_t length;
  Bytes data;
};

// A part of 64 KB whose block map is given as (size in 256 bytes, count).
void SetUpPart(FakeFirmware& fw, std::vector<std::pair<uint16_t, uint16_t>> map) {
  fw.AnswerFlashPart(0, map);
  ASSERT_TRUE(FuncOblis_13h());
  ASSERT_EQ(GetRomBase(), 0xFFFF0000u);
}

Bytes Image(uint32_t size) {
  Bytes image(size);
  for (uint32_t i = 0; i < size; ++i) image[i] = (uint8_t)((i >> 12) * 17 + i);
  return image;
}

TEST(ModuleCheck, PiecesAndTheirAddresses) {
  struct Row {
    const char* name;
    std::vector<std::pair<uint16_t, uint16_t>> map;
    uint32_t imageSize;
    std::vector<uint32_t> addresses;
  };
  const Row rows[] = {
      {"4 KB blocks: entry k", {{0x10, 16}}, 0x4000, {0xFFFF0000, 0xFFFF1000, 0xFFFF2000, 0xFFFF3000}},
      {"the rest behind the last whole piece is not shown", {{0x10, 16}}, 0x2FFF, {0xFFFF0000, 0xFFFF1000}},
      {"a 64 KB block holds all pieces at their own place", {{0x100, 1}}, 0x3000, {0xFFFF0000, 0xFFFF1000, 0xFFFF2000}},
      {"mixed blocks", {{0x20, 1}, {0x10, 2}}, 0x4000, {0xFFFF0000, 0xFFFF1000, 0xFFFF2000, 0xFFFF3000}},
      {"behind the table's last block the pieces follow on from its end", {{0x10, 2}}, 0x4000,
       {0xFFFF0000, 0xFFFF1000, 0xFFFF2000, 0xFFFF3000}},
      {"an image below one piece shows nothing", {{0x10, 16}}, 0xFFF, {}},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                ASSERT_TRUE(InitialSmi());
                SetUpPart(fw, row.map);
                std::vector<Piece> pieces;
                fw.handlers[0x1B] = [&](OblisRegisters& r) {
                  pieces.push_back({r.edi, r.ecx, Bytes(At(r.esi), At(r.esi) + r.ecx)});
                };
                const Bytes image = Image(row.imageSize);
                EXPECT_TRUE(FuncOblis_1Bh(image.data(), row.imageSize));
                ASSERT_EQ(pieces.size(), row.addresses.size());
                for (size_t k = 0; k < pieces.size(); ++k) {
                  EXPECT_EQ(pieces[k].address, row.addresses[k]) << "piece " << k;
                  EXPECT_EQ(pieces[k].length, 0x1000u);
                  EXPECT_TRUE(std::equal(pieces[k].data.begin(), pieces[k].data.end(), image.begin() + k * 0x1000))
                      << "piece " << k << " carries its own bytes";
                }
                EXPECT_NE(fw.Log().find(pieces.empty() ? "FuncOblis | 1Bh| (0xFF)\r\n" : "FuncOblis | 1Bh| (0x0)\r\n"),
                          std::string::npos);
              }))
        << row.name;
  }
}

TEST(ModuleCheck, StatusesOfThePieces) {
  const char kReport28[] = "\r\n\r\nError: OBLIS 1Bh failed.\r\nInternal Error 28\r\n";
  const char kReport27[] = "\r\n\r\nError: OBLIS 1Bh failed.\r\nInternal Error 27\r\nFBTS: Cannot skip module check.\r\n";
  struct Row {
    const char* name;
    uint8_t secondPiece;  // status of piece 1; all others answer 0
    uint8_t others;
    bool result;
    size_t calls;         // with SMIErrorRetry 1: two attempts per failing piece
    std::string console;
    const char* last;
  };
  const Row rows[] = {
      {"all good", 0, 0, true, 4, "", "FuncOblis | 1Bh| (0x0)\r\n"},
      {"a firmware without 1Bh passes at the price of all attempts", 0xEF, 0xEF, true, 8, "",
       "FuncOblis | 1Bh| (0xEF)\r\n"},
      {"0x28 is reported and the walk goes on", 0x28, 0, true, 5, kReport28, "FuncOblis | 1Bh| (0x0)\r\n"},
      {"0x27 stops at that piece", 0x27, 0, false, 3, kReport27, "<=== FuncOblis_1Bh (BIOS return not success)"},
      {"any other refusal stops too", 0x25, 0, false, 3,
       "\r\n\r\nError: OBLIS 1Bh failed.\r\nInternal Error 25\r\nFBTS: Write bios failed.\r\n",
       "<=== FuncOblis_1Bh (BIOS return not success)"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                FakeFirmware::MutableSettings().others.smiErrorRetry = 1;
                ASSERT_TRUE(InitialSmi());
                SetUpPart(fw, {{0x10, 16}});
                fw.handlers[0x1B] = [&](OblisRegisters& r) {
                  Answer(r, r.edi == 0xFFFF1000u ? row.secondPiece : row.others);
                };
                const Bytes image = Image(0x4000);
                EXPECT_EQ(FuncOblis_1Bh(image.data(), (UINT32)image.size()), row.result);
                EXPECT_EQ(fw.FramesOf(0x1B).size(), row.calls);
                EXPECT_EQ(fw.Console(), row.console);
                EXPECT_NE(fw.Log().find(row.last), std::string::npos) << fw.Log();
              }))
        << row.name;
  }
}

TEST(ModuleCheck, EcPiecesComeFirstWithTheirOffsetsAsAddresses) {
  struct Row {
    const char* name;
    Bool CommandFlags::*flag;
    size_t ecPieces;
  };
  const Row rows[] = {
      {"-ecb", &CommandFlags::ecb, 2},
      {"-ecbp", &CommandFlags::ecbp, 2},
      {"-ec shows no EC piece", &CommandFlags::ec, 0},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(0, RunIsolated([&] {
                FakeFirmware fw;
                fw.handlers[0x10] = [](OblisRegisters& r) { Answer(r, 0, 1); };
                ASSERT_TRUE(Initialize());
                SetUpPart(fw, {{0x10, 16}});
                // 0x2800 bytes of EC: two whole pieces, the rest is not shown.
                Bytes ec(0x2800);
                for (size_t i = 0; i < ec.size(); ++i) ec[i] = (uint8_t)(0xE0 + (i >> 12));
                KeepEcImage(ec.data(), (UINT32)ec.size());
                ASSERT_NE(GetEcBuffer(), nullptr);
                FakeFirmware::MutableFlags().*row.flag = true;
                std::vector<Piece> pieces;
                fw.handlers[0x1B] = [&](OblisRegisters& r) {
                  pieces.push_back({r.edi, r.ecx, Bytes(At(r.esi), At(r.esi) + r.ecx)});
                };
                const Bytes image = Image(0x2000);
                ASSERT_TRUE(FuncOblis_1Bh(image.data(), (UINT32)image.size()));
                ASSERT_EQ(pieces.size(), row.ecPieces + 2);
                for (size_t i = 0; i < row.ecPieces; ++i) {
                  EXPECT_EQ(pieces[i].address, i * 0x1000);
                  EXPECT_EQ(pieces[i].data, Bytes(0x1000, (uint8_t)(0xE0 + i)));
                }
                for (size_t k = 0; k < 2; ++k) {
                  EXPECT_EQ(pieces[row.ecPieces + k].address, 0xFFFF0000u + k * 0x1000);
                  EXPECT_TRUE(std::equal(pieces[row.ecPieces + k].data.begin(), pieces[row.ecPieces + k].data.end(),
                                         image.begin() + k * 0x1000));
                }
              }))
        << row.name;
  }
}

}  // namespace
