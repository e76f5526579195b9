// The wrappers that touch the flash and the SPI regions: read (14h) with the read primitive
// SMI_ReadRom and the locked-ME fact it finds, write (15h), the external map exchange (17h) and
// the update bracket (1Ah). What a locked ME or a skipped block means for an update is left to
// the engines that call them.
#include "PlatformSeams.h"
#include "oblis/OblisInternal.h"
#include "output/Output.h"

namespace {

constexpr UINT8 kAcceptRead[] = {kOblisSuccess, kOblisLockedMe};
constexpr UINT8 kEndRead[] = {kOblisLockedMe};
constexpr UINT8 kAcceptWrite[] = {kOblisSuccess, kOblisBlockSkipped};
constexpr UINT8 kEndWrite[] = {kOblisBlockSkipped};
constexpr UINT8 kAcceptSuccess[] = {kOblisSuccess};

constexpr UINT32 k17hDumpBytes = 0x40;

const CHAR16 kReasonAllocateOblis[] = u"Allocate OBLIS memory failed";
const CHAR16 kReasonNullInput[] = u"Input buffer is NULL";
const CHAR16 kReasonReadTooLarge[] = u"Read size over OBLIS buffer";
const CHAR16 kReasonShortBuffer[] = u"Output buffer too short";
const CHAR16 kTraceMeLocked[] = u"Read failed because ME is locked\r\n";
const CHAR16 kTraceWriteAddress[] = u" Oblis_15h(->) %X\r\n";
const CHAR16 kTraceSkipBlock[] = u"Skip this write block\r\n";
const CHAR16 kLabel17hInfo[] = u"===== 17h Info =====\r\n";
const CHAR16 kTrace1AhArguments[] = u" Action %d\r\n Status %d\r\n";
const CHAR16 kTrace1AhReturn[] = u"OBLIS 1Ah return code (0x%x)\r\n";

constexpr CHAR16 kOblis14h[] = u"Oblis_14h";
constexpr CHAR16 kOblis15h[] = u"Oblis_15h";
constexpr CHAR16 kOblis17h[] = u"Oblis_17h";
constexpr CHAR16 kSmiReadRom[] = u"SMI_ReadRom";
const CHAR16 kReasonAllocateRead[] = u"Allocate memory failed";
const CHAR16 kReasonOblis14h[] = u"OBLIS 14h failed";
const CHAR16 kTraceMeLockedOnce[] = u"ME |LOCKED|\r\n";

// Whether a read of this run met the locked ME region (status 0x2A).
struct FlashReadState {
  Bool meLocked;
};
constinit FlashReadState gFlashRead = {};

struct FlashCall {
  UINT32 size;
  UINT32 address;
  UINT32 esi;
};

}  // namespace

