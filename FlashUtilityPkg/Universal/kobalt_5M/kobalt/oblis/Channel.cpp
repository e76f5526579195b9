// The OBLIS channel: finding the SMI command port in the FADT and the SMI number behind the
// "$OBLIS" signature, the two low shared buffers, the raw call per function, the retry loop that
// every wrapper shares and the one error report. What the answers mean is left to the wrappers.
#include "PlatformSeams.h"
#include "config/Config.h"
#include "oblis/OblisInternal.h"
#include "output/Output.h"

namespace {

struct OblisChannel {
  Bool initialised;
  UINT16 commandPort;
  UINT8 smiNumber;
};

constinit OblisChannel gChannel = {false, 0, kDefaultSmiNumber};

struct OblisSharedBuffer {
  UINT8* data;
  UINT32 pages;
};
constinit OblisSharedBuffer gOblisBuffer = {nullptr, 0};
constinit OblisSharedBuffer gOblisBuffer2 = {nullptr, 0};

constexpr UINT32 kBiosAreaStart = 0xE0000;
constexpr UINT32 kBiosAreaSlots = 0x2000;
constexpr UINT32 kBiosAreaSlotBytes = 16;
// The area is read this much at a time; a stretch that cannot be read is read place by place,
// so that a gap in the memory costs only its own places.
constexpr UINT32 kBiosAreaChunkBytes = 1024;
constexpr UINT32 kSignatureLength = 6;
constexpr UINT32 kPageBytes = 0x1000;

constexpr UINT32 kRsdtAddressOffset = 16;
constexpr UINT32 kAcpiHeaderBytes = 36;
constexpr UINT32 kAcpiLengthOffset = 4;
constexpr UINT32 kFadtSmiCmdOffset = 48;
constexpr UINT32 kFadtDumpBytes = 52;

const CHAR16 kTraceSmiNumberFound[] = u" SMI main function number 0x%02x found in 0x%lx\r\n";
const CHAR16 kTraceSmiNumberDefault[] =
    u" OBLIS signature not found.\r\n Using default value 0xEF for SMI main function number.\r\n";
const CHAR16 kMessageRsdpNotFound[] = u"Error: RSDP not found!\r\n";
const CHAR16 kMessageRsdtNotFound[] = u"Error: RSDT not found!\r\n";
const CHAR16 kTraceFacpAddress[] = u" FACP table address = 0x%08lx\r\n";
const CHAR16 kLabelFacp[] = u"===== ACPI TABLE FACP =====\r\n";
const CHAR16 kMessageFacpNotFound[] = u"Error: FACP not found!\r\n";
const CHAR16 kMessagePortNotFound[] = u"Error: SMI command port not found!\r\n";
const CHAR16 kTraceCommandPort[] = u" SMI command port = 0x%04x\r\n";
const CHAR16 kTraceNoCommandPort[] = u" SMI command port not known, OBLIS %02Xh not called\r\n";
const CHAR16 kTraceCallSuccess[] = u"Call OBLIS success\r\n";
const CHAR16 kTraceCallFailed[] = u"Call OBLIS failed. Error Code: 0x%02x, Retry Count: %02d\r\n";
const CHAR16 kReasonNotSuccess[] = u"BIOS return not success";
const CHAR16 kMessageOblisFailed[] = u"\r\n\r\nError: OBLIS %Xh failed.\r\nInternal Error %X\r\n";

struct OblisErrorText {
  UINT8 code;
  const CHAR16* text;
};

// Searched from the top; the order is the firmware interface's own.
constexpr OblisErrorText kOblisErrorTexts[] = {
    {0x01, u"Access prohibited. (Need provide secure mechanism to work for it, EBX='$DVR')'\n"},
    {0xEF, u"Function not supported.\n"},
    {0x02, u"Output buffer length too small.\n"},
    {0x10, u"VATS: Variable not found.\n"},
    {0x11, u"VATS: Incorrect Output Buffer format.\n"},
    {0x12, u"VATS: Output buffer checksum failed.\n"},
    {0x13, u"VATS: Table revision not supported.\n"},
    {0x14, u"VATS: Error during variable part access.\n"},
    {0x20, u"FBTS: Permission is denied by user.\n"},
    {0x22, u"FBTS: Unknown platform rom map.\n"},
    {0x23, u"FBTS: Unknown flash part information.\n"},
    {0x24, u"FBTS: Read bios failed.\n"},
    {0x25, u"FBTS: Write bios failed.\n"},
    {0x26, u"FBTS: Erase bios failed.\n"},
    {0x27, u"FBTS: Cannot skip module check.\n"},
};
static_assert(sizeof(kOblisErrorTexts) / sizeof(kOblisErrorTexts[0]) == 15, "15 error texts");

Bool SameGuid(const EFI_GUID& left, const EFI_GUID& right) {
  return CompareMem(&left, &right, sizeof(EFI_GUID)) == 0;
}

// The RSDP pointer of the configuration table: the ACPI 2.0 entry wins over the 1.0 entry
// wherever either stands.
UINT32 FindRsdpAddress() {
  if (gST == nullptr || gST->ConfigurationTable == nullptr) {
    return 0;
  }
  UINT32 rsdp = 0;
  for (UINTN index = 0; index < gST->NumberOfTableEntries; ++index) {
    if (SameGuid(gST->ConfigurationTable[index].VendorGuid, kAcpi10TableGuid)) {
      rsdp = (UINT32)(UINTN)gST->ConfigurationTable[index].VendorTable;
      break;
    }
  }
  for (UINTN index = 0; index < gST->NumberOfTableEntries; ++index) {
    if (SameGuid(gST->ConfigurationTable[index].VendorGuid, kAcpi20TableGuid)) {
      rsdp = (UINT32)(UINTN)gST->ConfigurationTable[index].VendorTable;
      break;
    }
  }
  return rsdp;
}

Bool GetSharedBuffer(OblisSharedBuffer* shared, UINT32 size, UINT8** buffer) {
  UINT32 pages = (size + kPageBytes - 1) / kPageBytes;
  if (shared->data == nullptr) {
    if (gBS == nullptr || pages == 0) {
      return false;
    }
    EFI_PHYSICAL_ADDRESS address = kOblisBufferLimit;
    if (EFI_ERROR(gBS->AllocatePages(AllocateMaxAddress, EfiBootServicesData, pages, &address)) ||
        address == 0 || address + (UINT64)pages * kPageBytes - 1 > kOblisBufferLimit) {
      return false;
    }
    shared->data = (UINT8*)(UINTN)address;
    shared->pages = pages;
    ZeroMem(shared->data, (UINTN)pages * kPageBytes);
  } else if (pages > shared->pages) {
    // The buffer is kept at its first size; a larger request cannot be served from it.
    return false;
  }
  if (buffer != nullptr) {
    *buffer = shared->data;
  }
  return true;
}

Bool CodeIn(UINT8 code, const UINT8* codes, UINT8 count) {
  for (UINT8 index = 0; index < count; ++index) {
    if (codes != nullptr && codes[index] == code) {
      return true;
    }
  }
  return false;
}

// What every raw call does: the frame as the function table lays it out, then the port
// write. The settle wait behind the write is the transaction seam's business.
OblisRegisters RaiseOblis(UINT8 function, UINT32 ecx, UINT32 edi, UINT32 esi) {
  OblisRegisters frame;
  frame.ecx = ecx;
  frame.edi = edi;
  frame.esi = esi;
  frame.eax = ((UINT32)function << 8) | gChannel.smiNumber;
  frame.ebx = kOblisCallerSignature;
  frame.edx = gChannel.commandPort;
  // A run refused before the set-up (a bad option, say) still ends with the host's hook point
  // and final report. Without a command port from the FADT there is nowhere to raise an SMI,
  // and a write to port 0 would reach the DMA controller: no port is touched, and the call
  // answers as one that was never made.
  if (!gChannel.initialised) {
    LogPrint(kLogDetail, kTraceNoCommandPort, function);
    frame.eax = (frame.eax & 0xFFFFFF00u) | kOblisNoAttempt;
    return frame;
  }
  SmiTransaction(&frame);
  return frame;
}

UINT16 FormA(const OblisRegisters& frame) { return (UINT16)frame.eax; }
UINT16 FormC(const OblisRegisters& frame) { return (UINT16)(((frame.ecx & 0xFF) << 8) | (frame.eax & 0xFF)); }

}  // namespace

