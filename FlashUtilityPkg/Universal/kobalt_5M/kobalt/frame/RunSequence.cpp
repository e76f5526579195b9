// The two mains and their shared set-up steps: which step runs in which order, which failure
// stops the run, and what a run returns. The steps themselves belong to their folders; each
// failing step prints its own message, and a main only closes its trace with the reason.
#include "checks/Checks.h"
#include "config/Config.h"
#include "frame/FrameInternal.h"
#include "image/Image.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "update/Update.h"

namespace {

constexpr UINTN kImageWorkBufferBytes = 0x1000000;  // 16 MiB, reserved for the whole run
constexpr UINT32 kHookPointApLaunch = 1;
// The firmware hears of every key wait of a dialog, before and after.

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
constexpr CHAR16 kReasonLoadIni[] = u"Load ini failed";
constexpr CHAR16 kReasonBvdtRomMap[] = u"Get BVDT ROM map filed";
constexpr CHAR16 kReasonOwnSlot[] = u"Capsule slot invalid";
constexpr CHAR16 kReasonNoEc[] = u"No EC";
constexpr CHAR16 kReasonEcBlockByBlock[] = u"Update EC block by block failed";
constexpr CHAR16 kReasonEcSingleBlock[] = u"Update EC in single block failed";
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
constexpr CHAR16 kPauseDefault[] = u"Press any key to continue...";
constexpr CHAR16 kPausePrompt[] = u"\n                           %s ";
constexpr CHAR16 kWarningEobWithEcb[] = u"Warning!\r\nThe command /ecbp and /eob mutually exclusive\r\n\r\n";
constexpr CHAR16 kErrorInvalidCommand[] = u"Error command: %s (Invalid command)\n";
constexpr CHAR16 kAlpOption[] = u"-alp";
constexpr CHAR16 kEfiUpdateExtra[] = u"EfiUpdate_extra";
constexpr CHAR16 kErrorLoadSettings[] = u"Error:\r\nLoad settings failed!\r\n";
constexpr CHAR16 kTraceSkipMe[] = u"[UpdateOEMME] | skip| skip region ME\r\n";
constexpr CHAR16 kLoadingBiosDone[] = u"\r                           Loading New BIOS Image File: Done\r\n";
constexpr CHAR16 kLoadingEcDone[] = u"\r                           Loading EC Image File: Done\r\n";
constexpr CHAR16 kErrorBvdtRomMap[] = u"Error: Get BVDT ROM map failed\r\n";
// The packing step fills the slots; one that is empty or claims more than it holds is refused
// before anything is written.
constexpr CHAR16 kErrorOwnSlot[] = u"Error: The %s slot of this capsule holds 0x%x bytes (capacity 0x%x).\r\n";
constexpr CHAR16 kSlotNameBios[] = u"BIOS image";
constexpr CHAR16 kSlotNameEc[] = u"EC image";
constexpr CHAR16 kErrorFactoryCopy[] =
    u"Flash process will be terminated!\r\nRestoring factory copy failed.\r\nIt may cause by onboard BIOS doesn't "
    u"support the OBLIS interface of factory copy restore.\r\nPlease contact OEM BIOS engineer to add the feature."
    u"\r\n\r\nPress any key to end flash process.\r\n";
constexpr CHAR16 kUefiUpdateCompleted[] = u"\n                           Update Progress: Completed\r\n";
constexpr CHAR16 kTraceEcBlockByBlock[] = u" Update EC block by block\r\n";
constexpr CHAR16 kTraceEcSingleBlock[] = u" Update EC in single block\r\n";
constexpr UINTN kStallAfterFactoryCopy = 50;     // microseconds
constexpr UINTN kStallAfterEcUpdate = 1000000;  // one second

struct RunState {
  UINT8* imageWorkBuffer;
};
constinit RunState gRun = {};

// What ShellFlashMain hands from one step to the next.
struct ShellRun {
  UINT32 argumentCount;
  CHAR16** arguments;
  CHAR16 imageName[kImageNameCharacters];
  CHAR16 commandText[kCommandTextCharacters];
};

// How a step of a main ends: its reason closes the main's trace (null for a plain close), and the
// result is what the main returns. A query or the help ends the run early, and still as a success.
struct StepEnd {
  Bool result;
  const CHAR16* reason;
};
constexpr StepEnd kGoOn = {true, nullptr};
constexpr StepEnd Stop(const CHAR16* reason) { return {false, reason}; }
constexpr StepEnd EndEarly(const CHAR16* reason) { return {true, reason}; }

// A set-up step that failed: what the user is told and why the trace closes. Everything but the
// first allocation has something to give back first.
struct SetUpFailure {
  const CHAR16* message;
  const CHAR16* reason;
  Bool holdsResources;
};
constexpr SetUpFailure kSetUpDone = {nullptr, nullptr, false};
constexpr SetUpFailure SetUpFailed(const CHAR16* message, const CHAR16* reason) { return {message, reason, true}; }

// Ends a set-up function: gives back what it holds and prints the failure. Gives the reason its
// trace closes with, null when the set-up went through.
const CHAR16* EndSetUp(const SetUpFailure& failure) {
  if (failure.reason != nullptr && failure.holdsResources) {
    FreeResource();
  }
  if (failure.message != nullptr) {
    Print(failure.message);
  }
  return failure.reason;
}

// The first yes makes the run a query. The order differs from RunQueryCommand's.
Bool IsQueryCommand() {
  const CommandFlags* flags = Flags();
  return flags->g || flags->pq || flags->pr || flags->priv || flags->help || flags->extrFD || flags->edtCount != 0 ||
         flags->pi;
}

// -u: the user has the last word before the first block is written.
Bool ConfirmFlash() {
  Print(kConfirmFlash);
  CHAR16 key = DialogKey();
  if (key == u'Y' || key == u'y') {
    return true;
  }
  Print(kExitByUser);
  return false;
}

// [FlashComplete] Pause: the user sees the end of a finished update before the run goes on.
VOID FlashCompletePause() {
  if (!Settings()->flashComplete.pause) {
    return;
  }
  const CHAR16* text = GetMessageText(Settings()->flashComplete.pauseWarning, kPauseDefault);
  Print(kPausePrompt, text);
  FreeMessageText(text, kPauseDefault);
  DialogKey();
}

// -ec and -ecp count as absent for an image already known to be secure: it takes the secure road.
Bool EcOnlyRoadAsked() { return (Flags()->ec || Flags()->ecp) && !IsSecureImage(nullptr); }

// The update steps once the image is read: learn what it is and send it down the road that fits.
// The image stays with the caller, which frees it; a road only reads it.
StepEnd UpdateWithImage(const UINT8* image, UINT32 size) {
  SetStatus_region();
  ShowAcWarning(Settings()->acAdapter.launcherAcWarning);
  PrintBanner(true);
  // An EC file never goes down the BIOS road: the firmware judges its size, and it is written
  // alone. The finish state is marked as left alone whatever the write did.
  if (EcOnlyRoadAsked()) {
    if (!EcImageFits(size) || !FuncOblis_21h(size)) {
      return Stop(nullptr);
    }
    Bool written = FlashEcOnly(image, size);
    SetStatus_16h(kFinishLeaveAsIs, kFinishLeaveAsIs, kFinishLeaveAsIs, CommonFlashFinishAction);
    return {written, nullptr};
  }
  SetViaEsp(Settings()->secureUpdate.viaEsp ? 1 : 0);
  // The platform's kind is kept for the image check and the capsule road.
  Bool securePlatform = SMI_IsSecurePlatform();
  ProbeOemSecure();
  // The analysis is kept for the choice of road.
  AnalyzeImage(image, size);
  if (!CheckImageKind(securePlatform)) {
    Print(kLineEnd);
    return Stop(nullptr);
  }
  // An image with the PFAT tables is sound or goes no further, whatever the platform.
  if (AnalyzePfatImage(image, size) && !CheckPfatImage(size)) {
    return Stop(nullptr);
  }
  // So is an RBU image with its checksums, before any road is chosen.
  if (AnalyzeRbuImage(image, size) && !CheckRbuChecksum(image, size)) {
    return Stop(nullptr);
  }
  // The direct write takes the stretch as it is: no identity, check or protection applies.
  if (Flags()->e) {
    return {FuncCommand_e(image, size), nullptr};
  }
  if (!ReadImageBvdtInfo(image, size)) {
    Print(kErrorImagePlatformInfo);
    return Stop(nullptr);
  }
  // Both identities are on the screen before any check can refuse them.
  ShowImageVersionInfo();
  Print(kTwoLineEnds);
  // The check prints its own refusal.
  if (Func_PlatformCheck(image, size) < 0) {
    return Stop(nullptr);
  }
  if (Flags()->u && !ConfirmFlash()) {
    return Stop(nullptr);
  }
  if (!SMI_OemOdmCustom2(1, 0)) {
    return Stop(nullptr);
  }
  // The secure image test comes first.
  Bool updated = IsSecureImage(nullptr) ? FuncUpdate_via48h(image, size)
                 : IsRbuImage()           ? FuncUpdate_via4Ch(image, size)
                 : IsPfatImage()          ? FuncUpdate_via42h(image, size)
                                          : FuncUpdate_via15h(image, size);
  return {updated, nullptr};
}

// The update of the image named on the command line. The image is read here and freed here, on
// every way out; the steps and the road only borrow it.
Bool FuncUpdate(const CHAR16* imageName) {
  TraceScope trace(kFuncUpdate);
  UINT8* image = nullptr;
  UINT32 size = 0;
  StepEnd end = Stop(nullptr);
  // A package brings its own image and has said why when it has none. An empty name names no
  // file (the file layer would open the directory itself).
  if (IsPackageMode()) {
    if (LoadPackageFD(&image, &size)) {
      end = UpdateWithImage(image, size);
    }
  } else if (imageName[0] == 0 || !ReadFile(imageName, &image, &size)) {
    PrintBanner(false);
    Print(kErrorFdNotFound, imageName);
  } else {
    end = UpdateWithImage(image, size);
  }
  FreePoolAndNull(image);
  trace.SetReason(end.reason);
  return end.result;
}

// ShellFlashMain once its trace is open, step by step; a refused step has printed its own message.
StepEnd RunShellSteps(ShellRun& run) {
  SetRunMode(kRunModeShell);
  // -dbg turns the trace on at the detail level.
  ScanDebugOption(run.argumentCount, run.arguments);
  // Whether this application is a package is settled before any settings or options are read;
  // an unreadable application file only means that it is none.
  SetApplication(run.argumentCount != 0 && run.arguments != nullptr ? run.arguments[0] : nullptr);
  SetPackageStatus();
  // Settings a shell run left behind are gone before this run starts; a failure is traced.
  ClearCfg_variable();
  InitialIniStructure();
  if (!ParseCommandLine(run.imageName, run.commandText)) {
    return Stop(kReasonArgumentCheck);
  }
  if (!Initialize()) {
    return Stop(kReasonShellInitialize);
  }
  if (!CallingNecessarySmi()) {
    return Stop(kReasonNecessarySmi);
  }
  if (!ChkFilterArg(run.commandText)) {
    return Stop(kReasonFilterCheck);
  }
  if (IsQueryCommand()) {
    PrintBanner(false);
    RunQueryCommand(run.imageName);
    return EndEarly(kReasonQueryCommand);
  }
  // Tested after the query, so the same options with a query make a query.
  if (Flags()->eob && (Flags()->ecb || Flags()->ecbp)) {
    PrintBanner(false);
    Print(kWarningEobWithEcb);
    return Stop(kReasonCommandFailed);
  }
  if (Flags()->alp && !AllowAlpCommand()) {
    PrintBanner(true);
    Print(kErrorInvalidCommand, kAlpOption);
    return Stop(kReasonNoAlp);
  }
  // The first settings text of the run.
  if (!LoadConfiguration(run.imageName)) {
    return Stop(kReasonConfiguration);
  }
  // A bare run shows the help, unless a package or the multi-image rules name the image.
  if (!IsPackageMode() && run.argumentCount == 1 && !IsMultiFdMode()) {
    PrintBanner(true);
    DisplayUsage(DialogKey);
    return EndEarly(kReasonShowHelp);
  }
  // The firmware only hears of the parameters; a failure is traced and the run goes on.
  SendOemParameters();
  // The exchange's own result is not looked at; without an answer the gate stays off.
  if (Settings()->commonFlash.present) {
    CommonFlashExchange();
    if (!CommonFlashGate()) {
      return Stop(kReasonCommonFlash);
    }
  }
  if (!CheckPowerStatus()) {
    return Stop(kReasonPowerCheck);
  }
  if (!FuncUpdate(run.imageName)) {
    return Stop(kReasonBiosUpdate);
  }
  // The EC goes after a good BIOS write, and its result does not change the run's. A capsule
  // in the firmware's hands carries its EC image with it.
  if (!IsCapsuleStaged()) {
    UpdateEcAfterBios();
  }
  // Whether the alarm was set changes nothing for the run.
  if (Settings()->autoWakeup.flag) {
    ArmAutoWakeup((UINT32)Settings()->autoWakeup.interval);
  }
  // This main pauses first and prints the completion line after.
  FlashCompletePause();
  Print(kUpdateCompleted);
  return kGoOn;
}

// The EC image of the capsule, after the BIOS: block by block or in one piece, as [UpdateEC]
// Progress_Bar says. Its result changes nothing for the run.
Bool EfiUpdate_extra(UINT32 ecSize) {
  TraceScope trace(kEfiUpdateExtra);
  if (IsVendor(kVendorAcer)) {
    FuncSpecific_16h(0, 1);
  }
  if (ecSize == 0) {
    trace.SetReason(kReasonNoEc);
    return true;
  }
  if (Settings()->updateEc.progressBar) {
    LogPrint(kLogDetail, kTraceEcBlockByBlock);
    if (!WriteEc(false)) {
      return trace.Fail(kReasonEcBlockByBlock);
    }
  } else {
    LogPrint(kLogDetail, kTraceEcSingleBlock);
    if (!WriteEc(true)) {
      return trace.Fail(kReasonEcSingleBlock);
    }
  }
  gBS->Stall(kStallAfterEcUpdate);
  return true;
}

// One of the capsule's own slots, refused with its size and capacity when it is unusable.
Bool TakeOwnSlot(OwnSlot slot, const CHAR16* name, Bool mayBeEmpty, ImageView* data) {
  Bool usable = OwnSlotData(slot, data) && (mayBeEmpty || data->length != 0);
  if (!usable) {
    Print(kErrorOwnSlot, name, data->length, OwnSlotCapacity(slot));
  }
  return usable;
}

// The capsule run's steps once its trace is open: the image and the EC image are the ones in
// the driver's own slots, the settings come from the variable a shell run left or from the
// driver's own INI slot, and every check of the image is off, as the firmware has accepted it.
StepEnd RunUefiSteps() {
  SetRunMode(kRunModeUefi);
  InitialIniStructure();
  if (!Initialize()) {
    return Stop(kReasonUefiInitialize);
  }
  // The variable is taken once and removed, so a later run falls back to the slot.
  if (!GetCfg_Variable() && !GetCfg_Secure()) {
    Print(kErrorLoadSettings);
    return Stop(kReasonLoadIni);
  }
  if (!CallingNecessarySmi()) {
    return Stop(kReasonNecessarySmi);
  }
  ShowAcWarning(Settings()->acAdapter.securityAcWarning);
  PrintSecureBanner();
  SetStatus_region();
  if (Settings()->updateOemMe.meFileName[0] != 0) {
    LogPrint(kLogDetail, kTraceSkipMe);
    ClearMeRegionFlag();
  }
  SetAllChecksOff();
  SendOemParameters();
  // This vendor's firmware checks the power itself before it starts a capsule.
  if (!IsVendor(kVendorDell) && !CheckPowerStatus()) {
    return Stop(kReasonPowerCheck);
  }
  ImageView image = {};
  ImageView ec = {};
  if (!TakeOwnSlot(OwnSlot::BiosImage, kSlotNameBios, false, &image) ||
      !TakeOwnSlot(OwnSlot::Ec, kSlotNameEc, true, &ec)) {
    return Stop(kReasonOwnSlot);
  }
  Print(kLoadingBiosDone);
  if (ec.length != 0) {
    Print(kLoadingEcDone);
  }
  Print(kLineEnd);
  if (!LoadBvdtMap(image.data, image.length) && Settings()->forceFlash.useBvdtRomMap) {
    Print(kErrorBvdtRomMap);
    DialogKey();
    return Stop(kReasonBvdtRomMap);
  }
  if (!ReadImageBvdtInfo(image.data, image.length)) {
    return Stop(nullptr);
  }
  ShowUefiVersionInfo();
  // The gate is not asked on this road: the firmware has accepted the capsule already.
  if (Settings()->commonFlash.present && !CommonFlashExchange()) {
    return Stop(nullptr);
  }
  if (ec.length != 0) {
    if (!FuncOblis_21h(ec.length)) {
      return Stop(nullptr);
    }
    KeepEcImage(ec.data, ec.length);
  }
  if (!EfiUpdate_via15h(image.data, image.length)) {
    return Stop(nullptr);
  }
  // The image is written by now; a refused restore still ends the run as a stop, and the EC
  // waits for another run.
  if (Settings()->factoryCopy.restore && !FuncOblis_49h()) {
    Print(kErrorFactoryCopy);
    DialogKey();
    return Stop(nullptr);
  }
  gBS->Stall(kStallAfterFactoryCopy);
  // A failed EC write after a good BIOS write leaves the run's result as it is.
  EfiUpdate_extra(ec.length);
  if (Settings()->autoWakeup.flag) {
    ArmAutoWakeup((UINT32)Settings()->autoWakeup.interval);
  }
  // This main prints the completion line first and pauses after.
  Print(kUefiUpdateCompleted);
  FlashCompletePause();
  return kGoOn;
}

// Initialize's steps; the first failure ends them.
SetUpFailure InitializeSteps() {
  // A second Initialize reuses the blocks it already holds.
  if (gRun.imageWorkBuffer == nullptr) {
    gRun.imageWorkBuffer = static_cast<UINT8*>(AllocateZeroPool(kImageWorkBufferBytes));
    if (gRun.imageWorkBuffer == nullptr) {
      return {kErrorAllocate16M, kReasonAllocate16M, false};
    }
  }
  if (!ReserveEcBuffer()) {
    return SetUpFailed(kErrorAllocate2M, kReasonAllocate2M);
  }
  // The command port and the SMI number.
  if (!InitialSmi()) {
    return SetUpFailed(kErrorFindSmiPort, kReasonInitialSmi);
  }
  // Function 10h: the firmware's permission to run.
  if (!SMI_IsSupport()) {
    return SetUpFailed(kErrorOblis10h, kReasonIsSupport);
  }
  // A failed hook point stops nothing.
  SMI_ApHookPoint(kHookPointApLaunch);
  // Function 11h: model and policy.
  if (!FuncOblis_11h()) {
    return SetUpFailed(kErrorOblis11h, kReasonPlatformInformation);
  }
  // Function 1Eh fills the whole ROM map that the Secure Boot gate counts next.
  SMI_GetWholeRomMap(nullptr, nullptr);
  // The Secure Boot gate prints its own refusal.
  if (IsSecureBootSupport() && !SecureBootProtectionCheck()) {
    return SetUpFailed(nullptr, kReasonSecureBoot);
  }
  // The anti-theft gate over function 1Ch.
  if (!FuncOblis_1Ch()) {
    return SetUpFailed(kErrorOblis1Ch, kReasonAntiTheft);
  }
  // The tag constants are built here, by their owner, rather than before the allocations.
  InitSlotTags();
  return kSetUpDone;
}

SetUpFailure NecessarySmiSteps() {
  // Function 12h: the protection and private maps.
  if (!SMI_GetPlatformRomMap()) {
    return SetUpFailed(kErrorOblis12h, kReasonPlatformRomMap);
  }
  // Function 13h: the flash part and its block table.
  if (!FuncOblis_13h()) {
    return SetUpFailed(kErrorOblis13h, kReasonFlashPart);
  }
  return kSetUpDone;
}

}  // namespace

