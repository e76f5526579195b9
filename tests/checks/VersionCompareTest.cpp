// The two version comparisons: dotted numbers with letters ignored, and the positional compare
// under a [BIOSVersionFormat] format. A newer result is the first byte difference; an older one
// is the one refusal code.
#include <string>

#include "checks/ChecksBed.h"

namespace {

using VersionCompare = checks::ChecksBed;

// 'N' newer, 'E' equal, 'O' older, 'I' invalid (the format's code, or any other negative value).
char Sort(INT32 result) {
  if (result == kCheckOlder) return 'O';
  if (result < 0) return 'I';
  return result == 0 ? 'E' : 'N';
}

struct Row {
  std::string format, newVersion, currentVersion;
  char expected;
};

TEST_F(VersionCompare, DottedNumbersIgnoreLettersAndCompareAsText) {
  // 255 characters take part: a field behind them is not seen, one inside them is.
  const std::string dotsPast = "1" + std::string(254, '.') + "5";
  const std::string dotsWithin = "1" + std::string(253, '.') + "5";
  const Row rows[] = {
      {"", "1.2", "1.02", 'E'},        {"", "1.21B", "V1.21", 'E'},  // both .0001.0021
      {"", "1.2.0", "1.2", 'N'},       {"", "1.2", "1.2.0", 'O'},    // a longer form sorts after its prefix
      {"", "ABC", "1.0", 'O'},         {"", "ABC", "XYZ", 'E'},      // letters only: the empty form
      {"", "10000.0", "9999.0", 'O'},  // .10000 against .9999, as text
      {"", "1.3", "1.2", 'N'},         {"", "1.2", "1.3", 'O'},
      {"", "12 3.1", "12.1", 'E'},     // digits up to the first other character
      {"", "..1..2..", "1.2", 'E'},    // empty fields yield nothing
      {"", "1..2", "1.0.2", 'N'},      // an empty field is not a zero
      {"", " 1 . 2 ", "1.2", 'E'},     {"", "1.-5", "1.0", 'E'},  // no digit at the start reads 0
      {"", "1.2B3", "1.2", 'E'},       {"", "", "", 'E'},           {"", "1.0", "", 'N'},
      // Beyond 32 bits a field stays at all bits set.
      {"", "5000000000", "4294967295", 'E'},    {"", "4294967295", "4294967294", 'N'},
      {"", "1.5000000000", "1.9999", 'O'},      {"", dotsPast, "1", 'E'},
      {"", dotsWithin, "1", 'N'},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Sort(BiosVerCmp(row.newVersion.c_str(), row.currentVersion.c_str())), row.expected)
        << "'" << row.newVersion << "' against '" << row.currentVersion << "'";
  }
  EXPECT_EQ(BiosVerCmp("1.2", "1.3"), kCheckOlder);
  EXPECT_EQ(BiosVerCmp("1.5", "1.3"), 2);
}

TEST_F(VersionCompare, FormatComparesByPosition) {
  // Long formats and versions take part whole: nothing is cut to a buffer's size.
  const std::string longFormat(300, 'N');
  const std::string longVersion(300, '1');
  const std::string longNewer = std::string(280, '1') + "2" + std::string(19, '1');
  const std::string longLead = std::string(290, 'D') + "NN";
  const Row rows[] = {
      {"N.NND", "1.22", "1.21B", 'N'},   {"N.NND", "1.21", "1.22B", 'O'},
      {"N.NND", "1.2", "1.21B", 'I'},    {"N.NND", "1.22", "1.21BC", 'I'},  // 3 and 6 characters
      {"N.NND", "1.22AB", "1.21B", 'I'}, {"N.NND", "1x22", "1.22", 'E'},    // '.': any character
      {"DDNN", "AB12", "XY12", 'E'},     {"DDNN", "12", "XY13", 'O'},       // right-aligned behind the run
      {"DDN.N", "1.3", "V21.2", 'N'},    {"DNND", "A12B", "A12B", 'I'},     // 'D' at both ends
      {"NDN", "1X2", "1X2", 'I'},        {"NNDD", "12", "12AB", 'E'},       // trailing 'D's not compared
      {"", "", "", 'E'},                 {"", "1", "", 'I'},
      {"DDD", "", "AB", 'E'},            {"DDD", "ABCD", "AB", 'I'},
      {"TT", "aB", "Ab", 'E'},           {"NN", "aB", "Ab", 'N'},
      {"NN", "Ab", "aB", 'O'},           {"NND", "9a", "10", 'N'},          // no numeric reading
      {"NXN", "1a2", "1b2", 'E'},        {"NZN", "1a2", "1a2", 'I'},        // a letter the format lacks
      {"nn", "12", "12", 'I'},           {"TN", "A1", "a2", 'O'},
      {longFormat, longNewer, longVersion, 'N'},
      {longFormat, std::string(255, '1'), std::string(255, '1'), 'I'},
      {std::string(255, 'N'), longVersion, longVersion, 'I'},
      {longLead, "V1.12", "V1.13", 'O'},  {longLead, std::string(293, 'A'), "13", 'I'},
  };
  for (const Row& row : rows) {
    INT32 result = BiosVerFmtCmp(row.format.c_str(), row.newVersion.c_str(), row.currentVersion.c_str());
    EXPECT_EQ(Sort(result), row.expected) << row.format << ": '" << row.newVersion << "' against '"
                                          << row.currentVersion << "'";
    if (row.expected == 'I') EXPECT_EQ(result, kCheckFormatInvalid) << row.format;
  }
  EXPECT_EQ(BiosVerFmtCmp("NN", "1c", "1a"), 2);
}

}  // namespace
