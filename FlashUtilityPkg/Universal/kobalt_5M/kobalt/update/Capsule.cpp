// The secure capsule road: the probe that tells a secure platform from a legacy one (function 48h
// with an empty request), and the route every secure image takes. On a secure platform the whole
// image goes to the firmware, from memory or from a file on the system partition, and the tool
// writes no block itself; on a legacy platform only the BIOSIMG payload goes to the block writer.
#include "checks/Checks.h"
#include "config/Config.h"
#include "FileLayer.h"
#include "HostSettings.h"
#include "image/Image.h"
#include "oblis/Oblis.h"
#include "output/Output.h"
#include "update/UpdateInternal.h"
#include "PlatformSeams.h"

namespace {

constexpr UINT32 kOblisBufferBytes = 0x20000;
constexpr UINT32 kCapsuleBlockBytes = 0x80000;  // the image is described in blocks of 512 KB
constexpr UINT32 kBlockListHeadBytes = 8;
constexpr UINT32 kBlockListEntryBytes = 16;
constexpr UINT8 kExtendedRecordSignature[] = {'$', 'E', 'X', 'T'};
constexpr UINT8 kExtendedAnswerSignature[] = {'$', 'E', 'X', 'O'};
constexpr UINT32 kExtendedRecordLength = 9;
constexpr UINT32 kExtendedRecordByte = 8;
constexpr UINT8 kCapsuleOnPartitionBit = 0x01;
constexpr UINT8 kActionDoNothing = 3;
constexpr UINT8 kExternalBios = 0x01;

constexpr CHAR16 kOblis48h[] = u"Oblis_48h";
constexpr CHAR16 kSmiIsSecurePlatform[] = u"SMI_IsSecurePlatform";
constexpr CHAR16 kSmiSecureCapsuleFlash[] = u"SMI_SecureCapsuleFlash";
constexpr CHAR16 kFuncUpdateVia48h[] = u"FuncUpdate_via48h";
constexpr CHAR16 kFindEspRoot[] = u"FindEspRoot";

constexpr CHAR16 kReasonAllocateOblis[] = u"Allocate OBLIS memory failed";
constexpr CHAR16 kReasonNotSuccess[] = u"BIOS return not success";
constexpr CHAR16 kReasonOblis48hFailed[] = u"OBLIS 48h failed";
constexpr CHAR16 kReasonSizeEc[] = u"FuncChk_SizeEC failed";
constexpr CHAR16 kReasonSizeRegion[] = u"FuncSize_region48h failed";
constexpr CHAR16 kReasonSizeEntire[] = u"FuncSize_entire48h failed";
constexpr CHAR16 kReasonModelCheck[] = u"Skip model check verify failed";
constexpr CHAR16 kReasonOemMe[] = u"Update OEM ME failed";
constexpr CHAR16 kReasonVia48h[] = u"via 48h or via ESP";
constexpr CHAR16 kReasonVia15h[] = u"via 15h";

constexpr CHAR16 kTraceBlockList[] = u" Oblis_48h\r\n---------+---------\r\n  b.count  0x%x\r\n  FD size  0x%x\r\n";
constexpr CHAR16 kTrace48hFailed[] = u"OBLIS 48h failed. (0x%02x)\r\n";
constexpr CHAR16 kTracePlatformSecure[] = u" platform [secure]\r\n";
constexpr CHAR16 kTracePlatformLegacy[] = u" platform [legacy]\r\n";
constexpr CHAR16 kTraceBiosAction[] = u"BIOS return action (%d)\r\n";
constexpr CHAR16 kTraceCapsuleSize[] = u" Capsule size 0x%x\r\n";
constexpr CHAR16 kTraceEntireSecure[] = u" entire Secure\r\n-----+------\r\n  13h  0x%x\r\n   FD  0x%x\r\n";
constexpr CHAR16 kTraceRegionSecure[] = u" region Secure\r\n-----+------\r\n  17h  0x%x\r\n   FD  0x%x\r\n";
constexpr CHAR16 kErrorSizeNotMatch[] = u"ERROR!\r\nSize not match!\r\n-----+---------\r\n  ROM  0x%x\r\n File  0x%x\r\n";
constexpr CHAR16 kTraceCapsuleViaEsp[] = u" Capsule update via ESP\r\n";
constexpr CHAR16 kTraceCapsuleVia48h[] = u" Capsule Update via 48h\r\n";
constexpr CHAR16 kErrorCapsuleRefused[] =
    u"The BIOS image to be updated is invalid or\r\nonboard BIOS does not support Secure Flash.\r\n";
constexpr CHAR16 kTraceEmmc[] = u"Device Path |eMMC| (0x%x)\r\n";
constexpr CHAR16 kTraceSata[] = u"Device Path |SATA| (0x%x)\r\n";
constexpr CHAR16 kTraceUsb[] = u"Device Path |USB| (0x%x)\r\n";
constexpr CHAR16 kTraceNoEsp[] = u"Device Path viaESP() |N.FUND| (0x%x)\r\n";
constexpr CHAR16 kTraceOpenVolumeFail[] = u"OpenVolume() |fail|\r\n";
constexpr CHAR16 kTraceViaEsp[] = u"Secure update |viaESP|\r\n";
constexpr CHAR16 kTraceCreateDirFail[] = u"Create Dir |fail| (%s)\r\n";
constexpr CHAR16 kTraceDeleteFail[] = u"Delete FD in ESP |fail| (%s)\r\n";
constexpr CHAR16 kTraceCopyFail[] = u"Copy To ESP |fail| (%s)\r\n";
constexpr CHAR16 kTraceCopied[] = u"via | ESP| (size=0x%x)\r\n";

constexpr CHAR16 kEspDirectory[] = u"\\EFI\\Dovrin";
constexpr CHAR16 kEspCapsuleFile[] = u"\\EFI\\Dovrin\\kobalts.bin";
constexpr UINT64 kFileModeReadWrite = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE;
constexpr UINT64 kFileModeCreate = kFileModeReadWrite | EFI_FILE_MODE_CREATE;
constexpr UINT64 kDirectoryAttribute = 0x10;

// The device path nodes that tell the bus of a volume.
constexpr UINT32 kNoEspIndex = 0xFF;

struct SecureCapsuleRequest {
  UINT32 size;
  UINT8 viaEsp;
  UINT32 address;
  UINT8 status;
  UINT8 action;
  UINT8 extra;
};

struct CapsuleState {
  Bool viaEspSetting;
  Bool platformProbed;
  Bool platformSecure;
  Bool capsuleOnPartition;
  UINT8 capsuleAction;
  Bool capsuleStaged;
  EFI_FILE_PROTOCOL* espRoot;
  SecureCapsuleRequest request;
};
constinit CapsuleState capsule = {false, false, false, false, kActionDoNothing, false, nullptr, {}};

VOID WriteU64(UINT8* place, UINT64 value) {
  WriteU32(place, (UINT32)value);
  WriteU32(place + 4, (UINT32)(value >> 32));
}

VOID ResetRequest() {
  ZeroMem(&capsule.request, sizeof(capsule.request));
  capsule.request.viaEsp = capsule.viaEspSetting ? 1 : 0;
}

// The single call of function 48h; fills status, action and extra of the request.
Bool Oblis_48h(SecureCapsuleRequest* request) {
  TraceScope trace(kOblis48h);
  UINT8* list = nullptr;
  UINT8* record = nullptr;
  if (!GetOblisBuffer(kOblisBufferBytes, &list) || !GetOblisBuffer2(kOblisBufferBytes, &record)) {
    return trace.Fail(kReasonAllocateOblis);
  }
  ZeroMem(list, kOblisBufferBytes);
  ZeroMem(record, kOblisBufferBytes);
  UINT32 count = BuildCapsuleBlockList(list, request->address, request->size);
  LogPrint(kLogDetail, kTraceBlockList, count, request->size);
  CopyMem(record, kExtendedRecordSignature, sizeof(kExtendedRecordSignature));
  WriteU32(record + 4, kExtendedRecordLength);
  record[kExtendedRecordByte] = request->viaEsp;

  UINT16 answer = OblisCall_48h(request->size, PhysicalAddressOf(record), PhysicalAddressOf(list));
  request->extra = 0;
  if (CompareMem(record, kExtendedAnswerSignature, sizeof(kExtendedAnswerSignature)) == 0) {
    request->extra = record[kExtendedRecordByte];
  }
  request->status = (UINT8)(answer & 0xFF);
  request->action = (UINT8)(answer >> 8);
  if (request->status == kOblisSuccess) {
    return true;
  }
  LogPrint(kLogDetail, kTrace48hFailed, request->status);
  // The probe carries no image: any answer but "not supported" says that the firmware takes
  // capsules.
  if (request->size == 0 && request->status != kOblisUnsupported) {
    return true;
  }
  return trace.Fail(kReasonNotSuccess);
}

// The first handle of one pass: eMMC (a controller with a hard-drive partition), SATA or USB.
Bool FindHandleOfBus(EFI_HANDLE* handles, UINTN count, UINT32 pass, UINTN* found) {
  for (UINTN index = 0; index < count; ++index) {
    EFI_HANDLE handle = handles[index];
    Bool match = false;
    if (pass == 0) {
      match = HandlePathHasNode(handle, kDevicePathTypeHardware, kDevicePathSubtypeController) &&
              HandlePathHasNode(handle, kDevicePathTypeMedia, kDevicePathSubtypeHardDrive);
    } else if (pass == 1) {
      match = HandlePathHasNode(handle, kDevicePathTypeMessaging, kDevicePathSubtypeSata);
    } else {
      match = HandlePathHasNode(handle, kDevicePathTypeMessaging, kDevicePathSubtypeUsb);
    }
    if (match) {
      *found = index;
      return true;
    }
  }
  return false;
}

Bool CapsuleFlash(const UINT8* image, UINT32 size);

// Opens the volume of the first handle on the preferred bus and keeps its root; the handle list
// stays the caller's.
Bool OpenEspVolume(EFI_HANDLE* handles, UINTN count) {
  // eMMC before SATA before USB, whatever the order of the handles.
  static constexpr const CHAR16* kPassTraces[] = {kTraceEmmc, kTraceSata, kTraceUsb};
  UINTN found = 0;
  Bool located = false;
  for (UINT32 pass = 0; pass < 3 && !located; ++pass) {
    if (FindHandleOfBus(handles, count, pass, &found)) {
      LogPrint(kLogDetail, kPassTraces[pass], (UINT32)found);
      located = true;
    }
  }
  if (!located) {
    LogPrint(kLogDetail, kTraceNoEsp, kNoEspIndex);
    return false;
  }
  VOID* protocol = nullptr;
  if (EFI_ERROR(gBS->HandleProtocol(handles[found], &kSimpleFileSystemProtocolGuid, &protocol))) {
    return false;
  }
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* fileSystem = static_cast<EFI_SIMPLE_FILE_SYSTEM_PROTOCOL*>(protocol);
  EFI_FILE_PROTOCOL* root = nullptr;
  if (EFI_ERROR(fileSystem->OpenVolume(fileSystem, &root))) {
    LogPrint(kLogDetail, kTraceOpenVolumeFail);
    return false;
  }
  capsule.espRoot = root;
  return true;
}

}  // namespace

