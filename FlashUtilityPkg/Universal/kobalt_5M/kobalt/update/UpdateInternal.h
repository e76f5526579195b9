// The update folder's own declarations, shared by its files and its tests; no other folder
// includes it.
#pragma once

#include "update/Update.h"

Bool ReadWholeRom(UINT8** data, UINT32* size);
Bool SaveRomToFile(const CHAR16* name);
UINT8 GetRegionFlags();
// image may be null (then nothing of an image goes to the firmware); length bounds the copy.
Bool GetExternalMaps(const UINT8* image, UINT32 length);
VOID GetCurrentRegionSlots(UINT8* slots);  // 54 bytes
// The current list of the last GetExternalMaps (null and 0 before), for the -pr display.
VOID GetCurrentExternalList(const OblisExternalRecord** list, UINT32* count);
Bool FindCurrentRegion(UINT8 type, UINT32* offset, UINT32* size, UINT8* access);
Bool CheckRegionSize(UINT32 size);
// The current list's regions lie inside the ROM and apart; for a whole image, each selected
// region is among them. Prints the warning that names the region otherwise.
Bool CheckCurrentRegions(Bool wholeImage);
VOID PlaceRegionImage(UINT8* buffer, const UINT8* image, UINT32 size);
VOID SetRsvd_17h();
VOID SetSkipMeRegion();
Bool IsSkipMeRegion();
Bool UpdateEntireLegacy(const UINT8* image, UINT32 size);
Bool UpdateRegionLegacy(const UINT8* image, UINT32 size);
// Writes the blocks of the table that buffer holds, laid end to end; a table that reaches past
// the ROM or past buffer is refused before the first write.
Bool WriteBlocks(ImageView buffer);
// Whether the firmware's blocks make up the ROM; prints what is wrong when they do not.
Bool BlockTableMakesUpRom();
BlockResult SMI_WriteRom(UINT32 address, ImageView block);
Bool CompareCurrentFD(UINT32 address, UINT32 size, const UINT8* data);
// The block map entry of a block the writer has just marked: the facts the trace shows of it.
BlockMapEntry DescribeBlock(UINT32 address, UINT16 mark);
// The EC part in front of a BIOS image: its size check (KeepEcImage keeps it).
Bool FuncChk_SizeEC(UINT32 ecSize);
// The EC update's pieces, shared with its tests.
constexpr UINT32 kEcInfoRecordBytes = 0x34;  // what the tool keeps of a 21h answer
constexpr UINT32 kEcPartLimit = 10;
constexpr UINT8 kEcSizeIndexUnknown = 0xFF;  // no index of the table: the answer carries parts
Bool Oblis_21h(UINT32 size, UINT8* index, UINT8* record);
Bool ParseEcPartInfo(UINT8 index, const UINT8* record);
// One EC write block by block: the block size, which blocks are skipped, how many there are and
// which written block goes last.
struct EcBlockPlan {
  UINT32 blockSize;
  UINT8 skip[256];
  UINT8 blockCount;
  UINT8 lastBlock;
};
// False for a null plan and for an image of more blocks than an 8-bit count holds.
Bool BuildEcBlockPlan(UINT32 size, EcBlockPlan* plan);
Bool WriteEcBlockByBlock(UINT32 size);
Bool SMI_WriteEc(UINT8 block, UINT32 count, Bool isLast);
Bool Oblis_20h(const UINT8* data, UINT32 count, UINT8 action, UINT8 block);
Bool Set20hAction(UINT8* action);
// Writes the block list of function 48h for an image at address; list holds 0x20000 bytes.
// Returns the number of blocks.
UINT32 BuildCapsuleBlockList(UINT8* list, UINT32 address, UINT32 size);
Bool SMI_SecureCapsuleFlash(const UINT8* image, UINT32 size);
Bool FuncSize_entire48h(const UINT8* payload, UINT32 payloadSize);
Bool FuncSize_region48h(const UINT8* payload, UINT32 payloadSize);
Bool FindEspRoot();
Bool CopyCapsuleToEsp(const UINT8* image, UINT32 size);
Bool UpdateOemME();
// Typed data and packets for the firmware: function 41h announces (answer: kExtraDataAnswerBytes
// or null), function 42h carries one piece of at most the shared buffer and copies it back.
struct ExtraDataRequest {
  UINT8 lastMark;  // CL: kExtraDataMorePieces, or kExtraDataLastPiece
  UINT8 piece;     // CH
  UINT32 count;    // EDI
  UINT8* data;
};
Bool Oblis_41h(UINT8 type, UINT8 sizeIndex, UINT32 size, UINT8* answer);
Bool FuncOblis_41h(UINT8 type, UINT8 sizeIndex, UINT32 size, UINT8* answer);
Bool Oblis_42h(const ExtraDataRequest* request, UINT8* status);
Bool FuncOblis_42h(UINT8 lastMark, UINT8* data, UINT32 count, UINT8 piece);
Bool SMI_CustomizeDataWrite(UINT8* data, UINT32 size);
// The data of one -edt item; the caller frees it.
Bool GetEdtData(const CHAR16* slot, UINT8** data, UINT32* size);
Bool IsCommand_edt();
Bool FuncCommand_edt();
Bool IsValidCommand_e(UINT32 fileSize);
// The PFAT road's pieces, shared with its tests.
#pragma pack(push, 1)
struct PfatBlock {
  UINT32 address;
  UINT32 size;
  UINT8 protectedFlag;  // 1: the packet of this block is not sent
};
#pragma pack(pop)
static_assert(sizeof(PfatBlock) == 9, "a PFAT block entry is packed like a flash block");
Bool PfatChecksum(const UINT8* image, UINT32 length);
Bool GetStatus41h_Pfat(UINT8 type, UINT8 sizeIndex, UINT32 size, UINT64* result);
Bool WritePfatBlock(UINT8* packet, UINT32 size, UINT8 block, UINT8 lastMark);
PfatBlock* GetPfatBlockTable(UINT32 count, UINT32 blockSize);
Bool FuncUpdate_PFAT(const UINT8* image, UINT32 fdSize, UINT8 lastValue);
Bool FuncSize_entire42h(const UINT8* image, UINT32 fdSize);
Bool FuncSize_region42h(const UINT8* image, UINT32 fdSize);
Bool IsPfatEnabled();
UINT32 GetPfatFdSize();
VOID ShowWriteProgress(UINT8 percent);
// The OEM secure road's pieces, shared with its tests. A request is zeroed before use; the
// firmware's answer fills the last four fields.
struct OemFlashRequest {
  UINT32 size;  // 0 for the probe
  UINT8 actionIndex;
  UINT32 address;
  Bool imageVerified;
  Bool useOrdinaryWay;
  Bool finishedWell;
};
// The four bytes FuncOblis_4Ch hands on, in this order.
constexpr UINT32 kOemResultAction = 0, kOemResultVerified = 1, kOemResultOrdinaryWay = 2, kOemResultFinishedWell = 3,
                 kOemResultBytes = 4;
// CRC-32/JAMCRC; 0 for a null buffer or a zero length.
UINT32 RbuChecksum(const UINT8* data, UINT32 length);
Bool Oblis_4Ch(OemFlashRequest* request, UINT8 verifyOnly);
Bool FuncOblis_4Ch(const UINT8* image, UINT32 size, UINT8 verifyOnly, UINT8* result);
Bool RunOemSecureFlash(const UINT8* image, UINT32 size, UINT8* useOrdinaryWay);
// Where the last analysed RBU image keeps its flash data: offset in the file and size.
VOID GetRbuRawData(UINT32* start, UINT32* size);

// The state of each file, put back by ResetUpdateState().
VOID ResetBlockWriterState();
VOID ResetCapsuleState();
VOID ResetEcState();
VOID ResetOemMeState();
VOID ResetRegionState();
VOID ResetPfatState();
VOID ResetRbuState();
VOID ReleaseRegionMemory();
