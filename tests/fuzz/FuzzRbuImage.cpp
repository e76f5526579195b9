// A file that may be an RBU image, on a 64 KB part: its checks and the whole road; no read outside
// the file or the list, no memory left. Input: an option byte (bit 0 the firmware has 4Ch, bit 1
// it answers "use the ordinary way", bit 2 its flash call fails), then the file.
#include "DriverFuzzBed.h"
#include "oblis/Oblis.h"
#include "update/Update.h"

namespace {

constexpr char kMachine[] =
    R"({"flash": {"size": "0x10000", "size_index": 0, "blocks": [{"size": "0x1000", "count": 16}]},
        "maps": {"protection": [{"type": 6, "address": "0xFFFF0000", "size": "0x1000"}], "private": [], "whole": []},
        "ec": {"size_index": 0}%s})";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzbed::DriverFuzzBed bed;
  if (size < 1) return 0;
  char machine[sizeof(kMachine) + 96] = {};
  const char* oem = (data[0] & 1) == 0   ? ""
                    : (data[0] & 2) != 0 ? R"(, "oem_secure": {"verify": "ordinary_way"})"
                    : (data[0] & 4) != 0 ? R"(, "oem_secure": {"flash_fails": true})"
                                         : R"(, "oem_secure": {})";
  std::snprintf(machine, sizeof(machine), kMachine, oem);
  bed.Start(machine, "[Others]\nSMIErrorRetry=0\nSMIErrorRetryDelay=0\n", nullptr);
  // A pool block of exactly the file's size, as the file layer leaves it.
  const UINT32 length = static_cast<UINT32>(size - 1);
  UINT8* image = static_cast<UINT8*>(AllocateZeroPool(length + 1));
  if (image != nullptr && length != 0) std::memcpy(image, data + 1, length);
  if (image != nullptr && InitialSmi() && ReserveEcBuffer() && FuncOblis_13h()) {
    SetStatus_region();
    ProbeOemSecure();
    if (AnalyzeRbuImage(image, length) && CheckRbuChecksum(image, length)) FuncUpdate_via4Ch(image, length);
  }
  FreePoolAndNull(image);
  bed.Finish();
  return 0;
}
