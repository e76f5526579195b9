// The firmware's 41h answer as the PFAT road judges it, against a scripted firmware: which
// sizes and status bits pass, which text a refusal prints (a console line end reads CR LF), and
// when the result travels on.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "oblis/Oblis.h"
#include "support/DriverBed.h"
#include "update/UpdateInternal.h"

namespace {

using bed::At;

class Pfat : public bed::ScriptedBed {};

TEST_F(Pfat, TheAnswerOf41hPassesOnlyWithItsSizeAndNoStatusBitButTheResultMark) {
  struct Row {
    const char* what;
    uint8_t al, blockIndex, dataIndex;
    uint32_t taken, length;
    uint16_t status;
    uint32_t asked;
    bool result;
    uint64_t handedOn;  // the 64-bit result the caller receives (0: none)
    std::string console;
  };
  const Row rows[] = {
      {"size field counts and holds the packet", 0, 0xFF, 0xFF, 0x10120, 0x10, 0, 0x10120, true, 0, ""},
      {"one byte less than the packet", 0, 0xFF, 0xFF, 0x1011F, 0x10, 0, 0x10120, false, 0,
       "BIOS report physical size = 0x1011F\r\nData size for write request = 0x10120\r\n"},
      {"a data size index stands for its bytes", 0, 0xFF, 2, 0, 0x10, 0, 0x40000, true, 0, ""},
      {"neither index is FFh", 0, 0, 2, 0, 0x10, 0, 0x10, false, 0, "BIOS report block size = 0x0\r\nData size index = 0x2\r\n"},
      {"the type is not supported", 0, 0xFF, 0xFF, 0x20000, 0x10, 0x8000, 0, false, 0, "Type not support.\r\n"},
      {"any other bit is incorrect data", 0, 0xFF, 0xFF, 0x20000, 0x10, 0x0004, 0, false, 0, "BIOS return data incorrect!"},
      {"the result mark with room for it", 0, 0xFF, 0xFF, 0x20000, 0x18, 0x2000, 0, true, 0x1122334455667788ull, ""},
      {"the result mark in a short answer", 0, 0xFF, 0xFF, 0x20000, 0x10, 0x2000, 0, false, 0, "BIOS return data incorrect!"},
      {"a refused call leaves the answer zero", 0x25, 0xFF, 0xFF, 0x20000, 0x10, 0, 0, false, 0,
       "BIOS report block size = 0x0\r\nData size index = 0x0\r\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Install(Layout());
    LoadSettings("[Others]\nSMIErrorRetry=0\nSMIErrorRetryDelay=1\n");
    ASSERT_TRUE(InitialSmi());
    answers[0x41] = [&row](OblisRegisters& r) {
      EXPECT_EQ(std::memcmp(At(r.ecx), "$EDI\x0e\0\0\0\x5a\xff", 10), 0);
      const OblisExtraDataRecord answer = {{'$', 'E', 'D', 'I'}, row.length, row.blockIndex, row.dataIndex,
                                           row.taken, row.status, 0x1122334455667788ull};
      std::memcpy(At(r.ecx), &answer, sizeof(answer));
      bed::Answer(r, row.al);
    };
    UINT64 handedOn = 0;
    EXPECT_EQ(GetStatus41h_Pfat(0x5A, 0xFF, row.asked, &handedOn), row.result);
    EXPECT_EQ(handedOn, row.handedOn);
    EXPECT_EQ(Console(), row.console);
  }
}

}  // namespace
