// The CommonFlash gate: what the tool knows (power, versions, model names) and the [CommonFlash]
// switches go to the firmware by function 44h, and its answer can refuse the run and change the
// final action. What the switches mean is the firmware's; the power check only asks whether the
// gate is active.
#include "PlatformSeams.h"
#include "checks/ChecksInternal.h"
#include "config/Config.h"
#include "image/Image.h"
#include "oblis/Oblis.h"
#include "output/Output.h"

namespace {

// Field sizes of the record the exchange builds; each text field is cut at its size.
constexpr UINT32 kVersionFieldBytes = 100;
constexpr UINT32 kModelFieldBytes = 100;
constexpr UINT32 kNameFieldBytes = 300;
constexpr UINT32 kNewVersionFieldBytes = 300;
// Wide texts are narrowed to at most 255 characters before they are cut to their field.
constexpr UINTN kNarrowBytes = 256;
constexpr UINT32 kInfoBlockBytes = 1024;
constexpr UINT32 kAnswerBytes = 6;
constexpr UINT8 kItemEnd = 0xFF;
constexpr UINT8 kSwitchBlockEnd = 0xFF;
constexpr UINT8 kNoBattery = 0x65;
constexpr UINT8 kAcOnline = 1;
constexpr UINT16 kPermitGranted = 1;
constexpr UINT16 kActionNothing = 1;
constexpr UINT16 kActionShutdown = 2;
constexpr UINT16 kActionShutdownToo = 3;
constexpr UINT8 kFinishNothing = 0;
constexpr UINT8 kFinishShutdown = 1;

enum InfoTag : UINT8 {
  kTagAc = 0x01,
  kTagDcPresent = 0x02,
  kTagDcPercent = 0x03,
  kTagCurrentVersion = 0x04,
  kTagNewModel = 0x05,
  kTagCurrentModel = 0x06,
  kTagNewVersion = 0x07,
};

// The longest block: three one-byte items and four texts at their full field size.
static_assert(3 * 3 + 4 * 2 + kVersionFieldBytes + kModelFieldBytes + kNameFieldBytes + kNewVersionFieldBytes <=
                  kInfoBlockBytes,
              "the information block always fits its 1024 bytes");

struct CommonFlashInfo {
  UINT8 ac;
  UINT8 dcPresent;
  UINT8 dcPercent;
  CHAR8 currentVersion[kVersionFieldBytes];
  CHAR8 newModel[kModelFieldBytes];
  CHAR8 currentModel[kNameFieldBytes];
  CHAR8 newVersion[kNewVersionFieldBytes];
};

struct CommonFlashState {
  Bool active;
  Bool permit;
  UINT16 message;
  UINT16 action;
};
constinit CommonFlashState gCommonFlash = {false, false, 0, 0};

constexpr CHAR16 kCommonFlashExchange[] = u"CommonFlashExchange";
constexpr CHAR16 kOblis44h[] = u"Oblis_44h";
constexpr CHAR16 kReasonAllocateOblis[] = u"Allocate OBLIS memory failed";
constexpr CHAR16 kReasonAllocateSwitches[] = u"Allocate memory failed";
constexpr CHAR16 kReasonNotSuccess[] = u"BIOS return not success";
constexpr CHAR16 kReasonNullInput[] = u"Input buffer is NULL";
constexpr CHAR16 kTrace44hStatus[] =
    u" Oblis 44h Status\r\n ---------+--------\r\n    permit  %d\r\n  message#  0x%X\r\n    action  %d\r\n";
constexpr CHAR16 kTraceFinishAction[] = u"Common Flash |%d|\r\n";
constexpr CHAR16 kWarningMessage[] = u"Warning!\r\n%a\r\n";
constexpr CHAR16 kNotAllowMessage[] = u"Not allow flash.\r\nMessage Number: 0x%02X";

constexpr UINT8 kAcceptSuccess[] = {kOblisSuccess};

// Narrows a wide text (null counts as empty) and cuts it to its field; the field need not end
// in a zero, the serialiser stops at the field's end.
VOID NarrowInto(CHAR8* field, UINT32 fieldBytes, const CHAR16* text) {
  CHAR8 narrow[kNarrowBytes];
  narrow[0] = 0;
  if (text != nullptr) {
    UnicodeToAscii(narrow, kNarrowBytes, text);
  }
  ZeroMem(field, fieldBytes);
  UINT32 length = (UINT32)StrLen8(narrow);
  CopyMem(field, narrow, length < fieldBytes ? length : fieldBytes);
}

VOID BuildInfo(CommonFlashInfo* info) {
  ZeroMem(info, sizeof(*info));
  UINT8 dc = GetDcStatus();
  info->ac = GetAcStatus() == kAcOnline ? 1 : 0;
  info->dcPresent = dc != kNoBattery ? 1 : 0;
  info->dcPercent = info->dcPresent ? dc : 0;
  alignas(2) PlatformInfo platform;
  GetPlatformInfo(&platform);
  // The firmware's texts come from an answer: they are cut at their array's end whatever it held.
  platform.modelName[sizeof(platform.modelName) / sizeof(CHAR16) - 1] = 0;
  platform.modelVersion[sizeof(platform.modelVersion) / sizeof(CHAR16) - 1] = 0;
  const CHAR16* newModel = nullptr;
  const CHAR16* newVersion = nullptr;
  MultiPlatformCompare(&newModel, &newVersion);
  NarrowInto(info->currentVersion, kVersionFieldBytes, platform.modelVersion);
  NarrowInto(info->newModel, kModelFieldBytes, newModel);
  NarrowInto(info->currentModel, kNameFieldBytes, platform.modelName);
  NarrowInto(info->newVersion, kNewVersionFieldBytes, newVersion);
}

UINT32 PutByteItem(UINT8* block, UINT32 at, UINT8 tag, UINT8 value) {
  block[at++] = tag;
  block[at++] = value;
  block[at++] = kItemEnd;
  return at;
}

// A text item carries the field's bytes up to its first zero, at most the field's size.
UINT32 PutTextItem(UINT8* block, UINT32 at, UINT8 tag, const CHAR8* field, UINT32 fieldBytes) {
  block[at++] = tag;
  for (UINT32 i = 0; i < fieldBytes && field[i] != 0; ++i) {
    block[at++] = (UINT8)field[i];
  }
  block[at++] = kItemEnd;
  return at;
}

UINT32 SerializeInfo(const CommonFlashInfo* info, UINT8* block) {
  ZeroMem(block, kInfoBlockBytes);
  UINT32 at = 0;
  at = PutByteItem(block, at, kTagAc, info->ac);
  at = PutByteItem(block, at, kTagDcPresent, info->dcPresent);
  at = PutByteItem(block, at, kTagDcPercent, info->dcPercent);
  at = PutTextItem(block, at, kTagCurrentVersion, info->currentVersion, kVersionFieldBytes);
  at = PutTextItem(block, at, kTagNewModel, info->newModel, kModelFieldBytes);
  at = PutTextItem(block, at, kTagCurrentModel, info->currentModel, kNameFieldBytes);
  at = PutTextItem(block, at, kTagNewVersion, info->newVersion, kNewVersionFieldBytes);
  return at;
}

Bool IsBlank(CHAR8 c) { return c == ' ' || c == '\t'; }

// Cuts the switch text at blanks and tabs (a run of them counts as one) into words that each
// end in a zero byte, and closes the block with 0xFF. The block is never longer than the text
// plus 2, which the caller allocates. Returns the block's length.
UINT32 BuildSwitchBlock(const CHAR8* text, UINT32 length, UINT8* block) {
  UINT32 at = 0;
  UINT32 i = 0;
  while (i < length) {
    while (i < length && IsBlank(text[i])) {
      ++i;
    }
    if (i == length) {
      break;
    }
    while (i < length && !IsBlank(text[i])) {
      block[at++] = (UINT8)text[i++];
    }
    block[at++] = 0;
  }
  block[at++] = kSwitchBlockEnd;
  return at;
}

UINT32 BoundedLength(const CHAR8* text, UINT32 capacity) {
  UINT32 length = 0;
  while (length < capacity && text[length] != 0) {
    ++length;
  }
  return length;
}

struct CommonFlashCall {
  UINT32 edi;
  UINT32 esi;
};

}  // namespace