// The image in 512 KB blocks, described in place: only the list goes to the firmware. The
// addresses are computed in 32 bits and widened with their sign, as the firmware expects them.
UINT32 BuildCapsuleBlockList(UINT8* list, UINT32 address, UINT32 size) {
  UINT32 count = size / kCapsuleBlockBytes + (size % kCapsuleBlockBytes != 0 ? 1 : 0);
  UINT32 limit = (kOblisBufferBytes - kBlockListHeadBytes) / kBlockListEntryBytes;
  if (count > limit) {
    count = limit;  // 8 GB and more; a 32-bit size never gets here
  }
  WriteU32(list, count);
  for (UINT32 index = 0; index < count; ++index) {
    UINT32 offset = index * kCapsuleBlockBytes;
    UINT32 length = size - offset < kCapsuleBlockBytes ? size - offset : kCapsuleBlockBytes;
    UINT64 blockAddress = (UINT64)(INT64)(INT32)(address + offset);
    UINT8* entry = list + kBlockListHeadBytes + index * kBlockListEntryBytes;
    WriteU64(entry, length);
    WriteU64(entry + 8, blockAddress);
  }
  return count;
}

VOID SetViaEsp(UINT8 viaEsp) { capsule.viaEspSetting = viaEsp == 1; }

Bool IsCapsuleStaged() { return capsule.capsuleStaged; }

