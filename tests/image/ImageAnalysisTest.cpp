// The analysis of an image in memory: secure or legacy, driver signature and EC slot; slots
// whose header or size would reach past the image are refused.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frame/Frame.h"
#include "image/ImageInternal.h"
#include "support/DriverBed.h"

namespace {

using ImageAnalysis = bed::ScriptedBed;

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

TEST_F(ImageAnalysis, AnalyzeImageTellsKindSignatureAndEc) {
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
    Install(Layout());
    InitSlotTags();
    EXPECT_EQ(AnalyzeImage(row.image.data(), static_cast<UINT32>(row.image.size())), row.expected.secure) << row.what;
    UINT32 secureSize = 7, ecSize = 7;
    EXPECT_EQ(IsSecureImage(&secureSize), row.expected.secure) << row.what;
    EXPECT_EQ(secureSize, row.expected.secureSize) << row.what;
    EXPECT_EQ(HasDrvSignature(), row.expected.drv) << row.what;
    EXPECT_EQ(HasSecureEc(&ecSize), row.expected.ec) << row.what;
    EXPECT_EQ(ecSize, row.expected.ecSize) << row.what;
  }
}

// A second image whose BIOSIMG slot reaches past its end leaves no payload, not the first one's.
TEST_F(ImageAnalysis, ASecondImageReplacesThePayloadOfTheFirst) {
  Install(Layout());
  InitSlotTags();
  Bytes good = kRecord, cut = kRecord;
  AppendSlot(good, "$_KOBALT_BIOSIMG", 4, "DATA");
  AppendSlot(cut, "$_KOBALT_BIOSIMG", 400, "DATA");
  LocateSecureFd(good.data(), static_cast<UINT32>(good.size()));
  EXPECT_EQ(SecurePayload().length, 4u);
  LocateSecureFd(cut.data(), static_cast<UINT32>(cut.size()));
  EXPECT_EQ(SecurePayload().data, nullptr);
  EXPECT_EQ(SecurePayload().length, 0u);
}

}  // namespace
