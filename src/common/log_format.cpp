#include "common/log_format.h"

namespace orlenda {

namespace {

// Writes into the caller's buffer and silently drops whatever would go past kLogTextMax, so that
// the terminator always has room at out[kLogTextMax] at the latest.
class Writer {
 public:
  explicit Writer(char16_t* out) : out_(out) {}

  bool full() const { return length_ == kLogTextMax; }
  void Put(char16_t c) {
    if (!full()) out_[length_++] = c;
  }
  void Fill(char16_t c, std::size_t n) {
    const std::size_t room = kLogTextMax - length_;
    if (n > room) n = room;
    for (std::size_t i = 0; i < n; ++i) out_[length_++] = c;
  }
  void Append(WStringView text) {
    const std::size_t room = kLogTextMax - length_;
    const std::size_t n = text.size() < room ? text.size() : room;
    for (std::size_t i = 0; i < n; ++i) out_[length_++] = text[i];
  }
  std::size_t Finish() {
    out_[length_] = 0;
    return length_;
  }

 private:
  char16_t* out_;
  std::size_t length_ = 0;
};

struct Conversion {
  bool left = false;
  bool zero = false;
  std::size_t width = 0;
  bool has_precision = false;
  std::size_t precision = 0;
};

// Widths and precisions past the buffer mean "as much as fits"; capping them while parsing keeps
// an absurd "%99999999999999999999d" from overflowing the count.
std::size_t ReadCount(const char16_t*& f) {
  std::size_t n = 0;
  while (*f >= u'0' && *f <= u'9') {
    if (n < kLogBufferChars) n = n * 10 + static_cast<std::size_t>(*f - u'0');
    ++f;
  }
  return n;
}

// Room for the 20 digits of the largest 64-bit value.
constexpr std::size_t kDigitsMax = 20;

// Renders `value` in `base` at the end of `buffer` and returns the digits.
WStringView RenderDigits(uint64_t value, unsigned base, bool upper, char16_t (&buffer)[kDigitsMax]) {
  const char16_t* digits = upper ? u"0123456789ABCDEF" : u"0123456789abcdef";
  std::size_t start = kDigitsMax;
  do {
    buffer[--start] = digits[value % base];
    value /= base;
  } while (value != 0);
  return WStringView(buffer + start, kDigitsMax - start);
}

// Pads `sign` + `body` to the conversion's width. Zero padding goes between the sign and the
// digits, so "%05d" of -42 reads "-0042".
void Emit(Writer& w, const Conversion& c, char16_t sign, WStringView body, bool zero_allowed) {
  const std::size_t length = body.size() + (sign != 0 ? 1 : 0);
  const std::size_t pad = c.width > length ? c.width - length : 0;
  if (c.left) {
    if (sign != 0) w.Put(sign);
    w.Append(body);
    w.Fill(u' ', pad);
  } else if (c.zero && zero_allowed) {
    if (sign != 0) w.Put(sign);
    w.Fill(u'0', pad);
    w.Append(body);
  } else {
    w.Fill(u' ', pad);
    if (sign != 0) w.Put(sign);
    w.Append(body);
  }
}

// The argument's bits as the formatter reads a number: 64 of them, trimmed later as the conversion
// requires.
uint64_t RawBits(const LogArg& arg) {
  return arg.kind() == LogArg::Kind::kSigned ? static_cast<uint64_t>(arg.as_signed())
                                             : arg.as_unsigned();
}

void EmitText(Writer& w, const Conversion& c, const LogArg& arg) {
  char16_t buffer[kDigitsMax];
  if (arg.kind() == LogArg::Kind::kText) {
    WStringView text = arg.text();
    if (c.has_precision && text.size() > c.precision) text = text.substr(0, c.precision);
    Emit(w, c, 0, text, true);
  } else if (arg.kind() == LogArg::Kind::kSigned && arg.as_signed() < 0) {
    // The whole value, not its low half: %s of a number is this formatter's own extension, and
    // the caller's real value is the useful thing to print.
    const uint64_t magnitude = 0 - static_cast<uint64_t>(arg.as_signed());
    Emit(w, c, u'-', RenderDigits(magnitude, 10, false, buffer), true);
  } else {
    Emit(w, c, 0, RenderDigits(RawBits(arg), 10, false, buffer), true);
  }
}

void EmitNumber(Writer& w, const Conversion& c, char16_t type, const LogArg& arg) {
  char16_t buffer[kDigitsMax];
  // wvsprintfW takes a 32-bit value off the argument list; the low half of a wider number is what
  // it would have seen.
  const uint32_t bits = static_cast<uint32_t>(RawBits(arg));
  switch (type) {
    case u'd':
      if (bits & 0x80000000u) {
        Emit(w, c, u'-', RenderDigits(0u - bits, 10, false, buffer), true);
      } else {
        Emit(w, c, 0, RenderDigits(bits, 10, false, buffer), true);
      }
      break;
    case u'u':
      Emit(w, c, 0, RenderDigits(bits, 10, false, buffer), true);
      break;
    default:
      Emit(w, c, 0, RenderDigits(bits, 16, type == u'X', buffer), true);
      break;
  }
}

}  // namespace

std::size_t FormatLogV(char16_t* out, const char16_t* format, const LogArg* args,
                       std::size_t count) {
  if (out == nullptr) return 0;
  Writer w(out);
  if (format == nullptr) return w.Finish();

  std::size_t next = 0;
  const char16_t* f = format;
  while (*f != 0 && !w.full()) {
    if (*f != u'%') {
      w.Put(*f++);
      continue;
    }
    ++f;
    Conversion c;
    for (;; ++f) {
      if (*f == u'-') {
        c.left = true;
      } else if (*f == u'0') {
        c.zero = true;
      } else {
        break;
      }
    }
    c.width = ReadCount(f);
    if (*f == u'.') {
      ++f;
      c.has_precision = true;
      c.precision = ReadCount(f);
    }
    // Size modifiers change nothing here: every argument already carries its own type.
    while (*f == u'l' || *f == u'h') ++f;
    // A format that ends inside a conversion prints nothing for it.
    if (*f == 0) break;
    const char16_t type = *f++;

    if (type != u's' && type != u'd' && type != u'u' && type != u'x' && type != u'X') {
      w.Put(type);  // "%%" and any unknown conversion print the character itself
      continue;
    }
    const LogArg* arg = next < count ? &args[next++] : nullptr;
    if (arg == nullptr || arg->kind() == LogArg::Kind::kNone) {
      // No argument: nothing to print, but the column stays as wide as the message expects.
      // Spaces, not zeros, so that a missing value never reads as a zero.
      Emit(w, c, 0, WStringView(), false);
    } else if (type == u's' || arg->kind() == LogArg::Kind::kText) {
      EmitText(w, c, *arg);
    } else {
      EmitNumber(w, c, type, *arg);
    }
  }
  return w.Finish();
}

}  // namespace orlenda
