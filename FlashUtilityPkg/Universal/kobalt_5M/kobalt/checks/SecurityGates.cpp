// The two gates that can forbid any update inside set-up: Intel Anti-Theft state from function
// 1Ch, and a Secure Boot platform that gives no whole ROM map. The image's anti-theft marker is
// checked later, by the platform check, which reads AntiTheftMarkerRequired.
#include "checks/ChecksInternal.h"
#include "config/Config.h"
#include "oblis/Oblis.h"
#include "output/Output.h"

namespace {

struct SecurityGatesState {
  Bool antiTheftMarkerRequired;
};
constinit SecurityGatesState gGates = {};

constexpr UINT8 kAtValid = 0x80;       // bit 7 clear: the byte means nothing
constexpr UINT8 kAtEnrolled = 0x01;    // bit 0 clear: no protection in force
constexpr UINT8 kAtNotStolen = 0x02;   // bit 1 clear: stolen mode
constexpr UINT8 kAtUpdateAllowed = 0x40;  // bit 6 clear: the protection forbids the update
constexpr UINT8 kAtTimerEnough = 0x04;    // bit 2 clear: not enough time to program

constexpr UINTN kSetupModeBufferBytes = 256;

const CHAR16 kMessageStolen[] = u"The system is in stolen mode. BIOS update is aborted!\r\n";
const CHAR16 kMessageProtected[] =
    u"The system is currently under Intel Anti-Theft Technology 4.0 protection.\r\n"
    u"Please un-enroll the client (Intel AT Service, Computrace LoJack, or PC Theft\r\n"
    u"Defense Service) before perform BIOS update.\r\n";
const CHAR16 kMessageTimer[] =
    u"The timer is not enough to program image!\r\nClient must rendezvous server then update image later.\r\n";
const CHAR16 kMessageSecureBootProtection[] =
    u"Flash process will be terminated!\r\n\r\n"
    u"Current platform supports secure boot feature,\r\n"
    u"it must provide NV storage location by OBLIS interface.\r\n"
    u"Please contact OEM BIOS engineer to add the feature.\r\n\r\n"
    u"Without this OBLIS interface,\r\n"
    u"the authenticate variables will be modified or cleared by flash process.\r\n\r\n"
    u"If you understand the risk and still want to flash.\r\n"
    u"You can use following command or platform.ini settings to ignore this error.\r\n"
    u"Command:\r\n"
    u"        -skipsbp\r\n"
    u"platform.ini:\r\n"
    u"        [EngineeringErrorDisable]\r\n"
    u"        SkipSecureBootProtectionCheck=1\r\n\r\n";

}  // namespace

Bool FuncOblis_1Ch() {
  TraceScope trace(u"FuncOblis_1Ch");
  UINT8 status = 0;
  if (!Oblis_1Ch(&status)) {
    return trace.Fail(u"OBLIS 1Ch failed");
  }
  // The order of the tests matters: a stolen machine is told so even when its timer has run out.
  const CHAR16* refusal = nullptr;
  if ((status & kAtValid) == 0) {
    return true;
  }
  if ((status & kAtEnrolled) == 0) {
    gGates.antiTheftMarkerRequired = true;
  } else if ((status & kAtNotStolen) == 0) {
    refusal = kMessageStolen;
  } else if ((status & kAtUpdateAllowed) == 0) {
    refusal = kMessageProtected;
  } else if ((status & kAtTimerEnough) == 0) {
    refusal = kMessageTimer;
  } else {
    gGates.antiTheftMarkerRequired = true;
  }
  if (refusal != nullptr) {
    Print(refusal);
    return trace.Fail(u"Anti-Theft refused");
  }
  return true;
}

Bool AntiTheftMarkerRequired() { return gGates.antiTheftMarkerRequired; }

Bool IsSecureBootSupport() {
  TraceScope trace(u"IsSecureBootSupport");
  UINT8 data[kSetupModeBufferBytes];
  UINTN size = sizeof(data);
  UINT32 attributes = 0;
  // The variable's presence is the answer, whatever its value.
  EFI_STATUS status = gRT->GetVariable(u"SetupMode", &kGlobalVariableGuid, &attributes, &size, data);
  Bool supported = !EFI_ERROR(status);
  trace.SetReason(supported ? u"Support" : u"Not support");
  return supported;
}

Bool SecureBootProtectionCheck() {
  TraceScope trace(u"SecureBootProtectionCheck");
  if (Flags()->skipSbp || Settings()->engineeringErrorDisable.skipSecureBootProtectionCheck) {
    trace.SetReason(u"Skip");
    return true;
  }
  UINT32 count = 0;
  GetWholeRomMapRecords(&count, nullptr);
  if (count != 0) {
    return true;
  }
  PrintLong(u"%s", kMessageSecureBootProtection);
  return trace.Fail(u"No NV storage location from OBLIS");
}

VOID ResetSecurityGatesState() {
  gGates = {};
}
