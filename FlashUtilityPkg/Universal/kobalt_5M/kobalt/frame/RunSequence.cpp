// The two mains and their shared set-up steps: which step runs in which order, which failure
// stops the run, and what a run returns. The steps themselves belong to their folders; each
// failing step prints its own message, and a main only closes its trace with the reason.
#include "checks/Checks.h"
#include "config/Config.h"
#include "frame/Frame.h"
#include "image/Image.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "update/Update.h"

namespace {

constexpr UINTN kImageWorkBufferBytes = 0x1000000;  // 16 MiB, reserved for the whole run
constexpr UINTN kEcBufferBytes = 0x200000;          // 2 MiB, the staged EC image
constexpr UINT8 kRunModeShell = 0;
constexpr UINT8 kRunModeUefi = 1;
constexpr UINT32 kHookPointApLaunch = 1;

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
constexpr CHAR16 kReasonArgumentCheck[] = u"Argument check failed";
constexpr CHAR16 kReasonFilterCheck[] = u"Argument check with command filter failed";
constexpr CHAR16 kReasonQueryCommand[] = u"Query command";
constexpr CHAR16 kReasonCommandFailed[] = u"Command failed";
constexpr CHAR16 kReasonNoAlp[] = u"Not support alp command";
constexpr CHAR16 kReasonConfiguration[] = u"failed";
constexpr CHAR16 kReasonShowHelp[] = u"Show help";
constexpr CHAR16 kReasonCommonFlash[] = u"CommonFlash not allow to flash";
constexpr CHAR16 kReasonBiosUpdate[] = u"BIOS update failed";
constexpr CHAR16 kReasonPowerCheck[] = u"Power check failed";
constexpr CHAR16 kFuncUpdate[] = u"FuncUpdate";
constexpr CHAR16 kUpdateCompleted[] = u"\r\n                           Update Progress: Completed\r\n";
constexpr CHAR16 kErrorFdNotFound[] = u"\r\n    Error:\r\n    the FD file not found. (%s)\r\n\r\n";
constexpr CHAR16 kErrorImagePlatformInfo[] = u"Error: Get image platform info failed.\r\n";
constexpr CHAR16 kTwoLineEnds[] = u"\r\n\r\n";
constexpr CHAR16 kConfirmFlash[] = u"\r\n                Dangerous! Do you want to flash BIOS? (Y/N)\r\n";
constexpr CHAR16 kExitByUser[] = u"\r\n                Exit by user.\r\n";
constexpr CHAR16 kLineEnd[] = u"\r\n";
// Roads of FuncUpdate that this build does not have: the run refuses before anything is written
// rather than sending such an image down the block writer.
constexpr CHAR16 kRoadNotBuilt[] = u"\r\nError: %s is not supported by this build. Nothing was written.\r\n";
constexpr CHAR16 kRoadEcOnly[] = u"The EC-only update (-ec, -ecp)";
constexpr CHAR16 kRoadDirectWrite[] = u"The direct file write (-e:)";

constexpr CHAR16 kWarningEobWithEcb[] = u"Warning!\r\nThe command /ecbp and /eob mutually exclusive\r\n\r\n";
constexpr CHAR16 kErrorInvalidCommand[] = u"Error command: %s (Invalid command)\n";
constexpr CHAR16 kAlpOption[] = u"-alp";

struct RunState {
  UINT8 runMode;
  UINT8* imageWorkBuffer;
  UINT8* ecBuffer;
};
constinit RunState gRun = {};

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

// Row 12: the first yes makes the run a query. The order differs from RunQueryCommand's.
Bool IsQueryCommand() {
  const CommandFlags* flags = Flags();
  return flags->g || flags->pq || flags->pr || flags->priv || flags->help || flags->extrFD || flags->edtCount != 0 ||
         flags->pi;
}

// -u: the user has the last word before the first block is written.
Bool ConfirmFlash() {
  Print(kConfirmFlash);
  CHAR16 key = WaitKey();
  if (key == u'Y' || key == u'y') {
    return true;
  }
  Print(kExitByUser);
  return false;
}

Bool RefuseRoad(const CHAR16* road) {
  Print(kRoadNotBuilt, road);
  TraceLeave(kFuncUpdate, road);
  return false;
}

// The update of the image named on the command line: read it, learn what it is, and send it down
// the road that fits. The image buffer stays with the road to the end of the run.
Bool FuncUpdate(const CHAR16* imageName) {
  TraceEnter(kFuncUpdate);
  // Step 1: package mode does not exist yet, so the image is always the named file. An empty
  // name names no file (the file layer would open the directory itself).
  UINT8* image = nullptr;
  UINT32 size = 0;
  if (imageName[0] == 0 || !ReadFile(imageName, &image, &size)) {
    PrintBanner(false);
    Print(kErrorFdNotFound, imageName);
    TraceLeave(kFuncUpdate, nullptr);
    return false;
  }
  // Step 2.
  SetStatus_region();
  // Step 3.
  ShowAcWarning(Settings()->acAdapter.launcherAcWarning);
  PrintBanner(true);
  // Step 4, the EC-only road, is not built: an EC file must never go down the BIOS road.
  if (Flags()->ec || Flags()->ecp) {
    return RefuseRoad(kRoadEcOnly);
  }
  // Step 5.
  SetViaEsp(Settings()->secureUpdate.viaEsp ? 1 : 0);
  // Step 6: the platform's kind is kept for the image check and the capsule road.
  SMI_IsSecurePlatform();
  // Step 7, the OEM secure probe, comes with the OEM road.
  // Step 8: the analysis is kept for the choice of road.
  AnalyzeImage(image, size);
  // Step 9.
  if (!CheckImageKind()) {
    Print(kLineEnd);
    TraceLeave(kFuncUpdate, nullptr);
    return false;
  }
  // Steps 10 and 11 (PFAT and RBU analysis) come with those roads.
  // Step 12, the direct write of -e:, is not built.
  if (Flags()->e) {
    return RefuseRoad(kRoadDirectWrite);
  }
  // Step 13.
  if (!ReadImageBvdtInfo(image, size)) {
    Print(kErrorImagePlatformInfo);
    FreePoolAndNull(image);
    TraceLeave(kFuncUpdate, nullptr);
    return false;
  }
  // Step 14: both identities are on the screen before any check can refuse them.
  ShowImageVersionInfo();
  Print(kTwoLineEnds);
  // Step 15: the check prints its own refusal.
  if (Func_PlatformCheck(image, size) < 0) {
    TraceLeave(kFuncUpdate, nullptr);
    return false;
  }
  // Step 16.
  if (Flags()->u && !ConfirmFlash()) {
    TraceLeave(kFuncUpdate, nullptr);
    return false;
  }
  // Step 17.
  if (!SMI_OemOdmCustom2(1, 0)) {
    TraceLeave(kFuncUpdate, nullptr);
    return false;
  }
  // Step 18: the secure image test comes first. The RBU and PFAT rows come with their roads.
  Bool updated = IsSecureImage(nullptr) ? FuncUpdate_via48h(image, size) : FuncUpdate_via15h(image, size);
  TraceLeave(kFuncUpdate, nullptr);
  return updated;
}

}  // namespace