// A little-endian u32 of physical memory, as the ACPI tables hold their fields.
Bool ReadPhysicalU32(UINT32 address, UINT32* value) {
  UINT8 bytes[4] = {0, 0, 0, 0};
  if (!ReadPhysicalMemory(address, bytes, sizeof(bytes))) {
    return false;
  }
  *value = ReadU32(bytes);
  return true;
}

UINT8 GetSmiMainFunctionNumberFromPhysicalMemory() {
  // Composed here so that the whole signature never stands in the driver's constant data.
  CHAR8 signature[kSignatureLength] = {'#', 'O', 'B', 'L', 'I', 'S'};
  signature[0] = '$';
  UINT8 chunk[kBiosAreaChunkBytes];
  UINT8 single[kBiosAreaSlotBytes];
  Bool chunkRead = false;
  for (UINT32 index = 0; index < kBiosAreaSlots; ++index) {
    UINT32 address = kBiosAreaStart + index * kBiosAreaSlotBytes;
    UINT32 inChunk = (index * kBiosAreaSlotBytes) % kBiosAreaChunkBytes;
    if (inChunk == 0) {
      chunkRead = ReadPhysicalMemory(address, chunk, sizeof(chunk));
    }
    const UINT8* slot = chunk + inChunk;
    if (!chunkRead) {
      if (!ReadPhysicalMemory(address, single, sizeof(single))) {
        continue;
      }
      slot = single;
    }
    // The first byte rules out almost every slot without a compare.
    if (slot[0] == signature[0] && CompareMem(slot, signature, kSignatureLength) == 0) {
      UINT8 number = slot[kSignatureLength];
      LogPrint(kLogDetail, kTraceSmiNumberFound, number, (UINT64)address);
      return number;
    }
  }
  LogPrint(kLogDetail, kTraceSmiNumberDefault);
  return kDefaultSmiNumber;
}

