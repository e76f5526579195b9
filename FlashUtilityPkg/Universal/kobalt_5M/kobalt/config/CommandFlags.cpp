// The state that the command line sets, CommandFlags, and its setters. Which token sets what,
// and the trace of it, belong to the command-line reader; the other folders only read the record.
#include "config/ConfigInternal.h"

namespace {

// Zero except the two retry counts, which have start values of their own.
constexpr CommandFlags StartFlags() {
  CommandFlags flags = {};
  flags.rtCount = kDefaultRtCount;
  flags.vrtCount = kDefaultVrtCount;
  return flags;
}

constinit CommandFlags commandFlags = StartFlags();

}  // namespace

const CommandFlags* Flags() { return &commandFlags; }

VOID SetCommandFlag(Bool CommandFlags::*flag) {
  if (flag != nullptr) {
    commandFlags.*flag = true;
  }
}

VOID SetTypeFlag(UINT8 type) {
  // 0xFF names no entry; the option then changes nothing.
  if (type < kTypeFlagCount) {
    commandFlags.typeFlags[type] = true;
  }
}

VOID SetCommand_e(UINT32 offset, UINT32 size, UINT32 address) {
  commandFlags.e = true;
  commandFlags.eOffset = offset;
  commandFlags.eSize = size;
  commandFlags.eAddress = address;
}

VOID SetCommand_rt(UINT8 count, UINT32 delay) {
  commandFlags.rt = true;
  commandFlags.rtCount = count;
  commandFlags.rtDelay = delay;
}

VOID SetCommand_vrt(UINT32 count) {
  commandFlags.vrt = true;
  commandFlags.vrtCount = count;
}

Bool AddEdtEntry(const CHAR16* text) {
  if (text == nullptr || commandFlags.edtCount >= kEdtEntries || StrLen16(text) >= kEdtEntryCharacters) {
    return false;
  }
  StrCopy16(commandFlags.edtList[commandFlags.edtCount], kEdtEntryCharacters, text);
  commandFlags.edtCount++;
  return true;
}

VOID ResetCommandFlagsState() {
  commandFlags = StartFlags();
}

VOID ResetConfigState() {
  ResetCommandFlagsState();
  ResetIniReaderState();
  ResetMultiImageState();
  ResetOemParameterState();
  ResetFilterState();
  ResetSettingsState();
  ResetPackageArgumentState();
}
