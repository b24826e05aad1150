#include "common/wide_string.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orlenda {
namespace {

std::u16string Decode(const std::string& bytes) {
  // An exact-size copy, so that a read past the input lands outside the block (ASan sees it).
  std::vector<char> exact(bytes.begin(), bytes.end());
  const WString wide = Utf8ToWide(std::string_view(exact.data(), exact.size()));
  return std::u16string(wide.data(), wide.size());
}

std::string Encode(const std::u16string& wide) {
  const HeapString utf8 = WideToUtf8(wide);
  return std::string(utf8.data(), utf8.size());
}

struct DecodeCase {
  const char* name;
  std::string bytes;
  std::u16string wide;
};

TEST(Utf8ToWide, MalformedInputBecomesOneReplacementPerMaximalSubpart) {
  const DecodeCase cases[] = {
      {"empty", "", u""}, {"embedded NUL", std::string("a\0b", 3), std::u16string(u"a\0b", 3)},
      {"overlong C0", "\xC0\x80", u"\uFFFD\uFFFD"}, {"overlong C1", "\xC1\xBF", u"\uFFFD\uFFFD"},
      {"overlong E0", "\xE0\x80\x80", u"\uFFFD\uFFFD\uFFFD"}, {"E0 9F", "\xE0\x9F\xBF", u"\uFFFD\uFFFD\uFFFD"},
      {"overlong F0", "\xF0\x8F\xBF\xBF", u"\uFFFD\uFFFD\uFFFD\uFFFD"}, {"FF", "a\xFFz", u"a\uFFFDz"},
      {"surrogate", "\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"}, {"last before surrogates", "\xED\x9F\xBF", u"\uD7FF"},
      {"above 10FFFF", "\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"F5 lead", "\xF5\x80\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"}, {"strays", "\x80\xBF", u"\uFFFD\uFFFD"},
      {"cut 3-byte before ASCII", "\xE2\x82" "A", u"\uFFFD" u"A"}, {"cut 3-byte at end", "x\xE2\x82", u"x\uFFFD"},
      {"cut 4-byte at end", "\xF0\x9F\x98", u"\uFFFD"}, {"cut 2-byte then valid", "\xC2\xC2\xA9", u"\uFFFD\u00A9"},
      {"cut 4-byte before lead", "\xF0\x9F\xE2\x82\xAC", u"\uFFFD\u20AC"},
      // The mixed example of the Unicode standard's U+FFFD practice.
      {"mixed", "\x61\xF1\x80\x80\xE1\x80\xC2\x62\x80\x63\x80\xBF\x64",
       u"a\uFFFD\uFFFD\uFFFDb\uFFFDc\uFFFD\uFFFDd"},
  };
  for (const auto& c : cases) EXPECT_EQ(Decode(c.bytes), c.wide) << c.name;
  // The end of the view ends a sequence even when its last byte follows in memory.
  const WString cut = Utf8ToWide(std::string_view("\xE2\x82\xAC", 2));
  EXPECT_EQ(std::u16string(cut.data(), cut.size()), u"\uFFFD");
}

// Boundary values of every sequence length, both ways.
TEST(WideString, ValidTextRoundTrips) {
  const std::pair<std::string, std::u16string> cases[] = {
      {"\x7F", u"\u007F"}, {"\xC2\x80", u"\u0080"}, {"\xDF\xBF", u"\u07FF"}, {"\xE0\xA0\x80", u"\u0800"},
      {"\xEE\x80\x80", u"\uE000"}, {"\xEF\xBF\xBF", u"\uFFFF"}, {"\xF0\x90\x80\x80", u"\U00010000"},
      {"\xF0\x9F\x98\x80", std::u16string{0xD83D, 0xDE00}}, {"\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
      {"COM1 \xE2\x82\xAC", u"COM1 \u20AC"},
  };
  for (const auto& [utf8, wide] : cases) {
    EXPECT_EQ(Decode(utf8), wide);
    EXPECT_EQ(Encode(wide), utf8);
  }
}

TEST(WideToUtf8, UnpairedSurrogatesBecomeReplacement) {
  const std::string kFffd = "\xEF\xBF\xBD";
  const std::pair<std::u16string, std::string> cases[] = {
      {{0xD83D}, kFffd}, {{0xDE00, u'A'}, kFffd + "A"}, {{0xD83D, u'A'}, kFffd + "A"}, {u"", ""},
      // Reversed halves are two strays, not a pair.
      {{0xDE00, 0xD83D}, kFffd + kFffd}, {{0xD83D, 0xD83D, 0xDE00}, kFffd + "\xF0\x9F\x98\x80"},
      {std::u16string(u"a\0b", 3), std::string("a\0b", 3)}};
  for (const auto& [wide, utf8] : cases) EXPECT_EQ(Encode(wide), utf8);
  // A high half at the end of the view stays unpaired even when a low half follows in memory.
  const char16_t pair[] = {0xD83D, 0xDE00};
  const HeapString cut = WideToUtf8(WStringView(pair, 1));
  EXPECT_EQ(std::string(cut.data(), cut.size()), kFffd);
}

}  // namespace
}  // namespace orlenda
