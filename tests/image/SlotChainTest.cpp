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
  EXPECT_EQ(At(0x71005C, 16), "$_KOBALT_BIOSCER");
  EXPECT_EQ(At(0x710474, 16), "$_KOBALT_BIOSCR2");
  EXPECT_EQ(At(0x14, 16), "#_KOBALT_EC_IMG_");
  EXPECT_EQ(At(0x20002C, 16), "#_KOBALT_BIOSIMG");
  EXPECT_EQ(At(0x700044, 16), "#_KOBALT_INI_IMG");
}

// The packing step fills the size fields; a size beyond the slot's capacity is never read.
TEST(SlotChain, OwnSlotDataKeepsToTheCapacity) {
  UINT8* chain = const_cast<UINT8*>(DriverSlotChain());
  struct Row {
    OwnSlot slot;
    UINT32 sizeField;  // offset of the size field in the chain
    UINT32 dataOffset;
    UINT32 size;
    bool fits;
  } rows[] = {
      {OwnSlot::Ec, 0x28, 0x2C, 0x200000, true},
      {OwnSlot::Ec, 0x28, 0x2C, 0x200001, false},
      {OwnSlot::BiosImage, 0x200040, 0x200044, 0x500000, true},
      {OwnSlot::BiosImage, 0x200040, 0x200044, 0x500001, false},
      {OwnSlot::Ini, 0x700058, 0x70005C, 0, true},
      {OwnSlot::Ini, 0x700058, 0x70005C, 0x10001, false},
  };
  for (const Row& row : rows) {
    UINT32 kept = ReadU32(chain + row.sizeField);
    WriteU32(chain + row.sizeField, row.size);
    ImageView view = {};
    EXPECT_EQ(OwnSlotData(row.slot, &view), row.fits) << std::hex << row.sizeField << " " << row.size;
    EXPECT_EQ(view.data, row.fits ? chain + row.dataOffset : nullptr) << std::hex << row.sizeField;
    EXPECT_EQ(view.length, row.size);
    WriteU32(chain + row.sizeField, kept);
  }
}

}  // namespace
