// The firmware's answer to 41h as the PFAT road reads it: whatever status and bytes the firmware
// leaves over the "$EDI" record, the status test answers true or false, hands on the result only
// when it is valid, and reads nothing outside the answer it keeps.
// Input: AL, the data type asked, u32 size asked, then the bytes written over the record.
#include "DriverFuzzBed.h"
#include "oblis/Oblis.h"
#include "update/UpdateInternal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzbed::DriverFuzzBed bed;
  if (size < 6) return 0;
  const uint8_t status = data[0], type = data[1];
  const uint32_t asked = data[2] | (data[3] << 8) | (data[4] << 16) | (uint32_t{data[5]} << 24);
  const uint8_t* answer = data + 6;
  const size_t answerSize = std::min<size_t>(size - 6, kOblisBufferSize);
  bed.Start(fuzzbed::kSmallMachine, "[Others]\nSMIErrorRetry=0\nSMIErrorRetryDelay=0\n", [&](OblisRegisters& frame) {
    if (((frame.eax >> 8) & 0xFF) != 0x41) return false;
    std::memcpy(reinterpret_cast<void*>(uintptr_t{frame.ecx}), answer, answerSize);
    frame.eax = (frame.eax & 0xFFFFFF00u) | status;
    return true;
  });
  if (InitialSmi()) {
    UINT64 result = 0;
    GetStatus41h_Pfat(type, kExtraDataSizeFieldCounts, asked, &result);
    IsPfatEnabled();
  }
  bed.Finish();
  return 0;
}
