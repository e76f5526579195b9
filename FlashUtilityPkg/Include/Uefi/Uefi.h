// The UEFI types, tables and protocols that the tool and its hosts use, laid out as the
// UEFI standard lays them out. Both builds use this one header: the IA32 firmware
// build (cdecl, 32-bit pointers) and the 64-bit host build whose emulated environment
// implements the same tables. Text is char16_t so that u"" literals need no casts.
#pragma once

#include <stddef.h>
#include <stdint.h>

#define EFIAPI

typedef uint8_t UINT8;
typedef uint16_t UINT16;
typedef uint32_t UINT32;
typedef uint64_t UINT64;
typedef int8_t INT8;
typedef int16_t INT16;
typedef int32_t INT32;
typedef int64_t INT64;
typedef uintptr_t UINTN;
typedef intptr_t INTN;
typedef uint8_t BOOLEAN;
typedef char CHAR8;
typedef char16_t CHAR16;
typedef void VOID;
typedef UINTN EFI_STATUS;
typedef VOID* EFI_HANDLE;
typedef VOID* EFI_EVENT;
typedef UINTN EFI_TPL;
typedef UINT64 EFI_PHYSICAL_ADDRESS;
typedef UINT64 EFI_VIRTUAL_ADDRESS;

struct EFI_GUID {
  UINT32 Data1;
  UINT16 Data2;
  UINT16 Data3;
  UINT8 Data4[8];
};
static_assert(sizeof(EFI_GUID) == 16, "EFI_GUID is 16 bytes");

constexpr UINTN kEfiErrorBit = (UINTN)1 << (sizeof(UINTN) * 8 - 1);
constexpr EFI_STATUS EfiError(UINTN code) { return kEfiErrorBit | code; }
constexpr bool EFI_ERROR(EFI_STATUS status) { return (status & kEfiErrorBit) != 0; }

constexpr EFI_STATUS EFI_SUCCESS = 0;
constexpr EFI_STATUS EFI_LOAD_ERROR = EfiError(1);
constexpr EFI_STATUS EFI_INVALID_PARAMETER = EfiError(2);
constexpr EFI_STATUS EFI_UNSUPPORTED = EfiError(3);
constexpr EFI_STATUS EFI_BAD_BUFFER_SIZE = EfiError(4);
constexpr EFI_STATUS EFI_BUFFER_TOO_SMALL = EfiError(5);
constexpr EFI_STATUS EFI_NOT_READY = EfiError(6);
constexpr EFI_STATUS EFI_DEVICE_ERROR = EfiError(7);
constexpr EFI_STATUS EFI_WRITE_PROTECTED = EfiError(8);
constexpr EFI_STATUS EFI_OUT_OF_RESOURCES = EfiError(9);
constexpr EFI_STATUS EFI_VOLUME_CORRUPTED = EfiError(10);
constexpr EFI_STATUS EFI_VOLUME_FULL = EfiError(11);
constexpr EFI_STATUS EFI_NO_MEDIA = EfiError(12);
constexpr EFI_STATUS EFI_MEDIA_CHANGED = EfiError(13);
constexpr EFI_STATUS EFI_NOT_FOUND = EfiError(14);
constexpr EFI_STATUS EFI_ACCESS_DENIED = EfiError(15);
constexpr EFI_STATUS EFI_NO_RESPONSE = EfiError(16);
constexpr EFI_STATUS EFI_NO_MAPPING = EfiError(17);
constexpr EFI_STATUS EFI_TIMEOUT = EfiError(18);
constexpr EFI_STATUS EFI_NOT_STARTED = EfiError(19);
constexpr EFI_STATUS EFI_ALREADY_STARTED = EfiError(20);
constexpr EFI_STATUS EFI_ABORTED = EfiError(21);
constexpr EFI_STATUS EFI_PROTOCOL_ERROR = EfiError(24);

