// The analysis of an image in memory: secure or legacy, driver signature, EC slot, and the INI
// slot's settings; slots whose header or size would reach past the image are refused.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "image/Image.h"
#include "support/LogHarness.h"
#include "support/Isolated.h"

namespace {

using Bytes = std::vector<uint8_t>;

const Bytes kRecord = {'$',  'I',  'S',  'B',  0x33, 0x38, 0xA1, 0xDD, 0x42, 0xC3,
                       0xAE, 0x4E, 0xB5, 0xC9, 0xC2, 0xD7, 0xD6, 0x13, 0xDB, 0xB8};

void Append(Bytes& image, const std::string& text) { image.insert(image.end(), text.begin(), text.end()); }

// A slot: the tag, capacity, size field and data (data may be shorter than the size claims).
void AppendSlot(Bytes& image, const std::string& tag, uint32_t size, const std::string& data) {
  Append(image, tag);
  for (uint32_t v : {static_cast<uint32_t>(data.size()), size})
    for (int i = 0; i < 4; i++) image.push_back(static_cast<uint8_t>(v >> (8 * i)));
  Append(image, data);
}

struct Analysis {
  bool secure;
  uint32_t secureSize;
  bool drv;
  bool ec;
  uint32_t ecSize;
};

TEST(ImageAnalysis, AnalyzeImageTellsKindSignatureAndEc) {
  struct Row {
    const char* what;
    Bytes image;
    Analysis expected;
  };
  Bytes secure = kRecord;
  AppendSlot(secure, "$_KOBALT_EC_IMG_", 2048, std::string(2048, 'e'));
  Append(secure, "x");  // the BIOSIMG tag at an odd offset
  AppendSlot(secure, "$_KOBALT_BIOSIMG", 0x100, std::string(0x100, 'b'));
  Append(secure, "I#EFI#DRV_1.2d");

  Bytes noBiosImage = kRecord;
  Append(noBiosImage, std::string(64, 0));

  Bytes biosImagePastEnd = kRecord;
  AppendSlot(biosImagePastEnd, "$_KOBALT_BIOSIMG", 0x101, std::string(0x100, 'b'));

  Bytes ecTagAtEnd(40, 0xFF);
  Append(ecTagAtEnd, "$_KOBALT_EC_IMG_");
  ecTagAtEnd.push_back(0);  // the header would need 8 bytes more

  Bytes ecPastEnd;
  AppendSlot(ecPastEnd, "$_KOBALT_EC_IMG_", 0x1000, std::string(0x10, 'e'));

  Bytes ecEmpty;
  AppendSlot(ecEmpty, "$_KOBALT_EC_IMG_", 0, "");

  Bytes legacyWithEc;
  AppendSlot(legacyWithEc, "$_KOBALT_EC_IMG_", 4096, std::string(4096, 'e'));
  Append(legacyWithEc, std::string(100, 0xFF));

  // The driver's own constants differ from the real patterns; they must not be taken for them.
  Bytes templatesOnly;
  Append(templatesOnly, "I$EFI#DRV_1.2d#ISB#_KOBALT_BIOSIMG");

  const std::vector<Row> rows = {
      {"secure image with EC and signature", secure, {true, 0x100, true, true, 2048}},
      {"record without BIOSIMG slot: secure, no payload", noBiosImage, {true, 0, false, false, 0}},
      {"BIOSIMG size past the end: secure, no payload", biosImagePastEnd, {true, 0, false, false, 0}},
      {"EC tag in the last 24 bytes is refused", ecTagAtEnd, {false, 0, false, false, 0}},
      {"EC size past the end is refused", ecPastEnd, {false, 0, false, false, 0}},
      {"EC slot of size 0 sets nothing", ecEmpty, {false, 0, false, false, 0}},
      {"legacy image with an EC slot", legacyWithEc, {false, 0, false, true, 4096}},
      {"the driver's templates are no match", templatesOnly, {false, 0, false, false, 0}},
      {"empty image", {}, {false, 0, false, false, 0}},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(RunIsolated([&] {
                log_test::LogVolume volume;
                InitSlotTags();
                EXPECT_EQ(AnalyzeImage(row.image.data(), static_cast<UINT32>(row.image.size())), row.expected.secure)
                    << row.what;
                UINT32 secureSize = 7, ecSize = 7;
                EXPECT_EQ(IsSecureImage(&secureSize), row.expected.secure) << row.what;
                EXPECT_EQ(secureSize, row.expected.secureSize) << row.what;
                EXPECT_EQ(HasDrvSignature(), row.expected.drv) << row.what;
                EXPECT_EQ(HasSecureEc(&ecSize), row.expected.ec) << row.what;
                EXPECT_EQ(ecSize, row.expected.ecSize) << row.what;
              }),
              0)
        << row.what;
  }
}

TEST(ImageAnalysis, TraceShowsSignatureDumpAndKind) {
  log_test::LogVolume volume;
  volume.ScanArguments({u"zaprom", u"-dbg"});
  Bytes secure = kRecord;
  AppendSlot(secure, "$_KOBALT_EC_IMG_", 3072, std::string(3072, 'e'));
  AppendSlot(secure, "$_KOBALT_BIOSIMG", 0x20, std::string(0x20, 'b'));
  Append(secure, "I#EFI#DRV_1.2d");
  ASSERT_TRUE(AnalyzeImage(secure.data(), static_cast<UINT32>(secure.size())));
  std::string log = volume.Log();
  size_t at = log.find("===== DRV Sign Info =====\r\n");
  ASSERT_NE(at, std::string::npos);
  at = log.find("I#EFI#DRV_", at);
  ASSERT_NE(at, std::string::npos);
  for (const char* line : {"===== DRV Sign Info =====\r\n", "EFI DRV Signature found!\r\n",
                           "Secure FD with |EC| (3K)\r\n", "Secure |FD| 0x20\r\n"}) {
    at = log.find(line, at);
    EXPECT_NE(at, std::string::npos) << line;
  }
  // Analysing a legacy image afterwards adds nothing and clears nothing.
  Bytes legacy(64, 0xFF);
  EXPECT_FALSE(AnalyzeImage(legacy.data(), static_cast<UINT32>(legacy.size())));
  EXPECT_TRUE(IsSecureImage(nullptr) && HasDrvSignature() && HasSecureEc(nullptr));
  EXPECT_NE(volume.Log().find("Legacy |FD| 0x40\r\n"), std::string::npos);
}

TEST(ImageAnalysis, LoadImageConfigLoadsTheIniSlotOnly) {
  struct Row {
    const char* what;
    Bytes image;
    bool loaded;
    INT32 action;
  };
  Bytes good = kRecord;
  const std::string ini = "[FlashComplete]\r\nAction=1\r\n";
  AppendSlot(good, "$_KOBALT_INI_IMG", static_cast<uint32_t>(ini.size()), ini);
  Bytes pastEnd;
  AppendSlot(pastEnd, "$_KOBALT_INI_IMG", 0x200, ini);
  Bytes tagAtEnd(8, 0);
  Append(tagAtEnd, "$_KOBALT_INI_IMG");
  const std::vector<Row> rows = {
      {"INI slot read", good, true, 1},
      {"no INI slot", kRecord, false, 2},
      {"size past the end", pastEnd, false, 2},
      {"tag in the last 24 bytes", tagAtEnd, false, 2},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(RunIsolated([&] {
                log_test::LogVolume volume;
                volume.ScanArguments({u"zaprom", u"-dbg"});
                InitialIniStructure();
                EXPECT_EQ(LoadImageConfig(row.image.data(), static_cast<UINT32>(row.image.size())), row.loaded)
                    << row.what;
                EXPECT_EQ(Settings()->flashComplete.action, row.action) << row.what;
                if (row.image == kRecord) {
                  EXPECT_NE(volume.Log().find("_KOBALT_INI_IMG Signature Not Found\r\n"), std::string::npos);
                }
              }),
              0)
        << row.what;
  }
}

}  // namespace

