// What the oblis folder offers: the channel to the firmware, one wrapper per OBLIS function,
// what functions 10h and 11h said about the platform, the finish state, the ROM maps and the
// flash part with its block table. Everything reaches the firmware through SmiTransaction.
#pragma once

#include "KobaltBase.h"
#include "OblisWire.h"

// ---- channel ----
Bool InitialSmi();
Bool FindSMICommandPort();
UINT8 GetSmiMainFunctionNumberFromPhysicalMemory();
Bool GetFacpTableAddress(UINT32* address);
Bool ReadPhysicalU32(UINT32 address, UINT32* value);
Bool GetOblisBuffer(UINT32 size, UINT8** buffer);
Bool GetOblisBuffer2(UINT32 size, UINT8** buffer);
UINT8 OblisAttempts();
VOID OblisRetryDelay();
VOID ReportOblisError(UINT8 function, UINT8 code);
UINT16 GetSmiCommandPort();
UINT8 GetSmiNumber();

// ---- raw calls and the retry loop, for the wrappers of this folder ----
// One raw call per function: loads the frame of the function table, raises the SMI and hands
// back the registers in the function's result form. No retries, no trace.
UINT32 OblisCall_10h(UINT32 edi);                       // form B
UINT16 OblisCall_11h(UINT32 edi, UINT32* ecxOut);       // form D
UINT16 OblisCall_12h(UINT32 edi, UINT32 esi);           // form A
UINT16 OblisCall_13h(UINT32 edi, UINT32 esi);           // form A
UINT16 OblisCall_16h(UINT8 clearCmos, UINT8 action, UINT32 esi);  // form A
UINT16 OblisCall_1Ch();                                 // form C
UINT16 OblisCall_1Eh(UINT32 edi);                       // form A
UINT16 OblisCall_1Fh(UINT32 point);                     // form A
UINT16 OblisCall_14h(UINT32 size, UINT32 address, UINT32 esi);  // form A
UINT16 OblisCall_15h(UINT32 size, UINT32 address, UINT32 esi);  // form A
UINT16 OblisCall_17h(UINT32 edi, UINT32 esi);           // form A, ECX 0x1000
UINT16 OblisCall_1Ah(UINT8 action, UINT8 status);       // form A
UINT16 OblisCall_19h(UINT32 edi);                       // form A, CL 1, EDI the caller's record
UINT16 OblisCall_1Bh(UINT32 size, UINT32 address, UINT32 esi);  // form A
UINT16 OblisCall_44h(UINT32 edi, UINT32 esi);           // form A, EDI switches/answer, ESI information
UINT16 OblisCall_45h(UINT32 ecx);                       // form A, ECX the $CHKCNDI record
UINT16 OblisCall_48h(UINT32 size, UINT32 edi, UINT32 esi);  // form C: AH is the firmware's CL

