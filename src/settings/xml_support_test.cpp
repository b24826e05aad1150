// Escaping, CDATA, base64 and the file encodings of the XML document.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "platform/errors.h"
#include "platform/file.h"
#include "settings/base64.h"
#include "settings/xml_document.h"
#include "settings/xml_escape.h"
#include "settings/xml_file.h"

namespace orlenda {
namespace {

WString W(const char16_t* s) { return WString(s); }

// ---- escaping ---------------------------------------------------------------------------------

struct EscapeCase {
  const char16_t* in;
  uint32_t flags;
  const char16_t* out;
};

TEST(XmlEscape, Table) {
  const EscapeCase cases[] = {
      {u"a<b>&c'd\"", 0, u"a&lt;b&gt;&amp;c'd\""},
      {u"a<b>&c'd\"", kEscapeAttribute, u"a&lt;b&gt;&amp;c&apos;d&quot;"},
      {u"\r\n\t\u00e9\u20ac", kEscapeAttribute, u"\r\n\t\u00e9\u20ac"},  // nothing else escaped
      {u"", 0, u""},
      {u"&amp;", 0, u"&amp;amp;"},
      // Keeping references: an "&" that begins one stays, any other is escaped.
      {u"&amp;", kEscapeKeepReferences, u"&amp;"},
      {u"&#12;", kEscapeKeepReferences, u"&#12;"},
      {u"&x;", kEscapeKeepReferences, u"&x;"},
      {u"&_:a-1.b;", kEscapeKeepReferences, u"&_:a-1.b;"},
      {u"&\u00e9t\u00e9;", kEscapeKeepReferences, u"&\u00e9t\u00e9;"},
      {u"& ", kEscapeKeepReferences, u"&amp; "},
      {u"&;", kEscapeKeepReferences, u"&amp;;"},
      {u"&a b;", kEscapeKeepReferences, u"&amp;a b;"},
      {u"&-a;", kEscapeKeepReferences, u"&amp;-a;"},
      {u"&1;", kEscapeKeepReferences, u"&amp;1;"},
      {u"&abc", kEscapeKeepReferences, u"&amp;abc"},  // never closed
      {u"&", kEscapeKeepReferences, u"&amp;"},
      {u"<&lt;'", kEscapeKeepReferences | kEscapeAttribute, u"&lt;&lt;&apos;"},
  };
  for (const EscapeCase& c : cases) {
    EXPECT_EQ(EscapeXml(c.in, c.flags), W(c.out)) << "flags " << c.flags;
  }
}

TEST(XmlEscape, UnescapeTable) {
  const struct {
    const char16_t* in;
    const char16_t* out;
  } cases[] = {
      {u"&lt;&amp;&gt;&apos;&quot;", u"<&>'\""},
      {u"x&#65;y&#x41;z&#x4a;", u"xAyAzJ"},
      {u"&#x1F600;", u"\U0001F600"},  // above U+FFFF: a surrogate pair
      {u"&#123456;", u"\U0001E240"},  // six digits are the most that fit before the ";"
      {u"&#xFFFF;", u"\uFFFF"},
      // Left as they are.
      {u"&#0;", u"&#0;"},
      {u"&#x0;", u"&#x0;"},
      {u"&#;", u"&#;"},
      {u"&foo;", u"&foo;"},
      {u"&LT;", u"&LT;"},
      {u"&#12345678;", u"&#12345678;"},
      {u"&#1234567;", u"&#1234567;"},
      {u"&#xD800;", u"&#xD800;"},
      {u"&#x110000;", u"&#x110000;"},
      {u"&#12a;", u"&#12a;"},
      {u"&#X41;", u"&#X41;"},
      {u"&#65", u"&#65"},
      {u"&am", u"&am"},
      {u"&", u"&"},
      // After a literal "&" decoding goes on with the very next character.
      {u"&&lt;", u"&<"},
      {u"&#&#65;", u"&#A"},
  };
  for (const auto& c : cases) EXPECT_EQ(UnescapeXml(c.in), W(c.out)) << std::u16string(c.in).size();
}

TEST(XmlEscape, UnescapeUndoesEscape) {
  const WString text = u"if a<b && c>\"d\" then 'e' &#65; \u00e9\U0001F600";
  EXPECT_EQ(UnescapeXml(View(EscapeXml(View(text), kEscapeAttribute))), text);
  EXPECT_EQ(UnescapeXml(View(EscapeXml(View(text), 0))), text);
}

TEST(XmlEscape, CdataAndComment) {
  EXPECT_EQ(CdataSection(u"a]]>b"), W(u"<![CDATA[a]]]]><![CDATA[>b]]>"));
  EXPECT_EQ(CdataSection(u"]]>]]>"), W(u"<![CDATA[]]]]><![CDATA[>]]]]><![CDATA[>]]>"));
  EXPECT_EQ(CdataSection(u"a]]b>"), W(u"<![CDATA[a]]b>]]>"));
  EXPECT_EQ(CdataSection(u""), W(u"<![CDATA[]]>"));
  EXPECT_EQ(CommentText(u" note "), W(u"<!-- note -->"));
}

// ---- base64 -----------------------------------------------------------------------------------

WString Encode(const std::string& bytes) {
  return EncodeBase64(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

std::string Decode(WStringView text, std::size_t size) {
  std::string out(size, '\0');
  out.resize(DecodeBase64(text, reinterpret_cast<uint8_t*>(&out[0]), size));
  return out;
}

TEST(Base64, KnownValuesAndLineBreaks) {
  EXPECT_EQ(Encode(""), W(u"\r\n"));
  EXPECT_EQ(Encode("f"), W(u"\r\nZg==\r\n"));
  EXPECT_EQ(Encode("fo"), W(u"\r\nZm8=\r\n"));
  EXPECT_EQ(Encode("foo"), W(u"\r\nZm9v"));
  EXPECT_EQ(Encode("foob"), W(u"\r\nZm9vYg==\r\n"));
  EXPECT_EQ(Encode("foobar"), W(u"\r\nZm9vYmFy"));
  EXPECT_EQ(Encode(std::string("\xFB\xFF\xBF", 3)), W(u"\r\n+/+/"));

  const WString full_line(64, u'A');
  EXPECT_EQ(Encode(std::string(48, '\0')), u"\r\n" + full_line + u"\r\n");
  EXPECT_EQ(Encode(std::string(49, '\0')), u"\r\n" + full_line + u"\r\nAA==\r\n");
  EXPECT_EQ(Encode(std::string(50, '\0')), u"\r\n" + full_line + u"\r\nAAA=\r\n");
  EXPECT_EQ(Encode(std::string(51, '\0')), u"\r\n" + full_line + u"\r\nAAAA");
  EXPECT_EQ(Encode(std::string(96, '\0')), u"\r\n" + full_line + u"\r\n" + full_line + u"\r\n");
  // A padded group that fills the line ends it once: no empty line follows.
  EXPECT_EQ(Encode(std::string(46, '\0')), u"\r\n" + WString(62, u'A') + u"==\r\n");
}

// Every length up to a few lines: lines of at most 64 characters, never an empty one, and the
// bytes come back.
TEST(Base64, RoundTripsEveryLength) {
  std::mt19937 random(7);
  for (std::size_t n = 0; n <= 200; ++n) {
    std::string bytes(n, '\0');
    for (char& b : bytes) b = static_cast<char>(random());
    const WString text = Encode(bytes);
    ASSERT_GE(text.size(), 2u);
    ASSERT_EQ(text.substr(0, 2), W(u"\r\n")) << n;
    std::size_t line_start = 2;
    for (std::size_t at = text.find(u"\r\n", 2); at != WString::npos;
         at = text.find(u"\r\n", line_start)) {
      EXPECT_GT(at - line_start, 0u) << "empty line at " << n;
      line_start = at + 2;
    }
    for (std::size_t i = 2, run = 0; i < text.size(); ++i) {
      run = (text[i] == u'\r' || text[i] == u'\n') ? 0 : run + 1;
      ASSERT_LE(run, 64u) << n;
    }
    const std::size_t room = DecodeBase64(View(text), nullptr, 0);
    ASSERT_GE(room, n);
    EXPECT_EQ(Decode(View(text), room), bytes) << n;
  }
}

TEST(Base64, DecodingIsLenient) {
  EXPECT_EQ(Decode(u"\r\nZm9v\r\nYmFy\n", 16), "foobar");
  EXPECT_EQ(Decode(u"Zm\r\n9v", 16), "foo");  // a break inside a group is skipped too
  EXPECT_EQ(Decode(u"Zg==", 16), "f");
  EXPECT_EQ(Decode(u"Zm8=", 16), "fo");
  EXPECT_EQ(Decode(u"====", 16), "");
  // Characters outside the alphabet are zero bits, not errors.
  EXPECT_EQ(Decode(u"!!!!", 16), std::string(3, '\0'));
  EXPECT_EQ(Decode(u"Z\u00e9==", 16), "d");
  // A cut-off last group gives what its characters hold.
  EXPECT_EQ(Decode(u"Zm9vYg", 16), "foob");
  EXPECT_EQ(Decode(u"Zm9vY", 16), "foo");
}

TEST(Base64, StopsBeforeOverflowAndAnswersSizeQuery) {
  EXPECT_EQ(Decode(u"Zm9vYmFy", 5), "foo");
  EXPECT_EQ(Decode(u"Zm9v", 2), "");
  EXPECT_EQ(Decode(u"Zm9vYg==", 4), "foob");  // the padded group needs only one byte
  // The size query counts the text as given, line breaks included.
  EXPECT_EQ(DecodeBase64(u"", nullptr, 0), 3u);
  EXPECT_EQ(DecodeBase64(u"Zm9vYmFy", nullptr, 0), 9u);
  EXPECT_EQ(DecodeBase64(u"\r\nZm9vYmFy", nullptr, 0), 9u);
  EXPECT_EQ(DecodeBase64(u"\r\nZm9vYmFy\r\n", nullptr, 0), 12u);
}

// ---- files ------------------------------------------------------------------------------------

class XmlFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::random_device rd;
    for (int attempt = 0; attempt < 100 && dir_.empty(); ++attempt) {
      auto candidate = std::filesystem::temp_directory_path() / ("orx" + std::to_string(rd() % 1000000));
      if (std::filesystem::create_directory(candidate)) dir_ = candidate;
    }
    ASSERT_FALSE(dir_.empty());
  }
  void TearDown() override {
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  }

  WString PathOf(const char* name) const {
    std::u16string p = (dir_ / name).u16string();
    return WString(p.begin(), p.end());
  }
  std::string ReadBytes(const char* name) const {
    std::ifstream in(dir_ / name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  void WriteBytes(const char* name, const std::string& bytes) const {
    std::ofstream out(dir_ / name, std::ios::binary);
    out << bytes;
  }
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  std::filesystem::path dir_;
};

// 11 wide chars, 16 UTF-8 bytes: U+00E9 (2 bytes), U+20AC (3) and U+1F600 (4 bytes, 2 wide chars).
const char16_t kSample[] = u"<a>\u00e9\u20ac\U0001F600</a>";
const char kSampleUtf8[] = "<a>\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80</a>";

TEST_F(XmlFileTest, Utf8WithoutMarkRoundTrip) {
  WString summary;
  ASSERT_TRUE(WriteXmlFile(PathOf("s.xml"), kSample, 0, &summary)) << WideToUtf8(View(summary));
  EXPECT_EQ(summary, W(u"11 wide chars to 16 bytes"));
  EXPECT_EQ(ReadBytes("s.xml"), kSampleUtf8);

  WString text;
  uint32_t flags = kXmlFlagUtf16Bom | kXmlFlagUtf8Bom | 0x100;  // the two marks are cleared
  ASSERT_TRUE(ReadXmlFile(PathOf("s.xml"), &text, &flags, &summary));
  EXPECT_EQ(text, W(kSample));
  EXPECT_EQ(flags, 0x100u);
  EXPECT_EQ(summary, W(u"16 bytes to 11 wide chars"));
}

TEST_F(XmlFileTest, Utf8WithMarkRoundTrip) {
  WString summary;
  ASSERT_TRUE(WriteXmlFile(PathOf("s.xml"), kSample, kXmlFlagUtf8Bom, &summary));
  EXPECT_EQ(summary, W(u"11 wide chars to UTF-8 BOM + 16 bytes"));
  EXPECT_EQ(ReadBytes("s.xml"), std::string("\xEF\xBB\xBF") + kSampleUtf8);

  WString text;
  uint32_t flags = 0;
  ASSERT_TRUE(ReadXmlFile(PathOf("s.xml"), &text, &flags, &summary));
  EXPECT_EQ(text, W(kSample));
  EXPECT_EQ(flags, kXmlFlagUtf8Bom);
  EXPECT_EQ(summary, W(u"UTF-8 BOM + 16 bytes to 11 wide chars"));
}

TEST_F(XmlFileTest, Utf16RoundTripAndOddByte) {
  WString summary;
  // The UTF-16 mark wins over the UTF-8 one.
  ASSERT_TRUE(WriteXmlFile(PathOf("s.xml"), u"<a>\u20ac</a>", kXmlFlagUtf16Bom | kXmlFlagUtf8Bom,
                           &summary));
  EXPECT_EQ(summary, W(u"UTF-16LE BOM + 8 wide chars"));
  EXPECT_EQ(ReadBytes("s.xml"), std::string("\xFF\xFE<\0a\0>\0\xAC\x20<\0/\0a\0>\0", 18));

  WString text;
  uint32_t flags = 0;
  ASSERT_TRUE(ReadXmlFile(PathOf("s.xml"), &text, &flags, &summary));
  EXPECT_EQ(text, W(u"<a>\u20ac</a>"));
  EXPECT_EQ(flags, kXmlFlagUtf16Bom);
  EXPECT_EQ(summary, W(u"UTF-16LE BOM + 8 wide chars"));

  WriteBytes("odd.xml", std::string("\xFF\xFE" "A\0B", 5));
  ASSERT_TRUE(ReadXmlFile(PathOf("odd.xml"), &text, &flags, &summary));
  EXPECT_EQ(text, W(u"A"));
  EXPECT_EQ(summary, W(u"UTF-16LE BOM + 1 wide chars"));
}

TEST_F(XmlFileTest, EmptyAndMissingFiles) {
  WriteBytes("empty.xml", "");
  WString text = u"stale";
  WString summary;
  uint32_t flags = kXmlFlagUtf8Bom;
  ASSERT_TRUE(ReadXmlFile(PathOf("empty.xml"), &text, &flags, &summary));
  EXPECT_TRUE(text.empty());
  EXPECT_EQ(flags, 0u);
  EXPECT_EQ(summary, W(u"0 bytes to 0 wide chars"));

  // A file that holds only a mark is empty as well.
  WriteBytes("mark.xml", "\xEF\xBB\xBF");
  ASSERT_TRUE(ReadXmlFile(PathOf("mark.xml"), &text, &flags, &summary));
  EXPECT_TRUE(text.empty());
  EXPECT_EQ(summary, W(u"UTF-8 BOM + 0 bytes to 0 wide chars"));

  EXPECT_FALSE(ReadXmlFile(PathOf("missing.xml"), &text, &flags, &summary));
  char16_t expected[256];
  std::size_t length = platform::ErrorDescription(platform::kErrorFileNotFound, expected, 256);
  ASSERT_GT(length, 0u);
  EXPECT_EQ(summary, WString(expected, length));
}

TEST_F(XmlFileTest, SaveReplacesWholeFileAndLeavesNoTemporary) {
  WriteBytes("s.xml", std::string(4096, 'x'));
  WString summary;
  ASSERT_TRUE(WriteXmlFile(PathOf("s.xml"), u"<b/>", 0, &summary));
  EXPECT_EQ(ReadBytes("s.xml"), "<b/>");
  EXPECT_EQ(Names(), std::vector<std::string>{"s.xml"});
}

std::string g_seen_by_hook;

TEST_F(XmlFileTest, SaveAbandonedByHookKeepsOldFile) {
  const std::string old_bytes = std::string("\xEF\xBB\xBF") + "<old attr=\"1\">\r\n</old>\r\n";
  WriteBytes("s.xml", old_bytes);
  g_seen_by_hook.clear();
  WString summary;
  const bool saved = WriteXmlFile(PathOf("s.xml"), u"<new/>", 0, &summary,
                                  [](const WString& temporary) {
                                    std::ifstream in(std::filesystem::path(std::u16string(
                                                         temporary.begin(), temporary.end())),
                                                     std::ios::binary);
                                    g_seen_by_hook.assign(std::istreambuf_iterator<char>(in),
                                                          std::istreambuf_iterator<char>());
                                    return false;
                                  });
  EXPECT_FALSE(saved);
  EXPECT_NE(summary.find(u"abandoned"), WString::npos);
  EXPECT_EQ(g_seen_by_hook, "<new/>");  // the temporary file was complete when the hook ran
  EXPECT_EQ(ReadBytes("s.xml"), old_bytes);
  EXPECT_EQ(Names(), std::vector<std::string>{"s.xml"});
}

TEST_F(XmlFileTest, SaveIntoMissingFolderFails) {
  WString path = PathOf("no-such-folder");
  path.push_back(static_cast<WChar>(std::filesystem::path::preferred_separator));
  path.append(u"s.xml");
  WString summary;
  EXPECT_FALSE(WriteXmlFile(path, u"<a/>", 0, &summary));
  EXPECT_FALSE(summary.empty());
  EXPECT_EQ(summary.find(u"wide chars"), WString::npos);
  EXPECT_TRUE(Names().empty());
}

}  // namespace
}  // namespace orlenda