Bool Oblis_14h(UINT32 address, UINT32 size, ImageView data, UINT8* status) {
  FailureTrace trace(kOblis14h);
  if (status != nullptr) {
    *status = kOblisNoAttempt;
  }
  // The answer lands in the shared buffer: a larger read would have the firmware write past it.
  if (size > kOblisBufferSize) {
    return trace.Fail(kReasonReadTooLarge);
  }
  if (!ViewHolds(data, size)) {
    return trace.Fail(kReasonShortBuffer);
  }
  UINT8* buffer = nullptr;
  if (!GetOblisBuffer(kOblisBufferSize, &buffer)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  ZeroMem(buffer, kOblisBufferSize);
  FlashCall call = {size, address, PhysicalAddressOf(buffer)};
  OblisRetrySpec spec = {0x14, kAcceptRead, 2, kEndRead, 1, true};
  auto attempt = [](VOID* context) -> UINT8 {
    FlashCall* c = (FlashCall*)context;
    return (UINT8)OblisCall_14h(c->size, c->address, c->esi);
  };
  UINT8 last = kOblisNoAttempt;
  const CHAR16* refusal = RunOblisRetries(&spec, attempt, &call, &last);
  if (status != nullptr) {
    *status = last;
  }
  if (refusal != nullptr) {
    return trace.Fail(refusal);
  }
  // A read of the locked ME region counts as a read: the caller gets what the firmware left.
  if (last == kOblisLockedMe) {
    LogPrint(kLogDetail, kTraceMeLocked);
  }
  if (data.data != nullptr) {
    CopyMem(data.data, buffer, size);
  }
  return true;
}

// One call of 14h fills at most the shared buffer, so a longer read goes in pieces of that size.
Bool SMI_ReadRom(UINT32 address, UINT32 size, ImageView data) {
  TraceScope trace(kSmiReadRom);
  if (!ViewHolds(data, size)) {
    return trace.Fail(kReasonShortBuffer);
  }
  PoolBuffer read(size != 0 ? size : 1);
  if (!read) {
    return trace.Fail(kReasonAllocateRead);
  }
  UINT8* buffer = read.Data();
  Bool locked = false;
  UINT32 done = 0;
  do {
    UINT32 piece = size - done < kOblisBufferSize ? size - done : kOblisBufferSize;
    UINT8 status = kOblisNoAttempt;
    if (!Oblis_14h(address + done, piece, {buffer + done, size - done}, &status)) {
      return trace.Fail(kReasonOblis14h);
    }
    locked = locked || status == kOblisLockedMe;
    done += piece;
  } while (done < size);
  if (locked) {
    SetMeLocked();
  }
  if (data.data != nullptr) {
    CopyMem(data.data, buffer, size);
  }
  return true;
}

Bool IsMeLocked() { return gFlashRead.meLocked; }

VOID SetMeLocked() {
  if (!gFlashRead.meLocked) {
    LogPrint(kLogDetail, kTraceMeLockedOnce);
  }
  gFlashRead.meLocked = true;
}

Bool Oblis_15h(const UINT8* data, UINT32 size, UINT32 address, UINT8* status) {
  FailureTrace trace(kOblis15h);
  if (status != nullptr) {
    *status = kOblisNoAttempt;
  }
  if (data == nullptr) {
    return trace.Fail(kReasonNullInput);
  }
  // The firmware reads the block straight from the caller's memory, which lies below 4 GB.
  FlashCall call = {size, address, PhysicalAddressOf(data)};
  OblisRetrySpec spec = {0x15, kAcceptWrite, 2, kEndWrite, 1, true};
  auto attempt = [](VOID* context) -> UINT8 {
    FlashCall* c = (FlashCall*)context;
    LogPrint(kLogDetail, kTraceWriteAddress, c->address);
    return (UINT8)OblisCall_15h(c->size, c->address, c->esi);
  };
  UINT8 last = kOblisNoAttempt;
  const CHAR16* refusal = RunOblisRetries(&spec, attempt, &call, &last);
  if (status != nullptr) {
    *status = last;
  }
  if (refusal != nullptr) {
    return trace.Fail(refusal);
  }
  if (last == kOblisBlockSkipped) {
    LogPrint(kLogDetail, kTraceSkipBlock);
  }
  return true;
}

Bool Oblis_17h(const UINT8* imageHead, ImageView answer) {
  FailureTrace trace(kOblis17h);
  if (answer.data == nullptr) {
    return trace.Fail(kReasonNullInput);
  }
  if (answer.length < kExternalMapBytes) {
    return trace.Fail(kReasonShortBuffer);
  }
  UINT8* buffer = nullptr;
  UINT8* buffer2 = nullptr;
  if (!GetOblisBuffer(kOblisBufferSize, &buffer) || !GetOblisBuffer2(kOblisBufferSize, &buffer2)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  ZeroMem(buffer, kOblisBufferSize);
  ZeroMem(buffer2, kOblisBufferSize);
  if (imageHead != nullptr) {
    CopyMem(buffer2, imageHead, kExternalMapBytes);
  }
  FlashCall call = {kExternalMapBytes, PhysicalAddressOf(buffer), PhysicalAddressOf(buffer2)};
  OblisRetrySpec spec = {0x17, kAcceptSuccess, 1, nullptr, 0, false};
  auto attempt = [](VOID* context) -> UINT8 {
    FlashCall* c = (FlashCall*)context;
    return (UINT8)OblisCall_17h(c->address, c->esi);
  };
  if (const CHAR16* refusal = RunOblisRetries(&spec, attempt, &call, nullptr)) {
    return trace.Fail(refusal);
  }
  LogPrint(kLogDetail, kLabel17hInfo);
  HexDump(buffer, k17hDumpBytes);
  LogPrint(kLogDetail, u"\r\n");
  HexDump(buffer + kExternalNewListOffset, k17hDumpBytes);
  LogPrint(kLogDetail, kLabel17hInfo);
  CopyMem(answer.data, buffer, kExternalMapBytes);
  return true;
}

Bool SMI_OemOdmCustom2(UINT8 action, UINT8 status) {
  TraceScope trace(u"SMI_OemOdmCustom2");
  LogPrint(kLogDetail, kTrace1AhArguments, action, status);
  // Called once: the firmware hears of the update's start and end, and an older firmware that
  // lacks the function (0xEF) is no reason to stop.
  UINT8 code = (UINT8)OblisCall_1Ah(action, status);
  LogPrint(kLogDetail, kTrace1AhReturn, code);
  if (code == kOblisSuccess || code == kOblisUnsupported) {
    return true;
  }
  return trace.Fail(u"error");
}

VOID ResetFlashReadState() { gFlashRead = {}; }
