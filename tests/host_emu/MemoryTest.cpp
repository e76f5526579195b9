// Pool and page memory below 4 GB with guard pages, the registry the simulator consults, and
// the report of what is still allocated.
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>
#include <tuple>
#include <vector>

#include "EmuHarness.h"

namespace {

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
// Under AddressSanitizer the pool poisons the bytes behind the end as well, so the slack up to
// the next 8 faults there too.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSlackPoisoned = true;
#else
constexpr bool kSlackPoisoned = false;
#endif
TEST(EmuMemory, OverrunPastPoolBlockFaults) {
  const std::tuple<UINTN, UINTN, bool> rows[] = {
      {24, 23, false}, {24, 24, true}, {100, 99, false}, {100, 103, kSlackPoisoned}, {100, 104, true}, {4096, 4096, true},
  };
  for (const auto& [size, offsetWritten, faults] : rows) {
    SCOPED_TRACE(testing::Message() << "size " << size << " offset " << offsetWritten);
    // A child process writes the byte, so that the fault ends it and not the test program.
    EXPECT_EXIT(
        {
          emu::Environment environment(OptionsWithVolumes({}));
          VOID* block = nullptr;
          environment.SystemTable()->BootServices->AllocatePool(EfiBootServicesData, size, &block);
          static_cast<volatile uint8_t*>(block)[offsetWritten] = 1;
          std::_Exit(0);
        },
        [faults = faults](int status) { return faults != (WIFEXITED(status) && WEXITSTATUS(status) == 0); }, "");
  }
}

// The last 16 small blocks freed stay mapped for a quick reuse: a write into one is counted
// once with the overruns, the next block of its size takes it back fresh, and a block freed
// before those 16 faults at a touch. The sanitizer build poisons every freed block instead.
TEST(EmuMemory, AWriteIntoARecentlyFreedBlockCountsOnceAndAnOlderOneFaults) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "AddressSanitizer stops the first write into a freed block itself";
#endif
  emu::Environment environment(OptionsWithVolumes({}));
  EFI_BOOT_SERVICES* bs = environment.SystemTable()->BootServices;
  VOID* block = nullptr;
  ASSERT_EQ(bs->AllocatePool(EfiBootServicesData, 100, &block), EFI_SUCCESS);
  ASSERT_EQ(bs->FreePool(block), EFI_SUCCESS);
  EXPECT_EQ(environment.PoolOverruns(), 0u);
  static_cast<uint8_t*>(block)[5] = 0;
  EXPECT_EQ(environment.PoolOverruns(), 1u);
  EXPECT_EQ(environment.PoolOverruns(), 1u);
  VOID* again = nullptr;
  ASSERT_EQ(bs->AllocatePool(EfiBootServicesData, 100, &again), EFI_SUCCESS);
  EXPECT_EQ(again, block);
  EXPECT_EQ(static_cast<uint8_t*>(again)[5], 0xAF);
  EXPECT_EXIT(
      {
        VOID* blocks[17];
        for (VOID*& b : blocks) bs->AllocatePool(EfiBootServicesData, 100, &b);
        for (VOID* b : blocks) bs->FreePool(b);
        static_cast<volatile uint8_t*>(blocks[0])[5] = 1;
        std::_Exit(0);
      },
      [](int status) { return !(WIFEXITED(status) && WEXITSTATUS(status) == 0); }, "");
  ASSERT_EQ(bs->FreePool(again), EFI_SUCCESS);
}

// What a run leaves allocated is told with its size, its place in the order of allocations and
// its first bytes, so that a forgotten free can be found.
TEST(EmuMemory, BlocksStillAllocatedAreReportedInTheOrderTheyWereHandedOut) {
  emu::Environment environment(OptionsWithVolumes({}));
  EFI_BOOT_SERVICES* bs = environment.SystemTable()->BootServices;
  VOID* stamp = nullptr;
  VOID* freed = nullptr;
  VOID* raw = nullptr;
  EFI_PHYSICAL_ADDRESS pages = 0;
  ASSERT_EQ(bs->AllocatePool(EfiBootServicesData, 12, &stamp), EFI_SUCCESS);
  ASSERT_EQ(bs->AllocatePool(EfiBootServicesData, 40, &freed), EFI_SUCCESS);
  ASSERT_EQ(bs->AllocatePages(AllocateAnyPages, EfiBootServicesData, 2, &pages), EFI_SUCCESS);
  ASSERT_EQ(bs->AllocatePool(EfiBootServicesData, 3, &raw), EFI_SUCCESS);
  std::memcpy(stamp, u"10:00\0", 12);
  std::memcpy(raw, "\x01\xFF\x7F", 3);
  ASSERT_EQ(bs->FreePool(freed), EFI_SUCCESS);

  const std::vector<emu::LiveBlock> live = environment.LiveBlocks();
  ASSERT_EQ(live.size(), 3u);
  struct Row {
    uint64_t address, size;
    bool pool;
    uint64_t serial;
    std::string content;
  };
  const Row rows[] = {
      {reinterpret_cast<uintptr_t>(stamp), 12, true, 1, "u\"10:00\""},
      {pages, 2 * 4096, false, 3, "AF AF AF AF AF AF AF AF AF AF AF AF AF AF AF AF"},
      {reinterpret_cast<uintptr_t>(raw), 3, true, 4, "01 FF 7F"},
  };
  for (size_t i = 0; i < live.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(live[i].address, rows[i].address);
    EXPECT_EQ(live[i].size, rows[i].size);
    EXPECT_EQ(live[i].pool, rows[i].pool);
    EXPECT_EQ(live[i].serial, rows[i].serial);
    EXPECT_EQ(live[i].content, rows[i].content);
    EXPECT_NE(live[i].caller, 0u);
  }
  ASSERT_EQ(bs->FreePool(stamp), EFI_SUCCESS);
  ASSERT_EQ(bs->FreePool(raw), EFI_SUCCESS);
  ASSERT_EQ(bs->FreePages(pages, 2), EFI_SUCCESS);
  EXPECT_TRUE(environment.LiveBlocks().empty());
}

}  // namespace
