// The EC update against a scripted firmware: what 21h is asked and how its answer decides, and
// which blocks 20h carries, with which mark, for each mask, block size and write mode.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "HostSettings.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "support/DriverBed.h"
#include "update/UpdateInternal.h"

namespace {

using bed::At;

class Ec : public bed::ScriptedBed {
 protected:
  // ini may start with more keys of [Others].
  void Start(const std::string& ini, const std::vector<std::u16string>& options = {}) {
    Install(Layout());
    LoadSettings("[Log_file]\nFlag=1\nLevel=4\n[Others]\nSMIErrorRetryDelay=1\n" + ini);
    ASSERT_TRUE(Options(options));
    ASSERT_TRUE(InitialSmi());
  }
};

// A 21h answer: AL, CL, and (when given) the record written over the request.
struct SizeAnswer {
  uint8_t status, index;
  std::vector<uint32_t> parts;  // with a record: "$ECINFO_", the count, the sizes
  const char* signature = "$ECINFO_";
};

TEST_F(Ec, TheFirmwareJudgesTheSizeOfTheEcImage) {
  struct Row {
    const char* what;
    std::string ini;
    uint32_t size;
    SizeAnswer answer;
    bool result;
    uint8_t sentIndex;  // CH of the request
    size_t calls;
    std::string log, console;
  };
  const std::string dock = "Get EC part information fail.\r\n";
  const Row rows[] = {
      {"index 2 holds 0x30000", "", 0x30000, {0, 2}, true, 0xFF, 1, "size |EC| n/c (192K/256K)\r\n", ""},
      {"index 2 refuses 0x50000", "", 0x50000, {0, 2}, false, 0xFF, 1, "size |NOT| match with current(320K/256K)\r\n", ""},
      {"a table size is sent by its index", "", 0x20000, {0, 1}, true, 1, 1, "new size index | 1| (128K) 0x20000\r\n", ""},
      {"no 21h: one call, the dock warning", "", 0x40000, {0xEF, 0}, false, 2, 1, "OBLIS function not support\r\nOBLIS 21h failed. (0xEF)\r\n", dock},
      {"the warning from the message table", "[UpdateEC]\nEC_DockWarning=messagestringA04\n[MessageStringTable]\nmessagestringA04=Dock the EC\n", 0x40000, {0xEF, 0}, false, 2, 1, "", "Dock the EC\r\n"},
      {"Ignore_21h with a table size", "[UpdateEC]\nIgnore_21h=1\n", 0x40000, {0xEF, 0}, true, 2, 1, "Ignore 21h enabled.\r\ncurr Size Index | 2| (256K)\r\n", ""},
      {"Ignore_21h with another size", "[UpdateEC]\nIgnore_21h=1\n", 0x30000, {0xEF, 0}, false, 0xFF, 1, "Signature invalid\r\n", ""},
      {"two parts hold their sum", "", 0x40000, {0, 0xFF, {0x20000, 0x20000}}, true, 2, 1, " 1    0x20000\r\nsize |EC| n/c (256K/256K)\r\n", ""},
      {"two parts refuse one byte more", "", 0x40001, {0, 0xFF, {0x20000, 0x20000}}, false, 0xFF, 1, "size |NOT| match with current(256K/256K)\r\n", ""},
      {"ten parts count, the eleventh not", "", 0xA0001, {0, 0xFF, std::vector<uint32_t>(11, 0x10000)}, false, 0xFF, 1, "size |NOT| match with current(640K/640K)\r\n", ""},
      {"a table without its signature", "", 0x20000, {0, 0xFF, {0x40000}, "$ECINFOX"}, false, 1, 1, "Signature invalid\r\n", ""},
      {"a failing firmware is asked again", "SMIErrorRetry=2\n", 0x20000, {0x24, 1}, false, 1, 3, "OBLIS 21h failed. (0x24)\r\n<=== Oblis_21h (BIOS return not success)", dock},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Start(row.ini);
    answers[0x21] = [&row](OblisRegisters& r) {
      EXPECT_EQ(std::memcmp(At(r.esi), "$BUFFER_", 8), 0);
      uint32_t size = 0;
      std::memcpy(&size, At(r.esi + 8), 4);
      EXPECT_EQ(size, row.size);
      if (!row.answer.parts.empty()) {
        std::memcpy(At(r.esi), row.answer.signature, 8);
        bed::PutU32(At(r.esi + 8), (uint32_t)row.answer.parts.size());
        for (size_t i = 0; i < row.answer.parts.size(); ++i) bed::PutU32(At(r.esi + 12 + 4 * (uint32_t)i), row.answer.parts[i]);
      }
      r.ecx = (r.ecx & 0xFFFFFF00u) | row.answer.index;
      bed::Answer(r, row.answer.status);
    };
    EXPECT_EQ(FuncOblis_21h(row.size), row.result);
    std::vector<OblisRegisters> calls = SmiCallsOf(0x21);
    ASSERT_EQ(calls.size(), row.calls);
    EXPECT_EQ((calls[0].ecx >> 8) & 0xFF, row.sentIndex);
    EXPECT_NE(Log().find(row.log), std::string::npos) << Log();
    EXPECT_EQ(Console(), row.console);
  }
}

// The 20h calls of one write: "block:CL" for each, in order.
std::string Series(uint32_t first, uint32_t last) {
  std::string text;
  for (uint32_t i = first; i <= last; ++i) text += std::to_string(i) + (i == last ? ":00 " : ":EF ");
  return text;
}

TEST_F(Ec, EachBlockCarriesItsNumberAndTheLastWrittenOneTheEndMark) {
  struct Row {
    const char* what;
    std::string ini;
    std::vector<std::u16string> options;
    uint32_t size;
    bool singleBlock;
    bool result;
    std::string sent;   // "block:CL " per 20h call, each carrying block size bytes
    uint32_t bytes;     // of each call
  };
  const std::string mask = "[UpdateEC]\nEnableECProtectMask=1\nProtectMaskBitCount=4\nMaskByte0=05\n";
  const Row rows[] = {
      {"64 KB blocks by default", "", {}, 0x18000, false, true, "0:EF 1:00 ", 0x10000},
      {"EC_BlockSize=8 is 64 KB too", "[UpdateEC]\nEC_BlockSize=8\n", {}, 0x18000, false, true, "0:EF 1:00 ", 0x10000},
      {"EC_BlockSize=4 makes 4 KB blocks", "[UpdateEC]\nEC_BlockSize=4\n", {}, 0x3001, false, true, "0:EF 1:EF 2:EF 3:00 ", 0x1000},
      {"the mask skips blocks 0 and 2", mask, {}, 0x60000, false, true, "1:EF 3:EF 4:EF 5:00 ", 0x10000},
      {"-ec_crisis skips 1 and 3", mask, {u"-ec_crisis"}, 0x60000, false, true, "0:EF 2:EF 4:EF 5:00 ", 0x10000},
      {"a mask without EnableECProtectMask", "[UpdateEC]\nProtectMaskBitCount=4\nMaskByte0=05\n", {}, 0x30000, false, true, "0:EF 1:EF 2:00 ", 0x10000},
      {"the mark moves down to the highest written block", "[UpdateEC]\nEnableECProtectMask=1\nProtectMaskBitCount=16\nMaskByte0=0C\n", {}, 0x40000, false, true, "0:EF 1:00 ", 0x10000},
      {"bit 8 is bit 0 of MaskByte1", "[UpdateEC]\nEnableECProtectMask=1\nProtectMaskBitCount=10\nMaskByte1=01\n", {}, 0xA0000, false, true, "0:EF 1:EF 2:EF 3:EF 4:EF 5:EF 6:EF 7:EF 9:00 ", 0x10000},
      {"all blocks skipped: no 20h, a success", "[UpdateEC]\nEnableECProtectMask=1\nProtectMaskBitCount=2\nMaskByte0=03\n", {}, 0x20000, false, true, "", 0},
      {"255 blocks of 4 KB", "[UpdateEC]\nEC_BlockSize=4\n", {}, 0xFF000, false, true, Series(0, 254), 0x1000},
      {"2 MB: the last block ends where the EC buffer ends", "", {}, 0x200000, false, true, Series(0, 31), 0x10000},
      {"256 blocks are refused before any call", "[UpdateEC]\nEC_BlockSize=4\n", {}, 0xFF001, false, false, "", 0},
      {"one call of the whole image", "", {}, 0x18000, true, true, "0:00 ", 0x18000},
      {"one call up to the shared buffer", "", {}, 0x20000, true, true, "0:00 ", 0x20000},
      {"one byte more is refused", "", {}, 0x20001, true, false, "", 0},
  };
  std::vector<uint8_t> image(0x200000);
  for (size_t i = 0; i < image.size(); ++i) image[i] = (uint8_t)(i * 7 + (i >> 12));
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Start(row.ini, row.options);
    ASSERT_TRUE(ReserveEcBuffer());
    KeepEcImage(image.data(), row.size);
    std::string sent;
    answers[0x20] = [&](OblisRegisters& r) {
      char call[16];
      std::snprintf(call, sizeof call, "%u:%02X ", (r.ecx >> 8) & 0xFF, r.ecx & 0xFF);
      sent += call;
      EXPECT_EQ(r.edi, row.bytes);
      // Block n holds the image from n times its size on, and zeros behind the image's end.
      const uint32_t at = ((r.ecx >> 8) & 0xFF) * r.edi;
      for (uint32_t k = 0; k < r.edi; k += 0x7FF)
        ASSERT_EQ(At(r.esi)[k], at + k < row.size ? image[at + k] : 0) << std::hex << at + k;
    };
    EXPECT_EQ(WriteEc(row.singleBlock), row.result);
    EXPECT_EQ(sent, row.sent);
    // The block by block write tells the firmware and the user; one call does neither.
    const bool announced = !row.singleBlock && row.result;
    EXPECT_EQ(SmiCallsOf(0x1F).size(), announced ? 1u : 0u);
    EXPECT_EQ(Console().find("Start EC Update") != std::string::npos, announced);
    EXPECT_EQ(Console().find("Updating EC complete.") != std::string::npos, announced);
    if (!row.result) EXPECT_NE(Console().find("Nothing was written to the EC.\r\n"), std::string::npos) << Console();
  }
}

TEST_F(Ec, AFailing20hStopsTheWriteWhereItFailed) {
  Start("SMIErrorRetry=1\n");
  ASSERT_TRUE(ReserveEcBuffer());
  std::vector<uint8_t> image(0x40000, 0x3C);
  KeepEcImage(image.data(), (UINT32)image.size());
  AnswerCodes(0x20, {0, 0, 0x25});
  EXPECT_FALSE(WriteEc(false));
  std::vector<OblisRegisters> calls = SmiCallsOf(0x20);
  ASSERT_EQ(calls.size(), 4u);  // blocks 0 and 1, then block 2 twice
  EXPECT_EQ((calls[3].ecx >> 8) & 0xFF, 2u);
  size_t at = 0;
  for (const char* close : {"<=== Oblis_20h (BIOS return not success)", "<=== SMI_WriteEc (OBLIS 20h failed)",
                            "<=== WriteEcBlockByBlock (Write EC failed)"}) {
    at = Log().find(close, at);
    ASSERT_NE(at, std::string::npos) << close << "\n" << Log();
  }
  EXPECT_EQ(Console().find("Updating EC complete."), std::string::npos);
}

}  // namespace
