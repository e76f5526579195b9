// The print dialect of every console and log text: 16-bit formats with %s, %a, %c, %d, %u, %x,
// %X, %p, %r, the l forms for 64 bits, widths, '0' fill and '-' justification, and the line-end
// normalisation of the format. Where the text goes is left to Console.cpp and Log.cpp.
#include "output/OutputInternal.h"

namespace {

// Appends characters to a caller's buffer; what does not fit falls away, the terminator always fits.
struct TextSink {
  CHAR16* buffer;
  UINTN capacity;
  UINTN length;
};

VOID Put(TextSink& sink, CHAR16 c) {
  if (sink.length + 1 < sink.capacity) {
    sink.buffer[sink.length++] = c;
  }
}

VOID PutRepeated(TextSink& sink, CHAR16 c, UINTN count) {
  for (UINTN i = 0; i < count; i++) {
    Put(sink, c);
  }
}

CHAR16 Widen(CHAR8 c) { return (CHAR16)(UINT8)c; }
CHAR16 Widen(CHAR16 c) { return c; }

struct ItemStyle {
  Bool leftJustify;
  Bool zeroFill;
  Bool hasPrecision;
  UINTN width;
  UINTN precision;
};

// A text item: blanks pad it to the width, on the left unless it is left-justified.
// With a precision, reads at most that many characters of the source.
template <typename CharT>
VOID PutText(TextSink& sink, const CharT* text, const ItemStyle& style) {
  UINTN length = 0;
  UINTN limit = style.hasPrecision ? style.precision : ~(UINTN)0;
  while (length < limit && text[length] != 0) {
    length++;
  }
  UINTN pad = style.width > length ? style.width - length : 0;
  if (!style.leftJustify) {
    PutRepeated(sink, u' ', pad);
  }
  for (UINTN i = 0; i < length; i++) {
    Put(sink, Widen(text[i]));
  }
  if (style.leftJustify) {
    PutRepeated(sink, u' ', pad);
  }
}

// Divides value by a small base in 16-bit steps, so that the IA32 build needs no 64-bit
// division from a runtime library; returns the remainder.
UINT32 DivideSmall(UINT64& value, UINT32 base) {
  UINT64 quotient = 0;
  UINT32 remainder = 0;
  for (int shift = 48; shift >= 0; shift -= 16) {
    UINT32 current = (remainder << 16) | (UINT32)((value >> shift) & 0xFFFF);
    quotient |= (UINT64)(current / base) << shift;
    remainder = current % base;
  }
  value = quotient;
  return remainder;
}

// A number item. Hexadecimal digits are always upper case.
VOID PutNumber(TextSink& sink, UINT64 magnitude, Bool negative, UINT32 base, const ItemStyle& style) {
  static constexpr CHAR16 kDigits[] = u"0123456789ABCDEF";
  CHAR16 digits[24];
  UINTN count = 0;
  do {
    digits[count++] = kDigits[DivideSmall(magnitude, base)];
  } while (magnitude != 0 && count < sizeof(digits) / sizeof(digits[0]));
  UINTN minimumDigits = style.hasPrecision && style.precision < 24 ? style.precision : 0;
  UINTN zeros = minimumDigits > count ? minimumDigits - count : 0;
  UINTN used = count + zeros + (negative ? 1 : 0);
  UINTN pad = style.width > used ? style.width - used : 0;
  if (style.zeroFill && !style.leftJustify) {
    zeros += pad;
    pad = 0;
  }
  if (!style.leftJustify) {
    PutRepeated(sink, u' ', pad);
  }
  if (negative) {
    Put(sink, u'-');
  }
  PutRepeated(sink, u'0', zeros);
  while (count > 0) {
    Put(sink, digits[--count]);
  }
  if (style.leftJustify) {
    PutRepeated(sink, u' ', pad);
  }
}

constexpr const CHAR16* kStatusWarningTexts[] = {
    u"Success",
    u"Warning Unknown Glyph",
    u"Warning Delete Failure",
    u"Warning Write Failure",
    u"Warning Buffer Too Small",
};

// Errors 1 to 24, by the number without the top bit.
constexpr const CHAR16* kStatusErrorTexts[] = {
    u"Load Error",       u"Invalid Parameter", u"Unsupported",      u"Bad Buffer Size",
    u"Buffer Too Small", u"Not Ready",         u"Device Error",     u"Write Protected",
    u"Out of Resources", u"Volume Corrupt",    u"Volume Full",      u"No Media",
    u"Media changed",    u"Not Found",         u"Access Denied",    u"No Response",
    u"No mapping",       u"Time out",          u"Not started",      u"Already started",
    u"Aborted",          u"ICMP Error",        u"TFTP Error",       u"Protocol Error",
};

constexpr UINTN kStatusWarningCount = sizeof(kStatusWarningTexts) / sizeof(kStatusWarningTexts[0]);
constexpr UINTN kStatusErrorCount = sizeof(kStatusErrorTexts) / sizeof(kStatusErrorTexts[0]);

// An unknown status prints as "%08X" of its native width.
VOID PutStatus(TextSink& sink, EFI_STATUS status, const ItemStyle& style) {
  const CHAR16* text = nullptr;
  if (status < kStatusWarningCount) {
    text = kStatusWarningTexts[status];
  } else if (EFI_ERROR(status)) {
    UINTN code = status & ~kEfiErrorBit;
    if (code >= 1 && code <= kStatusErrorCount) {
      text = kStatusErrorTexts[code - 1];
    }
  }
  if (text != nullptr) {
    PutText(sink, text, style);
    return;
  }
  ItemStyle hex = {false, true, false, 8, 0};
  PutNumber(sink, (UINT64)status, false, 16, hex);
}

constexpr CHAR16 kNullText[] = u"<null string>";

}  // namespace