Bool GetFacpTableAddress(UINT32* address) {
  TraceScope trace(u"GetFacpTableAddress");
  if (address != nullptr) {
    *address = 0;
  }
  UINT32 rsdp = FindRsdpAddress();
  if (rsdp == 0) {
    Print(kMessageRsdpNotFound);
    return trace.Fail(u"RSDP not found");
  }
  UINT32 rsdt = 0;
  if (!ReadPhysicalU32(rsdp + kRsdtAddressOffset, &rsdt) || rsdt == 0) {
    Print(kMessageRsdtNotFound);
    return trace.Fail(u"RSDT not found");
  }
  UINT32 rsdtLength = 0;
  if (!ReadPhysicalU32(rsdt + kAcpiLengthOffset, &rsdtLength) || rsdtLength < kAcpiHeaderBytes) {
    rsdtLength = kAcpiHeaderBytes;
  }
  UINT32 entries = (rsdtLength - kAcpiHeaderBytes) / 4;
  for (UINT32 index = 0; index < entries; ++index) {
    UINT32 table = 0;
    if (!ReadPhysicalU32(rsdt + kAcpiHeaderBytes + index * 4, &table) || table == 0) {
      continue;
    }
    UINT8 tableSignature[4] = {0, 0, 0, 0};
    if (!ReadPhysicalMemory(table, tableSignature, sizeof(tableSignature))) {
      continue;
    }
    if (CompareMem(tableSignature, "FACP", 4) != 0) {
      continue;
    }
    LogPrint(kLogDetail, kTraceFacpAddress, (UINT64)table);
    UINT8 head[kFadtDumpBytes];
    if (!ReadPhysicalMemory(table, head, sizeof(head))) {
      ZeroMem(head, sizeof(head));
    }
    HexDumpFramed(kLabelFacp, head, sizeof(head));
    if (address != nullptr) {
      *address = table;
    }
    return true;
  }
  return trace.Fail(u"Not found");
}

