#include "common/log_format.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <string>
#include <vector>

namespace orlenda {
namespace {

constexpr char16_t kGuard = 0xBEEF;

// Formats into a buffer with guard units behind it, checks the terminator and that nothing past the
// buffer was touched, and returns the text.
std::u16string FormatList(const char16_t* format, const std::vector<LogArg>& args) {
  char16_t out[kLogBufferChars + 8];
  std::fill(std::begin(out), std::end(out), kGuard);
  const std::size_t length = FormatLogV(out, format, args.data(), args.size());
  EXPECT_LE(length, kLogTextMax);
  EXPECT_EQ(out[length], 0);
  for (std::size_t i = kLogBufferChars; i < kLogBufferChars + 8; ++i) EXPECT_EQ(out[i], kGuard);
  return std::u16string(out, length);
}

enum class Baud : int { k9600 = 9600 };

struct FormatCase {
  const char16_t* format;
  std::vector<LogArg> args;
  const char16_t* expected;
};

TEST(FormatLog, ConversionsAndMissingArguments) {
  const FormatCase cases[] = {
      {u"%08x", {0x80010000u}, u"80010000"}, {u"%08x", {1u}, u"00000001"},
      {u"%x/%X", {0xABCDEFu, 0xabcdefu}, u"abcdef/ABCDEF"}, {u"[%-22s]", {u"COM1"}, u"[COM1                  ]"},
      {u"[%-22s]", {u"ThirtyCharacterComponentName30"}, u"[ThirtyCharacterComponentName30]"},
      {u"[%6s]", {u"ab"}, u"[    ab]"}, {u"[%.3s|%-6.2s]", {u"abcdef", u"xyz"}, u"[abc|xy    ]"},
      {u"%d", {INT_MIN}, u"-2147483648"}, {u"%d", {uint32_t{0xFFFFFFFFu}}, u"-1"}, {u"%u", {-1}, u"4294967295"},
      {u"%d %u %x", {int64_t{0x1FFFFFFFF}, int64_t{0x1FFFFFFFF}, int64_t{-1}},
       u"-1 4294967295 ffffffff"},
      {u"[%05d|%-5d|%5d|%03d]", {-42, -42, -42, 12345}, u"[-0042|-42  |  -42|12345]"},
      {u"%ld %lu %hd %ls", {7, 8u, 9, u"t"}, u"7 8 9 t"},
      {u"<%s> %d", {u"SKR_NOT_LOCKED", Baud::k9600}, u"<SKR_NOT_LOCKED> 9600"},
      {u"100%% %d%%", {5}, u"100% 5%"}, {u"%q%d", {5}, u"q5"}, {u"abc%", {}, u"abc"}, {u"abc%-08", {}, u"abc"},
      // Numbers given to %s, and text given to numeric conversions.
      {u"%s|%s|%s", {-7, uint64_t{18446744073709551615u}, int64_t{0x1FFFFFFFF}},
       u"-7|18446744073709551615|8589934591"},
      {u"%d|%5x|%08u", {u"abc", u"ab", u"Z"}, u"abc|   ab|0000000Z"},
      {u"[%s]", {static_cast<const char16_t*>(nullptr)}, u"[]"},
      // Missing arguments print nothing but keep their width.
      {u"Error allocating PropertyHandler from %sOrlenda.properties", {},
       u"Error allocating PropertyHandler from Orlenda.properties"},
      {u"%d/%d", {5}, u"5/"}, {u"[%5s][%08x][%-3d]", {}, u"[     ][        ][   ]"}, {u"[%d]", {LogArg()}, u"[]"},
  };
  for (const auto& c : cases) EXPECT_EQ(FormatList(c.format, c.args), c.expected) << c.format;
  // No format at all.
  char16_t out[kLogBufferChars];
  out[0] = u'x';
  EXPECT_EQ(FormatLogV(out, nullptr, nullptr, 0), 0u);
  EXPECT_EQ(out[0], 0);
}

TEST(FormatLog, OutputIsCutAtTheBufferWhateverProducesIt) {
  const std::u16string a1020(1020, u'a');
  const std::u16string literal_1023(kLogTextMax, u'q');
  const std::u16string spaces_1022(kLogTextMax - 1, u' ');

  EXPECT_EQ(FormatList(literal_1023.c_str(), {}), literal_1023);
  EXPECT_EQ(FormatList((literal_1023 + u"Z").c_str(), {}), literal_1023);
  EXPECT_EQ(FormatList(u"%s", {WStringView(std::u16string(5000, u'L'))}), std::u16string(kLogTextMax, u'L'));
  EXPECT_EQ(FormatList(u"%2000s", {u"x"}), spaces_1022 + u" ");
  EXPECT_EQ(FormatList(u"%-2000s", {u"x"}), u"x" + spaces_1022);
  EXPECT_EQ(FormatList(u"%2000d", {}), spaces_1022 + u" ");
  // 2^64 + 1: a width counter that wrapped would come out as 1.
  EXPECT_EQ(FormatList(u"%18446744073709551617d", {5}), spaces_1022 + u" ");
  EXPECT_EQ(FormatList(u"%.99999999999999999999999s", {u"abc"}), u"abc");
  // Cut in the middle of zero padding, of space padding, and of a number.
  EXPECT_EQ(FormatList((a1020 + u"%08x").c_str(), {0xABu}), a1020 + u"000");
  EXPECT_EQ(FormatList((a1020 + u"%-8d").c_str(), {1}), a1020 + u"1  ");
  EXPECT_EQ(FormatList((a1020 + u"%d").c_str(), {-12345}), a1020 + u"-12");
  EXPECT_EQ(FormatList((a1020 + u"%%%%%%%%").c_str(), {}), a1020 + u"%%%");
}

}  // namespace
}  // namespace orlenda
