// Any -edt text, parsed and, if taken, sent to a firmware that takes extra data; any -e: numbers,
// judged against a file of any size and written. No read outside a buffer, no memory left behind.
// Input: u32 file size, a selector byte (bit 0: -e:, else -edt), then the option's text.
#include "DriverFuzzBed.h"
#include "config/Config.h"
#include "oblis/Oblis.h"
#include "update/UpdateInternal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzbed::DriverFuzzBed bed;
  if (size < 5) return 0;
  const uint32_t fileSize = (data[0] | (data[1] << 8) | (data[2] << 16) | (uint32_t{data[3]} << 24)) % 0x30000;
  const bool direct = (data[4] & 1) != 0;
  static const std::string machine = fuzzbed::SmallMachineWith(R"("extra_data": {})");
  bed.Start(machine, "[Others]\nSMIErrorRetry=0\nSMIErrorRetryDelay=0\n");
  CHAR16 token[160] = {u'-', u'e', direct ? u':' : u'd', direct ? u'\0' : u't'};
  size_t length = direct ? 3 : 4;
  for (size_t i = 5; i < size && length + 1 < sizeof(token) / sizeof(token[0]); ++i) token[length++] = data[i];
  if (ParseOption(token) && InitialSmi() && FuncOblis_13h()) {
    UINT8* file = static_cast<UINT8*>(AllocateZeroPool(fileSize + 1));
    if (direct && Flags()->e && file != nullptr) FuncCommand_e(file, fileSize);
    if (!direct && IsCommand_edt()) FuncCommand_edt();
    FreePoolAndNull(file);
  }
  bed.Finish();
  return 0;
}
