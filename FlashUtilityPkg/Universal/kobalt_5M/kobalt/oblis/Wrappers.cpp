// The wrappers of functions 10h, 11h, 12h, 13h, 16h, 1Ch, 1Eh and 1Fh: each stages its input in
// the shared buffers, runs the shared retry loop and copies its answer out. What the answers
// mean is left to the level above (platform status, maps, block table, security gates).
#include "PlatformSeams.h"
#include "oblis/OblisInternal.h"
#include "output/Output.h"

namespace {

constexpr UINT8 kAcceptSuccess[] = {kOblisSuccess};
constexpr UINT8 kAcceptSuccessOrUnsupported[] = {kOblisSuccess, kOblisUnsupported};

constexpr UINT32 kToolInfoDumpBytes = 64;
constexpr UINT32 k10hDumpBytes = 64;
constexpr UINT32 k11hDumpBytes = 0xA0;
constexpr UINT32 k13hPartDumpBytes = 0x48;
constexpr UINT32 k13hMapDumpBytes = 0x30;

const CHAR16 kReasonAllocateOblis[] = u"Allocate OBLIS memory failed";
const CHAR16 kReasonAllocate10h[] = u"Allocate memory failed";
const CHAR16 kReasonNullInput[] = u"Input buffer is NULL";
const CHAR16 kReasonShortBuffer[] = u"Output buffer too short";
const CHAR16 kLabelToolInformation[] = u"===== Tool Information =====\r\n";
const CHAR16 kLabel10hInfo[] = u"===== 10h Info =====\r\n";
const CHAR16 kLabel11hInfo[] = u"===== 11h Info =====\r\n";
const CHAR16 kLabel13hInfo[] = u"===== 13h Info =====\r\n";
const CHAR16 kTrace16hHead[] = u" Oblis_16h\r\n----+-----------------\r\n %2x  Clear CMOS\r\n %2x  %s\r\n %2x  %s\r\n";

OblisRetrySpec MakeSpec(UINT8 function, Bool report) {
  OblisRetrySpec spec = {function, kAcceptSuccess, 1, nullptr, 0, report};
  return spec;
}

// Gets and zeroes the first shared buffer; the wrapper closes its trace when there is none.
Bool TakeBuffer(UINT8** buffer) {
  if (!GetOblisBuffer(kOblisBufferSize, buffer)) {
    return false;
  }
  ZeroMem(*buffer, kOblisBufferSize);
  return true;
}

Bool TakeBothBuffers(UINT8** buffer, UINT8** buffer2) {
  if (!GetOblisBuffer(kOblisBufferSize, buffer) || !GetOblisBuffer2(kOblisBufferSize, buffer2)) {
    return false;
  }
  ZeroMem(*buffer, kOblisBufferSize);
  ZeroMem(*buffer2, kOblisBufferSize);
  return true;
}

// The tool information block, composed at run time: the interface signature inside it is one
// the tool also searches for, so it must not stand whole in the constant data.
VOID StageToolInformation(UINT8* buffer) {
  OblisToolInformation info;
  info.signature[0] = '$';
  info.signature[1] = 'V';
  info.signature[2] = 'E';
  info.signature[3] = 'R';
  info.major = 4;
  info.minor = 0;
  info.toolVersion[0] = '1';
  info.toolVersion[1] = '3';
  info.toolVersion[2] = 'k';
  const CHAR8 oblis[6] = {'#', 'O', 'B', 'L', 'I', 'S'};
  CopyMem(info.oblisSignature, oblis, sizeof(oblis));
  info.oblisSignature[0] = '$';
  info.oblisVersion[0] = '2';
  info.oblisVersion[1] = '0';
  info.oblisVersion[2] = '8';
  info.end = 0xFF;
  CopyMem(buffer, &info, sizeof(info));
}

struct BufferCall {
  UINT32 edi;
  UINT32 esi;
  UINT32 value;  // the result in the function's form
  UINT32 ecx;    // form D only
};

}  // namespace

