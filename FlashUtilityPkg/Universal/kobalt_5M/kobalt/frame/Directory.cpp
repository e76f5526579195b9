// The function directory a host asks by name. What the host hands in through it (arguments, image
// handle, current directory, execute callback) is kept in Host.cpp; the functions themselves live
// with the mains (frame) and the firmware wrappers (oblis).
#include "frame/FrameInternal.h"
#include "oblis/Oblis.h"
#include "output/Output.h"

namespace {

constexpr UINTN kDirectoryNameCharacters = 64;

constexpr CHAR16 kLookupNotFoundWarning[] = u" Engineering Warning:\r\n [%s] founction not found.\r\n";

// A function's address cannot be taken as VOID* in a constant initialiser, so each entry holds
// a small resolver that hands the address out at lookup time. A null resolver ends the table.
struct DirectoryEntry {
  CHAR16 name[kDirectoryNameCharacters];
  VOID* (*resolve)();
};

constinit const DirectoryEntry directoryTable[] = {
    {u"SetCurrentDirectory", [] { return reinterpret_cast<VOID*>(&SetCurrentDirectory); }},
    {u"SetCommandLineArgument", [] { return reinterpret_cast<VOID*>(&SetCommandLineArgument); }},
    {u"SetImageHandle", [] { return reinterpret_cast<VOID*>(&SetImageHandle); }},
    {u"SetShellExecuteCallback", [] { return reinterpret_cast<VOID*>(&SetShellExecuteCallback); }},
    {u"SMI_ApHookPoint", [] { return reinterpret_cast<VOID*>(&SMI_ApHookPoint); }},
    {u"FuncOblis_16h", [] { return reinterpret_cast<VOID*>(&FuncOblis_16h); }},
    {u"ShellFlashMain", [] { return reinterpret_cast<VOID*>(&ShellFlashMain); }},
    {u"UefiFlashMain", [] { return reinterpret_cast<VOID*>(&UefiFlashMain); }},
    {u"", nullptr},
};

// The warning's key wait talks to the console itself: it must not raise hook points, since the
// host that asked for a missing name may not have set anything up yet.
VOID WaitForOneKeyDirect() {
  if (gST == nullptr || gST->ConIn == nullptr) {
    return;
  }
  EFI_INPUT_KEY key = {};
  while (EFI_ERROR(gST->ConIn->ReadKeyStroke(gST->ConIn, &key))) {
  }
}

}  // namespace

VOID* EFIAPI LookupFunction(const CHAR16* name) {
  if (name != nullptr) {
    for (UINTN i = 0; directoryTable[i].resolve != nullptr; i++) {
      if (StrEqualNoCase16(directoryTable[i].name, name)) {
        return directoryTable[i].resolve();
      }
    }
  }
  Print(kLookupNotFoundWarning, name != nullptr ? name : u"");
  WaitForOneKeyDirect();
  return nullptr;
}
