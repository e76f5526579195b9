// The variable FlashINISettings, which bridges a shell run and the capsule run after it: what a
// run stores in it and how the capsule run takes it back. The settings that files and images
// bring are read in the image folder (ImageSettings.cpp).
#include "config/ConfigInternal.h"
#include "output/Output.h"

namespace {

constexpr CHAR16 kVariableName[] = u"FlashINISettings";
constexpr EFI_GUID kVariableGuid = {0x382AF2BB, 0xFFFF, 0xABCD, {0xAA, 0xEE, 0xCC, 0xE0, 0x99, 0x33, 0x88, 0x77}};
// Non-volatile, boot-service and run-time access.
constexpr UINT32 kVariableAttributes = 7;

constexpr CHAR16 kClearFailed[] = u"ClearCfg_variable() |fail|\r\n";

constexpr CHAR16 kSaveHeader[] = u" Variable FlashINISettings()\r\n-----+---------------------------\r\n";
constexpr CHAR16 kSaveDropped[] = u"       %a\r\n";
// Sections that a capsule run must not take over from the shell run that stored the text,
// matched as case-insensitive prefixes of the section name.
constexpr const CHAR8* kSectionsNotStored[] = {
    "Version",         "FDFile",          "BackupROM",          "UpdateBlock",         "FlashSecureBIOSOverride",
    "Option",          "ReturnErrorCode", "UpdateExtraData",    "ReturnCodeDefinition", "VARIABLE",
    "MULTI_FD",        "PermitFlashVersion", "PasswordCheck",
};

constexpr CHAR16 kGetCfgVariableName[] = u"GetCfg_Variable";
constexpr CHAR16 kGetVariableFailed[] = u"GetCfg_Variable failed %r\r\n";
constexpr CHAR16 kVariableSize[] = u"FlashINISettings size 0x%X\r\n";
constexpr CHAR16 kFromVariable[] = u"Reference configure from Variable\r\n";
constexpr CHAR16 kReasonSizeFailed[] = u"Get variable size failed";
constexpr CHAR16 kReasonAllocateFailed[] = u"Allocate memory failed";
constexpr CHAR16 kReasonGetFailed[] = u"Get variable failed";
constexpr CHAR16 kReasonClearFailed[] = u"Clear variable failed";

CHAR8 LowerCase(CHAR8 c) { return (c >= 'A' && c <= 'Z') ? (CHAR8)(c - 'A' + 'a') : c; }

Bool StartsWithNoCase(const CHAR8* text, UINT32 length, const CHAR8* prefix) {
  UINT32 i = 0;
  for (; prefix[i] != 0; i++) {
    if (i >= length || LowerCase(text[i]) != LowerCase(prefix[i])) {
      return false;
    }
  }
  return true;
}

const CHAR8* NotStoredSection(const CHAR8* piece, UINT32 length) {
  for (const CHAR8* name : kSectionsNotStored) {
    if (StartsWithNoCase(piece, length, name)) {
      return name;
    }
  }
  return nullptr;
}

}  // namespace

VOID ClearCfg_variable() {
  EFI_STATUS status = gRT->SetVariable(kVariableName, &kVariableGuid, kVariableAttributes, 0, nullptr);
  if (EFI_ERROR(status)) {
    LogPrint(kLogDetail, kClearFailed);
  }
}

VOID SaveCfg_Variable(const CHAR8* text, UINT32 size) {
  if (text == nullptr) {
    return;
  }
  CHAR8* buffer = static_cast<CHAR8*>(AllocateZeroPool((UINTN)size + 1));
  if (buffer == nullptr) {
    return;
  }
  LogPrint(kLogSettings, kSaveHeader);
  // Pieces run from one '[' to the next. The piece in front of the first '[' is no section. A
  // '[' inside a value cuts too; its piece is kept with its '[' put back, so the text stays whole.
  // Counts are 32-bit: a section of any length is stored, and what is kept never exceeds size.
  UINT32 stored = 0;
  UINT32 at = 0;
  while (at < size && text[at] != '[') {
    at++;
  }
  while (at < size) {
    UINT32 pieceStart = at + 1;
    UINT32 next = pieceStart;
    while (next < size && text[next] != '[') {
      next++;
    }
    UINT32 pieceLength = next - pieceStart;
    const CHAR8* dropped = NotStoredSection(text + pieceStart, pieceLength);
    if (dropped != nullptr) {
      LogPrint(kLogSettings, kSaveDropped, dropped);
    } else {
      buffer[stored++] = '[';
      CopyMem(buffer + stored, text + pieceStart, pieceLength);
      stored += pieceLength;
    }
    at = next;
  }
  gRT->SetVariable(kVariableName, &kVariableGuid, kVariableAttributes, StrLen8(buffer), buffer);
  FreePoolAndNull(buffer);
}

Bool GetCfg_Variable() {
  TraceScope trace(kGetCfgVariableName);
  UINTN size = 0;
  EFI_STATUS status = gRT->GetVariable(kVariableName, &kVariableGuid, nullptr, &size, nullptr);
  if (status != EFI_BUFFER_TOO_SMALL) {
    LogPrint(kLogDetail, kGetVariableFailed, status);
    return trace.Fail(kReasonSizeFailed);
  }
  LogPrint(kLogDetail, kVariableSize, (UINT32)size);
  CHAR8* buffer = static_cast<CHAR8*>(AllocateZeroPool(size + 16));
  if (buffer == nullptr) {
    return trace.Fail(kReasonAllocateFailed);
  }
  status = gRT->GetVariable(kVariableName, &kVariableGuid, nullptr, &size, buffer);
  if (!EFI_ERROR(status)) {
    UINT32 textSize = (UINT32)size;
    LoadOption(buffer, &textSize, false);
  }
  FreePoolAndNull(buffer);
  if (EFI_ERROR(status)) {
    return trace.Fail(kReasonGetFailed);
  }
  LogPrint(kLogDetail, kFromVariable);
  // The settings are for one capsule run only.
  status = gRT->SetVariable(kVariableName, &kVariableGuid, kVariableAttributes, 0, nullptr);
  if (EFI_ERROR(status)) {
    trace.SetReason(kReasonClearFailed);
  }
  return true;
}
