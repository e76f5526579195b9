// The print dialect, item by item: exact output for each format and its arguments.
#include <gtest/gtest.h>

#include <string>

#include "output/Output.h"

namespace {

constexpr size_t kRoom = 256;

// Formats into a buffer of capacity characters with guard characters behind it.
std::u16string Format(size_t capacity, const char16_t* format, ...) {
  std::u16string buffer(capacity + 4, u'\x7777');
  va_list args;
  va_start(args, format);
  UINTN length = FormatTextV(buffer.data(), capacity, format, args);
  va_end(args);
  EXPECT_TRUE(capacity == 0 || buffer[length] == u'\0') << "terminated behind the text";
  EXPECT_EQ(buffer.substr(capacity), std::u16string(4, u'\x7777')) << "nothing written past the capacity";
  return buffer.substr(0, length);
}

std::string Narrow(const std::u16string& text) {
  std::string out;
  for (char16_t c : text) out.push_back(c < 0x80 ? (char)c : '?');
  return out;
}

struct Row {
  std::u16string produced;
  const char16_t* expected;
};

TEST(PrintFormat, EachItemPrintsExactly) {
  const EFI_STATUS unknownError = EfiError(25);
  const Row rows[] = {
      {Format(kRoom, u"[%s]", u"abc"), u"[abc]"},
      {Format(kRoom, u"[%s]", (const CHAR16*)nullptr), u"[<null string>]"},
      {Format(kRoom, u"[%a]", "eight"), u"[eight]"},
      {Format(kRoom, u"[%5s|%-5s]", u"ab", u"cd"), u"[   ab|cd   ]"},
      {Format(kRoom, u"[%-48s]", u"41 "), u"[41                                              ]"},
      {Format(kRoom, u"[%c%c]", u'o', u'k'), u"[ok]"},
      {Format(kRoom, u"%d %d %d", 0, 42, -42), u"0 42 -42"},
      {Format(kRoom, u"[%4d|%-4d|%04d|%02d]", 7, 7, 7, 123), u"[   7|7   |0007|123]"},
      {Format(kRoom, u"[%05d]", -42), u"[-0042]"},
      {Format(kRoom, u"%u", 4000000000u), u"4000000000"},
      {Format(kRoom, u"[%4x|%4X|%04x|%-4x]", 0xAu, 0xAu, 0xAu, 0xAu), u"[   A|000A|000A|A   ]"},
      {Format(kRoom, u"%lx|%lX|%08lx", (UINT64)0x123456789AULL, (UINT64)0x1ULL, (UINT64)0xBEEFULL),
       u"123456789A|1|0000BEEF"},
      {Format(kRoom, u"%ld", (INT64)-5000000000LL), u"-5000000000"},
      {Format(kRoom, u"100%% done"), u"100% done"},
      {Format(kRoom, u"%r", EFI_SUCCESS), u"Success"},
      {Format(kRoom, u"%r", (EFI_STATUS)1), u"Warning Unknown Glyph"},
      {Format(kRoom, u"%r", EFI_LOAD_ERROR), u"Load Error"},
      {Format(kRoom, u"%r", (EFI_STATUS)5), u"00000005"},
      {Format(kRoom, u"%r", EfiError(0)), sizeof(UINTN) == 8 ? u"8000000000000000" : u"80000000"},
      {Format(kRoom, u"%r", unknownError), sizeof(UINTN) == 8 ? u"8000000000000019" : u"80000019"},
      {Format(kRoom, u"status %r.", EFI_ACCESS_DENIED), u"status Access Denied."},
      // Line ends of the format are normalised; those of arguments are not.
      {Format(kRoom, u"a\nb"), u"a\r\nb"},
      {Format(kRoom, u"a\n\rb"), u"a\r\nb"},
      {Format(kRoom, u"a\rb"), u"a\rb"},
      {Format(kRoom, u"%s|%a", u"x\ny", "p\nq"), u"x\ny|p\nq"},
      // Capacity: the rest falls away, the terminator always fits.
      {Format(4, u"abcdef"), u"abc"},
      {Format(1, u"abc"), u""},
      {Format(0, u"abc"), u""},
      {Format(4, u"%s and more", u"long text"), u"lon"},
      {Format(5, u"ab\ncd"), u"ab\r\n"},
  };
  for (size_t i = 0; i < sizeof(rows) / sizeof(rows[0]); i++) {
    EXPECT_EQ(Narrow(rows[i].produced), Narrow(rows[i].expected)) << "row " << i;
  }
}

}  // namespace