// ---- memory ----
enum EFI_ALLOCATE_TYPE : UINT32 { AllocateAnyPages, AllocateMaxAddress, AllocateAddress, MaxAllocateType };
enum EFI_MEMORY_TYPE : UINT32 {
  EfiReservedMemoryType,
  EfiLoaderCode,
  EfiLoaderData,
  EfiBootServicesCode,
  EfiBootServicesData,
  EfiRuntimeServicesCode,
  EfiRuntimeServicesData,
  EfiConventionalMemory,
  EfiUnusableMemory,
  EfiACPIReclaimMemory,
  EfiACPIMemoryNVS,
  EfiMemoryMappedIO,
  EfiMemoryMappedIOPortSpace,
  EfiPalCode,
  EfiPersistentMemory,
  EfiMaxMemoryType
};
enum EFI_INTERFACE_TYPE : UINT32 { EFI_NATIVE_INTERFACE };
enum EFI_LOCATE_SEARCH_TYPE : UINT32 { AllHandles, ByRegisterNotify, ByProtocol };
enum EFI_RESET_TYPE : UINT32 { EfiResetCold, EfiResetWarm, EfiResetShutdown, EfiResetPlatformSpecific };

struct EFI_TABLE_HEADER {
  UINT64 Signature;
  UINT32 Revision;
  UINT32 HeaderSize;
  UINT32 CRC32;
  UINT32 Reserved;
};

// ---- device path ----
struct EFI_DEVICE_PATH_PROTOCOL {
  UINT8 Type;
  UINT8 SubType;
  UINT8 Length[2];
};
constexpr UINT8 kDevicePathTypeHardware = 0x01;
constexpr UINT8 kDevicePathTypeMessaging = 0x03;
constexpr UINT8 kDevicePathTypeMedia = 0x04;
constexpr UINT8 kDevicePathTypeEnd = 0x7F;
constexpr UINT8 kDevicePathSubtypeEndEntire = 0xFF;
constexpr UINT8 kDevicePathSubtypeUsb = 0x05;
constexpr UINT8 kDevicePathSubtypeSata = 0x12;
constexpr UINT8 kDevicePathSubtypeEmmc = 0x1D;
constexpr UINT8 kDevicePathSubtypeFilePath = 0x04;
constexpr UINT8 kDevicePathSubtypeController = 0x05;  // hardware
constexpr UINT8 kDevicePathSubtypeHardDrive = 0x01;   // media

// ---- time ----
struct EFI_TIME {
  UINT16 Year;
  UINT8 Month;
  UINT8 Day;
  UINT8 Hour;
  UINT8 Minute;
  UINT8 Second;
  UINT8 Pad1;
  UINT32 Nanosecond;
  INT16 TimeZone;
  UINT8 Daylight;
  UINT8 Pad2;
};
static_assert(sizeof(EFI_TIME) == 16, "EFI_TIME is 16 bytes");
struct EFI_TIME_CAPABILITIES {
  UINT32 Resolution;
  UINT32 Accuracy;
  BOOLEAN SetsToZero;
};

// ---- console ----
struct EFI_INPUT_KEY {
  UINT16 ScanCode;
  CHAR16 UnicodeChar;
};
struct EFI_SIMPLE_TEXT_INPUT_PROTOCOL;
typedef EFI_STATUS(EFIAPI* EFI_INPUT_RESET)(EFI_SIMPLE_TEXT_INPUT_PROTOCOL* This, BOOLEAN ExtendedVerification);
typedef EFI_STATUS(EFIAPI* EFI_INPUT_READ_KEY)(EFI_SIMPLE_TEXT_INPUT_PROTOCOL* This, EFI_INPUT_KEY* Key);
struct EFI_SIMPLE_TEXT_INPUT_PROTOCOL {
  EFI_INPUT_RESET Reset;
  EFI_INPUT_READ_KEY ReadKeyStroke;
  EFI_EVENT WaitForKey;
};

struct SIMPLE_TEXT_OUTPUT_MODE {
  INT32 MaxMode;
  INT32 Mode;
  INT32 Attribute;
  INT32 CursorColumn;
  INT32 CursorRow;
  BOOLEAN CursorVisible;
};
struct EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL;
typedef EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL TextOut;
struct EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL {
  EFI_STATUS(EFIAPI* Reset)(TextOut* This, BOOLEAN ExtendedVerification);
  EFI_STATUS(EFIAPI* OutputString)(TextOut* This, const CHAR16* String);
  EFI_STATUS(EFIAPI* TestString)(TextOut* This, const CHAR16* String);
  EFI_STATUS(EFIAPI* QueryMode)(TextOut* This, UINTN ModeNumber, UINTN* Columns, UINTN* Rows);
  EFI_STATUS(EFIAPI* SetMode)(TextOut* This, UINTN ModeNumber);
  EFI_STATUS(EFIAPI* SetAttribute)(TextOut* This, UINTN Attribute);
  EFI_STATUS(EFIAPI* ClearScreen)(TextOut* This);
  EFI_STATUS(EFIAPI* SetCursorPosition)(TextOut* This, UINTN Column, UINTN Row);
  EFI_STATUS(EFIAPI* EnableCursor)(TextOut* This, BOOLEAN Visible);
  SIMPLE_TEXT_OUTPUT_MODE* Mode;
};

