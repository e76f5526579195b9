// Typed data items for the firmware (-edt), and the two calls they share with the PFAT packets:
// function 41h announces an item or asks how the last one went, function 42h carries the data
// in pieces. What a PFAT packet holds and when it goes is the PFAT road's business.
#include "config/Config.h"
#include "FileLayer.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "PlatformSeams.h"
#include "update/UpdateInternal.h"

namespace {

constexpr CHAR8 kEdiSignature[4] = {'$', 'E', 'D', 'I'};
constexpr UINT32 kSinglePieceLimit = 0x40000;
constexpr UINT32 kPieceBytes = 0x10000;
constexpr UINT32 kPieceCountLimit = 0xFF;  // the piece number travels in CH
constexpr UINTN kTypeCharacter = 3;
constexpr UINTN kFormatCharacter = 4;

constexpr CHAR16 kOblis41h[] = u"Oblis_41h";
constexpr CHAR16 kFuncOblis41h[] = u"FuncOblis_41h";
constexpr CHAR16 kOblis42h[] = u"Oblis_42h";
constexpr CHAR16 kFuncOblis42h[] = u"FuncOblis_42h";
constexpr CHAR16 kSmiCustomizeDataWrite[] = u"SMI_CustomizeDataWrite";
constexpr CHAR16 kFuncCommandEdt[] = u"FuncCommand_edt";

constexpr CHAR16 kReasonAllocateOblis[] = u"Allocate OBLIS memory failed";
constexpr CHAR16 kReasonNullInput[] = u"Input buffer is NULL";
constexpr CHAR16 kReasonPieceTooLarge[] = u"Piece size over OBLIS buffer";
constexpr CHAR16 kReason41hFailed[] = u"OBLIS 41h failed";
constexpr CHAR16 kReason42hFailed[] = u"OBLIS 42h failed";
constexpr CHAR16 kReasonExtraDataWrite[] = u"Extra data write failed";
constexpr CHAR16 kReasonEmpty[] = u"";

constexpr CHAR16 kTrace41hFailed[] = u"OBLIS 41h failed. (0x%x)\r\n";
constexpr CHAR16 kLabel41hAlpha[] = u"===== 41h Alpha =====\r\n";
constexpr CHAR16 kLabel42hAlpha[] = u"===== 42h Alpha =====\r\n";
constexpr CHAR16 kLabel42hStatus[] = u"===== 42h (0x%x) ====\r\n";
constexpr CHAR16 kTraceEdtValue[] = u"command (%s)\r\nvalue   (%s)\r\n\r\n";
constexpr CHAR16 kTraceEdtFormat[] = u"raw format(%s)\r\n";
constexpr CHAR16 kErrorLoadFile[] = u"\rLoad file (%s) fail.\n";
constexpr CHAR16 kTraceCommandEdt[] = u"Command -edt\r\n";
constexpr CHAR16 kEdtStart[] = u"\n\n\n";
constexpr CHAR16 kEdtType[] = u"\r                           Update type - 0x%x  \n";
constexpr CHAR16 kEdtCompleted[] = u"\r                           Update Progress: Completed  \n";
// Sizes the firmware's pieces cannot carry are refused before the first piece goes.
constexpr CHAR16 kErrorEdtTooLarge[] =
    u"Error: The extra data (0x%x bytes) does not fit the pieces of function 42h.\r\nNothing was sent.\r\n";

constexpr UINT8 kAcceptSuccess[] = {kOblisSuccess};

struct PieceCall {
  UINT8 lastMark;
  UINT8 piece;
  UINT32 count;
  UINT32 esi;
};

// The format code behind the type character: "f:", "s:", "dw:" or "w:".
Bool FormatIs(const CHAR16* slot, const CHAR16* code) {
  const CHAR16* format = slot + kFormatCharacter;
  UINTN i = 0;
  for (; code[i] != 0; i++) {
    if (format[i] != code[i]) {
      return false;
    }
  }
  return true;
}

UINT8 HexDigitValue(CHAR16 c) {
  if (c >= u'0' && c <= u'9') {
    return (UINT8)(c - u'0');
  }
  return (UINT8)(c - u'a' + 10);
}

// The pieces an item needs: one up to the single-piece limit, else whole 0x10000-byte pieces
// with a short last one. Zero when the size fits no number of pieces the calls can carry: a
// single piece larger than the shared buffer, or more pieces than CH can number.
UINT32 PieceCount(UINT32 size) {
  if (size <= kSinglePieceLimit) {
    return size <= kOblisBufferSize ? 1 : 0;
  }
  UINT32 count = size / kPieceBytes + (size % kPieceBytes != 0 ? 1 : 0);
  return count <= kPieceCountLimit ? count : 0;
}

}  // namespace

