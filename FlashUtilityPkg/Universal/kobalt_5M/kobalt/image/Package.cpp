// The ROM package: the shell application's own file with images, a settings text and further
// files packed into it. This file tells whether the running application is a package, hands out
// the packed settings and the image that belongs to this machine, and unpacks files on demand.
// What the package's option texts do to the command line is the config folder's.
//
// The package is the tool's own file, so a marker kept whole in the tool's constants would be
// found there: each stands with '#' in place of its '$', which goes in just before the search.
// Every offset and size a record gives is bounded by the file before it is used.
#include "config/Config.h"
#include "FileLayer.h"
#include "image/ImageInternal.h"
#include "output/Output.h"

namespace {

constexpr CHAR8 kRomPackMarker[] = "#ROM_PACK";
constexpr CHAR8 kIniPackMarker[] = "#INI_PACK";
constexpr CHAR8 kExtPackMarker[] = "#EXT_PACK";
constexpr CHAR8 kResourceMarker[] = "#EXT_RESRC";
constexpr CHAR16 kImageMarkerFormat[] = u"#ROM_P%02d_";
constexpr UINTN kMarkerBytes = 16;

// The records' fields, counted from the first byte of the marker.
constexpr UINT32 kDataOffsetField = 0x09;
constexpr UINT32 kDataSizeField = 0x0D;
constexpr UINT32 kRomPackHeadBytes = 322;
constexpr UINT32 kRomPackDefaultsField = 0x11;
constexpr UINT32 kRomPackPermittedField = 0x42;
constexpr UINT32 kRomPackDumpBytes = 128;
constexpr UINT32 kIniPackHeadBytes = 17;
constexpr UINT32 kBiosCountField = 0x0D;
constexpr UINT32 kExtPackNameField = 0x0E;
constexpr UINT32 kImageRecordNameField = 0x11;
constexpr UINT32 kResourceVerifyField = 0x0A;
constexpr UINT32 kResourceSizeField = 0x0C;
constexpr UINT32 kResourceNameField = 0x10;
constexpr UINT32 kResourceNameBytes = 48;
constexpr UINT32 kResourceHeadBytes = 0x40;
constexpr UINT16 kResourceVerifyCode = 0x55AA;
// An image's name is kept (and shown) with at most 63 characters.
constexpr UINTN kNameCharacters = 64;
constexpr UINTN kMatchedNameCharacters = 40;
constexpr UINTN kPathCharacters = 1024;

constexpr CHAR16 kLoadPackageFD[] = u"LoadPackageFD";
constexpr CHAR16 kGetResourceFile[] = u"GetResourceFile";
constexpr CHAR16 kExtractPackage[] = u"ExtractPackage";
constexpr CHAR16 kRomPackLabel[] = u"===== ROM PACK Info =====\r\n";
constexpr CHAR16 kIniPackLabel[] = u"===== INI PACK Info =====\r\n";
constexpr CHAR16 kTraceMatchedName[] = u"MultiFD match filename [%s]\r\n";
constexpr CHAR16 kTraceRomPackMissing[] = u"#ROM_PACK NOT found\r\n";
constexpr CHAR16 kTraceExtPackMissing[] = u"#EXT_PACK NOT found\r\n";
constexpr CHAR16 kTracePackImage[] = u"PackImage - %s\r\n";
constexpr CHAR16 kTraceBiosCount[] = u"BiosCount - %d\r\n";
constexpr CHAR16 kTraceFirstImage[] = u"1st\r\n";
constexpr CHAR16 kTraceImageRecord[] = u"%a - %s\r\n";
constexpr CHAR16 kTraceLaterImage[] = u"NOT 1st\r\n";
constexpr CHAR16 kTraceNoMatch[] = u"NO match\r\n";
constexpr CHAR16 kTraceHeadOutside[] = u"%a record at 0x%X: its 0x%X bytes reach past the package's end (0x%X)\r\n";
constexpr CHAR16 kTraceDataOutside[] = u"%a record at 0x%X: data 0x%X, 0x%X bytes, lies outside the package (0x%X)\r\n";
constexpr CHAR16 kReasonDamaged[] = u"package record outside the file";
constexpr CHAR16 kTraceResourceMissing[] = u"resource not found. (%a)\r\n";
constexpr CHAR16 kTraceVerifyFail[] = u"Verify code fail. (0x%x)\r\n";
constexpr CHAR16 kTraceNotMatched[] = u"not matched. (%d)(%a/%a)\r\n";
constexpr CHAR16 kTraceResourceSaved[] = u"resource file saved. (%s)\r\n";
constexpr CHAR16 kTraceResourceSaveFail[] = u"save resource to file fail. (%s)\r\n";
constexpr CHAR16 kTraceNoMore[] = u"no more (%a)\r\n";
constexpr CHAR16 kErrorExtractNoPackage[] =
    u"\r\n\r\n       Error:\r\n       command -extrFD supports in package mode ONLY.\r\n\r\n\r\n";
constexpr CHAR16 kErrorExtractDirectory[] = u"\r\n\r\n       Error!\r\n       Create specific Directory fail. (%s)\r\n";
constexpr CHAR16 kErrorExtractInvalid[] =
    u"\r\n\r\n       Error:\r\n       Package invalid. specific version of VelumPack is required for command "
    u"\"-extrFD\".\r\n\r\n\r\n";
constexpr CHAR16 kErrorExtractWrite[] = u"\r\n\r\n       Error!\r\n       extract FD fail. (%s)\r\n";
constexpr CHAR16 kExtractedTo[] = u"       extracts to... %s\r\n";
constexpr CHAR16 kPathFormat[] = u"%s\\%a";

struct PackageState {
  UINT8* file;  // the whole application file, kept for the run in package mode
  UINT32 size;
  UINT8 romPackHeader[kRomPackHeadBytes];
  UINT8 iniPackHeader[kIniPackHeadBytes];
  UINT8* packedIni;  // unscrambled, with a terminator behind
  UINT32 packedIniSize;
  Bool packedIniDamaged;
};
constinit PackageState gPackage = {};

// The package file and its length: the bounds of every record read.
struct PackageBytes {
  const UINT8* data;
  UINT32 size;
};

// A marker as searched for: the stored text with its '$' put in.
VOID MakeMarker(CHAR8* marker, const CHAR8* stored) {
  UINTN length = StrLen8(stored);
  CopyMem(marker, stored, length + 1);
  marker[0] = '$';
}

// "$ROM_P<nn>_" for a further image; stored keeps the traced form with its '#'.
VOID MakeImageMarker(CHAR8* marker, CHAR8* stored, UINT32 number) {
  CHAR16 wide[kMarkerBytes];
  FormatText(wide, kMarkerBytes, kImageMarkerFormat, number);
  UnicodeToAscii(stored, kMarkerBytes, wide);
  MakeMarker(marker, stored);
}

// The first record with the stored marker at or behind from.
Bool FindRecord(PackageBytes package, UINT32 from, const CHAR8* stored, UINT32* at) {
  CHAR8 marker[kMarkerBytes];
  MakeMarker(marker, stored);
  if (from > package.size) {
    return false;
  }
  UINT32 found = 0;
  if (!FindSignature(package.data + from, package.size - from, reinterpret_cast<const UINT8*>(marker),
                     (UINT32)StrLen8(marker), &found)) {
    return false;
  }
  *at = from + found;
  return true;
}

// The record's fixed head lies inside the file; the trace names the record that does not.
Bool HeadFits(PackageBytes package, const CHAR8* stored, UINT32 at, UINT32 headBytes) {
  if ((UINT64)at + headBytes <= package.size) {
    return true;
  }
  LogPrint(kLogDetail, kTraceHeadOutside, stored, at, headBytes, package.size);
  return false;
}

// The record's data, offset counted from its marker, lies inside the file.
Bool DataFits(PackageBytes package, const CHAR8* stored, UINT32 at, UINT32 offset, UINT32 length) {
  if ((UINT64)at + offset + length <= package.size) {
    return true;
  }
  LogPrint(kLogDetail, kTraceDataOutside, stored, at, offset, length, package.size);
  return false;
}

// A name text at the given place: up to its terminator, the file's end or capacity - 1 bytes.
VOID ReadName(PackageBytes package, UINT64 from, UINT32 fieldBytes, CHAR8* name, UINTN capacity) {
  ZeroMem(name, capacity);
  for (UINTN i = 0; i + 1 < capacity && i < fieldBytes && from + i < package.size; i++) {
    CHAR8 c = (CHAR8)package.data[from + i];
    if (c == 0) {
      break;
    }
    name[i] = c;
  }
}

constexpr CHAR8 FoldLetter8(CHAR8 c) { return (c >= 'A' && c <= 'Z') ? (CHAR8)(c - 'A' + 'a') : c; }

// Whole texts, ASCII letters in either case.
Bool SameName(const CHAR8* left, const CHAR8* right) {
  for (; *left != 0 || *right != 0; left++, right++) {
    if (FoldLetter8(*left) != FoldLetter8(*right)) {
      return false;
    }
  }
  return true;
}

// The data of a record as a new pool block for the caller; null if the pool has none.
UINT8* CopyData(PackageBytes package, UINT32 from, UINT32 length) {
  UINT8* copy = static_cast<UINT8*>(AllocateZeroPool(length != 0 ? length : 1));
  if (copy != nullptr) {
    CopyMem(copy, package.data + from, length);
  }
  return copy;
}

// An image record (the first one's data fields or a further one's) that lies inside the file.
Bool ImageRecordFits(PackageBytes package, const CHAR8* stored, UINT32 at, UINT32 headBytes, UINT32* offset,
                     UINT32* length) {
  if (!HeadFits(package, stored, at, headBytes)) {
    return false;
  }
  *offset = ReadU32(package.data + at + kDataOffsetField);
  *length = ReadU32(package.data + at + kDataSizeField);
  return DataFits(package, stored, at, *offset, *length);
}

// The packed settings are stored rotated left by one bit.
VOID Unscramble(UINT8* data, UINT32 length) {
  for (UINT32 i = 0; i < length; i++) {
    data[i] = (UINT8)((data[i] >> 1) | (data[i] << 7));
  }
}

VOID KeepPackedIni(PackageBytes package, UINT32 at) {
  UINT32 head = package.size - at < kIniPackHeadBytes ? package.size - at : kIniPackHeadBytes;
  CopyMem(gPackage.iniPackHeader, package.data + at, head);
  HexDumpFramed(kIniPackLabel, gPackage.iniPackHeader, kIniPackHeadBytes);
  UINT32 offset = 0;
  UINT32 length = 0;
  if (!ImageRecordFits(package, kIniPackMarker, at, kIniPackHeadBytes, &offset, &length)) {
    gPackage.packedIniDamaged = true;
    return;
  }
  gPackage.packedIni = static_cast<UINT8*>(AllocateZeroPool((UINTN)length + 1));
  if (gPackage.packedIni == nullptr) {
    return;
  }
  CopyMem(gPackage.packedIni, package.data + at + offset, length);
  Unscramble(gPackage.packedIni, length);
  gPackage.packedIniSize = length;
}

// The first image's name and the number of images from the "$EXT_PACK" record.
struct ImageList {
  UINT8 biosCount;
  CHAR8 firstName[kNameCharacters];
};
Bool ReadImageList(PackageBytes package, UINT32 at, ImageList* list) {
  if (!HeadFits(package, kExtPackMarker, at, kExtPackNameField)) {
    return false;
  }
  list->biosCount = package.data[at + kBiosCountField];
  ReadName(package, (UINT64)at + kExtPackNameField, kNameCharacters, list->firstName, kNameCharacters);
  return true;
}

// One further image's record: where its data lies and its name.
struct ImageRecord {
  CHAR8 stored[kMarkerBytes];
  UINT32 at;
  UINT32 offset;
  UINT32 length;
  CHAR8 name[kNameCharacters];
};
enum class RecordLookup : UINT8 { Found, Absent, Damaged };
RecordLookup FindImageRecord(PackageBytes package, UINT32 number, ImageRecord* record) {
  CHAR8 marker[kMarkerBytes];
  MakeImageMarker(marker, record->stored, number);
  if (!FindRecord(package, 0, record->stored, &record->at)) {
    return RecordLookup::Absent;
  }
  if (!ImageRecordFits(package, record->stored, record->at, kImageRecordNameField, &record->offset, &record->length)) {
    return RecordLookup::Damaged;
  }
  ReadName(package, (UINT64)record->at + kImageRecordNameField, kNameCharacters, record->name, kNameCharacters);
  return RecordLookup::Found;
}

VOID TraceImageName(const CHAR8* stored, const CHAR8* name) {
  CHAR16 wide[kNameCharacters];
  AsciiToUnicode(wide, kNameCharacters, name);
  LogPrint(kLogDetail, kTraceImageRecord, stored, wide);
}

// Writes one image under the extraction directory, with the two messages; false when it failed.
Bool ExtractImage(PackageBytes package, UINT32 from, UINT32 length, const CHAR8* name) {
  CHAR16 path[kPathCharacters];
  FormatText(path, kPathCharacters, kPathFormat, ExtractDirectory(), name);
  if (!SaveBufferToFile(path, package.data + from, length)) {
    Print(kErrorExtractWrite, path);
    return false;
  }
  Print(kExtractedTo, path);
  return true;
}

// ExtractPackage once the application file is read.
VOID ExtractImages(PackageBytes package) {
  UINT32 extAt = 0;
  UINT32 romAt = 0;
  if (!FindRecord(package, 0, kExtPackMarker, &extAt) || !FindRecord(package, 0, kRomPackMarker, &romAt)) {
    Print(kErrorExtractInvalid);
    return;
  }
  ImageList list = {};
  UINT32 offset = 0;
  UINT32 length = 0;
  if (!ReadImageList(package, extAt, &list) ||
      !ImageRecordFits(package, kRomPackMarker, romAt, kRomPackHeadBytes, &offset, &length)) {
    Print(kErrorExtractInvalid);
    return;
  }
  if (!ExtractImage(package, romAt + offset, length, list.firstName) || list.biosCount == 1) {
    return;
  }
  // Unlike the image choice, extraction stops at the first number that is missing.
  for (UINT32 number = 1; number < list.biosCount; number++) {
    ImageRecord record = {};
    RecordLookup lookup = FindImageRecord(package, number, &record);
    if (lookup == RecordLookup::Absent) {
      LogPrint(kLogDetail, kTraceNoMore, record.stored);
      return;
    }
    if (lookup == RecordLookup::Damaged ||
        !ExtractImage(package, record.at + record.offset, record.length, record.name)) {
      return;
    }
  }
}

}  // namespace

