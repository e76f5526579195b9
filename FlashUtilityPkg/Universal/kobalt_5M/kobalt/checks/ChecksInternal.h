// The checks folder's own declarations, shared by its files and its tests; no other folder
// includes it.
#pragma once

#include "checks/Checks.h"

Bool AntiTheftMarkerRequired();
Bool NeedAcCheck();
Bool NeedDcCheck();
UINT8 GetBatteryBound();
INT32 BiosVerCmp(const CHAR8* newVersion, const CHAR8* currentVersion);
INT32 BiosVerFmtCmp(const CHAR8* format, const CHAR8* newVersion, const CHAR8* currentVersion);
Bool VersionCheckNeeded();
Bool GetPlatformChkStatus();
INT32 PlatformCmp(const CHAR8* newModel, const CHAR8* currentModel, INT32* matchIndex);
VOID MultiPlatformCompare(const CHAR16** newModel, const CHAR16** newVersion);
INT32 VersionCmp(const CHAR8* newVersion, const CHAR8* currentVersion);
Bool AllChecksOff();
Bool Oblis_44h(const UINT8* info, UINT32 infoLength, const UINT8* switches, UINT32 switchLength, UINT8* answer);
Bool SMI_CheckConditionalData(UINT8 type, UINT8 format, UINT16 length, const UINT8* data, UINT8* allow);
Bool Oblis_19h(UINT8* record);
Bool Oblis_1Bh(const UINT8* data, UINT32 size, UINT32 address, UINT8* status);

// The state of each file, put back by ResetChecksState().
VOID ResetCommonFlashState();
VOID ResetConditionalState();
VOID ResetPlatformCheckState();
VOID ResetPowerState();
VOID ResetSecurityGatesState();