Bool Oblis_41h(UINT8 type, UINT8 sizeIndex, UINT32 size, UINT8* answer) {
  FailureTrace trace(kOblis41h);
  UINT8* buffer = nullptr;
  if (!GetOblisBuffer(kOblisBufferSize, &buffer)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  ZeroMem(buffer, kOblisBufferSize);
  CopyMem(buffer, kEdiSignature, sizeof(kEdiSignature));
  WriteU32(buffer + offsetof(OblisExtraDataRecord, length), kExtraDataRequestBytes);
  buffer[offsetof(OblisExtraDataRecord, type)] = type;
  buffer[offsetof(OblisExtraDataRecord, sizeIndex)] = sizeIndex;
  WriteU32(buffer + offsetof(OblisExtraDataRecord, size), size);
  UINT8 request[kExtraDataRequestBytes];
  CopyMem(request, buffer, kExtraDataRequestBytes);
  UINT32 ecx = PhysicalAddressOf(buffer);
  OblisRetrySpec spec = {0x41, kAcceptSuccess, 1, nullptr, 0, false};
  auto attempt = [](VOID* context) -> UINT8 { return (UINT8)OblisCall_41h(*(UINT32*)context); };
  UINT8 status = kOblisNoAttempt;
  if (const CHAR16* refusal = RunOblisRetries(&spec, attempt, &ecx, &status)) {
    LogPrint(kLogDetail, kTrace41hFailed, status);
    HexDumpFramed(kLabel41hAlpha, request, kExtraDataRequestBytes);
    return trace.Fail(refusal);
  }
  if (answer != nullptr) {
    CopyMem(answer, buffer, kExtraDataAnswerBytes);
  }
  return true;
}

Bool FuncOblis_41h(UINT8 type, UINT8 sizeIndex, UINT32 size, UINT8* answer) {
  TraceScope trace(kFuncOblis41h);
  if (!Oblis_41h(type, sizeIndex, size, answer)) {
    return trace.Fail(kReason41hFailed);
  }
  return true;
}

Bool Oblis_42h(const ExtraDataRequest* request, UINT8* status) {
  FailureTrace trace(kOblis42h);
  if (request == nullptr || request->data == nullptr || status == nullptr) {
    return trace.Fail(kReasonNullInput);
  }
  *status = kOblisNoAttempt;
  // The piece travels in the shared buffer and comes back through it: it must fit.
  if (request->count > kOblisBufferSize) {
    return trace.Fail(kReasonPieceTooLarge);
  }
  UINT8* buffer = nullptr;
  if (!GetOblisBuffer(kOblisBufferSize, &buffer)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  // Copied once, over whatever the buffer held: a retry sends what the last attempt left there.
  CopyMem(buffer, request->data, request->count);
  PieceCall call = {request->lastMark, request->piece, request->count, PhysicalAddressOf(buffer)};
  OblisRetrySpec spec = {0x42, kAcceptSuccess, 1, nullptr, 0, false};
  auto attempt = [](VOID* context) -> UINT8 {
    PieceCall* c = (PieceCall*)context;
    return (UINT8)OblisCall_42h(c->lastMark, c->piece, c->count, c->esi);
  };
  const CHAR16* refusal = RunOblisRetries(&spec, attempt, &call, status);
  CopyMem(request->data, buffer, request->count);
  if (refusal == nullptr) {
    return true;
  }
  TraceLeave(kOblis42h, refusal);
  LogPrint(kLogDetail, kLabel42hAlpha);
  HexDump(request->data, request->count);
  LogPrint(kLogDetail, kLabel42hStatus, *status);
  return trace.Fail(refusal);
}

Bool FuncOblis_42h(UINT8 lastMark, UINT8* data, UINT32 count, UINT8 piece) {
  TraceScope trace(kFuncOblis42h);
  ExtraDataRequest request = {lastMark, piece, count, data};
  UINT8 status = kOblisNoAttempt;
  if (!Oblis_42h(&request, &status)) {
    return trace.Fail(kReason42hFailed);
  }
  return true;
}

Bool SMI_CustomizeDataWrite(UINT8* data, UINT32 size) {
  TraceScope trace(kSmiCustomizeDataWrite);
  if (data == nullptr) {
    return trace.Fail(kReasonNullInput);
  }
  UINT32 count = PieceCount(size);
  if (count == 0) {
    Print(kErrorEdtTooLarge, size);
    return trace.Fail(kReasonExtraDataWrite);
  }
  for (UINT32 piece = 0; piece < count; piece++) {
    Bool last = piece + 1 == count;
    UINT32 offset = piece * kPieceBytes;
    UINT32 bytes = count == 1 ? size : (last ? size - offset : kPieceBytes);
    ExtraDataRequest request = {last ? kExtraDataLastPiece : kExtraDataMorePieces, (UINT8)piece, bytes, data + offset};
    UINT8 status = kOblisNoAttempt;
    if (!Oblis_42h(&request, &status) || status != kOblisSuccess) {
      return trace.Fail(kReasonExtraDataWrite);
    }
  }
  return true;
}

Bool GetEdtData(const CHAR16* slot, UINT8** data, UINT32* size) {
  *data = nullptr;
  *size = 0;
  const CHAR16* value = slot;
  while (*value != 0 && *value != u':') {
    value++;
  }
  if (*value == u':') {
    value++;
  }
  LogPrint(kLogDetail, kTraceEdtValue, slot, value);
  if (*value == 0) {
    return false;
  }
  if (FormatIs(slot, u"f:")) {
    if (!ReadFile(value, data, size)) {
      Print(kErrorLoadFile, value);
      return false;
    }
    return true;
  }
  UINT32 bytes = 0;
  if (FormatIs(slot, u"s:")) {
    bytes = (UINT32)StrLen16(value) * sizeof(CHAR16);
    // The terminator is copied along but not sent.
    *data = static_cast<UINT8*>(AllocateZeroPool(bytes + sizeof(CHAR16)));
    if (*data != nullptr) {
      CopyMem(*data, value, bytes);
    }
  } else if (FormatIs(slot, u"dw:") || FormatIs(slot, u"w:")) {
    bytes = FormatIs(slot, u"dw:") ? sizeof(UINT32) : sizeof(UINT16);
    UINT8 number[sizeof(UINT32)];
    WriteU32(number, ParseHex(value));
    *data = static_cast<UINT8*>(AllocateZeroPool(bytes));
    if (*data != nullptr) {
      CopyMem(*data, number, bytes);
    }
  } else {
    LogPrint(kLogDetail, kTraceEdtFormat, slot);
    return false;
  }
  if (*data == nullptr) {
    return false;
  }
  *size = bytes;
  return true;
}

Bool IsCommand_edt() {
  if (Flags()->edtCount == 0) {
    return false;
  }
  LogPrint(kLogDetail, kTraceCommandEdt);
  return true;
}

Bool FuncCommand_edt() {
  TraceScope trace(kFuncCommandEdt);
  Print(kEdtStart);
  const CommandFlags* flags = Flags();
  for (UINT32 i = 0; i < flags->edtCount && i < kEdtEntries; i++) {
    const CHAR16* slot = flags->edtList[i];
    UINT8 type = HexDigitValue(slot[kTypeCharacter]);
    Print(kEdtType, type);
    UINT8* data = nullptr;
    UINT32 size = 0;
    if (!GetEdtData(slot, &data, &size)) {
      return trace.Fail(kReasonEmpty);
    }
    PoolBuffer held;
    held.Adopt(data, size);
    // A taken call is enough: the firmware's answer bits are not looked at here.
    if (!FuncOblis_41h(type, kExtraDataSizeFieldCounts, size, nullptr) || !SMI_CustomizeDataWrite(data, size)) {
      return trace.Fail(kReasonEmpty);
    }
  }
  Print(kEdtCompleted);
  return true;
}
