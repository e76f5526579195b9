// The oblis folder's own declarations, shared by its files and its tests; no other folder
// includes it.
#pragma once

#include "oblis/Oblis.h"

Bool FindSMICommandPort();
UINT8 GetSmiMainFunctionNumberFromPhysicalMemory();
Bool GetFacpTableAddress(UINT32* address);
Bool ReadPhysicalU32(UINT32 address, UINT32* value);
UINT8 OblisAttempts();
VOID OblisRetryDelay();
VOID ReportOblisError(UINT8 function, UINT8 code);
UINT16 GetSmiCommandPort();
UINT8 GetSmiNumber();
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
// Whether a caller's out-buffer takes bytes: a null one (no copy wanted) always does.
inline Bool ViewHolds(ImageView view, UINT32 bytes) { return view.data == nullptr || view.length >= bytes; }
// One piece of a map display, formatted once and written to the console or to the trace at level.
VOID EmitMapText(Bool console, UINT8 level, const CHAR16* format, ...);
// Each wrapper that copies an answer out takes the caller's buffer with its length and refuses
// one shorter than the answer; a null data pointer means the caller wants no copy.
Bool Oblis_10h(ImageView out);
Bool Oblis_11h(ImageView out, UINT8* ah, UINT32* ecx);
Bool Oblis_12h(ImageView protection, ImageView privateMap);
Bool Oblis_13h(ImageView part, ImageView blockMap);
Bool Oblis_16h(UINT8 clearCmos, UINT8 action, UINT8 complete);
Bool Oblis_1Eh(ImageView out);  // kWholeMapBytes
Bool Oblis_1Fh(UINT32 point);
Bool IsAcerPlatform();
VOID GetModelStrings(CHAR16** name, CHAR16** version);
UINT8 GetFinishComplete();
UINT8 GetFinishClearCmos();
Bool OptionReboot();
const CHAR16* FinishActionName(UINT8 action);
const CHAR16* FinishCompleteName(UINT8 complete);
VOID GetPlatformRomMap(UINT32* privateCount, OblisPrivateRecord** privateList, UINT32* protectionCount,
                       OblisProtectionRecord** protectionList);
Bool FuncGetWholeRomMap(RomMapEntry* entries, UINT8* count);
const CHAR16* WholeRegionTypeName(UINT8 type);
VOID ShowPrivateMapTrace(const OblisPrivateRecord* list, UINT32 count);
VOID ShowProtectionMapTrace(const OblisProtectionRecord* list, UINT32 count);
// Reads size bytes (at most the 0x20000 of the shared buffer) at a flash address into data (which
// must hold them, or be null); status 0x2A (locked ME) counts as success and is handed back.
Bool Oblis_14h(UINT32 address, UINT32 size, ImageView data, UINT8* status);
VOID SetMeLocked();
VOID MarkRegionType(UINT8 type, UINT8 flag);
Bool BvdtMapFound();
VOID GetBvdtRomMap(UINT32* privateCount, OblisPrivateRecord** privateList, UINT32* protectionCount,
                   OblisProtectionRecord** protectionList);
VOID ShowBvdtMapConsole();
VOID ShowBvdtMapTrace();

// The state of each file, put back by ResetOblisState().
VOID ResetBlockTableState();
VOID ResetBvdtMapState();
VOID ResetChannelState();
VOID ResetFinishState();
VOID ResetFlashReadState();
VOID ResetMapsState();
VOID ReleaseMapsMemory();
VOID ResetPlatformStatusState();
