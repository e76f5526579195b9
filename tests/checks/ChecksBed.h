// The checks' start: the driver bed with a scripted firmware whose set-up answers (10h: power
// state and vendor, 11h: model, version and policy) each test chooses, and settings through a
// platform.ini text.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "checks/ChecksInternal.h"
#include "oblis/OblisInternal.h"
#include "support/DriverBed.h"

namespace checks {

using bed::Answer;
using bed::At;
using Bytes = std::vector<uint8_t>;

inline Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

struct Platform {
  uint16_t vendor = kVendorNone;
  uint8_t ac = 1, dc = 100, bound = 20;
  std::u16string model = u"DV-REF1000", version = u"V1.02";
  uint8_t policy = 0;      // AH of 11h: bit 0 name check, 1 version check, 2 same allowed, 4/5 no display
  uint8_t permission = 1;  // AH of 10h
};

class ChecksBed : public bed::ScriptedBed {
 protected:
  // A platform.ini text; the trace stays on at level 4.
  void Ini(const std::string& text) { LoadSettings("[Log_file]\nFlag=1\nLevel=4\n" + text); }
  // InitialSmi, then the set-up's 10h and 11h as the platform answers them.
  void Boot(const Platform& p) {
    ASSERT_TRUE(InitialSmi());
    AnswerSetUp(p);
    ASSERT_TRUE(SMI_IsSupport());
    ASSERT_TRUE(FuncOblis_11h());
  }
  void AnswerSetUp(const Platform& p) {
    answers[0x10] = [p](OblisRegisters& r) {
      const uint8_t status[] = {p.ac, p.dc, p.bound, 0, 0, 0, 0, 0, 0, 0, 0, (uint8_t)p.vendor, (uint8_t)(p.vendor >> 8)};
      std::memcpy(At(r.edi), status, sizeof(status));
      At(r.edi)[29] = 34;
      Answer(r, 0, p.permission);
    };
    answers[0x11] = [p](OblisRegisters& r) {
      std::memcpy(At(r.edi) + kModelNameOffset, p.model.c_str(), (p.model.size() + 1) * 2);
      std::memcpy(At(r.edi) + kModelVersionOffset, p.version.c_str(), (p.version.size() + 1) * 2);
      Answer(r, 0, p.policy);
    };
  }
};

}  // namespace checks
