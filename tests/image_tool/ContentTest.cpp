// What the image tool puts behind the descriptor and reads back: the BVDT bytes at their fixed
// offsets, the "$OBLIS" map records, fills, the EC image in front, refused descriptions, and
// the `info` text of the command line for a built file.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "zaprom-image/ZaPromImage.h"

namespace {

using nlohmann::json;

uint32_t U32At(const std::vector<uint8_t>& bytes, size_t at) {
  return uint32_t(bytes[at]) | uint32_t(bytes[at + 1]) << 8 | uint32_t(bytes[at + 2]) << 16 | uint32_t(bytes[at + 3]) << 24;
}

std::string Bytes(const std::vector<uint8_t>& image, size_t at, size_t n) {
  return std::string(reinterpret_cast<const char*>(image.data() + at), n);
}

json SmallImage() {
  return json::parse(R"({
    "size": "1 MB",
    "regions": {
      "descriptor": { "offset": 0, "size": "4K" },
      "me": { "offset": "0x1000", "size": "0x7F000", "fill": 0 },
      "bios": { "offset": "512K", "size": "512K", "fill": { "random": 9 } }
    },
    "bvdt": { "offset": "0x90000", "version": "V3.45", "model": "DV-TEST7", "extra": "EXTRA TEXT" }
  })");
}

TEST(ImageBvdt, FieldsStandAtTheirOffsetsFromTheSignature) {
  const std::vector<uint8_t> image = zimage::BuildImage(zimage::ParseImageDescription(SmallImage()));
  const size_t b = 0x90000;
  EXPECT_EQ(Bytes(image, b, 6), "$BVDT$");
  EXPECT_EQ(Bytes(image, b + 6, 3), std::string(3, '\0'));
  EXPECT_EQ(Bytes(image, b + 0x0A, 3), std::string(3, '\0'));
  for (size_t at : {0x09, 0x0D, 0x26, 0x40}) EXPECT_EQ(image[b + at], '$') << std::hex << at;
  EXPECT_EQ(Bytes(image, b + 0x0E, 24), std::string("V3.45") + std::string(19, '\0'));
  EXPECT_EQ(Bytes(image, b + 0x27, 25), std::string("DV-TEST7") + std::string(17, '\0'));
  EXPECT_EQ(Bytes(image, b + 0x41, 37), std::string("EXTRA TEXT") + std::string(27, '\0'));
  // The closing member lies behind the fixed head, inside the block's own bytes.
  const std::string tail = Bytes(image, b + 0x66, 0x40);
  const size_t end = tail.find("$ENDOFBVDT");
  ASSERT_NE(end, std::string::npos);
  EXPECT_EQ(tail.find("$BME$"), 0u);
  EXPECT_LT(tail.find("$RDATE"), end);
}

TEST(ImageBvdt, TextsAreCutToTheirFieldsWithoutSpillingIntoTheNextDollar) {
  json doc = SmallImage();
  doc["bvdt"]["version"] = std::string(30, 'V');
  doc["bvdt"]["model"] = std::string(30, 'M');
  const std::vector<uint8_t> image = zimage::BuildImage(zimage::ParseImageDescription(doc));
  EXPECT_EQ(Bytes(image, 0x90000 + 0x0E, 24), std::string(24, 'V'));
  EXPECT_EQ(image[0x90000 + 0x26], '$');
  EXPECT_EQ(Bytes(image, 0x90000 + 0x27, 25), std::string(25, 'M'));
  EXPECT_EQ(image[0x90000 + 0x40], '$');
  const zimage::ImageInfo info = zimage::InspectImage(image);
  EXPECT_EQ(info.bvdtVersion, std::string(24, 'V'));
  EXPECT_EQ(info.bvdtModel, std::string(25, 'M'));
}

TEST(ImageOblisMap, RecordsFollowTheSignatureAndEndAtTypeFF) {
  json doc = SmallImage();
  doc["oblis_map"] = json::parse(R"({ "records": [
      { "type": "0x0A", "address": "0xFFF90000", "size": "64K", "action": 1 },
      { "type": 254, "address": "0xFFFA0000", "size": "0x2000" } ] })");
  const std::vector<uint8_t> image = zimage::BuildImage(zimage::ParseImageDescription(doc));
  const zimage::ImageInfo info = zimage::InspectImage(image);
  ASSERT_TRUE(info.mapOffset);
  const size_t m = *info.mapOffset;
  EXPECT_GT(m, 0x90000u + 0x66);  // by default right behind the BVDT block's members
  EXPECT_LT(m, 0x90000u + 0x100);
  EXPECT_EQ(Bytes(image, m, 6), "$OBLIS");
  const uint8_t expected[] = {0x0A, 0x00, 0x00, 0xF9, 0xFF, 0x00, 0x00, 0x01, 0x00, 0x01,   // OEM Data
                              0xFE, 0x00, 0x00, 0xFA, 0xFF, 0x00, 0x20, 0x00, 0x00, 0x00,   // private
                              0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};  // end
  EXPECT_EQ(0, std::memcmp(image.data() + m + 6, expected, sizeof(expected)));
  const std::vector<zimage::MapRecord> records = {{0x0A, 0xFFF90000, 0x10000, 1}, {0xFE, 0xFFFA0000, 0x2000, 0}};
  EXPECT_EQ(info.mapRecords, records);
}

