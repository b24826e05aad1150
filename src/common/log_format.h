// The trace formatter: the subset of wvsprintfW that the system's messages use, type-safe.
//
// Conversions: %s (text; a number given for it prints its whole value in decimal), %d (signed
// 32-bit), %u (unsigned 32-bit), %x / %X (hex), with the flags '-' (left-justify) and '0' (zero
// padding, after any sign: "%05d" of -42 is "-0042") and a width, as in %08x and %-22s; a precision
// on %s (%.8s) limits the characters taken from the text; the size modifiers 'l' and 'h' are
// accepted and ignored (%ls, %ld); %% prints '%'. Numbers are taken as 32-bit values, as wvsprintfW
// reads them; text given to a number conversion prints as text. A conversion with no argument left
// prints nothing (still padded to its width, with spaces), so a message formatted with too few
// arguments never reads past them. Any other character after '%' is printed as itself and takes no
// argument; a '%' that ends the format prints nothing. Output is cut to kLogTextMax characters;
// a null format gives empty output.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "common/wide_string.h"

namespace orlenda {

// The formatter's buffer holds 1024 characters, terminator included.
constexpr std::size_t kLogBufferChars = 1024;
constexpr std::size_t kLogTextMax = kLogBufferChars - 1;

class LogArg {
 public:
  enum class Kind { kNone, kSigned, kUnsigned, kText };

  LogArg() = default;
  template <class T, std::enable_if_t<std::is_integral_v<T> && std::is_signed_v<T>, int> = 0>
  LogArg(T v) : kind_(Kind::kSigned), signed_(v) {}
  template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_signed_v<T>, int> = 0>
  LogArg(T v) : kind_(Kind::kUnsigned), unsigned_(v) {}
  template <class T, std::enable_if_t<std::is_enum_v<T>, int> = 0>
  LogArg(T v) : LogArg(static_cast<std::underlying_type_t<T>>(v)) {}
  // A null pointer prints as empty text.
  LogArg(const char16_t* s) : kind_(Kind::kText), text_(s ? WStringView(s) : WStringView()) {}
  LogArg(WStringView s) : kind_(Kind::kText), text_(s) {}
  LogArg(const WString& s) : kind_(Kind::kText), text_(s.data(), s.size()) {}

  Kind kind() const { return kind_; }
  int64_t as_signed() const { return signed_; }
  uint64_t as_unsigned() const { return unsigned_; }
  WStringView text() const { return text_; }

 private:
  Kind kind_ = Kind::kNone;
  int64_t signed_ = 0;
  uint64_t unsigned_ = 0;
  WStringView text_;
};

// Formats into `out` (kLogBufferChars units), always terminated. Returns the length (<= kLogTextMax).
std::size_t FormatLogV(char16_t* out, const char16_t* format, const LogArg* args, std::size_t count);

template <class... A>
std::size_t FormatLog(char16_t* out, const char16_t* format, const A&... args) {
  const LogArg list[] = {LogArg(args)..., LogArg()};
  return FormatLogV(out, format, list, sizeof...(A));
}

}  // namespace orlenda
