// Placeholders for driver functions that are not built yet: weak, so the real definition
// replaces each one, and loud, so a test that reaches one fails instead of passing on a fake.
// This file goes away once every folder of the driver is complete.
#include <cstdio>
#include <cstdlib>
#include "output/Output.h"
#include "config/Config.h"
#include "image/Image.h"
#include "checks/Checks.h"
#include "frame/Frame.h"
#include "oblis/Oblis.h"
#define PENDING(name) do { std::fprintf(stderr, "not built yet: %s\n", name); std::abort(); } while (0)
__attribute__((weak)) UINTN FormatTextV(CHAR16* buffer, UINTN capacity, const CHAR16* format, va_list args) { PENDING("FormatTextV"); }
__attribute__((weak)) UINTN FormatText(CHAR16* buffer, UINTN capacity, const CHAR16* format, ...) { PENDING("FormatText"); }
__attribute__((weak)) UINTN Print(const CHAR16* format, ...) { PENDING("Print"); }
__attribute__((weak)) VOID PrintLong(const CHAR16* format, ...) { PENDING("PrintLong"); }
__attribute__((weak)) VOID PrintBanner(Bool longBanner) { PENDING("PrintBanner"); }
__attribute__((weak)) VOID PrintSecureBanner() { PENDING("PrintSecureBanner"); }
__attribute__((weak)) const CHAR16* GetMessageText(const CHAR8* key, const CHAR16* defaultText) { PENDING("GetMessageText"); }
__attribute__((weak)) VOID FreeMessageText(const CHAR16* text, const CHAR16* defaultText) { PENDING("FreeMessageText"); }
__attribute__((weak)) VOID ShowAcWarning(const CHAR8* key) { PENDING("ShowAcWarning"); }
__attribute__((weak)) VOID PrintWarningBar(const CHAR16* text) { PENDING("PrintWarningBar"); }
__attribute__((weak)) CHAR16* CenterLines(UINT16 width, CHAR16* text) { PENDING("CenterLines"); }
__attribute__((weak)) CHAR16 WaitKey() { PENDING("WaitKey"); }
__attribute__((weak)) VOID FlashCompletePause() { PENDING("FlashCompletePause"); }
__attribute__((weak)) VOID LogPrint(UINT8 level, const CHAR16* format, ...) { PENDING("LogPrint"); }
__attribute__((weak)) VOID TraceEnter(const CHAR16* name) { PENDING("TraceEnter"); }
__attribute__((weak)) VOID TraceLeave(const CHAR16* name, const CHAR16* reason) { PENDING("TraceLeave"); }
__attribute__((weak)) VOID HexDump(const VOID* data, UINT32 length) { PENDING("HexDump"); }
__attribute__((weak)) VOID HexDumpFramed(const CHAR16* label, const VOID* data, UINT32 length) { PENDING("HexDumpFramed"); }
__attribute__((weak)) VOID ScanDebugOption() { PENDING("ScanDebugOption"); }
__attribute__((weak)) Bool IsLogEnabled() { PENDING("IsLogEnabled"); }
__attribute__((weak)) CHAR16* TimeStamp(Bool date, Bool time) { PENDING("TimeStamp"); }
__attribute__((weak)) const FlashSettings* Settings() { PENDING("Settings"); }
__attribute__((weak)) VOID InitialIniStructure() { PENDING("InitialIniStructure"); }
__attribute__((weak)) Bool GetIniString(const CHAR8* section, const CHAR8* key, CHAR8* out, UINTN capacity) { PENDING("GetIniString"); }
__attribute__((weak)) const CommandFlags* Flags() { PENDING("Flags"); }
__attribute__((weak)) Bool FindSignature(const UINT8* buffer, UINT32 length, const UINT8* pattern, UINT32 patternLength, UINT32* offset) { PENDING("FindSignature"); }
__attribute__((weak)) VOID InitSlotTags() { PENDING("InitSlotTags"); }
__attribute__((weak)) VOID MarkEntrySlotTags() { PENDING("MarkEntrySlotTags"); }
__attribute__((weak)) Bool FuncOblis_1Ch() { PENDING("FuncOblis_1Ch"); }
__attribute__((weak)) Bool AntiTheftMarkerRequired() { PENDING("AntiTheftMarkerRequired"); }
__attribute__((weak)) Bool IsSecureBootSupport() { PENDING("IsSecureBootSupport"); }
__attribute__((weak)) Bool SecureBootProtectionCheck() { PENDING("SecureBootProtectionCheck"); }
__attribute__((weak)) EFI_STATUS EFIAPI KobaltDriverEntry(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) { PENDING("KobaltDriverEntry"); }
__attribute__((weak)) Bool EFIAPI ShellFlashMain() { PENDING("ShellFlashMain"); }
__attribute__((weak)) Bool EFIAPI UefiFlashMain() { PENDING("UefiFlashMain"); }
__attribute__((weak)) Bool Initialize() { PENDING("Initialize"); }
__attribute__((weak)) Bool CallingNecessarySmi() { PENDING("CallingNecessarySmi"); }
__attribute__((weak)) VOID FreeResource() { PENDING("FreeResource"); }
__attribute__((weak)) UINT8 GetRunMode() { PENDING("GetRunMode"); }
__attribute__((weak)) VOID* EFIAPI LookupFunction(const CHAR16* name) { PENDING("LookupFunction"); }
__attribute__((weak)) VOID EFIAPI SetCurrentDirectory(const CHAR16* path) { PENDING("SetCurrentDirectory"); }
__attribute__((weak)) VOID EFIAPI SetCommandLineArgument(UINT32 count, CHAR16** vector) { PENDING("SetCommandLineArgument"); }
__attribute__((weak)) VOID EFIAPI SetImageHandle(EFI_HANDLE imageHandle) { PENDING("SetImageHandle"); }
__attribute__((weak)) VOID EFIAPI SetShellExecuteCallback(ShellExecuteCallback callback) { PENDING("SetShellExecuteCallback"); }
__attribute__((weak)) UINT32 GetArgumentCount() { PENDING("GetArgumentCount"); }
__attribute__((weak)) CHAR16** GetArgumentVector() { PENDING("GetArgumentVector"); }
__attribute__((weak)) EFI_STATUS RunShellCommand(const CHAR16* text) { PENDING("RunShellCommand"); }
__attribute__((weak)) EFI_FILE_PROTOCOL* GetRootDirectory() { PENDING("GetRootDirectory"); }
__attribute__((weak)) Bool ReadFile(const CHAR16* name, UINT8** buffer, UINT32* size) { PENDING("ReadFile"); }
__attribute__((weak)) Bool SaveBufferToFile(const CHAR16* name, const VOID* data, UINT32 size) { PENDING("SaveBufferToFile"); }
__attribute__((weak)) Bool AppendBufferToFile(const CHAR16* name, const VOID* data, UINT32 size) { PENDING("AppendBufferToFile"); }
__attribute__((weak)) Bool EfiDeleteFile(const CHAR16* name) { PENDING("EfiDeleteFile"); }
__attribute__((weak)) Bool MakeDirectory(const CHAR16* name) { PENDING("MakeDirectory"); }
__attribute__((weak)) Bool InitialSmi() { PENDING("InitialSmi"); }
__attribute__((weak)) Bool FindSMICommandPort() { PENDING("FindSMICommandPort"); }
__attribute__((weak)) UINT8 GetSmiMainFunctionNumberFromPhysicalMemory() { PENDING("GetSmiMainFunctionNumberFromPhysicalMemory"); }
__attribute__((weak)) Bool GetFacpTableAddress(UINT32* address) { PENDING("GetFacpTableAddress"); }
__attribute__((weak)) Bool GetOblisBuffer(UINT32 size, UINT8** buffer) { PENDING("GetOblisBuffer"); }
__attribute__((weak)) Bool GetOblisBuffer2(UINT32 size, UINT8** buffer) { PENDING("GetOblisBuffer2"); }
__attribute__((weak)) UINT8 OblisAttempts() { PENDING("OblisAttempts"); }
__attribute__((weak)) VOID OblisRetryDelay() { PENDING("OblisRetryDelay"); }
__attribute__((weak)) VOID ReportOblisError(UINT8 function, UINT8 code) { PENDING("ReportOblisError"); }
__attribute__((weak)) UINT16 GetSmiCommandPort() { PENDING("GetSmiCommandPort"); }
__attribute__((weak)) UINT8 GetSmiNumber() { PENDING("GetSmiNumber"); }
__attribute__((weak)) Bool Oblis_10h(UINT8* out, UINT32 size) { PENDING("Oblis_10h"); }
__attribute__((weak)) Bool Oblis_11h(UINT8* out, UINT8* ah, UINT32* ecx) { PENDING("Oblis_11h"); }
__attribute__((weak)) Bool Oblis_12h(UINT8* protection, UINT8* privateMap) { PENDING("Oblis_12h"); }
__attribute__((weak)) Bool Oblis_13h(UINT8* part, UINT8* blockMap) { PENDING("Oblis_13h"); }
__attribute__((weak)) Bool Oblis_16h(UINT8 clearCmos, UINT8 action, UINT8 complete) { PENDING("Oblis_16h"); }
__attribute__((weak)) Bool Oblis_1Ch(UINT8* status) { PENDING("Oblis_1Ch"); }
__attribute__((weak)) Bool Oblis_1Eh(UINT8* out) { PENDING("Oblis_1Eh"); }
__attribute__((weak)) Bool Oblis_1Fh(UINT32 point) { PENDING("Oblis_1Fh"); }
__attribute__((weak)) Bool SMI_IsSupport() { PENDING("SMI_IsSupport"); }
__attribute__((weak)) VOID GetPlatformStatus(UINT8* record) { PENDING("GetPlatformStatus"); }
__attribute__((weak)) VOID GetFilterTable(UINT8** table) { PENDING("GetFilterTable"); }
__attribute__((weak)) Bool IsVendor(UINT16 id) { PENDING("IsVendor"); }
__attribute__((weak)) UINT8 GetAcStatus() { PENDING("GetAcStatus"); }
__attribute__((weak)) UINT8 GetDcStatus() { PENDING("GetDcStatus"); }
__attribute__((weak)) Bool IsAcerPlatform() { PENDING("IsAcerPlatform"); }
__attribute__((weak)) Bool FuncOblis_11h() { PENDING("FuncOblis_11h"); }
__attribute__((weak)) VOID GetPlatformInfo(PlatformInfo* record) { PENDING("GetPlatformInfo"); }
__attribute__((weak)) VOID GetModelStrings(CHAR16** name, CHAR16** version) { PENDING("GetModelStrings"); }
__attribute__((weak)) Bool AllowAlpCommand() { PENDING("AllowAlpCommand"); }
__attribute__((weak)) Bool DisableComparison() { PENDING("DisableComparison"); }
__attribute__((weak)) Bool EFIAPI SMI_ApHookPoint(UINT32 point) { PENDING("SMI_ApHookPoint"); }
__attribute__((weak)) VOID SetStatus_16h(UINT8 clearCmos, UINT8 action, UINT8 complete) { PENDING("SetStatus_16h"); }
__attribute__((weak)) Bool EFIAPI FuncOblis_16h() { PENDING("FuncOblis_16h"); }
__attribute__((weak)) Bool FuncSpecific_16h(UINT8 action, UINT8 complete) { PENDING("FuncSpecific_16h"); }
__attribute__((weak)) UINT8 IndexToAction_16h(UINT8 index) { PENDING("IndexToAction_16h"); }
__attribute__((weak)) UINT8 GetFinishAction() { PENDING("GetFinishAction"); }
__attribute__((weak)) UINT8 GetFinishComplete() { PENDING("GetFinishComplete"); }
__attribute__((weak)) UINT8 GetFinishClearCmos() { PENDING("GetFinishClearCmos"); }
__attribute__((weak)) Bool SMI_GetPlatformRomMap() { PENDING("SMI_GetPlatformRomMap"); }
__attribute__((weak)) VOID GetPlatformRomMap(UINT32* privateCount, OblisPrivateRecord** privateList, UINT32* protectionCount, OblisProtectionRecord** protectionList) { PENDING("GetPlatformRomMap"); }
__attribute__((weak)) Bool SMI_GetWholeRomMap(RomMapEntry* entries, UINT8* count) { PENDING("SMI_GetWholeRomMap"); }
__attribute__((weak)) Bool FuncGetWholeRomMap(RomMapEntry* entries, UINT8* count) { PENDING("FuncGetWholeRomMap"); }
__attribute__((weak)) VOID GetWholeRomMapRecords(UINT32* count, UINT8** records) { PENDING("GetWholeRomMapRecords"); }
__attribute__((weak)) const CHAR16* RegionTypeName(UINT8 type) { PENDING("RegionTypeName"); }
__attribute__((weak)) const CHAR16* WholeRegionTypeName(UINT8 type) { PENDING("WholeRegionTypeName"); }
__attribute__((weak)) VOID ShowPrivateMapTrace(const OblisPrivateRecord* list, UINT32 count) { PENDING("ShowPrivateMapTrace"); }
__attribute__((weak)) VOID ShowProtectionMapTrace(const OblisProtectionRecord* list, UINT32 count) { PENDING("ShowProtectionMapTrace"); }
__attribute__((weak)) Bool FuncOblis_13h() { PENDING("FuncOblis_13h"); }
__attribute__((weak)) UINT32 GetRomSize() { PENDING("GetRomSize"); }
__attribute__((weak)) UINT32 GetRomBase() { PENDING("GetRomBase"); }
__attribute__((weak)) UINT32 GetBlockCount() { PENDING("GetBlockCount"); }
__attribute__((weak)) UINT32 GetBlockSize() { PENDING("GetBlockSize"); }
__attribute__((weak)) UINT32 SizeIndexToBytes(UINT8 index) { PENDING("SizeIndexToBytes"); }
__attribute__((weak)) FlashBlock* CopyBlockTable() { PENDING("CopyBlockTable"); }
