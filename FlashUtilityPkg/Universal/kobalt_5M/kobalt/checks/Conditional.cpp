// The firmware's say in a run without the tool knowing why: one piece of data judged by function
// 45h, the run's parameters told by function 19h, and the image shown piece by piece to function
// 1Bh. What a refusal means for the update is left to the platform check and the engines.
#include "PlatformSeams.h"
#include "checks/ChecksInternal.h"
#include "config/Config.h"
#include "HostSettings.h"
#include "image/Image.h"
#include "oblis/Oblis.h"
#include "output/Output.h"

namespace {

// ---- conditional data (45h) ----
constexpr UINT32 kConditionalHeaderBytes = 0x10;
constexpr UINT32 kConditionalSizeOffset = 0x08;
constexpr UINT32 kConditionalTypeOffset = 0x0C;
constexpr UINT32 kConditionalFormatOffset = 0x0D;
constexpr UINT32 kConditionalLengthOffset = 0x0E;
constexpr UINT32 kConditionalResultOffset = 0x0C;
constexpr UINT32 kConditionalAnswerMinimum = 13;
constexpr UINT32 kSignatureBytes = 8;
constexpr UINT8 kFormatLimit = 4;  // binary, string, word, dword

// ---- OEM parameters (19h) ----
constexpr UINT8 kListEnd = 0xFF;
constexpr UINT32 kAlphaDumpExtra = 16;
constexpr UINT32 kInfoDumpBytes = 32;
constexpr UINTN kAnswerWordBytes = 32;  // 31 characters and the zero

// ---- 1Bh verification ----
constexpr UINT32 kPieceBytes = 0x1000;

struct OemAnswerList {
  UINT32 count;
  CHAR8 (*words)[kAnswerWordBytes];
};
struct ConditionalState {
  OemAnswerList oemAnswerList;
};
constinit ConditionalState gConditional = {};

constexpr CHAR16 kCheckConditionalData[] = u"SMI_CheckConditionalData";
constexpr CHAR16 kOblis45h[] = u"Oblis_45h";
constexpr CHAR16 kSendOemParameters[] = u"SendOemParameters";
constexpr CHAR16 kOblis1Bh[] = u"Oblis_1Bh";
constexpr CHAR16 kFuncOblis1Bh[] = u"FuncOblis_1Bh";

constexpr CHAR16 kReasonNullInput[] = u"Input buffer is NULL";
constexpr CHAR16 kReasonFormat[] = u"unsupport data format";
constexpr CHAR16 kReasonAllocateOblis[] = u"Allocate OBLIS memory failed";
constexpr CHAR16 kReasonAllocate[] = u"Allocate memory failed";
constexpr CHAR16 kReasonNotSuccess[] = u"BIOS return not success";
constexpr CHAR16 kReasonSignature[] = u"Signature not match";
constexpr CHAR16 kReasonStructureSize[] = u"Structure size error";
constexpr CHAR16 kReasonPieceTooLarge[] = u"Piece size over OBLIS buffer";
constexpr CHAR16 kReasonBlockTable[] = u"Copy block table failed";

constexpr CHAR16 kLabel19hAlpha[] = u"===== 19h Alpha =====\r\n";
constexpr CHAR16 kLabel19hInfo[] = u"===== 19h Info =====\r\n";
constexpr CHAR16 kTrace19hFailed[] = u"OBLIS 19h failed. (0x%x)\r\n";
constexpr CHAR16 kTraceAnswerHead[] = u"OEM/ODM customization-1 (19h)\r\n-----+-----------------\r\n";
constexpr CHAR16 kTraceAnswerWord[] = u"      %a\r\n";
constexpr CHAR16 kTrace1BhLast[] = u"FuncOblis | 1Bh| (0x%x)\r\n";

constexpr CHAR16 kWordEcCommand[] = u"ECCMD";
constexpr CHAR16 kWordManufacturing[] = u"MFG";

constexpr UINT8 kAccept45h[] = {kOblisSuccess};
constexpr UINT8 kAccept1Bh[] = {kOblisSuccess, kOblisUnsupported};

struct RecordCall {
  UINT32 ecx;
};

struct PieceCall {
  UINT32 size;
  UINT32 address;
  UINT32 esi;
};

// Signatures are put together here rather than kept as one text: both sides of the exchange
// use the same eight bytes but for their last letter.
VOID PutConditionalSignature(UINT8* out, CHAR8 last) {
  const CHAR8 head[7] = {'$', 'C', 'H', 'K', 'C', 'N', 'D'};
  CopyMem(out, head, sizeof(head));
  out[7] = (UINT8)last;
}

Bool DriverHoldsEcImage() {
  ImageView ec = {};
  return OwnSlotData(OwnSlot::Ec, &ec) && ec.length != 0;
}

Bool EcCommandInForce() {
  const CommandFlags* flags = Flags();
  // -ec and -ecp count as absent once the image is known to be secure.
  Bool secure = IsSecureImage(nullptr);
  return flags->ecbp || flags->ecb || (!secure && (flags->ecp || flags->ec));
}


// The firmware's word list: zero-ended words up to the first 0xFF, or up to the list's end when
// the answer holds none. Each word is kept in a 32-byte slot, longer ones cut to 31 characters.
Bool KeepOemAnswer() {
  UINT32 limit = 0;
  while (limit < kOemListBytes && (UINT8)OemParameterList()[limit] != kListEnd) {
    ++limit;
  }
  UINT32 count = 0;
  for (UINT32 i = 0; i < limit; ++i) {
    if (OemParameterList()[i] == 0) {
      ++count;
    }
  }
  FreePoolAndNull(gConditional.oemAnswerList.words);
  gConditional.oemAnswerList.count = 0;
  if (count == 0) {
    return true;
  }
  gConditional.oemAnswerList.words = (CHAR8(*)[kAnswerWordBytes])AllocateZeroPool((UINTN)count * kAnswerWordBytes);
  if (gConditional.oemAnswerList.words == nullptr) {
    return false;
  }
  UINT32 at = 0;
  for (UINT32 word = 0; word < count; ++word) {
    UINT32 length = 0;
    while (at < limit && OemParameterList()[at] != 0) {
      if (length < kAnswerWordBytes - 1) {
        gConditional.oemAnswerList.words[word][length++] = OemParameterList()[at];
      }
      ++at;
    }
    ++at;  // the word's zero
  }
  gConditional.oemAnswerList.count = count;
  LogPrint(kLogDetail, kTraceAnswerHead);
  for (UINT32 word = 0; word < count; ++word) {
    LogPrint(kLogDetail, kTraceAnswerWord, gConditional.oemAnswerList.words[word]);
  }
  return true;
}

// Where piece k of the image lands in the flash: inside the block of the table that holds its
// offset. On a part of 4 KB blocks that is entry k itself. Behind the table's last block the
// pieces follow on from its end, as the ROM window runs on, so that the firmware sees every
// piece with the address it stands at rather than none or an entry of another piece.
struct BlockCursor {
  const FlashBlock* table;
  UINT32 count;
  UINT32 index;
  UINT64 start;  // image offset at which block index begins
};

UINT32 PieceAddress(BlockCursor* cursor, UINT32 offset) {
  while (cursor->index < cursor->count && offset >= cursor->start + cursor->table[cursor->index].size) {
    cursor->start += cursor->table[cursor->index].size;
    ++cursor->index;
  }
  if (cursor->index < cursor->count) {
    return cursor->table[cursor->index].address + (UINT32)(offset - cursor->start);
  }
  UINT32 end = GetRomBase();
  if (cursor->count != 0) {
    const FlashBlock& last = cursor->table[cursor->count - 1];
    end = last.address + last.size;
  }
  return end + (UINT32)(offset - cursor->start);
}

}  // namespace

