// An image file as the update meets it, with the firmware's 17h answer on the regions: the
// analysis of its kind (slot chain, secure FD, EC in front), its BVDT and the map behind the
// "$OBLIS" mark, and the region selection of the 17h lists, the size check and the placing in a
// buffer of the ROM's size. No read outside the image or the answer, no memory left behind.
// Input: option bits (-bios, -gbe, -me, -desc, -pdr, a secure platform), the 17h answer's length
// (two bytes, at most the answer buffer), the answer, then the image.
#include "DriverFuzzBed.h"
#include "image/Image.h"
#include "oblis/Oblis.h"
#include "oblis/OblisInternal.h"
#include "update/UpdateInternal.h"

namespace {

const char16_t* const kRegionOptions[] = {u"-bios", u"-gbe", u"-me", u"-desc", u"-pdr"};
constexpr size_t kHead = 3;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzzbed::DriverFuzzBed bed;
  static std::vector<uint8_t> romBuffer;
  if (size < kHead) return 0;
  const size_t answerSize = std::min<size_t>({size_t(data[1] | data[2] << 8), size - kHead, kExternalMapBytes});
  const uint8_t* answer = data + kHead;
  const uint8_t* image = answer + answerSize;
  const UINT32 imageSize = static_cast<UINT32>(size - kHead - answerSize);
  bed.Start(fuzzbed::kSmallMachine, "[Others]\nSMIErrorRetry=0\nSMIErrorRetryDelay=0\n", [&](OblisRegisters& frame) {
    if (((frame.eax >> 8) & 0xFF) != 0x17) return false;
    std::memcpy(reinterpret_cast<uint8_t*>(uintptr_t{frame.edi}), answer, answerSize);
    frame.eax &= 0xFFFFFF00u;
    return true;
  });
  for (size_t bit = 0; bit < 5; ++bit) {
    if ((data[0] >> bit & 1) != 0) ParseOption(const_cast<CHAR16*>(kRegionOptions[bit]));
  }
  SetStatus_region();
  AnalyzeImage(image, imageSize);
  UINT32 secureSize = 0;
  IsSecureImage(&secureSize);
  HasSecureEc(&secureSize);
  LocateSecureFd(image, imageSize);
  SecureEcSlot(image, imageSize);
  CheckImageKind((data[0] & 0x20) != 0);
  ReadImageBvdtInfo(image, imageSize);
  if (InitialSmi() && FuncOblis_13h()) {
    LoadBvdtMap(image, imageSize);
    if (GetExternalMaps(image, imageSize) && CheckRegionSize(imageSize)) {
      romBuffer.assign(GetRomSize(), 0xFF);
      PlaceRegionImage(romBuffer.data(), image, imageSize);
      SetRsvd_17h();
    }
  }
  bed.Finish();
  return 0;
}
