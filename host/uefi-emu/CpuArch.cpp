// The processor of the emulated environment as far as the tool asks about it: the CPU
// architecture protocol's timer and the time-stamp counter. Both run on the emulated clock, which
// only Stall moves, so the seconds a run shows are the same every time.
#include "EmuInternal.h"

namespace emu::detail {
namespace {

// A 1 GHz counter: one tick a nanosecond, 1000 ticks per stalled microsecond.
constexpr uint64_t kTicksPerMicrosecond = 1000;
constexpr uint64_t kTickPeriodFemtoseconds = 1000000;

EFI_STATUS EFIAPI GetTimerValue(EFI_CPU_ARCH_PROTOCOL* self, UINT32 timerIndex, UINT64* timerValue,
                                UINT64* timerPeriod) {
  if (self != &g->cpuArch || timerValue == nullptr) return EFI_INVALID_PARAMETER;
  if (timerIndex >= self->NumberOfTimers) return EFI_INVALID_PARAMETER;
  *timerValue = TimeStampTicks();
  if (timerPeriod != nullptr) *timerPeriod = kTickPeriodFemtoseconds;
  return EFI_SUCCESS;
}

}  // namespace

uint64_t TimeStampTicks() { return g == nullptr ? 0 : g->stalled * kTicksPerMicrosecond; }

void InstallCpuArch(State& state) {
  state.cpuArch = {};
  state.cpuArch.GetTimerValue = GetTimerValue;
  state.cpuArch.NumberOfTimers = 1;
  state.cpuArch.DmaBufferAlignment = 4;
  state.cpuArchHandle = nullptr;
  InstallProtocol(&state.cpuArchHandle, kCpuArchProtocolGuid, &state.cpuArch);
}

}  // namespace emu::detail