Bool FindSMICommandPort() {
  TraceScope trace(u"FindSMICommandPort");
  gChannel.smiNumber = GetSmiMainFunctionNumberFromPhysicalMemory();
  UINT32 fadt = 0;
  if (!GetFacpTableAddress(&fadt)) {
    Print(kMessageFacpNotFound);
    return trace.Fail(u"FACP not found");
  }
  UINT32 smiCmd = 0;
  if (!ReadPhysicalU32(fadt + kFadtSmiCmdOffset, &smiCmd)) {
    smiCmd = 0;
  }
  UINT16 port = (UINT16)smiCmd;
  if (port == 0) {
    Print(kMessagePortNotFound);
    return trace.Fail(u"SMI command port not found");
  }
  gChannel.commandPort = port;
  LogPrint(kLogDetail, kTraceCommandPort, port);
  return true;
}

Bool InitialSmi() {
  TraceScope trace(u"InitialSmi");
  if (gChannel.initialised) {
    trace.SetReason(u"Already initialed");
    return true;
  }
  if (!FindSMICommandPort()) {
    return trace.Fail(u"Find SMI command port failed");
  }
  gChannel.initialised = true;
  return true;
}

UINT16 GetSmiCommandPort() { return gChannel.commandPort; }
UINT8 GetSmiNumber() { return gChannel.smiNumber; }

Bool GetOblisBuffer(UINT32 size, UINT8** buffer) { return GetSharedBuffer(&gOblisBuffer, size, buffer); }
Bool GetOblisBuffer2(UINT32 size, UINT8** buffer) { return GetSharedBuffer(&gOblisBuffer2, size, buffer); }

UINT8 OblisAttempts() {
  // The attempt counter is 8 bits wide: a retry setting of 255 leaves no attempt at all.
  return (UINT8)(Settings()->others.smiErrorRetry + 1);
}

VOID OblisRetryDelay() {
  INT32 milliseconds = Settings()->others.smiErrorRetryDelay;
  for (INT32 count = 0; count < milliseconds; ++count) {
    gBS->Stall(1000);
  }
}

VOID ReportOblisError(UINT8 function, UINT8 code) {
  Print(kMessageOblisFailed, function, code);
  // The texts are formats like every message, so their line ends come out as CR LF.
  for (const OblisErrorText& row : kOblisErrorTexts) {
    if (row.code == code) {
      Print(row.text);
      return;
    }
  }
}

const CHAR16* RunOblisRetries(const OblisRetrySpec* spec, OblisAttempt attempt, VOID* context, UINT8* status) {
  UINT8 last = kOblisNoAttempt;
  UINT8 attempts = OblisAttempts();
  for (UINT8 count = 0; count < attempts; ++count) {
    last = attempt(context);
    if (last == kOblisSuccess) {
      LogPrint(kLogDetail, kTraceCallSuccess);
      break;
    }
    if (CodeIn(last, spec->loopEnding, spec->loopEndingCount)) {
      break;
    }
    LogPrint(kLogDetail, kTraceCallFailed, last, count + 1);
    OblisRetryDelay();
  }
  if (status != nullptr) {
    *status = last;
  }
  if (last == kOblisSuccess || CodeIn(last, spec->accepted, spec->acceptedCount)) {
    return nullptr;
  }
  if (spec->report) {
    ReportOblisError(spec->function, last);
  }
  return kReasonNotSuccess;
}

// ---- raw calls ----

UINT32 OblisCall_10h(UINT32 edi) {
  OblisRegisters frame = RaiseOblis(0x10, 0, edi, 0);
  return ((UINT32)(UINT16)frame.eax << 16) | (UINT16)frame.ecx;
}

UINT16 OblisCall_11h(UINT32 edi, UINT32* ecxOut) {
  OblisRegisters frame = RaiseOblis(0x11, 0, edi, 0);
  if (ecxOut != nullptr) {
    *ecxOut = frame.ecx;
  }
  return FormA(frame);
}

UINT16 OblisCall_12h(UINT32 edi, UINT32 esi) { return FormA(RaiseOblis(0x12, 0, edi, esi)); }

UINT16 OblisCall_13h(UINT32 edi, UINT32 esi) { return FormA(RaiseOblis(0x13, 0, edi, esi)); }

