// The roads beside the block writer's, through the front end: -edt items arriving byte for byte,
// -e: writing exactly its stretch, PFAT images going packet by packet, RBU files going whole to
// the OEM interface or as flash data to the block writer; a refusal writes nothing.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "SimRun.h"
#include "ZaPromImage.h"

namespace {

constexpr uint32_t kRomBase = 0xFF000000;

Bytes Pattern(uint32_t size, uint8_t seed) {
  Bytes bytes(size);
  for (uint32_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 8));
  return bytes;
}

// Each 42h piece's byte count and, behind an item's last piece, "=type:hex" (or "=type:size").
std::string Received(const SimResult& result) {
  std::string text;
  for (const SmiCall& call : result.calls) {
    if (call.fn != "42h" || !call.record.contains("received")) continue;
    const auto& r = call.record["received"];
    text += std::to_string(r["bytes"].get<uint32_t>()) + " ";
    if (!r.contains("item")) continue;
    const auto& item = r["item"];
    text += "=" + std::to_string(item["type"].get<int>()) + ":" +
            (item.contains("hex") ? item["hex"].get<std::string>() : std::to_string(item["size"].get<uint32_t>())) + " ";
  }
  return text;
}

TEST(RoadScenarios, ExtraDataItemsReachTheFirmwareByteForByteAndFlashNothing) {
  struct Row {
    const char* what;
    std::vector<std::string> options;
    std::string machine;
    std::string received;
    std::string console;  // a console line end reads CR LF
  };
  const std::string taken = R"({"extra_data": {}})";
  const Row rows[] = {
      {"every format, in option order", {"-EDT4F:logo.bin", "-edt5s:Ab", "-edtcdw:0x12345678", "-edt9w:0x12345"}, taken,
       "4 =4:4c4f474f 4 =5:41006200 4 =12:78563412 2 =9:4523 ",
       "\r                           Update type - 0x4  \r\n\r                           Update type - 0x5  \r\n"
       "\r                           Update type - 0xC  \r\n\r                           Update type - 0x9  \r\n"
       "\r                           Update Progress: Completed  \r\n"},
      {"exactly one piece of 0x10000 bytes", {"-edt6f:x10000.bin"}, taken, "65536 =6:65536 ", ""},
      {"0x40001 bytes in five pieces, the last of one byte", {"-edt7f:x40001.bin"}, taken,
       "65536 65536 65536 65536 1 =7:262145 ", ""},
      {"a missing file", {"-edt4f:none.bin"}, taken, "", "\rLoad file (none.bin) fail.\r\n"},
      {"a piece larger than the shared buffer", {"-edt4f:x30000.bin"}, taken, "",
       "Error: The extra data (0x30000 bytes) does not fit the pieces of function 42h.\r\nNothing was sent.\r\n"},
      {"the item before a failing one stays sent", {"-edt4s:A", "-edt5s:B"}, R"({"extra_data": {}, "faults": {"42h": {"code": "0x25", "after": 1}}})",
       "2 =4:4100 ", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    SimRequest request;
    request.machineJson = row.machine;
    request.arguments = row.options;
    request.flash = DefaultFlash();
    request.volumeFiles = {{"logo.bin", "LOGO"},
                           {"x10000.bin", Text(Pattern(0x10000, 1))},
                           {"x30000.bin", Text(Pattern(0x30000, 2))},
                           {"x40001.bin", Text(Pattern(0x40001, 3))}};
    SimResult result = RunSim(request);
    EXPECT_EQ(result.exitCode, 0) << result.console << result.errors;
    EXPECT_EQ(Received(result), row.received);
    EXPECT_NE(result.console.find(row.console), std::string::npos) << result.console;
    EXPECT_EQ(Count(result, "15h"), 0u);
    EXPECT_EQ(FirstDifference(result.flash, DefaultFlash()), std::string::npos);
  }
}

TEST(RoadScenarios, TheDirectWriteWritesExactlyItsStretchOrNothing) {
  struct Row {
    const char* what;
    std::string option;
    uint32_t fileSize;
    uint32_t offset, size;  // the stretch of the file expected at 0xFFF00000
    std::string console;
  };
  const Row rows[] = {
      {"a stretch of whole and part blocks", "-e:10,18800,FFF00000", 0x100000, 0x10, 0x19000,
       "\r         Command -e updating\r\n\r         0\r         0..\r         0...."},
      {"an empty size runs to the end", "-e:10000,,FFF00000", 0x100000, 0x10000, 0xF0000, ""},
      {"offset at the end writes nothing and ends well", "-e:100000,,FFF00000", 0x100000, 0, 0,
       "\r         Command -e updating\r\n\r\n"},
      {"no address", "-e:0,10000,", 0x100000, 0, 0, "Error: Bad argument. Update Address is 0.\r\n"},
      {"below the ROM", "-e:0,10000,100", 0x100000, 0, 0,
       "Error: Bad argument. Update Address must higher than 0xFF000000.\r\n"},
      {"offset past the file", "-e:100010,,FFF00000", 0x100000, 0, 0,
       "Error: File offest 0x100010 is bigger than file size 0x100000.\r\n"},
      {"stretch past the file", "-e:10,100000,FFF00000", 0x100000, 0, 0,
       "Error: File offest + size 0x100010 is bigger than file size 0x100000.\r\n"},
      {"a file out of alignment", "-e:0,1000,FFF00000", 0x10001, 0, 0, "Error: File size msut be sector size alignment.\r\n"},
      {"a last block past the file", "-e:FF800,800,FFF00000", 0x100000, 0, 0,
       "Error: The last block of 0x1000 bytes ends at file offest 0x100800, past file size 0x100000.\r\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const Bytes file = Pattern(row.fileSize, 0x5A);
    SimResult result = RunTool("", DefaultFlash(), file, {row.option});
    EXPECT_EQ(result.exitCode, row.console.find("Error") == std::string::npos ? 0 : 1) << result.console;
    Bytes expected = DefaultFlash();
    std::copy(file.begin() + row.offset, file.begin() + row.offset + row.size, expected.begin() + (0xFFF00000 - kRomBase));
    EXPECT_EQ(FirstDifference(result.flash, expected), std::string::npos);
    EXPECT_EQ(Count(result, "15h"), (row.size + 0xFFF) / 0x1000);
    EXPECT_NE(result.console.find(row.console), std::string::npos) << result.console;
    EXPECT_EQ(Count(result, "1Ah"), 0u);  // no model, version or BVDT step comes first
  }
}

// The default BIOS region (the upper half) in 64 KB blocks: nine protected, the tenth the BVDT's.
constexpr uint32_t kBiosStart = 0x800000, kPfatBlock = 0x10000, kFirstOpen = 0x890000;
const std::string kPfatMachine = R"({"pfat": {"enabled": true}})";

// The default content with every BIOS byte but the BVDT changed.
Bytes NewBios() {
  Bytes image = DefaultFlash();
  for (uint32_t at = kBiosStart; at < image.size(); ++at) {
    if (at - kDefaultBvdt >= 0x1000) image[at] = static_cast<uint8_t>(image[at] ^ (at >> 9) ^ 0x3C);
  }
  return image;
}

// The same with the PFAT tables behind it.
Bytes PfatImage() {
  Bytes image = NewBios();
  zimage::AppendPfatTables(image, 0, kBiosStart, kBiosStart, static_cast<uint32_t>(DefaultFlash().size()), {});
  return image;
}

// Puts a u32 into the image and sets the checksum again, so that only the change is wrong.
Bytes WithField(Bytes image, size_t offset, uint32_t value) {
  std::memcpy(image.data() + offset, &value, 4);
  const size_t checksum = Text(image).find("$PFATCER") + 20;
  const uint32_t sum = zimage::PfatChecksum(image, checksum);
  std::memcpy(image.data() + checksum, &sum, 4);
  return image;
}

// Flash addresses of the packets the firmware received, in order.
std::vector<uint32_t> PacketAddresses(const SimResult& result) {
  std::vector<uint32_t> addresses;
  for (const SmiCall& call : result.calls)
    if (call.fn == "42h" && call.record.value("received", nlohmann::json::object()).contains("address"))
      addresses.push_back(call.record["received"]["address"].get<uint32_t>());
  return addresses;
}

// Each row's flash ends new in the first packetsWritten open blocks (all of them through the
// block writer), old elsewhere; packets go in block order, CL 0 only on the last of a whole run.
TEST(RoadScenarios, APfatRunWritesItsOpenBlocksPacketByPacketOrIsRefusedBeforeTheFirst) {
  struct Row {
    const char* what;
    std::string machine;
    Bytes image;
    uint32_t packetsWritten;
    bool viaBlockWriter;
    int exitCode;
    size_t calls41h;  // an image the checks refuse never reaches the firmware
    std::string console, log;
  };
  const Bytes good = PfatImage();
  const size_t headers = Text(good).find("$PFATHDR");
  Bytes corrupt = good, unsigned_ = good;
  corrupt[0x900123] ^= 1;
  unsigned_[Text(good).find("$PFATCER") + 1] = 'X';
  const uint32_t all = (0x1000000 - kFirstOpen) / kPfatBlock;
  const Row rows[] = {
      {"every open block, the BVDT block where it stands", kPfatMachine, good, all, false, 0, 1 + 2 * all,
       "PFAT updating    100 % ", "127 block updating ( 0x00 )\r\n"},
      {"incorrect data once five packets are in", R"({"pfat": {"enabled": true, "bad_answer_after": 5}})", good, 5,
       false, 1, 11, "BIOS return data incorrect!\r\nOBLIS: Extra Data communcation error in SMI!\r\n", ""},
      {"a wrong image checksum", kPfatMachine, corrupt, 0, false, 1, 0, "Error: PFAT image NOT valid.\r\n", ""},
      {"no certificate table", kPfatMachine, unsigned_, 0, false, 1, 0, "Error: PFAT is not signed\r\n", ""},
      {"a block count past the tables", kPfatMachine, WithField(good, headers + 12, 0x1000), 0, false, 1, 0,
       "Error: PFAT tables reach past the end of the file", ""},
      {"a packet past the shared buffer", kPfatMachine, WithField(good, headers + 20, 0x20000), 0, false, 1, 0,
       "Error: A PFAT packet of 0x20120 bytes does not fit the OBLIS buffer (0x20000 bytes).\r\n", ""},
      {"blocks past the flash data", kPfatMachine, WithField(good, headers + 20, 0x11000), 0, false, 1, 1,
       "Error: PFAT block count 0x80 does not match the flash data (0x1000000 bytes from offset 0x800000).\r\n", ""},
      {"a firmware without PFAT takes the flash data block by block", R"({"pfat": {"enabled": false}})", good, 0, true, 0, 1,
       "", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    SimResult result = RunTool(row.machine, DefaultFlash(), row.image, {"-dbg"});
    EXPECT_EQ(result.exitCode, row.exitCode) << result.console;
    EXPECT_NE(result.console.find(row.console), std::string::npos) << result.console;
    Bytes expected = DefaultFlash();
    const uint32_t end = row.viaBlockWriter ? 0x1000000 : kFirstOpen + row.packetsWritten * kPfatBlock;
    std::copy(row.image.begin() + kFirstOpen, row.image.begin() + end, expected.begin() + kFirstOpen);
    EXPECT_EQ(FirstDifference(result.flash, expected), std::string::npos);
    std::vector<uint32_t> wanted;
    for (uint32_t i = 0; i < row.packetsWritten; ++i) wanted.push_back(kRomBase + kFirstOpen + i * kPfatBlock);
    EXPECT_EQ(PacketAddresses(result), wanted);
    for (size_t i = 0, sent = 0; i < result.calls.size(); ++i) {
      if (result.calls[i].fn != "42h") continue;
      EXPECT_EQ((result.calls[i].in["ecx"].get<uint32_t>() & 0xFF) == 0, ++sent == all) << i;
    }
    EXPECT_EQ(Count(result, "15h") != 0, row.viaBlockWriter);
    EXPECT_EQ(Count(result, "41h"), row.calls41h);
    EXPECT_NE(result.log.find(row.log), std::string::npos);
  }
}

// An RBU file of the new BIOS: 4Ch verifies it, then flashes it, and every open block ends new;
// where the firmware says "use the ordinary way" or has no 4Ch, the flash data takes the block
// writer to the same end. A refusal, by the tool or the firmware, leaves the flash as it was.
TEST(RoadScenarios, AnRbuFileGoesThroughTheOemInterfaceOrAsFlashDataThroughTheBlockWriter) {
  struct Row {
    const char* what;
    std::string machine;
    Bytes file;
    bool flashed, viaBlockWriter;
    std::string verifyOnly;  // EDI of each 4Ch call: the probe first
    std::string brackets;    // CL/CH of each 1Ah call
    std::string console;
  };
  const Bytes bios = NewBios(), rbu = zimage::WrapRbu(bios, {});
  Bytes corrupt = rbu;
  corrupt[0x54 + kDxeByte] ^= 1;
  const std::string oem = R"({"oem_secure": {}})";
  const Row rows[] = {
      {"verified, then flashed", oem, rbu, true, false, "1 1 0 ", "1/0 2/1 ", "\r\n                        Flash complete!\r\n"},
      {"with a server block", oem, zimage::WrapRbu(bios, {0x20, 0x1C}), true, false, "1 1 0 ", "1/0 2/1 ", "Flash complete!"},
      {"the ordinary way", R"({"oem_secure": {"verify": "ordinary_way"}})", rbu, true, true, "1 1 ", "1/0 2/1 ",
       "ROM file digital signature failed authentication.\r\n"},
      {"no 4Ch", "", rbu, true, true, "1 ", "1/0 2/1 ", ""},
      {"a corrupt checksum", oem, corrupt, false, false, "1 ", "", "RBU image checksum fail!\r\n"},
      {"not verified", R"({"oem_secure": {"verify": "refuse"}})", rbu, false, false, "1 1 ", "1/0 2/2 ",
       "ROM file digital signature failed authentication.\r\n"},
      {"the flash call refused", R"({"oem_secure": {}, "faults": {"4Ch": {"code": "0x25", "after": 2}}})", rbu, false,
       false, "1 1 0 ", "1/0 2/2 ", "Please wait...\r\nSome error occur during calling secure flash interface.\r\n"},
      {"the flash not finished well", R"({"oem_secure": {"flash_fails": true}})", rbu, false, false, "1 1 0 ", "1/0 2/2 ",
       "Secure update failed!\r\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    SimResult result = RunTool(row.machine, DefaultFlash(), row.file, {"-dbg"});
    EXPECT_EQ(result.exitCode, row.flashed ? 0 : 1) << result.console;
    EXPECT_NE(result.console.find(row.console), std::string::npos) << result.console;
    Bytes expected = DefaultFlash();
    if (row.flashed) std::copy(bios.begin() + kFirstOpen, bios.end(), expected.begin() + kFirstOpen);
    EXPECT_EQ(FirstDifference(result.flash, expected), std::string::npos);
    EXPECT_EQ(Count(result, "15h") != 0, row.viaBlockWriter);
    std::string verifyOnly, brackets;
    for (const SmiCall& call : result.calls) {
      const uint32_t ecx = call.in["ecx"].get<uint32_t>();
      if (call.fn == "4Ch") verifyOnly += std::to_string(call.in["edi"].get<uint32_t>()) + " ";
      if (call.fn == "1Ah") brackets += std::to_string(ecx & 0xFF) + "/" + std::to_string(ecx >> 8 & 0xFF) + " ";
    }
    EXPECT_EQ(verifyOnly, row.verifyOnly);
    EXPECT_EQ(brackets, row.brackets);
  }
}

}  // namespace