// ---- files ----
constexpr UINT64 EFI_FILE_MODE_READ = 0x0000000000000001ULL;
constexpr UINT64 EFI_FILE_MODE_WRITE = 0x0000000000000002ULL;
constexpr UINT64 EFI_FILE_MODE_CREATE = 0x8000000000000000ULL;
constexpr UINT64 EFI_FILE_READ_ONLY = 0x01;
constexpr UINT64 EFI_FILE_HIDDEN = 0x02;
constexpr UINT64 EFI_FILE_SYSTEM = 0x04;
constexpr UINT64 EFI_FILE_DIRECTORY = 0x10;
constexpr UINT64 EFI_FILE_ARCHIVE = 0x20;

struct EFI_FILE_PROTOCOL;
typedef EFI_FILE_PROTOCOL FileProtocol;
struct EFI_FILE_PROTOCOL {
  UINT64 Revision;
  EFI_STATUS(EFIAPI* Open)(FileProtocol* This, FileProtocol** NewHandle, const CHAR16* FileName, UINT64 OpenMode,
                           UINT64 Attributes);
  EFI_STATUS(EFIAPI* Close)(FileProtocol* This);
  EFI_STATUS(EFIAPI* Delete)(FileProtocol* This);
  EFI_STATUS(EFIAPI* Read)(FileProtocol* This, UINTN* BufferSize, VOID* Buffer);
  EFI_STATUS(EFIAPI* Write)(FileProtocol* This, UINTN* BufferSize, const VOID* Buffer);
  EFI_STATUS(EFIAPI* GetPosition)(FileProtocol* This, UINT64* Position);
  EFI_STATUS(EFIAPI* SetPosition)(FileProtocol* This, UINT64 Position);
  EFI_STATUS(EFIAPI* GetInfo)(FileProtocol* This, const EFI_GUID* InformationType, UINTN* BufferSize, VOID* Buffer);
  EFI_STATUS(EFIAPI* SetInfo)(FileProtocol* This, const EFI_GUID* InformationType, UINTN BufferSize, VOID* Buffer);
  EFI_STATUS(EFIAPI* Flush)(FileProtocol* This);
};

// EFI_FILE_INFO as Read() of a directory returns it; FileName runs on past the struct.
struct EFI_FILE_INFO {
  UINT64 Size;
  UINT64 FileSize;
  UINT64 PhysicalSize;
  EFI_TIME CreateTime;
  EFI_TIME LastAccessTime;
  EFI_TIME ModificationTime;
  UINT64 Attribute;
  CHAR16 FileName[1];
};

struct EFI_SIMPLE_FILE_SYSTEM_PROTOCOL {
  UINT64 Revision;
  EFI_STATUS(EFIAPI* OpenVolume)(EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* This, EFI_FILE_PROTOCOL** Root);
};

// ---- images ----
typedef EFI_STATUS(EFIAPI* EFI_IMAGE_UNLOAD)(EFI_HANDLE ImageHandle);
struct EFI_SYSTEM_TABLE;
typedef EFI_STATUS(EFIAPI* EFI_IMAGE_ENTRY_POINT)(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE* SystemTable);

struct EFI_LOADED_IMAGE_PROTOCOL {
  UINT32 Revision;
  EFI_HANDLE ParentHandle;
  EFI_SYSTEM_TABLE* SystemTable;
  EFI_HANDLE DeviceHandle;
  EFI_DEVICE_PATH_PROTOCOL* FilePath;
  VOID* Reserved;
  UINT32 LoadOptionsSize;
  VOID* LoadOptions;
  VOID* ImageBase;
  UINT64 ImageSize;
  EFI_MEMORY_TYPE ImageCodeType;
  EFI_MEMORY_TYPE ImageDataType;
  EFI_IMAGE_UNLOAD Unload;
};