UINT16 OblisCall_16h(UINT8 clearCmos, UINT8 action, UINT32 esi) {
  return FormA(RaiseOblis(0x16, ((UINT32)clearCmos << 8) | action, 0, esi));
}

UINT16 OblisCall_1Ch() { return FormC(RaiseOblis(0x1C, 0, 0, 0)); }

UINT16 OblisCall_1Eh(UINT32 edi) { return FormA(RaiseOblis(0x1E, 0, edi, 0)); }

UINT16 OblisCall_1Fh(UINT32 point) { return FormA(RaiseOblis(0x1F, point, 0, 0)); }

UINT16 OblisCall_14h(UINT32 size, UINT32 address, UINT32 esi) { return FormA(RaiseOblis(0x14, size, address, esi)); }

UINT16 OblisCall_15h(UINT32 size, UINT32 address, UINT32 esi) { return FormA(RaiseOblis(0x15, size, address, esi)); }

UINT16 OblisCall_17h(UINT32 edi, UINT32 esi) { return FormA(RaiseOblis(0x17, kExternalMapBytes, edi, esi)); }

UINT16 OblisCall_1Ah(UINT8 action, UINT8 status) {
  return FormA(RaiseOblis(0x1A, ((UINT32)status << 8) | action, 0, 0));
}

UINT16 OblisCall_19h(UINT32 edi) { return FormA(RaiseOblis(0x19, 1, edi, 0)); }

UINT16 OblisCall_1Bh(UINT32 size, UINT32 address, UINT32 esi) { return FormA(RaiseOblis(0x1B, size, address, esi)); }

UINT16 OblisCall_44h(UINT32 edi, UINT32 esi) { return FormA(RaiseOblis(0x44, 0, edi, esi)); }

UINT16 OblisCall_45h(UINT32 ecx) { return FormA(RaiseOblis(0x45, ecx, 0, 0)); }

UINT16 OblisCall_48h(UINT32 size, UINT32 edi, UINT32 esi) { return FormC(RaiseOblis(0x48, size, edi, esi)); }

UINT32 OblisCall_4Ch(UINT32 size, UINT8 verifyOnly, UINT32 esi) {
  OblisRegisters frame = RaiseOblis(0x4C, size, verifyOnly, esi);
  return ((frame.ecx & 0xFFFF) << 16) | (frame.eax & 0xFFFF);
}

UINT16 OblisCall_49h(UINT32 ecx) { return FormA(RaiseOblis(0x49, ecx, 0, 0)); }

UINT16 OblisCall_20h(UINT8 action, UINT8 block, UINT32 size, UINT32 esi) {
  return FormA(RaiseOblis(0x20, ((UINT32)block << 8) | action, size, esi));
}

UINT16 OblisCall_21h(UINT8 sizeIndex, UINT32 esi) { return FormC(RaiseOblis(0x21, (UINT32)sizeIndex << 8, 0, esi)); }

UINT16 OblisCall_41h(UINT32 ecx) { return FormA(RaiseOblis(0x41, ecx, 0, 0)); }

UINT16 OblisCall_42h(UINT8 lastMark, UINT8 piece, UINT32 count, UINT32 esi) {
  return FormA(RaiseOblis(0x42, ((UINT32)piece << 8) | lastMark, count, esi));
}

VOID ResetChannelState() {
  gChannel = {false, 0, kDefaultSmiNumber};
  gOblisBuffer = {nullptr, 0};
  gOblisBuffer2 = {nullptr, 0};
}

VOID ResetOblisState() {
  ResetBlockTableState();
  ResetBvdtMapState();
  ResetChannelState();
  ResetFinishState();
  ResetFlashReadState();
  ResetMapsState();
  ResetPlatformStatusState();
}

namespace {

VOID FreeSharedBuffer(OblisSharedBuffer* shared) {
  if (shared->data != nullptr && gBS != nullptr) {
    gBS->FreePages((EFI_PHYSICAL_ADDRESS)(UINTN)shared->data, shared->pages);
  }
  *shared = {nullptr, 0};
}

}  // namespace

VOID ReleaseOblisMemory() {
  ReleaseMapsMemory();
  FreeSharedBuffer(&gOblisBuffer);
  FreeSharedBuffer(&gOblisBuffer2);
}