Bool SetPackageStatus() {
  UINT8* file = nullptr;
  UINT32 size = 0;
  if (!ReadFile(ApplicationName(), &file, &size)) {
    return false;
  }
  PackageBytes package = {file, size};
  UINT32 at = 0;
  Bool isPackage = FindRecord(package, 0, kRomPackMarker, &at);
  if (isPackage) {
    // A head cut short by the file's end leaves its missing bytes zero: empty option texts, and
    // data fields that the image load refuses.
    UINT32 head = size - at < kRomPackHeadBytes ? size - at : kRomPackHeadBytes;
    CopyMem(gPackage.romPackHeader, file + at, head);
    gPackage.file = file;
    gPackage.size = size;
    EnterPackageMode(reinterpret_cast<const CHAR8*>(gPackage.romPackHeader + kRomPackDefaultsField),
                     reinterpret_cast<const CHAR8*>(gPackage.romPackHeader + kRomPackPermittedField));
    HexDumpFramed(kRomPackLabel, gPackage.romPackHeader, kRomPackDumpBytes);
  }
  // The settings are taken whether or not the file is a package.
  if (FindRecord(package, 0, kIniPackMarker, &at)) {
    KeepPackedIni(package, at);
  }
  if (!isPackage) {
    FreePoolAndNull(file);
  }
  return true;
}

