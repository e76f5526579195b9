// What the image folder offers: the shared byte search and the driver's own slot tags.
#pragma once

#include "KobaltBase.h"

// First match of pattern at any byte offset; offset (if given) is 0xFFFFFFFF without one.
Bool FindSignature(const UINT8* buffer, UINT32 length, const UINT8* pattern, UINT32 patternLength, UINT32* offset);

// Builds the tag constants of the running driver; the last step of Initialize.
VOID InitSlotTags();
// Writes '$' over the first byte of the secure-image record and the two certificate tags.
VOID MarkEntrySlotTags();

// The driver's own slot chain as it stands in memory: the secure-image record first, the driver
// signature last. Read-only; for the steps that take the driver's slots at their fixed places.
const UINT8* DriverSlotChain();
UINT32 DriverSlotChainSize();
// The data of one of the driver's own slots, as long as its size field says (empty for an empty
// slot). False when the size field claims more than the slot's capacity: the view then has no
// data, and its length is the size claimed.
enum class OwnSlot : UINT8 { Ec, BiosImage, Ini };
Bool OwnSlotData(OwnSlot slot, ImageView* data);
UINT32 OwnSlotCapacity(OwnSlot slot);
// The slot's 16-byte tag as it stands: '#' in front until InitSlotTags has run.
const UINT8* OwnSlotTag(OwnSlot slot);

// ---- image analysis ----
// True for a secure image (one that holds the secure-image record); fills the analysis.
Bool AnalyzeImage(const UINT8* image, UINT32 length);
Bool IsSecureImage(UINT32* size);
Bool HasSecureEc(UINT32* size);
// The BIOSIMG slot's data of a secure image, kept as the payload; a missing slot leaves it.
VOID LocateSecureFd(const UINT8* image, UINT32 length);
ImageView SecurePayload();
// The image's EC slot data; empty without the slot or when the slot holds nothing. Staging it
// for the EC write is the caller's business.
ImageView SecureEcSlot(const UINT8* image, UINT32 length);
// Whether the analysed image may go on a platform of this kind (function 48h tells a secure
// one); prints the refusal.
Bool CheckImageKind(Bool securePlatform);

// ---- BVDT ----
Bool FindBvdtInImage(const UINT8* image, UINT32 size, UINT32* offset);
Bool ReadImageBvdtInfo(const UINT8* image, UINT32 size);
// The flash region (type 0x0A of the whole ROM map) that holds the running firmware's BVDT.
Bool FindBvdtBlock(UINT32* address, UINT32* size);
const CHAR16* NewImageModel();
const CHAR16* NewImageVersion();
// The identity shown for the new image can differ from its BVDT: a name of the [Platform_Check]
// list with its [PlatformVersion], or "N/A" under -mc. A text keeps at most 63 characters.
VOID SetNewImageModel(const CHAR16* model);
VOID SetNewImageVersion(const CHAR16* version);

// ---- settings the files and images bring ----
// imageName holds 128 characters; the multi-image road may replace it.
Bool LoadConfiguration(CHAR16* imageName);

// ---- the ROM package ----
// Reads the application's own file: a "$ROM_PACK" record puts the run in package mode for good,
// an "$INI_PACK" record gives the packed settings either way. False only when the file cannot
// be read.
Bool SetPackageStatus();
// The unscrambled settings (size 0 without them); false when their record points outside the file.
Bool GetPackedIni(const UINT8** data, UINT32* size);
// The image the multi-image rules chose, or the first one; a new pool block for the caller.
Bool LoadPackageFD(UINT8** image, UINT32* size);
// Saves the packed file of that name (ASCII letters in either case) in the current directory.
Bool GetResourceFile(const CHAR8* name);
// -extrFD: writes the package's images into the extraction directory.
VOID ExtractPackage();
// The package file and settings kept for the run go back to the pool; at the driver's unload.
VOID ReleasePackageMemory();

// State. Each file of the folder keeps its state in one record; ResetImageState() puts them
// all back as a fresh load leaves them. Host builds and tests only: the firmware loads the
// driver fresh. Pool blocks are forgotten, not freed: the environment that handed them out
// takes them back.
VOID ResetImageState();

// ---- used by the capsule run ----
// The driver's own INI slot, filled by the packing step: the capsule run's settings.
Bool GetCfg_Secure();
