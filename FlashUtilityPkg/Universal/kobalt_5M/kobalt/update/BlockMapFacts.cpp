// What the block map in the trace shows of a block, gathered where the block is written: the
// block table's protection flag, the protection or private region and the external region that
// hold it. The output folder only formats these facts; it asks no map itself.
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "update/UpdateInternal.h"

namespace {

// The external region types a block can lie in, in the order their names are looked up.
constexpr UINT8 kExternalTypes[] = {0x00, 0x01, 0x02, 0x03, 0x04, 0x20};

Bool Holds(UINT32 start, UINT32 size, UINT32 address) { return size != 0 && address >= start && address - start < size; }

}  // namespace

BlockMapEntry DescribeBlock(UINT32 address, UINT16 mark) {
  BlockMapEntry entry = {};
  entry.address = address;
  entry.offset = address - GetRomBase();
  entry.mark = mark;
  entry.blocksInPart = GetBlockCount();
  entry.protectedBlock = BlockFlagAt(address) != 0;

  UINT32 privateCount = 0;
  UINT32 protectionCount = 0;
  OblisPrivateRecord* privateList = nullptr;
  OblisProtectionRecord* protectionList = nullptr;
  SelectRomMap(&privateCount, &privateList, &protectionCount, &protectionList);
  // A protection region names its type; only a block outside all of them shows the private mark.
  for (UINT32 i = 0; protectionList != nullptr && i < protectionCount && !entry.inProtectionRegion; i++) {
    if (Holds(protectionList[i].address, protectionList[i].size, address)) {
      entry.inProtectionRegion = true;
      entry.protectionType = protectionList[i].type;
    }
  }
  for (UINT32 i = 0; privateList != nullptr && i < privateCount && !entry.inPrivateRegion; i++) {
    entry.inPrivateRegion = Holds(privateList[i].address, privateList[i].size, address);
  }
  FreePoolAndNull(privateList);
  FreePoolAndNull(protectionList);

  entry.externalType = kNoExternalRegion;
  for (UINT8 type : kExternalTypes) {
    UINT32 offset = 0;
    UINT32 size = 0;
    UINT8 access = 0;
    if (!FindCurrentRegion(type, &offset, &size, &access)) {
      continue;
    }
    entry.externalRegionsKnown = true;
    if (Holds(GetRomBase() + offset, size, address)) {
      entry.externalType = type;
      entry.externalName = ExternalRegionName(type);
      break;
    }
  }
  return entry;
}