Bool SMI_CheckConditionalData(UINT8 type, UINT8 format, UINT16 length, const UINT8* data, UINT8* allow) {
  TraceScope trace(kCheckConditionalData);
  if (data == nullptr) {
    return trace.Fail(kReasonNullInput);
  }
  if (format >= kFormatLimit) {
    return trace.Fail(kReasonFormat);
  }
  UINT8* buffer = nullptr;
  if (!GetOblisBuffer(kOblisBufferSize, &buffer)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  ZeroMem(buffer, kOblisBufferSize);
  PutConditionalSignature(buffer, 'I');
  WriteU32(buffer + kConditionalSizeOffset, (UINT32)length + kConditionalHeaderBytes);
  buffer[kConditionalTypeOffset] = type;
  buffer[kConditionalFormatOffset] = format;
  WriteU16(buffer + kConditionalLengthOffset, length);
  CopyMem(buffer + kConditionalHeaderBytes, data, length);

  const CHAR16* refusal = nullptr;
  {
    TraceScope call45h(kOblis45h);
    RecordCall call = {PhysicalAddressOf(buffer)};
    OblisRetrySpec spec = {0x45, kAccept45h, 1, nullptr, 0, false};
    auto attempt = [](VOID* context) -> UINT8 {
      RecordCall* c = (RecordCall*)context;
      return (UINT8)OblisCall_45h(c->ecx);
    };
    refusal = RunOblisRetries(&spec, attempt, &call, nullptr);
    call45h.SetReason(refusal);
  }
  if (refusal != nullptr) {
    // No answer: allow keeps the caller's start value, which decides what silence means.
    return true;
  }
  UINT8 signature[kSignatureBytes];
  PutConditionalSignature(signature, 'O');
  if (CompareMem(buffer, signature, kSignatureBytes) != 0) {
    return trace.Fail(kReasonSignature);
  }
  if (ReadU32(buffer + kConditionalSizeOffset) < kConditionalAnswerMinimum) {
    return trace.Fail(kReasonStructureSize);
  }
  if (allow != nullptr) {
    *allow = buffer[kConditionalResultOffset];
  }
  return true;
}


Bool Oblis_19h(UINT8* record) {
  if (record == nullptr) {
    return false;
  }
  // Called once: the parameters are news for the firmware, not a step that must get through.
  UINT8 status = (UINT8)OblisCall_19h(PhysicalAddressOf(record));
  if (status != kOblisSuccess) {
    LogPrint(kLogDetail, kTrace19hFailed, status);
    return false;
  }
  return true;
}

Bool SendOemParameters() {
  TraceScope trace(kSendOemParameters);
  if (EcCommandInForce() || DriverHoldsEcImage()) {
    CHAR16 word[sizeof(kWordEcCommand) / sizeof(CHAR16)];
    StrCopy16(word, sizeof(word) / sizeof(CHAR16), kWordEcCommand);
    AddOemParameter(word);
  }
  if (Flags()->mfg) {
    CHAR16 word[sizeof(kWordManufacturing) / sizeof(CHAR16)];
    StrCopy16(word, sizeof(word) / sizeof(CHAR16), kWordManufacturing);
    AddOemParameter(word);
  }
  CloseOemList();
  UINT8* buffer = nullptr;
  if (!GetOblisBuffer(kOblisBufferSize, &buffer)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  ZeroMem(buffer, kOblisBufferSize);
  CopyMem(buffer, OemParameterList(), kOemListBytes);
  UINT32 end = 0;
  while (end < kOemListBytes && (UINT8)OemParameterList()[end] != kListEnd) {
    ++end;
  }
  UINT32 dump = end + 1 + kAlphaDumpExtra;
  HexDumpFramed(kLabel19hAlpha, buffer, dump < kOemListBytes ? dump : (UINT32)kOemListBytes);
  if (!Oblis_19h(buffer)) {
    return trace.Fail(kReasonNotSuccess);
  }
  CopyMem(OemParameterList(), buffer, kOemListBytes);
  HexDumpFramed(kLabel19hInfo, OemParameterList(), kInfoDumpBytes);
  if (!KeepOemAnswer()) {
    return trace.Fail(kReasonAllocate);
  }
  return true;
}

Bool Oblis_1Bh(const UINT8* data, UINT32 size, UINT32 address, UINT8* status) {
  FailureTrace trace(kOblis1Bh);
  if (status != nullptr) {
    *status = kOblisNoAttempt;
  }
  if (data == nullptr) {
    return trace.Fail(kReasonNullInput);
  }
  if (size > kOblisBufferSize) {
    return trace.Fail(kReasonPieceTooLarge);
  }
  UINT8* buffer = nullptr;
  if (!GetOblisBuffer(kOblisBufferSize, &buffer)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  ZeroMem(buffer, kOblisBufferSize);
  CopyMem(buffer, data, size);
  PieceCall call = {size, address, PhysicalAddressOf(buffer)};
  OblisRetrySpec spec = {0x1B, kAccept1Bh, 2, nullptr, 0, true};
  auto attempt = [](VOID* context) -> UINT8 {
    PieceCall* c = (PieceCall*)context;
    return (UINT8)OblisCall_1Bh(c->size, c->address, c->esi);
  };
  UINT8 last = kOblisNoAttempt;
  const CHAR16* refusal = RunOblisRetries(&spec, attempt, &call, &last);
  if (status != nullptr) {
    *status = last;
  }
  return refusal == nullptr ? true : trace.Fail(refusal);
}

Bool FuncOblis_1Bh(const UINT8* image, UINT32 size) {
  TraceScope trace(kFuncOblis1Bh);
  if (image == nullptr && size != 0) {
    return trace.Fail(kReasonNullInput);
  }
  const UINT8* ecBuffer = GetEcBuffer();
  UINT32 ecPieces = 0;
  if ((Flags()->ecbp || Flags()->ecb) && ecBuffer != nullptr) {
    UINT32 ecSize = KeptEcSize();
    ecPieces = (ecSize < kEcBufferBytes ? ecSize : kEcBufferBytes) / kPieceBytes;
  }
  // The rest behind the last whole piece is not shown.
  UINT32 imagePieces = size / kPieceBytes;
  FlashBlock* table = CopyBlockTable();
  if (table == nullptr) {
    return trace.Fail(kReasonBlockTable);
  }
  UINT32 count = GetBlockCount();
  BlockCursor cursor = {table, count < kFlashBlockEntries ? count : kFlashBlockEntries, 0, 0};
  UINT8 last = kOblisNoAttempt;
  Bool refused = false;
  for (UINT32 i = 0; i < ecPieces + imagePieces && !refused; ++i) {
    const UINT8* piece = nullptr;
    UINT32 address = 0;
    if (i < ecPieces) {
      piece = ecBuffer + i * kPieceBytes;
      address = i * kPieceBytes;
    } else {
      UINT32 offset = (i - ecPieces) * kPieceBytes;
      piece = image + offset;
      address = PieceAddress(&cursor, offset);
    }
    // 0x28 is the firmware's report on a piece: shown, and the walk goes on. Anything else it
    // refuses ends the update.
    refused = !Oblis_1Bh(piece, kPieceBytes, address, &last) && last != kOblisModuleReport;
  }
  FreePoolAndNull(table);
  if (refused) {
    return trace.Fail(kReasonNotSuccess);
  }
  LogPrint(kLogDetail, kTrace1BhLast, last);
  return true;
}

VOID ResetConditionalState() {
  gConditional = {};
}

VOID ReleaseChecksMemory() {
  FreePoolAndNull(gConditional.oemAnswerList.words);
  gConditional.oemAnswerList.count = 0;
}
