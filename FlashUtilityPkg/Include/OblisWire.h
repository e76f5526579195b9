// The OBLIS wire contract shared by the driver and the firmware simulator: the register frame
// of one SMI transaction, function numbers, return codes and the packed records that cross the
// interface. Nothing here depends on either side's code.
#pragma once

#include "Uefi/Uefi.h"

// One SMI transaction: the registers before the port write and as the firmware leaves them.
struct OblisRegisters {
  UINT32 eax;
  UINT32 ebx;
  UINT32 ecx;
  UINT32 edx;
  UINT32 esi;
  UINT32 edi;
};
static_assert(sizeof(OblisRegisters) == 24, "register frame is six 32-bit registers");

// "$DVR" with '$' in the most significant byte, so the bytes in memory read "RVD$".
constexpr UINT32 kOblisCallerSignature = 0x24445652;
constexpr UINT8 kDefaultSmiNumber = 0xEF;
constexpr UINT32 kOblisBufferSize = 0x20000;
constexpr UINT32 kOblisBufferLimit = 0x0FFFFFFF;

// Return codes in AL.
constexpr UINT8 kOblisSuccess = 0x00;
constexpr UINT8 kOblisAccessProhibited = 0x01;
constexpr UINT8 kOblisBufferTooSmall = 0x02;
constexpr UINT8 kOblisPermissionDenied = 0x20;
constexpr UINT8 kOblisUnknownRomMap = 0x22;
constexpr UINT8 kOblisUnknownFlashPart = 0x23;
constexpr UINT8 kOblisReadFailed = 0x24;
constexpr UINT8 kOblisWriteFailed = 0x25;
constexpr UINT8 kOblisEraseFailed = 0x26;
constexpr UINT8 kOblisCannotSkipModuleCheck = 0x27;
constexpr UINT8 kOblisModuleReport = 0x28;
constexpr UINT8 kOblisBlockSkipped = 0x29;
constexpr UINT8 kOblisLockedMe = 0x2A;
constexpr UINT8 kOblisUnsupported = 0xEF;
constexpr UINT8 kOblisNoAttempt = 0xFF;

#pragma pack(push, 1)

// Function 10h input: the tool information block at the start of the buffer.
struct OblisToolInformation {
  CHAR8 signature[4];  // "$VER"
  UINT8 major;         // 4
  UINT8 minor;         // 0
  CHAR8 toolVersion[3];  // "13k"
  CHAR8 oblisSignature[6];  // "$OBLIS"
  CHAR8 oblisVersion[3];    // "208"
  UINT8 end;                // 0xFF
};
static_assert(sizeof(OblisToolInformation) == 19, "$VER block is 19 bytes");

// Function 10h answer, as the firmware leaves it at the start of the buffer. The tool keeps it
// behind the 4 bytes of the register result (CL, CH, AL, AH), so its kept offsets are these + 4.
struct OblisPlatformStatusAnswer {
  UINT8 ac;
  UINT8 dc;
  UINT8 bound;
  UINT32 help1;
  UINT32 help2;
  UINT16 vendorId;
  UINT8 reserved[16];
  UINT32 structSize;
  UINT8 skipCheck;
};
static_assert(sizeof(OblisPlatformStatusAnswer) == 34, "10h answer runs to kept offset 38");
static_assert(offsetof(OblisPlatformStatusAnswer, vendorId) == 11, "vendor at kept offset 15");
static_assert(offsetof(OblisPlatformStatusAnswer, structSize) == 29, "struct size at kept offset 33");

// Function 11h answer: two 16-bit strings at fixed places.
constexpr UINT32 kModelNameOffset = 0x00;
constexpr UINT32 kModelNameBytes = 0x40;
constexpr UINT32 kModelVersionOffset = 0x40;
constexpr UINT32 kModelVersionBytes = 0xFF;

// Function 12h records.
struct OblisPrivateRecord {
  UINT32 address;
  UINT32 size;
};
static_assert(sizeof(OblisPrivateRecord) == 8, "private record is 8 bytes");
struct OblisProtectionRecord {
  UINT8 type;
  UINT32 address;
  UINT32 size;
};
static_assert(sizeof(OblisProtectionRecord) == 9, "protection record is 9 bytes");
constexpr UINT32 kPrivateListEnd = 0xFF;
constexpr UINT8 kProtectionListEnd = 0xFF;
constexpr UINT32 kMapRecordLimit = 200;

