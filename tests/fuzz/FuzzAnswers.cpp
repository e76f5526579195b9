// The firmware's answers that the set-up reads: 10h (platform status), 11h (model, version and
// policy), 12h (protection and private lists), 13h (part record and block map) and 1Eh (the
// whole map), each followed by what consumes it. Whatever the firmware writes into the shared
// buffers, the driver reads nothing outside them and leaves no memory behind.
// Input: the function (by index), AL, the low word of ECX, then the bytes written over both buffers.
#include "DriverFuzzBed.h"
#include "oblis/Oblis.h"
#include "oblis/OblisInternal.h"

namespace {

constexpr uint8_t kFunctions[] = {0x10, 0x11, 0x12, 0x13, 0x1E};

VOID ConsumeSelected(uint8_t function) {
  RomMapEntry entries[kRomMapEntries];
  UINT8 count = 0;
  switch (function) {
    case 0x10:
      SMI_IsSupport();
      break;
    case 0x11:
      FuncOblis_11h();
      break;
    case 0x12:
    case 0x13:
      // The lists and the block table meet in the marking of the protected blocks.
      if (SMI_GetPlatformRomMap() && FuncOblis_13h()) {
        SetRsvd_13h(nullptr);
      }
      break;
    default:
      SMI_GetWholeRomMap(entries, &count);
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzbed::DriverFuzzBed bed;
  if (size < 4) return 0;
  const uint8_t function = kFunctions[data[0] % sizeof(kFunctions)];
  const uint8_t status = data[1];
  const uint16_t cx = static_cast<uint16_t>(data[2] | data[3] << 8);
  const uint8_t* answer = data + 4;
  const size_t answerSize = std::min<size_t>(size - 4, kOblisBufferSize);
  UINT8* buffers[2] = {nullptr, nullptr};
  bed.Start(fuzzbed::kSmallMachine, "[Others]\nSMIErrorRetry=0\nSMIErrorRetryDelay=0\n", [&](OblisRegisters& frame) {
    if (((frame.eax >> 8) & 0xFF) != function) return false;
    // Only the shared buffers are the firmware's to write.
    for (UINT8* buffer : buffers) {
      const uintptr_t at = reinterpret_cast<uintptr_t>(buffer);
      if (buffer != nullptr && (frame.edi == at || frame.esi == at)) std::memcpy(buffer, answer, answerSize);
    }
    frame.ecx = (frame.ecx & 0xFFFF0000u) | cx;
    frame.eax = (frame.eax & 0xFFFFFF00u) | status;
    return true;
  });
  if (InitialSmi() && GetOblisBuffer(kOblisBufferSize, &buffers[0]) && GetOblisBuffer2(kOblisBufferSize, &buffers[1])) {
    ConsumeSelected(function);
  }
  bed.Finish();
  return 0;
}
