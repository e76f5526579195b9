// The function directory a host asks by name, and what the host hands in through it: arguments,
// image handle, current directory and execute callback. The functions themselves live with the
// mains (frame) and the firmware wrappers (oblis); the files are reached through FileLayer.cpp.
#include "frame/Frame.h"
#include "oblis/Oblis.h"
#include "output/Output.h"

namespace {

constexpr UINTN kDirectoryNameCharacters = 64;
constexpr UINTN kCurrentDirectoryCharacters = 512;
// The copy of the host's path holds 255 characters and the terminator; a longer path is cut.
constexpr UINTN kPathCopyCharacters = 256;

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

// What the host handed in.
struct DirectoryState {
  CHAR16 currentDirectory[kCurrentDirectoryCharacters];
  CHAR16 pathCopy[kPathCopyCharacters];
  EFI_HANDLE hostImageHandle;
  UINT32 argumentCount;
  CHAR16** argumentVector;
  ShellExecuteCallback shellExecuteCallback;
};
constinit DirectoryState gDirectory = {};

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

VOID EFIAPI SetCurrentDirectory(const CHAR16* path) {
  StrCopy16(gDirectory.pathCopy, kPathCopyCharacters, path);
  UINTN colon = 0;
  while (gDirectory.pathCopy[colon] != 0 && gDirectory.pathCopy[colon] != u':') {
    colon++;
  }
  if (gDirectory.pathCopy[colon] == 0) {
    StrCopy16(gDirectory.currentDirectory, kCurrentDirectoryCharacters, gDirectory.pathCopy);
    return;
  }
  // The volume name falls away: "fs0:\efi\tool" becomes ".\efi\tool\".
  StrCopy16(gDirectory.currentDirectory, kCurrentDirectoryCharacters, u".");
  StrCat16(gDirectory.currentDirectory, kCurrentDirectoryCharacters, gDirectory.pathCopy + colon + 1);
  StrCat16(gDirectory.currentDirectory, kCurrentDirectoryCharacters, u"\\");
}

const CHAR16* GetCurrentDirectory() { return gDirectory.currentDirectory; }

VOID EFIAPI SetCommandLineArgument(UINT32 count, CHAR16** vector) {
  // The vector stays the host's; options are read and blanked in place during the run.
  gDirectory.argumentCount = count;
  gDirectory.argumentVector = vector;
}

UINT32 GetArgumentCount() { return gDirectory.argumentCount; }
CHAR16** GetArgumentVector() { return gDirectory.argumentVector; }

VOID EFIAPI SetImageHandle(EFI_HANDLE imageHandle) { gDirectory.hostImageHandle = imageHandle; }
EFI_HANDLE GetHostImageHandle() { return gDirectory.hostImageHandle; }

VOID EFIAPI SetShellExecuteCallback(ShellExecuteCallback callback) { gDirectory.shellExecuteCallback = callback; }

EFI_STATUS RunShellCommand(const CHAR16* text) {
  // Without a host callback there is no shell to run the command: refuse rather than pretend.
  if (gDirectory.shellExecuteCallback == nullptr) {
    return EFI_UNSUPPORTED;
  }
  return gDirectory.shellExecuteCallback(text);
}

VOID ResetDirectoryState() {
  gDirectory = {};
}