// Function 13h answer: the part record in the first buffer, the block map in the second.
struct OblisFlashPartRecord {
  UINT8 sizeIndex;
  CHAR8 vendor[31];
  CHAR8 type[32];
  UINT32 deviceId;
  UINT32 sizeSpecified;
};
static_assert(sizeof(OblisFlashPartRecord) == 72, "part record is 72 bytes");
static_assert(offsetof(OblisFlashPartRecord, deviceId) == 64, "device id at 64");
struct OblisBlockMapEntry {
  UINT16 blockSize256;  // in units of 256 bytes
  UINT16 count;
};
static_assert(sizeof(OblisBlockMapEntry) == 4, "block map entry is 4 bytes");
constexpr UINT32 kBlockMapEntryLimit = 255;

// Function 1Eh record of the whole ROM map.
struct OblisWholeMapRecord {
  UINT8 type;
  UINT32 address;
  UINT32 size;
  UINT32 attribute;
};
static_assert(sizeof(OblisWholeMapRecord) == 13, "whole map record is 13 bytes");
constexpr UINT32 kWholeMapBytes = 0x1000;

// Function 17h record of the external (SPI region) map; two lists of at most 5 records, the
// current map at offset 0 of the answer and the new image's map at offset 0x100.
struct OblisExternalRecord {
  UINT8 type;
  UINT32 offset;  // from the ROM base
  UINT32 size;
  UINT8 access;
};
static_assert(sizeof(OblisExternalRecord) == 10, "external record is 10 bytes");
constexpr UINT32 kExternalMapBytes = 0x1000;
constexpr UINT32 kExternalNewListOffset = 0x100;
constexpr UINT32 kExternalListLimit = 5;

// BVDT region record behind "$OBLIS" in an image.
struct BvdtRegionRecord {
  UINT8 type;  // 0xFE: private
  UINT32 address;
  UINT32 size;
  UINT8 action;
};
static_assert(sizeof(BvdtRegionRecord) == 10, "BVDT region record is 10 bytes");

// Function 16h input: the finish record.
struct OblisFinishRecord {
  CHAR8 signature[8];  // "$FINISHI"
  UINT32 length;       // 13
  UINT8 complete;
};
static_assert(sizeof(OblisFinishRecord) == 13, "$FINISHI record is 13 bytes");

// Function 41h: the "$EDI" record that announces typed data or asks for a result, staged at the
// start of the shared buffer; the firmware answers in the same place.
struct OblisExtraDataRecord {
  CHAR8 signature[4];  // "$EDI"
  UINT32 length;       // in: 14; out: the answer's length
  UINT8 type;          // in: the data type; out: a block size index
  UINT8 sizeIndex;     // 0xFF: the size field counts
  UINT32 size;         // in: the data's bytes; out: the bytes the firmware can take
  UINT16 status;       // out
  UINT64 further;      // out, valid with kExtraDataFurtherValid
};
static_assert(offsetof(OblisExtraDataRecord, size) == 10 && offsetof(OblisExtraDataRecord, status) == 14 &&
                  offsetof(OblisExtraDataRecord, further) == 16,
              "$EDI record fields");
constexpr UINT32 kExtraDataRequestBytes = 14;
constexpr UINT32 kExtraDataAnswerBytes = 0x34;  // what the tool keeps of the answer
constexpr UINT8 kExtraDataSizeFieldCounts = 0xFF;
constexpr UINT8 kExtraDataTypePacket = 0x58;  // a signed flash packet follows through 42h
constexpr UINT8 kExtraDataTypeResult = 0x5A;  // the result of the last packet
constexpr UINT16 kExtraDataTypeUnsupported = 0x8000;
constexpr UINT16 kExtraDataFurtherValid = 0x2000;
// 42h's CL: more pieces follow, or this is the last.
constexpr UINT8 kExtraDataMorePieces = 0xEF;
constexpr UINT8 kExtraDataLastPiece = 0;

#pragma pack(pop)
