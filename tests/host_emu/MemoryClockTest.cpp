// Pool and page memory below 4 GB with guard pages, the registry the simulator consults, and
// the clock that only Stall moves.
#include <signal.h>

#include <cstring>
#include <vector>

#include "EmuHarness.h"
#include "support/Isolated.h"

namespace {

uint8_t gStaticRecord[64];

TEST(EmuMemory, PoolBlocksLieBelow4GbAndAreKnownUntilFreed) {
  emu::Environment environment(OptionsWithVolumes({}));
  EFI_BOOT_SERVICES* bs = environment.SystemTable()->BootServices;
  for (UINTN size : {UINTN(1), UINTN(7), UINTN(8), UINTN(100), UINTN(4096), UINTN(5000), UINTN(0x20000)}) {
    SCOPED_TRACE(size);
    VOID* block = nullptr;
    ASSERT_EQ(bs->AllocatePool(EfiBootServicesData, size, &block), EFI_SUCCESS);
    uint64_t address = reinterpret_cast<uintptr_t>(block);
    EXPECT_LE(address + size, 0x100000000ULL);
    std::memset(block, 0x5A, size);  // the whole block is writable
    EXPECT_TRUE(environment.ContainsAddress(address, size));
    EXPECT_FALSE(environment.ContainsAddress(address, size + 1));
    EXPECT_FALSE(environment.ContainsAddress(address - 1, 2));
    EXPECT_EQ(environment.LiveAllocations(), 1u);
    ASSERT_EQ(bs->FreePool(block), EFI_SUCCESS);
    EXPECT_FALSE(environment.ContainsAddress(address, 1));
    EXPECT_EQ(environment.LiveAllocations(), 0u);
  }
}

TEST(EmuMemory, FreeOfMemoryNeverHandedOutIsRefused) {
  emu::Environment environment(OptionsWithVolumes({}));
  EFI_BOOT_SERVICES* bs = environment.SystemTable()->BootServices;
  VOID* block = nullptr;
  ASSERT_EQ(bs->AllocatePool(EfiBootServicesData, 32, &block), EFI_SUCCESS);
  EXPECT_EQ(bs->FreePool(static_cast<uint8_t*>(block) + 8), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs->FreePages(reinterpret_cast<uintptr_t>(block), 1), EFI_NOT_FOUND);
  EXPECT_EQ(bs->FreePool(block), EFI_SUCCESS);
  EXPECT_EQ(bs->FreePool(block), EFI_INVALID_PARAMETER);
}

// The block's end, rounded up to 8, touches the guard page: one byte past it kills the tool.
TEST(EmuMemory, OverrunByOneBytePastPoolBlockFaults) {
  struct Row {
    UINTN size;
    UINTN offsetWritten;
    int expectedExit;
  };
  const Row rows[] = {
      {24, 23, 0}, {24, 24, 128 + SIGSEGV}, {100, 103, 0}, {100, 104, 128 + SIGSEGV}, {4096, 4096, 128 + SIGSEGV},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "size " << row.size << " offset " << row.offsetWritten);
    int exit = RunIsolated([&] {
      emu::Environment environment(OptionsWithVolumes({}));
      VOID* block = nullptr;
      environment.SystemTable()->BootServices->AllocatePool(EfiBootServicesData, row.size, &block);
      static_cast<volatile uint8_t*>(block)[row.offsetWritten] = 1;
    });
    EXPECT_EQ(exit, row.expectedExit);
  }
}

TEST(EmuMemory, AllocatePagesHonoursMaximumAddress) {
  emu::Environment environment(OptionsWithVolumes({}));
  EFI_BOOT_SERVICES* bs = environment.SystemTable()->BootServices;
  EFI_PHYSICAL_ADDRESS address = 0x0FFFFFFF;
  ASSERT_EQ(bs->AllocatePages(AllocateMaxAddress, EfiBootServicesData, 32, &address), EFI_SUCCESS);
  EXPECT_LE(address + 32 * 4096 - 1, 0x0FFFFFFFULL);
  EXPECT_EQ(address % 4096, 0u);
  std::memset(reinterpret_cast<void*>(address), 0, 32 * 4096);
  EXPECT_TRUE(environment.ContainsAddress(address, 32 * 4096));

  EFI_PHYSICAL_ADDRESS second = 0x0FFFFFFF;
  ASSERT_EQ(bs->AllocatePages(AllocateMaxAddress, EfiBootServicesData, 32, &second), EFI_SUCCESS);
  EXPECT_NE(second, address);
  EXPECT_LE(second + 32 * 4096 - 1, 0x0FFFFFFFULL);

  EXPECT_EQ(bs->FreePages(address, 31), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs->FreePages(address, 32), EFI_SUCCESS);
  EXPECT_FALSE(environment.ContainsAddress(address, 1));
  EXPECT_EQ(bs->FreePages(second, 32), EFI_SUCCESS);

  EFI_PHYSICAL_ADDRESS tooLow = 0xFFF;
  EXPECT_EQ(bs->AllocatePages(AllocateMaxAddress, EfiBootServicesData, 1, &tooLow), EFI_OUT_OF_RESOURCES);
}

TEST(EmuMemory, ProgramStaticDataCountsAsHandedOutButHostHeapDoesNot) {
  emu::Environment environment(OptionsWithVolumes({}));
  EXPECT_TRUE(environment.ContainsAddress(reinterpret_cast<uintptr_t>(gStaticRecord), sizeof gStaticRecord));
  std::vector<uint8_t> heap(1 << 20);
  EXPECT_FALSE(environment.ContainsAddress(reinterpret_cast<uintptr_t>(heap.data()), heap.size()));
  EXPECT_FALSE(environment.ContainsAddress(0xFFFFFFF0u, 0x20));
}

TEST(EmuClock, StallMovesTheClockAndIsRecorded) {
  struct Row {
    EFI_TIME start;
    std::vector<UINTN> stalls;
    EFI_TIME expected;
  };
  const Row rows[] = {
      {{2026, 11, 23, 10, 0, 0, 0, 0, 0, 0, 0}, {1500000, 250}, {2026, 11, 23, 10, 0, 1, 0, 500250000, 0, 0, 0}},
      {{2026, 12, 31, 23, 59, 59, 0, 900000000, 0, 0, 0}, {1200000}, {2027, 1, 1, 0, 0, 1, 0, 100000000, 0, 0, 0}},
      {{2028, 2, 28, 23, 0, 0, 0, 0, 0, 0, 0}, {3600u * 1000000u}, {2028, 2, 29, 0, 0, 0, 0, 0, 0, 0, 0}},
  };
  for (const Row& row : rows) {
    emu::Options options = OptionsWithVolumes({});
    options.clockStart = row.start;
    emu::Environment environment(options);
    uint64_t total = 0;
    for (UINTN stall : row.stalls) {
      environment.SystemTable()->BootServices->Stall(stall);
      total += stall;
    }
    EXPECT_EQ(environment.StalledMicroseconds(), total);
    EXPECT_EQ(environment.StallCalls(), std::vector<uint64_t>(row.stalls.begin(), row.stalls.end()));
    EFI_TIME now{};
    ASSERT_EQ(environment.SystemTable()->RuntimeServices->GetTime(&now, nullptr), EFI_SUCCESS);
    EXPECT_EQ(std::memcmp(&now, &row.expected, sizeof now), 0)
        << now.Year << "-" << int(now.Month) << "-" << int(now.Day) << " " << int(now.Hour) << ":"
        << int(now.Minute) << ":" << int(now.Second) << "." << now.Nanosecond;
  }
}

}  // namespace
