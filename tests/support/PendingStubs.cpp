// Placeholders for driver functions that are being built right now: weak, so the real
// definition replaces each one, and loud, so a test that reaches one fails instead of passing.
// This file goes away once the main road is complete.
#include <cstdio>
#include <cstdlib>

#include "oblis/Oblis.h"
#include "image/Image.h"
#include "output/Output.h"
#include "update/Update.h"

#define PENDING(name)                                   \
  do {                                                  \
    std::fprintf(stderr, "not built yet: %s\n", name); \
    std::abort();                                       \
  } while (0)

__attribute__((weak)) Bool Oblis_14h(UINT32 address, UINT32 size, UINT8* data, UINT8* status) { PENDING("Oblis_14h"); }
__attribute__((weak)) Bool Oblis_15h(const UINT8* data, UINT32 size, UINT32 address, UINT8* status) { PENDING("Oblis_15h"); }
__attribute__((weak)) Bool Oblis_17h(const UINT8* imageHead, UINT8* answer) { PENDING("Oblis_17h"); }
__attribute__((weak)) Bool SMI_OemOdmCustom2(UINT8 action, UINT8 status) { PENDING("SMI_OemOdmCustom2"); }
__attribute__((weak)) VOID SetRsvd_13h() { PENDING("SetRsvd_13h"); }
__attribute__((weak)) VOID MarkBlocks(UINT32 start, UINT32 end, UINT8 flag) { PENDING("MarkBlocks"); }
__attribute__((weak)) VOID MarkRegionType(UINT8 type, UINT8 flag) { PENDING("MarkRegionType"); }
__attribute__((weak)) UINT8 BlockFlagAt(UINT32 address) { PENDING("BlockFlagAt"); }
__attribute__((weak)) VOID ShowBlockTable(const FlashBlock* table, UINT32 count) { PENDING("ShowBlockTable"); }
__attribute__((weak)) VOID ShowPrivateMapConsole(const OblisPrivateRecord* list, UINT32 count) { PENDING("ShowPrivateMapConsole"); }
__attribute__((weak)) VOID ShowProtectionMapConsole(const OblisProtectionRecord* list, UINT32 count) { PENDING("ShowProtectionMapConsole"); }
__attribute__((weak)) VOID ShowExternalMapConsole(const OblisExternalRecord* list, UINT32 count) { PENDING("ShowExternalMapConsole"); }
__attribute__((weak)) VOID ShowExternalMapTrace(const OblisExternalRecord* list, UINT32 count) { PENDING("ShowExternalMapTrace"); }
__attribute__((weak)) const CHAR16* ExternalRegionName(UINT8 type) { PENDING("ExternalRegionName"); }
__attribute__((weak)) Bool ExternalRegionFind(const OblisExternalRecord* list, UINT32 count, UINT8 type, UINT32* offset, UINT32* size, UINT8* access) { PENDING("ExternalRegionFind"); }
__attribute__((weak)) Bool LoadBvdtMap(const UINT8* image, UINT32 size) { PENDING("LoadBvdtMap"); }
__attribute__((weak)) Bool BvdtMapFound() { PENDING("BvdtMapFound"); }
__attribute__((weak)) VOID GetBvdtRomMap(UINT32* privateCount, OblisPrivateRecord** privateList, UINT32* protectionCount, OblisProtectionRecord** protectionList) { PENDING("GetBvdtRomMap"); }
__attribute__((weak)) VOID SelectRomMap(UINT32* privateCount, OblisPrivateRecord** privateList, UINT32* protectionCount, OblisProtectionRecord** protectionList) { PENDING("SelectRomMap"); }
__attribute__((weak)) VOID ShowBvdtMapConsole() { PENDING("ShowBvdtMapConsole"); }
__attribute__((weak)) VOID ShowBvdtMapTrace() { PENDING("ShowBvdtMapTrace"); }
__attribute__((weak)) Bool ShowBvdtMapFile(const CHAR16* name) { PENDING("ShowBvdtMapFile"); }
__attribute__((weak)) Bool FindBvdtInImage(const UINT8* image, UINT32 size, UINT32* offset) { PENDING("FindBvdtInImage"); }
__attribute__((weak)) Bool ReadImageBvdtInfo(const UINT8* image, UINT32 size) { PENDING("ReadImageBvdtInfo"); }
__attribute__((weak)) Bool FindBvdtBlock(UINT32* address, UINT32* size) { PENDING("FindBvdtBlock"); }
__attribute__((weak)) const CHAR16* NewImageModel() { PENDING("NewImageModel"); }
__attribute__((weak)) const CHAR16* NewImageVersion() { PENDING("NewImageVersion"); }
__attribute__((weak)) VOID StartProgressTimer() { PENDING("StartProgressTimer"); }
__attribute__((weak)) VOID ShowProgress(UINT8 percent) { PENDING("ShowProgress"); }
__attribute__((weak)) VOID AddBlockMark(UINT32 address, UINT16 mark) { PENDING("AddBlockMark"); }
__attribute__((weak)) Bool SMI_ReadRom(UINT32 address, UINT32 size, UINT8* data) { PENDING("SMI_ReadRom"); }
__attribute__((weak)) Bool ReadWholeRom(UINT8** data, UINT32* size) { PENDING("ReadWholeRom"); }
__attribute__((weak)) Bool SaveRomToFile(const CHAR16* name) { PENDING("SaveRomToFile"); }
__attribute__((weak)) VOID RunQueryCommand(const CHAR16* imageName) { PENDING("RunQueryCommand"); }
__attribute__((weak)) VOID SetStatus_region() { PENDING("SetStatus_region"); }
__attribute__((weak)) UINT8 GetRegionFlags() { PENDING("GetRegionFlags"); }
__attribute__((weak)) VOID ClearMeRegionFlag() { PENDING("ClearMeRegionFlag"); }
__attribute__((weak)) Bool GetExternalMaps(const UINT8* image, UINT32 length) { PENDING("GetExternalMaps"); }
__attribute__((weak)) VOID GetCurrentRegionSlots(UINT8* slots) { PENDING("GetCurrentRegionSlots"); }
__attribute__((weak)) Bool FindCurrentRegion(UINT8 type, UINT32* offset, UINT32* size, UINT8* access) { PENDING("FindCurrentRegion"); }
__attribute__((weak)) Bool CheckRegionSize(UINT32 size) { PENDING("CheckRegionSize"); }
__attribute__((weak)) VOID PlaceRegionImage(UINT8* buffer, const UINT8* image, UINT32 size) { PENDING("PlaceRegionImage"); }
__attribute__((weak)) VOID SetRsvd_17h() { PENDING("SetRsvd_17h"); }
__attribute__((weak)) Bool IsMeLocked() { PENDING("IsMeLocked"); }
__attribute__((weak)) VOID SetMeLocked() { PENDING("SetMeLocked"); }
__attribute__((weak)) VOID SetSkipMeRegion() { PENDING("SetSkipMeRegion"); }
__attribute__((weak)) Bool IsSkipMeRegion() { PENDING("IsSkipMeRegion"); }
__attribute__((weak)) Bool FuncUpdate_via15h(const UINT8* image, UINT32 size) { PENDING("FuncUpdate_via15h"); }
__attribute__((weak)) Bool EfiUpdate_via15h(const UINT8* image, UINT32 size) { PENDING("EfiUpdate_via15h"); }
__attribute__((weak)) Bool UpdateEntireLegacy(const UINT8* image, UINT32 size) { PENDING("UpdateEntireLegacy"); }
__attribute__((weak)) Bool UpdateRegionLegacy(const UINT8* image, UINT32 size) { PENDING("UpdateRegionLegacy"); }
__attribute__((weak)) Bool WriteBlocks(UINT8* buffer) { PENDING("WriteBlocks"); }
__attribute__((weak)) Bool SMI_WriteRom(UINT32 address, const UINT8* data, UINT32 size) { PENDING("SMI_WriteRom"); }
__attribute__((weak)) Bool CompareCurrentFD(UINT32 address, UINT32 size, const UINT8* data) { PENDING("CompareCurrentFD"); }
__attribute__((weak)) VOID SetBlockMark(UINT16 mark) { PENDING("SetBlockMark"); }
__attribute__((weak)) UINT16 TakeBlockMark() { PENDING("TakeBlockMark"); }
__attribute__((weak)) Bool FuncChk_SizeEC(UINT32 ecSize) { PENDING("FuncChk_SizeEC"); }
__attribute__((weak)) VOID KeepEcImage(const UINT8* data, UINT32 size) { PENDING("KeepEcImage"); }
