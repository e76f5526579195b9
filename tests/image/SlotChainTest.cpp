// The byte search and the driver's own slot chain: offsets, the '$' marks put in at the entry
// and by InitSlotTags, and the Signature Info dump in the trace.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "image/Image.h"
#include "support/LogHarness.h"

namespace {

std::string At(UINT32 offset, size_t length) {
  return std::string(reinterpret_cast<const char*>(DriverSlotChain()) + offset, length);
}

UINT32 U32At(UINT32 offset) { return ReadU32(DriverSlotChain() + offset); }

TEST(FindSignature, FirstMatchAtAnyByteOffset) {
  const std::string buffer = "xyzSIG-abc-SIG--SIGTAIL";
  struct Row {
    UINT32 length;
    std::string pattern;
    bool found;
    UINT32 offset;
  } rows[] = {
      {(UINT32)buffer.size(), "SIG", true, 3},        // odd offset, and the first of three wins
      {(UINT32)buffer.size(), "TAIL", true, 19},      // the very end: length minus pattern length
      {(UINT32)buffer.size(), "TAILX", false, 0xFFFFFFFF},  // would run past the end
      {18, "SIGT", false, 0xFFFFFFFF},                // only the bytes within length count
      {(UINT32)buffer.size(), "nope", false, 0xFFFFFFFF},
      {3, "xyz", true, 0},                            // pattern as long as the buffer
      {2, "xyz", false, 0xFFFFFFFF},                  // pattern longer than the buffer
      {0, "x", false, 0xFFFFFFFF},
      {(UINT32)buffer.size(), "", false, 0xFFFFFFFF},  // an empty pattern is refused
  };
  for (const Row& row : rows) {
    UINT32 offset = 7;
    Bool found = FindSignature(reinterpret_cast<const UINT8*>(buffer.data()), row.length,
                               reinterpret_cast<const UINT8*>(row.pattern.data()), (UINT32)row.pattern.size(), &offset);
    EXPECT_EQ(found, row.found) << row.pattern << " within " << row.length;
    EXPECT_EQ(offset, row.offset) << row.pattern << " within " << row.length;
  }
  EXPECT_TRUE(FindSignature(reinterpret_cast<const UINT8*>(buffer.data()), (UINT32)buffer.size(),
                            reinterpret_cast<const UINT8*>("abc"), 3, nullptr))
      << "the out-parameter may be absent";
}

TEST(SlotChain, LaidOutWithHashMarksBeforeTheEntry) {
  EXPECT_EQ(DriverSlotChainSize(), 0x5108A0u);
  EXPECT_EQ(At(0x0, 20), std::string("#ISB\x33\x38\xA1\xDD\x42\xC3\xAE\x4E\xB5\xC9\xC2\xD7\xD6\x13\xDB\xB8", 20));
  struct Row {
    UINT32 offset;
    std::string tag;
    UINT32 capacity;
  } rows[] = {
      {0x14, "#_KOBALT_EC_IMG_", 0},
      {0x30, "#_KOBALT_BIOSIMG", 0x500000},
      {0x500048, "#_KOBALT_INI_IMG", 0x10000},
      {0x510060, "#_KOBALT_BIOSCER", 0x400},
      {0x510478, "#_KOBALT_BIOSCR2", 0x400},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(At(row.offset, 16), row.tag);
    EXPECT_EQ(U32At(row.offset + 16), row.capacity) << row.tag;
    EXPECT_EQ(U32At(row.offset + 20), 0u) << row.tag << ": empty until packed";
  }
  EXPECT_EQ(At(0x510890, 16), std::string("I#EFI#DRV_1.2d\0\0", 16));
}

TEST(SlotChain, EntryMarksTheRecordAndTheCertificateTagsOnly) {
  MarkEntrySlotTags();
  EXPECT_EQ(At(0x0, 4), "$ISB");
  EXPECT_EQ(At(0x510060, 16), "$_KOBALT_BIOSCER");
  EXPECT_EQ(At(0x510478, 16), "$_KOBALT_BIOSCR2");
  EXPECT_EQ(At(0x14, 16), "#_KOBALT_EC_IMG_");
  EXPECT_EQ(At(0x30, 16), "#_KOBALT_BIOSIMG");
  EXPECT_EQ(At(0x500048, 16), "#_KOBALT_INI_IMG");
}

TEST(SlotChain, InitSlotTagsMarksThreeTagsAndDumpsThemInOrder) {
  log_test::LogVolume volume;
  volume.ScanArguments({u"zaprom", u"-dbg"});
  InitSlotTags();
  EXPECT_EQ(At(0x30, 16), "$_KOBALT_BIOSIMG");
  EXPECT_EQ(At(0x500048, 16), "$_KOBALT_INI_IMG");
  EXPECT_EQ(At(0x14, 16), "$_KOBALT_EC_IMG_");
  EXPECT_EQ(At(0x0, 4), "#ISB") << "the record is the entry's to mark";
  EXPECT_EQ(U32At(0x30 + 16), 0x500000u) << "the capacity behind the tag stays";
  EXPECT_EQ(volume.Log(),
            "===== Signature Info =====\r\n"
            "0000:  24 5F 4B 4F 42 41 4C 54-5F 42 49 4F 53 49 4D 47     $_KOBALT_BIOSIMG\r\n"
            "0000:  24 5F 4B 4F 42 41 4C 54-5F 49 4E 49 5F 49 4D 47     $_KOBALT_INI_IMG\r\n"
            "0000:  24 5F 4B 4F 42 41 4C 54-5F 45 43 5F 49 4D 47 5F     $_KOBALT_EC_IMG_\r\n"
            "===== Signature Info =====\r\n");
}

}  // namespace
