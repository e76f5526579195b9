// What the oblis folder offers: the channel to the firmware, one wrapper per OBLIS function,
// what functions 10h and 11h said about the platform, the finish state, the ROM maps and the
// flash part with its block table. Everything reaches the firmware through SmiTransaction.
#pragma once

#include "KobaltBase.h"
#include "OblisWire.h"

// ---- channel ----
Bool InitialSmi();
Bool GetOblisBuffer(UINT32 size, UINT8** buffer);
Bool GetOblisBuffer2(UINT32 size, UINT8** buffer);

// ---- raw calls and the retry loop, for the wrappers that live with their checks and roads ----
// One raw call per function (the others are this folder's own): loads the function's frame,
// raises the SMI and hands back the registers in the function's result form. No retries, no trace.
UINT16 OblisCall_19h(UINT32 edi);                       // form A, CL 1, EDI the caller's record
UINT16 OblisCall_1Bh(UINT32 size, UINT32 address, UINT32 esi);  // form A
UINT16 OblisCall_44h(UINT32 edi, UINT32 esi);           // form A, EDI switches/answer, ESI information
UINT16 OblisCall_45h(UINT32 ecx);                       // form A, ECX the $CHKCNDI record
UINT16 OblisCall_48h(UINT32 size, UINT32 edi, UINT32 esi);  // form C: AH is the firmware's CL
UINT32 OblisCall_4Ch(UINT32 size, UINT8 verifyOnly, UINT32 esi);  // form E: CX in the upper half, AX below
UINT16 OblisCall_49h(UINT32 ecx);                       // form A, ECX the $RDI record
UINT16 OblisCall_20h(UINT8 action, UINT8 block, UINT32 size, UINT32 esi);  // form A, CL action, CH block
UINT16 OblisCall_21h(UINT8 sizeIndex, UINT32 esi);      // form C: AH is the firmware's CL, its size index
UINT16 OblisCall_41h(UINT32 ecx);                       // form A, ECX the $EDI record
UINT16 OblisCall_42h(UINT8 lastMark, UINT8 piece, UINT32 count, UINT32 esi);  // form A, CL mark, CH piece

// What differs between the wrappers that share the retry loop.
struct OblisRetrySpec {
  UINT8 function;            // for the error report
  const UINT8* accepted;     // codes taken as success
  UINT8 acceptedCount;
  const UINT8* loopEnding;   // codes that end the loop at once (besides 0)
  UINT8 loopEndingCount;
  Bool report;               // ReportOblisError on failure
};
// One attempt: makes the raw call with the wrapper's staged context and gives the status byte.
typedef UINT8 (*OblisAttempt)(VOID* context);
// Runs OblisAttempts() attempts and judges the last status, which *status receives (0xFF when
// no attempt is made). Gives null when the status is accepted; on a refusal it reports if asked
// and gives the reason ("BIOS return not success") the wrapper closes its own trace with.
const CHAR16* RunOblisRetries(const OblisRetrySpec* spec, OblisAttempt attempt, VOID* context, UINT8* status);

// ---- wrappers ----
// What functions 11h, 12h and 13h hand back: each answer list fills this many bytes, and a
// caller's buffer for one must hold all of them.
constexpr UINT32 kOblisAnswerBytes = 0x10000;
Bool Oblis_1Ch(UINT8* status);

// ---- platform status and information ----
constexpr UINT32 kPlatformStatusBytes = 38;
constexpr UINT16 kVendorNone = 0x1656;
constexpr UINT16 kVendorAcer = 0x1025;
constexpr UINT16 kVendorDell = 0x1028;
constexpr UINT16 kVendorToshiba = 0x1179;
constexpr UINT16 kVendorLenovo = 0x17AA;

#pragma pack(push, 1)
// The two strings come first so that they stand on even addresses in every copy declared
// alignas(2): the 16-bit characters are read in place.
struct PlatformInfo {
  CHAR16 modelName[256];
  CHAR16 modelVersion[256];
  Bool modelNameCheck;
  Bool modelVersionCheck;
  Bool allowSameVersion;
  Bool verifyFileChecksum;
  Bool disableDisplayName;
  Bool disableDisplayVersion;
  Bool disableComparison;
  Bool enableExtended;
  Bool allowAlpCommand;
};
#pragma pack(pop)
static_assert(sizeof(PlatformInfo) == 0x409, "PlatformInfo is 0x409 bytes");