Bool Oblis_44h(const UINT8* info, UINT32 infoLength, const UINT8* switches, UINT32 switchLength, UINT8* answer) {
  TraceScope trace(kOblis44h);
  if (info == nullptr || switches == nullptr || answer == nullptr) {
    return trace.Fail(kReasonNullInput);
  }
  UINT8* buffer = nullptr;
  UINT8* buffer2 = nullptr;
  if (!GetOblisBuffer(kOblisBufferSize, &buffer) || !GetOblisBuffer2(kOblisBufferSize, &buffer2)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  ZeroMem(buffer, kOblisBufferSize);
  ZeroMem(buffer2, kOblisBufferSize);
  CopyMem(buffer, info, infoLength < kInfoBlockBytes ? infoLength : kInfoBlockBytes);
  CopyMem(buffer2, switches, switchLength < kOblisBufferSize ? switchLength : kOblisBufferSize);
  CommonFlashCall call = {PhysicalAddressOf(buffer2), PhysicalAddressOf(buffer)};
  OblisRetrySpec spec = {0x44, kAcceptSuccess, 1, nullptr, 0, false};
  auto attempt = [](VOID* context) -> UINT8 {
    CommonFlashCall* c = (CommonFlashCall*)context;
    return (UINT8)OblisCall_44h(c->edi, c->esi);
  };
  const CHAR16* refusal = RunOblisRetries(&spec, attempt, &call, nullptr);
  if (refusal != nullptr) {
    return trace.Fail(refusal);
  }
  // The answer lands over the switch block the firmware was given.
  CopyMem(answer, buffer2, kAnswerBytes);
  return true;
}

Bool CommonFlashExchange() {
  TraceScope trace(kCommonFlashExchange);
  CommonFlashInfo info;
  BuildInfo(&info);
  UINT8 block[kInfoBlockBytes];
  UINT32 blockLength = SerializeInfo(&info, block);

  // The settings stay as loaded: the words are cut in a copy, so the text still reads the same
  // to anyone who looks after the exchange.
  const CHAR8* text = Settings()->commonFlash.switchString;
  UINT32 textLength = BoundedLength(text, (UINT32)kIniTextBytes - 1);
  UINT8* switches = (UINT8*)AllocateZeroPool((UINTN)textLength + 2);
  if (switches == nullptr) {
    return trace.Fail(kReasonAllocateSwitches);
  }
  UINT32 switchLength = BuildSwitchBlock(text, textLength, switches);

  UINT8 answer[kAnswerBytes] = {};
  Bool answered = Oblis_44h(block, blockLength, switches, switchLength, answer);
  FreePoolAndNull(switches);
  if (!answered) {
    // Without an answer the gate stays off and the tool's own power rules apply.
    trace.SetReason(kReasonNotSuccess);
    return true;
  }
  UINT16 permit = ReadU16(answer);
  gCommonFlash.active = true;
  gCommonFlash.permit = permit == kPermitGranted;
  gCommonFlash.message = ReadU16(answer + 2);
  gCommonFlash.action = ReadU16(answer + 4);
  // The raw permit value is traced: a 2 that counts as no must be visible as a 2.
  LogPrint(kLogDetail, kTrace44hStatus, permit, gCommonFlash.message, gCommonFlash.action);
  return true;
}

Bool CommonFlashGate() {
  if (!gCommonFlash.active || gCommonFlash.permit) {
    return true;
  }
  PrintBanner(false);
  UINT16 message = gCommonFlash.message;
  const FlashSettings* settings = Settings();
  if (message < kCommonFlashErrorMessages && settings->commonFlash.errorMsg[message][0] != 0) {
    // A slot holds up to 1023 characters; the long print shows all of it.
    PrintLong(kWarningMessage, settings->commonFlash.errorMsg[message]);
  } else {
    Print(kNotAllowMessage, message);
  }
  return false;
}

VOID CommonFlashFinishAction(UINT8* action) {
  if (action == nullptr) {
    return;
  }
  if (!gCommonFlash.active || !gCommonFlash.permit) {
    return;
  }
  if (gCommonFlash.action == kActionNothing) {
    *action = kFinishNothing;
  } else if (gCommonFlash.action == kActionShutdown || gCommonFlash.action == kActionShutdownToo) {
    *action = kFinishShutdown;
  }
  LogPrint(kLogDetail, kTraceFinishAction, *action);
}

Bool IsCommonFlashActive() { return gCommonFlash.active; }

VOID ResetCommonFlashState() {
  gCommonFlash = {false, false, 0, 0};
}