Bool Oblis_10h(ImageView out) {
  TraceScope trace(u"Oblis_10h");
  UINT8* buffer = nullptr;
  if (!TakeBuffer(&buffer)) {
    return trace.Fail(kReasonAllocate10h);
  }
  StageToolInformation(buffer);
  HexDumpFramed(kLabelToolInformation, buffer, kToolInfoDumpBytes);
  BufferCall call = {PhysicalAddressOf(buffer), 0, 0, 0};
  OblisRetrySpec spec = MakeSpec(0x10, true);
  auto attempt = [](VOID* context) -> UINT8 {
    BufferCall* c = (BufferCall*)context;
    c->value = OblisCall_10h(c->edi);
    return (UINT8)(c->value >> 16);
  };
  if (const CHAR16* refusal = RunOblisRetries(&spec, attempt, &call, nullptr)) {
    return trace.Fail(refusal);
  }
  // The answer fills as much of out as it holds: the register value first, then the buffer.
  if (out.data != nullptr) {
    UINT32 size = out.length;
    UINT8 head[4];
    WriteU32(head, call.value);
    UINT32 headBytes = size < 4 ? size : 4;
    CopyMem(out.data, head, headBytes);
    if (size > 4) {
      UINT32 rest = size - 4;
      CopyMem(out.data + 4, buffer, rest < kOblisBufferSize ? rest : kOblisBufferSize);
    }
    HexDumpFramed(kLabel10hInfo, out.data, size < k10hDumpBytes ? size : k10hDumpBytes);
  }
  return true;
}