namespace {

TEST(ImageAnalysis, LocateSecureFdTakesOnlyASlotThatLiesWhollyInsideTheImage) {
  struct Row {
    const char* what;
    Bytes image;
    long payloadOffset;  // -1: the payload stays empty
    uint32_t payloadLength;
  };
  Bytes good = kRecord;
  Append(good, "x");  // odd offset
  AppendSlot(good, "$_KOBALT_BIOSIMG", 0x40, std::string(0x40, 'b'));
  Bytes pastEnd = kRecord;
  AppendSlot(pastEnd, "$_KOBALT_BIOSIMG", 0x41, std::string(0x40, 'b'));
  Bytes headerCut = kRecord;
  Append(headerCut, "$_KOBALT_BIOSIMG");
  Append(headerCut, "1234567");  // one byte short of the header
  Bytes missing = kRecord;
  const Row rows[] = {
      {"whole slot", good, 21 + 24, 0x40},
      {"size field one past the end", pastEnd, -1, 0},
      {"header cut short", headerCut, -1, 0},
      {"no slot", missing, -1, 0},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(RunIsolated([&] {
                log_test::LogVolume volume;
                volume.ScanArguments({u"zaprom", u"-dbg"});
                InitSlotTags();
                LocateSecureFd(row.image.data(), static_cast<UINT32>(row.image.size()));
                ImageView payload = SecurePayload();
                if (row.payloadOffset < 0) {
                  EXPECT_EQ(payload.data, nullptr) << row.what;
                  EXPECT_EQ(payload.length, 0u) << row.what;
                  EXPECT_EQ(volume.Log().find("===== Secure FD Hdr ====="), std::string::npos) << row.what;
                } else {
                  EXPECT_EQ(payload.data, row.image.data() + row.payloadOffset) << row.what;
                  EXPECT_EQ(payload.length, row.payloadLength) << row.what;
                  // The 24 header bytes between two labels: the tag, capacity 0x40, size 0x40.
                  std::string log = volume.Log();
                  size_t at = log.find("===== Secure FD Hdr =====\r\n");
                  ASSERT_NE(at, std::string::npos) << row.what;
                  EXPECT_NE(log.find("24 5F 4B 4F 42 41 4C 54-5F 42 49 4F 53 49 4D 47", at), std::string::npos)
                      << log;
                  EXPECT_NE(log.find("0010:  40 00 00 00 40 00 00 00-", at), std::string::npos) << log;
                }
              }),
              0)
        << row.what;
  }
}

}  // namespace
