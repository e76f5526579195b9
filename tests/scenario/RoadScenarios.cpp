// The roads beside the block writer's, through the front end: typed data items for the firmware
// (-edt) arriving byte for byte and in the right pieces, the direct write (-e:) writing exactly
// its stretch, and PFAT images going to the firmware packet by packet; every refusal leaves the
// flash alone.
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

// What reached the firmware through 42h: each piece's byte count, and behind each last piece
// "=type:hex" (or "=type:size" past 64 bytes), all in order.
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
      {"a firmware without the functions", {"-edt4s:Ab"}, "", "", "\r                           Update type - 0x4  \r\n"},
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
    uint32_t offset, size;  // the stretch of the file expected at 0xFFF00000; size 0: nothing written
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
    EXPECT_EQ(result.exitCode, row.console.find("Error") == std::string::npos ? 0 : 1)
        << result.console;
    Bytes expected = DefaultFlash();
    std::copy(file.begin() + row.offset, file.begin() + row.offset + row.size,
              expected.begin() + (0xFFF00000 - kRomBase));
    EXPECT_EQ(FirstDifference(result.flash, expected), std::string::npos);
    EXPECT_EQ(Count(result, "15h"), (row.size + 0xFFF) / 0x1000);
    EXPECT_NE(result.console.find(row.console), std::string::npos) << result.console;
    // No model, version or BVDT step stands between the file and the flash.
    EXPECT_EQ(Count(result, "1Ah"), 0u);
  }
}

// The default machine's BIOS region (its upper half) in blocks of 64 KB; the first nine blocks lie
// in its protection and private lists, the tenth holds the BVDT.
constexpr uint32_t kBiosStart = 0x800000, kPfatBlock = 0x10000, kFirstOpen = 0x890000;
const std::string kPfatMachine = R"({"pfat": {"enabled": true}})";

// The default content with every BIOS byte but the BVDT changed, and the PFAT tables behind it.
Bytes PfatImage() {
  Bytes image = DefaultFlash();
  for (uint32_t at = kBiosStart; at < image.size(); ++at) {
    if (at - kDefaultBvdt >= 0x1000) image[at] = static_cast<uint8_t>(image[at] ^ (at >> 9) ^ 0x3C);
  }
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
  for (const SmiCall& call : result.calls) {
    if (call.fn == "42h" && call.record.contains("received") && call.record["received"].contains("address")) {
      addresses.push_back(call.record["received"]["address"].get<uint32_t>());
    }
  }
  return addresses;
}

TEST(RoadScenarios, APfatImageReachesTheFlashPacketByPacketOutsideProtectedBlocks) {
  const Bytes image = PfatImage();
  const Bytes& before = DefaultFlash();
  SimResult result = RunTool(kPfatMachine, before, image, {"-dbg"});
  ASSERT_EQ(result.exitCode, 0) << result.console << result.errors;
  Bytes expected = before;
  std::copy(image.begin() + kFirstOpen, image.begin() + before.size(), expected.begin() + kFirstOpen);
  EXPECT_EQ(FirstDifference(result.flash, expected), std::string::npos);
  // One packet per open block, in block order: the BVDT block goes where it stands.
  std::vector<uint32_t> wanted;
  for (uint32_t at = kFirstOpen; at < before.size(); at += kPfatBlock) wanted.push_back(kRomBase + at);
  EXPECT_EQ(PacketAddresses(result), wanted);
  EXPECT_EQ(Count(result, "15h"), 0u);
  // Only the last packet sent carries CL 0.
  size_t lastMarks = 0;
  for (const SmiCall& call : result.calls) lastMarks += call.fn == "42h" && (call.in["ecx"].get<uint32_t>() & 0xFF) == 0;
  EXPECT_EQ(lastMarks, 1u);
  ExpectInOrder(result.console, {"PFAT updating      7 % ", "PFAT updating    100 % "}, "progress");
  ExpectInOrder(result.log, {"cert signature found.", "checksum valid\r\n", "SCU PFAT |enable|\r\n",
                             "00 block protected ( 0xFF800000 )\r\n", "  9 block updating ( 0xEF )\r\n",
                             "127 block updating ( 0x00 )\r\n"}, "trace");
}

TEST(RoadScenarios, APfatRunThatFailsOrIsRefusedLeavesWhatItWroteAndNothingMore) {
  struct Row {
    const char* what;
    std::string machine;
    Bytes image;
    uint32_t packetsWritten;  // the open blocks from the first that must be new
    bool viaBlockWriter;
    std::string console;
  };
  const Bytes good = PfatImage();
  const size_t headers = Text(good).find("$PFATHDR");
  Bytes corrupt = good;
  corrupt[0x900123] ^= 1;
  Bytes unsigned_ = good;
  unsigned_[Text(good).find("$PFATCER") + 1] = 'X';
  const Row rows[] = {
      {"incorrect data once five packets are in", R"({"pfat": {"enabled": true, "bad_answer_after": 5}})", good, 5,
       false, "BIOS return data incorrect!\r\nOBLIS: Extra Data communcation error in SMI!\r\n"},
      {"a wrong image checksum", kPfatMachine, corrupt, 0, false, "Error: PFAT image NOT valid.\r\n"},
      {"no certificate table", kPfatMachine, unsigned_, 0, false, "Error: PFAT is not signed\r\n"},
      {"a block count past the tables", kPfatMachine, WithField(good, headers + 12, 0x1000), 0, false,
       "Error: PFAT tables reach past the end of the file"},
      {"a packet past the shared buffer", kPfatMachine, WithField(good, headers + 20, 0x20000), 0, false,
       "Error: A PFAT packet of 0x20120 bytes does not fit the OBLIS buffer (0x20000 bytes).\r\n"},
      {"blocks past the flash data", kPfatMachine, WithField(good, headers + 20, 0x11000), 0, false,
       "Error: PFAT block count 0x80 does not match the flash data (0x1000000 bytes from offset 0x800000).\r\n"},
      {"a firmware without PFAT takes the flash data block by block", R"({"extra_data": {}})", good, 0, true, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    SimResult result = RunTool(row.machine, DefaultFlash(), row.image, {});
    EXPECT_EQ(result.exitCode, row.console.empty() ? 0 : 1) << result.console;
    EXPECT_NE(result.console.find(row.console), std::string::npos) << result.console;
    Bytes expected = DefaultFlash();
    const uint32_t end = row.viaBlockWriter ? static_cast<uint32_t>(expected.size()) : kFirstOpen + row.packetsWritten * kPfatBlock;
    std::copy(row.image.begin() + kFirstOpen, row.image.begin() + end, expected.begin() + kFirstOpen);
    EXPECT_EQ(FirstDifference(result.flash, expected), std::string::npos);
    EXPECT_EQ(PacketAddresses(result).size(), row.packetsWritten);
    EXPECT_EQ(Count(result, "15h") != 0, row.viaBlockWriter);
  }
}

}  // namespace
