// A file that may be a PFAT image, on a PFAT machine of 64 KB whose BIOS region is its upper
// half: the table search, the checksum, the table checks and, for what passes them, the whole
// road with its packets. No read outside the file or the packet, no memory left behind.
// Input: an option byte (bit 0 -bios, bit 1 a firmware without PFAT), then the file.
#include "DriverFuzzBed.h"
#include "oblis/Oblis.h"
#include "update/Update.h"

namespace {

constexpr char kPfatMachine[] =
    R"({"flash": {"size": "0x10000", "size_index": 0, "blocks": [{"size": "0x1000", "count": 16}]},
        "maps": {"protection": [], "private": [], "whole": [],
                 "external": [{"type": 1, "offset": "0x8000", "size": "0x8000", "access": 3}]},
        "pfat": {"enabled": true}, "ec": {"size_index": 0}})";
constexpr char kPlainMachine[] =
    R"({"flash": {"size": "0x10000", "size_index": 0, "blocks": [{"size": "0x1000", "count": 16}]},
        "maps": {"protection": [], "private": [], "whole": [],
                 "external": [{"type": 1, "offset": "0x8000", "size": "0x8000", "access": 3}]},
        "extra_data": {}, "ec": {"size_index": 0}})";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzbed::DriverFuzzBed bed;
  if (size < 1) return 0;
  bed.Start((data[0] & 2) != 0 ? kPlainMachine : kPfatMachine, "[Others]\nSMIErrorRetry=0\nSMIErrorRetryDelay=0\n");
  if ((data[0] & 1) != 0) {
    CHAR16 option[] = u"-bios";
    ParseOption(option);
  }
  SetStatus_region();
  // The driver reads the file from a pool block of exactly its size, as the file layer leaves it.
  const UINT32 length = static_cast<UINT32>(size - 1);
  UINT8* image = static_cast<UINT8*>(AllocateZeroPool(length + 1));
  if (image != nullptr && length != 0) std::memcpy(image, data + 1, length);
  if (image != nullptr && InitialSmi() && ReserveEcBuffer() && FuncOblis_13h() && AnalyzePfatImage(image, length) &&
      CheckPfatImage(length)) {
    FuncUpdate_via42h(image, length);
  }
  FreePoolAndNull(image);
  bed.Finish();
  return 0;
}
