// The machine description: whatever the file holds, ParseMachine answers true or false with a
// message; no exception escapes and nothing is read outside its buffer.
#include <cstdint>
#include <string>

#include "Simulator.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  sim::Machine machine;
  std::string error;
  if (!sim::ParseMachine(std::string(reinterpret_cast<const char*>(data), size), machine, error) && error.empty()) {
    __builtin_trap();  // a refusal must say why
  }
  return 0;
}
