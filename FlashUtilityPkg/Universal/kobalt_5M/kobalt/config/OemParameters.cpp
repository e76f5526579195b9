// The OEM parameter list that function 19h hands to the firmware: the words of -OemCus and the
// ones the checks add, each upper-cased and ended by '#' while the list is collected. Sending it,
// and reading the firmware's answer back into it, is the conditional check's work.
#include "config/ConfigInternal.h"

namespace {

constexpr UINTN kOemListTextLimit = 254;
constexpr CHAR8 kWordMark = '#';
constexpr UINT8 kListEnd = 0xFF;

struct OemParameterState {
  CHAR8 list[kOemListBytes];
};
constinit OemParameterState gOem = {};

// The list's text length. After a 19h call the list holds the firmware's answer, which need not
// end in a zero anywhere, so the count stops at the list's end.
UINTN OemListLength() {
  UINTN length = 0;
  while (length < kOemListBytes && gOem.list[length] != 0) {
    ++length;
  }
  return length;
}

}  // namespace

CHAR8* OemParameterList() { return gOem.list; }

VOID AddOemParameter(CHAR16* word) {
  if (word == nullptr) {
    return;
  }
  for (UINTN i = 0; word[i] != 0; ++i) {
    if (word[i] >= u'a' && word[i] <= u'z') {
      word[i] = (CHAR16)(word[i] - u'a' + u'A');
    }
  }
  UINTN used = OemListLength();
  UINTN length = StrLen16(word);
  // A word that does not fit is left out whole: a cut word would be another word to the firmware.
  if (used + length + 1 > kOemListTextLimit) {
    return;
  }
  for (UINTN i = 0; i < length; ++i) {
    gOem.list[used + i] = (CHAR8)word[i];
  }
  gOem.list[used + length] = kWordMark;
  gOem.list[used + length + 1] = 0;
}

VOID CloseOemList() {
  UINTN length = OemListLength();
  if (length > kOemListTextLimit) {
    length = kOemListTextLimit;
  }
  UINTN end = length == 0 ? 1 : length;
  gOem.list[end] = (CHAR8)kListEnd;
  for (UINTN i = 0; i < end; ++i) {
    if (gOem.list[i] == kWordMark) {
      gOem.list[i] = 0;
    }
  }
}

VOID ResetOemParameterState() { gOem = {}; }