struct EFI_COMPONENT_NAME_PROTOCOL;
struct EFI_COMPONENT_NAME_PROTOCOL {
  EFI_STATUS(EFIAPI* GetDriverName)(EFI_COMPONENT_NAME_PROTOCOL* This, const CHAR8* Language, CHAR16** DriverName);
  EFI_STATUS(EFIAPI* GetControllerName)(EFI_COMPONENT_NAME_PROTOCOL* This, EFI_HANDLE ControllerHandle,
                                        EFI_HANDLE ChildHandle, const CHAR8* Language, CHAR16** ControllerName);
  const CHAR8* SupportedLanguages;
};

// ---- shell (used by the command-line host only) ----
struct EFI_SHELL_PARAMETERS_PROTOCOL {
  CHAR16** Argv;
  UINTN Argc;
  VOID* StdIn;
  VOID* StdOut;
  VOID* StdErr;
};
// Only the members up to GetCurDir are declared; nothing behind them is used.
struct EFI_SHELL_PROTOCOL {
  EFI_STATUS(EFIAPI* Execute)(EFI_HANDLE* ParentImageHandle, CHAR16* CommandLine, CHAR16** Environment,
                              EFI_STATUS* StatusCode);
  VOID* GetEnv;
  VOID* SetEnv;
  VOID* GetAlias;
  VOID* SetAlias;
  VOID* GetHelpText;
  VOID* GetDevicePathFromMap;
  VOID* GetMapFromDevicePath;
  VOID* GetDevicePathFromFilePath;
  VOID* GetFilePathFromDevicePath;
  VOID* SetMap;
  const CHAR16*(EFIAPI* GetCurDir)(const CHAR16* FileSystemMapping);
};

// ---- PCI root bridge (configuration reads only) ----
enum EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH : UINT32 {
  EfiPciWidthUint8,
  EfiPciWidthUint16,
  EfiPciWidthUint32,
  EfiPciWidthUint64,
};
struct EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL;
typedef EFI_STATUS(EFIAPI* EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_IO_MEM)(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* This,
                                                                  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH Width,
                                                                  UINT64 Address, UINTN Count, VOID* Buffer);
struct EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_ACCESS {
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_IO_MEM Read;
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_IO_MEM Write;
};
struct EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL {
  EFI_HANDLE ParentHandle;
  VOID* PollMem;
  VOID* PollIo;
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_ACCESS Mem;
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_ACCESS Io;
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_ACCESS Pci;
  // Members behind Pci are not used.
};

// ---- CPU architecture protocol (only the timer is used) ----
struct EFI_CPU_ARCH_PROTOCOL;
struct EFI_CPU_ARCH_PROTOCOL {
  VOID* FlushDataCache;
  VOID* EnableInterrupt;
  VOID* DisableInterrupt;
  VOID* GetInterruptState;
  VOID* Init;
  VOID* RegisterInterruptHandler;
  // TimerPeriod, if given, receives the length of one tick in femtoseconds.
  EFI_STATUS(EFIAPI* GetTimerValue)(EFI_CPU_ARCH_PROTOCOL* This, UINT32 TimerIndex, UINT64* TimerValue,
                                    UINT64* TimerPeriod);
  VOID* SetMemoryAttributes;
  UINT32 NumberOfTimers;
  UINT32 DmaBufferAlignment;
};

