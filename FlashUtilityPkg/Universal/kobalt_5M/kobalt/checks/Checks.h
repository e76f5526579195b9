// What the checks folder offers: the gates that can refuse a run before anything is written,
// and the firmware's say in that decision (CommonFlash, conditional data, OEM parameters, 1Bh).
#pragma once

#include "KobaltBase.h"

// Anti-theft gate over function 1Ch.
Bool FuncOblis_1Ch();
Bool AntiTheftMarkerRequired();
// Secure Boot gate.
Bool IsSecureBootSupport();
Bool SecureBootProtectionCheck();

// ---- power ----
// False after the refusal box has been shown.
Bool CheckPowerStatus();
Bool NeedAcCheck();
Bool NeedDcCheck();
UINT8 GetBatteryBound();

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

INT32 BiosVerCmp(const CHAR8* newVersion, const CHAR8* currentVersion);
INT32 BiosVerFmtCmp(const CHAR8* format, const CHAR8* newVersion, const CHAR8* currentVersion);
INT32 Func_PlatformCheck(const UINT8* image, UINT32 size);
Bool PlatformNameCheckNeeded();
Bool VersionCheckNeeded();
Bool GetPlatformChkStatus();
INT32 PlatformCmp(const CHAR8* newModel, const CHAR8* currentModel, INT32* matchIndex);
VOID MultiPlatformCompare(const CHAR16** newModel, const CHAR16** newVersion);
INT32 VersionCmp(const CHAR8* newVersion, const CHAR8* currentVersion);
VOID ShowImageVersionInfo();
VOID ShowUefiVersionInfo();
// The all-checks-off state of the capsule run: no platform or version check, same version allowed.
VOID SetAllChecksOff();
Bool AllChecksOff();

// ---- CommonFlash gate ----
Bool CommonFlashExchange();
Bool Oblis_44h(const UINT8* info, UINT32 infoLength, const UINT8* switches, UINT32 switchLength, UINT8* answer);
Bool CommonFlashGate();
VOID CommonFlashFinishAction(UINT8* action);
Bool IsCommonFlashActive();

// ---- conditional data, OEM parameters and the 1Bh verification ----
Bool SMI_CheckConditionalData(UINT8 type, UINT8 format, UINT16 length, const UINT8* data, UINT8* allow);
Bool SendOemParameters();
Bool Oblis_19h(UINT8* record);
Bool Oblis_1Bh(const UINT8* data, UINT32 size, UINT32 address, UINT8* status);
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
VOID ResetCommonFlashState();
VOID ResetConditionalState();
VOID ResetPlatformCheckState();
VOID ResetPowerState();
VOID ResetSecurityGatesState();