Bool SMI_IsSecurePlatform() {
  if (capsule.platformProbed) {
    return capsule.platformSecure;
  }
  TraceScope trace(kSmiIsSecurePlatform);
  capsule.platformProbed = true;
  ResetRequest();
  if (Oblis_48h(&capsule.request)) {
    if ((capsule.request.extra & kCapsuleOnPartitionBit) != 0) {
      capsule.capsuleOnPartition = true;
    }
    capsule.platformSecure = true;
    LogPrint(kLogDetail, kTracePlatformSecure);
  } else {
    LogPrint(kLogDetail, kTracePlatformLegacy);
    // A legacy answer closes the probe under the capsule flash's name, as the log has always
    // shown it.
    trace.FailAs(kSmiSecureCapsuleFlash, kReasonOblis48hFailed);
  }
  return capsule.platformSecure;
}

Bool SMI_SecureCapsuleFlash(const UINT8* image, UINT32 size) {
  TraceScope trace(kSmiSecureCapsuleFlash);
  ResetRequest();
  // With the capsule on the partition the firmware reads the file, so the list counts from 0.
  if (!(capsule.capsuleOnPartition && capsule.viaEspSetting)) {
    capsule.request.address = PhysicalAddressOf(image);
  }
  capsule.request.size = size;
  if (!Oblis_48h(&capsule.request)) {
    return trace.Fail(kReasonOblis48hFailed);
  }
  if (capsule.request.status != kOblisSuccess) {
    return trace.Fail(kReasonNotSuccess);
  }
  capsule.capsuleAction = capsule.request.action;
  LogPrint(kLogDetail, kTraceBiosAction, capsule.capsuleAction);
  return true;
}

