// Escaping, CDATA, base64 and the file encodings of the XML document.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "platform/errors.h"
#include "platform/file.h"
#include "settings/base64.h"
#include "settings/xml_document.h"
#include "settings/xml_escape.h"
#include "settings/xml_file.h"
#include "support/scratch_names.h"
#include "support/store_files.h"

namespace orlenda {
namespace {

std::string U8(const WString& s) { return std::string(WideToUtf8(View(s)).c_str()); }

// ---- escaping ---------------------------------------------------------------------------------

TEST(XmlEscape, EscapeTable) {
  constexpr uint32_t kKeep = kEscapeKeepReferences, kAttr = kEscapeAttribute;
  const struct {
    const char16_t* in;
    uint32_t flags;
    const char16_t* out;
  } cases[] = {
      {u"a<b>&c'd\"", 0, u"a&lt;b&gt;&amp;c'd\""},
      {u"a<b>&c'd\"", kAttr, u"a&lt;b&gt;&amp;c&apos;d&quot;"},
      {u"\r\n\t\u00e9\u20ac", kAttr, u"\r\n\t\u00e9\u20ac"},  // nothing else escaped
      {u"", 0, u""}, {u"&amp;", 0, u"&amp;amp;"}, {u"<&lt;'", kKeep | kAttr, u"&lt;&lt;&apos;"},
  };
  for (const auto& c : cases) EXPECT_EQ(EscapeXml(c.in, c.flags), c.out) << U8(c.in);
  // Keeping references: an "&" that begins one stays, any other is escaped.
  for (const char16_t* kept : {u"&amp;", u"&#12;", u"&_:a-1.b;", u"&\u00e9t\u00e9;"}) {
    EXPECT_EQ(EscapeXml(kept, kKeep), kept) << U8(kept);
  }
  for (const char16_t* lone : {u"& ", u"&;", u"&a b;", u"&-a;", u"&1;", u"&abc", u"&"}) {
    EXPECT_EQ(EscapeXml(lone, kKeep), u"&amp;" + WString(lone + 1)) << U8(lone);
  }
}

TEST(XmlEscape, UnescapeTable) {
  const struct {
    const char16_t* in;
    const char16_t* out;
  } cases[] = {
      {u"&lt;&amp;&gt;&apos;&quot;", u"<&>'\""}, {u"x&#65;y&#x41;z&#x4a;", u"xAyAzJ"}, {u"&#xFFFF;", u"\uFFFF"},
      {u"&#x1F600;", u"\U0001F600"},  // above U+FFFF: a surrogate pair
      {u"&#123456;", u"\U0001E240"},  // six digits are the most that fit before the ";"
      // After a literal "&" decoding goes on with the very next character.
      {u"&&lt;", u"&<"}, {u"&#&#65;", u"&#A"},
  };
  for (const auto& c : cases) EXPECT_EQ(UnescapeXml(c.in), c.out) << U8(c.in);
  for (const char16_t* kept : {u"&#0;", u"&#;", u"&foo;", u"&x65;", u"&LT;", u"&#12345678;", u"&#1234567;",
                               u"&#xD800;", u"&#x110000;", u"&#12a;", u"&#X41;", u"&#65", u"&am"}) {
    EXPECT_EQ(UnescapeXml(kept), kept);
  }
  const WString text = u"if a<b && c>\"d\" then 'e' &#65; \u00e9\U0001F600";
  for (uint32_t flags : {0u, uint32_t{kEscapeAttribute}}) {
    EXPECT_EQ(UnescapeXml(View(EscapeXml(View(text), flags))), text) << flags;
  }
}

TEST(XmlEscape, CdataAndComment) {
  const char16_t* cases[][2] = {{u"a]]>b", u"<![CDATA[a]]]]><![CDATA[>b]]>"}, {u"a]]b>", u"<![CDATA[a]]b>]]>"},
                                 {u"]]>]]>", u"<![CDATA[]]]]><![CDATA[>]]]]><![CDATA[>]]>"}, {u"", u"<![CDATA[]]>"}};
  for (const auto& c : cases) EXPECT_EQ(CdataSection(c[0]), c[1]) << U8(c[0]);
  EXPECT_EQ(CommentText(u" note "), u"<!-- note -->");
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
  const WString line(64, u'A');
  const struct {
    std::string bytes;
    WString text;
  } cases[] = {
      {"", u"\r\n"}, {"f", u"\r\nZg==\r\n"}, {"fo", u"\r\nZm8=\r\n"}, {"foo", u"\r\nZm9v"},
      {"foob", u"\r\nZm9vYg==\r\n"}, {"foobar", u"\r\nZm9vYmFy"}, {"\xFB\xFF\xBF", u"\r\n+/+/"},
      {std::string(48, '\0'), u"\r\n" + line + u"\r\n"},
      {std::string(49, '\0'), u"\r\n" + line + u"\r\nAA==\r\n"},
      {std::string(50, '\0'), u"\r\n" + line + u"\r\nAAA=\r\n"},
      {std::string(51, '\0'), u"\r\n" + line + u"\r\nAAAA"},
      {std::string(96, '\0'), u"\r\n" + line + u"\r\n" + line + u"\r\n"},
      // A padded group that fills the line ends it once: no empty line follows.
      {std::string(46, '\0'), u"\r\n" + WString(62, u'A') + u"==\r\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(Encode(c.bytes), c.text) << c.bytes.size();
}

// Every length up to a few lines: lines of 1 to 64 characters after the leading break, and the
// bytes come back.
TEST(Base64, RoundTripsEveryLength) {
  std::mt19937 random(7);
  for (std::size_t n = 0; n <= 200; ++n) {
    std::string bytes(n, '\0');
    for (char& b : bytes) b = static_cast<char>(random());
    const WString text = Encode(bytes);
    ASSERT_EQ(text.substr(0, 2), u"\r\n") << n;
    for (std::size_t start = 2, end; start < text.size(); start = end + 2) {
      end = std::min(text.find(u"\r\n", start), text.size());
      EXPECT_GT(end - start, 0u) << "empty line at " << n;
      EXPECT_LE(end - start, 64u) << n;
      EXPECT_EQ(text.find_first_of(u"\r\n", start), end == text.size() ? WString::npos : end);
    }
    const std::size_t room = DecodeBase64(View(text), nullptr, 0);
    ASSERT_GE(room, n);
    EXPECT_EQ(Decode(View(text), room), bytes) << n;
  }
}

TEST(Base64, DecodingIsLenientAndBounded) {
  const struct {
    const char16_t* text;
    std::size_t room;
    std::string bytes;
  } cases[] = {
      {u"\r\nZm9v\r\nYmFy\n", 16, "foobar"},
      {u"Zm\r\n9v", 16, "foo"},  // a break inside a group is skipped too
      {u"Zg==", 16, "f"}, {u"Zm8=", 16, "fo"}, {u"====", 16, ""},
      // Characters outside the alphabet are zero bits, not errors.
      {u"!!!!", 16, std::string(3, '\0')}, {u"Z\u00e9==", 16, "d"},
      // A cut-off last group gives what its characters hold.
      {u"Zm9vYg", 16, "foob"}, {u"Zm9vY", 16, "foo"},
      // Only whole groups that fit are written; a padded one needs only its bytes.
      {u"Zm9vYmFy", 5, "foo"}, {u"Zm9v", 2, ""}, {u"Zm9vYg==", 4, "foob"},
  };
  for (const auto& c : cases) EXPECT_EQ(Decode(c.text, c.room), c.bytes) << U8(c.text);
  // The size query counts the text as given, line breaks included.
  const std::pair<const char16_t*, std::size_t> rooms[] = {
      {u"", 3}, {u"Zm9vYmFy", 9}, {u"\r\nZm9vYmFy", 9}, {u"\r\nZm9vYmFy\r\n", 12}};
  for (const auto& [text, room] : rooms) EXPECT_EQ(DecodeBase64(text, nullptr, 0), room) << U8(text);
}

// ---- files ------------------------------------------------------------------------------------

// A fresh folder for each test.
class XmlFileTest : public testing::ScratchNameTest {
 protected:
  WString PathOf(const char* name) const {
    const std::u16string p = ScratchNameTest::PathOf(std::filesystem::u8path(name));
    return WString(p.begin(), p.end());
  }
  std::string ReadBytes(const char* name) const { return testing::ReadBytes(dir_ / std::filesystem::u8path(name)); }
  void WriteBytes(const char* name, const std::string& bytes) const {
    testing::WriteBytes(dir_ / std::filesystem::u8path(name), bytes);
  }
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir_)) names.push_back(e.path().filename().string());
    return names;
  }
};

constexpr uint32_t kOtherFlag = 0x100;
constexpr uint32_t kAllFlags = kXmlFlagUtf16Bom | kXmlFlagUtf8Bom | kOtherFlag;

// 11 wide chars, 16 UTF-8 bytes: U+00E9 (2 bytes), U+20AC (3) and U+1F600 (4 bytes, 2 wide chars).
const char16_t kSample[] = u"<a>\u00e9\u20ac\U0001F600</a>";
const std::string kSampleUtf8 = "<a>\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80</a>";

// A name that is not ASCII, as the system spells it.
const char kName[] = "gr\xC3\xBC\xC3\x9F" "e-\xE2\x82\xAC.xml";

// Bytes written, as WriteXmlFile writes kSample in its flags (the written summary), or as they are:
// LoadFile and LoadBytes read them alike, the mark deciding the encoding and the flags (the two
// marks set as read, the other bits kept), the read summary first in the report and the parse
// findings after it. A written document saves the same bytes again.
TEST_F(XmlFileTest, EncodingsReadAlikeFromFileAndBytesAndSaveAsRead) {
  const struct {
    const char16_t* written;  // nullptr: the bytes are written as they are
    uint32_t write_flags;
    std::string bytes;
    const char16_t* text;  // nullptr: not checked
    const char16_t* report;
    uint32_t flags;
    bool well_formed;
  } cases[] = {
      {u"11 wide chars to 16 bytes", 0, kSampleUtf8, kSample, u"16 bytes to 11 wide chars", 0, true},
      {u"11 wide chars to UTF-8 BOM + 16 bytes", kXmlFlagUtf8Bom, "\xEF\xBB\xBF" + kSampleUtf8, kSample,
       u"UTF-8 BOM + 16 bytes to 11 wide chars", kXmlFlagUtf8Bom, true},
      // The UTF-16 mark wins over the UTF-8 one.
      {u"UTF-16LE BOM + 11 wide chars", kXmlFlagUtf16Bom | kXmlFlagUtf8Bom,
       std::string("\xFF\xFE<\0a\0>\0\xE9\0\xAC\x20\x3D\xD8\0\xDE<\0/\0a\0>\0", 24), kSample,
       u"UTF-16LE BOM + 11 wide chars", kXmlFlagUtf16Bom, true},
      {nullptr, 0, "", u"", u"0 bytes to 0 wide chars, Empty document", 0, false},
      {nullptr, 0, "\xEF\xBB\xBF", u"", u"UTF-8 BOM + 0 bytes to 0 wide chars, Empty document", kXmlFlagUtf8Bom,
       false},
      {nullptr, 0, std::string("\xFF\xFE" "A\0B", 5), u"A", u"UTF-16LE BOM + 1 wide chars, No root element",
       kXmlFlagUtf16Bom, false},  // the odd byte is dropped
      {nullptr, 0, "<a>\xC3</a>", nullptr, u"8 bytes to 8 wide chars", 0, true},
      {nullptr, 0, "<a><b/>", u"<a><b/>", u"7 bytes to 7 wide chars, Element 'a' at offset 0 not ended", 0, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(U8(c.report));
    WString summary;
    if (c.written) {
      ASSERT_TRUE(WriteXmlFile(PathOf(kName), kSample, c.write_flags, &summary)) << U8(summary);
      EXPECT_EQ(summary, c.written);
      EXPECT_EQ(ReadBytes(kName), c.bytes);
    } else {
      WriteBytes(kName, c.bytes);
    }
    XmlDocument from_file;
    from_file.set_flags(kAllFlags);
    EXPECT_EQ(from_file.LoadFile(PathOf(kName)), c.well_formed);
    EXPECT_EQ(from_file.GetReport(), c.report);
    EXPECT_EQ(from_file.flags(), c.flags | kOtherFlag);
    if (c.text) { EXPECT_EQ(from_file.GetText(), c.text); }
    XmlDocument from_bytes;
    from_bytes.set_flags(kAllFlags);
    EXPECT_EQ(from_bytes.LoadBytes(reinterpret_cast<const uint8_t*>(c.bytes.data()), c.bytes.size()),
              c.well_formed);
    EXPECT_EQ(from_bytes.GetReport(), from_file.GetReport());
    EXPECT_EQ(from_bytes.flags(), from_file.flags());
    EXPECT_EQ(from_bytes.GetText(), from_file.GetText());
    if (!c.written) continue;
    ASSERT_TRUE(from_file.SaveFile(PathOf("again.xml")));
    EXPECT_EQ(from_file.GetReport(), c.written);
    EXPECT_EQ(ReadBytes("again.xml"), c.bytes);
  }
  // A missing file reports the system's text and leaves an empty document.
  XmlDocument doc;
  ASSERT_TRUE(doc.ParseText(u"<stale/>"));
  EXPECT_FALSE(doc.LoadFile(PathOf("missing.xml")));
  char16_t expected[256];
  const std::size_t length = platform::ErrorDescription(platform::kErrorFileNotFound, expected, 256);
  ASSERT_GT(length, 0u);
  EXPECT_EQ(doc.GetReport(), WString(expected, length));
  EXPECT_TRUE(doc.GetText().empty());
  EXPECT_FALSE(doc.HasValidRoot());
}

std::string g_seen_by_hook;

TEST_F(XmlFileTest, SaveReplacesTheOldFileOnlyWhenComplete) {
  const std::string old_bytes = "\xEF\xBB\xBF<old attr=\"1\">\r\n</old>\r\n" + std::string(4096, 'x');
  WriteBytes("s.xml", old_bytes);
  WString summary;
  // Interrupted between the temporary file and the replacement: the old file stays.
  EXPECT_FALSE(WriteXmlFile(PathOf("s.xml"), u"<new/>", 0, &summary, [](const WString& temporary) {
    g_seen_by_hook = testing::ReadBytes(std::u16string(temporary.begin(), temporary.end()));
    return false;
  }));
  EXPECT_NE(summary.find(u"abandoned"), WString::npos) << U8(summary);
  EXPECT_EQ(g_seen_by_hook, "<new/>");  // the temporary file was complete when the hook ran
  EXPECT_EQ(ReadBytes("s.xml"), old_bytes);
  EXPECT_EQ(Names(), std::vector<std::string>{"s.xml"});
  // Uninterrupted, the whole file is replaced and no temporary file is left, stale ones included.
  WriteBytes("s.xml.tmp", std::string(100, 'y'));
  ASSERT_TRUE(WriteXmlFile(PathOf("s.xml"), u"<b/>", 0, &summary));
  EXPECT_EQ(ReadBytes("s.xml"), "<b/>");
  EXPECT_EQ(Names(), std::vector<std::string>{"s.xml"});
  // A folder that is not there: the system's error, and nothing written.
  WString path = PathOf("no-such-folder");
  path.push_back(static_cast<WChar>(std::filesystem::path::preferred_separator));
  path.append(u"s.xml");
  EXPECT_FALSE(WriteXmlFile(path, u"<a/>", 0, &summary));
  EXPECT_FALSE(summary.empty());
  EXPECT_EQ(summary.find(u"wide chars"), WString::npos);
  EXPECT_EQ(Names(), std::vector<std::string>{"s.xml"});
}

}  // namespace
}  // namespace orlenda
