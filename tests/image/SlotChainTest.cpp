// The byte search and the '$' marks that the entry puts into the driver's own slot chain.
#include <gtest/gtest.h>

#include <string>

#include "image/ImageInternal.h"

namespace {

std::string At(UINT32 offset, size_t length) {
  return std::string(reinterpret_cast<const char*>(DriverSlotChain()) + offset, length);
}

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

}  // namespace
