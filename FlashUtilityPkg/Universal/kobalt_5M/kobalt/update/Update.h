// What the update folder offers: reading the ROM and the query commands, region selection,
// the block writer with its two entries, the secure capsule road, the EC update, the direct write
// the extra data, the PFAT road and the OEM secure road with its RBU images.
#pragma once

#include "KobaltBase.h"
#include "OblisWire.h"

struct BlockMapEntry;

// ---- ROM read and queries ----
VOID RunQueryCommand(const CHAR16* imageName);

// ---- region selection ----
constexpr UINT8 kRegionBios = 0x01;
constexpr UINT8 kRegionGbe = 0x02;
constexpr UINT8 kRegionMe = 0x04;
constexpr UINT8 kRegionDescriptor = 0x08;
constexpr UINT8 kRegionPlatformData = 0x10;
VOID SetStatus_region();

// ---- block writer ----
Bool FuncUpdate_via15h(const UINT8* image, UINT32 size);
// What SMI_WriteRom did to a block; the values are the block map's letters.
enum class BlockResult : UINT16 { Failed = 0, Compared = 'S', Written = 'W', Verified = 'V' };

// ---- secure capsule road ----
VOID SetViaEsp(UINT8 viaEsp);
// The first call probes with function 48h; later calls give the stored answer.
Bool SMI_IsSecurePlatform();
Bool FuncUpdate_via48h(const UINT8* image, UINT32 size);
// The firmware holds the image: the run ends without a block written by the tool.
Bool IsCapsuleStaged();

// ---- EC update ----
// Asks the firmware whether an EC image of size bytes fits its EC; prints the dock warning when
// the firmware cannot tell.
Bool FuncOblis_21h(UINT32 size);
// Writes the staged EC image: in one call, or block by block under the protect mask.
Bool WriteEc(Bool singleBlock);
// The road of -ec and -ecp: stages the file as the EC image and writes it alone.
Bool FlashEcOnly(const UINT8* image, UINT32 size);
// Whether an EC file fits the EC buffer; prints the refusal. The EC-only road asks it before
// it asks the firmware.
Bool EcImageFits(UINT32 size);
// The EC image that came with the BIOS (a merged file or a secure image's slot), written after
// the BIOS as the options and settings say; nothing without one.
Bool UpdateEcAfterBios();

// ---- direct write (-e:) ----
// Writes the stretch of the file that -e: names to its flash address; refuses a stretch outside
// the file before anything is written.
Bool FuncCommand_e(const UINT8* image, UINT32 fileSize);

// ---- PFAT road ----
// Whether the image holds the PFAT header table; keeps what its tables say. Traces the answer.
Bool AnalyzePfatImage(const UINT8* image, UINT32 length);
// Refuses, with its message, a PFAT image that is unsigned, has a wrong checksum, or tables that
// claim more than the file holds or one OBLIS call carries.
Bool CheckPfatImage(UINT32 length);
Bool IsPfatImage();
Bool FuncUpdate_via42h(const UINT8* image, UINT32 size);

// ---- OEM secure road and RBU images ----
// Whether the image opens with "$RBU"; keeps where its flash data lies and traces what it holds.
Bool AnalyzeRbuImage(const UINT8* image, UINT32 size);
// Refuses, with its message, an RBU image whose lengths reach outside the file or whose FD or
// Entire checksum is wrong.
Bool CheckRbuChecksum(const UINT8* image, UINT32 size);
Bool IsRbuImage();
// Asks the firmware by an empty 4Ch request whether it takes OEM images.
VOID ProbeOemSecure();
Bool FuncUpdate_via4Ch(const UINT8* image, UINT32 size);

// ---- OEM ME update by the outside tool ----

// State. Each file of the folder keeps its state in one record; ResetUpdateState() puts them
// all back as a fresh load leaves them. Host builds and tests only: the firmware loads the
// driver fresh. Pool blocks are forgotten, not freed: the environment that handed them out
// takes them back.
VOID ResetUpdateState();
// Frees the update buffer and the kept 17h answer; called when the driver unloads.
VOID ReleaseUpdateMemory();

// ---- used by the capsule run ----
VOID ClearMeRegionFlag();
Bool EfiUpdate_via15h(const UINT8* image, UINT32 size);
// Function 49h: the firmware restores the factory copy of the Secure Boot keys.
Bool FuncOblis_49h();