Bool SMI_IsSupport();
VOID GetPlatformStatus(UINT8* record);
Bool IsVendor(UINT16 id);
UINT8 GetAcStatus();
UINT8 GetDcStatus();
Bool FuncOblis_11h();
VOID GetPlatformInfo(PlatformInfo* record);
Bool AllowAlpCommand();
Bool DisableComparison();
Bool EFIAPI SMI_ApHookPoint(UINT32 point);
// A key wait of a dialog: the firmware hears of it before and after (hook points 5 and 6).
CHAR16 DialogKey();
// A SetStatus_16h argument of this value leaves that part of the finish state as it is.
constexpr UINT8 kFinishLeaveAsIs = 0xEF;
// Gives the firmware's last word on the finish action, over settings and options; the pre-flash
// checks hold it, so the caller passes it in.
typedef VOID (*FinishActionLastWord)(UINT8* action);
VOID SetStatus_16h(UINT8 clearCmos, UINT8 action, UINT8 complete, FinishActionLastWord lastWord);
// The finish action the run has set so far: 0 nothing, 1 shutdown, 2 reboot.
UINT8 GetFinishAction();
Bool EFIAPI FuncOblis_16h();
UINT8 IndexToAction_16h(UINT8 index);
Bool OptionShutdown();

// ---- ROM maps ----
struct RomMapEntry {
  UINT8 type;
  UINT32 offset;
  UINT32 size;
  UINT32 address;
  UINT32 end;
  UINT32 attribute;
};
constexpr UINT32 kRomMapEntries = 200;
Bool SMI_GetPlatformRomMap();
Bool SMI_GetWholeRomMap(RomMapEntry* entries, UINT8* count);
VOID GetWholeRomMapRecords(UINT32* count, UINT8** records);

// ---- flash part and block table ----
#pragma pack(push, 1)
struct FlashBlock {
  UINT32 address;
  UINT32 size;
  UINT8 protectedFlag;
};
#pragma pack(pop)
static_assert(sizeof(FlashBlock) == 9, "block table entry is 9 packed bytes");
constexpr UINT32 kFlashBlockEntries = 0x1000;

Bool FuncOblis_13h();
// The bytes a flash size index stands for (0 for an index past the table).
UINT32 SizeIndexToBytes(UINT8 index);
UINT32 GetRomSize();
UINT32 GetRomBase();
UINT32 GetBlockCount();
UINT32 GetBlockSize();
FlashBlock* CopyBlockTable();
// The protection marks of count blocks, in the trace.
VOID ShowBlockTable(const FlashBlock* table, UINT32 count);

// ---- flash read and write, external map, update bracket ----
// Reads size bytes of flash in pieces of the shared buffer into data, which must hold them; a
// null data only reads, for the effect on the ME lock. A read that meets the locked ME region
// (0x2A) counts as read and sets the run's locked-ME fact.
Bool SMI_ReadRom(UINT32 address, UINT32 size, ImageView data);
Bool IsMeLocked();
// Writes one block; status 0x29 (the firmware skipped the block) counts as success.
Bool Oblis_15h(const UINT8* data, UINT32 size, UINT32 address, UINT8* status);
// imageHead (null for none) and answer hold kExternalMapBytes each.
Bool Oblis_17h(const UINT8* imageHead, ImageView answer);
Bool SMI_OemOdmCustom2(UINT8 action, UINT8 status);

// ---- block marking ----
// Whether the platform has Secure Boot (then the NV storage stays closed unless -unvs opens it);
// asked inside the marking step, so the caller passes the question in.
typedef Bool (*SecureBootQuery)();
VOID SetRsvd_13h(SecureBootQuery secureBootSupport);
VOID MarkBlocks(UINT32 start, UINT32 end, UINT8 flag);
// The last byte of a region. A region that would run past 4 GB ends there: a wrapped end would
// leave the whole region open.
UINT32 RegionEnd(UINT32 start, UINT32 size);
UINT8 BlockFlagAt(UINT32 address);

// ---- map displays, BVDT map, external records ----
VOID ShowPrivateMapConsole(const OblisPrivateRecord* list, UINT32 count);
VOID ShowProtectionMapConsole(const OblisProtectionRecord* list, UINT32 count);
VOID ShowExternalMapConsole(const OblisExternalRecord* list, UINT32 count);
VOID ShowExternalMapTrace(const OblisExternalRecord* list, UINT32 count);
const CHAR16* ExternalRegionName(UINT8 type);
Bool ExternalRegionFind(const OblisExternalRecord* list, UINT32 count, UINT8 type, UINT32* offset, UINT32* size,
                        UINT8* access);
VOID SelectRomMap(UINT32* privateCount, OblisPrivateRecord** privateList, UINT32* protectionCount,
                  OblisProtectionRecord** protectionList);
Bool ShowBvdtMapFile(const CHAR16* name);

// State. Each file of the folder keeps its state in one record; ResetOblisState() puts them
// all back as a fresh load leaves them. Host builds and tests only: the firmware loads the
// driver fresh. Pool blocks are forgotten, not freed: the environment that handed them out
// takes them back.
VOID ResetOblisState();
// Frees the pool memory and the shared pages the folder keeps for the whole run; called when the
// driver unloads.
VOID ReleaseOblisMemory();

// ---- used by the capsule run ----
Bool LoadBvdtMap(const UINT8* image, UINT32 size);
Bool FuncSpecific_16h(UINT8 action, UINT8 complete);
