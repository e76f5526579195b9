// The two version comparisons: dotted numbers with letters ignored, and the positional compare
// under a [BIOSVersionFormat] format. Only the sign of a positive result counts.
#include <gtest/gtest.h>

#include <string>

#include "checks/Checks.h"

namespace {

enum class Sorts { Newer, Equal, Older, Invalid };

Sorts Classify(INT32 result) {
  if (result == kCheckOlder) return Sorts::Older;
  if (result == kCheckFormatInvalid) return Sorts::Invalid;
  if (result < 0) return Sorts::Invalid;  // no other negative value may come back
  return result == 0 ? Sorts::Equal : Sorts::Newer;
}

const char* Name(Sorts s) {
  switch (s) {
    case Sorts::Newer:
      return "newer";
    case Sorts::Equal:
      return "equal";
    case Sorts::Older:
      return "older";
    default:
      return "invalid";
  }
}

TEST(VersionCompare, DottedNumbersIgnoreLettersAndCompareAsText) {
  struct Row {
    std::string newVersion;
    std::string currentVersion;
    Sorts expected;
  };
  // 255 characters take part: a fifth field behind them is not seen, one inside them is.
  const std::string dotsPast = "1" + std::string(254, '.') + "5";
  const std::string dotsWithin = "1" + std::string(253, '.') + "5";
  const Row rows[] = {
      {"1.2", "1.02", Sorts::Equal},
      {"1.21A", "1.21B", Sorts::Equal},
      {"1.21B", "V1.21", Sorts::Equal},  // both .0001.0021
      {"V1.02", "1.2", Sorts::Equal},    // both .0001.0002
      {"1.2.0", "1.2", Sorts::Newer},    // a longer normal form sorts after its prefix
      {"1.2", "1.2.0", Sorts::Older},
      {"ABC", "1.0", Sorts::Older},  // letters only: the empty form sorts first
      {"ABC", "XYZ", Sorts::Equal},
      {"10000.0", "9999.0", Sorts::Older},  // .10000 against .9999, not widened
      {"1.3", "1.2", Sorts::Newer},
      {"1.2", "1.3", Sorts::Older},
      {"12 3.1", "12.1", Sorts::Equal},   // digits up to the first other character
      {"..1..2..", "1.2", Sorts::Equal},  // empty fields yield nothing
      {"1..2", "1.0.2", Sorts::Newer},    // not a zero: .0001.0002 against .0001.0000.0002
      {" 1 . 2 ", "1.2", Sorts::Equal},   // blanks trimmed
      {"1.-5", "1.0", Sorts::Equal},      // no digit at the start reads 0
      {"1.2B3", "1.2", Sorts::Equal},     // the letter's blank ends the digits
      {"", "", Sorts::Equal},
      {"1.0", "", Sorts::Newer},
      // Beyond 32 bits a field stays at all bits set (4294967295).
      {"5000000000", "4294967295", Sorts::Equal},
      {"99999999999", "4294967296", Sorts::Equal},
      {"4294967295", "4294967294", Sorts::Newer},
      {"1.5000000000", "1.9999", Sorts::Older},  // .4294967295 against .9999, as text
      {dotsPast, "1", Sorts::Equal},
      {dotsWithin, "1", Sorts::Newer},
  };
  for (const Row& row : rows) {
    Sorts got = Classify(BiosVerCmp(row.newVersion.c_str(), row.currentVersion.c_str()));
    EXPECT_EQ(got, row.expected) << "'" << row.newVersion << "' against '" << row.currentVersion << "': " << Name(got);
  }
}

TEST(VersionCompare, OlderIsTheOneRefusalCodeAndNewerIsTheByteDifference) {
  EXPECT_EQ(BiosVerCmp("1.2", "1.3"), kCheckOlder);
  EXPECT_EQ(BiosVerCmp("1.5", "1.3"), 2);
  EXPECT_EQ(BiosVerFmtCmp("NN", "Ab", "aB"), kCheckOlder);
  EXPECT_EQ(BiosVerFmtCmp("NN", "1c", "1a"), 2);
}

TEST(VersionCompare, FormatComparesByPosition) {
  struct Row {
    std::string format;
    std::string newVersion;
    std::string currentVersion;
    Sorts expected;
  };
  // Long formats and versions take part whole: nothing is cut to a buffer's size.
  const std::string longFormat(300, 'N');
  const std::string longVersion(300, '1');
  const std::string longNewer = std::string(280, '1') + "2" + std::string(19, '1');
  const std::string longLead = std::string(290, 'D') + "NN";  // L 292, C 2
  const Row rows[] = {
      {"N.NND", "1.22", "1.21B", Sorts::Newer},  // C 4, L 5: 1.22 against 1.21
      {"N.NND", "1.21", "1.22B", Sorts::Older},
      {"N.NND", "1.2", "1.21B", Sorts::Invalid},    // 3 characters
      {"N.NND", "1.22", "1.21BC", Sorts::Invalid},  // 6 characters
      {"N.NND", "1.22AB", "1.21B", Sorts::Invalid},
      {"N.NND", "1x22", "1.22", Sorts::Equal},  // '.' of the format: any character
      {"DDNN", "AB12", "XY12", Sorts::Equal},   // right-aligned behind the opening run
      {"DDNN", "12", "XY13", Sorts::Older},
      {"DDN.N", "1.3", "V21.2", Sorts::Newer},   // last three of each
      {"DNND", "A12B", "A12B", Sorts::Invalid},  // 'D' at both ends
      {"NDN", "1X2", "1X2", Sorts::Invalid},     // 'D' in the middle
      {"NNDD", "12", "12AB", Sorts::Equal},      // trailing 'D's are not compared
      {"", "", "", Sorts::Equal},                // an empty format takes only empty versions
      {"", "1", "", Sorts::Invalid},
      {"DDD", "", "AB", Sorts::Equal},  // 'D's only: nothing is compared
      {"DDD", "ABCD", "AB", Sorts::Invalid},
      {"TT", "aB", "Ab", Sorts::Equal},
      {"NN", "aB", "Ab", Sorts::Newer},
      {"NN", "Ab", "aB", Sorts::Older},
      {"NND", "9a", "10", Sorts::Newer},  // no numeric reading: 9 after 10
      {"NXN", "1a2", "1b2", Sorts::Equal},
      {"NZN", "1a2", "1a2", Sorts::Invalid},  // a character the format does not know
      {"nn", "12", "12", Sorts::Invalid},     // the letters are upper case only
      {"TN", "A1", "a2", Sorts::Older},
      {longFormat, longNewer, longVersion, Sorts::Newer},  // the difference at 280 counts
      {longFormat, std::string(255, '1'), std::string(255, '1'), Sorts::Invalid},  // C is 300
      {std::string(255, 'N'), longVersion, longVersion, Sorts::Invalid},  // longer than L
      {longLead, "V1.12", "V1.13", Sorts::Older},  // the last two behind 290 'D's
      {longLead, std::string(293, 'A'), "13", Sorts::Invalid},
  };
  for (const Row& row : rows) {
    Sorts got = Classify(BiosVerFmtCmp(row.format.c_str(), row.newVersion.c_str(), row.currentVersion.c_str()));
    EXPECT_EQ(got, row.expected) << row.format << ": '" << row.newVersion << "' against '" << row.currentVersion
                                 << "': " << Name(got);
  }
}

}  // namespace