UINTN FormatTextV(CHAR16* buffer, UINTN capacity, const CHAR16* format, va_list args) {
  if (buffer == nullptr || capacity == 0) {
    return 0;
  }
  TextSink sink = {buffer, capacity, 0};
  if (format == nullptr) {
    buffer[0] = 0;
    return 0;
  }
  va_list items;
  va_copy(items, args);
  for (const CHAR16* p = format; *p != 0; p++) {
    CHAR16 c = *p;
    // Line ends of the format: LF, CR LF and LF CR all become CR LF; a CR alone stays.
    if (c == u'\n') {
      if (p[1] == u'\r') {
        p++;
      }
      Put(sink, u'\r');
      Put(sink, u'\n');
      continue;
    }
    if (c == u'\r') {
      Put(sink, u'\r');
      if (p[1] == u'\n') {
        p++;
        Put(sink, u'\n');
      }
      continue;
    }
    if (c != u'%') {
      Put(sink, c);
      continue;
    }

    ItemStyle style = {false, false, false, 0, 0};
    Bool wide = false;
    for (p++;; p++) {
      if (*p == u'-') {
        style.leftJustify = true;
      } else if (*p == u'0') {
        style.zeroFill = true;
      } else if (*p == u' ' || *p == u',' || *p == u'+') {
        // Accepted and ignored.
      } else {
        break;
      }
    }
    if (*p == u'*') {
      int width = va_arg(items, int);
      style.width = width > 0 ? (UINTN)width : 0;
      p++;
    } else {
      while (*p >= u'0' && *p <= u'9') {
        style.width = style.width * 10 + (UINTN)(*p - u'0');
        p++;
      }
    }
    if (*p == u'.') {
      style.hasPrecision = true;
      p++;
      if (*p == u'*') {
        int precision = va_arg(items, int);
        style.precision = precision > 0 ? (UINTN)precision : 0;
        p++;
      } else {
        while (*p >= u'0' && *p <= u'9') {
          style.precision = style.precision * 10 + (UINTN)(*p - u'0');
          p++;
        }
      }
    }
    while (*p == u'l' || *p == u'L') {
      wide = true;
      p++;
    }

    switch (*p) {
      case u's':
      case u'S': {
        const CHAR16* text = va_arg(items, const CHAR16*);
        PutText(sink, text != nullptr ? text : kNullText, style);
        break;
      }
      case u'a': {
        const CHAR8* text = va_arg(items, const CHAR8*);
        if (text != nullptr) {
          PutText(sink, text, style);
        } else {
          PutText(sink, kNullText, style);
        }
        break;
      }
      case u'c': {
        CHAR16 one[2] = {(CHAR16)va_arg(items, int), 0};
        PutText(sink, one, style);
        break;
      }
      case u'd':
      case u'i': {
        INT64 value = wide ? va_arg(items, INT64) : (INT64)va_arg(items, INT32);
        Bool negative = value < 0;
        UINT64 magnitude = negative ? (UINT64)0 - (UINT64)value : (UINT64)value;
        PutNumber(sink, magnitude, negative, 10, style);
        break;
      }
      case u'u': {
        UINT64 value = wide ? va_arg(items, UINT64) : (UINT64)va_arg(items, UINT32);
        PutNumber(sink, value, false, 10, style);
        break;
      }
      case u'x':
      case u'X': {
        UINT64 value = wide ? va_arg(items, UINT64) : (UINT64)va_arg(items, UINT32);
        if (*p == u'X') {
          style.zeroFill = true;
        }
        PutNumber(sink, value, false, 16, style);
        break;
      }
      case u'p': {
        UINTN value = (UINTN)va_arg(items, VOID*);
        ItemStyle pointer = {false, true, false, sizeof(UINTN) * 2, 0};
        PutNumber(sink, (UINT64)value, false, 16, pointer);
        break;
      }
      case u'r': {
        EFI_STATUS status = va_arg(items, EFI_STATUS);
        PutStatus(sink, status, style);
        break;
      }
      case u'%':
        Put(sink, u'%');
        break;
      case 0:
        // A '%' at the very end of the format: nothing to print.
        p--;
        break;
      default:
        // An item this dialect does not know is shown as written.
        Put(sink, u'%');
        Put(sink, *p);
        break;
    }
  }
  va_end(items);
  buffer[sink.length] = 0;
  return sink.length;
}

UINTN FormatText(CHAR16* buffer, UINTN capacity, const CHAR16* format, ...) {
  va_list args;
  va_start(args, format);
  UINTN length = FormatTextV(buffer, capacity, format, args);
  va_end(args);
  return length;
}
