// What the image tool offers to its command line and to tests: the description of a test flash
// image, its reading from JSON, the building of the bytes, and the inspection of an image file.
// How an image travels to the flash, and what the driver makes of it, is not this folder's business.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "RbuImageFormat.h"

namespace zimage {

// Any fault in a description, a fill file or an image layout; the text says what and where.
struct ImageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The SPI regions of the Intel flash descriptor, in the order of the FLREG registers.
enum class SpiRegion : uint8_t { Descriptor = 0, Bios = 1, Me = 2, Gbe = 3, PlatformData = 4 };
constexpr int kSpiRegionCount = 5;
const char* SpiRegionName(SpiRegion region);  // "descriptor", "bios", "me", "gbe", "platform_data"

// How a stretch of bytes is filled: one byte value, a pseudo-random stream from a seed, or a
// file's content placed at the end (or start) of the stretch with padding around it.
struct Fill {
  enum class Kind { Byte, Random, File } kind = Kind::Byte;
  uint8_t byte = 0xFF;  // Byte: the value; File: the padding
  uint32_t seed = 0;    // Random
  std::string path;     // File
  bool atEnd = true;    // File: place the file's last byte at the stretch's last byte
};

struct RegionSpec {
  SpiRegion region = SpiRegion::Bios;
  uint32_t offset = 0;  // in the flash image
  uint32_t size = 0;
  Fill fill;
};

// The "$BVDT$" block. Texts are cut to their fields; a text that fills its field has no zero.
struct BvdtSpec {
  uint32_t offset = 0;  // in the flash image, inside the BIOS region
  std::string version;
  std::string model;
  std::string extra;  // the firmware's own text behind the '$' at 0x40
  std::string releaseDate = "01/01/2026";  // of the "$RDATE" member
  bool closeBlock = true;  // members behind 0x66 ending in "$ENDOFBVDT"
};

// One record of the region map behind "$OBLIS" (wire form: BvdtRegionRecord, 10 bytes).
struct MapRecord {
  uint8_t type = 0;
  uint32_t address = 0;  // physical
  uint32_t size = 0;
  uint8_t action = 0;
  bool operator==(const MapRecord&) const = default;
};

struct OblisMapSpec {
  std::optional<uint32_t> offset;  // none: right behind the BVDT block's members
  std::vector<MapRecord> records;  // the 0xFF record that ends the list is added on writing
};

// An EC image placed in front of the flash image, so the file is EC size + flash size.
struct EcSpec {
  uint32_t size = 0;
  Fill fill;
};

// The signed container that the packing step makes of a flash image: code in front, the
// secure-image record, the EC, BIOSIMG and INI slots, two certificate slots, the driver signature.
struct SecureSpec {
  std::string ini;  // platform.ini text carried in the INI slot
};

// The two tables of a PFAT image behind the flash file: one header and one certificate per
// block of the BIOS region, and the checksum of the whole file.
struct PfatSpec {
  uint32_t blockSize = 0x10000;
  uint32_t headerSize = 0x20;
  uint32_t certificateSize = 0x100;
};

// The RBU wrapper around the whole file: a header of headerSize bytes, an optional server block,
// and the FD and Entire checksums behind the data.
struct RbuSpec {
  uint32_t headerSize = 0x54;
  std::optional<uint32_t> serverSize;
};

struct ImageDescription {
  uint32_t size = 0;  // the flash part, a power of two
  Fill fill;          // bytes that no region covers
  std::vector<RegionSpec> regions;
  std::optional<BvdtSpec> bvdt;
  std::optional<OblisMapSpec> oblisMap;
  std::optional<EcSpec> ec;
  std::optional<SecureSpec> secure;  // with it the EC image goes into the EC slot, not in front
  std::optional<PfatSpec> pfat;      // the PFAT tables behind the file (not with secure)
  std::optional<RbuSpec> rbu;        // the RBU wrapper around the file (not with secure or pfat)
};

// Sizes may be numbers or texts: "16 MB", "64K", "0x1000", "4096".
uint32_t ParseSize(const nlohmann::json& value, const std::string& where);
// A fill file named by a relative path is looked for in baseDirectory (the description's folder).
ImageDescription ParseImageDescription(const nlohmann::json& document, const std::string& baseDirectory = "");
// The flash file as the tool reads it: EC image (if any) followed by the flash image, or the
// secure container holding both.
std::vector<uint8_t> BuildImage(const ImageDescription& description);
// A flash image and an EC image (may be empty) in a secure container.
std::vector<uint8_t> WrapSecure(const std::vector<uint8_t>& flash, const std::vector<uint8_t>& ec, const SecureSpec& spec);

// Offsets of the descriptor sections that the builder writes.
constexpr uint32_t kDescriptorSignatureOffset = 0x10;
constexpr uint32_t kDescriptorSignature = 0x0FF0A55A;
constexpr uint32_t kComponentBase = 0x30;
constexpr uint32_t kRegionBase = 0x40;
constexpr uint32_t kMasterBase = 0x60;
// FLREG value of a region the part does not have: base above limit.
constexpr uint32_t kUnusedRegionRegister = 0x00007FFF;
uint32_t RegionRegister(uint32_t offset, uint32_t size);

// BVDT block offsets.
constexpr uint32_t kBvdtVersionOffset = 0x0E;
constexpr uint32_t kBvdtVersionBytes = 24;
constexpr uint32_t kBvdtModelOffset = 0x27;
constexpr uint32_t kBvdtModelBytes = 25;
constexpr uint32_t kBvdtExtraOffset = 0x41;
constexpr uint32_t kBvdtExtraBytes = 37;
constexpr uint32_t kBvdtHeadBytes = 0x66;
constexpr uint32_t kMapRecordBytes = 10;

// What an image file holds, as far as the tool can tell from its bytes.
struct RegionInfo {
  SpiRegion region;
  bool used = false;
  uint32_t base = 0;   // first byte
  uint32_t limit = 0;  // last byte
  bool operator==(const RegionInfo&) const = default;
};

struct SlotInfo {
  std::string tag;
  uint32_t offset = 0;  // of the tag, in the file
  uint32_t capacity = 0;
  uint32_t size = 0;
};

struct ImageInfo {
  uint64_t fileSize = 0;
  uint32_t flashSize = 0;  // the largest power of two not above the file size
  uint32_t ecSize = 0;     // bytes in front of the flash image
  bool hasDescriptor = false;
  std::vector<RegionInfo> regions;
  std::optional<uint32_t> bvdtOffset;  // in the flash image
  std::string bvdtVersion;
  std::string bvdtModel;
  std::optional<uint32_t> mapOffset;  // of "$OBLIS", in the flash image
  std::vector<MapRecord> mapRecords;
  std::vector<SlotInfo> slots;
};

ImageInfo InspectImage(const std::vector<uint8_t>& file);

// ---- PFAT images ----
// The sum of all bytes of the file, the four at checksumOffset counted as 0.
uint32_t PfatChecksum(const std::vector<uint8_t>& file, size_t checksumOffset);
// Appends the header and certificate tables for the BIOS region at biosOffset of the flash image
// that starts at ecSize in file, and sets the checksum.
void AppendPfatTables(std::vector<uint8_t>& file, uint32_t ecSize, uint32_t biosOffset, uint32_t biosSize,
                      uint32_t flashSize, const PfatSpec& spec);
struct PfatInfo {
  uint32_t fdSize = 0;  // the bytes in front of the header table
  uint32_t blockCount = 0, headerSize = 0, blockSize = 0, certificateSize = 0;
  bool signed_ = false;  // a certificate table is there
  uint32_t storedChecksum = 0, checksum = 0;
};
std::optional<PfatInfo> InspectPfat(const std::vector<uint8_t>& file);
std::string FormatPfatInfo(const PfatInfo& info);
std::string FormatImageInfo(const ImageInfo& info);

// ---- RBU images ----
std::vector<uint8_t> WrapRbu(const std::vector<uint8_t>& raw, const RbuSpec& spec);
struct RbuInfo {
  rbu_image::Layout layout;
  uint32_t storedFd = 0, storedEntire = 0, fd = 0, entire = 0;  // stored and computed checksums
};
// None for a file that does not open with "$RBU"; a layout that is not ok holds no checksums.
std::optional<RbuInfo> InspectRbu(const std::vector<uint8_t>& file);
std::string FormatRbuInfo(const RbuInfo& info);
// The name of a region type of the "$OBLIS" map, as the tool's map displays show it.
const char* MapRegionTypeName(uint8_t type);

// ---- what the firmware starts: the driver's slot chain and the launcher's slot ----
// The slots of the driver's chain, in their order behind the secure-image record.
enum class ChainSlot : uint8_t { Ec = 0, BiosImage = 1, Ini = 2, Certificate = 3, Certificate2 = 4 };
constexpr int kChainSlotCount = 5;
const char* ChainSlotName(ChainSlot slot);  // "EC image", "flash image", ...

// Where the chain stands in a driver file: offsets from the file's first byte.
struct ChainLayout {
  struct Slot {
    uint32_t tag = 0;  // the data follows 24 bytes later
    uint32_t capacity = 0;
    uint32_t size = 0;
  };
  uint32_t record = 0;
  Slot slots[kChainSlotCount];
  uint32_t signature = 0;
};
// None without a chain; a chain that breaks off (a tag missing, a capacity past the end, no
// driver signature behind it) is an ImageError.
std::optional<ChainLayout> FindDriverChain(const std::vector<uint8_t>& driver);
// A chain with nothing around it, with this tree's capacities: the driver file of the host,
// where the driver is linked in and only its slots travel.
std::vector<uint8_t> BareDriverChain();

// The payloads to put into a driver; an absent one leaves its slot as it is.
struct DriverPayloads {
  std::optional<std::vector<uint8_t>> slots[kChainSlotCount];
};
// Fills the slots (the rest of each filled slot cleared), and marks the record and the tags
// with '$'. A payload larger than its slot is an ImageError naming the slot, size and capacity.
std::vector<uint8_t> PackDriver(std::vector<uint8_t> driver, const DriverPayloads& payloads);
// Puts a driver into a launcher file's slot, or behind a bare launcher head when there is no
// launcher file (the host's launcher, whose code is linked in).
std::vector<uint8_t> PackLauncher(const std::optional<std::vector<uint8_t>>& launcher, const std::vector<uint8_t>& driver);

struct CarriedInfo {
  bool launcher = false;  // the file has the launcher's slot
  uint32_t launcherCapacity = 0;
  uint32_t launcherSize = 0;
  uint32_t driverOffset = 0;  // of the driver in the file
  std::optional<ChainLayout> chain;  // offsets from the driver's first byte
  std::optional<ImageInfo> carriedImage;  // what the BIOSIMG slot holds
};
// What a launcher or driver file carries; sizes that claim more than their slot are ImageErrors.
CarriedInfo InspectCarried(const std::vector<uint8_t>& file);
std::string FormatCarried(const CarriedInfo& info);

// ---- the ROM package: a shell application with images, settings and files packed behind it ----
constexpr uint32_t kPackageDataOffsetField = 0x09;  // counted from the record's marker
constexpr uint32_t kPackageDataSizeField = 0x0D;
constexpr uint32_t kPackageRomPackHeadBytes = 322;
constexpr uint32_t kPackageDefaultsField = 0x11;
constexpr uint32_t kPackageDefaultArgumentBytes = 49;
constexpr uint32_t kPackagePermittedField = 0x42;
constexpr uint32_t kPackagePermittedOptionBytes = 256;
constexpr uint32_t kPackageIniPackHeadBytes = 17;
constexpr uint32_t kPackageBiosCountField = 0x0D;
constexpr uint32_t kPackageExtPackNameField = 0x0E;
constexpr uint32_t kPackageImageNameField = 0x11;
constexpr uint32_t kPackageResourceVerifyField = 0x0A;
constexpr uint32_t kPackageResourceSizeField = 0x0C;
constexpr uint32_t kPackageResourceNameField = 0x10;
constexpr uint32_t kPackageResourceNameBytes = 48;
constexpr uint32_t kPackageResourceHeadBytes = 0x40;
constexpr uint16_t kPackageVerifyCode = 0x55AA;
// The tool keeps an image's name with 63 characters; the first image and 99 further ones.
constexpr size_t kPackageImageNameCharacters = 63;
constexpr size_t kPackageMostImages = 100;

struct PackageImage {
  std::string name;
  std::vector<uint8_t> data;
};
struct PackageFile {
  std::string name;
  std::vector<uint8_t> data;
  uint16_t verify = kPackageVerifyCode;
};
struct PackageSpec {
  std::vector<uint8_t> application;
  std::vector<PackageImage> images;  // the first goes with the option texts
  std::optional<std::string> ini;    // the settings text as written; stored scrambled
  std::string defaultArguments;
  std::string permittedOptions;
  std::vector<PackageFile> resources;
};
// The application with the records behind it. A text or name that does not fit its field, no
// image or more than 100, or a marker in the application or the packed bytes (it would be read
// as a record) is an ImageError naming the item.
std::vector<uint8_t> BuildPackage(const PackageSpec& spec);

struct PackageRecord {
  std::string marker;  // written with '#' for its '$', as the tool's trace writes it
  uint32_t offset = 0;  // of the marker in the file
  uint32_t dataOffset = 0;  // from the marker
  uint32_t dataSize = 0;
  std::string name;
  uint16_t verify = 0;  // resources only
  std::string fault;    // empty for a record that lies inside the file
};
struct PackageInfo {
  uint64_t fileSize = 0;
  std::string defaultArguments;
  std::string permittedOptions;
  std::optional<int> biosCount;
  std::vector<PackageRecord> records;  // ROM_PACK, INI_PACK, EXT_PACK, ROM_Pnn_ by number, resources
  std::optional<std::string> ini;      // unscrambled
};
PackageInfo InspectPackage(const std::vector<uint8_t>& file);
std::string FormatPackage(const PackageInfo& info);

}  // namespace zimage