TEST(ImageOblisMap, ExplicitOffsetPlacesTheMapThere) {
  json doc = SmallImage();
  doc["oblis_map"] = json::parse(R"({ "offset": "0xA0003", "records": [ { "type": 6, "address": 1, "size": 2 } ] })");
  const std::vector<uint8_t> image = zimage::BuildImage(zimage::ParseImageDescription(doc));
  EXPECT_EQ(Bytes(image, 0xA0003, 6), "$OBLIS");
  EXPECT_EQ(image[0xA0003 + 6], 6);
  EXPECT_EQ(image[0xA0003 + 16], 0xFF);
}

TEST(ImageEc, EcImageStandsInFrontAndInfoFindsItsSize) {
  json doc = SmallImage();
  doc["ec"] = json::parse(R"({ "size": "128K", "fill": "0xEC" })");
  const std::vector<uint8_t> image = zimage::BuildImage(zimage::ParseImageDescription(doc));
  ASSERT_EQ(image.size(), (1u << 20) + 0x20000);
  EXPECT_EQ(image[0], 0xEC);
  EXPECT_EQ(image[0x1FFFF], 0xEC);
  EXPECT_EQ(U32At(image, 0x20000 + 0x10), 0x0FF0A55Au);
  EXPECT_EQ(Bytes(image, 0x20000 + 0x90000, 6), "$BVDT$");
  const zimage::ImageInfo info = zimage::InspectImage(image);
  EXPECT_EQ(info.ecSize, 0x20000u);
  EXPECT_EQ(info.flashSize, 1u << 20);
  EXPECT_EQ(info.bvdtOffset, 0x90000u);  // counted from the flash image, not the file
}

TEST(ImageFill, FileLandsAtTheEndOfItsRegionWithPaddingInFront) {
  const std::string payload = testing::TempDir() + "fill-payload.bin";
  std::ofstream(payload, std::ios::binary) << "PAYLOAD!";
  json doc = SmallImage();
  doc["regions"]["bios"]["fill"] = json{{"file", payload}, {"pad", "0x11"}};
  const std::vector<uint8_t> image = zimage::BuildImage(zimage::ParseImageDescription(doc));
  EXPECT_EQ(Bytes(image, image.size() - 8, 8), "PAYLOAD!");
  EXPECT_EQ(image[image.size() - 9], 0x11);
  EXPECT_EQ(image[0x80000], 0x11);
  EXPECT_EQ(image[0x7FFFF], 0x00);  // the ME region's own fill ends where the BIOS begins
}

TEST(ImageFill, SameSeedGivesSameBytesAndAnotherSeedOthers) {
  const std::vector<uint8_t> first = zimage::BuildImage(zimage::ParseImageDescription(SmallImage()));
  const std::vector<uint8_t> again = zimage::BuildImage(zimage::ParseImageDescription(SmallImage()));
  json doc = SmallImage();
  doc["regions"]["bios"]["fill"]["random"] = 10;
  const std::vector<uint8_t> other = zimage::BuildImage(zimage::ParseImageDescription(doc));
  EXPECT_EQ(first, again);
  EXPECT_NE(Bytes(first, 0x80000, 64), Bytes(other, 0x80000, 64));
  EXPECT_NE(Bytes(first, 0x80000, 8), Bytes(first, 0x80008, 8));
}

TEST(ImageDescription, SizesReadWithTheirUnits) {
  const std::pair<json, uint32_t> cases[] = {
      {json(4096), 4096},        {json("0x1000"), 0x1000}, {json("16 MB"), 16u << 20}, {json("64K"), 0x10000},
      {json("4 KiB"), 0x1000},   {json("512kb"), 0x80000}, {json("7 B"), 7},
  };
  for (const auto& [text, size] : cases) EXPECT_EQ(zimage::ParseSize(text, "t"), size) << text;
}

