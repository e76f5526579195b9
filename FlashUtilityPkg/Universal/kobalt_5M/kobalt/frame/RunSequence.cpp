// The two mains and their shared set-up steps: which step runs in which order, which failure
// stops the run, and what a run returns. The steps themselves belong to their folders; each
// failing step prints its own message, and a main only closes its trace with the reason.
#include "checks/Checks.h"
#include "config/Config.h"
#include "frame/Frame.h"
#include "image/Image.h"
#include "oblis/Oblis.h"
#include "output/Output.h"

namespace {

constexpr UINTN kImageWorkBufferBytes = 0x1000000;  // 16 MiB, reserved for the whole run
constexpr UINTN kEcBufferBytes = 0x200000;          // 2 MiB, the staged EC image
constexpr UINT8 kRunModeShell = 0;
constexpr UINT8 kRunModeUefi = 1;
constexpr UINT32 kHookPointApLaunch = 1;
constexpr UINTN kImageNameCharacters = 128;
constexpr UINTN kCommandTextCharacters = 512;

constexpr CHAR16 kFreeResource[] = u"FreeResource";
constexpr CHAR16 kInitialize[] = u"Initialize";
constexpr CHAR16 kCallingNecessarySmi[] = u"CallingNecessarySmi";
constexpr CHAR16 kShellFlashMain[] = u"ShellFlashMain";
constexpr CHAR16 kUefiFlashMain[] = u"UefiFlashMain";

constexpr CHAR16 kErrorAllocate16M[] = u"\r\nError: Initialize\nAllocate memory failed. (16M)\r\n";
constexpr CHAR16 kErrorAllocate2M[] = u"\r\nError: Initialize\nAllocate memory failed. (2M)\r\n";
constexpr CHAR16 kErrorFindSmiPort[] = u"\r\nError: Initialize\nFind SMI port failed.\r\n";
constexpr CHAR16 kErrorOblis10h[] = u"\r\nError: Initialize\nOBLIS 10h failed.\r\n";
constexpr CHAR16 kErrorOblis11h[] = u"\r\nError: Initialize\nOblis 11h failed.\r\n";
constexpr CHAR16 kErrorOblis1Ch[] = u"\r\nError: Initialize\nOBLIS 1Ch failed.\r\n";
constexpr CHAR16 kErrorOblis12h[] = u"\r\nError: Initialize\nOBLIS 12h failed.\r\n";
constexpr CHAR16 kErrorOblis13h[] = u"\r\nError: Initialize\nOBLIS 13h failed.\r\n";
constexpr CHAR16 kUpdateStepsNotBuilt[] = u"\r\nThis build ends after the set-up: the update steps are not built yet.\r\n";

constexpr CHAR16 kReasonAllocate16M[] = u"allocate memory failed";
constexpr CHAR16 kReasonAllocate2M[] = u"Allocate memory failed";
constexpr CHAR16 kReasonInitialSmi[] = u"Initial SMI failed";
constexpr CHAR16 kReasonIsSupport[] = u"SMI_IsSupport fail";
constexpr CHAR16 kReasonPlatformInformation[] = u"Get platform information failed";
constexpr CHAR16 kReasonSecureBoot[] = u"Secure Boot Protection check failed";
constexpr CHAR16 kReasonAntiTheft[] = u"Get ATp information failed";
constexpr CHAR16 kReasonPlatformRomMap[] = u"Get platform ROM map failed";
constexpr CHAR16 kReasonFlashPart[] = u"Get flash part information failed";
constexpr CHAR16 kReasonShellInitialize[] = u"Initialize failed";
constexpr CHAR16 kReasonUefiInitialize[] = u"initialize failed";
constexpr CHAR16 kReasonNecessarySmi[] = u"calling necessary OBLIS failed";
constexpr CHAR16 kReasonUpdateStepsNotBuilt[] = u"Update steps not built";

constinit UINT8 runMode = 0;
constinit UINT8* imageWorkBuffer = nullptr;
constinit UINT8* ecBuffer = nullptr;

// What ShellFlashMain hands from one row to the next.
struct ShellRun {
  UINT32 argumentCount;
  CHAR16** arguments;
  CHAR16 imageName[kImageNameCharacters];
  CHAR16 commandText[kCommandTextCharacters];
};

// A set-up step failed after something was taken: give it back, tell the user, close the trace.
Bool FailInitialize(const CHAR16* message, const CHAR16* reason) {
  FreeResource();
  Print(message);
  TraceLeave(kInitialize, reason);
  return false;
}

Bool FailCallingNecessarySmi(const CHAR16* message, const CHAR16* reason) {
  FreeResource();
  Print(message);
  TraceLeave(kCallingNecessarySmi, reason);
  return false;
}

Bool StopMain(const CHAR16* mainName, const CHAR16* reason) {
  TraceLeave(mainName, reason);
  return false;
}

// The steps after the set-up are not part of this build. The run says so and ends as a stop,
// so neither a host nor the firmware can take it for a finished update.
Bool EndBeforeUpdateSteps(const CHAR16* mainName) {
  Print(kUpdateStepsNotBuilt);
  return StopMain(mainName, kReasonUpdateStepsNotBuilt);
}

}  // namespace

