// What an image in memory is: secure (it holds the secure-image record) or legacy, whether it
// carries the driver signature and an EC slot, and the settings in its INI slot. Laying out the
// payload and the EC image for the engines is theirs; the driver's own slots are SlotChain's.
#include "config/Config.h"
#include "image/ImageInternal.h"
#include "output/Output.h"

namespace {

constexpr UINT32 kTagBytes = 16;
constexpr UINT32 kSlotHeaderBytes = 24;
constexpr UINT32 kSlotSizeField = 20;
constexpr UINT8 kTagMark = '$';


// Neither pattern stands whole in the driver's data, since a secure image carries this driver: the
// signature's second byte and the record's first byte are written just before the search.
constexpr char kDrvSignatureTemplate[] = "I$EFI#DRV_";
constexpr UINT32 kDrvSignatureBytes = 10;
constexpr UINT8 kDrvSignatureMark = '#';
constexpr UINT8 kSecureImageRecordTemplate[] = {'#',  'I',  'S',  'B',  0x33, 0x38, 0xA1, 0xDD, 0x42, 0xC3,
                                                0xAE, 0x4E, 0xB5, 0xC9, 0xC2, 0xD7, 0xD6, 0x13, 0xDB, 0xB8};
static_assert(sizeof(kDrvSignatureTemplate) == kDrvSignatureBytes + 1, "the signature pattern is 10 bytes");
static_assert(sizeof(kSecureImageRecordTemplate) == 20, "the secure-image record is 20 bytes");

constexpr CHAR16 kDrvSignInfoLabel[] = u"===== DRV Sign Info =====\r\n";
constexpr CHAR16 kDrvSignatureFound[] = u"EFI DRV Signature found!\r\n";
constexpr CHAR16 kSecureEcFound[] = u"Secure FD with |EC| (%dK)\r\n";
constexpr CHAR16 kSecureFd[] = u"Secure |FD| 0x%x\r\n";
constexpr CHAR16 kLegacyFd[] = u"Legacy |FD| 0x%x\r\n";
constexpr CHAR16 kIniTagNotFound[] = u"_KOBALT_INI_IMG Signature Not Found\r\n";
// A slot whose header or data would reach past the image is refused, never read.
constexpr CHAR16 kSlotOutsideImage[] = u"%a slot at 0x%x runs past the image end (0x%x)\r\n";
constexpr CHAR16 kNoBiosImageSlot[] = u"Secure |FD| without a BIOSIMG slot\r\n";
constexpr CHAR16 kSecureFdHeaderLabel[] = u"===== Secure FD Hdr =====\r\n";
constexpr CHAR16 kSecureEcInfoLabel[] = u"===== Secure EC Info =====\r\n";
constexpr CHAR8 kMessageSecureOnly[] = "MessageStringA00";
constexpr CHAR16 kMessageSecureOnlyDefault[] =
    u"It only supports to flash secure BIOS on current platform.\r\nThe image to be updated is not a secure BIOS.\r\n";
constexpr CHAR16 kMessageOlderSecurityFlash[] = u"The secure BIOS is signed by older version of security flash.\r\n";
constexpr CHAR8 kMessageSecureNotAllowed[] = "MessageStringA01";
constexpr CHAR16 kMessageSecureNotAllowedDefault[] = u"Not allow to flash secure BIOS on current platform.\r\n";
constexpr CHAR8 kEcSlotName[] = "EC";
constexpr CHAR8 kBiosImageSlotName[] = "BIOSIMG";
constexpr CHAR8 kIniSlotName[] = "INI";

struct ImageAnalysisState {
  Bool secureImage;
  UINT32 secureImageSize;
  Bool drvSignature;
  Bool secureEc;
  UINT32 secureEcSize;
  ImageView payload;
};
constinit ImageAnalysisState ImageAnalysis = {};

// The tag of one of the running driver's slots, with '$' in front whether or not InitSlotTags
// has marked it yet.
VOID RunningSlotTag(OwnSlot slot, UINT8* tag) {
  CopyMem(tag, OwnSlotTag(slot), kTagBytes);
  tag[0] = kTagMark;
}

// Finds the slot with the given tag and gives its size field. False when the tag is missing or
// when the header or the data it announces would reach past the image; the refusal is traced.
Bool FindSlot(const UINT8* image, UINT32 length, OwnSlot slot, const CHAR8* slotName, UINT32* at,
              UINT32* size) {
  UINT8 tag[kTagBytes];
  RunningSlotTag(slot, tag);
  if (!FindSignature(image, length, tag, kTagBytes, at)) {
    return false;
  }
  if (length - *at < kSlotHeaderBytes) {
    LogPrint(kLogDetail, kSlotOutsideImage, slotName, *at, length);
    return false;
  }
  *size = ReadU32(image + *at + kSlotSizeField);
  if (*size > length - *at - kSlotHeaderBytes) {
    LogPrint(kLogDetail, kSlotOutsideImage, slotName, *at, length);
    return false;
  }
  return true;
}

}  // namespace

