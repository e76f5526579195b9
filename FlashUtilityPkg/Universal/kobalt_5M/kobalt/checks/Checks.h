// What the checks folder offers: the gates that can refuse a run before anything is written,
// and the firmware's say in that decision (CommonFlash, conditional data, OEM parameters, 1Bh).
#pragma once

#include "KobaltBase.h"

// Anti-theft gate over function 1Ch.
Bool FuncOblis_1Ch();
// Secure Boot gate.
Bool IsSecureBootSupport();
Bool SecureBootProtectionCheck();

// ---- power ----
// False after the refusal box has been shown.
Bool CheckPowerStatus();

// ---- version comparison and platform checks ----
// Results of the checks; every negative value ends the update.
constexpr INT32 kCheckOlder = (INT32)0x80000001;
constexpr INT32 kCheckNoBvdt = (INT32)0x80000002;
constexpr INT32 kCheckModelMismatch = (INT32)0x80000003;
constexpr INT32 kCheckNoListMatch = (INT32)0x80000004;
constexpr INT32 kCheckNoVersion = (INT32)0x80000005;
constexpr INT32 kCheckNoAntiTheftMarker = (INT32)0x80000006;
constexpr INT32 kCheckSameVersion = (INT32)0x80000007;
constexpr INT32 kCheckFormatInvalid = (INT32)0x80000008;
constexpr INT32 kCheckConditionalFailed = (INT32)0x8000000B;
constexpr INT32 kCheckFirmwareRefused = (INT32)0x8000000C;

INT32 Func_PlatformCheck(const UINT8* image, UINT32 size);
Bool PlatformNameCheckNeeded();
VOID ShowImageVersionInfo();

// ---- CommonFlash gate ----
Bool CommonFlashExchange();
Bool CommonFlashGate();
VOID CommonFlashFinishAction(UINT8* action);
// The firmware's CommonFlash answer permitted the update and is in force for the run.
Bool IsCommonFlashActive();

// ---- conditional data, OEM parameters and the 1Bh verification ----
Bool SendOemParameters();
Bool FuncOblis_1Bh(const UINT8* image, UINT32 size);

// ---- auto wakeup ----
Bool ArmAutoWakeup(UINT32 interval);

// State. Each file of the folder keeps its state in one record; ResetChecksState() puts them
// all back as a fresh load leaves them. Host builds and tests only: the firmware loads the
// driver fresh. Pool blocks are forgotten, not freed: the environment that handed them out
// takes them back.
VOID ResetChecksState();
// Frees the answer words kept from the OEM parameter list; called when the driver unloads.
VOID ReleaseChecksMemory();

// ---- used by the capsule run ----
VOID ShowUefiVersionInfo();
// The all-checks-off state of the capsule run: no platform or version check, same version allowed.
VOID SetAllChecksOff();
