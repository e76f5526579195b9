// An EC image in front of a BIOS image: the check that a file longer than the ROM is one the
// options explain and that the firmware's EC takes; KeepEcImage keeps the EC part in the run's
// EC block. Writing the EC belongs to the EC update.
#include "config/Config.h"
#include "HostSettings.h"
#include "image/Image.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "update/UpdateInternal.h"

namespace {

constexpr CHAR16 kTraceSizeEc[] =
    u" FuncChk_SizeEC\r\n-----+---------\r\n   EC  %dK\r\n /ecb  %d\r\n/ecbp  %d\r\n /eob  %d\r\n";
constexpr CHAR16 kErrorSizeWithEc[] = u"ERROR!\r\nsize not match\r\n-----+---------\r\n  ROM  0x%x\r\n File  with EC (%dK)\r\n";

}  // namespace

Bool FuncChk_SizeEC(UINT32 ecSize) {
  const CommandFlags* flags = Flags();
  Bool ecOption = flags->ecb || flags->ecbp || flags->eob;
  LogPrint(kLogDetail, kTraceSizeEc, ecSize / 1024, (UINT32)flags->ecb, (UINT32)flags->ecbp, (UINT32)flags->eob);
  if (ecSize > kEcBufferBytes) {
    return false;
  }
  if (ecSize != 0) {
    UINT32 secureEcSize = 0;
    if (!ecOption && !HasSecureEc(&secureEcSize)) {
      // The file is longer than the flash without an option to explain it.
      Print(kErrorSizeWithEc, GetRomSize(), ecSize / 1024);
      return false;
    }
    // The firmware has the last word on whether its EC takes this size.
    return FuncOblis_21h(ecSize);
  }
  if (ecOption) {
    Print(kErrorSizeWithEc, GetRomSize(), 0u);
    return false;
  }
  return true;
}