Bool AnalyzeImage(const UINT8* image, UINT32 length) {
  if (image == nullptr) {
    length = 0;
  }
  UINT8 signature[kDrvSignatureBytes];
  CopyMem(signature, kDrvSignatureTemplate, kDrvSignatureBytes);
  signature[1] = kDrvSignatureMark;
  Bool found = FindSignature(image, length, signature, kDrvSignatureBytes, nullptr);
  HexDumpFramed(kDrvSignInfoLabel, signature, kDrvSignatureBytes);
  if (found) {
    LogPrint(kLogDetail, kDrvSignatureFound);
    ImageAnalysis.drvSignature = true;
  }

  UINT32 at = 0;
  UINT32 size = 0;
  if (FindSlot(image, length, OwnSlot::Ec, kEcSlotName, &at, &size) && size != 0) {
    ImageAnalysis.secureEc = true;
    ImageAnalysis.secureEcSize = size;
    LogPrint(kLogDetail, kSecureEcFound, size / 1024);
  }

  UINT8 record[sizeof(kSecureImageRecordTemplate)];
  CopyMem(record, kSecureImageRecordTemplate, sizeof(record));
  record[0] = kTagMark;
  if (!FindSignature(image, length, record, sizeof(record), nullptr)) {
    LogPrint(kLogDetail, kLegacyFd, length);
    return false;
  }
  ImageAnalysis.secureImage = true;
  // The record makes the image secure; a BIOSIMG slot that is missing or reaches past the end
  // leaves a payload size of 0, which no engine can take for flash content.
  if (FindSlot(image, length, OwnSlot::BiosImage, kBiosImageSlotName, &at, &size)) {
    ImageAnalysis.secureImageSize = size;
  } else {
    ImageAnalysis.secureImageSize = 0;
    LogPrint(kLogDetail, kNoBiosImageSlot);
  }
  LogPrint(kLogDetail, kSecureFd, ImageAnalysis.secureImageSize);
  return true;
}

Bool IsSecureImage(UINT32* size) {
  if (size != nullptr) {
    *size = ImageAnalysis.secureImageSize;
  }
  return ImageAnalysis.secureImage;
}

Bool HasDrvSignature() { return ImageAnalysis.drvSignature; }

Bool HasSecureEc(UINT32* size) {
  if (size != nullptr) {
    *size = ImageAnalysis.secureEcSize;
  }
  return ImageAnalysis.secureEc;
}

VOID LocateSecureFd(const UINT8* image, UINT32 length) {
  if (image == nullptr) {
    length = 0;
  }
  UINT32 at = 0;
  UINT32 size = 0;
  // A slot that would reach past the image leaves the payload empty, which no engine takes for
  // flash content; never the payload of an image analysed before, which may be gone.
  ImageAnalysis.payload = {nullptr, 0};
  if (!FindSlot(image, length, OwnSlot::BiosImage, kBiosImageSlotName, &at, &size)) {
    return;
  }
  HexDumpFramed(kSecureFdHeaderLabel, image + at, kSlotHeaderBytes);
  ImageAnalysis.payload.data = const_cast<UINT8*>(image + at + kSlotHeaderBytes);
  ImageAnalysis.payload.length = size;
}

ImageView SecurePayload() { return ImageAnalysis.payload; }

ImageView SecureEcSlot(const UINT8* image, UINT32 length) {
  ImageView ec = {nullptr, 0};
  if (image == nullptr) {
    length = 0;
  }
  UINT32 at = 0;
  UINT32 size = 0;
  if (!FindSlot(image, length, OwnSlot::Ec, kEcSlotName, &at, &size)) {
    return ec;
  }
  HexDumpFramed(kSecureEcInfoLabel, image + at, kTagBytes);
  if (size != 0) {
    ec.data = const_cast<UINT8*>(image + at + kSlotHeaderBytes);
    ec.length = size;
  }
  return ec;
}

// Whether the analysed image may go onto this platform: a secure platform takes only secure
// images signed by this generation of the tool; a legacy platform takes anything unless the
// settings forbid secure images.
Bool CheckImageKind(Bool securePlatform) {
  const CHAR16* refusal = nullptr;
  const CHAR8* messageKey = nullptr;
  if (securePlatform) {
    if (!ImageAnalysis.secureImage) {
      messageKey = kMessageSecureOnly;
      refusal = kMessageSecureOnlyDefault;
    } else if (!ImageAnalysis.drvSignature) {
      refusal = kMessageOlderSecurityFlash;
    }
  } else if (ImageAnalysis.secureImage && Settings()->others.disableSecureCapsuleFlash) {
    messageKey = kMessageSecureNotAllowed;
    refusal = kMessageSecureNotAllowedDefault;
  }
  if (refusal == nullptr) {
    return true;
  }
  // A message from the settings is text, never a format.
  const CHAR16* text = messageKey != nullptr ? GetMessageText(messageKey, refusal) : refusal;
  Print(u"%s", text);
  FreeMessageText(text, refusal);
  return false;
}

Bool LoadImageConfig(const UINT8* image, UINT32 length) {
  if (image == nullptr) {
    length = 0;
  }
  UINT8 tag[kTagBytes];
  RunningSlotTag(OwnSlot::Ini, tag);
  UINT32 at = 0;
  if (!FindSignature(image, length, tag, kTagBytes, &at)) {
    LogPrint(kLogDetail, kIniTagNotFound);
    return false;
  }
  UINT32 size = 0;
  if (!FindSlot(image, length, OwnSlot::Ini, kIniSlotName, &at, &size)) {
    return false;
  }
  // One byte more than the text, so that the working copy is always terminated.
  CHAR8* text = static_cast<CHAR8*>(AllocateZeroPool((UINTN)size + 1));
  if (text == nullptr) {
    return false;
  }
  CopyMem(text, image + at + kSlotHeaderBytes, size);
  // The image brings its own settings: a stored text of an earlier run must not outlive them.
  ClearCfg_variable();
  LoadOption(text, &size, false);
  FreePoolAndNull(text);
  return true;
}

VOID ResetImageAnalysisState() {
  ImageAnalysis = {};
}

VOID ResetImageState() {
  ResetBvdtState();
  ResetImageAnalysisState();
  ResetSlotChainState();
  ResetPackageState();
}