Bool GetPackedIni(const UINT8** data, UINT32* size) {
  *data = gPackage.packedIni;
  *size = gPackage.packedIniSize;
  return !gPackage.packedIniDamaged;
}

Bool LoadPackageFD(UINT8** image, UINT32* size) {
  TraceScope trace(kLoadPackageFD);
  *image = nullptr;
  *size = 0;
  CHAR16 chosenWide[kMatchedNameCharacters] = {};
  GetMatchedImageName(chosenWide);
  chosenWide[kMatchedNameCharacters - 1] = 0;
  LogPrint(kLogDetail, kTraceMatchedName, chosenWide);
  CHAR8 chosen[kMatchedNameCharacters];
  UnicodeToAscii(chosen, kMatchedNameCharacters, chosenWide);

  PackageBytes package = {gPackage.file, gPackage.size};
  UINT32 at = 0;
  if (package.data == nullptr || !FindRecord(package, 0, kRomPackMarker, &at)) {
    LogPrint(kLogDetail, kTraceRomPackMissing);
    return false;
  }
  UINT32 offset = 0;
  UINT32 length = 0;
  if (!ImageRecordFits(package, kRomPackMarker, at, kRomPackHeadBytes, &offset, &length)) {
    return trace.Fail(kReasonDamaged);
  }
  UINT8* first = CopyData(package, at + offset, length);
  if (first == nullptr) {
    return false;
  }
  if (!FindRecord(package, 0, kExtPackMarker, &at)) {
    LogPrint(kLogDetail, kTraceExtPackMissing);
    *image = first;
    *size = length;
    return true;
  }
  ImageList list = {};
  if (!ReadImageList(package, at, &list)) {
    FreePoolAndNull(first);
    return trace.Fail(kReasonDamaged);
  }
  CHAR16 firstWide[kNameCharacters];
  AsciiToUnicode(firstWide, kNameCharacters, list.firstName);
  LogPrint(kLogDetail, kTracePackImage, firstWide);
  LogPrint(kLogDetail, kTraceBiosCount, list.biosCount);
  if (chosen[0] == 0 || SameName(chosen, list.firstName) || list.biosCount == 1) {
    LogPrint(kLogDetail, kTraceFirstImage);
    *image = first;
    *size = length;
    return true;
  }
  FreePoolAndNull(first);
  // Every number is looked for from the start of the file; a missing one is passed over.
  for (UINT32 number = 1; number < list.biosCount; number++) {
    ImageRecord record = {};
    RecordLookup lookup = FindImageRecord(package, number, &record);
    if (lookup == RecordLookup::Absent) {
      continue;
    }
    if (lookup == RecordLookup::Damaged) {
      return trace.Fail(kReasonDamaged);
    }
    TraceImageName(record.stored, record.name);
    if (SameName(chosen, record.name)) {
      *image = CopyData(package, record.at + record.offset, record.length);
      if (*image == nullptr) {
        return false;
      }
      *size = record.length;
      LogPrint(kLogDetail, kTraceLaterImage);
      return true;
    }
  }
  LogPrint(kLogDetail, kTraceNoMatch);
  return false;
}

