// The options of the two small roads as a user may type them: an -edt item of any text, parsed
// and, if taken, sent to a firmware that takes extra data, and an -e: stretch of any numbers
// judged against a file of any size and written on the bed's part. Nothing is read outside a
// buffer or written beside the option table, and no memory is left behind.
// Input: u32 file size, a selector byte (bit 0: -e:, else -edt), then the option's text.
#include "DriverFuzzBed.h"
#include "config/Config.h"
#include "oblis/Oblis.h"
#include "update/UpdateInternal.h"

namespace {

constexpr char kMachine[] =
    R"({"flash": {"size": "0x2000", "size_index": 0, "blocks": [{"size": "0x1000", "count": 2}]},
        "maps": {"protection": [], "private": [], "whole": []}, "extra_data": {}})";
constexpr UINT32 kFileLimit = 0x30000;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzbed::DriverFuzzBed bed;
  if (size < 5) return 0;
  const uint32_t fileSize = (data[0] | (data[1] << 8) | (data[2] << 16) | (uint32_t{data[3]} << 24)) % kFileLimit;
  const bool direct = (data[4] & 1) != 0;
  bed.Start(kMachine, "[Others]\nSMIErrorRetry=0\nSMIErrorRetryDelay=0\n");
  CHAR16 token[160] = {};
  const char* prefix = direct ? "-e:" : "-edt";
  size_t length = 0;
  for (; prefix[length] != 0; ++length) token[length] = static_cast<CHAR16>(prefix[length]);
  for (size_t i = 5; i < size && length + 1 < sizeof(token) / sizeof(token[0]); ++i) token[length++] = data[i];
  if (ParseOption(token) && InitialSmi() && FuncOblis_13h()) {
    if (direct && Flags()->e) {
      UINT8* file = static_cast<UINT8*>(AllocateZeroPool(fileSize + 1));
      if (file != nullptr) FuncCommand_e(file, fileSize);
      FreePoolAndNull(file);
    } else if (IsCommand_edt()) {
      FuncCommand_edt();
    }
  }
  bed.Finish();
  return 0;
}