Bool FuncSize_entire48h(const UINT8* payload, UINT32 payloadSize) {
  LogPrint(kLogDetail, kTraceEntireSecure, GetRomSize(), payloadSize);
  if (GetRegionFlags() == 0) {
    return true;
  }
  return GetExternalMaps(payload, payloadSize);
}

Bool FuncSize_region48h(const UINT8* payload, UINT32 payloadSize) {
  (VOID) payload;
  if (GetRegionFlags() == 0) {
    // A payload smaller than the flash needs a region option.
    Print(kErrorSizeNotMatch, GetRomSize(), payloadSize);
    return false;
  }
  if (!GetExternalMaps(nullptr, 0)) {
    return false;
  }
  UINT32 biosOffset = 0;
  UINT32 biosSize = 0;
  FindCurrentRegion(kExternalBios, &biosOffset, &biosSize, nullptr);
  LogPrint(kLogDetail, kTraceRegionSecure, biosSize, payloadSize);
  return CheckRegionSize(payloadSize);
}

Bool FuncUpdate_via48h(const UINT8* image, UINT32 size) {
  UINT32 romSize = GetRomSize();
  ImageView payload = {};
  Bool securePlatform = false;
  {
    // The trace closes with the road taken, before the road itself is followed.
    TraceScope trace(kFuncUpdateVia48h);
    LogPrint(kLogDetail, kTraceCapsuleSize, size);
    LocateSecureFd(image, size);
    payload = SecurePayload();
    UINT32 ecSize = 0;
    if (HasSecureEc(&ecSize)) {
      if (!FuncChk_SizeEC(ecSize)) {
        return trace.Fail(kReasonSizeEc);
      }
      ImageView ec = SecureEcSlot(image, size);
      if (ec.length != 0) {
        KeepEcImage(ec.data, ec.length);
      }
    }
    if (romSize > payload.length) {
      if (!FuncSize_region48h(payload.data, payload.length)) {
        return trace.Fail(kReasonSizeRegion);
      }
    } else if (!FuncSize_entire48h(payload.data, payload.length)) {
      return trace.Fail(kReasonSizeEntire);
    }
    if (!PlatformNameCheckNeeded() && !FuncOblis_1Bh(payload.data, payload.length)) {
      return trace.Fail(kReasonModelCheck);
    }
    securePlatform = SMI_IsSecurePlatform();
    if (securePlatform && !UpdateOemME()) {
      return trace.Fail(kReasonOemMe);
    }
    trace.SetReason(securePlatform ? kReasonVia48h : kReasonVia15h);
  }
  return securePlatform ? CapsuleFlash(image, size) : FuncUpdate_via15h(payload.data, payload.length);
}

