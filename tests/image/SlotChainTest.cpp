// The '$' marks that the entry puts into the driver's own slot chain.
#include <gtest/gtest.h>

#include <string>

#include "image/ImageInternal.h"

namespace {

std::string At(UINT32 offset, size_t length) {
  return std::string(reinterpret_cast<const char*>(DriverSlotChain()) + offset, length);
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