UINT8 GetRunMode() { return runMode; }
UINT8* GetImageWorkBuffer() { return imageWorkBuffer; }
UINT8* GetEcBuffer() { return ecBuffer; }

VOID FreeResource() {
  TraceEnter(kFreeResource);
  FreePoolAndNull(imageWorkBuffer);
  FreePoolAndNull(ecBuffer);
  TraceLeave(kFreeResource, nullptr);
}

Bool Initialize() {
  // Step 1: the tag constants are built at step 11 by InitSlotTags, which owns them.
  TraceEnter(kInitialize);

  // Steps 2 and 3: a second Initialize reuses the blocks it already holds.
  if (imageWorkBuffer == nullptr) {
    imageWorkBuffer = static_cast<UINT8*>(AllocateZeroPool(kImageWorkBufferBytes));
    if (imageWorkBuffer == nullptr) {
      // Nothing is held yet, so there is nothing to free.
      Print(kErrorAllocate16M);
      TraceLeave(kInitialize, kReasonAllocate16M);
      return false;
    }
  }
  if (ecBuffer == nullptr) {
    ecBuffer = static_cast<UINT8*>(AllocateZeroPool(kEcBufferBytes));
    if (ecBuffer == nullptr) {
      return FailInitialize(kErrorAllocate2M, kReasonAllocate2M);
    }
  }

  // Step 4: the command port and the SMI number.
  if (!InitialSmi()) {
    return FailInitialize(kErrorFindSmiPort, kReasonInitialSmi);
  }
  // Step 5: function 10h, the permission to run.
  if (!SMI_IsSupport()) {
    return FailInitialize(kErrorOblis10h, kReasonIsSupport);
  }
  // Step 6: a failed hook point stops nothing.
  SMI_ApHookPoint(kHookPointApLaunch);
  // Step 7: function 11h, model and policy.
  if (!FuncOblis_11h()) {
    return FailInitialize(kErrorOblis11h, kReasonPlatformInformation);
  }
  // Step 8: function 1Eh fills the whole ROM map that the Secure Boot gate counts next.
  SMI_GetWholeRomMap(nullptr, nullptr);
  // Step 9: the Secure Boot gate prints its own refusal.
  if (IsSecureBootSupport() && !SecureBootProtectionCheck()) {
    FreeResource();
    TraceLeave(kInitialize, kReasonSecureBoot);
    return false;
  }
  // Step 10: the anti-theft gate over function 1Ch.
  if (!FuncOblis_1Ch()) {
    return FailInitialize(kErrorOblis1Ch, kReasonAntiTheft);
  }
  // Step 11.
  InitSlotTags();
  TraceLeave(kInitialize, nullptr);
  return true;
}

Bool CallingNecessarySmi() {
  TraceEnter(kCallingNecessarySmi);
  // Step 1: function 12h, the protection and private maps.
  if (!SMI_GetPlatformRomMap()) {
    return FailCallingNecessarySmi(kErrorOblis12h, kReasonPlatformRomMap);
  }
  // Step 2: function 13h, the flash part and its block table.
  if (!FuncOblis_13h()) {
    return FailCallingNecessarySmi(kErrorOblis13h, kReasonFlashPart);
  }
  TraceLeave(kCallingNecessarySmi, nullptr);
  return true;
}

Bool EFIAPI ShellFlashMain() {
  [[maybe_unused]] ShellRun run = {};

  // Row 1: the argument vector the host handed in, and the trace.
  run.argumentCount = GetArgumentCount();
  run.arguments = GetArgumentVector();
  TraceEnter(kShellFlashMain);
  // Row 2.
  runMode = kRunModeShell;
  // Row 3: -dbg turns the trace on at level 4.
  ScanDebugOption();
  // Rows 4 to 6 (own package, its status, the stored settings variable) come with the package
  // and configuration-source steps.
  // Row 7: the settings' start values.
  InitialIniStructure();
  // Row 8 (the command line into run.imageName and run.commandText) comes with the command line.
  // Row 9.
  if (!Initialize()) {
    return StopMain(kShellFlashMain, kReasonShellInitialize);
  }
  // Row 10.
  if (!CallingNecessarySmi()) {
    return StopMain(kShellFlashMain, kReasonNecessarySmi);
  }
  // Rows 11 to 25 (filter, queries, configuration, checks, the update roads) are not built yet.
  return EndBeforeUpdateSteps(kShellFlashMain);
}

Bool EFIAPI UefiFlashMain() {
  // Row 1.
  TraceEnter(kUefiFlashMain);
  // Row 2.
  runMode = kRunModeUefi;
  // Row 3.
  InitialIniStructure();
  // Row 4.
  if (!Initialize()) {
    return StopMain(kUefiFlashMain, kReasonUefiInitialize);
  }
  // Rows 5 to 29 (settings sources, maps, checks, the block writer, EC) are not built yet.
  return EndBeforeUpdateSteps(kUefiFlashMain);
}
