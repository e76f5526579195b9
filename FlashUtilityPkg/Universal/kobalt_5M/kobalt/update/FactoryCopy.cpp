// The factory copy restore of a capsule run: after the new image is written, the firmware is
// asked (function 49h) to put back the factory copy that holds Secure Boot's default keys. The
// request has one fixed form and carries no data; the firmware answers in the same record.
#include "PlatformSeams.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "update/UpdateInternal.h"

namespace {

constexpr CHAR16 kFuncOblis49h[] = u"FuncOblis_49h";
constexpr CHAR16 kOblis49h[] = u"Oblis_49h";
constexpr CHAR16 kReasonAllocate[] = u"Allocate OBLIS memory failed";
constexpr CHAR16 kReasonNotRecognised[] = u"BIOS cannot recognize the new type";

constexpr UINT32 kRecordBytes = 16;
constexpr UINT8 kRequestKind = 4;
constexpr UINT8 kRequestTarget = 0xFE;
constexpr UINT32 kStatusOffset = 14;
// Set by a firmware that does not know the request; any other status bit is no failure.
constexpr UINT16 kStatusUnknownRequest = 0x8000;

#pragma pack(push, 1)
struct FactoryCopyRecord {
  CHAR8 signature[4];  // "$RDI"
  UINT32 length;       // of the whole record
  UINT8 kind;
  UINT8 target;
  UINT32 reserved;
  UINT16 status;  // the firmware's answer
};
#pragma pack(pop)
static_assert(sizeof(FactoryCopyRecord) == kRecordBytes, "the $RDI record is 16 bytes");
static_assert(offsetof(FactoryCopyRecord, status) == kStatusOffset, "status at 14");

struct RecordCall {
  UINT32 ecx;
};

}  // namespace

Bool FuncOblis_49h() {
  TraceScope trace(kFuncOblis49h);
  UINT8* buffer = nullptr;
  if (!GetOblisBuffer(kOblisBufferSize, &buffer)) {
    return trace.FailAs(kOblis49h, kReasonAllocate);
  }
  FactoryCopyRecord record = {{'$', 'R', 'D', 'I'}, kRecordBytes, kRequestKind, kRequestTarget, 0, 0};
  CopyMem(buffer, &record, kRecordBytes);
  RecordCall call = {PhysicalAddressOf(buffer)};
  OblisRetrySpec spec = {0x49, nullptr, 0, nullptr, 0, false};
  auto attempt = [](VOID* context) -> UINT8 { return (UINT8)OblisCall_49h(static_cast<RecordCall*>(context)->ecx); };
  if (const CHAR16* refusal = RunOblisRetries(&spec, attempt, &call, nullptr)) {
    return trace.FailAs(kOblis49h, refusal);
  }
  CopyMem(&record, buffer, kRecordBytes);
  if ((record.status & kStatusUnknownRequest) != 0) {
    return trace.Fail(kReasonNotRecognised);
  }
  return true;
}