Bool GetResourceFile(const CHAR8* name) {
  TraceScope trace(kGetResourceFile);
  UINT8* file = nullptr;
  UINT32 size = 0;
  if (!ReadFile(ApplicationName(), &file, &size)) {
    return false;
  }
  PoolBuffer owner;
  owner.Adopt(file, size);
  PackageBytes package = {file, size};
  // The search starts one byte in, and each next one a byte behind the record just found.
  UINT32 from = 1;
  for (UINT32 number = 1;; number++) {
    UINT32 at = 0;
    if (!FindRecord(package, from, kResourceMarker, &at)) {
      LogPrint(kLogDetail, kTraceResourceMissing, name);
      return false;
    }
    from = at + 1;
    if (!HeadFits(package, kResourceMarker, at, kResourceHeadBytes)) {
      return trace.Fail(kReasonDamaged);
    }
    UINT16 verify = ReadU16(file + at + kResourceVerifyField);
    if (verify != kResourceVerifyCode) {
      LogPrint(kLogDetail, kTraceVerifyFail, verify);
      continue;
    }
    CHAR8 recordName[kResourceNameBytes + 1];
    ReadName(package, (UINT64)at + kResourceNameField, kResourceNameBytes, recordName, sizeof(recordName));
    if (!SameName(recordName, name)) {
      LogPrint(kLogDetail, kTraceNotMatched, number, name, recordName);
      continue;
    }
    UINT32 length = ReadU32(file + at + kResourceSizeField);
    if (!DataFits(package, kResourceMarker, at, kResourceHeadBytes, length)) {
      return trace.Fail(kReasonDamaged);
    }
    CHAR16 wide[kNameCharacters];
    AsciiToUnicode(wide, kNameCharacters, recordName);
    if (!SaveBufferToFile(wide, file + at + kResourceHeadBytes, length)) {
      LogPrint(kLogDetail, kTraceResourceSaveFail, wide);
      return false;
    }
    LogPrint(kLogDetail, kTraceResourceSaved, wide);
    return true;
  }
}

VOID ExtractPackage() {
  // The query's short banner stands on the screen already.
  TraceScope trace(kExtractPackage);
  if (!IsPackageMode()) {
    Print(kErrorExtractNoPackage);
    return;
  }
  if (!MakeDirectory(ExtractDirectory())) {
    Print(kErrorExtractDirectory, ExtractDirectory());
  }
  UINT8* file = nullptr;
  UINT32 size = 0;
  if (!ReadFile(ApplicationName(), &file, &size)) {
    Print(kErrorExtractInvalid);
    return;
  }
  PoolBuffer owner;
  owner.Adopt(file, size);
  ExtractImages({file, size});
}

VOID ReleasePackageMemory() {
  FreePoolAndNull(gPackage.file);
  FreePoolAndNull(gPackage.packedIni);
}

VOID ResetPackageState() { gPackage = {}; }