// ---- boot services ----
struct EFI_BOOT_SERVICES {
  EFI_TABLE_HEADER Hdr;
  EFI_TPL(EFIAPI* RaiseTPL)(EFI_TPL NewTpl);
  VOID(EFIAPI* RestoreTPL)(EFI_TPL OldTpl);
  EFI_STATUS(EFIAPI* AllocatePages)(EFI_ALLOCATE_TYPE Type, EFI_MEMORY_TYPE MemoryType, UINTN Pages,
                                    EFI_PHYSICAL_ADDRESS* Memory);
  EFI_STATUS(EFIAPI* FreePages)(EFI_PHYSICAL_ADDRESS Memory, UINTN Pages);
  VOID* GetMemoryMap;
  EFI_STATUS(EFIAPI* AllocatePool)(EFI_MEMORY_TYPE PoolType, UINTN Size, VOID** Buffer);
  EFI_STATUS(EFIAPI* FreePool)(VOID* Buffer);
  VOID* CreateEvent;
  VOID* SetTimer;
  VOID* WaitForEvent;
  VOID* SignalEvent;
  VOID* CloseEvent;
  VOID* CheckEvent;
  EFI_STATUS(EFIAPI* InstallProtocolInterface)(EFI_HANDLE* Handle, const EFI_GUID* Protocol,
                                               EFI_INTERFACE_TYPE InterfaceType, VOID* Interface);
  VOID* ReinstallProtocolInterface;
  EFI_STATUS(EFIAPI* UninstallProtocolInterface)(EFI_HANDLE Handle, const EFI_GUID* Protocol, VOID* Interface);
  EFI_STATUS(EFIAPI* HandleProtocol)(EFI_HANDLE Handle, const EFI_GUID* Protocol, VOID** Interface);
  VOID* Reserved;
  VOID* RegisterProtocolNotify;
  VOID* LocateHandle;
  VOID* LocateDevicePath;
  VOID* InstallConfigurationTable;
  EFI_STATUS(EFIAPI* LoadImage)(BOOLEAN BootPolicy, EFI_HANDLE ParentImageHandle, EFI_DEVICE_PATH_PROTOCOL* DevicePath,
                                VOID* SourceBuffer, UINTN SourceSize, EFI_HANDLE* ImageHandle);
  EFI_STATUS(EFIAPI* StartImage)(EFI_HANDLE ImageHandle, UINTN* ExitDataSize, CHAR16** ExitData);
  VOID* Exit;
  EFI_STATUS(EFIAPI* UnloadImage)(EFI_HANDLE ImageHandle);
  VOID* ExitBootServices;
  VOID* GetNextMonotonicCount;
  EFI_STATUS(EFIAPI* Stall)(UINTN Microseconds);
  VOID* SetWatchdogTimer;
  VOID* ConnectController;
  VOID* DisconnectController;
  VOID* OpenProtocol;
  VOID* CloseProtocol;
  VOID* OpenProtocolInformation;
  VOID* ProtocolsPerHandle;
  EFI_STATUS(EFIAPI* LocateHandleBuffer)(EFI_LOCATE_SEARCH_TYPE SearchType, const EFI_GUID* Protocol, VOID* SearchKey,
                                         UINTN* NoHandles, EFI_HANDLE** Buffer);
  EFI_STATUS(EFIAPI* LocateProtocol)(const EFI_GUID* Protocol, VOID* Registration, VOID** Interface);
  EFI_STATUS(EFIAPI* InstallMultipleProtocolInterfaces)(EFI_HANDLE* Handle, ...);
  EFI_STATUS(EFIAPI* UninstallMultipleProtocolInterfaces)(EFI_HANDLE Handle, ...);
  VOID* CalculateCrc32;
  VOID* CopyMem;
  VOID* SetMem;
  VOID* CreateEventEx;
};

// ---- runtime services ----
struct EFI_RUNTIME_SERVICES {
  EFI_TABLE_HEADER Hdr;
  EFI_STATUS(EFIAPI* GetTime)(EFI_TIME* Time, EFI_TIME_CAPABILITIES* Capabilities);
  VOID* SetTime;
  VOID* GetWakeupTime;
  VOID* SetWakeupTime;
  VOID* SetVirtualAddressMap;
  VOID* ConvertPointer;
  EFI_STATUS(EFIAPI* GetVariable)(const CHAR16* VariableName, const EFI_GUID* VendorGuid, UINT32* Attributes,
                                  UINTN* DataSize, VOID* Data);
  VOID* GetNextVariableName;
  EFI_STATUS(EFIAPI* SetVariable)(const CHAR16* VariableName, const EFI_GUID* VendorGuid, UINT32 Attributes,
                                  UINTN DataSize, const VOID* Data);
  VOID* GetNextHighMonotonicCount;
  VOID(EFIAPI* ResetSystem)(EFI_RESET_TYPE ResetType, EFI_STATUS ResetStatus, UINTN DataSize, VOID* ResetData);
  VOID* UpdateCapsule;
  VOID* QueryCapsuleCapabilities;
  VOID* QueryVariableInfo;
};