UINT8 GetRunMode() { return gRun.runMode; }
UINT8* GetImageWorkBuffer() { return gRun.imageWorkBuffer; }
UINT8* GetEcBuffer() { return gRun.ecBuffer; }

VOID FreeResource() {
  TraceEnter(kFreeResource);
  FreePoolAndNull(gRun.imageWorkBuffer);
  FreePoolAndNull(gRun.ecBuffer);
  TraceLeave(kFreeResource, nullptr);
}

Bool Initialize() {
  // Step 1: the tag constants are built at step 11 by InitSlotTags, which owns them.
  TraceEnter(kInitialize);

  // Steps 2 and 3: a second Initialize reuses the blocks it already holds.
  if (gRun.imageWorkBuffer == nullptr) {
    gRun.imageWorkBuffer = static_cast<UINT8*>(AllocateZeroPool(kImageWorkBufferBytes));
    if (gRun.imageWorkBuffer == nullptr) {
      // Nothing is held yet, so there is nothing to free.
      Print(kErrorAllocate16M);
      TraceLeave(kInitialize, kReasonAllocate16M);
      return false;
    }
  }
  if (gRun.ecBuffer == nullptr) {
    gRun.ecBuffer = static_cast<UINT8*>(AllocateZeroPool(kEcBufferBytes));
    if (gRun.ecBuffer == nullptr) {
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
  ShellRun run = {};

  // Row 1: the argument vector the host handed in, and the trace.
  run.argumentCount = GetArgumentCount();
  run.arguments = GetArgumentVector();
  TraceEnter(kShellFlashMain);
  // Row 2.
  gRun.runMode = kRunModeShell;
  // Row 3: -dbg turns the trace on at level 4.
  ScanDebugOption();
  // Rows 4 and 5 (SetApplication with argument 0, SetPackageStatus) come with the package
  // work; until then no run is in package mode.
  // Row 6: settings a shell run left behind are gone before this run starts; a failure is traced.
  ClearCfg_variable();
  // Row 7: the settings' start values.
  InitialIniStructure();
  // Row 8: the refused option has printed its own message.
  if (!ParseCommandLine(run.imageName, run.commandText)) {
    return StopMain(kShellFlashMain, kReasonArgumentCheck);
  }
  // Row 9.
  if (!Initialize()) {
    return StopMain(kShellFlashMain, kReasonShellInitialize);
  }
  // Row 10.
  if (!CallingNecessarySmi()) {
    return StopMain(kShellFlashMain, kReasonNecessarySmi);
  }
  // Row 11: the firmware's filter prints its own refusal.
  if (!ChkFilterArg(run.commandText)) {
    return StopMain(kShellFlashMain, kReasonFilterCheck);
  }
  // Row 12.
  if (IsQueryCommand()) {
    PrintBanner(false);
    RunQueryCommand(run.imageName);
    TraceLeave(kShellFlashMain, kReasonQueryCommand);
    return true;
  }
  // Row 13: runs after the query test, so the same options with a query make a query.
  if (Flags()->eob && (Flags()->ecb || Flags()->ecbp)) {
    PrintBanner(false);
    Print(kWarningEobWithEcb);
    return StopMain(kShellFlashMain, kReasonCommandFailed);
  }
  // Row 14.
  if (Flags()->alp && !AllowAlpCommand()) {
    PrintBanner(true);
    Print(kErrorInvalidCommand, kAlpOption);
    return StopMain(kShellFlashMain, kReasonNoAlp);
  }
  // Row 15: the first settings text of the run.
  if (!LoadConfiguration(run.imageName)) {
    return StopMain(kShellFlashMain, kReasonConfiguration);
  }
  // Row 16: a bare run shows the help. Package mode does not exist yet, so "no package" holds;
  // the argument count is asked first, so a run with options never asks for the multi-image mode.
  if (run.argumentCount == 1 && !IsMultiFdMode()) {
    PrintBanner(true);
    DisplayUsage();
    TraceLeave(kShellFlashMain, kReasonShowHelp);
    return true;
  }
  // Row 17: the firmware only hears of the parameters; a failure is traced and the run goes on.
  SendOemParameters();
  // Row 18: the exchange's own result is not looked at; without an answer the gate stays off.
  if (Settings()->commonFlash.present) {
    CommonFlashExchange();
    if (!CommonFlashGate()) {
      return StopMain(kShellFlashMain, kReasonCommonFlash);
    }
  }
  // Row 19: the check shows its own box.
  if (!CheckPowerStatus()) {
    return StopMain(kShellFlashMain, kReasonPowerCheck);
  }
  // Row 20.
  if (!FuncUpdate(run.imageName)) {
    return StopMain(kShellFlashMain, kReasonBiosUpdate);
  }
  // Row 21, UpdateEcAfterBios, comes with the EC update; until then a merged file's EC part is
  // refused before the BIOS write.
  // Row 22: whether the alarm was set changes nothing for the run.
  if (Settings()->autoWakeup.flag) {
    ArmAutoWakeup((UINT32)Settings()->autoWakeup.interval);
  }
  // Rows 23 to 25: this main pauses first and prints the completion line after.
  FlashCompletePause();
  Print(kUpdateCompleted);
  TraceLeave(kShellFlashMain, nullptr);
  return true;
}

Bool EFIAPI UefiFlashMain() {
  // Row 1.
  TraceEnter(kUefiFlashMain);
  // Row 2.
  gRun.runMode = kRunModeUefi;
  // Row 3.
  InitialIniStructure();
  // Row 4.
  if (!Initialize()) {
    return StopMain(kUefiFlashMain, kReasonUefiInitialize);
  }
  // Rows 5 to 29 (settings sources, maps, checks, the block writer, EC) are not built yet.
  return EndBeforeUpdateSteps(kUefiFlashMain);
}

VOID ResetRunSequenceState() {
  gRun = {};
}

VOID ResetFrameState() {
  ResetDirectoryState();
  ResetFileLayerState();
  ResetRunSequenceState();
  SetFirmwareTables(nullptr, nullptr);
}

VOID ResetDriverState() {
  ResetOutputState();
  ResetConfigState();
  ResetOblisState();
  ResetImageState();
  ResetChecksState();
  ResetUpdateState();
  ResetFrameState();
}
