// The images zaprom-image builds: the "$OBLIS" map bytes, the EC image in front, and the slots of
// a packed driver and launcher.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

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
}

TEST(ImageEc, EcImageStandsInFrontAndInfoFindsItsSize) {
  json doc = SmallImage();
  doc["ec"] = json::parse(R"({ "size": "128K", "fill": "0xEC" })");
  const std::vector<uint8_t> image = zimage::BuildImage(zimage::ParseImageDescription(doc));
  ASSERT_EQ(image.size(), (1u << 20) + 0x20000);
  EXPECT_EQ(image[0], 0xEC);
  EXPECT_EQ(U32At(image, 0x20000 + 0x10), 0x0FF0A55Au);
  EXPECT_EQ(Bytes(image, 0x20000 + 0x90000, 6), "$BVDT$");
  const zimage::ImageInfo info = zimage::InspectImage(image);
  EXPECT_EQ(info.ecSize, 0x20000u);
  EXPECT_EQ(info.bvdtOffset, 0x90000u);  // counted from the flash image, not the file
}

// Packing what the firmware starts: each payload lands in its slot with its size, the rest of the
// slot is cleared, a payload larger than its slot names slot, size and capacity, and what `show`
// reads back is what went in.
TEST(Packing, SlotsTakeWhatFitsAndShowReadsItBack) {
  const std::vector<uint8_t> flash = zimage::BuildImage(zimage::ParseImageDescription(SmallImage()));
  std::vector<uint8_t> driver(0x40, 0x90);  // code in front of the chain, as a linked driver has
  const std::vector<uint8_t> chain = zimage::BareDriverChain();
  driver.insert(driver.end(), chain.begin(), chain.end());
  zimage::DriverPayloads first;
  first.slots[int(zimage::ChainSlot::Ini)] = std::vector<uint8_t>(300, 'i');
  first.slots[int(zimage::ChainSlot::Ec)] = std::vector<uint8_t>(0x200000, 0xEC);
  zimage::DriverPayloads second;
  second.slots[int(zimage::ChainSlot::Ini)] = std::vector<uint8_t>(5, 'j');
  second.slots[int(zimage::ChainSlot::BiosImage)] = flash;
  const std::vector<uint8_t> packed = zimage::PackDriver(zimage::PackDriver(driver, first), second);

  const zimage::CarriedInfo info = zimage::InspectCarried(zimage::PackLauncher(std::nullopt, packed));
  ASSERT_TRUE(info.launcher && info.chain && info.carriedImage);
  EXPECT_EQ(info.launcherSize, packed.size());
  EXPECT_EQ(info.driverOffset, 0x258u);
  const zimage::ChainLayout& layout = *info.chain;
  EXPECT_EQ(layout.record, 0x40u);
  EXPECT_EQ(packed[0x40], '$');
  const uint32_t ini = layout.slots[int(zimage::ChainSlot::Ini)].tag;
  EXPECT_EQ(Bytes(packed, ini, 16), "$_KOBALT_INI_IMG");
  EXPECT_EQ(U32At(packed, ini + 20), 5u);
  EXPECT_EQ(Bytes(packed, ini + 24, 6), std::string("jjjjj\0", 6)) << "the older, longer text is cleared";
  EXPECT_EQ(layout.slots[int(zimage::ChainSlot::Ec)].size, 0x200000u);
  EXPECT_EQ(layout.slots[int(zimage::ChainSlot::BiosImage)].tag, 0x40u + 20 + 24 + 0x200000);
  EXPECT_EQ(info.carriedImage->bvdtVersion, "V3.45");
  EXPECT_NE(zimage::FormatCarried(info).find("version \"V3.45\", model \"DV-TEST7\""), std::string::npos);

  struct Row {
    const char* what;
    std::function<void()> run;
    std::string message;
  } rows[] = {
      {"EC one byte over its slot",
       [&] {
         zimage::DriverPayloads p;
         p.slots[int(zimage::ChainSlot::Ec)] = std::vector<uint8_t>(0x200001);
         zimage::PackDriver(driver, p);
       },
       "the EC image (0x200001 bytes) does not fit the slot $_KOBALT_EC_IMG_ (capacity 0x200000 bytes)"},
      {"no chain", [&] { zimage::PackDriver(std::vector<uint8_t>(64), {}); }, "the driver file has no slot chain"},
      {"chain cut short", [&] { zimage::PackDriver(std::vector<uint8_t>(driver.begin(), driver.end() - 1), {}); },
       "has no driver signature behind its last slot"},
      {"launcher slot too small",
       [&] {
         std::vector<uint8_t> bigger = driver;
         bigger.push_back(0);
         zimage::PackLauncher(zimage::PackLauncher(std::nullopt, packed), bigger);
       },
       "the driver (0x7108DD bytes) does not fit the slot $_KOBALT_DRV_IMG (capacity 0x7108DC bytes)"},
      {"launcher slot larger than the file",
       [&] {
         std::vector<uint8_t> launcher = zimage::PackLauncher(std::nullopt, packed);
         launcher[0x254] += 1;
         zimage::InspectCarried(launcher);
       },
       "more than the file holds behind 0x258"},
  };
  for (const Row& row : rows) {
    try {
      row.run();
      ADD_FAILURE() << row.what << ": not refused";
    } catch (const zimage::ImageError& e) {
      EXPECT_NE(std::string(e.what()).find(row.message), std::string::npos) << row.what << ": " << e.what();
    }
  }
}

}  // namespace