TEST(ImageDescription, FaultsAreRefusedWithTheirPlace) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"regions":{"bios":{"offset":0,"size":"4K"}}})", "needs \"size\""},
      {R"({"size":"1 MB","regions":{"bois":{"offset":0,"size":"4K"}}})", "unknown region \"bois\""},
      {R"({"size":"1 MB","regions":{"bios":{"ofset":0,"size":"4K"}}})", "unknown key \"ofset\""},
      {R"({"size":"3 MB"})", "not a power of two"},
      {R"({"size":"1 MB","regions":{"bios":{"offset":"0x800","size":"4K"}}})", "multiples of 4 KB"},
      {R"({"size":"1 MB","regions":{"bios":{"offset":"960K","size":"128K"}}})", "does not lie inside the flash"},
      {R"({"size":"1 MB","regions":{"me":{"offset":"0","size":"64K"},"bios":{"offset":"32K","size":"64K"}}})", "overlaps"},
      {R"({"size":"1 MB","regions":{"bios":{"offset":"512K","size":"512K"}},"bvdt":{"offset":"0x1000","version":"1","model":"M"}})",
       "inside the bios region"},
      {R"({"size":"1 MB","regions":{"bios":{"offset":"512K","size":"512K"}},"bvdt":{"offset":"0xFFFC0","version":"1","model":"M"}})",
       "inside the bios region"},
      {R"({"size":"1 MB","oblis_map":{"records":[]}})", "needs an \"offset\""},
      {R"({"size":"1 MB","fill":{"byte":1,"random":2}})", "exactly one of"},
      {R"({"size":"1 MB","fill":256})", "out of range"},
      {R"({"size":"1 MB","fill":{"file":"/nonexistent/zaprom-fill.bin"}})", "cannot read fill file"},
      {R"({"size":"1 MB","ec":{"size":0}})", "ec: size must not be 0"},
  };
  for (const auto& [text, message] : cases) {
    SCOPED_TRACE(text);
    try {
      zimage::BuildImage(zimage::ParseImageDescription(json::parse(text)));
      ADD_FAILURE() << "accepted";
    } catch (const zimage::ImageError& e) {
      EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
    }
  }
}

std::string RunAndCapture(const std::string& command) {
  std::string out;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buffer[4096];
    while (size_t n = fread(buffer, 1, sizeof(buffer), pipe)) out.append(buffer, n);
    pclose(pipe);
  }
  return out;
}

// The command line end to end: a description with a relative fill file, built and described.
TEST(ImageToolCommandLine, InfoShowsWhatBuildWasToldToWrite) {
  const std::filesystem::path dir = std::filesystem::path(testing::TempDir()) / "zaprom-image-cli";
  std::filesystem::create_directories(dir);
  std::ofstream(dir / "ec.bin", std::ios::binary) << "EC";
  json doc = SmallImage();
  doc["regions"]["gbe"] = json{{"offset", "0x80000"}, {"size", "8K"}};
  doc["regions"]["bios"] = json{{"offset", "0x82000"}, {"size", "0x7E000"}};
  doc["oblis_map"] = json::parse(R"({ "records": [ { "type": 10, "address": "0xFFF90000", "size": "64K", "action": 1 } ] })");
  doc["ec"] = json{{"size", "64K"}, {"fill", json{{"file", "ec.bin"}, {"place", "start"}}}};
  std::ofstream(dir / "small.json") << doc.dump(2);
  // A tagged slot inside the BIOS region, as a packed image carries one.
  const std::string tool = ZAPROM_IMAGE_TOOL;
  const std::string image = (dir / "small.bin").string();
  const std::string built = RunAndCapture(tool + " build " + (dir / "small.json").string() + " -o " + image + " 2>&1");
  ASSERT_NE(built.find("0x110000 bytes"), std::string::npos) << built;
  {
    std::fstream f(image, std::ios::binary | std::ios::in | std::ios::out);
    f.seekp(0x10000 + 0xA0001);
    const char slot[24] = {'$', '_', 'K', 'O', 'B', 'A', 'L', 'T', '_', 'B', 'I', 'O', 'S', 'I', 'M', 'G',
                           0x00, 0x10, 0, 0, 0x34, 0x02, 0, 0};
    f.write(slot, sizeof(slot));
  }
  const std::string info = RunAndCapture(tool + " info " + image + " 2>&1");
  const char* lines[] = {
      "Flash image: 0x100000 bytes\n",
      "EC image in front: 0x10000 bytes",
      "  Descriptor     0x00000000 0x00000FFF 0x00001000\n",
      "  BIOS           0x00082000 0x000FFFFF 0x0007E000\n",
      "  ME             0x00001000 0x0007FFFF 0x0007F000\n",
      "  GbE            0x00080000 0x00081FFF 0x00002000\n",
      "  Platform Data  unused\n",
      "BVDT at 0x00090000: version \"V3.45\" model \"DV-TEST7\"\n",
      ": 1 records\n",
      "  0Ah  0xFFF90000 0x00010000 1      OEM Data\n",
      "  $_KOBALT_BIOSIMG at 0x000B0001 capacity 0x1000 size 0x234\n",
  };
  for (const char* line : lines) EXPECT_NE(info.find(line), std::string::npos) << line << "\nin:\n" << info;
  std::ifstream in(image, std::ios::binary);
  char head[2] = {};
  in.read(head, 2);
  EXPECT_EQ(std::string(head, 2), "EC");
}

}  // namespace