// What differs between the wrappers that share the retry loop.
struct OblisRetrySpec {
  const CHAR16* name;        // trace name of the wrapper
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
// no attempt is made). On a refusal it reports if asked and closes the trace with
// "BIOS return not success"; on success the wrapper copies its answer and closes the trace.
Bool RunOblisRetryLoop(const OblisRetrySpec* spec, OblisAttempt attempt, VOID* context, UINT8* status);
// Whether a caller's out-buffer takes bytes: a null one (no copy wanted) always does.
inline Bool ViewHolds(ImageView view, UINT32 bytes) { return view.data == nullptr || view.length >= bytes; }
// One piece of a map display, formatted once and written to the console or to the trace at level.
VOID EmitMapText(Bool console, UINT8 level, const CHAR16* format, ...);

// ---- wrappers ----
// What functions 11h, 12h and 13h hand back: each answer list fills this many bytes, and a
// caller's buffer for one must hold all of them.
constexpr UINT32 kOblisAnswerBytes = 0x10000;
// Each wrapper that copies an answer out takes the caller's buffer with its length and refuses
// one shorter than the answer; a null data pointer means the caller wants no copy.
Bool Oblis_10h(ImageView out);
Bool Oblis_11h(ImageView out, UINT8* ah, UINT32* ecx);
Bool Oblis_12h(ImageView protection, ImageView privateMap);
Bool Oblis_13h(ImageView part, ImageView blockMap);
Bool Oblis_16h(UINT8 clearCmos, UINT8 action, UINT8 complete);
Bool Oblis_1Ch(UINT8* status);
Bool Oblis_1Eh(ImageView out);  // kWholeMapBytes
Bool Oblis_1Fh(UINT32 point);

// ---- platform status and information ----
constexpr UINT32 kPlatformStatusBytes = 38;
constexpr UINT16 kVendorNone = 0x1656;
constexpr UINT16 kVendorAcer = 0x1025;
constexpr UINT16 kVendorDell = 0x1028;
constexpr UINT16 kVendorToshiba = 0x1179;
constexpr UINT16 kVendorLenovo = 0x17AA;

#pragma pack(push, 1)
struct PlatformInfo {
  Bool modelNameCheck;
  Bool modelVersionCheck;
  Bool allowSameVersion;
  Bool verifyFileChecksum;
  Bool disableDisplayName;
  Bool disableDisplayVersion;
  Bool disableComparison;
  Bool enableExtended;
  Bool allowAlpCommand;
  CHAR16 modelName[256];
  CHAR16 modelVersion[256];
};
#pragma pack(pop)
static_assert(sizeof(PlatformInfo) == 0x409, "PlatformInfo is 0x409 bytes");

Bool SMI_IsSupport();
VOID GetPlatformStatus(UINT8* record);
Bool IsVendor(UINT16 id);
UINT8 GetAcStatus();
UINT8 GetDcStatus();
Bool IsAcerPlatform();
Bool FuncOblis_11h();
VOID GetPlatformInfo(PlatformInfo* record);
VOID GetModelStrings(CHAR16** name, CHAR16** version);
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
Bool EFIAPI FuncOblis_16h();
Bool FuncSpecific_16h(UINT8 action, UINT8 complete);
UINT8 IndexToAction_16h(UINT8 index);
UINT8 GetFinishAction();
UINT8 GetFinishComplete();
UINT8 GetFinishClearCmos();
Bool OptionReboot();
Bool OptionShutdown();
const CHAR16* FinishActionName(UINT8 action);
const CHAR16* FinishCompleteName(UINT8 complete);

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
VOID GetPlatformRomMap(UINT32* privateCount, OblisPrivateRecord** privateList, UINT32* protectionCount,
                       OblisProtectionRecord** protectionList);
Bool SMI_GetWholeRomMap(RomMapEntry* entries, UINT8* count);
Bool FuncGetWholeRomMap(RomMapEntry* entries, UINT8* count);
VOID GetWholeRomMapRecords(UINT32* count, UINT8** records);
const CHAR16* WholeRegionTypeName(UINT8 type);
VOID ShowPrivateMapTrace(const OblisPrivateRecord* list, UINT32 count);
VOID ShowProtectionMapTrace(const OblisProtectionRecord* list, UINT32 count);

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
UINT32 GetRomSize();
UINT32 GetRomBase();
UINT32 GetBlockCount();
UINT32 GetBlockSize();
UINT32 SizeIndexToBytes(UINT8 index);
FlashBlock* CopyBlockTable();

// ---- flash read and write, external map, update bracket ----
// Reads size bytes (at most the 0x20000 of the shared buffer) at a flash address into data (which
// must hold them, or be null); status 0x2A (locked ME) counts as success and is handed back.
Bool Oblis_14h(UINT32 address, UINT32 size, ImageView data, UINT8* status);
// Reads size bytes of flash in pieces of the shared buffer into data, which must hold them; a
// null data only reads, for the effect on the ME lock. A read that meets the locked ME region
// (0x2A) counts as read and sets the run's locked-ME fact.
Bool SMI_ReadRom(UINT32 address, UINT32 size, ImageView data);
Bool IsMeLocked();
VOID SetMeLocked();
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
VOID MarkRegionType(UINT8 type, UINT8 flag);
UINT8 BlockFlagAt(UINT32 address);
VOID ShowBlockTable(const FlashBlock* table, UINT32 count);

// ---- map displays, BVDT map, external records ----
VOID ShowPrivateMapConsole(const OblisPrivateRecord* list, UINT32 count);
VOID ShowProtectionMapConsole(const OblisProtectionRecord* list, UINT32 count);
VOID ShowExternalMapConsole(const OblisExternalRecord* list, UINT32 count);
VOID ShowExternalMapTrace(const OblisExternalRecord* list, UINT32 count);
const CHAR16* ExternalRegionName(UINT8 type);
Bool ExternalRegionFind(const OblisExternalRecord* list, UINT32 count, UINT8 type, UINT32* offset, UINT32* size,
                        UINT8* access);
Bool LoadBvdtMap(const UINT8* image, UINT32 size);
Bool BvdtMapFound();
VOID GetBvdtRomMap(UINT32* privateCount, OblisPrivateRecord** privateList, UINT32* protectionCount,
                   OblisProtectionRecord** protectionList);
VOID SelectRomMap(UINT32* privateCount, OblisPrivateRecord** privateList, UINT32* protectionCount,
                  OblisProtectionRecord** protectionList);
VOID ShowBvdtMapConsole();
VOID ShowBvdtMapTrace();
Bool ShowBvdtMapFile(const CHAR16* name);

// State. Each file of the folder keeps its state in one record; ResetOblisState() puts them
// all back as a fresh load leaves them. Host builds and tests only: the firmware loads the
// driver fresh. Pool blocks are forgotten, not freed: the environment that handed them out
// takes them back.
VOID ResetOblisState();
// Frees the pool memory and the shared pages the folder keeps for the whole run; called when the
// driver unloads.
VOID ReleaseOblisMemory();
VOID ResetBlockTableState();
VOID ResetBvdtMapState();
VOID ResetChannelState();
VOID ResetFinishState();
VOID ResetFlashReadState();
VOID ResetMapsState();
VOID ReleaseMapsMemory();
VOID ResetPlatformStatusState();
