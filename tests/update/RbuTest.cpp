// The RBU wrapper as the driver reads it: where the flash data lies with and without a server
// block, both checksums, and the refusal of lengths that reach outside the file.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <sstream>
#include <string>

#include "RbuImageFormat.h"
#include "support/DriverBed.h"
#include "update/UpdateInternal.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Header, server block (none when server is 0), data and the two checksums, with extra bytes
// behind them; the checksums sit right behind the data that a certificate moves forward.
Bytes Rbu(uint8_t header, uint16_t server, uint32_t raw, uint32_t behind = 0) {
  Bytes file(header < 5 ? 5 : header, 0x11);
  std::memcpy(file.data(), "$RBU", 4);
  file[4] = header;
  Bytes block(server, 0x22);
  if (server >= 6) std::memcpy(block.data(), "$BIS\0\0", 6), std::memcpy(block.data() + 4, &server, 2);
  file.insert(file.end(), block.begin(), block.end());
  for (uint32_t i = 0; i < raw; ++i) file.push_back(static_cast<uint8_t>(i * 13 + (i >> 9)));
  auto put = [&file](uint32_t v) { file.insert(file.end(), {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}); };
  put(rbu_image::Checksum(file.data() + header, file.size() - header));
  put(rbu_image::Checksum(file.data(), file.size()));
  file.resize(file.size() + behind, 0xCE);
  return file;
}

class RbuImage : public bed::DriverBed {};

TEST_F(RbuImage, FlashDataAndChecksumsStandWhereTheLengthsSayOrTheFileIsRefused) {
  const uint8_t check[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(RbuChecksum(check, 9), 0x340BC6D9u);  // the published check value of CRC-32/JAMCRC
  EXPECT_EQ(rbu_image::Checksum(check, 9), 0x340BC6D9u);
  EXPECT_EQ(RbuChecksum(nullptr, 9) | RbuChecksum(check, 0), 0u);
  struct Row {
    const char* what;
    Bytes file;
    bool isRbu, sound;
    uint32_t rawStart, rawSize;
    std::string console;
  };
  Bytes wrongFd = Rbu(0x54, 0, 0x1000), wrongEntire = wrongFd, notRbu = wrongFd, cut = Rbu(0x54, 0, 0);
  wrongFd[0x800] ^= 0x40;  // and the Entire checksum made right again, so that only FD is wrong
  *reinterpret_cast<uint32_t*>(&wrongFd[wrongFd.size() - 4]) = rbu_image::Checksum(wrongFd.data(), wrongFd.size() - 4);
  wrongEntire[6] ^= 1;  // in the header, which only the Entire checksum covers
  notRbu[3] = 'X', cut.pop_back();
  Bytes serverPast = Rbu(0x10, 0x10, 0x10), serverShort = serverPast;
  serverPast[0x14] = 0x30, serverShort[0x14] = 5;
  const Row rows[] = {
      {"a plain header", Rbu(0x54, 0, 0x1000), true, true, 0x54, 0x1000, ""},
      {"a server block", Rbu(0x54, 0x1C, 0x80000), true, true, 0x70, 0x80000, ""},
      {"a certificate behind the checksums", Rbu(0x20, 0x100, 0x80000, 0x40), true, true, 0x120 - 0x40, 0x80040, ""},
      {"another signature", notRbu, false, true, 0, 0, ""},
      {"the signature alone", Bytes{'$', 'R', 'B', 'U'}, true, false, 0, 0, "Error: The RBU file (0x4 bytes) is shorter"},
      {"no room for the checksums", cut, true, false, 0, 0,
       "Error: The RBU file (0x5B bytes) is shorter than its header (0x54 bytes) and checksums.\r\n"},
      {"a header shorter than its length byte", Rbu(4, 0, 0x10), true, false, 0, 0, "shorter than its header (0x4 bytes)"},
      {"a server block past the file", serverPast, true, false, 0, 0,
       "Error: The RBU server block (0x30 bytes at 0x10) runs past the flash data.\r\n"},
      {"a server block shorter than its own head", serverShort, true, false, 0, 0, "The RBU server block (0x5 bytes at 0x10)"},
      {"a certificate larger than the server block", Rbu(0x10, 0x10, 0x11), true, false, 0x20, 0x11,
       "Error: The RBU server block (0x10 bytes) is shorter than the 0x11 bytes behind the checksums.\r\n"},
      {"a wrong FD checksum", wrongFd, true, false, 0x54, 0x1000, "RBU image checksum fail!\r\n"},
      {"a wrong Entire checksum", wrongEntire, true, false, 0x54, 0x1000, "RBU image checksum fail!\r\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Install(Layout());
    EXPECT_EQ(AnalyzeRbuImage(row.file.data(), static_cast<UINT32>(row.file.size())), row.isRbu);
    if (row.isRbu) EXPECT_EQ(CheckRbuChecksum(row.file.data(), static_cast<UINT32>(row.file.size())), row.sound);
    UINT32 start = 0, size = 0;
    GetRbuRawData(&start, &size);
    std::ostringstream raw;  // the trace's last line of the layout
    raw << "  raw  0x" << std::hex << row.rawSize << "\r\n";
    EXPECT_EQ(start, row.rawSize != 0 ? row.rawStart : start);
    EXPECT_EQ(Log().find(raw.str()) != std::string::npos, row.rawSize != 0);
    EXPECT_EQ(size, row.rawSize);
    EXPECT_NE(Console().find(row.console), std::string::npos) << Console();
  }
}

}  // namespace
