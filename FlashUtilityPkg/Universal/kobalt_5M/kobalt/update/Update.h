// What the update folder offers: reading the ROM and the query commands, region selection,
// and the block writer with its two entries. The other roads (capsule, PFAT, OEM, EC, direct
// write) join this folder as they are built.
#pragma once

#include "KobaltBase.h"
#include "OblisWire.h"

struct BlockMapEntry;

// ---- ROM read and queries ----
Bool ReadWholeRom(UINT8** data, UINT32* size);
Bool SaveRomToFile(const CHAR16* name);
VOID RunQueryCommand(const CHAR16* imageName);

// ---- region selection ----
constexpr UINT8 kRegionBios = 0x01;
constexpr UINT8 kRegionGbe = 0x02;
constexpr UINT8 kRegionMe = 0x04;
constexpr UINT8 kRegionDescriptor = 0x08;
constexpr UINT8 kRegionPlatformData = 0x10;
VOID SetStatus_region();
UINT8 GetRegionFlags();
VOID ClearMeRegionFlag();
// image may be null (then nothing of an image goes to the firmware); length bounds the copy.
Bool GetExternalMaps(const UINT8* image, UINT32 length);
VOID GetCurrentRegionSlots(UINT8* slots);  // 54 bytes
// The current list of the last GetExternalMaps (null and 0 before), for the -pr display.
VOID GetCurrentExternalList(const OblisExternalRecord** list, UINT32* count);
Bool FindCurrentRegion(UINT8 type, UINT32* offset, UINT32* size, UINT8* access);
Bool CheckRegionSize(UINT32 size);
VOID PlaceRegionImage(UINT8* buffer, const UINT8* image, UINT32 size);
VOID SetRsvd_17h();
VOID SetSkipMeRegion();
Bool IsSkipMeRegion();

// ---- block writer ----
Bool FuncUpdate_via15h(const UINT8* image, UINT32 size);
Bool EfiUpdate_via15h(const UINT8* image, UINT32 size);
Bool UpdateEntireLegacy(const UINT8* image, UINT32 size);
Bool UpdateRegionLegacy(const UINT8* image, UINT32 size);
// Writes the blocks of the table that buffer holds, laid end to end; a table that reaches past
// the ROM or past buffer is refused before the first write.
Bool WriteBlocks(ImageView buffer);
// What SMI_WriteRom did to a block; the values are the block map's letters.
enum class BlockResult : UINT16 { Failed = 0, Compared = 'S', Written = 'W', Verified = 'V' };
BlockResult SMI_WriteRom(UINT32 address, ImageView block);
Bool CompareCurrentFD(UINT32 address, UINT32 size, const UINT8* data);
// The block map entry of a block the writer has just marked: the facts the trace shows of it.
BlockMapEntry DescribeBlock(UINT32 address, UINT16 mark);
// The EC part in front of a BIOS image: its size check (KeepEcImage keeps it).
Bool FuncChk_SizeEC(UINT32 ecSize);

// ---- secure capsule road ----
VOID SetViaEsp(UINT8 viaEsp);
// Writes the block list of function 48h for an image at address; list holds 0x20000 bytes.
// Returns the number of blocks.
UINT32 BuildCapsuleBlockList(UINT8* list, UINT32 address, UINT32 size);
// The first call probes with function 48h; later calls give the stored answer.
Bool SMI_IsSecurePlatform();
// The firmware holds the image: the run ends without a block written by the tool.
Bool IsCapsuleStaged();
Bool SMI_SecureCapsuleFlash(const UINT8* image, UINT32 size);
Bool FuncUpdate_via48h(const UINT8* image, UINT32 size);
Bool FuncSize_entire48h(const UINT8* payload, UINT32 payloadSize);
Bool FuncSize_region48h(const UINT8* payload, UINT32 payloadSize);
Bool FindEspRoot();
Bool CopyCapsuleToEsp(const UINT8* image, UINT32 size);

// ---- OEM ME update by the outside tool ----
Bool UpdateOemME();

// State. Each file of the folder keeps its state in one record; ResetUpdateState() puts them
// all back as a fresh load leaves them. Host builds and tests only: the firmware loads the
// driver fresh. Pool blocks are forgotten, not freed: the environment that handed them out
// takes them back.
VOID ResetUpdateState();
// Frees the update buffer and the kept 17h answer; called when the driver unloads.
VOID ReleaseUpdateMemory();
VOID ResetBlockWriterState();
VOID ResetCapsuleState();
VOID ResetOemMeState();
VOID ResetRegionState();
VOID ReleaseRegionMemory();
