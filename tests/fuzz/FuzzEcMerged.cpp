// A file that may hold an EC image in front of the BIOS, on the bed's part of 8 KB: the split into EC
// and BIOS, the firmware's size check, the BIOS write and the EC write after it, under any mix
// of the EC and region options and the EC settings. No read outside the file, no memory left.
// Input: option bits (-ecb, -ecbp, -eob, -bios, -ec_crisis, -me), setting bits (Progress_Bar,
// EC_BlockSize=4, EnableECProtectMask), MaskByte0, ProtectMaskBitCount, then the file.
#include "DriverFuzzBed.h"
#include "oblis/Oblis.h"
#include "update/Update.h"

namespace {

const char* const kOptions[] = {"-ecb", "-ecbp", "-eob", "-bios", "-ec_crisis", "-me"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzbed::DriverFuzzBed bed;
  if (size < 4) return 0;
  char ini[256];
  std::snprintf(ini, sizeof(ini),
                "[Others]\nSMIErrorRetry=0\nSMIErrorRetryDelay=0\n[UpdateEC]\nProgress_Bar=%d\nEC_BlockSize=%d\n"
                "EnableECProtectMask=%d\nMaskByte0=%02X\nProtectMaskBitCount=%d\n",
                data[1] & 1, (data[1] & 2) ? 4 : 0x40, (data[1] >> 2) & 1, data[2], data[3]);
  bed.Start(fuzzbed::kSmallMachine, ini);
  for (size_t bit = 0; bit < sizeof(kOptions) / sizeof(kOptions[0]); ++bit) {
    if ((data[0] >> bit & 1) == 0) continue;
    CHAR16 token[16] = {};
    for (size_t i = 0; kOptions[bit][i] != 0; ++i) token[i] = static_cast<CHAR16>(kOptions[bit][i]);
    ParseOption(token);
  }
  SetStatus_region();
  if (InitialSmi() && ReserveEcBuffer() && FuncOblis_13h() &&
      FuncUpdate_via15h(size > 4 ? data + 4 : nullptr, static_cast<UINT32>(size - 4))) {
    UpdateEcAfterBios();
  }
  bed.Finish();
  return 0;
}
