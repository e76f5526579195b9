// A file that may be a PFAT image, on a 64 KB part whose BIOS region is its upper half: the checks
// and the whole road, 41h answered by the firmware or the input. No read outside the file, packet
// or kept answer, no memory left. Input: an option byte (bit 0 -bios, bit 1 a firmware without
// PFAT, bit 2 the input answers 41h with the AL and 0x34 record bytes that follow), the file.
#include "DriverFuzzBed.h"
#include "oblis/Oblis.h"
#include "update/Update.h"

namespace {

constexpr char kMachine[] =
    R"({"flash": {"size": "0x10000", "size_index": 0, "blocks": [{"size": "0x1000", "count": 16}]},
        "maps": {"protection": [], "private": [], "whole": [],
                 "external": [{"type": 1, "offset": "0x8000", "size": "0x8000", "access": 3}]},
        "pfat": {"enabled": %s}, "ec": {"size_index": 0}})";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzbed::DriverFuzzBed bed;
  const size_t answerBytes = size != 0 && (data[0] & 4) != 0 ? 1 + kExtraDataAnswerBytes : 0;
  if (size < 1 + answerBytes) return 0;
  const uint8_t* answer = data + 1;
  char machine[sizeof(kMachine) + 8];
  std::snprintf(machine, sizeof(machine), kMachine, (data[0] & 2) != 0 ? "false" : "true");
  bed.Start(machine, "[Others]\nSMIErrorRetry=0\nSMIErrorRetryDelay=0\n", [&](OblisRegisters& frame) {
    if (answerBytes == 0 || ((frame.eax >> 8) & 0xFF) != 0x41) return false;
    std::memcpy(reinterpret_cast<void*>(uintptr_t{frame.ecx}), answer + 1, kExtraDataAnswerBytes);
    frame.eax = (frame.eax & 0xFFFFFF00u) | answer[0];
    return true;
  });
  if ((data[0] & 1) != 0) {
    CHAR16 option[] = u"-bios";
    ParseOption(option);
  }
  SetStatus_region();
  // The driver reads the file into a pool block of exactly its size, as the file layer leaves it.
  const UINT32 length = static_cast<UINT32>(size - 1 - answerBytes);
  UINT8* image = static_cast<UINT8*>(AllocateZeroPool(length + 1));
  if (image != nullptr && length != 0) std::memcpy(image, data + 1 + answerBytes, length);
  if (image != nullptr && InitialSmi() && ReserveEcBuffer() && FuncOblis_13h() && AnalyzePfatImage(image, length) &&
      CheckPfatImage(length)) {
    FuncUpdate_via42h(image, length);
  }
  FreePoolAndNull(image);
  bed.Finish();
  return 0;
}
