// The firmware's answer to 21h as the EC size check reads it: whatever status, size index and
// bytes over the request the firmware gives, the check answers true or false, reads nothing
// outside the answer it keeps and leaves no memory behind.
// Input: u32 size of the EC image, AL, CL, a settings byte (bit 0 Ignore_21h), then the bytes
// written over the request.
#include "DriverFuzzBed.h"
#include "oblis/Oblis.h"
#include "update/Update.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzbed::DriverFuzzBed bed;
  if (size < 7) return 0;
  const uint32_t ecSize = data[0] | (data[1] << 8) | (data[2] << 16) | (uint32_t{data[3]} << 24);
  const uint8_t status = data[4], index = data[5];
  const bool ignore21h = (data[6] & 1) != 0;
  const uint8_t* answer = data + 7;
  const size_t answerSize = std::min<size_t>(size - 7, kOblisBufferSize);
  bed.Start(fuzzbed::kSmallMachine, std::string("[Others]\nSMIErrorRetry=1\nSMIErrorRetryDelay=0\n[UpdateEC]\nIgnore_21h=") + (ignore21h ? "1\n" : "0\n"),
            [&](OblisRegisters& frame) {
              if (((frame.eax >> 8) & 0xFF) != 0x21) return false;
              std::memcpy(reinterpret_cast<void*>(uintptr_t{frame.esi}), answer, answerSize);
              frame.ecx = (frame.ecx & 0xFFFFFF00u) | index;
              frame.eax = (frame.eax & 0xFFFFFF00u) | status;
              return true;
            });
  if (InitialSmi()) FuncOblis_21h(ecSize);
  bed.Finish();
  return 0;
}