constexpr UINT32 EFI_VARIABLE_NON_VOLATILE = 0x00000001;
constexpr UINT32 EFI_VARIABLE_BOOTSERVICE_ACCESS = 0x00000002;
constexpr UINT32 EFI_VARIABLE_RUNTIME_ACCESS = 0x00000004;

struct EFI_CONFIGURATION_TABLE {
  EFI_GUID VendorGuid;
  VOID* VendorTable;
};

struct EFI_SYSTEM_TABLE {
  EFI_TABLE_HEADER Hdr;
  CHAR16* FirmwareVendor;
  UINT32 FirmwareRevision;
  EFI_HANDLE ConsoleInHandle;
  EFI_SIMPLE_TEXT_INPUT_PROTOCOL* ConIn;
  EFI_HANDLE ConsoleOutHandle;
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* ConOut;
  EFI_HANDLE StandardErrorHandle;
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* StdErr;
  EFI_RUNTIME_SERVICES* RuntimeServices;
  EFI_BOOT_SERVICES* BootServices;
  UINTN NumberOfTableEntries;
  EFI_CONFIGURATION_TABLE* ConfigurationTable;
};

// ---- GUIDs of the standard protocols and tables ----
constexpr EFI_GUID kLoadedImageProtocolGuid = {0x5B1B31A1, 0x9562, 0x11D2, {0x8E, 0x3F, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};
constexpr EFI_GUID kSimpleFileSystemProtocolGuid = {0x964E5B22, 0x6459, 0x11D2, {0x8E, 0x39, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};
constexpr EFI_GUID kDevicePathProtocolGuid = {0x09576E91, 0x6D3F, 0x11D2, {0x8E, 0x39, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};
constexpr EFI_GUID kComponentNameProtocolGuid = {0x107A772C, 0xD5E1, 0x11D4, {0x9A, 0x46, 0x00, 0x90, 0x27, 0x3F, 0xC1, 0x4D}};
constexpr EFI_GUID kFileInfoGuid = {0x09576E92, 0x6D3F, 0x11D2, {0x8E, 0x39, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};
constexpr EFI_GUID kAcpi10TableGuid = {0xEB9D2D30, 0x2D88, 0x11D3, {0x9A, 0x16, 0x00, 0x90, 0x27, 0x3F, 0xC1, 0x4D}};
constexpr EFI_GUID kAcpi20TableGuid = {0x8868E871, 0xE4F1, 0x11D3, {0xBC, 0x22, 0x00, 0x80, 0xC7, 0x3C, 0x88, 0x81}};
constexpr EFI_GUID kGlobalVariableGuid = {0x8BE4DF61, 0x93CA, 0x11D2, {0xAA, 0x0D, 0x00, 0xE0, 0x98, 0x03, 0x2B, 0x8C}};
constexpr EFI_GUID kShellParametersProtocolGuid = {0x752F3136, 0x4E16, 0x4FDC, {0xA2, 0x2A, 0xE5, 0xF4, 0x68, 0x12, 0xF4, 0xCA}};
constexpr EFI_GUID kShellProtocolGuid = {0x6302D008, 0x7F9B, 0x4F30, {0x87, 0xAC, 0x60, 0xC9, 0xFE, 0xF5, 0xDA, 0x4E}};
constexpr EFI_GUID kPciRootBridgeIoProtocolGuid = {0x2F707EBB, 0x4A1A, 0x11D4, {0x9A, 0x38, 0x00, 0x90, 0x27, 0x3F, 0xC1, 0x4D}};
constexpr EFI_GUID kCpuArchProtocolGuid = {0x26BACCB1, 0x6F42, 0x11D4, {0xBC, 0xE7, 0x00, 0x80, 0xC7, 0x3C, 0x88, 0x81}};

// Scan codes of EFI_INPUT_KEY that the tool or its tests name.
constexpr UINT16 kScanNull = 0x00;
constexpr UINT16 kScanEsc = 0x17;
constexpr UINT16 kScanF1 = 0x0B;

// Console attributes.
constexpr UINTN kAttributeWhiteOnRed = 0x4F;
constexpr UINTN kAttributeWhiteOnBlack = 0x0F;