Bool FindEspRoot() {
  UINTN count = 0;
  EFI_HANDLE* handles = nullptr;
  if (EFI_ERROR(gBS->LocateHandleBuffer(ByProtocol, &kSimpleFileSystemProtocolGuid, nullptr, &count, &handles))) {
    return false;
  }
  Bool opened = OpenEspVolume(handles, count);
  gBS->FreePool(handles);
  return opened;
}

Bool CopyCapsuleToEsp(const UINT8* image, UINT32 size) {
  if (image == nullptr) {
    return false;
  }
  LogPrint(kLogDetail, kTraceViaEsp);
  if (!FindEspRoot()) {
    return false;
  }
  EFI_FILE_PROTOCOL* root = capsule.espRoot;
  EFI_FILE_PROTOCOL* file = nullptr;
  // Only the last component is created: "\EFI" has to be there already.
  if (EFI_ERROR(root->Open(root, &file, const_cast<CHAR16*>(kEspDirectory), kFileModeCreate, kDirectoryAttribute))) {
    LogPrint(kLogDetail, kTraceCreateDirFail, kEspDirectory);
    return false;
  }
  file->Close(file);
  // An older capsule is deleted first: an opened file keeps the tail of a longer old one.
  file = nullptr;
  if (!EFI_ERROR(root->Open(root, &file, const_cast<CHAR16*>(kEspCapsuleFile), kFileModeReadWrite, 0))) {
    if (EFI_ERROR(file->Delete(file))) {
      LogPrint(kLogDetail, kTraceDeleteFail, kEspCapsuleFile);
      return false;
    }
  }
  file = nullptr;
  if (EFI_ERROR(root->Open(root, &file, const_cast<CHAR16*>(kEspCapsuleFile), kFileModeCreate, 0))) {
    LogPrint(kLogDetail, kTraceCopyFail, kEspCapsuleFile);
    return false;
  }
  // The firmware's verdict on the file decides, so the results are not examined.
  UINTN written = size;
  file->Write(file, &written, const_cast<UINT8*>(image));
  file->Flush(file);
  file->Close(file);
  LogPrint(kLogDetail, kTraceCopied, (UINT32)written);
  return true;
}

namespace {

Bool CapsuleFlash(const UINT8* image, UINT32 size) {
  Bool viaEsp = capsule.viaEspSetting;
  if (viaEsp) {
    LogPrint(kLogDetail, kTraceCapsuleViaEsp);
    if (!CopyCapsuleToEsp(image, size)) {
      return false;
    }
  } else {
    LogPrint(kLogDetail, kTraceCapsuleVia48h);
  }
  if (!SMI_SecureCapsuleFlash(image, size)) {
    Print(kErrorCapsuleRefused);
    return false;
  }
  // On the partition road the action stays as settings and options make it; on the memory road
  // the firmware's answer decides what follows.
  if (viaEsp) {
    SetStatus_16h(0, kFinishLeaveAsIs, 0, CommonFlashFinishAction);
  } else {
    SetStatus_16h(0, IndexToAction_16h(capsule.capsuleAction), 0, CommonFlashFinishAction);
  }
  capsule.capsuleStaged = true;
  return true;
}

}  // namespace

VOID ResetCapsuleState() {
  capsule = {false, false, false, false, kActionDoNothing, false, nullptr, {}};
}
