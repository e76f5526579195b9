// The two version comparisons: dotted numbers with letters ignored, and the positional compare
// under a [BIOSVersionFormat] format. A newer result is the first byte difference; an older one
// is the one refusal code.
#include <string>

#include "checks/ChecksBed.h"

namespace {

using VersionCompare = checks::ChecksBed;

// 'N' newer, 'E' equal, 'O' older, 'I' the format's refusal.
char Sort(INT32 result) {
  if (result == kCheckOlder) return 'O';
  if (result == kCheckFormatInvalid) return 'I';
  return result < 0 ? '?' : result == 0 ? 'E' : 'N';
}

struct Row {
  std::string format, newVersion, currentVersion;
  char expected;
};

TEST_F(VersionCompare, DottedNumbersIgnoreLettersAndCompareAsText) {
  const Row rows[] = {
      {"", "1.2", "1.02", 'E'},
      {"", "1.21B", "V1.21", 'E'},       // both .0001.0021
      {"", "1.2.0", "1.2", 'N'},         // a longer form sorts after its prefix
      {"", "ABC", "1.0", 'O'},           // letters only: the empty form sorts first
      {"", "10000.0", "9999.0", 'O'},    // .10000 against .9999, as text
      {"", "12 3.1", "12.1", 'E'},       // digits up to the first other character
      {"", "1..2", "1.0.2", 'N'},        // an empty field yields nothing, not a zero
      {"", "1.-5", "1.0", 'E'},          // no digit at the start reads 0
      {"", "5000000000", "4294967295", 'E'},  // beyond 32 bits a field stays at all bits set
      {"", "1.5000000000", "1.9999", 'O'},
      {"", "1" + std::string(254, '.') + "5", "1", 'E'},  // 255 characters take part
      {"", "1" + std::string(253, '.') + "5", "1", 'N'},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Sort(BiosVerCmp(row.newVersion.c_str(), row.currentVersion.c_str())), row.expected)
        << "'" << row.newVersion << "' against '" << row.currentVersion << "'";
  }
  EXPECT_EQ(BiosVerCmp("1.5", "1.3"), 2);
}

TEST_F(VersionCompare, FormatComparesByPosition) {
  const std::string longNewer = std::string(280, '1') + "2" + std::string(19, '1');
  const std::string longLead = std::string(290, 'D') + "NN";
  const Row rows[] = {
      {"N.NND", "1.22", "1.21B", 'N'},
      {"N.NND", "1.21", "1.22B", 'O'},
      {"N.NND", "1.2", "1.21B", 'I'},    // 3 characters
      {"N.NND", "1.22", "1.21BC", 'I'},  // 6 characters
      {"N.NND", "1x22", "1.22", 'E'},    // '.': any character
      {"DDNN", "12", "XY13", 'O'},       // right-aligned behind the opening run
      {"DNND", "A12B", "A12B", 'I'},     // 'D' at both ends
      {"NDN", "1X2", "1X2", 'I'},        // 'D' in the middle
      {"NNDD", "12", "12AB", 'E'},       // trailing 'D's are not compared
      {"", "1", "", 'I'},
      {"DDD", "ABCD", "AB", 'I'},
      {"NN", "Ab", "aB", 'O'},
      {"NND", "9a", "10", 'N'},          // no numeric reading
      {"NZN", "1a2", "1a2", 'I'},        // a letter the format does not know
      {"nn", "12", "12", 'I'},
      {std::string(300, 'N'), longNewer, std::string(300, '1'), 'N'},  // nothing is cut to a buffer
      {std::string(255, 'N'), std::string(300, '1'), std::string(300, '1'), 'I'},
      {longLead, "V1.12", "V1.13", 'O'},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Sort(BiosVerFmtCmp(row.format.c_str(), row.newVersion.c_str(), row.currentVersion.c_str())), row.expected)
        << row.format << ": '" << row.newVersion << "' against '" << row.currentVersion << "'";
  }
  EXPECT_EQ(BiosVerFmtCmp("NN", "1c", "1a"), 2);
}

}  // namespace