Bool Oblis_11h(ImageView out, UINT8* ah, UINT32* ecx) {
  TraceScope trace(u"Oblis_11h");
  if (!ViewHolds(out, kOblisAnswerBytes)) {
    return trace.Fail(kReasonShortBuffer);
  }
  UINT8* buffer = nullptr;
  if (!TakeBuffer(&buffer)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  BufferCall call = {PhysicalAddressOf(buffer), 0, 0, 0};
  OblisRetrySpec spec = MakeSpec(0x11, true);
  auto attempt = [](VOID* context) -> UINT8 {
    BufferCall* c = (BufferCall*)context;
    c->value = OblisCall_11h(c->edi, &c->ecx);
    return (UINT8)c->value;
  };
  if (const CHAR16* refusal = RunOblisRetries(&spec, attempt, &call, nullptr)) {
    return trace.Fail(refusal);
  }
  HexDumpFramed(kLabel11hInfo, buffer, k11hDumpBytes);
  if (out.data != nullptr) {
    CopyMem(out.data, buffer, kOblisAnswerBytes);
  }
  if (ah != nullptr) {
    *ah = (UINT8)(call.value >> 8);
  }
  if (ecx != nullptr) {
    *ecx = call.ecx;
  }
  return true;
}

Bool Oblis_12h(ImageView protection, ImageView privateMap) {
  TraceScope trace(u"Oblis_12h");
  if (!ViewHolds(protection, kOblisAnswerBytes) || !ViewHolds(privateMap, kOblisAnswerBytes)) {
    return trace.Fail(kReasonShortBuffer);
  }
  UINT8* buffer = nullptr;
  UINT8* buffer2 = nullptr;
  if (!TakeBothBuffers(&buffer, &buffer2)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  BufferCall call = {PhysicalAddressOf(buffer), PhysicalAddressOf(buffer2), 0, 0};
  OblisRetrySpec spec = MakeSpec(0x12, true);
  auto attempt = [](VOID* context) -> UINT8 {
    BufferCall* c = (BufferCall*)context;
    c->value = OblisCall_12h(c->edi, c->esi);
    return (UINT8)c->value;
  };
  const CHAR16* refusal = RunOblisRetries(&spec, attempt, &call, nullptr);
  // Both lists are handed back whatever the outcome; the caller decides what a failure means.
  if (protection.data != nullptr) {
    CopyMem(protection.data, buffer, kOblisAnswerBytes);
  }
  if (privateMap.data != nullptr) {
    CopyMem(privateMap.data, buffer2, kOblisAnswerBytes);
  }
  if (refusal != nullptr) {
    return trace.Fail(refusal);
  }
  return true;
}

Bool Oblis_13h(ImageView part, ImageView blockMap) {
  TraceScope trace(u"Oblis_13h");
  if (part.data == nullptr || blockMap.data == nullptr) {
    return trace.Fail(kReasonNullInput);
  }
  if (!ViewHolds(part, kOblisAnswerBytes) || !ViewHolds(blockMap, kOblisAnswerBytes)) {
    return trace.Fail(kReasonShortBuffer);
  }
  UINT8* buffer = nullptr;
  UINT8* buffer2 = nullptr;
  if (!TakeBothBuffers(&buffer, &buffer2)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  BufferCall call = {PhysicalAddressOf(buffer), PhysicalAddressOf(buffer2), 0, 0};
  OblisRetrySpec spec = MakeSpec(0x13, true);
  auto attempt = [](VOID* context) -> UINT8 {
    BufferCall* c = (BufferCall*)context;
    c->value = OblisCall_13h(c->edi, c->esi);
    return (UINT8)c->value;
  };
  if (const CHAR16* refusal = RunOblisRetries(&spec, attempt, &call, nullptr)) {
    return trace.Fail(refusal);
  }
  LogPrint(kLogDetail, kLabel13hInfo);
  HexDump(buffer, k13hPartDumpBytes);
  LogPrint(kLogDetail, u"\r\n");
  HexDump(buffer2, k13hMapDumpBytes);
  LogPrint(kLogDetail, kLabel13hInfo);
  CopyMem(part.data, buffer, kOblisAnswerBytes);
  CopyMem(blockMap.data, buffer2, kOblisAnswerBytes);
  return true;
}

Bool Oblis_16h(UINT8 clearCmos, UINT8 action, UINT8 complete) {
  TraceScope trace(u"Oblis_16h");
  LogPrint(kLogDetail, kTrace16hHead, clearCmos, action, FinishActionName(action), complete,
           FinishCompleteName(complete));
  UINT8* buffer = nullptr;
  if (!TakeBuffer(&buffer)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  OblisFinishRecord record;
  const CHAR8 signature[8] = {'$', 'F', 'I', 'N', 'I', 'S', 'H', 'I'};
  CopyMem(record.signature, signature, sizeof(signature));
  record.length = sizeof(OblisFinishRecord);
  record.complete = complete;
  CopyMem(buffer, &record, sizeof(record));
  struct FinishCall {
    UINT8 clearCmos;
    UINT8 action;
    UINT32 esi;
  } call = {clearCmos, action, PhysicalAddressOf(buffer)};
  OblisRetrySpec spec = {0x16, kAcceptSuccessOrUnsupported, 2, nullptr, 0, false};
  auto attempt = [](VOID* context) -> UINT8 {
    FinishCall* c = (FinishCall*)context;
    return (UINT8)OblisCall_16h(c->clearCmos, c->action, c->esi);
  };
  // A firmware without function 16h answers 0xEF on every attempt; the run still ends normally.
  if (const CHAR16* refusal = RunOblisRetries(&spec, attempt, &call, nullptr)) {
    return trace.Fail(refusal);
  }
  return true;
}

Bool Oblis_1Ch(UINT8* status) {
  TraceScope trace(u"Oblis_1Ch");
  UINT16 value = 0;
  OblisRetrySpec spec = MakeSpec(0x1C, true);
  auto attempt = [](VOID* context) -> UINT8 {
    UINT16* v = (UINT16*)context;
    *v = OblisCall_1Ch();
    return (UINT8)*v;
  };
  if (const CHAR16* refusal = RunOblisRetries(&spec, attempt, &value, nullptr)) {
    return trace.Fail(refusal);
  }
  if (status != nullptr) {
    *status = (UINT8)(value >> 8);
  }
  return true;
}

Bool Oblis_1Eh(ImageView out) {
  TraceScope trace(u"Oblis_1Eh");
  if (!ViewHolds(out, kWholeMapBytes)) {
    return trace.Fail(kReasonShortBuffer);
  }
  UINT8* buffer = nullptr;
  if (!TakeBuffer(&buffer)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  BufferCall call = {PhysicalAddressOf(buffer), 0, 0, 0};
  OblisRetrySpec spec = MakeSpec(0x1E, false);
  auto attempt = [](VOID* context) -> UINT8 {
    BufferCall* c = (BufferCall*)context;
    c->value = OblisCall_1Eh(c->edi);
    return (UINT8)c->value;
  };
  if (const CHAR16* refusal = RunOblisRetries(&spec, attempt, &call, nullptr)) {
    return trace.Fail(refusal);
  }
  if (out.data != nullptr) {
    CopyMem(out.data, buffer, kWholeMapBytes);
  }
  return true;
}

Bool Oblis_1Fh(UINT32 point) {
  TraceScope trace(u"Oblis_1Fh");
  OblisRetrySpec spec = MakeSpec(0x1F, false);
  auto attempt = [](VOID* context) -> UINT8 { return (UINT8)OblisCall_1Fh(*(UINT32*)context); };
  if (const CHAR16* refusal = RunOblisRetries(&spec, attempt, &point, nullptr)) {
    return trace.Fail(refusal);
  }
  return true;
}