UINT8* GetImageWorkBuffer() { return gRun.imageWorkBuffer; }

VOID FreeResource() {
  TraceScope trace(kFreeResource);
  FreePoolAndNull(gRun.imageWorkBuffer);
  ReleaseEcBuffer();
}

Bool Initialize() {
  TraceScope trace(kInitialize);
  const CHAR16* reason = EndSetUp(InitializeSteps());
  trace.SetReason(reason);
  return reason == nullptr;
}

Bool CallingNecessarySmi() {
  TraceScope trace(kCallingNecessarySmi);
  const CHAR16* reason = EndSetUp(NecessarySmiSteps());
  trace.SetReason(reason);
  return reason == nullptr;
}

Bool EFIAPI ShellFlashMain() {
  ShellRun run = {};
  run.argumentCount = GetArgumentCount();
  run.arguments = GetArgumentVector();
  TraceScope trace(kShellFlashMain);
  StepEnd end = RunShellSteps(run);
  trace.SetReason(end.reason);
  return end.result;
}

Bool EFIAPI UefiFlashMain() {
  TraceScope trace(kUefiFlashMain);
  StepEnd end = RunUefiSteps();
  trace.SetReason(end.reason);
  return end.result;
}

VOID ResetRunSequenceState() {
  gRun = {};
}

VOID ResetFrameState() {
  ResetHostState();
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
